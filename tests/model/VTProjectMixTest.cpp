// Projects pulled buffer by buffer and compared, frame by frame, with a mix
// computed independently from the rules.
#include "ModelFixtures.h"

#include "model/VTClip.h"
#include "model/VTMixContext.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

using brindle::MixSource;
using brindle::test::LogCapture;
using brindle::test::mediaWithSamples;
using brindle::test::samples16;

namespace {

constexpr int64_t kEnd = MixSource::kEndOfSource;
constexpr int64_t kRate = 48000;

// The mix computed sample by sample, straight from the rules, for 16-bit
// stereo media at the mix rate (the direct path), pulled in buffers of N
// frames from a seek to `from`: what every clip delivers into each buffer
// (answer, flag and samples), then the two-input rule of the mixer nodes
// folded over each track's clips and over the tracks, left to right.
class ReferenceMix {
public:
    struct Media {
        int64_t frames = 0;
        std::vector<int16_t> samples;  // interleaved stereo
    };
    struct Piece {
        std::vector<int16_t> samples;  // N stereo frames
        int64_t result = kEnd;
        bool flag = false;
    };
    using Track = std::vector<std::pair<std::shared_ptr<VTClip>, const Media*>>;

    ReferenceMix(int64_t bufferFrames, int64_t from, std::vector<Track> tracks)
        : m_frames(bufferFrames), m_from(from), m_seekIndex(from * kRate / 1000), m_tracks(std::move(tracks))
    {
    }

    // The project's answer for the buffer that starts at `bufferStart`.
    Piece pull(int64_t bufferStart) const
    {
        Piece project;
        for (size_t index = 0; index < m_tracks.size(); ++index) {
            const Piece piece = trackPiece(m_tracks[index], bufferStart);
            project = index == 0 ? piece : combine(project, piece);
        }
        return project;
    }

private:
    static int16_t mix(int32_t a, int32_t b)
    {
        int32_t value = a + b;
        if (a < 0 && b < 0)
            value = a + b + (a * b) / 32768;
        else if (a > 0 && b > 0)
            value = a + b - (a * b) / 32767;
        return static_cast<int16_t>(value >= 32768 ? 32767 : value < -32767 ? -32768 : value);
    }

    Piece trackPiece(const Track& track, int64_t bufferStart) const
    {
        int64_t duration = 0;
        for (const auto& [clip, media] : track)
            duration = std::max(duration, clip->timestampOfTrack() + clip->durationOfTrack());
        if (duration < 1)
            return Piece{};
        Piece piece = clipPiece(*track[0].first, *track[0].second, bufferStart);
        for (size_t index = 1; index < track.size(); ++index)
            piece = combine(piece, clipPiece(*track[index].first, *track[index].second, bufferStart));
        return piece;
    }

    // The node's rule for source 1 (a) and source 2 (b).
    Piece combine(const Piece& a, const Piece& b) const
    {
        if (a.result == 0)
            return b.result == kEnd ? Piece{a.samples, 0, false} : b;
        if (a.result == kEnd)
            return b;
        if (b.result == kEnd || b.result == 0)
            return Piece{a.samples, a.result, b.flag};
        int64_t pad1 = a.flag ? m_frames - a.result : 0;
        int64_t pad2 = b.flag ? m_frames - b.result : 0;
        if (a.result >= m_frames)
            pad1 = pad2 = 0;
        Piece out{std::vector<int16_t>(a.samples.size()), m_frames, false};
        for (int64_t frame = 0; frame < m_frames; ++frame) {
            const bool inFirst = frame >= pad1 && frame <= pad1 + a.result;
            const bool inSecond = frame >= pad2 && frame <= pad2 + b.result;
            for (int channel = 0; channel < 2; ++channel) {
                const size_t at = static_cast<size_t>(frame * 2 + channel);
                out.samples[at] = !inFirst ? b.samples[at] : !inSecond ? a.samples[at] : mix(a.samples[at], b.samples[at]);
            }
        }
        return out;
    }

