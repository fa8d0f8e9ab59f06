#include "model/VTClip.h"

#include "foundation/Log.h"
#include "foundation/VTBaseDefine.h"
#include "media/VTDataProvider.h"
#include "media/VTDataProviderMgr.h"

#include <QFileInfo>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

const QString kDataProviderIdsKey = QStringLiteral("_dataProviderIds");
const QString kTimestampOfTrackKey = QStringLiteral("_timestampOfTrack");
const QString kTimestampOfDataProvidersKey = QStringLiteral("_timestampOfDataProviders");
const QString kDurationOfFadeOutKey = QStringLiteral("_durationOfFadeOut");
const QString kDurationOfFadeInKey = QStringLiteral("_durationOfFadeIn");
const QString kDurationOfTrackKey = QStringLiteral("_durationOfTrack");
const QString kEnableFadeInKey = QStringLiteral("_enableFadeIn");
const QString kEnableFadeOutKey = QStringLiteral("_enableFadeOut");
const QString kVolumeKey = QStringLiteral("_volume");
const QString kUuidStringKey = QStringLiteral("_uuidString");

void warnFadeOutOfRange()
{
    // One text for both fades.
    brindle::log(QStringLiteral("Warning: duration of fade out out of range. The value will be trucated."));
}

// Gains outside [min, max] or not a number are brought into range.
double clampedVolume(double volume)
{
    if (!(volume >= VTClip::minVolumeAllowed()))
        return VTClip::minVolumeAllowed();
    return std::min(volume, VTClip::maxVolumeAllowed());
}

}  // namespace

VTClip::VTClip(QString dataProviderIds, QString identifier)
    : m_dataProviderIds(std::move(dataProviderIds)), m_uuidString(std::move(identifier))
{
}

std::shared_ptr<VTClip> VTClip::initWithDataProviderIDs(const QString& dataProviderIds)
{
    auto provider = VTDataProviderMgr::shareDataProviderMgr().dataProviderWithIdentifier(dataProviderIds);
    if (!provider)
        return nullptr;
    std::shared_ptr<VTClip> clip(new VTClip(dataProviderIds, VTBaseDefine::uuidString()));
    clip->m_durationOfTrack = provider->duration();
    return clip;
}

int64_t VTClip::minDurationAllowed()
{
    return static_cast<int64_t>(static_cast<double>(VTBaseDefine::unitsPerSecond()) * 0.5);
}

double VTClip::maxVolumeAllowed()
{
    return 3.0;
}

double VTClip::minVolumeAllowed()
{
    return 0.0;
}

std::shared_ptr<VTDataProvider> VTClip::dataProvider() const
{
    return VTDataProviderMgr::shareDataProviderMgr().dataProviderWithIdentifier(m_dataProviderIds);
}

int64_t VTClip::providerDuration() const
{
    auto provider = dataProvider();
    return provider ? provider->duration() : 0;
}

int32_t VTClip::sampleFormat() const
{
    auto provider = dataProvider();
    return provider ? provider->sampleFormat() : 0;
}

int64_t VTClip::samplerate() const
{
    auto provider = dataProvider();
    return provider ? provider->samplerate() : 0;
}

int64_t VTClip::numberOfChannel() const
{
    auto provider = dataProvider();
    return provider ? provider->numberOfChannel() : 0;
}

int64_t VTClip::bytesPerSample() const
{
    auto provider = dataProvider();
    return provider ? static_cast<int64_t>(provider->bytesPerSample()) : 0;
}

QString VTClip::description() const
{
    auto provider = dataProvider();
    if (!provider)
        return {};
    return QFileInfo(provider->url().path()).completeBaseName();
}

// --- setters -------------------------------------------------------------

void VTClip::setTimestampOfTrack(int64_t timestamp)
{
    m_timestampOfTrack = std::max<int64_t>(timestamp, 0);
}

void VTClip::setTimestampOfDataProvider(int64_t timestamp)
{
    const int64_t mediaDuration = providerDuration();
    const int64_t duration = durationOfTrack();
    if (timestamp >= 0 && duration + timestamp <= mediaDuration) {
        m_timestampOfDataProviders = timestamp;
        return;
    }
    brindle::log(QStringLiteral("Warning: timestamp out of data providers range.This action will be tructed."));
    int64_t value = std::max<int64_t>(timestamp, 0);
    if (duration + value > mediaDuration)
        value = mediaDuration - duration;
    m_timestampOfDataProviders = value;
}

