#include "export/KRExportSettings.h"

#include <gtest/gtest.h>

namespace {

TEST(KRExportSettings, StartsAsMp3At48000HzNormalQualityStereoSixteenBit)
{
    const KRExportSettings settings;
    EXPECT_EQ(settings.formatType(), 100);
    EXPECT_EQ(settings.formatTitle(), QStringLiteral("MP3 audio format(*.mp3)"));
    EXPECT_EQ(settings.samplerateTitle(), QStringLiteral("48KHz"));
    EXPECT_EQ(settings.sampleRate(), 48000);
    EXPECT_EQ(settings.qualityTitle(), QStringLiteral("Normal"));
    EXPECT_EQ(settings.bitrate(), 224000);
    EXPECT_EQ(settings.numberOfChannel(), 2);
    EXPECT_EQ(settings.sampleFormat(), 1);
    EXPECT_EQ(KRExportSettings::defaultSampleRate(), 48000);
    EXPECT_EQ(settings.supportFormatUTI(), QStringList{QStringLiteral("mp3")});
}

TEST(KRExportSettings, FormatsMapTitlesCodesExtensionsAndRateListsWithMp3ForAnythingUnknown)
{
    EXPECT_EQ(KRExportSettings::supportFormats(),
              (QStringList{QStringLiteral("MP3 audio format(*.mp3)"), QStringLiteral("iTunes audio format(*.m4a)"),
                           QStringLiteral("Waveform audio format(*.wav)")}));
    const int32_t codes[] = {100, 101, 102};
    const char* extensions[] = {"mp3", "m4a", "wav"};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(KRExportSettings::formatTypeWithTitle(KRExportSettings::supportFormats().at(i)), codes[i]);
        EXPECT_EQ(KRExportSettings::titleWithFormatType(codes[i]), KRExportSettings::supportFormats().at(i));
        EXPECT_EQ(KRExportSettings::extensionWithFormatType(codes[i]), QLatin1String(extensions[i]));
    }
    EXPECT_EQ(KRExportSettings::formatTypeWithTitle(QStringLiteral("FLAC")), 100);
    EXPECT_EQ(KRExportSettings::extensionWithFormatType(7), QStringLiteral("mp3"));
    EXPECT_EQ(KRExportSettings::titleWithFormatType(7), KRExportSettings::supportFormats().at(0));
    const QStringList all{"96KHz", "48KHz", "44.1KHz", "22.5KHz"};
    EXPECT_EQ(KRExportSettings::supportSamplerateWithFormat(101), all);
    EXPECT_EQ(KRExportSettings::supportSamplerateWithFormat(102), all);
    EXPECT_EQ(KRExportSettings::supportSamplerateWithFormat(100), (QStringList{"48KHz", "44.1KHz"}));
    EXPECT_EQ(KRExportSettings::supportSamplerateWithFormat(0), (QStringList{"48KHz", "44.1KHz"}));
}

TEST(KRExportSettings, RateAndQualityTextsReadAsTheirValuesWithFixedFallbacks)
{
    EXPECT_EQ(KRExportSettings::sampleRateWithTitle(QStringLiteral("96KHz")), 96000);
    EXPECT_EQ(KRExportSettings::sampleRateWithTitle(QStringLiteral("48KHz")), 48000);
    EXPECT_EQ(KRExportSettings::sampleRateWithTitle(QStringLiteral("44.1KHz")), 44100);
    EXPECT_EQ(KRExportSettings::sampleRateWithTitle(QStringLiteral("22.5KHz")), 22500);
    EXPECT_EQ(KRExportSettings::sampleRateWithTitle(QStringLiteral("32KHz")), 44100);
    EXPECT_EQ(KRExportSettings::supportQualitys(), (QStringList{"High", "Normal", "Low"}));
    EXPECT_EQ(KRExportSettings::bitrateWithTitle(QStringLiteral("High")), 320000);
    EXPECT_EQ(KRExportSettings::bitrateWithTitle(QStringLiteral("Normal")), 224000);
    EXPECT_EQ(KRExportSettings::bitrateWithTitle(QStringLiteral("Low")), 128000);
    EXPECT_EQ(KRExportSettings::bitrateWithTitle(QStringLiteral("Best")), 128000);

    KRExportSettings settings;
    const std::pair<int32_t, int32_t> bitrates[] = {{64000, 128000},  {128000, 128000}, {128001, 224000},
                                                    {224000, 224000}, {224001, 320000}, {999999, 320000}};
    for (auto [set, read] : bitrates) {
        settings.setBitrate(set);
        EXPECT_EQ(settings.bitrate(), read) << set;
    }
    // The rate is written as a number, and only titles read back as themselves.
    settings.setSampleRate(96000);
    EXPECT_EQ(settings.samplerateTitle(), QStringLiteral("96000"));
    EXPECT_EQ(settings.sampleRate(), 44100);
    settings.setSampleFormat(3);
    settings.setNumberOfChannel(6);
    EXPECT_EQ(settings.sampleFormat(), 1);
    EXPECT_EQ(settings.numberOfChannel(), 2);
}

TEST(KRExportSettings, ChoosingAFormatOffersItsRatesAndSelectsTheFirst)
{
    KRExportSettings settings;
    settings.setFormatType(102);
    settings.formatChanged();
    EXPECT_EQ(settings.supportSamplerate().size(), 4);
    EXPECT_EQ(settings.sampleRate(), 96000);
    EXPECT_EQ(settings.supportFormatUTI(), QStringList{QStringLiteral("wav")});
    settings.setSamplerateTitle(QStringLiteral("22.5KHz"));
    EXPECT_EQ(settings.sampleRate(), 22500);
    settings.setFormatType(100);
    settings.formatChanged();
    EXPECT_EQ(settings.supportSamplerate(), (QStringList{"48KHz", "44.1KHz"}));
    EXPECT_EQ(settings.samplerateTitle(), QStringLiteral("48KHz"));
    // Selecting a format without the user's choice leaves the rate alone.
    settings.setFormatType(101);
    EXPECT_EQ(settings.samplerateTitle(), QStringLiteral("48KHz"));
    EXPECT_EQ(settings.formatType(), 101);
}

}  // namespace
