// Small POSIX file helpers for the PCM cache files: exclusive creation,
// appending, positional reads, sizes and truncation.
//
// The functions that take a path open the file themselves and close it
// before returning, so they keep no descriptor open between calls. The
// descriptor functions serve a reader that keeps one file open: positional
// reads on one descriptor are safe from several threads at once. All are
// safe to call from several threads. Interrupted system calls are retried;
// short writes are continued. Failures answer false / -1 and leave `errno`
// for the caller's log line (`errorText`).
#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>

namespace brindle::cachefile {

// True when any directory entry (a file, a folder, a dangling link) has this name.
bool entryExists(const QString& path);
// Creates an empty file that did not exist before (O_CREAT | O_EXCL). False
// when the name is taken (`errno` EEXIST) or the file cannot be made.
bool createExclusive(const QString& path);
// Creates the file empty if nothing exists at `path`; an existing file is kept.
bool createIfMissing(const QString& path);
// Appends all of `bytes` to the end of the file (created if missing).
bool appendAll(const QString& path, const char* bytes, int64_t length);
// Reads up to `length` bytes at `offset` into `out` (positional read).
// Answers the number of bytes read (short at the end of the file), or -1.
int64_t readAt(const QString& path, char* out, int64_t length, int64_t offset);
// The size of the file in bytes, or -1 when it cannot be examined.
int64_t fileSize(const QString& path);
// A read-only descriptor of the file (close-on-exec), or -1.
int openForReading(const QString& path);
// As readAt, on an open descriptor.
int64_t readAtDescriptor(int fd, char* out, int64_t length, int64_t offset);
// As fileSize, on an open descriptor.
int64_t descriptorSize(int fd);
// Truncates the file to length 0 (creating it if missing).
bool truncateToEmpty(const QString& path);
// The system's text for the current `errno`.
QString errorText();

}  // namespace brindle::cachefile
