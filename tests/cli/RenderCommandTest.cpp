// brindle-cli render, run as a real process on a document made by
// brindle-cli build: the WAV holds exactly the mix, the encoded formats carry
// the chosen rate and the title, and failures say so with their exit status.
#include "support/AudioProbe.h"
#include "support/ChildProcess.h"
#include "support/TestEnvironment.h"
#include "support/TestMedia.h"

#include <gtest/gtest.h>

#include <QFile>

#include <cmath>
#include <cstring>

using brindle::test::AudioProbe;
using brindle::test::TestEnvironment;
using brindle::test::TestMedia;
using brindle::test::ToneSpec;

namespace {

struct Outcome {
    int status = -1;
    QString err;
};

Outcome cli(const QStringList& arguments)
{
    const brindle::test::ChildRun child = brindle::test::runChild(QStringLiteral(BRINDLE_CLI_PATH), arguments, 180000);
    Outcome outcome;
    if (child.finished) {
        outcome.status = child.exitCode;
        outcome.err = QString::fromUtf8(child.err);
    }
    return outcome;
}

// A document with one clip of `wav` at the start of track 0, at gain 0.5.
QString buildHalfGainProject(const QString& folder, const QString& wav)
{
    const QString description = folder + QStringLiteral("/project.json");
    QFile json(description);
    if (!json.open(QIODevice::WriteOnly))
        return {};
    json.write(QStringLiteral(R"({"tracks": [[{"file": "%1", "start": 0, "volume": 0.5}]], "position": 0})")
                   .arg(wav)
                   .toUtf8());
    json.close();
    const QString project = folder + QStringLiteral("/Half Gain.loomwick");
    return cli({QStringLiteral("build"), project, description}).status == 0 ? project : QString();
}

// The 16-bit samples of a WAV as ffmpeg decodes them.
std::optional<QByteArray> samplesOf(const QString& wav)
{
    return TestMedia::decodeWithFfmpeg(wav, 1);
}

}  // namespace

TEST(RenderCommandTest, aWavRenderHoldsTheMixSampleForSampleAndEncodedFormatsCarryRateAndTitle)
{
    const QString folder = TestEnvironment::current().makeScratchDirectory(QStringLiteral("render"));
    ToneSpec spec;
    spec.channels = 2;
    spec.sampleRate = 48000;
    spec.frames = 48000;
    const QString source = TestMedia::shared().wav(1, spec);
    ASSERT_FALSE(source.isEmpty());
    const QString project = buildHalfGainProject(folder, source);
    ASSERT_FALSE(project.isEmpty());

    const QString wav = folder + QStringLiteral("/mix.wav");
    ASSERT_EQ(cli({QStringLiteral("render"), project, wav}).status, 0);
    const std::optional<QByteArray> rendered = samplesOf(wav);
    ASSERT_TRUE(rendered);
    const QByteArray input = brindle::test::toneSamples(spec, 1);
    // The whole clip, each sample at half gain (truncated toward zero); any
    // tail beyond it is silence.
    ASSERT_GE(rendered->size(), input.size());
    int mismatches = 0;
    for (qsizetype i = 0; i + 1 < input.size(); i += 2) {
        int16_t in;
        int16_t out;
        std::memcpy(&in, input.constData() + i, 2);
        std::memcpy(&out, rendered->constData() + i, 2);
        mismatches += out != static_cast<int16_t>(std::trunc(in * 0.5));
    }
    EXPECT_EQ(mismatches, 0);
    for (qsizetype i = input.size(); i < rendered->size(); ++i)
        ASSERT_EQ((*rendered)[i], 0) << i;

    const QString mp3 = folder + QStringLiteral("/mix.mp3");
    ASSERT_EQ(cli({QStringLiteral("render"), project, mp3, QStringLiteral("--rate"), QStringLiteral("44100"),
                   QStringLiteral("--quality"), QStringLiteral("high")})
                  .status,
              0);
    const std::optional<AudioProbe> probe = AudioProbe::ofFile(mp3);
    ASSERT_TRUE(probe);
    EXPECT_EQ(probe->codecName, QStringLiteral("mp3"));
    EXPECT_EQ(probe->sampleRate, 44100);
    EXPECT_EQ(probe->channels, 2);
    EXPECT_EQ(probe->bitRate, 320000);
    EXPECT_EQ(probe->title, QStringLiteral("Half Gain"));
    EXPECT_NEAR(probe->duration, 1.0, 0.1);

    // --format wins over the extension.
    const QString m4a = folder + QStringLiteral("/mix.audio");
    ASSERT_EQ(cli({QStringLiteral("render"), project, m4a, QStringLiteral("--format"), QStringLiteral("m4a")}).status, 0);
    const std::optional<AudioProbe> aac = AudioProbe::ofFile(m4a);
    ASSERT_TRUE(aac);
    EXPECT_EQ(aac->codecName, QStringLiteral("aac"));
    EXPECT_EQ(aac->sampleRate, 48000);
}

TEST(RenderCommandTest, failuresNameTheFileAndLeaveNothingBehind)
{
    const QString folder = TestEnvironment::current().makeScratchDirectory(QStringLiteral("render-fail"));
    const QString out = folder + QStringLiteral("/never.wav");

    const Outcome missing = cli({QStringLiteral("render"), folder + QStringLiteral("/missing.loomwick"), out});
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(missing.err.contains(QStringLiteral("Failed to export audio file:(%1)").arg(out))) << missing.err.toStdString();

    const QString garbage = TestMedia::shared().garbage(3000, QStringLiteral("garbage.loomwick"));
    EXPECT_EQ(cli({QStringLiteral("render"), garbage, out}).status, 1);

    ToneSpec spec;
    spec.frames = 4410;
    const QString project = buildHalfGainProject(folder, TestMedia::shared().wav(1, spec));
    ASSERT_FALSE(project.isEmpty());
    const Outcome unwritable =
        cli({QStringLiteral("render"), project, folder + QStringLiteral("/no/such/folder/x.wav")});
    EXPECT_EQ(unwritable.status, 1);
    EXPECT_TRUE(unwritable.err.contains(QStringLiteral("Failed to export audio file:(")));

    // MP3 is not offered at 96 kHz; unknown options and values are refused.
    EXPECT_EQ(cli({QStringLiteral("render"), project, out, QStringLiteral("--rate"), QStringLiteral("96000"),
                   QStringLiteral("--format"), QStringLiteral("mp3")})
                  .status,
              2);
    EXPECT_EQ(cli({QStringLiteral("render"), project, out, QStringLiteral("--quality"), QStringLiteral("best")}).status, 2);
    EXPECT_EQ(cli({QStringLiteral("render"), project}).status, 2);
    EXPECT_FALSE(QFile::exists(out));
}
