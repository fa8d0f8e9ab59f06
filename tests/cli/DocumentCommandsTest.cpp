// brindle-cli build and info, run as a real process over real files.
#include "support/ChildProcess.h"
#include "support/TestEnvironment.h"
#include "support/TestMedia.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>

#include <gtest/gtest.h>

using brindle::test::TestMedia;

namespace {

struct CliRun {
    int exitCode = -1;
    QString out;
    QString err;
};

CliRun cli(const QStringList& arguments)
{
    const brindle::test::ChildRun child = brindle::test::runChild(QStringLiteral(BRINDLE_CLI_PATH), arguments, 120000);
    CliRun run;
    if (!child.finished) {
        ADD_FAILURE() << "brindle-cli did not finish";
        return run;
    }
    run.exitCode = child.exitCode;
    run.out = QString::fromUtf8(child.out);
    run.err = QString::fromUtf8(child.err);
    return run;
}

QString scratch(const QString& name)
{
    return brindle::test::TestEnvironment::current().makeScratchDirectory(name);
}

// A mono 16-bit tone of `milliseconds` at 8000 Hz.
QString tone(int64_t milliseconds, uint32_t seed)
{
    brindle::test::ToneSpec spec;
    spec.channels = 1;
    spec.sampleRate = 8000;
    spec.frames = milliseconds * 8;
    spec.seed = seed;
    return TestMedia::shared().wav(1, spec);
}

bool writeText(const QString& path, const QByteArray& text)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(text) == text.size();
}

int cacheFileCount()
{
    const QString folder = QString::fromLocal8Bit(qgetenv("XDG_DATA_HOME")) + QStringLiteral("/com.tarnwell.brindle");
    return int(QDir(folder).entryList({QStringLiteral("*.medialibrary")}, QDir::Files).size());
}

// The info line of a clip without its identifier (the second column).
QString withoutIdentifier(const QString& line)
{
    QStringList fields = line.split(u'\t');
    if (fields.size() > 1)
        fields.removeAt(1);
    return fields.join(u'\t');
}

}  // namespace

TEST(DocumentCommandsTest, BuildMakesADocumentThatInfoListsFieldByField)
{
    const QString folder = scratch(QStringLiteral("build-info"));
    QDir(folder).mkpath(QStringLiteral("media"));
    const QString relativeMedia = folder + QStringLiteral("/media/voice.wav");
    ASSERT_TRUE(QFile::copy(tone(6000, 51), relativeMedia));
    const QString absoluteMedia = tone(3000, 52);
    // The offset is applied after the length, so 2000 ms into a 6000 ms file
    // with 5000 ms on the track is cut back to 1000 ms.
    const QByteArray description = QStringLiteral(R"({"tracks": [
        [{"file": "media/voice.wav", "start": 1000, "offset": 2000, "duration": 5000, "volume": 0.1,
          "fadeIn": 500, "fadeOut": 300, "fadeInOn": true, "fadeOutOn": false}],
        [{"file": "%1"}],
        []], "position": 1500})").arg(absoluteMedia).toUtf8();
    ASSERT_TRUE(writeText(folder + QStringLiteral("/song.json"), description));
    const QString out = folder + QStringLiteral("/Song.loomwick");

    const int cachesBefore = cacheFileCount();
    const CliRun built = cli({QStringLiteral("build"), out, folder + QStringLiteral("/song.json")});
    ASSERT_EQ(built.exitCode, 0) << built.err.toStdString();
    EXPECT_EQ(cacheFileCount(), cachesBefore + 2);
    QFile document(out);
    ASSERT_TRUE(document.open(QIODevice::ReadOnly));
    EXPECT_EQ(document.read(8), QByteArray::fromHex("efeeefeeefee0000"));

    const CliRun info = cli({QStringLiteral("info"), out});
    ASSERT_EQ(info.exitCode, 0) << info.err.toStdString();
    const QStringList lines = info.out.split(u'\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 5) << info.out.toStdString();
    EXPECT_EQ(lines[0], QStringLiteral("title\tSong"));
    EXPECT_EQ(lines[1], QStringLiteral("duration\t6000"));
    EXPECT_EQ(lines[2], QStringLiteral("timePosition\t1500"));
    EXPECT_EQ(withoutIdentifier(lines[3]),
              QStringLiteral("0\t%1\t1000\t5000\t1000\t0.10000000149011612\ttrue\t500\tfalse\t300").arg(relativeMedia));
    EXPECT_EQ(withoutIdentifier(lines[4]), QStringLiteral("1\t%1\t0\t3000\t0\t1\tfalse\t0\tfalse\t0").arg(absoluteMedia));
    EXPECT_EQ(lines[3].split(u'\t')[1].size(), 36);

    // Media already registered are not decoded again.
    const CliRun again = cli({QStringLiteral("build"), folder + QStringLiteral("/Again.loomwick"), folder + QStringLiteral("/song.json")});
    EXPECT_EQ(again.exitCode, 0) << again.err.toStdString();
    EXPECT_EQ(cacheFileCount(), cachesBefore + 2);
}

