// A project mixed with its clips converted ahead on the worker pool gives
// the same answers, flags, ends and bytes, pull for pull, as the same project
// mixed on one thread; also when the block size changes under way, after a
// seek, and when the mix ends while the workers are busy.
#include "ModelFixtures.h"

#include "support/TestMedia.h"

#include "model/VTClip.h"
#include "model/VTMixContext.h"
#include "model/VTProject.h"

#include <gtest/gtest.h>

#include <functional>

using brindle::MixSource;
using brindle::test::clipAt;
using brindle::test::mediaWithSamples;

namespace {

// What a whole mix gave, pull by pull.
struct MixRun {
    std::vector<int64_t> answers;
    std::vector<bool> flags;
    std::vector<bool> ends;
    QByteArray bytes;
};

struct Pulls {
    int32_t format = 1;
    int64_t seekTo = 0;
    std::function<int64_t(int)> frames = [](int) { return 2048; };
    int limit = 1000;  // pulls at most
};

MixRun mix(VTProject& project, const Pulls& pulls, bool ahead)
{
    VTMixContext context(48000, 2, pulls.format);
    context.setConvertsAhead(ahead);
    project.startMixWithContext(context);
    project.seekToTimestamp(pulls.seekTo, context);
    MixRun run;
    for (int pull = 0; pull < pulls.limit; ++pull) {
        const int64_t frames = pulls.frames(pull);
        QByteArray buffer(frames * context.bytesPerSample(), char(0x5a));
        // Both starting values, so that a flag left alone differs from one written.
        bool flag = pull % 2 == 1;
        run.ends.push_back(project.isEndOfSource(context));
        const int64_t answer = project.nextSample(buffer.data(), frames, &flag, context);
        run.answers.push_back(answer);
        run.flags.push_back(flag);
        run.bytes += buffer;
        if (answer == MixSource::kEndOfSource)
            break;
    }
    project.endMixWithContext(context);
    return run;
}

QString media(const char* name, int32_t format, int channels, int rate, int64_t frames, uint32_t seed)
{
    brindle::test::ToneSpec spec;
    spec.channels = channels;
    spec.sampleRate = rate;
    spec.frames = frames;
    spec.seed = seed;
    spec.noise = 0.2;
    return mediaWithSamples(QString::fromLatin1(name), format, channels, rate, brindle::test::toneSamples(spec, format));
}

std::shared_ptr<VTClip> withEffects(std::shared_ptr<VTClip> clip, double volume, int64_t fadeIn, int64_t fadeOut)
{
    clip->setVolume(volume);
    clip->setDurationOfFadeIn(fadeIn);
    clip->setEnableFadeIn(fadeIn > 0);
    clip->setDurationOfFadeOut(fadeOut);
    clip->setEnableFadeOut(fadeOut > 0);
    return clip;
}

// Float 44.1 kHz stereo (the polyphase converter), 16-bit 48 kHz stereo
// (read directly), 16-bit 22.05 kHz mono (the general converter), over
// several tracks: overlapping clips on one track, a clip starting well past
// the feeds' reach, media ending before its clip does.
std::shared_ptr<VTProject> mixedProject()
{
    const QString floatMedia = media("ahead-float", 3, 2, 44100, 44100 * 3, 1);
    const QString directMedia = media("ahead-direct", 1, 2, 48000, 48000 * 2, 2);
    const QString monoMedia = media("ahead-mono", 1, 1, 22050, 22050 * 2, 3);
    auto late = clipAt(4100, 1500, floatMedia);
    late->setTimestampOfDataProvider(700);
    return brindle::test::projectWith({
        {withEffects(clipAt(0, 0, floatMedia), 0.8, 400, 700)},
        {clipAt(1000, 0, directMedia), withEffects(clipAt(1500, 0, monoMedia), 2.5, 0, 300)},
        {late},
        {clipAt(300, 2600, directMedia)},  // 600 ms past its media's end
    });
}

void expectSameRuns(const MixRun& ahead, const MixRun& serial)
{
    ASSERT_EQ(ahead.answers, serial.answers);
    EXPECT_EQ(ahead.flags, serial.flags);
    EXPECT_EQ(ahead.ends, serial.ends);
    ASSERT_EQ(ahead.bytes.size(), serial.bytes.size());
    EXPECT_TRUE(ahead.bytes == serial.bytes);
}

}  // namespace

TEST(VTProjectMixAheadTest, aheadAndOnOneThreadGiveTheSameMixPullForPull)
{
    auto project = mixedProject();
    // One clip, so its flags reach the caller: set where it starts inside a
    // block, cleared where its media ends before it does.
    auto single = brindle::test::projectWith({{clipAt(1000, 2600, media("ahead-direct", 1, 2, 48000, 48000 * 2, 2))}});
    struct Case {
        const char* what;
        std::shared_ptr<VTProject> project;
        Pulls pulls;
    };
    const Case cases[] = {
        {"16-bit blocks of one size", project, {}},
        {"float blocks of one size", project, {3}},
        {"from a seek into the clips", project, {1, 1730}},
        {"from a seek past most of the clips", project, {1, 4200}},
        {"the block size changes while feeds run", project, {1, 0, [](int pull) { return pull < 20 ? 2048 : 1000; }}},
        {"the block size changes before any feed runs", project, {1, 0, [](int pull) { return pull < 1 ? 512 : 700; }}},
        {"one clip's flags", single, {1, 0, [](int) { return 1000; }}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const MixRun serial = mix(*c.project, c.pulls, false);
        ASSERT_GT(serial.answers.size(), 30u);
        expectSameRuns(mix(*c.project, c.pulls, true), serial);
    }
}

// Ending the mix, seeking, or dropping the context while the workers are
// computing leaves nothing running on the clips (checked by the sanitizers),
// and a seek restarts the feeds where the mix on one thread restarts.
TEST(VTProjectMixAheadTest, seeksAndEndsWhileFeedsRunStopThemCleanly)
{
    auto project = mixedProject();
    QByteArray buffer(2048 * 4, '\0');
    bool flag = false;
    for (int pulls : {0, 1, 3}) {
        VTMixContext context(48000, 2, 1);
        context.setConvertsAhead(true);
        project->startMixWithContext(context);
        project->seekToTimestamp(0, context);
        for (int pull = 0; pull < pulls; ++pull)
            project->nextSample(buffer.data(), 2048, &flag, context);
        if (pulls == 1)
            project->endMixWithContext(context);
        // Otherwise the context goes with its states still in it.
    }

    Pulls pulls;
    pulls.limit = 12;
    const MixRun serial = mix(*project, pulls, false);
    VTMixContext context(48000, 2, 1);
    context.setConvertsAhead(true);
    project->startMixWithContext(context);
    project->seekToTimestamp(2500, context);
    for (int pull = 0; pull < 5; ++pull)
        project->nextSample(buffer.data(), 2048, &flag, context);
    project->seekToTimestamp(0, context);
    MixRun ahead;
    for (int pull = 0; pull < pulls.limit; ++pull) {
        bool aheadFlag = pull % 2 == 1;
        ahead.ends.push_back(project->isEndOfSource(context));
        ahead.answers.push_back(project->nextSample(buffer.data(), 2048, &aheadFlag, context));
        ahead.flags.push_back(aheadFlag);
        ahead.bytes += buffer;
    }
    project->endMixWithContext(context);
    expectSameRuns(ahead, serial);
}
