#include "foundation/UserDefaults.h"

#include "support/TestEnvironment.h"

#include <gtest/gtest.h>

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
    static const QString name = QSettings(QStringLiteral("tarnwell"), QStringLiteral("brindle")).fileName();
    return name;
}

// A copy of the settings file under a new name, so that QSettings parses it
// from disk instead of answering from the copy it already holds in memory.
std::unique_ptr<QSettings> reopenFromDisk(const QString& name)
{
    const QString copy = test::TestEnvironment::current().makeScratchDirectory(name) + QStringLiteral("/copy.conf");
    if (!QFile::copy(settingsFileName(), copy))
        return nullptr;
    return std::make_unique<QSettings>(copy, QSettings::IniFormat);
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
    defaults.setValue(QStringLiteral("one"), QStringLiteral("a/b"));
    defaults.setValue(QStringLiteral("two"), QStringLiteral("a//b"));
    defaults.setValue(QStringLiteral("three"), QStringLiteral("a\\b"));
    defaults.setValue(QStringLiteral("four"), QStringLiteral("a%2Fb"));
    EXPECT_EQ(defaults.valueForKey(QStringLiteral("a/b")).toString(), QStringLiteral("one"));
    EXPECT_EQ(defaults.valueForKey(QStringLiteral("a//b")).toString(), QStringLiteral("two"));
    EXPECT_EQ(defaults.valueForKey(QStringLiteral("a\\b")).toString(), QStringLiteral("three"));
    EXPECT_EQ(defaults.valueForKey(QStringLiteral("a%2Fb")).toString(), QStringLiteral("four"));
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
        written = content.find("deferred.write=@ByteArray(later)") != std::string::npos;
    }
    EXPECT_TRUE(written);
}
