// Collects the log lines written while it exists (tests of the media folder).
#pragma once

#include "foundation/Log.h"

#include <QString>
#include <QStringList>

#include <memory>
#include <mutex>

namespace brindle::test {

class LogCapture {
public:
    LogCapture() : m_state(std::make_shared<State>())
    {
        std::shared_ptr<State> state = m_state;
        m_previous = setLogSink([state](const QString& line) {
            std::lock_guard lock(state->mutex);
            state->lines.append(line);
        });
    }
    ~LogCapture() { setLogSink(std::move(m_previous)); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    QStringList lines() const
    {
        std::lock_guard lock(m_state->mutex);
        return m_state->lines;
    }
    bool contains(const QString& line) const { return lines().contains(line); }
    bool containsText(const QString& text) const
    {
        for (const QString& line : lines()) {
            if (line.contains(text))
                return true;
        }
        return false;
    }

private:
    struct State {
        std::mutex mutex;
        QStringList lines;
    };
    std::shared_ptr<State> m_state;
    LogSink m_previous;
};

}  // namespace brindle::test
