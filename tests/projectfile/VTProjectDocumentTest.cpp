#include "projectfile/VTProjectDocument.h"

#include "foundation/KeyedCoding.h"
#include "media/LogCapture.h"
#include "model/VTClip.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"
#include "projectfile/ProjectFileFixtures.h"
#include "projectfile/VTProjectInfo.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QtEndian>

#include <gtest/gtest.h>

#include <csignal>
#include <sys/resource.h>

using brindle::test::fileBytes;
using brindle::test::LogCapture;
using brindle::test::sampleProject;
using brindle::test::writeBytes;

namespace {

QString scratch(const QString& name)
{
    return brindle::test::TestEnvironment::current().makeScratchDirectory(name);
}

VTProjectDocument::OpenResult openPath(const QString& path)
{
    return VTProjectDocument::openProjectWithURL(QUrl::fromLocalFile(path), {});
}

void expectSameClip(const VTClip& saved, const VTClip& opened)
{
    EXPECT_EQ(opened.identifier(), saved.identifier());
    EXPECT_EQ(opened.dataProviderIds(), saved.dataProviderIds());
    EXPECT_EQ(opened.timestampOfTrack(), saved.timestampOfTrack());
    EXPECT_EQ(opened.durationOfTrack(), saved.durationOfTrack());
    EXPECT_EQ(opened.timestampOfDataProvider(), saved.timestampOfDataProvider());
    EXPECT_EQ(opened.enableFadeIn(), saved.enableFadeIn());
    EXPECT_EQ(opened.enableFadeOut(), saved.enableFadeOut());
    EXPECT_EQ(opened.durationOfFadeIn(), saved.durationOfFadeIn());
    EXPECT_EQ(opened.durationOfFadeOut(), saved.durationOfFadeOut());
    // The gain is stored in single precision.
    EXPECT_EQ(opened.volume(), double(float(saved.volume())));
}

// A document with the current header around the given info and project sections.
QByteArray documentWith(quint64 infoLength, const QByteArray& info, const QByteArray& project)
{
    QByteArray bytes(16, '\0');
    qToLittleEndian<quint64>(VTProjectDocument::kMagic, bytes.data());
    qToLittleEndian<quint64>(infoLength, bytes.data() + 8);
    return bytes + info + project;
}

}  // namespace

TEST(VTProjectDocumentTest, SavingAndOpeningKeepsEveryTrackClipAndProjectField)
{
    const auto project = sampleProject();
    const QString path = scratch(QStringLiteral("roundtrip")) + QStringLiteral("/Song.loomwick");
    ASSERT_EQ(VTProjectDocument::saveProjectToPath(*project, path), 0);

    const auto opened = openPath(path);
    ASSERT_EQ(opened.errorCode, 0);
    ASSERT_EQ(opened.projects.size(), 1u);
    const VTProject& copy = *opened.projects.front();
    // The URL is the one archived, not the file's; the flag is cleared.
    EXPECT_EQ(copy.url(), project->url());
    EXPECT_FALSE(copy.needSaved());
    EXPECT_EQ(copy.timePosition(), 4321);
    EXPECT_EQ(copy.selections(), project->selections());
    const auto savedTracks = project->tracks();
    const auto openedTracks = copy.tracks();
    ASSERT_EQ(openedTracks->size(), savedTracks->size());
    for (size_t t = 0; t < savedTracks->size(); ++t) {
        EXPECT_EQ((*openedTracks)[t]->identifier(), (*savedTracks)[t]->identifier());
        const auto savedClips = (*savedTracks)[t]->clips();
        const auto openedClips = (*openedTracks)[t]->clips();
        ASSERT_EQ(openedClips->size(), savedClips->size());
        for (size_t c = 0; c < savedClips->size(); ++c)
            expectSameClip(*(*savedClips)[c], *(*openedClips)[c]);
    }
    EXPECT_NE(copy.clipWithIdentifier(project->selections().front())->volume(), 0.1);
}

