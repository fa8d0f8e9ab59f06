#include "foundation/UserDefaults.h"

#include "support/TestEnvironment.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QSettings>

#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

using namespace brindle;

namespace {

// Asked once, before the defaults' writer thread exists: a QSettings object
// reads the time zone through glibc, whose internal locking ThreadSanitizer
// cannot see.
QString settingsFileName()
{
    static const QString name = UserDefaults::fileName();
    return name;
}

// A copy of the settings file under a new name, so that QSettings parses it
// from disk instead of answering from the copy it already holds in memory.
std::unique_ptr<QSettings> reopenFromDisk(const QString& name)
{
    const QString copy = test::TestEnvironment::current().makeScratchDirectory(name) + QStringLiteral("/copy.defaults");
    if (!QFile::copy(settingsFileName(), copy))
        return nullptr;
    return UserDefaults::settingsForFile(copy);
}

// The settings folder of this test process, made if missing. The tests
// that place a file there before the defaults are first used need a process
// of their own, as ctest gives each test; they skip themselves otherwise.
QString settingsFolderBeforeFirstUse()
{
    const QString folder = test::TestEnvironment::current().root() + QStringLiteral("/config/tarnwell");
    QDir().mkpath(folder);
    return folder;
}

QByteArray utf16BigEndian(const QString& text)
{
    QByteArray out;
    for (QChar c : text) {
        out.append(static_cast<char>(c.unicode() >> 8));
        out.append(static_cast<char>(c.unicode() & 0xff));
    }
    return out;
}

QByteArray awkwardBytes()
{
    QByteArray bytes;
    for (int i = 0; i < 256; ++i)
        bytes.append(static_cast<char>(i));
    static const char tail[] = "\0\0@ByteArray(\xff\xfe)\\\n\r=;\"[x]";
    bytes.append(tail, sizeof(tail) - 1);
    return bytes;
}

}  // namespace

TEST(UserDefaultsTest, TheSettingsFileIsInsideTheTestConfigurationFolder)
{
    EXPECT_TRUE(settingsFileName().startsWith(test::TestEnvironment::current().root() + QStringLiteral("/config/")))
        << qPrintable(settingsFileName());
}

TEST(UserDefaultsTest, BinaryDataRoundTripsThroughTheFileOnDisk)
{
    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    QByteArray large(3 * 1024 * 1024, '\0');
    QRandomGenerator generator(42);
    generator.fillRange(reinterpret_cast<quint32*>(large.data()), large.size() / 4);

    defaults.setData(awkwardBytes(), QStringLiteral("com.quarnely.brindle"));
    defaults.setData(large, QStringLiteral("large.value"));
    defaults.synchronize();

    EXPECT_EQ(defaults.dataForKey(QStringLiteral("com.quarnely.brindle")), awkwardBytes());
    EXPECT_EQ(defaults.dataForKey(QStringLiteral("large.value")), large);

    auto fromDisk = reopenFromDisk(QStringLiteral("binary"));
    ASSERT_TRUE(fromDisk);
    EXPECT_EQ(fromDisk->value(QStringLiteral("com.quarnely.brindle")).toByteArray(), awkwardBytes());
    EXPECT_EQ(fromDisk->value(QStringLiteral("large.value")).toByteArray(), large);
    // The dotted key is one flat entry, not a group.
    EXPECT_TRUE(fromDisk->childGroups().isEmpty()) << qPrintable(fromDisk->childGroups().join(u','));
    EXPECT_TRUE(fromDisk->childKeys().contains(QStringLiteral("com.quarnely.brindle")));
}

TEST(UserDefaultsTest, KeysWithSlashesStayDistinct)
{
    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    const QStringList keys = {QStringLiteral("a/b"), QStringLiteral("a//b"), QStringLiteral("a\\b"),
                              QStringLiteral("a%2Fb")};
    for (const QString& key : keys)
        defaults.setValue(QStringLiteral("value of ") + key, key);
    for (const QString& key : keys)
        EXPECT_EQ(defaults.valueForKey(key).toString(), QStringLiteral("value of ") + key);
}

TEST(UserDefaultsTest, DataForKeyAnswersNothingForMissingRemovedOrNonDataValues)
{
    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    EXPECT_FALSE(defaults.dataForKey(QStringLiteral("never.set")));

    defaults.setValue(QStringLiteral("text"), QStringLiteral("a.string"));
    EXPECT_FALSE(defaults.dataForKey(QStringLiteral("a.string")));

    defaults.setData(QByteArray("x"), QStringLiteral("removed.data"));
    defaults.removeObjectForKey(QStringLiteral("removed.data"));
    EXPECT_FALSE(defaults.dataForKey(QStringLiteral("removed.data")));

    defaults.setData(QByteArray("y"), QStringLiteral("cleared.data"));
    defaults.setValue(QVariant(), QStringLiteral("cleared.data"));
    EXPECT_FALSE(defaults.valueForKey(QStringLiteral("cleared.data")).isValid());

    defaults.setData(QByteArray(), QStringLiteral("empty.data"));
    EXPECT_EQ(defaults.dataForKey(QStringLiteral("empty.data")), QByteArray());
    EXPECT_FALSE(defaults.valueForKey(QString()).isValid());
}

