// The clip as a pull source: placing its media at the right sample position
// of the mix, converting it to the mix format when needed, and applying its
// gain and fades.
#include "model/VTClip.h"

#include "codec/KRAudioFrame2.h"
#include "codec/KRResampleContext2.h"
#include "foundation/Log.h"
#include "foundation/VTBaseDefine.h"
#include "media/VTDataProvider.h"
#include "model/VTClipMixContext.h"
#include "model/VTFadeInEffect.h"
#include "model/VTFadeOutEffect.h"
#include "model/VTMixContext.h"
#include "model/VTVolumeEffect.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <optional>

using brindle::endSampleIndexOfSpan;
using brindle::sampleIndexOfTimestamp;

// The output buffer of one pull and how far it has been written.
struct VTClip::PullTarget {
    uint8_t* buffer = nullptr;
    int64_t frames = 0;    // N, the capacity
    int64_t position = 0;  // the next frame to write
    int64_t need = 0;      // frames still to write
    int64_t produced = 0;  // the count answered
};

namespace {

constexpr int32_t kFormatU8 = 0;
constexpr int32_t kLastPackedFormat = 4;

// a + b, held at the ends of the 64-bit range (values from damaged archives).
int64_t saturatingAdd(int64_t a, int64_t b)
{
    int64_t sum = 0;
    if (!__builtin_add_overflow(a, b, &sum))
        return sum;
    return b > 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
}

bool canMixFormat(const VTMixContext& context)
{
    return context.sampleFormat() >= 0 && context.sampleFormat() <= kLastPackedFormat &&
           context.numberOfChannel() > 0 && context.samplerate() > 0 && context.bytesPerSample() > 0;
}

// Silence: bytes of 127 for unsigned 8-bit, zero bytes otherwise.
void fillSilence(uint8_t* at, int64_t frames, const VTMixContext& context)
{
    if (frames <= 0)
        return;
    std::memset(at, context.sampleFormat() == kFormatU8 ? 127 : 0,
                static_cast<size_t>(frames) * static_cast<size_t>(context.bytesPerSample()));
}

// Reads through the state's own frame cursor when it has one.
uint64_t readMedia(VTClipMixContext& state, uint64_t count, void* buffer, uint64_t index)
{
    const auto& provider = state.dataProvider();
    if (VTDataProvider::FrameCursor* cursor = state.frameCursor())
        return provider->readSampleOfCount(count, buffer, index, *cursor);
    return provider->readSampleOfCount(count, buffer, index);
}

std::shared_ptr<VTClipMixContext>* mixStateOf(const VTClip& clip, VTMixContext& context)
{
    return context.userInfoForKey<std::shared_ptr<VTClipMixContext>>(clip.identifier());
}

}  // namespace

std::shared_ptr<VTClipMixContext> VTClip::makeMixState(int64_t indexOfSampleStart, int64_t timestamp,
                                                       int64_t mediaOffset) const
{
    // The provider is resolved here, once per state, never per pull.
    auto provider = dataProvider();
    const int64_t mediaRate = provider ? provider->samplerate() : 0;
    auto state = VTClipMixContext::initWithIndexOfSampleStart(indexOfSampleStart, timestamp,
                                                              sampleIndexOfTimestamp(mediaOffset, mediaRate));
    state->setDataProvider(std::move(provider));
    return state;
}

void VTClip::startMixWithContext(VTMixContext& context)
{
    context.setUserInfo(makeMixState(0, 0, timestampOfDataProvider()), identifier());
}

void VTClip::seekToTimestamp(int64_t timestamp, VTMixContext& context)
{
    const int64_t start = timestampOfTrack();
    // The media offset of the seek target: the clip's own offset when the
    // target lies before the clip, else that far into the clip.
    const int64_t mediaOffset = timestamp <= start
                                    ? timestampOfDataProvider()
                                    : saturatingAdd(timestamp - start, timestampOfDataProvider());
    context.setUserInfo(makeMixState(sampleIndexOfTimestamp(timestamp, context.samplerate()), timestamp, mediaOffset),
                        identifier());
}

bool VTClip::isEndOfSource(VTMixContext& context)
{
    auto* state = mixStateOf(*this, context);
    if (!state || !*state)
        return true;
    const int64_t current = saturatingAdd((*state)->indexOfSampleStart(), (*state)->numberOfSampleOut());
    return current > endSampleIndexOfSpan(timestampOfTrack(), durationOfTrack(), context.samplerate());
}

void VTClip::endMixWithContext(VTMixContext& context)
{
    context.removeUserInfoWithKey(identifier());
}

