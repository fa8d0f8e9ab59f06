// The clip's pulls in a context that converts ahead: once the clip's media is
// within the feed's reach of the mixing position, a feed computes its pulls
// on the worker pool from a copy of its state, and the mixing thread takes
// them in order. Pulls before that point (silence before the clip, or the
// end marker) are made on the mixing thread as usual; they deliver no media,
// so the state stays a plain copy of where the feed begins.
#include "model/VTClip.h"

#include "foundation/Log.h"
#include "foundation/VTBaseDefine.h"
#include "model/ClipFeed.h"
#include "model/VTClipMixContext.h"
#include "model/VTFadeInEffect.h"
#include "model/VTMixContext.h"

#include <limits>
#include <vector>

using brindle::ClipFeed;
using brindle::FlagWrite;

namespace {

constexpr int32_t kFormatU8 = 0;

// frames × the feed's depth, held at the 64-bit maximum.
int64_t feedReach(int64_t frames)
{
    int64_t reach = 0;
    if (__builtin_mul_overflow(frames, int64_t(ClipFeed::kDepth), &reach))
        return std::numeric_limits<int64_t>::max();
    return reach;
}

}  // namespace

std::optional<int64_t> VTClip::pullAhead(std::shared_ptr<VTClipMixContext>& slot, uint8_t* out, int64_t frames,
                                         bool* appendBefore, const VTMixContext& context)
{
    VTClipMixContext* state = slot.get();
    if (state->feed() && state->feedFrames() != frames) {
        replaceFeedByPulls(slot, frames, context);
        return std::nullopt;
    }
    if (!state->feed()) {
        if (!state->isPristine() || !feedShouldStart(*state, frames, context))
            return std::nullopt;
        startFeed(*state, frames, context);
        if (!state->feed())
            return std::nullopt;
    }
    const ClipFeed::Outcome outcome = state->feed()->take(out);
    state->countFeedPull();
    state->setNumberOfSampleOut(outcome.numberOfSampleOut);
    state->setNumberOfSampleOutInDataProvider(outcome.numberOfSampleOutInDataProvider);
    // An exhausted clip answers the end marker from now on without moving:
    // the pulls made here from the same counters give the same answer.
    if (outcome.result == kEndOfSource)
        state->stopFeed();
    if (appendBefore && outcome.flag != FlagWrite::None)
        *appendBefore = outcome.flag == FlagWrite::Set;
    return outcome.result;
}

bool VTClip::feedShouldStart(const VTClipMixContext& state, int64_t frames, const VTMixContext& context) const
{
    const int64_t rate = context.samplerate();
    const int64_t current = brindle::saturatingSum(state.indexOfSampleStart(), state.numberOfSampleOut());
    if (current > brindle::endSampleIndexOfSpan(timestampOfTrack(), durationOfTrack(), rate))
        return false;
    return brindle::saturatingSum(current, feedReach(frames)) > brindle::sampleIndexOfTimestamp(timestampOfTrack(), rate);
}

void VTClip::startFeed(VTClipMixContext& state, int64_t frames, const VTMixContext& context)
{
    const std::shared_ptr<VTClip> self = weak_from_this().lock();
    if (!self)
        return;
    std::shared_ptr<VTClipMixContext> own = state.pristineCopy();
    own->keepOwnFrameCursor();
    auto format = std::make_shared<VTMixContext>(context.samplerate(), context.numberOfChannel(), context.sampleFormat());
    ClipFeed::Compute compute = [self, own, format, frames](uint8_t* block) {
        ClipFeed::Outcome outcome;
        outcome.result = self->pullFromState(*own, block, frames, outcome.flag, *format);
        outcome.numberOfSampleOut = own->numberOfSampleOut();
        outcome.numberOfSampleOutInDataProvider = own->numberOfSampleOutInDataProvider();
        return outcome;
    };
    const uint8_t silence = context.sampleFormat() == kFormatU8 ? 127 : 0;
    state.setFeed(ClipFeed::start(size_t(frames * context.bytesPerSample()), silence, std::move(compute)), frames);
    state.setDeliveredMedia();
}

void VTClip::replaceFeedByPulls(std::shared_ptr<VTClipMixContext>& slot, int64_t asked, const VTMixContext& context)
{
    VTClipMixContext& old = *slot;
    const int64_t frames = old.feedFrames();
    const int64_t pulls = old.feedPullsTaken();
    old.stopFeed();
    brindle::logf("VTClip: the mix asked for %lld frames instead of %lld; the clip is pulled on the mixing thread "
                  "from here on",
                  static_cast<long long>(asked), static_cast<long long>(frames));
    auto fresh = VTClipMixContext::initWithIndexOfSampleStart(old.indexOfSampleStart(), old.timestampOfTrack(),
                                                              old.indexOfSampleStartInDataProvider());
    fresh->setDataProvider(old.dataProvider());
    fresh->setNumberOfSampleOut(old.feedStartSampleOut());
    std::vector<uint8_t> scratch(size_t(frames * context.bytesPerSample()));
    for (int64_t pull = 0; pull < pulls; ++pull) {
        FlagWrite unused = FlagWrite::None;
        pullFromState(*fresh, scratch.data(), frames, unused, context);
    }
    slot = std::move(fresh);
}