    Piece clipPiece(const VTClip& clip, const Media& media, int64_t bufferStart) const
    {
        const int64_t S = clip.timestampOfTrack();
        const int64_t D = clip.durationOfTrack();
        const int64_t startIndex = S * kRate / 1000;
        const int64_t endIndex = (S + D) * kRate / 1000;
        Piece piece{std::vector<int16_t>(static_cast<size_t>(m_frames * 2), 0), 0, false};
        if (bufferStart + m_frames <= startIndex)
            return piece;
        if (bufferStart > endIndex)
            return Piece{piece.samples, kEnd, false};
        const int64_t firstWritten = std::max(startIndex, bufferStart) - bufferStart;
        piece.flag = firstWritten > 0;
        piece.result = m_frames - firstWritten;
        // The media frame of track index i; the media ends inside this buffer
        // when the frames it should give run past its end.
        const int64_t mediaStart = m_from <= S ? clip.timestampOfDataProvider() * kRate / 1000
                                               : (m_from - S + clip.timestampOfDataProvider()) * kRate / 1000;
        const int64_t writeStart = m_from <= S ? startIndex : m_seekIndex;
        auto mediaIndex = [&](int64_t index) { return mediaStart + (index - writeStart); };
        if (mediaIndex(bufferStart + m_frames - 1) >= media.frames)
            piece.flag = false;
        for (int64_t frame = firstWritten; frame < m_frames; ++frame) {
            const int64_t index = bufferStart + frame;
            if (mediaIndex(index) >= media.frames)
                break;
            for (int channel = 0; channel < 2; ++channel)
                piece.samples[static_cast<size_t>(frame * 2 + channel)] =
                    media.samples[static_cast<size_t>(mediaIndex(index) * 2 + channel)];
        }
        for (int64_t frame = 0; frame < m_frames; ++frame)
            for (int channel = 0; channel < 2; ++channel) {
                int16_t& value = piece.samples[static_cast<size_t>(frame * 2 + channel)];
                value = processed(clip, value, bufferStart, bufferStart + frame);
            }
        return piece;
    }

    // Gain, then the fade-in, then the fade-out.
    int16_t processed(const VTClip& clip, double value, int64_t bufferStart, int64_t index) const
    {
        const int64_t S = clip.timestampOfTrack();
        const int64_t D = clip.durationOfTrack();
        if (std::abs(clip.volume() - 1.0) > 1e-6) {
            value = std::trunc(value * clip.volume());
            value = value >= 32768 ? 32767 : value < -32767 ? -32768 : value;
        }
        if (clip.fadeInValidate())
            value = std::trunc(value * fadeGain(true, S * kRate / 1000, clip.durationOfFadeIn() * kRate / 1000,
                                                bufferStart, index));
        if (clip.fadeOutValidate())
            value = std::trunc(value * fadeGain(false, (S + D - clip.durationOfFadeOut()) * kRate / 1000,
                                                clip.durationOfFadeOut() * kRate / 1000, bufferStart, index));
        return static_cast<int16_t>(value);
    }

    // The ramp's gain at `index`, or 1 when the buffer is left untouched.
    double fadeGain(bool fadeIn, int64_t start, int64_t count, int64_t bufferStart, int64_t index) const
    {
        const bool after = fadeIn ? start + count < bufferStart : start + count <= bufferStart;
        if (bufferStart + m_frames <= start || count == 0 || after)
            return 1.0;
        const double ramp = index <= start ? 0.0 : index >= start + count ? 1.0 : double(index - start) / double(count);
        return fadeIn ? ramp : 1.0 - ramp;
    }

