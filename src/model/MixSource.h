// The pull protocol shared by the project, its tracks, its clips and the
// mixer nodes: a source of interleaved PCM in the mix context's format.
//
// Contract
// - A mix run: `startMixWithContext`, then `seekToTimestamp` to the start
//   position (required: clips of a multi-clip track get their state only from
//   a seek), then `nextSample` repeatedly while `isEndOfSource` is false and
//   the answer is not kEndOfSource, then `endMixWithContext`. A seek may be
//   repeated at any time and restarts every clip's reading.
// - `nextSample(buffer, bufferCaps, appendBefore, context)`: the buffer has
//   room for `bufferCaps` (N) frames of the context's format. The answer is
//   kEndOfSource when the source is exhausted, absent or cannot mix the
//   format; 0 when the buffer holds only silence for this stretch; n > 0 for
//   n frames of content. With `*appendBefore` set on return the content is the
//   last n frames and the frames before it are silence; clear, the content
//   begins at the buffer's start. n may exceed N (a converting clip counts a
//   short conversion pass as complete): callers clamp it to N.
// - A source that answers n > 0 has written all N frames, silence included,
//   so a caller can use the whole buffer without clearing it first. With 0 or
//   kEndOfSource the buffer may be left as it was.
// - All per-run state lives in the context (its user info), so the model
//   objects are not changed by a mix. One thread pulls a context at a time.
#pragma once

#include <cstdint>
#include <limits>

class VTMixContext;

namespace brindle {

// What a pull did to the caller's `appendBefore` flag: a pull that writes
// none leaves the caller's value as it was.
enum class FlagWrite : int8_t { None, Set, Cleared };

class MixSource {
public:
    // The answer of `nextSample` for an exhausted or absent source.
    static constexpr int64_t kEndOfSource = std::numeric_limits<int64_t>::max();

    virtual ~MixSource() = default;

    virtual void startMixWithContext(VTMixContext& context) = 0;
    virtual void seekToTimestamp(int64_t timestamp, VTMixContext& context) = 0;
    virtual int64_t nextSample(void* buffer, int64_t bufferCaps, bool* appendBefore, VTMixContext& context) = 0;
    virtual bool isEndOfSource(VTMixContext& context) = 0;
    virtual void endMixWithContext(VTMixContext& context) = 0;
};

}  // namespace brindle
