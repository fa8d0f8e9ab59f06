// Small helpers shared by the timeline's GL classes: the legacy (2.1
// compatibility) function table of the current context, and deletion of GL
// names with the context that made them.
//
// Contract
// - `legacyGL()` answers the QOpenGLFunctions_2_1 of the current context, or
//   null when there is none or the context cannot give a 2.1 compatibility
//   table (logged once per context). `gl()` answers the context's
//   QOpenGLFunctions (used for framebuffer objects), or null without a context.
// - `GLOwner` remembers the context that was current when a GL object was
//   made. `withContext` runs work with that context current: directly when it
//   is current already, otherwise by making it current for the call (on its
//   last surface, or on a temporary offscreen surface) and restoring the
//   previous context afterwards. When the context has been destroyed, its
//   names died with it and the work is not run.
// - Threads: the GUI thread only (GL contexts of the view live there).
#pragma once

#include <QOpenGLContext>
#include <QPointer>

#include <functional>

class QOpenGLFunctions;
class QOpenGLFunctions_2_1;

namespace brindle::gl {

QOpenGLFunctions_2_1* legacyGL();
QOpenGLFunctions* gl();

class GLOwner {
public:
    // Records the current context (none when no context is current).
    GLOwner();

    QOpenGLContext* context() const { return m_context.data(); }
    bool hasContext() const { return !m_context.isNull(); }
    // Runs `work` with the owning context current; false when it could not be.
    bool withContext(const std::function<void()>& work) const;

private:
    QPointer<QOpenGLContext> m_context;
};

}  // namespace brindle::gl
