#include "app/KRProgressWndCtrl.h"

#include <QApplication>
#include <QDialog>
#include <QDialogButtonBox>
#include <QGridLayout>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>

#include <algorithm>
#include <cmath>

// The progress window. While a task runs it cannot be dismissed: reject()
// (Escape, the window manager's close button) only asks for a cancel, and
// only when cancelling is offered.
class ProgressSheet : public QDialog {
public:
    explicit ProgressSheet(KRProgressWndCtrl* controller)
        : QDialog(nullptr, Qt::Dialog | Qt::CustomizeWindowHint | Qt::WindowTitleHint), m_controller(controller)
    {
        setObjectName(QStringLiteral("progressSheet"));
        setWindowTitle(QApplication::applicationDisplayName());
        setMinimumWidth(420);

        description = new QLabel(this);
        description->setObjectName(QStringLiteral("progressDescription"));
        description->setWordWrap(true);
        bar = new QProgressBar(this);
        bar->setRange(0, 1000);
        bar->setTextVisible(false);
        percentage = new QLabel(this);
        percentage->setObjectName(QStringLiteral("progressPercentage"));
        percentage->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
        // Room for "100 %", so the bar does not jump as the text grows.
        percentage->setMinimumWidth(percentage->fontMetrics().horizontalAdvance(QStringLiteral("100 %")));
        buttons = new QDialogButtonBox(QDialogButtonBox::Cancel, this);
        QObject::connect(buttons, &QDialogButtonBox::rejected, controller, &KRProgressWndCtrl::cancelRequested);

        auto* grid = new QGridLayout(this);
        grid->setContentsMargins(20, 18, 20, 16);
        grid->setVerticalSpacing(10);
        grid->addWidget(description, 0, 0, 1, 2);
        grid->addWidget(bar, 1, 0);
        grid->addWidget(percentage, 1, 1);
        grid->addWidget(buttons, 2, 0, 1, 2);
    }

    void reject() override
    {
        if (running) {
            if (m_controller->canCancel())
                Q_EMIT m_controller->cancelRequested();
            return;
        }
        QDialog::reject();
    }

    QLabel* description = nullptr;
    QProgressBar* bar = nullptr;
    QLabel* percentage = nullptr;
    QDialogButtonBox* buttons = nullptr;
    bool running = false;

private:
    KRProgressWndCtrl* m_controller;
};

KRProgressWndCtrl::KRProgressWndCtrl(QObject* parent) : QObject(parent) {}

KRProgressWndCtrl::~KRProgressWndCtrl()
{
    delete m_sheet.data();
}

void KRProgressWndCtrl::setProcent(double procent)
{
    m_procent = procent;
    if (m_sheet)
        showProcent();
}

void KRProgressWndCtrl::setCanCancel(bool canCancel)
{
    m_canCancel = canCancel;
    if (m_sheet)
        m_sheet->buttons->setVisible(canCancel);
}

void KRProgressWndCtrl::setProgressDescription(const QString& progressDescription)
{
    m_progressDescription = progressDescription;
    if (m_sheet)
        m_sheet->description->setText(progressDescription);
}

QDialog* KRProgressWndCtrl::window()
{
    if (!m_sheet) {
        m_sheet = new ProgressSheet(this);
        windowDidLoad();
    }
    return m_sheet;
}

void KRProgressWndCtrl::windowDidLoad()
{
    m_shownTenths = -1;
    m_shownPercent = -1;
    setProcent(0.0);
    setCanCancel(m_canCancel);
    setProgressDescription(m_progressDescription);
}

void KRProgressWndCtrl::beginSheet(QWidget* window)
{
    this->window();
    if (m_sheet->parentWidget() != window)
        m_sheet->setParent(window, m_sheet->windowFlags());
    m_sheet->running = true;
    m_sheet->open();
}

void KRProgressWndCtrl::endSheet()
{
    if (!m_sheet)
        return;
    m_sheet->running = false;
    m_sheet->hide();
}

void KRProgressWndCtrl::showProcent()
{
    const double shown = std::isfinite(m_procent) ? std::clamp(m_procent, 0.0, 100.0) : 0.0;
    const int tenths = static_cast<int>(shown * 10.0);
    if (tenths == m_shownTenths)
        return;
    m_shownTenths = tenths;
    m_sheet->bar->setValue(tenths);
    const int percent = tenths / 10;
    if (percent == m_shownPercent)
        return;
    m_shownPercent = percent;
    m_sheet->percentage->setText(QStringLiteral("%1 %").arg(percent));
}
