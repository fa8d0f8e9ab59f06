// Shared helpers of the model's tests (the export tests use them too): small
// WAV media decoded into real data providers and registered with the shared
// registry, clips and projects built over them, and a log capture.
#pragma once

#include "foundation/Log.h"
#include "model/VTProject.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

class VTClip;

namespace brindle::test {

// A registered provider of `milliseconds` of silence (mono, 8-bit, 8000 Hz),
// one per length. Its identifier names it for clips.
QString silentMediaOfDuration(int64_t milliseconds);

// A registered provider holding exactly `interleaved` in a packed format
// 0–4 with the given channels and rate; `name` must be unique per content.
QString mediaWithSamples(const QString& name, int32_t sampleFormat, int channels, int sampleRate,
                         const QByteArray& interleaved);

// A clip at `start` on its track, `duration` long (0: the whole media), over
// `media` (empty: 10 s of silence).
std::shared_ptr<VTClip> clipAt(int64_t start, int64_t duration = 0, const QString& media = {});

// A project with one track per list, holding those clips in order.
std::shared_ptr<VTProject> projectWith(const std::vector<VTProject::ClipList>& tracks);

// Collects the log lines written while it exists.
class LogCapture {
public:
    LogCapture()
    {
        m_previous = setLogSink([this](const QString& line) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_lines.append(line);
        });
    }
    ~LogCapture() { setLogSink(m_previous); }
    QStringList lines() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }
    bool contains(const QString& text) const { return lines().contains(text); }

private:
    mutable std::mutex m_mutex;
    QStringList m_lines;
    LogSink m_previous;
};

// Interleaved 16-bit samples made by value(frame, channel).
template <class Value>
QByteArray samples16(int64_t frames, int channels, Value value)
{
    QByteArray bytes(static_cast<qsizetype>(frames * channels * 2), '\0');
    auto* out = reinterpret_cast<int16_t*>(bytes.data());
    for (int64_t frame = 0; frame < frames; ++frame)
        for (int channel = 0; channel < channels; ++channel)
            out[frame * channels + channel] = static_cast<int16_t>(value(frame, channel));
    return bytes;
}

}  // namespace brindle::test
