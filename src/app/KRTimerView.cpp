#include "app/KRTimerView.h"

#include <QFont>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>

#include <cstdio>

KRTimerView::KRTimerView(QWidget* parent)
    : QWidget(parent)
{
    // A fixed size: resize and setGeometry keep the position and this size.
    setFixedSize(kWidth, kHeight);
}

void KRTimerView::setMillSeconds(int64_t millSeconds)
{
    if (m_millSeconds == millSeconds)
        return;
    m_millSeconds = millSeconds;
    update();
}

QString KRTimerView::formatTime(uint64_t t)
{
    char text[64];
    std::snprintf(text, sizeof text, "%02lu:%02lu:%02lu.%03lu", static_cast<unsigned long>(t / 3600000),
                  static_cast<unsigned long>(t / 60000 % 60), static_cast<unsigned long>(t / 1000 % 60),
                  static_cast<unsigned long>(t % 1000));
    return QString::fromLatin1(text);
}

void KRTimerView::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);

    // Half a pixel in, so that the one-pixel outline lies inside the view.
    const QRectF bounds = QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5);
    QPainterPath outline;
    outline.addRoundedRect(bounds, 6, 6);

    QLinearGradient gradient(bounds.topLeft(), bounds.bottomLeft());
    gradient.setColorAt(0.0, QColor(32, 59, 93));
    gradient.setColorAt(0.5, QColor(4, 25, 57));
    gradient.setColorAt(1.0, QColor(32, 59, 93));
    painter.fillPath(outline, gradient);
    painter.setPen(QPen(QColor(132, 144, 163), 1));
    painter.drawPath(outline);

    QFont font(QStringLiteral("Helvetica"));
    font.setStyleHint(QFont::SansSerif);
    font.setBold(true);
    font.setPixelSize(16);
    painter.setFont(font);
    painter.setPen(QColor(119, 200, 230));
    const int lineHeight = 16 + 2;
    const QRect line(0, (height() - lineHeight) / 2, width(), lineHeight);
    painter.drawText(line, Qt::AlignCenter, formatTime(static_cast<uint64_t>(m_millSeconds)));
}
