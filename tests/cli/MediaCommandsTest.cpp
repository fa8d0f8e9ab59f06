// brindle-cli's media commands, run as a real process in the test's own XDG
// folders: import registers files and lists failures, providers lists the
// registry, pcm reads back exactly the samples that were written.
#include "support/ChildProcess.h"
#include "support/TestEnvironment.h"
#include "support/TestMedia.h"

#include <gtest/gtest.h>

#include <QFileInfo>

using brindle::test::TestMedia;
using brindle::test::ToneSpec;

namespace {

struct CliRun {
    int status = -1;
    QByteArray out;
    QString err;
};

CliRun runCli(const QStringList& arguments)
{
    const brindle::test::ChildRun child = brindle::test::runChild(QStringLiteral(BRINDLE_CLI_PATH), arguments, 120000);
    CliRun run;
    if (!child.finished)
        return run;
    run.status = child.exitCode;
    run.out = child.out;
    run.err = QString::fromUtf8(child.err);
    return run;
}

QStringList lines(const QByteArray& out)
{
    return QString::fromUtf8(out).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

}  // namespace

TEST(MediaCommandsTest, importListsEachFileAndReportsFailuresWithStatusOne)
{
    ToneSpec spec;
    spec.channels = 3;
    spec.sampleRate = 22050;
    spec.frames = 22050 * 2;
    const QString wav = TestMedia::shared().wav(1, spec);
    const QString mp3 = TestMedia::shared().mp3Cbr();
    const QString garbage = TestMedia::shared().garbage(4000, QStringLiteral("cli-garbage.mp3"));
    ASSERT_FALSE(wav.isEmpty());
    ASSERT_FALSE(mp3.isEmpty());

    const CliRun run = runCli({QStringLiteral("import"), wav, mp3, garbage, QStringLiteral("/no/such/file.wav")});
    EXPECT_EQ(run.status, 1);
    const QStringList imported = lines(run.out);
    ASSERT_EQ(imported.size(), 2) << run.err.toStdString();
    const QStringList first = imported[0].split(QLatin1Char('\t'));
    ASSERT_EQ(first.size(), 7);
    EXPECT_EQ(first[0], QFileInfo(wav).absoluteFilePath());
    EXPECT_EQ(first[1], QStringLiteral("2000"));
    EXPECT_EQ(first[2], QStringLiteral("1"));
    EXPECT_EQ(first[3], QStringLiteral("22050"));
    EXPECT_EQ(first[4], QStringLiteral("3"));
    EXPECT_EQ(first[5], QStringLiteral("44100"));
    EXPECT_TRUE(QFileInfo(first[6]).isFile());
    EXPECT_TRUE(first[6].endsWith(QStringLiteral(".medialibrary")));
    EXPECT_TRUE(imported[1].startsWith(QFileInfo(mp3).absoluteFilePath() + QLatin1Char('\t')));
    EXPECT_TRUE(run.err.contains(garbage)) << run.err.toStdString();
    EXPECT_TRUE(run.err.contains(QStringLiteral("/no/such/file.wav: no such file"))) << run.err.toStdString();

    // The registry persists in the user settings for the next process; it
    // ends with these two (other tests of this process may have imported
    // into the same home before).
    const CliRun listed = runCli({QStringLiteral("providers")});
    EXPECT_EQ(listed.status, 0);
    const QStringList registered = lines(listed.out);
    ASSERT_GE(registered.size(), imported.size());
    EXPECT_EQ(registered.mid(registered.size() - imported.size()), imported);
}

TEST(MediaCommandsTest, pcmWritesTheRequestedFramesExactlyAndRefusesUnregisteredFiles)
{
    ToneSpec spec;
    spec.channels = 2;
    spec.sampleRate = 48000;
    spec.frames = 30000;
    spec.seed = 11;
    const QString wav = TestMedia::shared().wav(3, spec);
    ASSERT_FALSE(wav.isEmpty());
    ASSERT_EQ(runCli({QStringLiteral("import"), wav}).status, 0);
    const QByteArray samples = brindle::test::toneSamples(spec, 3);
    const int frameBytes = 2 * 4;

    const CliRun whole = runCli({QStringLiteral("pcm"), wav});
    EXPECT_EQ(whole.status, 0);
    EXPECT_TRUE(whole.out == samples) << whole.out.size() << " bytes";

    const CliRun part = runCli({QStringLiteral("pcm"), wav, QStringLiteral("--start"), QStringLiteral("12345"),
                             QStringLiteral("--count"), QStringLiteral("7000")});
    EXPECT_EQ(part.status, 0);
    EXPECT_TRUE(part.out == samples.mid(12345 * frameBytes, 7000 * frameBytes));

    // A count past the end stops at the end; a start past the end writes nothing.
    const CliRun tail = runCli({QStringLiteral("pcm"), wav, QStringLiteral("--start"), QStringLiteral("29990"),
                             QStringLiteral("--count"), QStringLiteral("100")});
    EXPECT_TRUE(tail.out == samples.mid(29990 * frameBytes));
    EXPECT_TRUE(runCli({QStringLiteral("pcm"), wav, QStringLiteral("--start"), QStringLiteral("40000")}).out.isEmpty());

    const CliRun missing = runCli({QStringLiteral("pcm"), TestMedia::shared().folder() + QStringLiteral("/never-imported.wav")});
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(missing.err.contains(QStringLiteral("not registered")));
    EXPECT_EQ(runCli({QStringLiteral("pcm"), wav, QStringLiteral("--start"), QStringLiteral("-3")}).status, 2);
}