    int64_t m_frames;
    int64_t m_from;
    int64_t m_seekIndex;
    std::vector<Track> m_tracks;
};

struct NamedMedia {
    QString identifier;
    ReferenceMix::Media media;
};

// Three seconds of 16-bit stereo at the mix rate, registered once.
template <class Value>
NamedMedia makeMedia(const QString& name, Value value)
{
    NamedMedia made;
    const QByteArray bytes = samples16(3 * kRate, 2, value);
    made.identifier = mediaWithSamples(name, 1, 2, kRate, bytes);
    made.media.frames = 3 * kRate;
    made.media.samples.resize(static_cast<size_t>(3 * kRate * 2));
    std::memcpy(made.media.samples.data(), bytes.constData(), static_cast<size_t>(bytes.size()));
    return made;
}

const NamedMedia& tone()
{
    static const NamedMedia media = makeMedia(QStringLiteral("mix-tone"), [](int64_t frame, int channel) {
        return 19000.0 * std::sin(frame * (channel ? 0.031 : 0.057));
    });
    return media;
}

// Loud and different in every frame, so a misplaced frame or a missed clamp shows.
const NamedMedia& noise()
{
    static const NamedMedia media = makeMedia(QStringLiteral("mix-noise"), [](int64_t frame, int channel) {
        return ((frame * 2654435761LL + channel * 40503) % 64001) - 32000;
    });
    return media;
}

const NamedMedia& low()
{
    static const NamedMedia media = makeMedia(QStringLiteral("mix-low"), [](int64_t, int) { return -20000; });
    return media;
}

struct PlacedClip {
    const NamedMedia& media;
    int64_t start, duration, offset;
    double volume = 1.0;
    int64_t fadeIn = 0, fadeOut = 0;
};
using Layout = std::vector<std::vector<PlacedClip>>;

// Builds the layout as a project, pulls it whole from `from` in buffers of
// `bufferFrames` and compares every answer, flag and frame with the reference.
void expectMixMatchesReference(const Layout& layout, int64_t bufferFrames, int64_t from)
{
    auto project = std::make_shared<VTProject>();
    std::vector<ReferenceMix::Track> referenceTracks;
    QStringList keys;
    for (const auto& placedClips : layout) {
        auto track = std::make_shared<VTTrack>();
        keys.append(track->identifier());
        ReferenceMix::Track clips;
        for (const PlacedClip& placed : placedClips) {
            auto clip = VTClip::initWithDataProviderIDs(placed.media.identifier);
            // A short length first, so that any offset fits; the final length
            // may then run past the media's end.
            clip->setDurationOfTrack(1);
            clip->setTimestampOfDataProvider(placed.offset);
            clip->setDurationOfTrack(placed.duration);
            clip->setTimestampOfTrack(placed.start);
            clip->setVolume(placed.volume);
            clip->setDurationOfFadeIn(placed.fadeIn);
            clip->setEnableFadeIn(placed.fadeIn > 0);
            clip->setDurationOfFadeOut(placed.fadeOut);
            clip->setEnableFadeOut(placed.fadeOut > 0);
            track->importClip(clip);
            clips.emplace_back(clip, &placed.media.media);
            keys.append(clip->identifier());
        }
        project->importTrack(track);
        referenceTracks.push_back(clips);
    }
    const ReferenceMix reference(bufferFrames, from, referenceTracks);

    VTMixContext context(kRate, 2, 1);
    project->startMixWithContext(context);
    project->seekToTimestamp(from, context);
    EXPECT_EQ(context.timestampOfTrackStart(), from);
    std::vector<int16_t> buffer(static_cast<size_t>(bufferFrames * 2));
    int64_t index = from * kRate / 1000;
    int64_t mismatches = 0;
    for (;;) {
        // The source is at its end exactly when its next answer is the end marker.
        const bool atEnd = project->isEndOfSource(context);
        bool flag = false;
        const int64_t result = project->nextSample(buffer.data(), bufferFrames, &flag, context);
        const ReferenceMix::Piece expected = reference.pull(index);
        ASSERT_EQ(result, expected.result) << "buffer at " << index;
        ASSERT_EQ(atEnd, result == kEnd) << "buffer at " << index;
        if (result == kEnd)
            break;
        EXPECT_EQ(flag, expected.flag) << "buffer at " << index;
        for (size_t at = 0; at < buffer.size(); ++at) {
            if (expected.samples[at] != buffer[at] && ++mismatches <= 5)
                ADD_FAILURE() << "frame " << index + int64_t(at / 2) << " channel " << at % 2 << ": expected "
                              << expected.samples[at] << ", mixed " << buffer[at];
        }
        index += bufferFrames;
    }
    project->endMixWithContext(context);
    EXPECT_EQ(mismatches, 0);
    EXPECT_GE(index, project->duration() * kRate / 1000);  // the whole project was pulled
    // Ending the mix drops every state it kept in the context.
    keys.append(VTMixContext::kProjectMixOperationKey);
    for (const QString& key : keys)
        EXPECT_FALSE(context.userInfoForKey(key)) << qPrintable(key);
}

}  // namespace

