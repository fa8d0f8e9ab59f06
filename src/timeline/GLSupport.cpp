#include "timeline/GLSupport.h"

#include "foundation/Log.h"

#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QOpenGLFunctions_2_1>
#include <QOpenGLVersionFunctionsFactory>
#include <QSet>

#include <memory>

namespace brindle::gl {

QOpenGLFunctions_2_1* legacyGL()
{
    QOpenGLContext* context = QOpenGLContext::currentContext();
    if (!context)
        return nullptr;
    auto* functions = QOpenGLVersionFunctionsFactory::get<QOpenGLFunctions_2_1>(context);
    if (!functions) {
        static QSet<QOpenGLContext*> reported;
        if (!reported.contains(context)) {
            reported.insert(context);
            brindle::log(QStringLiteral("The GL context (version %1.%2) offers no 2.1 compatibility functions; "
                                        "the timeline draws nothing.")
                             .arg(context->format().majorVersion())
                             .arg(context->format().minorVersion()));
        }
        return nullptr;
    }
    return functions;
}

QOpenGLFunctions* gl()
{
    QOpenGLContext* context = QOpenGLContext::currentContext();
    return context ? context->functions() : nullptr;
}

GLOwner::GLOwner() : m_context(QOpenGLContext::currentContext()) {}

bool GLOwner::withContext(const std::function<void()>& work) const
{
    QOpenGLContext* owner = m_context.data();
    if (!owner)
        return false;
    QOpenGLContext* current = QOpenGLContext::currentContext();
    if (current == owner) {
        work();
        return true;
    }
    QSurface* previousSurface = current ? current->surface() : nullptr;
    std::unique_ptr<QOffscreenSurface> temporary;
    QSurface* surface = owner->surface();
    if (!surface || !owner->makeCurrent(surface)) {
        temporary = std::make_unique<QOffscreenSurface>();
        temporary->setFormat(owner->format());
        temporary->create();
        if (!owner->makeCurrent(temporary.get())) {
            brindle::log(QStringLiteral("Could not make a GL context current to free its textures."));
            return false;
        }
    }
    work();
    if (current && previousSurface)
        current->makeCurrent(previousSurface);
    else
        owner->doneCurrent();
    return true;
}

}  // namespace brindle::gl
