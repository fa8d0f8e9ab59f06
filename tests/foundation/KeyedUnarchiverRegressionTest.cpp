// Decoding rules that fuzzing showed missing (fuzz/fuzz_project_document).
#include "foundation/KeyedCoding.h"
#include "foundation/KeyedStandard.h"
#include "foundation/Log.h"

#include <QStringList>
#include <QUrl>

#include <gtest/gtest.h>

#include <memory>

using namespace brindle;

namespace {

// An archive whose root is an NSURL with the given strings, as any writer may store it.
QByteArray urlArchive(const QString& relative, const QString& base = QString())
{
    std::shared_ptr<const KeyedURL> baseURL;
    if (!base.isNull())
        baseURL = std::make_shared<KeyedURL>(base, nullptr);
    return KeyedArchiver::archivedDataWithRootObject(KeyedURL(relative, baseURL));
}

}  // namespace

TEST(KeyedUnarchiverRegressionTest, aUrlStringThatDoesNotParseDecodesAsNoUrlWithALogLine)
{
    // The first is the fuzzer's: "file:" with one bit flipped. Such a URL used
    // to be handed on invalid, and the archiver wrote it back as an empty one.
    const std::pair<QString, QString> damaged[] = {
        {QStringLiteral("f)le:///work/Song.loomwick"), QString()},
        {QStringLiteral("http://a b/"), QString()},
        {QStringLiteral("file://[::1"), QString()},
        {QStringLiteral("Song.loomwick"), QStringLiteral("http://a b/")},
    };
    for (const auto& [relative, base] : damaged) {
        SCOPED_TRACE(relative.toStdString());
        QStringList lines;
        const LogSink previous = setLogSink([&](const QString& line) { lines.append(line); });
        KeyedUnarchiver coder(urlArchive(relative, base));
        ASSERT_TRUE(coder.isValid());
        EXPECT_FALSE(coder.decodeURLForKey(QStringLiteral("root")));
        EXPECT_TRUE(coder.hasDecodingError());
        setLogSink(previous);
        ASSERT_EQ(lines.size(), 1);
        EXPECT_TRUE(lines.front().contains(QStringLiteral("'root' does not parse")));
    }
}

TEST(KeyedUnarchiverRegressionTest, urlsThatParseStillDecodeAndArchiveAgainUnchanged)
{
    const std::pair<QByteArray, QUrl> stored[] = {
        {urlArchive(QStringLiteral("x")), QUrl(QStringLiteral("x"))},
        {urlArchive(QStringLiteral("file:///a%20b")), QUrl::fromLocalFile(QStringLiteral("/a b"))},
        {urlArchive(QStringLiteral("b/c"), QStringLiteral("file:///a/")), QUrl::fromLocalFile(QStringLiteral("/a/b/c"))},
        {urlArchive(QString()), QUrl()},
    };
    for (const auto& [archive, expected] : stored) {
        SCOPED_TRACE(expected.toString().toStdString());
        KeyedUnarchiver coder(archive);
        const std::optional<QUrl> url = coder.decodeURLForKey(QStringLiteral("root"));
        ASSERT_TRUE(url);
        EXPECT_EQ(*url, expected);
        EXPECT_FALSE(coder.hasDecodingError());
        if (url->isEmpty())
            continue;
        KeyedUnarchiver again(KeyedArchiver::archivedDataWithRootObject(KeyedURL(*url)));
        EXPECT_EQ(again.decodeURLForKey(QStringLiteral("root")), expected);
    }
}