TEST(VTProjectDocumentTest, FileStartsWithTheMagicAndTheLittleEndianInfoLength)
{
    const auto project = sampleProject();
    const QByteArray bytes = VTProjectDocument::dataWithProject(*project);
    ASSERT_GT(bytes.size(), 16);
    EXPECT_EQ(bytes.left(8), QByteArray::fromHex("efeeefeeefee0000"));
    const quint64 infoLength = qFromLittleEndian<quint64>(bytes.constData() + 8);
    ASSERT_LT(infoLength, quint64(bytes.size() - 16));
    const auto info = brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTProjectInfo>(bytes.mid(16, qsizetype(infoLength)));
    ASSERT_TRUE(info);
    EXPECT_EQ(info->projectInfoIDs(), QStringLiteral("com.tarnwell.project.document.3.0.0"));
    EXPECT_FALSE(info->version().isEmpty());
    EXPECT_FALSE(info->copyright().isEmpty());
    EXPECT_TRUE(brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTProject>(bytes.mid(16 + qsizetype(infoLength))));
}

TEST(VTProjectDocumentTest, LengthsThatDoNotFitTheFileAreCrashedFilesNotReadsPastTheEnd)
{
    const QString folder = scratch(QStringLiteral("lengths"));
    const QByteArray info = brindle::KeyedArchiver::archivedDataWithRootObject(*VTProjectInfo::currentProjectInfo());
    const QByteArray body = info + QByteArray(40, 'x');
    const quint64 fileLength = quint64(16 + body.size());
    // length - 8 fails the header check; length - 9 passes it but still ends
    // past the file; an enormous value must not wrap around.
    for (const quint64 infoLength : {fileLength - 8, fileLength - 9, fileLength - 15, ~quint64(0), quint64(1) << 63}) {
        SCOPED_TRACE(infoLength);
        const QString path = folder + QStringLiteral("/bad.loomwick");
        ASSERT_TRUE(writeBytes(path, documentWith(infoLength, {}, body)));
        LogCapture log;
        const auto opened = openPath(path);
        EXPECT_EQ(opened.errorCode, 1);
        EXPECT_TRUE(opened.projects.empty());
        EXPECT_TRUE(log.contains(QStringLiteral("File crashed.")));
    }
}

TEST(VTProjectDocumentTest, AnEmptyProjectSectionOpensWithoutAProject)
{
    const QString path = scratch(QStringLiteral("empty-section")) + QStringLiteral("/x.loomwick");
    const QByteArray info = brindle::KeyedArchiver::archivedDataWithRootObject(*VTProjectInfo::currentProjectInfo());
    ASSERT_TRUE(writeBytes(path, documentWith(quint64(info.size()), info, {})));
    const auto opened = openPath(path);
    EXPECT_EQ(opened.errorCode, 0);
    EXPECT_TRUE(opened.projects.empty());
}

TEST(VTProjectDocumentTest, AnotherFormatIdentifierIsRefusedWithoutTryingTheLegacyReader)
{
    const QString path = scratch(QStringLiteral("version")) + QStringLiteral("/x.loomwick");
    const QByteArray info = brindle::KeyedArchiver::archivedDataWithRootObject(
        VTProjectInfo(QStringLiteral("com.tarnwell.project.document.4.0.0")));
    const QByteArray project = brindle::KeyedArchiver::archivedDataWithRootObject(*sampleProject());
    ASSERT_TRUE(writeBytes(path, documentWith(quint64(info.size()), info, project)));
    LogCapture log;
    const auto opened = openPath(path);
    EXPECT_EQ(opened.errorCode, 1);
    EXPECT_TRUE(log.contains(QStringLiteral("Unknow version.")));
    EXPECT_FALSE(log.contains(QStringLiteral("Unknown project document type.")));
}

