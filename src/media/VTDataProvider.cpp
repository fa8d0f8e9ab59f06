// VTDataProvider: probing, fields, keyed coding and the legacy conversion.
// Decoding into the cache file and reading from it are in VTDataProviderCache.cpp.
#include "media/VTDataProvider.h"

#include "codec/KRAudioFrame2.h"
#include "codec/KRDemuxerContext.h"
#include "codec/KRTimebase.h"
#include "foundation/Log.h"
#include "media/VTAlertPresenter.h"

#include <algorithm>

namespace {

const QString kOringalURLKey = QStringLiteral("_oringalURL");
const QString kDurationKey = QStringLiteral("_duration");
const QString kSampleFormatKey = QStringLiteral("_sampleFormat");
const QString kSamplerateKey = QStringLiteral("_samplerate");
const QString kNumberOfChannelKey = QStringLiteral("_numberOfChannel");
const QString kCacheTableKey = QStringLiteral("_cacheTable");
const QString kDataBufferKey = QStringLiteral("_dataBuffer");
const QString kCachePathFileKey = QStringLiteral("_cachePathFile");

// Frames never hold more channels than this (the codec layer's own limit).
constexpr int64_t kMaximumChannels = 1024;

// The largest packed code: 0 u8, 1 s16, 2 s32, 3 flt, 4 dbl.
constexpr int32_t kLastPackedSampleFormat = 4;

}  // namespace

VTDataProvider::~VTDataProvider() = default;

std::shared_ptr<VTDataProvider> VTDataProvider::initWithURL(const QUrl& url)
{
    std::shared_ptr<VTDataProvider> provider(new VTDataProvider());
    if (url.isEmpty()) {
        brindle::log(QStringLiteral("data provider url can't empty."));
        return provider;
    }
    provider->m_oringalURL = url;
    if (!provider->probe())
        return nullptr;
    return provider;
}

std::shared_ptr<VTDataProvider> VTDataProvider::init()
{
    return initWithURL(QUrl());
}

QString VTDataProvider::mediaPath() const
{
    return m_oringalURL.isLocalFile() ? m_oringalURL.toLocalFile() : m_oringalURL.path();
}

QString VTDataProvider::identifier() const
{
    return mediaPath();
}

bool VTDataProvider::hasUsableFormat(int32_t sampleFormat, int64_t numberOfChannel)
{
    return sampleFormat >= 0 && sampleFormat <= kLastPackedSampleFormat && numberOfChannel >= 1 &&
           numberOfChannel <= kMaximumChannels;
}

bool VTDataProvider::probe()
{
    const QString path = mediaPath();
    std::optional<KRDemuxerContext::Error> error;
    std::unique_ptr<KRDemuxerContext> demuxer = KRDemuxerContext::initWithFilename(path, &error);
    if (!demuxer) {
        if (error)
            alertFailedInMainThread(path);
        return false;
    }
    demuxer->disableVideoStream(true);
    const int64_t length = demuxer->audioStreamLength();
    if (length == KRInvalidTimeValue) {
        m_duration = 0;
        return false;
    }
    m_duration = length * 1000 / KRTimebase;
    m_sampleFormat = KRAudioFrame2::packedSampleFormat(demuxer->audioSampleFormat());
    m_samplerate = demuxer->audioSampleRate();
    m_numberOfChannel = demuxer->numberOfChannel();
    if (!hasUsableFormat(m_sampleFormat, m_numberOfChannel) || m_samplerate <= 0) {
        brindle::log(QStringLiteral("Warning: unsupported audio (sample format %1, %2 channels, %3 Hz) in file: %4")
                         .arg(m_sampleFormat)
                         .arg(m_numberOfChannel)
                         .arg(m_samplerate)
                         .arg(path));
        return false;
    }
    return true;
}

void VTDataProvider::alertFailedInMainThread(const QString& path)
{
    VTAlertPresenter::presentAlertWaiting(QStringLiteral("You can not add DRM protected file."),
                                          QStringLiteral("DRM protected information has been detected in file: %1")
                                              .arg(path));
}

uint64_t VTDataProvider::bytesPerSample() const
{
    if (!hasUsableFormat(m_sampleFormat, m_numberOfChannel))
        return 0;
    return uint64_t(KRAudioFrame2::bytesForSampleFormat(m_sampleFormat)) * uint64_t(m_numberOfChannel);
}

uint64_t VTDataProvider::samplesInTable() const
{
    if (m_cacheTable.empty() || !m_cacheTable.back()->isEndMarker())
        return 0;
    return uint64_t(std::max<int64_t>(m_cacheTable.back()->indexOfSamples(), 0));
}

uint64_t VTDataProvider::numberOfSamples() const
{
    if (m_cacheTable.empty() || !m_cacheTable.back()->isEndMarker()) {
        brindle::log(QStringLiteral("Error data provider. May be can not parser end."));
        return 0;
    }
    return samplesInTable();
}

void VTDataProvider::setSampleOffset(uint64_t sampleOffset)
{
    m_sampleOffset.store(std::min(sampleOffset, numberOfSamples()), std::memory_order_relaxed);
}

