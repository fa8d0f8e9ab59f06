// Fuzzes the earlier generation's project files: the input is written to a
// scratch file, opened as a block container (KRFileStorage) whose blocks and
// trailer are read, and then converted into the current model by the legacy
// project reader (KRMediaProject). Neither may change the file. A converted
// project must save as a current document and reopen with the same tracks
// and clips.
//
// The first byte says whether the rest is the file as stored (0), or a
// container whose blocks and trailer hold the archives uncompressed (1): the
// target then writes them compressed into a second container with the
// storage's own writer and converts that one, so that the fuzzer can shape
// the provider and timeline archives behind the zlib checksums.
#include "FuzzSupport.h"

#include "codec/KRZlibCompression.h"
#include "foundation/KeyedCoding.h"
#include "media/VTDataProviderMgr.h"
#include "model/VTClip.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"
#include "projectfile/KRFileStorage.h"
#include "projectfile/KRMediaProject.h"
#include "projectfile/VTProjectDocument.h"

#include <QFile>
#include <QUrl>

#include <algorithm>
#include <cstdlib>
#include <vector>

using namespace brindle;

namespace {

// The storage's writer rewrites its structure list on every block, so
// rebuilding a container costs the square of its block count.
constexpr int64_t kMaximumRebuiltBlocks = 64;

std::shared_ptr<KRFileStorage> readContainer(const QUrl& url)
{
    const std::shared_ptr<KRFileStorage> storage = KRFileStorage::initWithURL(url);
    if (!storage)
        return nullptr;
    const int64_t count = storage->blockDataCount();
    for (int64_t i = 0; i < count; ++i) {
        const std::optional<QByteArray> block = storage->blockDataAtIndex(i);
        if (block && block->size() != storage->fileStructInfo()[size_t(i)]->length())
            std::abort();
    }
    if (storage->blockDataAtIndex(count) || storage->blockDataAtIndex(-1))
        std::abort();
    if (const std::optional<QByteArray> trailer = storage->filetrailerData();
        trailer && trailer->size() != storage->fileTrailer().length())
        std::abort();
    // The storage's own description archives and decodes to the same entries.
    const auto again = KeyedUnarchiver::unarchivedObjectOfClass<KRFileStorage>(KeyedArchiver::archivedDataWithRootObject(*storage));
    if (!again || again->blockDataCount() != count || again->fileTrailer().offset() != storage->fileTrailer().offset() ||
        again->fileTrailer().length() != storage->fileTrailer().length())
        std::abort();
    return storage;
}

// Writes the blocks and trailer of `raw`, compressed, into a new container at
// `path`; false when a part cannot be read or written.
bool writeCompressed(const KRFileStorage& raw, const QString& path)
{
    QFile::remove(path);
    const std::shared_ptr<KRFileStorage> storage = KRFileStorage::initWithURL(QUrl::fromLocalFile(path));
    if (!storage)
        return false;
    for (int64_t i = 0; i < raw.blockDataCount(); ++i) {
        const std::optional<QByteArray> block = raw.blockDataAtIndex(i);
        if (!block || !storage->appendBlockData(KRZlibCompression::zlibCompressionCompress(*block)))
            return false;
    }
    if (const std::optional<QByteArray> trailer = raw.filetrailerData())
        return storage->updateFiletrailer(KRZlibCompression::zlibCompressionCompress(*trailer));
    return true;
}

size_t clipCount(const VTProject& project)
{
    size_t count = 0;
    for (const auto tracks = project.tracks(); const auto& track : *tracks)
        count += track->clips()->size();
    return count;
}

void convert(const QUrl& url)
{
    double last = 0.0;
    const auto progress = [&last](double percent) {
        if (!(percent >= last && percent <= 100.0))
            std::abort();
        last = percent;
    };
    const std::shared_ptr<VTProject> project = KRMediaProject::projectFromMediaProjectWithURL(url, progress);
    if (!project)
        return;
    if (last != 100.0)
        std::abort();
    (void)project->duration();
    for (const auto tracks = project->tracks(); const auto& track : *tracks) {
        (void)track->duration();
        for (const auto clips = track->clips(); const auto& clip : *clips) {
            if (!clip->dataProvider())
                std::abort();
            (void)clip->fadeInValidate();
            (void)clip->fadeOutValidate();
        }
    }
    // The converted project is saved as a current document, as the editor does.
    const VTProjectDocument::OpenResult reopened =
        VTProjectDocument::openProjectWithData(VTProjectDocument::dataWithProject(*project), QUrl(), {});
    if (reopened.errorCode != 0 || reopened.projects.size() != 1 ||
        reopened.projects.front()->numberOfTracks() != project->numberOfTracks() ||
        clipCount(*reopened.projects.front()) != clipCount(*project))
        std::abort();
}

// The container at `path` with its blocks and trailer inflated; empty when
// it cannot be read.
QByteArray inflatedContainer(const QString& path)
{
    const std::shared_ptr<KRFileStorage> stored = KRFileStorage::initWithURL(QUrl::fromLocalFile(path));
    if (!stored)
        return {};
    const QString inflatedPath = fuzz::scratchFile(QStringLiteral("inflated-seed.loomwick"));
    QFile::remove(inflatedPath);
    const std::shared_ptr<KRFileStorage> inflated = KRFileStorage::initWithURL(QUrl::fromLocalFile(inflatedPath));
    bool written = bool(inflated);
    for (int64_t i = 0; written && i < stored->blockDataCount(); ++i) {
        const std::optional<QByteArray> block = stored->blockDataAtIndex(i);
        const std::optional<QByteArray> archive = block ? KRZlibCompression::zlibCompressionUncompress(*block) : std::nullopt;
        written = archive && inflated->appendBlockData(*archive);
    }
    if (const std::optional<QByteArray> trailer = stored->filetrailerData(); written && trailer) {
        const std::optional<QByteArray> archive = KRZlibCompression::zlibCompressionUncompress(*trailer);
        written = archive && inflated->updateFiletrailer(*archive);
    }
    QFile file(inflatedPath);
    const QByteArray bytes = written && file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    file.close();
    QFile::remove(inflatedPath);
    return bytes;
}

void writeSeeds(fuzz::SeedFolder& seeds)
{
    const QString path = fuzz::scratchFile(QStringLiteral("seed.loomwick"));
    for (const QByteArray& container : fuzz::legacyProjects(fuzz::seedProviders())) {
        seeds.add(QStringLiteral("stored.loomwick"), QByteArray(1, '\0') + container);
        if (fuzz::writeFile(path, reinterpret_cast<const uint8_t*>(container.constData()), size_t(container.size())))
            seeds.add(QStringLiteral("inflated.loomwick"), QByteArray(1, '\1') + inflatedContainer(path));
    }
    QFile::remove(path);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::initialize("legacy_container", writeSeeds);
    (void)VTDataProviderMgr::shareDataProviderMgr();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const QString path = fuzz::scratchFile(QStringLiteral("legacy.loomwick"));
    if (!fuzz::writeFile(path, data + 1, size - 1))
        return 0;
    const QUrl url = QUrl::fromLocalFile(path);
    const VTDataProviderMgr::ProviderList before = VTDataProviderMgr::shareDataProviderMgr().dataProviders();
    const std::shared_ptr<KRFileStorage> storage = readContainer(url);
    if (!(data[0] & 1)) {
        convert(url);
    } else if (storage && storage->blockDataCount() <= kMaximumRebuiltBlocks) {
        const QString compressed = fuzz::scratchFile(QStringLiteral("compressed.loomwick"));
        if (writeCompressed(*storage, compressed))
            convert(QUrl::fromLocalFile(compressed));
        QFile::remove(compressed);
    }
    fuzz::forgetProvidersAddedSince(before);
    // Readers only: the file must be as it was written.
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) ||
        file.readAll() != QByteArray::fromRawData(reinterpret_cast<const char*>(data + 1), qsizetype(size - 1)))
        std::abort();
    file.close();
    QFile::remove(path);
    return 0;
}
