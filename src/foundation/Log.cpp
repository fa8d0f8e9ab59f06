#include "foundation/Log.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <vector>

namespace brindle {

namespace {
std::mutex& logMutex()
{
    static std::mutex mutex;
    return mutex;
}

LogSink& currentSink()
{
    static LogSink sink;
    return sink;
}
}  // namespace

void log(const QString& line)
{
    std::lock_guard<std::mutex> lock(logMutex());
    if (LogSink& sink = currentSink()) {
        sink(line);
        return;
    }
    const QByteArray bytes = line.toUtf8();
    std::fprintf(stderr, "%s\n", bytes.constData());
}

void logf(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::vector<char> buffer(length > 0 ? static_cast<size_t>(length) + 1 : 1, '\0');
    if (length > 0)
        std::vsnprintf(buffer.data(), buffer.size(), format, args);
    va_end(args);
    log(QString::fromUtf8(buffer.data()));
}

LogSink setLogSink(LogSink sink)
{
    std::lock_guard<std::mutex> lock(logMutex());
    LogSink previous = std::move(currentSink());
    currentSink() = std::move(sink);
    return previous;
}

}  // namespace brindle
