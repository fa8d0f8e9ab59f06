#include "app/MainWindow.h"

#include "app/KRTimerView.h"
#include "app/VTMixedCheckBox.h"
#include "timeline/VTTimelineView.h"

#include <QAction>
#include <QCloseEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QMenuBar>
#include <QPushButton>
#include <QSlider>
#include <QToolButton>
#include <QVBoxLayout>

#include <cmath>

namespace {

constexpr int kToolRowHeight = 57;
// The bottom row holds the 34-point time read-out with a little air.
constexpr int kBottomRowHeight = 38;

QToolButton* makeToolButton(const QString& text, const QString& toolTip, QWidget* parent)
{
    auto* button = new QToolButton(parent);
    button->setText(text);
    button->setToolTip(toolTip);
    button->setFocusPolicy(Qt::NoFocus);
    button->setAutoRaise(true);
    button->setFixedSize(24, 24);
    return button;
}

QSlider* makeSlider(double minimum, double maximum, double value, QWidget* parent)
{
    auto* slider = new QSlider(Qt::Horizontal, parent);
    slider->setRange(static_cast<int>(std::lround(minimum * MainWindow::kSliderScale)),
                     static_cast<int>(std::lround(maximum * MainWindow::kSliderScale)));
    MainWindow::setSliderValue(slider, value);
    slider->setFocusPolicy(Qt::NoFocus);
    slider->setFixedWidth(140);
    return slider;
}

QLabel* makeCaption(const QString& text, QWidget* parent)
{
    auto* label = new QLabel(text, parent);
    label->setStyleSheet(QStringLiteral("color: #b8b8bc;"));
    return label;
}

}  // namespace

MainWindow::MainWindow(QWidget* parent) : QMainWindow(parent)
{
    m_contentView = new QWidget(this);
    auto* column = new QVBoxLayout(m_contentView);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);
    column->addWidget(makeToolRow());
    m_timelineView = new VTTimelineView(m_contentView);
    m_timelineView->setFocusPolicy(Qt::StrongFocus);
    column->addWidget(m_timelineView, 1);
    column->addWidget(makeBottomRow());
    setCentralWidget(m_contentView);
    m_contentView->installEventFilter(this);
    makeMenus();
    m_timelineView->setFocus();
    resize(1200, 640);
}

MainWindow::~MainWindow() = default;

double MainWindow::sliderValue(const QSlider* slider)
{
    return static_cast<double>(slider->value()) / kSliderScale;
}

void MainWindow::setSliderValue(QSlider* slider, double value)
{
    const QSignalBlocker blocker(slider);
    slider->setValue(static_cast<int>(std::lround(value * kSliderScale)));
}

QWidget* MainWindow::makeToolRow()
{
    auto* row = new QWidget(m_contentView);
    row->setObjectName(QStringLiteral("toolRow"));
    row->setFixedHeight(kToolRowHeight);
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(12, 0, 12, 0);
    layout->setSpacing(4);

    layout->addWidget(makeCaption(tr("Zoom"), row));
    m_minZoomButton = makeToolButton(QStringLiteral("−"), tr("Zoom out"), row);
    m_zoomSlider = makeSlider(0.0, 1.0, 0.5, row);
    m_zoomSlider->setToolTip(tr("Zoom"));
    m_maxZoomButton = makeToolButton(QStringLiteral("+"), tr("Zoom in"), row);
    layout->addWidget(m_minZoomButton);
    layout->addWidget(m_zoomSlider);
    layout->addWidget(m_maxZoomButton);
    layout->addSpacing(24);

    layout->addWidget(makeCaption(tr("Volume"), row));
    m_minVolumeButton = makeToolButton(QStringLiteral("−"), tr("Lower the volume of the selected clips"), row);
    m_volumeSlider = makeSlider(0.0, 3.0, 1.0, row);
    m_volumeSlider->setToolTip(tr("Volume of the selected clips (0 to 3)"));
    m_maxVolumeButton = makeToolButton(QStringLiteral("+"), tr("Raise the volume of the selected clips"), row);
    layout->addWidget(m_minVolumeButton);
    layout->addWidget(m_volumeSlider);
    layout->addWidget(m_maxVolumeButton);
    layout->addSpacing(24);

    m_chkFadeIn = new VTMixedCheckBox(tr("Fade In"), 0, row);
    m_chkFadeOut = new VTMixedCheckBox(tr("Fade Out"), 1, row);
    for (QCheckBox* box : {static_cast<QCheckBox*>(m_chkFadeIn), static_cast<QCheckBox*>(m_chkFadeOut)}) {
        box->setFocusPolicy(Qt::NoFocus);
        layout->addWidget(box);
    }
    layout->addStretch(1);

    m_saveButton = new QPushButton(tr("Save"), row);
    m_saveButton->setFocusPolicy(Qt::NoFocus);
    m_saveButton->setToolTip(tr("Save the project"));
    layout->addWidget(m_saveButton);
    return row;
}

QWidget* MainWindow::makeBottomRow()
{
    // No layout: the controller keeps the row centred (contentFrameChanged).
    auto* row = new QWidget(m_contentView);
    row->setObjectName(QStringLiteral("bottomRow"));
    row->setFixedHeight(kBottomRowHeight);
    m_plyButton = new QPushButton(row);
    m_plyButton->setFocusPolicy(Qt::NoFocus);
    m_plyButton->setToolTip(tr("Play or pause (Space)"));
    m_plyButton->setGeometry(0, (kBottomRowHeight - 28) / 2, 44, 28);
    m_splitButton = new QPushButton(tr("Split"), row);
    m_splitButton->setFocusPolicy(Qt::NoFocus);
    m_splitButton->setToolTip(tr("Split the selected clips at the play cursor (S)"));
    m_splitButton->setGeometry(52, (kBottomRowHeight - 28) / 2, 64, 28);
    m_timerView = new KRTimerView(row);
    m_timerView->move(128, (kBottomRowHeight - m_timerView->height()) / 2);
    return row;
}

