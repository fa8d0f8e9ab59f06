#include "MediaFixtures.h"

#include "support/TestMedia.h"

#include <QUrl>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

namespace brindle::test {

namespace {

constexpr char kGuard = char(0xA5);

}  // namespace

uint64_t ImportedMedia::referenceSamples() const
{
    const uint64_t frameBytes = provider ? provider->bytesPerSample() : 0;
    return frameBytes ? uint64_t(reference.size()) / frameBytes : 0;
}

std::shared_ptr<VTDataProvider> importFresh(const QString& path)
{
    auto provider = VTDataProvider::initWithURL(QUrl::fromLocalFile(path));
    if (provider)
        provider->startParserWithBlock(nullptr);
    return provider;
}

const ImportedMedia& importedMedia(const QString& path)
{
    static std::mutex mutex;
    static std::map<QString, ImportedMedia>* cache = new std::map<QString, ImportedMedia>();
    std::lock_guard lock(mutex);
    auto found = cache->find(path);
    if (found != cache->end())
        return found->second;
    ImportedMedia media;
    media.path = path;
    media.provider = importFresh(path);
    if (media.provider)
        media.reference = TestMedia::decodeWithFfmpeg(path, media.provider->sampleFormat()).value_or(QByteArray());
    return cache->emplace(path, std::move(media)).first->second;
}

QString checkRead(const VTDataProvider& provider, const QByteArray& reference, uint64_t index, uint64_t count)
{
    const uint64_t frameBytes = provider.bytesPerSample();
    const uint64_t total = uint64_t(reference.size()) / frameBytes;
    const uint64_t expected = index >= total ? 0 : std::min(count, total - index);
    // Room for the request, bounded for huge counts, plus a guard band.
    const uint64_t room = std::min<uint64_t>(count, total + 16) * frameBytes + 64;
    std::vector<char> buffer(size_t(room), kGuard);
    const uint64_t got = provider.readSampleOfCount(count, buffer.data(), index);
    const QString where = QStringLiteral("read of %1 at %2: ").arg(count).arg(index);
    if (got != expected)
        return where + QStringLiteral("got %1 samples, expected %2").arg(got).arg(expected);
    const size_t bytes = size_t(got * frameBytes);
    if (bytes && std::memcmp(buffer.data(), reference.constData() + index * frameBytes, bytes) != 0)
        return where + QStringLiteral("bytes differ from FFmpeg's decode");
    for (size_t i = bytes; i < buffer.size(); ++i) {
        if (buffer[i] != kGuard)
            return where + QStringLiteral("wrote beyond the samples it reported, at byte %1").arg(i);
    }
    return QString();
}

}  // namespace brindle::test
