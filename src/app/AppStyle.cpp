#include "app/AppStyle.h"

#include <QApplication>
#include <QPalette>
#include <QStyleFactory>

namespace brindle::app {

void applyAppStyle(QApplication& application)
{
    application.setStyle(QStyleFactory::create(QStringLiteral("Fusion")));
    QPalette palette;
    const QColor window(58, 58, 60);
    const QColor base(40, 40, 42);
    const QColor text(225, 225, 228);
    const QColor disabledText(120, 120, 124);
    const QColor highlight(74, 128, 196);
    palette.setColor(QPalette::Window, window);
    palette.setColor(QPalette::WindowText, text);
    palette.setColor(QPalette::Base, base);
    palette.setColor(QPalette::AlternateBase, window);
    palette.setColor(QPalette::ToolTipBase, QColor(30, 30, 32));
    palette.setColor(QPalette::ToolTipText, text);
    palette.setColor(QPalette::Text, text);
    palette.setColor(QPalette::Button, QColor(70, 70, 73));
    palette.setColor(QPalette::ButtonText, text);
    palette.setColor(QPalette::BrightText, Qt::white);
    palette.setColor(QPalette::Highlight, highlight);
    palette.setColor(QPalette::HighlightedText, Qt::white);
    palette.setColor(QPalette::Link, highlight.lighter(130));
    palette.setColor(QPalette::PlaceholderText, disabledText);
    for (QPalette::ColorRole role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
        palette.setColor(QPalette::Disabled, role, disabledText);
    application.setPalette(palette);
}

}  // namespace brindle::app