int64_t VTClip::nextSample(void* buffer, int64_t bufferCaps, bool* appendBefore, VTMixContext& context)
{
    auto* slot = mixStateOf(*this, context);
    if (!slot || !*slot)
        return 0;
    if (!canMixFormat(context)) {
        brindle::logf("Can't support sample format(%d) mix", context.sampleFormat());
        return kEndOfSource;
    }
    if (bufferCaps <= 0 || !buffer)
        return 0;
    auto* out = static_cast<uint8_t*>(buffer);
    if (context.convertsAhead()) {
        if (const std::optional<int64_t> answer = pullAhead(*slot, out, bufferCaps, appendBefore, context))
            return *answer;
    }
    brindle::FlagWrite flag = brindle::FlagWrite::None;
    const int64_t answer = pullFromState(**slot, out, bufferCaps, flag, context);
    if (appendBefore && flag != brindle::FlagWrite::None)
        *appendBefore = flag == brindle::FlagWrite::Set;
    return answer;
}

int64_t VTClip::pullFromState(VTClipMixContext& state, uint8_t* out, int64_t bufferCaps, brindle::FlagWrite& flag,
                              const VTMixContext& context)
{
    const int64_t rate = context.samplerate();
    const int64_t frameBytes = context.bytesPerSample();
    const int64_t start = timestampOfTrack();
    const int64_t duration = durationOfTrack();

    const int64_t startIndex = sampleIndexOfTimestamp(start, rate);
    const int64_t current = saturatingAdd(state.indexOfSampleStart(), state.numberOfSampleOut());
    if (saturatingAdd(current, bufferCaps) <= startIndex) {
        // Wholly before the clip.
        fillSilence(out, bufferCaps, context);
        state.setNumberOfSampleOut(state.numberOfSampleOut() + bufferCaps);
        return 0;
    }
    if (current > endSampleIndexOfSpan(start, duration, rate)) {
        fillSilence(out, bufferCaps, context);
        return kEndOfSource;
    }

    state.setDeliveredMedia();
    PullTarget target{out, bufferCaps, 0, bufferCaps, 0};
    if (current < startIndex) {
        // The clip begins inside this buffer: only its last frames are written.
        fillSilence(out, bufferCaps, context);
        flag = brindle::FlagWrite::Set;
        target.position = startIndex - current;
        target.need = bufferCaps - target.position;
    }

    takeCachedSamples(state, target, context);
    const bool direct = state.mediaSampleFormat() == context.sampleFormat() &&
                        state.mediaNumberOfChannel() == context.numberOfChannel() &&
                        state.mediaSamplerate() == rate;
    while (target.need > 0) {
        const bool read = direct ? readDirect(state, target, context) : readConverting(state, target, context);
        if (read)
            continue;
        // End of the media: the rest is silence, counted as produced.
        flag = brindle::FlagWrite::Cleared;
        fillSilence(out + target.position * frameBytes, target.need, context);
        target.produced += target.need;
        target.need = 0;
    }

    applyEffects(state, out, bufferCaps, context);
    state.setNumberOfSampleOut(state.numberOfSampleOut() + bufferCaps);
    return target.produced;
}

void VTClip::takeCachedSamples(VTClipMixContext& state, PullTarget& target, const VTMixContext& context)
{
    const int64_t frameBytes = context.bytesPerSample();
    const int64_t cached = state.cacheSampleLength() / frameBytes;
    if (cached <= 0 || target.need <= 0)
        return;
    const int64_t taken = std::min(cached, target.need);
    std::memcpy(target.buffer + target.position * frameBytes, state.cacheSample(),
                static_cast<size_t>(taken * frameBytes));
    // Fewer than needed: the cache is emptied; else the remainder stays.
    state.dropCacheSample(taken < target.need ? state.cacheSampleLength() : taken * frameBytes);
    target.position += taken;
    target.need -= taken;
    target.produced += taken;
}

bool VTClip::readDirect(VTClipMixContext& state, PullTarget& target, const VTMixContext& context)
{
    const auto& provider = state.dataProvider();
    const int64_t index = state.indexOfSampleStartInDataProvider() + state.numberOfSampleOutInDataProvider();
    if (!provider || index < 0)
        return false;
    const int64_t frameBytes = context.bytesPerSample();
    const int64_t count = static_cast<int64_t>(
        readMedia(state, uint64_t(target.need), target.buffer + target.position * frameBytes, uint64_t(index)));
    if (count <= 0)
        return false;
    const int64_t taken = std::min(count, target.need);
    state.setNumberOfSampleOutInDataProvider(state.numberOfSampleOutInDataProvider() + taken);
    target.position += taken;
    target.need -= taken;
    target.produced += taken;
    return true;
}

