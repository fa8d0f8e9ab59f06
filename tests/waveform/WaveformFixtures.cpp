#include "WaveformFixtures.h"

#include "support/TestMedia.h"

#include "media/VTDataProvider.h"
#include "media/VTDataProviderMgr.h"

#include <QUrl>
#include <QtEndian>

#include <gtest/gtest.h>

#include <algorithm>
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

const Tone& toneMedia()
{
    static const Tone tone = [] {
        ToneSpec signal;
        signal.frames = 132300;
        signal.amplitude = 0.8;
        const QByteArray raw = toneSamples(signal, 1);
        Tone made;
        made.samples.resize(size_t(raw.size() / 2));
        std::memcpy(made.samples.data(), raw.constData(), size_t(raw.size()));
        made.provider = providerWithSamples(QStringLiteral("tone-3s"), 1, 2, 44100, raw);
        return made;
    }();
    return tone;
}

std::pair<double, double> Tone::extremes(uint64_t index, uint64_t length, int channel) const
{
    double max = 0, min = 0;
    for (uint64_t frame = index; frame < std::min<uint64_t>(index + length, samples.size() / 2); ++frame) {
        max = std::max<double>(max, samples[frame * 2 + uint64_t(channel)]);
        min = std::min<double>(min, samples[frame * 2 + uint64_t(channel)]);
    }
    return {max, min};
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