TEST(UserDefaultsTest, ConcurrentReadersAndWritersSeeWholeValues)
{
    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    std::vector<std::thread> threads;
    std::atomic<int> torn {0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            const QString key = QStringLiteral("thread.%1").arg(t);
            for (int i = 0; i < 20; ++i) {
                const QByteArray value(100 + i, static_cast<char>('a' + t));
                defaults.setData(value, key);
                if (defaults.dataForKey(key) != value)
                    ++torn;
                defaults.dataForKey(QStringLiteral("thread.%1").arg((t + 1) % 4));
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(torn.load(), 0);
}

TEST(UserDefaultsTest, ChangesReachTheFileWithoutAnExplicitSynchronize)
{
    UserDefaults::standardUserDefaults().setData(QByteArray("later"), QStringLiteral("deferred.write"));
    // Plain reads of the file: nothing here may share state with the writer thread.
    const std::string path = settingsFileName().toStdString();
    bool written = false;
    for (int attempt = 0; attempt < 100 && !written; ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        std::ifstream file(path, std::ios::binary);
        const std::string content((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        // Keys are stored as UTF-16 (big-endian), byte arrays as they are.
        const QByteArray key = utf16BigEndian(QStringLiteral("deferred.write"));
        written = content.find(std::string(key.constData(), size_t(key.size()))) != std::string::npos &&
                  content.find("later") != std::string::npos;
    }
    EXPECT_TRUE(written);
}

TEST(UserDefaultsTest, SettingsOfAnEarlierIniFileAreCarriedOverOnceAndTheIniFileRemoved)
{
    const QString folder = settingsFolderBeforeFirstUse();
    const QString ini = folder + QStringLiteral("/brindle.conf");
    {
        QSettings earlier(ini, QSettings::IniFormat);
        earlier.setValue(QStringLiteral("com.quarnely.brindle"), awkwardBytes());
        earlier.setValue(QStringLiteral("a.number"), 42);
        earlier.sync();
        ASSERT_EQ(earlier.status(), QSettings::NoError);
    }
    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    if (defaults.valueForKey(QStringLiteral("a.number")).toInt() != 42 && QFile::exists(ini))
        GTEST_SKIP() << "the defaults were made by an earlier test of this process";
    EXPECT_EQ(defaults.dataForKey(QStringLiteral("com.quarnely.brindle")), awkwardBytes());
    EXPECT_EQ(defaults.valueForKey(QStringLiteral("a.number")).toInt(), 42);
    EXPECT_FALSE(QFile::exists(ini));
    auto fromDisk = reopenFromDisk(QStringLiteral("carried"));
    ASSERT_TRUE(fromDisk);
    EXPECT_EQ(fromDisk->value(QStringLiteral("com.quarnely.brindle")).toByteArray(), awkwardBytes());
}

TEST(UserDefaultsTest, ADamagedSettingsFileIsSetAsideAndNotUsed)
{
    const QString folder = settingsFolderBeforeFirstUse();
    const QString file = folder + QStringLiteral("/brindle.defaults");
    // The magic number and version, then a map whose length runs past the end.
    const QByteArray damaged = QByteArray::fromHex("425244460000000100000005") + QByteArray("\x00\x00\x00\x10k", 5);
    {
        QFile out(file);
        ASSERT_TRUE(out.open(QIODevice::WriteOnly));
        out.write(damaged);
    }
    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    EXPECT_FALSE(defaults.valueForKey(QStringLiteral("k")).isValid());
    if (!QFile::exists(file + QStringLiteral(".damaged")))
        GTEST_SKIP() << "the defaults were made by an earlier test of this process";
    defaults.setValue(QStringLiteral("fresh"), QStringLiteral("after.damage"));
    defaults.synchronize();
    QFile aside(file + QStringLiteral(".damaged"));
    ASSERT_TRUE(aside.open(QIODevice::ReadOnly));
    EXPECT_EQ(aside.readAll(), damaged);
    auto fromDisk = reopenFromDisk(QStringLiteral("after-damage"));
    ASSERT_TRUE(fromDisk);
    EXPECT_EQ(fromDisk->value(QStringLiteral("after.damage")).toString(), QStringLiteral("fresh"));
}
