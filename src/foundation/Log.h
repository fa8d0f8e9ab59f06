// The system log: one free-text line per call, written to standard error.
// Thread-safe. Tests may install a sink to see the lines.
#pragma once

#include <QString>

#include <functional>

namespace brindle {

// Writes one line. A trailing newline is added.
void log(const QString& line);
// printf-style convenience; the format is UTF-8.
void logf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Installs a sink that receives every line instead of standard error, or
// restores standard error when given an empty function. Returns the previous sink.
using LogSink = std::function<void(const QString&)>;
LogSink setLogSink(LogSink sink);

}  // namespace brindle
