// The JSON description that `brindle-cli build` turns into a project:
//
//   {"tracks": [[{"file": "a.wav", "start": 1000, "offset": 0, "duration": 5000,
//                 "volume": 0.5, "fadeIn": 500, "fadeOut": 0,
//                 "fadeInOn": true, "fadeOutOn": false}, …], …],
//    "position": 0}
//
// One array of clips per track; times are integers of milliseconds; every
// clip field but "file" is optional. A relative file path is relative to the
// folder of the JSON file. Unknown keys, values of the wrong type, fractional
// milliseconds and more tracks than a project supports are refused with a
// message naming the place ("tracks[0][1].start: …").
#pragma once

#include <QString>

#include <cstdint>
#include <optional>
#include <vector>

namespace brindle::cli {

struct ClipDescription {
    QString file;  // absolute path
    std::optional<int64_t> start;
    std::optional<int64_t> offset;
    std::optional<int64_t> duration;
    std::optional<double> volume;
    std::optional<int64_t> fadeIn;
    std::optional<int64_t> fadeOut;
    std::optional<bool> fadeInOn;
    std::optional<bool> fadeOutOn;
};

struct ProjectDescription {
    std::vector<std::vector<ClipDescription>> tracks;
    std::optional<int64_t> position;
};

// Reads and checks the description in `path`. On failure nullopt and a
// one-line message in `error`.
std::optional<ProjectDescription> readProjectDescription(const QString& path, QString* error);

}  // namespace brindle::cli
