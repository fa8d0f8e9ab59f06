// One mix run: the output format, the position of the last seek, the frames
// delivered so far, and the per-object mix state.
//
// Contract
// - Format, rate and channel count are fixed at creation. The mixer accepts
//   the formats 1 (signed 16-bit) and 3 (32-bit float); others are refused by
//   the mixer nodes with a log line.
// - `timestampOfTrackStart` is set by the project's seek; `numberOfSampleOut`
//   is kept by the caller. Both are atomic, so another thread may read them
//   for a progress display.
// - User info maps a string key to a value of any type (std::any). The mix
//   engine keeps under "project.mixoperation" the project's root source,
//   under a track's identifier that track's root source (both
//   std::shared_ptr<brindle::MixSource>), and under a clip's identifier that
//   clip's state (std::shared_ptr<VTClipMixContext>). Callers may keep their
//   own entries beside them (playback keeps "kVTProgressValue").
//   `userInfoForKey<T>(key)` answers a pointer to the stored T, or null when
//   the key is absent or holds another type; the pointer stays valid until
//   that entry is replaced or removed.
// - The user info is not thread-safe: one thread uses a context at a time
//   (hand it over only with a happens-before, e.g. before starting a player).
// - `convertsAhead` (off unless set before the mix starts): the clips' pulls
//   are computed ahead of the mix, in parallel, by the global queue's
//   workers (brindle::ClipFeed), and the mixing thread only takes them and
//   mixes. The output is the same bytes as without it. Meant for a run whose
//   pulls all ask for one block size (an export): a clip asked for another
//   size goes back to pulling on the mixing thread. Clips read their fields
//   up to a few blocks early, so a run that must follow edits at once
//   (playback) leaves it off.
#pragma once

#include <QHash>
#include <QString>

#include <any>
#include <atomic>
#include <cstdint>
#include <memory>

class VTMixContext {
public:
    // The user-info key of the project's root source.
    static const QString kProjectMixOperationKey;  // "project.mixoperation"

    VTMixContext(int64_t samplerate, int64_t numberOfChannel, int32_t sampleFormat);
    // The same as a shared object (the argument names keep the historical spelling).
    static std::shared_ptr<VTMixContext> initWithSamplerate(int64_t samplerate, int64_t nubmerOfChannel,
                                                            int32_t sampleFormat);
    VTMixContext(const VTMixContext&) = delete;
    VTMixContext& operator=(const VTMixContext&) = delete;

    int32_t sampleFormat() const { return m_sampleFormat; }
    int64_t samplerate() const { return m_samplerate; }
    int64_t numberOfChannel() const { return m_numberOfChannel; }
    // Bytes of one frame: the format's sample size times the channel count.
    int64_t bytesPerSample() const { return m_bytesPerSample; }

    int64_t timestampOfTrackStart() const { return m_timestampOfTrackStart.load(); }
    void setTimestampOfTrackStart(int64_t timestamp) { m_timestampOfTrackStart = timestamp; }
    int64_t numberOfSampleOut() const { return m_numberOfSampleOut.load(); }
    void setNumberOfSampleOut(int64_t count) { m_numberOfSampleOut = count; }

    bool convertsAhead() const { return m_convertsAhead.load(std::memory_order_relaxed); }
    void setConvertsAhead(bool convertsAhead) { m_convertsAhead.store(convertsAhead, std::memory_order_relaxed); }

    void setUserInfo(std::any value, const QString& key);
    // The stored value, or null when absent.
    const std::any* userInfoForKey(const QString& key) const;
    template <class T>
    T* userInfoForKey(const QString& key)
    {
        auto found = m_userInfo.find(key);
        return found == m_userInfo.end() ? nullptr : std::any_cast<T>(&found.value());
    }
    void removeUserInfoWithKey(const QString& key);

private:
    const int32_t m_sampleFormat;
    const int64_t m_samplerate;
    const int64_t m_numberOfChannel;
    const int64_t m_bytesPerSample;
    std::atomic<int64_t> m_timestampOfTrackStart{0};
    std::atomic<int64_t> m_numberOfSampleOut{0};
    std::atomic<bool> m_convertsAhead{false};
    QHash<QString, std::any> m_userInfo;
};
