#include "WaveformFixtures.h"

#include "support/TestMedia.h"

#include "media/VTDataProvider.h"
#include "media/VTDataProviderMgr.h"

#include <QUrl>
#include <QtEndian>

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <mutex>

namespace brindle::test {

std::shared_ptr<VTDataProvider> providerWithSamples(const QString& name, int32_t sampleFormat, int channels,
                                                    int sampleRate, const QByteArray& interleaved)
{
    static std::mutex mutex;
    static std::map<QString, std::shared_ptr<VTDataProvider>> made;
    std::lock_guard<std::mutex> lock(mutex);
    const QString fileName =
        QStringLiteral("%1-f%2-c%3-r%4.wav").arg(name).arg(sampleFormat).arg(channels).arg(sampleRate);
    if (auto found = made.find(fileName); found != made.end())
        return found->second;
    const QString path = TestMedia::shared().folder() + QLatin1Char('/') + fileName;
    EXPECT_TRUE(TestMedia::writeWav(path, sampleFormat, channels, sampleRate, interleaved));
    auto provider = VTDataProvider::initWithURL(QUrl::fromLocalFile(path));
    EXPECT_TRUE(provider) << "cannot probe " << qPrintable(path);
    if (!provider)
        return nullptr;
    EXPECT_TRUE(provider->startParserWithBlock(nullptr));
    VTDataProviderMgr::shareDataProviderMgr().importDataProviders({provider});
    made.emplace(fileName, provider);
    return provider;
}

QByteArray doubles(std::initializer_list<double> values)
{
    QByteArray bytes;
    for (double value : values)
        bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
    return bytes;
}

QByteArray withUInt64At(QByteArray data, qsizetype offset, uint64_t value)
{
    const uint64_t little = qToLittleEndian(value);
    std::memcpy(data.data() + offset, &little, sizeof little);
    return data;
}

}  // namespace brindle::test