TEST(DocumentCommandsTest, BadDescriptionsAndMissingMediaWriteNoDocument)
{
    const QString folder = scratch(QStringLiteral("build-bad"));
    const QString media = tone(2000, 53);
    const QString garbage = TestMedia::shared().garbage(2048, QStringLiteral("broken.wav"));
    const struct {
        const char* json;
        const char* message;
    } cases[] = {
        {R"({"tracks": [[{"file": "a.wav"})", "bad JSON"},
        {R"({"tracks": [[{"file": "missing.wav"}]]})", "no such media file"},
        {R"({"tracks": [[{"file": "%1", "strat": 5}]]})", "unknown key \"strat\""},
        {R"({"tracks": [[{"file": "%1", "start": 10.5}]]})", "tracks[0][0].start"},
        {R"({"tracks": [[{"file": "%1", "fadeInOn": 1}]]})", "tracks[0][0].fadeInOn"},
        {R"({"tracks": [[], [], [], [], [], [], [], [], []]})", "at most 8 tracks"},
        {R"({"tracks": {}})", "tracks"},
        {R"({"tracks": [[{"file": "%2"}]]})", "broken.wav"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        const QString json = folder + QStringLiteral("/d.json");
        ASSERT_TRUE(writeText(json, QString::fromUtf8(c.json).replace(QStringLiteral("%1"), media).replace(QStringLiteral("%2"), garbage).toUtf8()));
        const QString out = folder + QStringLiteral("/out.loomwick");
        const CliRun run = cli({QStringLiteral("build"), out, json});
        EXPECT_EQ(run.exitCode, 1);
        EXPECT_TRUE(run.err.contains(QString::fromUtf8(c.message))) << run.err.toStdString();
        EXPECT_FALSE(QFile::exists(out));
    }
    // A target folder that does not exist: the save fails and says so.
    ASSERT_TRUE(writeText(folder + QStringLiteral("/d.json"), QStringLiteral(R"({"tracks": [[{"file": "%1"}]]})").arg(media).toUtf8()));
    const CliRun unwritable = cli({QStringLiteral("build"), folder + QStringLiteral("/no/such/out.loomwick"), folder + QStringLiteral("/d.json")});
    EXPECT_EQ(unwritable.exitCode, 1);
    EXPECT_TRUE(unwritable.err.contains(QStringLiteral("could not be written")));
}

TEST(DocumentCommandsTest, InfoOnADamagedOrMissingDocumentFailsWithTheSystemsMessage)
{
    const QString folder = scratch(QStringLiteral("info-bad"));
    QByteArray crashed = QByteArray::fromHex("efeeefeeefee0000") + QByteArray(8, '\xff') + QByteArray(40, 'x');
    ASSERT_TRUE(writeText(folder + QStringLiteral("/crashed.loomwick"), crashed));
    const CliRun run = cli({QStringLiteral("info"), folder + QStringLiteral("/crashed.loomwick")});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.err.contains(QStringLiteral("File crashed.")));
    EXPECT_TRUE(run.out.isEmpty());

    const CliRun missing = cli({QStringLiteral("info"), folder + QStringLiteral("/absent.loomwick")});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_FALSE(QFile::exists(folder + QStringLiteral("/absent.loomwick")));
}
