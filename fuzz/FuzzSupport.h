// Shared set-up of the fuzz targets: a private home for caches and user
// defaults, quiet logging, seed writing, and readers for structured inputs.
//
// Contract
// - `initialize` runs once per process, from LLVMFuzzerInitialize. It points
//   XDG_DATA_HOME and XDG_CACHE_HOME into `home()` (the folder
//   BRINDLE_FUZZ_HOME names, else /tmp/brindle-fuzz-home) and XDG_CONFIG_HOME
//   into a folder of the target's own there (its user defaults), so nothing of
//   the person's own settings or caches is touched, and drops log lines unless
//   BRINDLE_FUZZ_LOG=1. When BRINDLE_FUZZ_WRITE_SEEDS names a folder, it calls
//   the target's seed writer on that folder and exits.
// - Seeds are made by the project's own writers: the keyed archiver, the
//   data provider's decode into cache files, the legacy container's writer
//   (KRFileStorage) and the WAV writer of the tests.
//   Seed providers keep their cache files in `home()`, so the seeds stay valid
//   for every later run that uses the same home.
// - Single-threaded use, like a fuzz target.
#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

class VTDataProvider;

namespace brindle::fuzz {

// A folder that receives seed files.
class SeedFolder {
public:
    explicit SeedFolder(const QString& folder) : m_folder(folder) {}
    // Writes `bytes` as a seed named `name` (made unique by a running number).
    void add(const QString& name, const QByteArray& bytes);
    int count() const { return m_count; }

private:
    QString m_folder;
    int m_count = 0;
};

using SeedWriter = std::function<void(SeedFolder&)>;

void initialize(const char* target, const SeedWriter& writeSeeds);
QString home();
// A path in the home for this process's scratch file `name`.
QString scratchFile(const QString& name);
// Writes `size` bytes to `path` (replacing it); false when that fails.
bool writeFile(const QString& path, const uint8_t* data, size_t size);

// The XML form of a binary property list (libplist's writer); empty when the
// bytes are not a binary property list.
QByteArray xmlFromBinary(const QByteArray& binary);

// Small media files of the seeds: WAVs in every packed format from the tests'
// own writer, plus, when the `ffmpeg` program is there and `withEncoded`,
// MP3, M4A, FLAC and Ogg Vorbis encodings of the same signal.
std::vector<QString> seedMediaFiles(bool withEncoded);
// Providers decoded from a few seed media files into cache files in the home.
std::vector<std::shared_ptr<VTDataProvider>> seedProviders();

// Legacy project containers written by KRFileStorage's own writer: blocks
// holding the compressed KRDataProvider archives of `providers` (named by
// their media paths, reusing their cache files), and a trailer holding the
// compressed KRMediaTimeline whose clips use them. One container has every
// provider and two tracks (one of its clips names media that is not there),
// one has a single provider and no trailer, one has no blocks and a
// timeline of one empty track.
std::vector<QByteArray> legacyProjects(const std::vector<std::shared_ptr<VTDataProvider>>& providers);

// Removes from the shared registry every provider that is not in `before`,
// so that every input starts from the registry the seeds left (readers of
// older projects register what they convert).
void forgetProvidersAddedSince(const std::vector<std::shared_ptr<VTDataProvider>>& before);

// Reads little-endian fields from the front of an input; past the end every
// field reads as zero.
class InputReader {
public:
    InputReader(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    template <class T>
    T take()
    {
        T value{};
        const size_t n = std::min(sizeof(T), m_size - m_position);
        std::memcpy(&value, m_data + m_position, n);
        m_position += n;
        return value;
    }
    const uint8_t* restData() const { return m_data + m_position; }
    size_t restSize() const { return m_size - m_position; }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_position = 0;
};

// Appends a field in the layout InputReader reads.
template <class T>
void appendField(QByteArray& bytes, T value)
{
    bytes.append(reinterpret_cast<const char*>(&value), sizeof(T));
}

}  // namespace brindle::fuzz
