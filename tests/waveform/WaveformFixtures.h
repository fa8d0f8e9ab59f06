// Media for the waveform tests: WAV files decoded into real data providers
// registered with the shared registry, and helpers to read block values.
#pragma once

#include "foundation/Log.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <cstdint>
#include <memory>
#include <mutex>

class VTDataProvider;

namespace brindle::test {

// A registered provider holding exactly `interleaved` in a packed format
// 0–4 with the given channels and rate; `name` must be unique per content.
// Null (with a test failure) when it cannot be decoded.
std::shared_ptr<VTDataProvider> providerWithSamples(const QString& name, int32_t sampleFormat, int channels,
                                                    int sampleRate, const QByteArray& interleaved);

// Interleaved samples of type T made by value(frame, channel).
template <class T, class Value>
QByteArray interleaved(int64_t frames, int channels, Value value)
{
    QByteArray bytes(static_cast<qsizetype>(frames * channels * int64_t(sizeof(T))), '\0');
    auto* out = reinterpret_cast<T*>(bytes.data());
    for (int64_t frame = 0; frame < frames; ++frame)
        for (int channel = 0; channel < channels; ++channel)
            out[frame * channels + channel] = static_cast<T>(value(frame, channel));
    return bytes;
}

// Collects the log lines written while it exists.
class WaveLogCapture {
public:
    WaveLogCapture()
    {
        m_previous = setLogSink([this](const QString& line) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_lines.append(line);
        });
    }
    ~WaveLogCapture() { setLogSink(m_previous); }
    bool contains(const QString& text) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines.contains(text);
    }

private:
    mutable std::mutex m_mutex;
    QStringList m_lines;
    LogSink m_previous;
};

}  // namespace brindle::test
