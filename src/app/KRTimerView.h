// The time read-out: a fixed-size 120 × 34 panel that shows a millisecond
// count as "hh:mm:ss.mmm" on a dark rounded gradient.
//
// Contract
// - Whatever size it is given, the view keeps 120 × 34 (its position is kept).
// - `setMillSeconds` stores the value and schedules a repaint.
// - Main thread only, like every widget.
#pragma once

#include <QString>
#include <QWidget>

#include <cstdint>

class KRTimerView final : public QWidget {
    Q_OBJECT
public:
    static constexpr int kWidth = 120;
    static constexpr int kHeight = 34;

    explicit KRTimerView(QWidget* parent = nullptr);

    int64_t millSeconds() const { return m_millSeconds; }
    void setMillSeconds(int64_t millSeconds);

    // Hours (not wrapped), minutes, seconds and milliseconds of `t`,
    // "%02lu:%02lu:%02lu.%03lu".
    static QString formatTime(uint64_t t);

    QSize sizeHint() const override { return {kWidth, kHeight}; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    int64_t m_millSeconds = 0;
};