TEST(VTProjectMixTest, projectsMixAsComputedSampleBySample)
{
    const Layout eightTracks = {
        {{tone(), 0, 2000, 0}},
        {{noise(), 1000, 1800, 0, 1.5, 300, 0}},
        {{tone(), 500, 1500, 250, 1.0, 0, 500}, {low(), 1200, 1000, 250}},
        {},
        {{noise(), 2500, 800, 100, 0.3, 200, 300}},
        {{low(), 21, 600, 0}, {low(), 30, 900, 1000, 2.5}},
        {{noise(), 0, 700, 0}, {tone(), 900, 500, 2000}, {low(), 1700, 600, 0, 0.8, 100, 100}},
        {{tone(), 2200, 1500, 2000}},  // runs past the media's end
    };
    struct Case {
        const char* what;
        Layout layout;
        int64_t bufferFrames, from;
    };
    const Case cases[] = {
        {"eight tracks of overlapping clips", eightTracks, 1024, 0},
        {"eight tracks in larger buffers", eightTracks, 2048, 0},
        {"eight tracks from a seek: every clip restarts there", eightTracks, 1024, 1130},
        {"an empty track: at its end at once", Layout(1), 1024, 0},
        {"a clip starting inside a buffer", {{{noise(), 1000, 2000, 0}}}, 1024, 0},
        {"a clip starting where a buffer ends", {{{noise(), 64, 500, 0}}}, 1024, 0},
        {"a clip running past its media's end", {{{noise(), 0, 3500, 0}}}, 1000, 0},
        {"the media ending inside a late-starting buffer", {{{noise(), 10, 1000, 2990}}}, 1024, 0},
        {"the last buffer carrying media past the clip's end", {{{noise(), 0, 500, 0}}}, 1000, 0},
        {"a seek into a clip", {{{noise(), 1000, 1500, 100}}}, 64, 1200},
        {"a seek before a clip", {{{noise(), 1000, 1500, 100}}}, 3200, 600},
        {"gain and fades in small buffers", {{{noise(), 103, 1500, 200, 1.7, 300, 400}}}, 1000, 0},
        {"gain and fades in one buffer", {{{noise(), 103, 1500, 200, 1.7, 300, 400}}}, 100000, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.what << ", buffers of " << c.bufferFrames << " from " << c.from);
        expectMixMatchesReference(c.layout, c.bufferFrames, c.from);
    }
}

// Two overlapping tracks: float output mixes by the float rule (−20000 is
// a = −0.6103515625, and a with a is a·a + 2a); formats other than 16-bit and
// float end the mix.
TEST(VTProjectMixTest, floatOutputUsesTheFloatRuleAndOtherFormatsEndTheMixWithAMessage)
{
    auto project = brindle::test::projectWith({{brindle::test::clipAt(0, 0, low().identifier)},
                                               {brindle::test::clipAt(0, 0, low().identifier)}});
    for (int32_t format : {3, 2, 4}) {
        VTMixContext context(kRate, 2, format);
        project->startMixWithContext(context);
        project->seekToTimestamp(0, context);
        LogCapture log;
        std::vector<double> buffer(2 * 512);
        bool flag = false;
        const int64_t result = project->nextSample(buffer.data(), 512, &flag, context);
        if (format == 3) {
            EXPECT_EQ(result, 512);
            EXPECT_NEAR(reinterpret_cast<const float*>(buffer.data())[100], -0.848174f, 1e-4);
        } else {
            EXPECT_EQ(result, kEnd);
            EXPECT_TRUE(log.contains(QStringLiteral("Can't support sample format(%1) mix").arg(format)));
        }
        project->endMixWithContext(context);
    }
}
