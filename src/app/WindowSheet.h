// The editor's sheets: message boxes modal to one window (the main window's
// prompts and alerts), which delete themselves once closed.
#pragma once

#include <QApplication>
#include <QMessageBox>
#include <QString>
#include <QWidget>

namespace brindle::app {

// A window-modal message box over `window` with the application's name as
// its title (window managers show a dialog without one as "Untitled").
// The caller adds buttons and opens it.
inline QMessageBox* makeSheet(QWidget* window, const QString& text, const QString& informativeText = {})
{
    auto* sheet = new QMessageBox(window);
    sheet->setWindowTitle(QApplication::applicationDisplayName());
    sheet->setAttribute(Qt::WA_DeleteOnClose);
    sheet->setWindowModality(Qt::WindowModal);
    sheet->setText(text);
    sheet->setInformativeText(informativeText);
    return sheet;
}

}  // namespace brindle::app
