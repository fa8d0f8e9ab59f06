#include "app/VTWidgetAlertPresenter.h"

#include <QApplication>
#include <QMessageBox>

void VTWidgetAlertPresenter::presentAlert(const QString& messageText, const QString& informativeText)
{
    QMessageBox box(QMessageBox::Warning, QApplication::applicationDisplayName(), messageText, QMessageBox::Ok,
                    QApplication::activeWindow());
    box.setInformativeText(informativeText);
    box.exec();
}