void VTDataProvider::seekToSampleOffset(uint64_t sampleOffset)
{
    setSampleOffset(sampleOffset);
}

std::shared_ptr<VTDataProvider> VTDataProvider::initWithKRDataProvider(const KRDataProviderLegacyFields& legacy)
{
    // A provider is known by its media's path: without one, no clip could
    // name it in a saved project (an empty name there means "no media").
    if (legacy.pathfile.isEmpty()) {
        brindle::log(QStringLiteral("Warning: legacy data provider without a media path; it is skipped."));
        return nullptr;
    }
    if (!hasUsableFormat(legacy.sampleFormat, legacy.numbersOfComponent) || legacy.samplerate <= 0) {
        brindle::log(QStringLiteral("Warning: legacy data provider of %1 has an unusable format; it is skipped.")
                         .arg(legacy.pathfile));
        return nullptr;
    }
    std::shared_ptr<VTDataProvider> provider(new VTDataProvider());
    provider->m_oringalURL = QUrl::fromLocalFile(legacy.pathfile);
    provider->m_sampleFormat = legacy.sampleFormat;
    provider->m_samplerate = legacy.samplerate;
    provider->m_numberOfChannel = legacy.numbersOfComponent;
    provider->m_cachePathFile = legacy.cachePathFile;
    // The old cache file is reused as it is; a missing one stays missing (its
    // reads fail and are logged) rather than being created where the
    // document says.
    provider->m_dataBuffer = VTDataBuffer::initWithExistingCacheFile(legacy.cachePathFile);
    FrameTable table;
    table.reserve(legacy.cacheTable.size());
    for (const KRDataProviderLegacyFields::Row& row : legacy.cacheTable)
        table.push_back(VTAudioFrameInfo::initWithOffset(row.offsetOfBuffer, row.lengthOfBuffer, row.indexOfSamples,
                                                         row.numberOfSamples));
    provider->setFinishedTable(std::move(table));
    provider->m_duration = legacy.duration;
    return provider;
}

QStringList VTDataProvider::archiveClassNames()
{
    return {QStringLiteral("VTDataProvider")};
}

std::shared_ptr<VTDataProvider> VTDataProvider::initWithCoder(brindle::KeyedUnarchiver& coder)
{
    std::shared_ptr<VTDataProvider> provider(new VTDataProvider());
    provider->m_oringalURL = coder.decodeURLForKey(kOringalURLKey).value_or(QUrl());
    provider->m_samplerate = coder.decodeIntegerForKey(kSamplerateKey);
    provider->m_sampleFormat = coder.decodeInt32ForKey(kSampleFormatKey);
    provider->m_numberOfChannel = coder.decodeIntegerForKey(kNumberOfChannelKey);
    provider->m_cachePathFile = coder.decodeStringForKey(kCachePathFileKey).value_or(QString());
    FrameTable table = coder.decodeArrayOfClass<VTAudioFrameInfo>(kCacheTableKey).value_or(FrameTable());
    provider->m_dataBuffer = coder.decodeObjectOfClass<VTDataBuffer>(kDataBufferKey);
    provider->m_duration = coder.decodeInt64ForKey(kDurationKey);

    const int64_t lastOffset = table.empty() ? 0 : table.back()->offsetOfBuffer();
    const uint64_t fileLength = provider->m_dataBuffer ? provider->m_dataBuffer->length() : 0;
    if (!provider->m_dataBuffer || (lastOffset > 0 && fileLength < uint64_t(lastOffset))) {
        brindle::log(QStringLiteral("Warning, cache file crashed."));
        return nullptr;
    }
    // The unarchiver's error flag covers the whole archive, so only this
    // provider's own fields decide whether it is usable.
    if (!hasUsableFormat(provider->m_sampleFormat, provider->m_numberOfChannel) || provider->m_samplerate <= 0) {
        brindle::log(QStringLiteral("Warning: data provider of %1 is damaged; it is skipped.")
                         .arg(provider->identifier()));
        return nullptr;
    }
    provider->setFinishedTable(std::move(table));
    return provider;
}

QString VTDataProvider::classNameForArchive() const
{
    return QStringLiteral("VTDataProvider");
}

void VTDataProvider::encodeWithCoder(brindle::KeyedArchiver& coder) const
{
    if (m_oringalURL.isEmpty())
        coder.encodeObject(brindle::ConstKeyedObjectPtr(), kOringalURLKey);
    else
        coder.encodeURL(m_oringalURL, kOringalURLKey);
    coder.encodeArrayOf(m_cacheTable, kCacheTableKey, true);
    if (m_cachePathFile.isNull())
        coder.encodeObject(brindle::ConstKeyedObjectPtr(), kCachePathFileKey);
    else
        coder.encodeString(m_cachePathFile, kCachePathFileKey);
    coder.encodeObject(brindle::ConstKeyedObjectPtr(m_dataBuffer), kDataBufferKey);
    coder.encodeInt32(m_sampleFormat, kSampleFormatKey);
    coder.encodeInteger(m_samplerate, kSamplerateKey);
    coder.encodeInt64(m_duration, kDurationKey);
    coder.encodeInteger(m_numberOfChannel, kNumberOfChannelKey);
}
