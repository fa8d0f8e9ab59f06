// The timeline view's viewport: a QOpenGLWidget with a 2.1 compatibility
// context (depth 16, alpha 8) that renders the view's visible rectangle.
//
// Contract
// - `paintGL` asks the view to draw its visible rectangle; the view's GL
//   state is set up there on every frame, so `resizeGL` has nothing to do.
// - When the context is about to go away (the widget is re-parented into
//   another window, or destroyed), the view frees every texture and frame
//   buffer it made with it; they are made again, lazily, with the next context.
// - Owned by the view (its viewport); `detachView` is called by the view's
//   destructor, after which no call reaches the view.
// - Threads: the GUI thread only.
#pragma once

#include <QOpenGLWidget>
#include <QPointer>

class VTTimelineView;

class VTTimelineGLWidget final : public QOpenGLWidget {
    Q_OBJECT
public:
    explicit VTTimelineGLWidget(VTTimelineView* view);
    ~VTTimelineGLWidget() override;

    void detachView();

protected:
    void initializeGL() override;
    void paintGL() override;
    void resizeGL(int width, int height) override;

private:
    void contextAboutToBeDestroyed();

    VTTimelineView* m_view = nullptr;
    QPointer<QOpenGLContext> m_connectedContext;
};
