// The editor's only window: a tool row (zoom, volume, fades, save), the
// timeline, and a bottom row (play, split, time read-out), with the menus.
// It holds the widgets and actions and lays them out; what they do belongs
// to the application controller, which connects to them.
//
// Contract
// - Every action is made once, with its shortcut, and lives as long as the
//   window. Its enabled state is set by the controller only.
// - `closeRequested` replaces closing: the window closes only through
//   `closeWithoutAsking` (the controller decides).
// - `contentFrameChanged` is sent whenever the content area changes size.
// - The tool controls take no keyboard focus, so that the arrow keys, Space
//   and S reach the window's shortcuts.
#pragma once

#include <QMainWindow>

class KRTimerView;
class QAction;
class QMenu;
class QPushButton;
class QSlider;
class QToolButton;
class VTMixedCheckBox;
class VTTimelineView;

class MainWindow final : public QMainWindow {
    Q_OBJECT
public:
    // Slider positions per unit of value (sliders are integer).
    static constexpr int kSliderScale = 1000;

    struct Actions {
        QAction* newDocument = nullptr;
        QAction* openDocument = nullptr;
        QMenu* openRecent = nullptr;
        QAction* saveDocument = nullptr;
        QAction* saveDocumentAs = nullptr;
        QAction* importFile = nullptr;
        QAction* exportFile = nullptr;
        QAction* quit = nullptr;
        QAction* undo = nullptr;
        QAction* redo = nullptr;
        QAction* cut = nullptr;
        QAction* copy = nullptr;
        QAction* paste = nullptr;
        QAction* deleteSelection = nullptr;
        QAction* selectAll = nullptr;
        QAction* moveLeft = nullptr;
        QAction* moveRight = nullptr;
        QAction* splitClk = nullptr;
        QAction* zoomIn = nullptr;
        QAction* zoomOut = nullptr;
        QAction* playClk = nullptr;
        QAction* showHelp = nullptr;
        QAction* about = nullptr;
    };

    explicit MainWindow(QWidget* parent = nullptr);
    ~MainWindow() override;

    const Actions& actions() const { return m_actions; }
    QList<QAction*> allActions() const;

    // Outlets.
    VTTimelineView* timelineView() const { return m_timelineView; }
    KRTimerView* timerView() const { return m_timerView; }
    QPushButton* plyButton() const { return m_plyButton; }
    QPushButton* splitButton() const { return m_splitButton; }
    VTMixedCheckBox* chkFadeIn() const { return m_chkFadeIn; }
    VTMixedCheckBox* chkFadeOut() const { return m_chkFadeOut; }
    QToolButton* minVolumeButton() const { return m_minVolumeButton; }
    QToolButton* maxVolumeButton() const { return m_maxVolumeButton; }
    QSlider* volumeSlider() const { return m_volumeSlider; }
    QToolButton* minZoomButton() const { return m_minZoomButton; }
    QToolButton* maxZoomButton() const { return m_maxZoomButton; }
    QSlider* zoomSlider() const { return m_zoomSlider; }
    QPushButton* saveButton() const { return m_saveButton; }
    QWidget* contentView() const { return m_contentView; }

    // Slider values as doubles.
    static double sliderValue(const QSlider* slider);
    static void setSliderValue(QSlider* slider, double value);

    // The window's height may not exceed this (the controller keeps it).
    void setMaximumContentHeight(int height);
    // Closes for good.
    void closeWithoutAsking();

Q_SIGNALS:
    void closeRequested();
    void contentFrameChanged();

protected:
    void closeEvent(QCloseEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    QWidget* makeToolRow();
    QWidget* makeBottomRow();
    void makeMenus();
    QAction* makeAction(QMenu* menu, const QString& text, const QList<QKeySequence>& shortcuts);

    Actions m_actions;
    QWidget* m_contentView = nullptr;
    VTTimelineView* m_timelineView = nullptr;
    KRTimerView* m_timerView = nullptr;
    QPushButton* m_plyButton = nullptr;
    QPushButton* m_splitButton = nullptr;
    VTMixedCheckBox* m_chkFadeIn = nullptr;
    VTMixedCheckBox* m_chkFadeOut = nullptr;
    QToolButton* m_minVolumeButton = nullptr;
    QToolButton* m_maxVolumeButton = nullptr;
    QSlider* m_volumeSlider = nullptr;
    QToolButton* m_minZoomButton = nullptr;
    QToolButton* m_maxZoomButton = nullptr;
    QSlider* m_zoomSlider = nullptr;
    QPushButton* m_saveButton = nullptr;
    bool m_closing = false;
};
