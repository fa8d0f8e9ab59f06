// What the `ffprobe` program reads from an audio file: the first audio
// stream's codec, rate, channels and bit rate, the duration and the title tag.
#pragma once

#include <QString>

#include <cstdint>
#include <optional>

namespace brindle::test {

struct AudioProbe {
    QString codecName;
    int64_t sampleRate = 0;
    int64_t channels = 0;
    int64_t bitRate = 0;      // the stream's, else the container's; 0 when unknown
    double duration = 0.0;    // seconds
    QString title;

    // nullopt (with a log line) when ffprobe fails or finds no audio stream.
    static std::optional<AudioProbe> ofFile(const QString& path);
};

}  // namespace brindle::test