QAction* MainWindow::makeAction(QMenu* menu, const QString& text, const QList<QKeySequence>& shortcuts)
{
    auto* action = menu->addAction(text);
    action->setShortcuts(shortcuts);
    action->setShortcutContext(Qt::WindowShortcut);
    return action;
}

void MainWindow::makeMenus()
{
    QMenu* file = menuBar()->addMenu(tr("&File"));
    m_actions.newDocument = makeAction(file, tr("&New"), {QKeySequence::New});
    m_actions.openDocument = makeAction(file, tr("&Open…"), {QKeySequence::Open});
    m_actions.openRecent = file->addMenu(tr("Open &Recent"));
    file->addSeparator();
    m_actions.saveDocument = makeAction(file, tr("&Save"), {QKeySequence::Save});
    m_actions.saveDocumentAs = makeAction(file, tr("Save &As…"), {QKeySequence(QStringLiteral("Ctrl+Shift+S"))});
    file->addSeparator();
    m_actions.importFile = makeAction(file, tr("&Import…"), {QKeySequence(QStringLiteral("Ctrl+I"))});
    m_actions.exportFile = makeAction(file, tr("&Export…"), {QKeySequence(QStringLiteral("Ctrl+E"))});
    file->addSeparator();
    m_actions.quit = makeAction(file, tr("&Quit"), {QKeySequence(QStringLiteral("Ctrl+Q"))});
    m_actions.quit->setMenuRole(QAction::QuitRole);

    QMenu* edit = menuBar()->addMenu(tr("&Edit"));
    m_actions.undo = makeAction(edit, tr("&Undo"), {QKeySequence(QStringLiteral("Ctrl+Z"))});
    m_actions.redo = makeAction(edit, tr("&Redo"),
                                {QKeySequence(QStringLiteral("Ctrl+Shift+Z")), QKeySequence(QStringLiteral("Ctrl+Y"))});
    edit->addSeparator();
    m_actions.cut = makeAction(edit, tr("Cu&t"), {QKeySequence(QStringLiteral("Ctrl+X"))});
    m_actions.copy = makeAction(edit, tr("&Copy"), {QKeySequence(QStringLiteral("Ctrl+C"))});
    m_actions.paste = makeAction(edit, tr("&Paste"), {QKeySequence(QStringLiteral("Ctrl+V"))});
    m_actions.deleteSelection = makeAction(edit, tr("&Delete"), {QKeySequence(Qt::Key_Delete), QKeySequence(Qt::Key_Backspace)});
    m_actions.selectAll = makeAction(edit, tr("Select &All"), {QKeySequence(QStringLiteral("Ctrl+A"))});
    edit->addSeparator();
    m_actions.moveLeft = makeAction(edit, tr("Move &Left"), {QKeySequence(Qt::Key_Left)});
    m_actions.moveRight = makeAction(edit, tr("Move &Right"), {QKeySequence(Qt::Key_Right)});
    m_actions.splitClk = makeAction(edit, tr("&Split at Cursor"), {QKeySequence(Qt::Key_S)});

    QMenu* view = menuBar()->addMenu(tr("&View"));
    m_actions.zoomIn = makeAction(view, tr("Zoom &In"),
                                  {QKeySequence(QStringLiteral("Ctrl+=")), QKeySequence(QStringLiteral("Ctrl++"))});
    m_actions.zoomOut = makeAction(view, tr("Zoom &Out"), {QKeySequence(QStringLiteral("Ctrl+-"))});

    QMenu* playback = menuBar()->addMenu(tr("&Playback"));
    m_actions.playClk = makeAction(playback, tr("&Play/Pause"), {QKeySequence(Qt::Key_Space)});

    QMenu* help = menuBar()->addMenu(tr("&Help"));
    m_actions.showHelp = makeAction(help, tr("Brindle &Help"), {QKeySequence(Qt::Key_F1)});
    m_actions.about = makeAction(help, tr("&About Brindle"), {});
    m_actions.about->setMenuRole(QAction::AboutRole);
}

QList<QAction*> MainWindow::allActions() const
{
    return {m_actions.newDocument, m_actions.openDocument, m_actions.saveDocument, m_actions.saveDocumentAs,
            m_actions.importFile,  m_actions.exportFile,   m_actions.quit,         m_actions.undo,
            m_actions.redo,        m_actions.cut,          m_actions.copy,         m_actions.paste,
            m_actions.deleteSelection, m_actions.selectAll, m_actions.moveLeft,    m_actions.moveRight,
            m_actions.splitClk,    m_actions.zoomIn,       m_actions.zoomOut,      m_actions.playClk,
            m_actions.showHelp,    m_actions.about};
}

void MainWindow::setMaximumContentHeight(int height)
{
    // The menu bar sits inside the window here; the cap applies to the rest.
    setMaximumHeight(height + menuBar()->sizeHint().height());
}

void MainWindow::closeWithoutAsking()
{
    m_closing = true;
    close();
}

void MainWindow::closeEvent(QCloseEvent* event)
{
    if (m_closing) {
        event->accept();
        return;
    }
    event->ignore();
    Q_EMIT closeRequested();
}

bool MainWindow::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == m_contentView && event->type() == QEvent::Resize)
        Q_EMIT contentFrameChanged();
    return QMainWindow::eventFilter(watched, event);
}
