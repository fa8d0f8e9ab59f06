// The timeline view's drawing surface: a QOpenGLWindow with a 2.1
// compatibility context (depth 16, alpha 8) that renders the view's visible
// rectangle, embedded in the view as its viewport through a window
// container.
//
// Why a window and not a QOpenGLWidget: a QOpenGLWidget's frames reach the
// screen only through Qt's composition of the whole top-level window, and
// under X servers without a usable composition path (Xvfb with Mesa's
// software renderer, as used for virtual displays and remote sessions) that
// composition shows the widget black. A native GL window presents its own
// frames, so what it draws is what the person sees, on every X server.
//
// Contract
// - `paintGL` asks the view to draw its visible rectangle into
//   `defaultFramebufferObject()` (the window's own frame buffer object, kept
//   between frames so that `renderNow` and `grabFramebuffer` see the frame).
// - Mouse, wheel and drag events that reach the window are handed to the
//   view's viewport widget (the container), where the view handles them as
//   it would for any viewport; positions are the same in both.
// - The window never takes keyboard focus, so the editor's shortcuts stay
//   with its main window.
// - When the context is about to go away (the window is destroyed), the view
//   frees every texture and frame buffer it made with it; they are made
//   again, lazily, with the next context.
// - Owned by its container (the view's viewport); `detachView` is called by
//   the view's destructor, after which no call reaches the view.
// - Threads: the GUI thread only.
#pragma once

#include <QImage>
#include <QOpenGLWindow>
#include <QPointer>

class VTTimelineView;
class QWidget;

class VTTimelineGLWidget final : public QOpenGLWindow {
    Q_OBJECT
public:
    explicit VTTimelineGLWidget(VTTimelineView* view);
    ~VTTimelineGLWidget() override;

    void detachView();
    // The widget that mouse, wheel and drag events are handed to.
    void setEventTarget(QWidget* target) { m_eventTarget = target; }
    // Draws a frame now (when the window has a context) and answers it.
    QImage renderAndGrab();

protected:
    void initializeGL() override;
    void paintGL() override;
    void resizeGL(int width, int height) override;
    bool event(QEvent* event) override;

private:
    void contextAboutToBeDestroyed();

    VTTimelineView* m_view = nullptr;
    QPointer<QWidget> m_eventTarget;
    QPointer<QOpenGLContext> m_connectedContext;
};