TEST(VTProjectDocumentTest, UnrecognisedHeadersGoToTheLegacyReader)
{
    const QString folder = scratch(QStringLiteral("legacy-fallback"));
    const QByteArray magic = QByteArray::fromHex("efeeefeeefee0000");
    const QByteArray garbageInfo(24, 'g');
    const struct {
        const char* name;
        QByteArray bytes;
    } cases[] = {
        {"short.loomwick", magic + QByteArray(4, '\0')},
        {"nomagic.loomwick", QByteArray(64, 'z')},
        {"badinfo.loomwick", documentWith(quint64(garbageInfo.size()), garbageInfo, QByteArray(30, 'p'))},
        {"empty.loomwick", QByteArray()},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const QString path = folder + u'/' + QString::fromLatin1(c.name);
        ASSERT_TRUE(writeBytes(path, c.bytes));
        LogCapture log;
        const auto opened = openPath(path);
        EXPECT_EQ(opened.errorCode, 1);
        EXPECT_TRUE(log.contains(QStringLiteral("Unknown file type(%1)").arg(path)));
        EXPECT_TRUE(log.contains(QStringLiteral("Unknown project document type.")));
        EXPECT_EQ(fileBytes(path), c.bytes);
    }
}

TEST(VTProjectDocumentTest, OpeningAMissingFileFailsAndCreatesNothing)
{
    const QString path = scratch(QStringLiteral("missing")) + QStringLiteral("/none.loomwick");
    EXPECT_EQ(openPath(path).errorCode, 1);
    EXPECT_FALSE(QFile::exists(path));
}

TEST(VTProjectDocumentTest, SavingOverALongerFileReplacesItWholeAndKeepsItsPermissions)
{
    const QString path = scratch(QStringLiteral("overwrite")) + QStringLiteral("/Song.loomwick");
    ASSERT_TRUE(writeBytes(path, QByteArray(1 << 20, 'o')));
    ASSERT_TRUE(QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup));
    const auto project = sampleProject();
    ASSERT_EQ(VTProjectDocument::saveProjectToPath(*project, path), 0);
    EXPECT_EQ(fileBytes(path), VTProjectDocument::dataWithProject(*project));
    EXPECT_EQ(QFile::permissions(path) & QFile::Permissions(0x7077), QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup);
    EXPECT_EQ(QDir(QFileInfo(path).path()).entryList(QDir::Files | QDir::Hidden).size(), 1);
}

TEST(VTProjectDocumentTest, AFailedSaveLeavesThePreviousFileIntact)
{
    const QString folder = scratch(QStringLiteral("failed-save"));
    const QString path = folder + QStringLiteral("/Song.loomwick");
    const auto project = sampleProject();
    ASSERT_EQ(VTProjectDocument::saveProjectToPath(*project, path), 0);
    const QByteArray before = fileBytes(path);
    project->setTimePosition(10);

    // A disk that fills up after 200 bytes: the kernel cuts the write short.
    rlimit previous {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &previous), 0);
    const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit small = previous;
    small.rlim_cur = 200;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    int32_t code = 0;
    {
        LogCapture log;
        code = VTProjectDocument::saveProjectToPath(*project, path);
        EXPECT_TRUE(log.lines().join(u'\n').contains(QStringLiteral("Failed to save the project to %1").arg(path)));
    }
    setrlimit(RLIMIT_FSIZE, &previous);
    std::signal(SIGXFSZ, oldHandler);

    EXPECT_EQ(code, 1);
    EXPECT_EQ(fileBytes(path), before);
    EXPECT_EQ(QDir(folder).entryList(QDir::Files | QDir::Hidden), QStringList{QStringLiteral("Song.loomwick")});
    // A target whose folder does not exist fails the same way.
    EXPECT_EQ(VTProjectDocument::saveProjectToPath(*project, folder + QStringLiteral("/no/such/x.loomwick")), 1);
}
