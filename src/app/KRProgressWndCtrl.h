// The progress sheet: a window-modal dialog over the main window that shows
// what a background task is doing and how far it has got.
//
// Contract
// - A window controller. Its three properties are shown by its window:
//   `progressDescription` (a line of text), `procent` (the completed
//   percentage as the task delivers it, shown as a bar and as "42 %", clamped
//   to 0–100 for display) and `canCancel` (whether a Cancel button is shown;
//   it emits cancelRequested and leaves ending the task to its owner).
// - The window (`window()`) is made on first use, after which
//   `windowDidLoad` resets `procent` to 0. `beginSheet` shows it window-modal
//   on the given window (re-parenting it there); `endSheet` closes it. While a
//   sheet is up, neither Escape nor the window's close button ends it.
// - Updates are cheap: a percentage that shows the same as the last one does
//   not touch the widgets, so a task may report as often as it likes.
// - The controller owns its window (deleted with the controller, or earlier
//   with the window it was shown on). Main thread only.
#pragma once

#include <QObject>
#include <QPointer>
#include <QString>

class QDialog;
class QWidget;
class ProgressSheet;

class KRProgressWndCtrl : public QObject {
    Q_OBJECT
    Q_PROPERTY(double procent READ procent WRITE setProcent)
    Q_PROPERTY(bool canCancel READ canCancel WRITE setCanCancel)
    Q_PROPERTY(QString progressDescription READ progressDescription WRITE setProgressDescription)

public:
    explicit KRProgressWndCtrl(QObject* parent = nullptr);
    ~KRProgressWndCtrl() override;

    double procent() const { return m_procent; }
    void setProcent(double procent);
    bool canCancel() const { return m_canCancel; }
    void setCanCancel(bool canCancel);
    QString progressDescription() const { return m_progressDescription; }
    void setProgressDescription(const QString& progressDescription);

    // The progress window, made on first use.
    QDialog* window();
    // Shows the window as a window-modal sheet on `window`.
    void beginSheet(QWidget* window);
    // Closes the sheet; nothing happens when none is shown.
    void endSheet();

Q_SIGNALS:
    // The Cancel button was pressed (only shown when canCancel is set).
    void cancelRequested();

private:
    // Runs once the window exists.
    void windowDidLoad();
    void showProcent();

    double m_procent = 0.0;
    bool m_canCancel = false;
    QString m_progressDescription;
    QPointer<ProgressSheet> m_sheet;
    int m_shownTenths = -1;  // the bar's value, in tenths of a percent
    int m_shownPercent = -1; // the whole percentage in the label
};
