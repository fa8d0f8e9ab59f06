#include "timeline/VTTimelineGLWidget.h"

#include "timeline/VTTimelineView.h"

#include <QCoreApplication>
#include <QEvent>
#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QWidget>

VTTimelineGLWidget::VTTimelineGLWidget(VTTimelineView* view) :
    QOpenGLWindow(QOpenGLWindow::PartialUpdateBlit), m_view(view)
{
    setFormat(VTTimelineView::defaultPixelFormat());
    setFlag(Qt::WindowDoesNotAcceptFocus);
}

VTTimelineGLWidget::~VTTimelineGLWidget()
{
    if (m_connectedContext)
        disconnect(m_connectedContext, nullptr, this, nullptr);
}

void VTTimelineGLWidget::detachView()
{
    m_view = nullptr;
}

void VTTimelineGLWidget::initializeGL()
{
    QOpenGLContext* glContext = context();
    if (!glContext || glContext == m_connectedContext)
        return;
    if (m_connectedContext)
        disconnect(m_connectedContext, nullptr, this, nullptr);
    m_connectedContext = glContext;
    connect(glContext, &QOpenGLContext::aboutToBeDestroyed, this, &VTTimelineGLWidget::contextAboutToBeDestroyed,
            Qt::DirectConnection);
}

void VTTimelineGLWidget::paintGL()
{
    if (m_view)
        m_view->drawRect(m_view->visibleRect());
}

void VTTimelineGLWidget::resizeGL(int /*width*/, int /*height*/) {}

QImage VTTimelineGLWidget::renderAndGrab()
{
    if (!isValid() || !m_view)
        return {};
    makeCurrent();
    context()->functions()->glBindFramebuffer(GL_FRAMEBUFFER, defaultFramebufferObject());
    m_view->drawRect(m_view->visibleRect());
    // Reads the frame buffer object the frame was drawn into.
    return grabFramebuffer();
}

bool VTTimelineGLWidget::event(QEvent* event)
{
    switch (event->type()) {
    case QEvent::MouseButtonPress:
    case QEvent::MouseButtonRelease:
    case QEvent::MouseButtonDblClick:
    case QEvent::MouseMove:
    case QEvent::Wheel:
    case QEvent::DragEnter:
    case QEvent::DragMove:
    case QEvent::DragLeave:
    case QEvent::Drop:
        if (m_eventTarget) {
            QCoreApplication::sendEvent(m_eventTarget, event);
            return true;
        }
        break;
    default:
        break;
    }
    return QOpenGLWindow::event(event);
}

void VTTimelineGLWidget::contextAboutToBeDestroyed()
{
    if (!m_view)
        return;
    makeCurrent();
    m_view->releaseGLResources();
    doneCurrent();
}
