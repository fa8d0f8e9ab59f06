// Media for the waveform tests (WAV files decoded into real data providers
// registered with the shared registry) and the value buffers of blocks and points.
#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

class VTDataProvider;

namespace brindle::test {

// A registered provider holding exactly `interleaved` in a packed format
// 0–4 with the given channels and rate, made once per name and format.
// Null (with a test failure) when it cannot be decoded.
std::shared_ptr<VTDataProvider> providerWithSamples(const QString& name, int32_t sampleFormat, int channels,
                                                    int sampleRate, const QByteArray& interleaved);

// Three seconds of a stereo 16-bit tone at 44100 Hz (132300 frames), and its samples.
struct Tone {
    std::shared_ptr<VTDataProvider> provider;
    std::vector<int16_t> samples;

    // The (max, min) of a channel over frames [index, index + length) as far as
    // the media goes, starting from 0.
    std::pair<double, double> extremes(uint64_t index, uint64_t length, int channel) const;
};
const Tone& toneMedia();

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

// 64-bit floats as the bytes of a value buffer.
QByteArray doubles(std::initializer_list<double> values);
// `data` with the little-endian 64-bit integer at `offset` replaced.
QByteArray withUInt64At(QByteArray data, qsizetype offset, uint64_t value);

}  // namespace brindle::test
