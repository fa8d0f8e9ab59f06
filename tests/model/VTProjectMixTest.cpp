#include "ModelFixtures.h"

#include "model/VTClip.h"
#include "model/VTMixContext.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

using brindle::MixSource;
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

    ReferenceMix(int64_t bufferFrames, int64_t from)
        : m_frames(bufferFrames), m_from(from), m_seekIndex(from * kRate / 1000)
    {
    }

    void addTrack(Track clips) { m_tracks.push_back(std::move(clips)); }

    // The project's answer for the buffer that starts at `bufferStart`.
    Piece pull(int64_t bufferStart) const
    {
        Piece project;
        bool first = true;
        for (const auto& track : m_tracks) {
            const Piece piece = trackPiece(track, bufferStart);
            project = first ? piece : combine(project, piece);
            first = false;
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

template <class Value>
NamedMedia makeMedia(const QString& name, int64_t frames, Value value)
{
    NamedMedia made;
    const QByteArray bytes = samples16(frames, 2, value);
    made.identifier = mediaWithSamples(name, 1, 2, kRate, bytes);
    made.media.frames = frames;
    made.media.samples.resize(static_cast<size_t>(frames * 2));
    std::memcpy(made.media.samples.data(), bytes.constData(), static_cast<size_t>(bytes.size()));
    return made;
}

struct ClipSpec {
    int64_t start, duration, offset;
    double volume = 1.0;
    int64_t fadeIn = 0, fadeOut = 0;
};

class EightTracks {
public:
    EightTracks()
    {
        tone = makeMedia(QStringLiteral("mix-tone"), 3 * kRate, [](int64_t frame, int channel) {
            return 19000.0 * std::sin(frame * (channel ? 0.031 : 0.057));
        });
        noise = makeMedia(QStringLiteral("mix-noise"), 3 * kRate, [](int64_t frame, int channel) {
            return ((frame * 2654435761LL + channel * 40503) % 64001) - 32000;
        });
        low = makeMedia(QStringLiteral("mix-low"), 3 * kRate, [](int64_t, int) { return -20000; });
        const std::vector<std::vector<std::pair<ClipSpec, const NamedMedia*>>> layout = {
            {{{0, 2000, 0}, &tone}},
            {{{1000, 1800, 0, 1.5, 300, 0}, &noise}},
            {{{500, 1500, 250, 1.0, 0, 500}, &tone}, {{1200, 1000, 250}, &low}},
            {},
            {{{2500, 800, 100, 0.3, 200, 300}, &noise}},
            {{{21, 600, 0}, &low}, {{30, 900, 1000, 2.5}, &low}},
            {{{0, 700, 0}, &noise}, {{900, 500, 2000}, &tone}, {{1700, 600, 0, 0.8, 100, 100}, &low}},
            {{{2200, 1500, 2000}, &tone}},  // runs past the media's end
        };
        project = std::make_shared<VTProject>();
        for (const auto& specs : layout) {
            auto track = std::make_shared<VTTrack>();
            ReferenceMix::Track clips;
            for (const auto& [spec, media] : specs) {
                auto clip = VTClip::initWithDataProviderIDs(media->identifier);
                // A short length first, so that any offset fits; the final
                // length may then run past the media's end.
                clip->setDurationOfTrack(1);
                clip->setTimestampOfDataProvider(spec.offset);
                clip->setDurationOfTrack(spec.duration);
                clip->setTimestampOfTrack(spec.start);
                clip->setVolume(spec.volume);
                clip->setDurationOfFadeIn(spec.fadeIn);
                clip->setEnableFadeIn(spec.fadeIn > 0);
                clip->setDurationOfFadeOut(spec.fadeOut);
                clip->setEnableFadeOut(spec.fadeOut > 0);
                track->importClip(clip);
                clips.emplace_back(clip, &media->media);
            }
            project->importTrack(track);
            referenceTracks.push_back(clips);
        }
    }

    NamedMedia tone, noise, low;
    std::shared_ptr<VTProject> project;
    std::vector<ReferenceMix::Track> referenceTracks;
};

// Pulls the whole project from `from` and compares every frame with the reference.
void expectMixMatchesReference(EightTracks& setup, int64_t bufferFrames, int64_t from)
{
    ReferenceMix reference(bufferFrames, from);
    for (const auto& track : setup.referenceTracks)
        reference.addTrack(track);

    VTMixContext context(kRate, 2, 1);
    VTProject& project = *setup.project;
    project.startMixWithContext(context);
    project.seekToTimestamp(from, context);
    EXPECT_EQ(context.timestampOfTrackStart(), from);
    std::vector<int16_t> buffer(static_cast<size_t>(bufferFrames * 2));
    int64_t index = from * kRate / 1000;
    int64_t mismatches = 0;
    while (!project.isEndOfSource(context)) {
        bool flag = false;
        const int64_t result = project.nextSample(buffer.data(), bufferFrames, &flag, context);
        const ReferenceMix::Piece expected = reference.pull(index);
        ASSERT_EQ(result, expected.result) << "buffer at " << index;
        if (result == kEnd)
            break;
        EXPECT_EQ(flag, expected.flag) << "buffer at " << index;
        for (int64_t frame = 0; frame < bufferFrames; ++frame) {
            for (int channel = 0; channel < 2; ++channel) {
                const size_t at = static_cast<size_t>(frame * 2 + channel);
                if (expected.samples[at] != buffer[at] && ++mismatches <= 5)
                    ADD_FAILURE() << "frame " << index + frame << " channel " << channel << ": expected "
                                  << expected.samples[at] << ", mixed " << buffer[at];
            }
        }
        index += bufferFrames;
    }
    project.endMixWithContext(context);
    EXPECT_EQ(mismatches, 0);
    EXPECT_GE(index, (2200 + 1500) * kRate / 1000);  // the whole project was pulled
    EXPECT_FALSE(context.userInfoForKey(VTMixContext::kProjectMixOperationKey));
}

}  // namespace

TEST(VTProjectMixTest, eightTracksOfOverlappingClipsMixAsComputedSampleBySample)
{
    EightTracks setup;
    expectMixMatchesReference(setup, 1024, 0);
    expectMixMatchesReference(setup, 2048, 0);
}

TEST(VTProjectMixTest, aSeekRestartsEveryClipAtTheNewPosition)
{
    EightTracks setup;
    expectMixMatchesReference(setup, 1024, 1130);
}

TEST(VTProjectMixTest, anEmptyProjectIsAtItsEndAtOnce)
{
    VTProject project;
    project.importTrack(std::make_shared<VTTrack>());
    VTMixContext context(kRate, 2, 1);
    project.startMixWithContext(context);
    project.seekToTimestamp(0, context);
    std::vector<int16_t> buffer(64);
    bool flag = false;
    EXPECT_EQ(project.nextSample(buffer.data(), 32, &flag, context), kEnd);
    EXPECT_TRUE(project.isEndOfSource(context));
    EXPECT_FALSE(context.userInfoForKey(VTMixContext::kProjectMixOperationKey));
}

TEST(VTProjectMixTest, aOneTrackOneClipProjectReadsTheClipWithoutAMixerNode)
{
    const auto media = makeMedia(QStringLiteral("single"), kRate, [](int64_t frame, int) { return frame % 1000; });
    auto clip = VTClip::initWithDataProviderIDs(media.identifier);
    auto track = std::make_shared<VTTrack>();
    track->importClip(clip);
    VTProject project;
    project.importTrack(track);

    VTMixContext context(kRate, 2, 1);
    project.startMixWithContext(context);
    auto* root = context.userInfoForKey<std::shared_ptr<MixSource>>(VTMixContext::kProjectMixOperationKey);
    ASSERT_TRUE(root);
    EXPECT_EQ(root->get(), static_cast<MixSource*>(track.get()));
    auto* trackRoot = context.userInfoForKey<std::shared_ptr<MixSource>>(track->identifier());
    ASSERT_TRUE(trackRoot);
    EXPECT_EQ(trackRoot->get(), static_cast<MixSource*>(clip.get()));

    project.seekToTimestamp(0, context);
    std::vector<int16_t> buffer(2 * 100);
    bool flag = false;
    EXPECT_EQ(project.nextSample(buffer.data(), 100, &flag, context), 100);
    EXPECT_EQ(buffer[2 * 99], 99);
    project.endMixWithContext(context);
    EXPECT_FALSE(context.userInfoForKey(clip->identifier()));
    EXPECT_FALSE(context.userInfoForKey(track->identifier()));
}

TEST(VTProjectMixTest, mixFormatsOtherThanSixteenBitAndFloatEndTheMixWithAMessage)
{
    EightTracks setup;
    for (int32_t format : {2, 4}) {
        VTMixContext context(kRate, 2, format);
        setup.project->startMixWithContext(context);
        setup.project->seekToTimestamp(0, context);
        brindle::test::LogCapture log;
        std::vector<double> buffer(2 * 256);
        bool flag = false;
        EXPECT_EQ(setup.project->nextSample(buffer.data(), 256, &flag, context), kEnd);
        EXPECT_TRUE(log.contains(QStringLiteral("Can't support sample format(%1) mix").arg(format)));
        setup.project->endMixWithContext(context);
    }
}

TEST(VTProjectMixTest, aFloatMixOfOverlappingClipsUsesTheFloatRule)
{
    const auto media = makeMedia(QStringLiteral("half"), kRate, [](int64_t, int) { return 16384; });
    VTProject project;
    for (int index = 0; index < 2; ++index) {
        auto track = std::make_shared<VTTrack>();
        track->importClip(VTClip::initWithDataProviderIDs(media.identifier));
        project.importTrack(track);
    }
    VTMixContext context(kRate, 2, 3);
    project.startMixWithContext(context);
    project.seekToTimestamp(0, context);
    std::vector<float> buffer(2 * 512);
    bool flag = false;
    EXPECT_EQ(project.nextSample(buffer.data(), 512, &flag, context), 512);
    // 16384 converts to 0.5; 0.5 and 0.5 mix to 0.75.
    EXPECT_NEAR(buffer[100], 0.75f, 1e-4);
}