bool VTClip::readConverting(VTClipMixContext& state, PullTarget& target, const VTMixContext& context)
{
    const auto& provider = state.dataProvider();
    const int64_t index = state.indexOfSampleStartInDataProvider() + state.numberOfSampleOutInDataProvider();
    const int64_t mediaFrameBytes = state.mediaBytesPerSample();
    const int64_t mediaRate = state.mediaSamplerate();
    if (!provider || index < 0 || mediaFrameBytes <= 0 || mediaRate <= 0)
        return false;

    // 1024 media frames beyond the estimate, so that a pass seldom falls short;
    // the surplus is kept in the cache rather than read again.
    const int64_t request = mediaRate * target.need / context.samplerate() + 1024;
    uint8_t* scratch = state.readBuffer(static_cast<size_t>(request * mediaFrameBytes));
    const int64_t count = std::min<int64_t>(static_cast<int64_t>(readMedia(state, uint64_t(request), scratch, uint64_t(index))),
                                            request);
    if (count <= 0)
        return false;

    const int32_t mediaFormat = state.mediaSampleFormat();
    const int64_t mediaChannels = state.mediaNumberOfChannel();
    const auto& existing = state.resampleContext();
    if (!existing || !existing->assertSampleFormat(mediaFormat, context.sampleFormat(), mediaChannels,
                                                   context.numberOfChannel(), mediaRate, context.samplerate())) {
        state.setResampleContext(KRResampleContext2::initWithSampleFormat(
            mediaFormat, context.sampleFormat(), KRAudioFrame2::defaultChannelLayoutByChannel(mediaChannels),
            KRAudioFrame2::defaultChannelLayoutByChannel(context.numberOfChannel()), mediaRate,
            context.samplerate()));
    }
    const auto& resampler = state.resampleContext();
    if (!resampler)
        return false;
    state.setNumberOfSampleOutInDataProvider(state.numberOfSampleOutInDataProvider() + count);

    auto& converted = state.convertedSamples();
    const int64_t made = resampler->resampleInto(scratch, count, converted);
    if (made < 0)
        return false;
    const int64_t frameBytes = context.bytesPerSample();
    const int64_t copied = std::min(made, target.need);
    std::memcpy(target.buffer + target.position * frameBytes, converted.data(),
                static_cast<size_t>(copied * frameBytes));
    target.position += copied;
    target.produced += copied;
    if (made > target.need) {
        state.takeConvertedAsCache(target.need * frameBytes, (made - target.need) * frameBytes);
        target.need = 0;
    } else if (made == target.need) {
        target.need = 0;
    } else {
        // A short pass: the rest of the buffer is silence until the next pass
        // overwrites it, and the whole need is counted as produced.
        fillSilence(target.buffer + target.position * frameBytes, target.frames - target.position, context);
        target.produced += target.need - made;
        target.need -= made;
    }
    return true;
}

void VTClip::applyEffects(VTClipMixContext& state, uint8_t* buffer, int64_t frames, const VTMixContext& context)
{
    const int32_t format = context.sampleFormat();
    const int64_t channels = context.numberOfChannel();
    const int64_t rate = context.samplerate();
    if (auto* gain = state.volumeEffect(format, channels))
        gain->effectVolume(volume(), buffer, frames);
    const int64_t firstIndex = saturatingAdd(state.indexOfSampleStart(), state.numberOfSampleOut());
    if (fadeInValidate()) {
        auto* fade = state.fadeInEffect(indexOfFadeInSampleWithSamplerate(rate),
                                        numberOfFadeInSamplesWithSamplerate(rate), format, channels);
        if (fade)
            fade->fadeInSample(buffer, frames, firstIndex);
    }
    if (fadeOutValidate()) {
        auto* fade = state.fadeOutEffect(indexOfFadeOutSampleWithSamplerate(rate),
                                         numberOfFadeOutSamplesWithSamplerate(rate), format, channels);
        if (fade)
            fade->fadeOutSample(buffer, frames, firstIndex);
    }
}

void VTClip::effectVolume(double volume, void* samples, int64_t numberOfSample, VTMixContext& context)
{
    if (!samples || numberOfSample <= 0)
        return;
    if (auto* slot = mixStateOf(*this, context); slot && *slot) {
        if (auto* gain = (*slot)->volumeEffect(context.sampleFormat(), context.numberOfChannel()))
            gain->effectVolume(volume, samples, numberOfSample);
        return;
    }
    if (auto gain = VTVolumeEffect::initWithSampleFormat(context.sampleFormat(), context.numberOfChannel()))
        gain->effectVolume(volume, samples, numberOfSample);
}