void VTClip::setDurationOfTrack(int64_t duration)
{
    const int64_t mediaDuration = providerDuration();
    const int64_t offset = timestampOfDataProvider();
    // Only negative lengths are corrected: the lower bound compared with is the
    // gain's minimum (0.0). A length running past the media's end is kept;
    // cutEndWithDuration is the operation that stays inside the media.
    if (offset + duration > mediaDuration && static_cast<double>(duration) < minVolumeAllowed()) {
        brindle::log(QStringLiteral("Warning: duration out of range, this value will be trucated."));
        duration = static_cast<int64_t>(minVolumeAllowed());
        if (offset + duration > mediaDuration)
            duration = mediaDuration - offset;
    }
    m_durationOfTrack = duration;
}

void VTClip::setDurationOfFadeIn(int64_t duration)
{
    const int64_t other = durationOfFadeOut();
    const int64_t length = durationOfTrack();
    if (duration >= 0 && other + duration <= length) {
        m_durationOfFadeIn = duration;
        return;
    }
    warnFadeOutOfRange();
    m_durationOfFadeIn = duration < 0 ? 0 : length - other;
}

void VTClip::setDurationOfFadeOut(int64_t duration)
{
    const int64_t other = durationOfFadeIn();
    const int64_t length = durationOfTrack();
    if (duration >= 0 && other + duration <= length) {
        m_durationOfFadeOut = duration;
        return;
    }
    warnFadeOutOfRange();
    m_durationOfFadeOut = duration < 0 ? 0 : length - other;
}

void VTClip::setEnableFadeIn(bool enable)
{
    if (enable && durationOfFadeIn() < 1)
        setDurationOfFadeIn(defaultDurationOfFadeEffect());
    m_enableFadeIn = enable;
}

void VTClip::setEnableFadeOut(bool enable)
{
    if (enable && durationOfFadeOut() < 1)
        setDurationOfFadeOut(defaultDurationOfFadeEffect());
    m_enableFadeOut = enable;
}

void VTClip::setVolume(double volume)
{
    m_volume = clampedVolume(volume);
}

// --- fades ---------------------------------------------------------------

bool VTClip::fadeInValidate() const
{
    return enableFadeIn() && durationOfFadeIn() > 0;
}

bool VTClip::fadeOutValidate() const
{
    return enableFadeOut() && durationOfFadeOut() > 0;
}

int64_t VTClip::defaultDurationOfFadeEffect() const
{
    const int64_t duration = durationOfTrack();
    if (static_cast<double>(duration) > 3.0 * static_cast<double>(VTBaseDefine::unitsPerSecond()))
        return 3 * VTBaseDefine::unitsPerSecond();
    return static_cast<int64_t>(static_cast<float>(duration) * 0.5f);
}

int64_t VTClip::indexOfFadeInSampleWithSamplerate(int64_t samplerate) const
{
    return brindle::sampleIndexOfTimestamp(timestampOfTrack(), samplerate);
}

int64_t VTClip::numberOfFadeInSamplesWithSamplerate(int64_t samplerate) const
{
    return brindle::sampleCountOfDuration(durationOfFadeIn(), samplerate);
}

int64_t VTClip::indexOfFadeOutSampleWithSamplerate(int64_t samplerate) const
{
    // Formed in 128 bits: the fields may come from a damaged archive.
    const __int128 position = static_cast<__int128>(timestampOfTrack()) + durationOfTrack() - durationOfFadeOut();
    const __int128 clamped = std::clamp<__int128>(position, std::numeric_limits<int64_t>::min(),
                                                  std::numeric_limits<int64_t>::max());
    return brindle::sampleIndexOfTimestamp(static_cast<int64_t>(clamped), samplerate);
}

int64_t VTClip::numberOfFadeOutSamplesWithSamplerate(int64_t samplerate) const
{
    return brindle::sampleCountOfDuration(durationOfFadeOut(), samplerate);
}

// --- editing -------------------------------------------------------------

std::shared_ptr<VTClip> VTClip::clone() const
{
    auto copy = initWithDataProviderIDs(m_dataProviderIds);
    if (!copy)
        return nullptr;
    // The order matters: the fade lengths are checked against the new clip's
    // initial length (the whole media), the media offset against the final one.
    copy->setEnableFadeIn(enableFadeIn());
    copy->setEnableFadeOut(enableFadeOut());
    copy->setTimestampOfTrack(timestampOfTrack());
    copy->setDurationOfFadeIn(durationOfFadeIn());
    copy->setDurationOfFadeOut(durationOfFadeOut());
    copy->setDurationOfTrack(durationOfTrack());
    copy->setVolume(volume());
    copy->setTimestampOfDataProvider(timestampOfDataProvider());
    return copy;
}

