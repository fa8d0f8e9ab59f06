#include "timeline/VTTimelineGLWidget.h"

#include "timeline/VTTimelineView.h"

#include <QOpenGLContext>

VTTimelineGLWidget::VTTimelineGLWidget(VTTimelineView* view) : QOpenGLWidget(view), m_view(view)
{
    setFormat(VTTimelineView::defaultPixelFormat());
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

void VTTimelineGLWidget::contextAboutToBeDestroyed()
{
    if (!m_view)
        return;
    makeCurrent();
    m_view->releaseGLResources();
    doneCurrent();
}
