// The parts of an older-generation project file, made from the current
// model for tests and fuzz seeds: compressed archives as the container's
// blocks hold them, a provider converted back to the older provider class,
// and an older clip.
#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <memory>

class KRMediaClip;
class VTDataProvider;

namespace brindle {
class KeyedCoding;
}

namespace brindle::test {

// The keyed archive of `object`, zlib-compressed.
QByteArray compressedArchive(const brindle::KeyedCoding& object);
// A container block holding `provider` as an older provider over the same cache file.
QByteArray legacyProviderBlock(const VTDataProvider& provider);
std::shared_ptr<KRMediaClip> legacyClip(const QString& provider, int64_t start, int64_t duration, uint64_t volume);

}  // namespace brindle::test