std::shared_ptr<VTClip> VTClip::splitAtTimestamp(int64_t timestamp)
{
    const int64_t start = timestampOfTrack();
    const int64_t duration = durationOfTrack();
    if (timestamp <= start || timestamp >= start + duration)
        return nullptr;
    auto right = initWithDataProviderIDs(m_dataProviderIds);
    if (!right)
        return nullptr;
    right->setTimestampOfTrack(timestamp);
    right->setDurationOfTrack(start + duration - timestamp);
    right->setEnableFadeOut(enableFadeOut());
    // The switch's value becomes the length: the right part keeps a 1 ms fade-out.
    right->setDurationOfFadeOut(enableFadeOut() ? 1 : 0);
    right->setVolume(volume());
    right->setEnableFadeIn(false);
    right->setTimestampOfDataProvider(timestampOfDataProvider() + (timestamp - start));

    setEnableFadeOut(false);
    setDurationOfFadeOut(0);
    setDurationOfTrack(timestamp - start);
    return right;
}

void VTClip::cutStartWithTimestamp(int64_t timestamp)
{
    const int64_t start = timestampOfTrack();
    const int64_t duration = durationOfTrack();
    const int64_t offset = timestampOfDataProvider();
    int64_t delta = start - timestamp;  // > 0 extends to the left, < 0 cuts
    delta = std::min(delta, offset);
    if (duration + delta < minDurationAllowed())
        delta = minDurationAllowed() - duration;
    m_timestampOfDataProviders = offset - delta;
    setTimestampOfTrack(start - delta);
    setDurationOfTrack(delta + duration);
}

void VTClip::cutEndWithDuration(int64_t duration)
{
    duration = std::max(duration, minDurationAllowed());
    const int64_t remaining = providerDuration() - timestampOfDataProvider();
    if (remaining < duration)
        duration = remaining;
    setDurationOfTrack(duration);
}

// --- keyed coding --------------------------------------------------------

QStringList VTClip::archiveClassNames()
{
    return {QStringLiteral("VTClip")};
}

QString VTClip::classNameForArchive() const
{
    return QStringLiteral("VTClip");
}

std::shared_ptr<VTClip> VTClip::initWithCoder(brindle::KeyedUnarchiver& coder)
{
    const QString providerId = coder.decodeStringForKey(kDataProviderIdsKey).value_or(QString());
    if (providerId.isEmpty() || !VTDataProviderMgr::shareDataProviderMgr().dataProviderWithIdentifier(providerId)) {
        brindle::log(QStringLiteral("Warning: Clip data provider not found. It will be removed automatically."));
        return nullptr;
    }
    QString identifier = coder.decodeStringForKey(kUuidStringKey).value_or(QString());
    if (identifier.isEmpty()) {
        brindle::log(QStringLiteral("Warning: clip archive without an identifier; a new one is made."));
        identifier = VTBaseDefine::uuidString();
    }
    std::shared_ptr<VTClip> clip(new VTClip(providerId, identifier));
    // The values are taken as stored, without the setters' corrections; only a
    // gain that is not a number or out of range is brought into range.
    clip->m_timestampOfTrack = coder.decodeInt64ForKey(kTimestampOfTrackKey);
    clip->m_timestampOfDataProviders = coder.decodeInt64ForKey(kTimestampOfDataProvidersKey);
    clip->m_durationOfFadeOut = coder.decodeInt64ForKey(kDurationOfFadeOutKey);
    clip->m_durationOfFadeIn = coder.decodeInt64ForKey(kDurationOfFadeInKey);
    clip->m_durationOfTrack = coder.decodeInt64ForKey(kDurationOfTrackKey);
    clip->m_enableFadeIn = coder.decodeBoolForKey(kEnableFadeInKey);
    clip->m_enableFadeOut = coder.decodeBoolForKey(kEnableFadeOutKey);
    const double volume = coder.decodeFloatForKey(kVolumeKey);
    if (clampedVolume(volume) != volume)
        brindle::logf("Warning: clip gain %g out of range; it is corrected.", volume);
    clip->m_volume = clampedVolume(volume);
    return clip;
}

void VTClip::encodeWithCoder(brindle::KeyedArchiver& coder) const
{
    coder.encodeString(m_dataProviderIds, kDataProviderIdsKey);
    coder.encodeInt64(timestampOfTrack(), kTimestampOfTrackKey);
    coder.encodeInt64(timestampOfDataProvider(), kTimestampOfDataProvidersKey);
    coder.encodeInt64(durationOfFadeOut(), kDurationOfFadeOutKey);
    coder.encodeInt64(durationOfFadeIn(), kDurationOfFadeInKey);
    coder.encodeInt64(durationOfTrack(), kDurationOfTrackKey);
    coder.encodeBool(enableFadeIn(), kEnableFadeInKey);
    coder.encodeBool(enableFadeOut(), kEnableFadeOutKey);
    coder.encodeFloat(static_cast<float>(volume()), kVolumeKey);
    coder.encodeString(m_uuidString, kUuidStringKey);
}
