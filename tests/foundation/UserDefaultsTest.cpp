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

// Whether this process has used the defaults yet. The tests that place a file
// in the settings folder before the first use need a process of their own, as
// ctest gives each test; run after another test, they skip themselves.
bool g_defaultsUsed = false;

UserDefaults& defaults()
{
    g_defaultsUsed = true;
    return UserDefaults::standardUserDefaults();
}

// Asked once, before the defaults' writer thread exists: a QSettings object
// reads the time zone through glibc, whose internal locking ThreadSanitizer
// cannot see.
QString settingsFileName()
{
    g_defaultsUsed = true;
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

// The settings folder of this test process, made if missing.
QString settingsFolder()
{
    const QString folder = test::TestEnvironment::current().root() + QStringLiteral("/config/tarnwell");
    QDir().mkpath(folder);
    return folder;
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

TEST(UserDefaultsTest, BinaryDataAndKeysWithSeparatorsRoundTripThroughTheFileOnDisk)
{
    // Never the person's own settings.
    EXPECT_TRUE(settingsFileName().startsWith(test::TestEnvironment::current().root() + QStringLiteral("/config/")))
        << qPrintable(settingsFileName());
    QByteArray large(3 * 1024 * 1024, '\0');
    QRandomGenerator generator(42);
    generator.fillRange(reinterpret_cast<quint32*>(large.data()), large.size() / 4);
    const QStringList keys = {QStringLiteral("a/b"), QStringLiteral("a//b"), QStringLiteral("a\\b"),
                              QStringLiteral("a%2Fb")};
    defaults().setData(awkwardBytes(), QStringLiteral("com.quarnely.brindle"));
    defaults().setData(large, QStringLiteral("large.value"));
    for (const QString& key : keys)
        defaults().setValue(QStringLiteral("value of ") + key, key);
    defaults().synchronize();

    EXPECT_EQ(defaults().dataForKey(QStringLiteral("com.quarnely.brindle")), awkwardBytes());
    EXPECT_EQ(defaults().dataForKey(QStringLiteral("large.value")), large);
    for (const QString& key : keys)
        EXPECT_EQ(defaults().valueForKey(key).toString(), QStringLiteral("value of ") + key);
    auto fromDisk = reopenFromDisk(QStringLiteral("binary"));
    ASSERT_TRUE(fromDisk);
    EXPECT_EQ(fromDisk->value(QStringLiteral("com.quarnely.brindle")).toByteArray(), awkwardBytes());
    EXPECT_EQ(fromDisk->value(QStringLiteral("large.value")).toByteArray(), large);
    // Dotted keys and keys with separators are flat entries, not groups.
    EXPECT_TRUE(fromDisk->childGroups().isEmpty()) << qPrintable(fromDisk->childGroups().join(u','));
    EXPECT_TRUE(fromDisk->childKeys().contains(QStringLiteral("com.quarnely.brindle")));
}

TEST(UserDefaultsTest, DataForKeyAnswersNothingForMissingRemovedOrNonDataValues)
{
    EXPECT_FALSE(defaults().dataForKey(QStringLiteral("never.set")));
    defaults().setValue(QStringLiteral("text"), QStringLiteral("a.string"));
    EXPECT_FALSE(defaults().dataForKey(QStringLiteral("a.string")));
    defaults().setData(QByteArray("x"), QStringLiteral("removed.data"));
    defaults().removeObjectForKey(QStringLiteral("removed.data"));
    EXPECT_FALSE(defaults().dataForKey(QStringLiteral("removed.data")));
    defaults().setData(QByteArray("y"), QStringLiteral("cleared.data"));
    defaults().setValue(QVariant(), QStringLiteral("cleared.data"));
    EXPECT_FALSE(defaults().valueForKey(QStringLiteral("cleared.data")).isValid());
    defaults().setData(QByteArray(), QStringLiteral("empty.data"));
    EXPECT_EQ(defaults().dataForKey(QStringLiteral("empty.data")), QByteArray());
    EXPECT_FALSE(defaults().valueForKey(QString()).isValid());
}

TEST(UserDefaultsTest, ConcurrentReadersAndWritersSeeWholeValues)
{
    UserDefaults& shared = defaults();
    std::vector<std::thread> threads;
    std::atomic<int> torn {0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            const QString key = QStringLiteral("thread.%1").arg(t);
            for (int i = 0; i < 20; ++i) {
                const QByteArray value(100 + i, static_cast<char>('a' + t));
                shared.setData(value, key);
                if (shared.dataForKey(key) != value)
                    ++torn;
                shared.dataForKey(QStringLiteral("thread.%1").arg((t + 1) % 4));
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(torn.load(), 0);
}

TEST(UserDefaultsTest, ChangesReachTheFileWithoutAnExplicitSynchronize)
{
    const std::string path = settingsFileName().toStdString();
    defaults().setData(QByteArray("later"), QStringLiteral("deferred.write"));
    // Plain reads of the file: nothing here may share state with the writer
    // thread. Keys are stored as UTF-16 (big-endian), byte arrays as they are.
    std::string key;
    for (QChar c : QStringLiteral("deferred.write"))
        key += {static_cast<char>(c.unicode() >> 8), static_cast<char>(c.unicode() & 0xff)};
    bool written = false;
    for (int attempt = 0; attempt < 100 && !written; ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        std::ifstream file(path, std::ios::binary);
        const std::string content((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        written = content.find(key) != std::string::npos && content.find("later") != std::string::npos;
    }
    EXPECT_TRUE(written);
}

TEST(UserDefaultsTest, SettingsOfAnEarlierIniFileAreCarriedOverOnceAndTheIniFileRemoved)
{
    if (g_defaultsUsed)
        GTEST_SKIP() << "the defaults were used by an earlier test of this process";
    const QString ini = settingsFolder() + QStringLiteral("/brindle.conf");
    {
        QSettings earlier(ini, QSettings::IniFormat);
        earlier.setValue(QStringLiteral("com.quarnely.brindle"), awkwardBytes());
        earlier.setValue(QStringLiteral("a.number"), 42);
        earlier.sync();
        ASSERT_EQ(earlier.status(), QSettings::NoError);
    }
    EXPECT_EQ(defaults().dataForKey(QStringLiteral("com.quarnely.brindle")), awkwardBytes());
    EXPECT_EQ(defaults().valueForKey(QStringLiteral("a.number")).toInt(), 42);
    EXPECT_FALSE(QFile::exists(ini));
    auto fromDisk = reopenFromDisk(QStringLiteral("carried"));
    ASSERT_TRUE(fromDisk);
    EXPECT_EQ(fromDisk->value(QStringLiteral("com.quarnely.brindle")).toByteArray(), awkwardBytes());
}

TEST(UserDefaultsTest, ADamagedSettingsFileIsSetAsideAndNotUsed)
{
    if (g_defaultsUsed)
        GTEST_SKIP() << "the defaults were used by an earlier test of this process";
    const QString file = settingsFolder() + QStringLiteral("/brindle.defaults");
    // The magic number and version, then a map whose length runs past the end.
    const QByteArray damaged = QByteArray::fromHex("425244460000000100000005") + QByteArray("\x00\x00\x00\x10k", 5);
    {
        QFile out(file);
        ASSERT_TRUE(out.open(QIODevice::WriteOnly));
        out.write(damaged);
    }
    EXPECT_FALSE(defaults().valueForKey(QStringLiteral("k")).isValid());
    defaults().setValue(QStringLiteral("fresh"), QStringLiteral("after.damage"));
    defaults().synchronize();
    QFile aside(file + QStringLiteral(".damaged"));
    ASSERT_TRUE(aside.open(QIODevice::ReadOnly));
    EXPECT_EQ(aside.readAll(), damaged);
    auto fromDisk = reopenFromDisk(QStringLiteral("after-damage"));
    ASSERT_TRUE(fromDisk);
    EXPECT_EQ(fromDisk->value(QStringLiteral("after.damage")).toString(), QStringLiteral("fresh"));
}
