#include "projectfile/LegacyProjectParts.h"

#include "codec/KRZlibCompression.h"
#include "foundation/KeyedCoding.h"
#include "media/VTDataProvider.h"
#include "projectfile/KRDataProvider.h"
#include "projectfile/KRMediaTimeline.h"

namespace brindle::test {

QByteArray compressedArchive(const brindle::KeyedCoding& object)
{
    return KRZlibCompression::zlibCompressionCompress(brindle::KeyedArchiver::archivedDataWithRootObject(object));
}

QByteArray legacyProviderBlock(const VTDataProvider& provider)
{
    KRDataProvider legacy;
    legacy.fields.pathfile = provider.identifier();
    legacy.fields.cachePathFile = provider.cachePathFile();
    legacy.fields.sampleFormat = provider.sampleFormat();
    legacy.fields.samplerate = provider.samplerate();
    legacy.fields.numbersOfComponent = provider.numberOfChannel();
    legacy.fields.duration = provider.duration();
    for (const auto& row : provider.cacheTable())
        legacy.fields.cacheTable.push_back(
            {row->offsetOfBuffer(), row->lengthOfBuffer(), row->indexOfSamples(), row->numberOfSamples()});
    return compressedArchive(legacy);
}

std::shared_ptr<KRMediaClip> legacyClip(const QString& provider, int64_t start, int64_t duration, uint64_t volume)
{
    auto clip = std::make_shared<KRMediaClip>();
    clip->dataProviderFilename = provider;
    clip->startTimestamp = start;
    clip->duration = duration;
    clip->volume = volume;
    return clip;
}

}  // namespace brindle::test
