#include "export/KRExportSettings.h"

#include <gtest/gtest.h>

namespace {

const QStringList kMp3Rates{"48KHz", "44.1KHz"};

TEST(KRExportSettings, StartsAsMp3At48000HzNormalQualityAndAChosenFormatSelectsItsFirstRate)
{
    KRExportSettings settings;
    EXPECT_EQ(QStringList({settings.formatTitle(), settings.samplerateTitle(), settings.qualityTitle()}),
              QStringList({"MP3 audio format(*.mp3)", "48KHz", "Normal"}));
    EXPECT_EQ(settings.formatType(), 100);
    EXPECT_EQ(settings.sampleRate(), 48000);
    EXPECT_EQ(settings.bitrate(), 224000);
    EXPECT_EQ(settings.numberOfChannel(), 2);
    EXPECT_EQ(settings.sampleFormat(), 1);
    EXPECT_EQ(settings.supportFormatUTI(), QStringList{"mp3"});

    settings.setFormatType(102);
    settings.formatChanged();
    EXPECT_EQ(settings.supportSamplerate().size(), 4);
    EXPECT_EQ(settings.sampleRate(), 96000);
    EXPECT_EQ(settings.supportFormatUTI(), QStringList{QStringLiteral("wav")});
    settings.setSamplerateTitle(QStringLiteral("22.5KHz"));
    EXPECT_EQ(settings.sampleRate(), 22500);
    settings.setFormatType(100);
    settings.formatChanged();
    EXPECT_EQ(settings.supportSamplerate(), kMp3Rates);
    EXPECT_EQ(settings.samplerateTitle(), QStringLiteral("48KHz"));
    // Selecting a format without the user's choice leaves the rate alone.
    settings.setFormatType(101);
    EXPECT_EQ(settings.samplerateTitle(), QStringLiteral("48KHz"));
    EXPECT_EQ(settings.formatType(), 101);
}

TEST(KRExportSettings, FormatsMapTitlesCodesExtensionsAndRateListsWithMp3ForAnythingUnknown)
{
    const QStringList titles = KRExportSettings::supportFormats();
    EXPECT_EQ(titles, (QStringList{"MP3 audio format(*.mp3)", "iTunes audio format(*.m4a)", "Waveform audio format(*.wav)"}));
    const QStringList allRates{"96KHz", "48KHz", "44.1KHz", "22.5KHz"};
    const QStringList rates[] = {kMp3Rates, allRates, allRates};
    const char* extensions[] = {"mp3", "m4a", "wav"};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(KRExportSettings::formatTypeWithTitle(titles.at(i)), 100 + i);
        EXPECT_EQ(KRExportSettings::titleWithFormatType(100 + i), titles.at(i));
        EXPECT_EQ(KRExportSettings::extensionWithFormatType(100 + i), QLatin1String(extensions[i]));
        EXPECT_EQ(KRExportSettings::supportSamplerateWithFormat(100 + i), rates[i]);
    }
    EXPECT_EQ(KRExportSettings::formatTypeWithTitle(QStringLiteral("FLAC")), 100);
    EXPECT_EQ(KRExportSettings::extensionWithFormatType(7), QStringLiteral("mp3"));
    EXPECT_EQ(KRExportSettings::titleWithFormatType(7), titles.at(0));
    EXPECT_EQ(KRExportSettings::supportSamplerateWithFormat(0), kMp3Rates);
}

TEST(KRExportSettings, RateAndQualityTextsReadAsTheirValuesWithFixedFallbacks)
{
    for (auto [title, rate] : {std::pair<const char*, int64_t>{"96KHz", 96000}, {"48KHz", 48000}, {"44.1KHz", 44100},
                               {"22.5KHz", 22500}, {"32KHz", 44100}})
        EXPECT_EQ(KRExportSettings::sampleRateWithTitle(QLatin1String(title)), rate) << title;
    EXPECT_EQ(KRExportSettings::supportQualitys(), (QStringList{"High", "Normal", "Low"}));
    for (auto [title, bitrate] :
         {std::pair<const char*, int32_t>{"High", 320000}, {"Normal", 224000}, {"Low", 128000}, {"Best", 128000}})
        EXPECT_EQ(KRExportSettings::bitrateWithTitle(QLatin1String(title)), bitrate) << title;

    KRExportSettings settings;
    for (auto [set, read] : {std::pair<int32_t, int32_t>{64000, 128000}, {128000, 128000}, {128001, 224000},
                             {224000, 224000}, {224001, 320000}, {999999, 320000}}) {
        settings.setBitrate(set);
        EXPECT_EQ(settings.bitrate(), read) << set;
    }
    // The rate is written as a number, and only titles read back as themselves.
    settings.setSampleRate(96000);
    EXPECT_EQ(settings.samplerateTitle(), QStringLiteral("96000"));
    EXPECT_EQ(settings.sampleRate(), 44100);
    // The sample format and channel count are fixed.
    settings.setSampleFormat(3);
    settings.setNumberOfChannel(6);
    EXPECT_EQ(settings.sampleFormat(), 1);
    EXPECT_EQ(settings.numberOfChannel(), 2);
}

}  // namespace
