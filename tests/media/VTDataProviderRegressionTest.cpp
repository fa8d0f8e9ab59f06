// Inputs found by fuzzing the provider's frame table against damaged cache
// files and older project files; each once crashed, tripped a sanitizer or
// broke a round trip.
#include "media/VTDataProvider.h"

#include "LogCapture.h"
#include "MediaFixtures.h"
#include "support/TestMedia.h"

#include <gtest/gtest.h>

#include <vector>

using namespace brindle::test;

namespace {

KRDataProviderLegacyFields fieldsOf(const VTDataProvider& provider)
{
    KRDataProviderLegacyFields fields;
    fields.pathfile = provider.identifier();
    fields.sampleFormat = provider.sampleFormat();
    fields.samplerate = provider.samplerate();
    fields.numbersOfComponent = provider.numberOfChannel();
    fields.cachePathFile = provider.cachePathFile();
    fields.duration = provider.duration();
    for (const auto& row : provider.cacheTable())
        fields.cacheTable.push_back({row->offsetOfBuffer(), row->lengthOfBuffer(), row->indexOfSamples(), row->numberOfSamples()});
    return fields;
}

// A provider over a real cache file (float, mono) whose table is replaced by `rows`.
std::shared_ptr<VTDataProvider> providerWithRows(const std::vector<KRDataProviderLegacyFields::Row>& rows)
{
    ToneSpec spec;
    spec.channels = 1;
    spec.sampleRate = 22050;
    spec.frames = 3000;
    const ImportedMedia& imported = importedMedia(TestMedia::shared().wav(3, spec));
    if (!imported.provider)
        return nullptr;
    KRDataProviderLegacyFields fields = fieldsOf(*imported.provider);
    fields.cacheTable = rows;
    return VTDataProvider::initWithKRDataProvider(fields);
}

}  // namespace

TEST(VTDataProviderRegressionTest, aRowWhoseSampleCountOverflowsItsByteSizeIsReadAsDamaged)
{
    // The rows of the fuzzer's input: a sane start, then rows of random 64-bit values.
    auto provider = providerWithRows({
        {0, 545, 0, 47},
        {8010, 2490, 1775, 1247301968226091584},
        {3161868733417870346, -7929133762063285274, 7194134026572759215, 3998064048869333322},
    });
    ASSERT_TRUE(provider);
    LogCapture log;
    std::vector<char> buffer(64 * sizeof(float));
    EXPECT_EQ(provider->readSampleOfCount(64, buffer.data(), 9449054082766156322ull), 0u);
    EXPECT_EQ(provider->readSampleOfCount(64, buffer.data(), 1800), 0u);
    EXPECT_FALSE(log.lines().isEmpty());
}

TEST(VTDataProviderRegressionTest, aLegacyProviderWithoutAMediaPathIsNotConverted)
{
    // Such a provider was registered under an empty identifier; a clip of an
    // older project could name it, and lost it when the converted project was
    // saved and opened again (an empty name reads as "no media").
    ToneSpec spec;
    spec.frames = 800;
    const ImportedMedia& imported = importedMedia(TestMedia::shared().wav(1, spec));
    ASSERT_TRUE(imported.provider);
    KRDataProviderLegacyFields fields = fieldsOf(*imported.provider);
    fields.pathfile.clear();
    LogCapture log;
    EXPECT_FALSE(VTDataProvider::initWithKRDataProvider(fields));
    EXPECT_TRUE(log.lines().contains(QStringLiteral("Warning: legacy data provider without a media path; it is skipped.")));
}
