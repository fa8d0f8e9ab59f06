// Playback keeps pulling the mix while the main thread cuts, pastes,
// deletes, moves and changes gains. Run under ThreadSanitizer as well.
#include "ModelFixtures.h"

#include "support/TestMedia.h"

#include "model/VTClip.h"
#include "model/VTMixContext.h"
#include "model/VTPasteboard.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <thread>

using brindle::MixSource;
using brindle::test::mediaWithSamples;
using brindle::test::samples16;

namespace {

std::shared_ptr<VTProject> busyProject(const QStringList& media)
{
    auto project = std::make_shared<VTProject>();
    for (int trackIndex = 0; trackIndex < 8; ++trackIndex) {
        auto track = std::make_shared<VTTrack>();
        for (int clipIndex = 0; clipIndex < 3; ++clipIndex) {
            auto clip = VTClip::initWithDataProviderIDs(media[(trackIndex + clipIndex) % media.size()]);
            clip->setDurationOfTrack(700);
            clip->setTimestampOfTrack(trackIndex * 90 + clipIndex * 400);
            track->importClip(clip);
        }
        project->importTrack(track);
    }
    return project;
}

// Pulls the project in playback-sized buffers from random positions until told to stop.
int64_t mixUntilStopped(VTProject& project, const std::atomic<bool>& stop, int32_t format)
{
    std::mt19937 random(7);
    int64_t frames = 0;
    std::vector<uint8_t> buffer(512 * 2 * 4);
    while (!stop.load()) {
        VTMixContext context(48000, 2, format);
        project.startMixWithContext(context);
        project.seekToTimestamp(static_cast<int64_t>(random() % 1500), context);
        for (int pulls = 0; pulls < 200 && !stop.load(); ++pulls) {
            if (project.isEndOfSource(context))
                break;
            bool flag = false;
            const int64_t result = project.nextSample(buffer.data(), 512, &flag, context);
            if (result == MixSource::kEndOfSource)
                break;
            frames += 512;
        }
        project.endMixWithContext(context);
    }
    return frames;
}

// One random edit of the kinds that do not stop playback.
void editOnce(VTProject& project, std::mt19937& random)
{
    auto pickSelection = [&] {
        QStringList identifiers;
        for (const auto trackList = project.tracks(); const auto& track : *trackList)
            for (const auto clipList = track->clips(); const auto& clip : *clipList)
                if (random() % 3 == 0)
                    identifiers.append(clip->identifier());
        project.setSelections(identifiers);
    };
    switch (random() % 8) {
    case 0: pickSelection(); project.cut(); break;
    case 1: project.setTimePosition(static_cast<int64_t>(random() % 2000)); project.paste(); break;
    case 2: pickSelection(); project.delete_(); break;
    case 3: pickSelection(); project.moveLeftWithDelta(static_cast<int64_t>(random() % 300)); break;
    case 4: pickSelection(); project.moveRightWithDelta(static_cast<int64_t>(random() % 300)); break;
    case 5:
        for (const auto& clip : project.clipsWithIdentifiers(project.selections()))
            clip->setVolume((random() % 300) / 100.0);
        break;
    case 6: pickSelection(); project.copy(); break;
    default: project.selectAll(); project.copy(); break;
    }
}

}  // namespace

TEST(VTProjectMixWhileEditingTest, mixingOnOneThreadWhileTheMainThreadEditsIsSafe)
{
    VTPasteboard::setGeneralPasteboard(std::make_shared<brindle::MemoryPasteboard>());
    brindle::test::ToneSpec spec;
    spec.sampleRate = 44100;
    spec.frames = 44100;
    const QStringList media = {
        mediaWithSamples(QStringLiteral("edit-a"), 1, 2, 48000,
                         samples16(48000, 2, [](int64_t frame, int) { return (frame * 37) % 20000 - 10000; })),
        mediaWithSamples(QStringLiteral("edit-b"), 1, 2, 48000,
                         samples16(48000, 2, [](int64_t frame, int channel) { return channel ? 9000 : -9000 + frame % 7; })),
        mediaWithSamples(QStringLiteral("edit-c"), 3, 2, 44100, brindle::test::toneSamples(spec, 3)),
    };
    for (const QString& identifier : media)
        ASSERT_FALSE(identifier.isEmpty());

    for (int32_t format : {1, 3}) {
        auto project = busyProject(media);
        std::atomic<bool> stop{false};
        int64_t mixed = 0;
        std::thread mixer([&] { mixed = mixUntilStopped(*project, stop, format); });

        std::mt19937 random(format);
        int edits = 0;
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(800);
        while (std::chrono::steady_clock::now() < until) {
            editOnce(*project, random);
            if (project->duration() == 0) {
                // Keep something to play.
                project->importClipAtTrackIndex(VTClip::initWithDataProviderIDs(media[0]), 0);
            }
            ++edits;
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        stop = true;
        mixer.join();
        EXPECT_GT(edits, 100);
        EXPECT_GT(mixed, 48000);
    }
    VTPasteboard::setGeneralPasteboard(nullptr);
}
