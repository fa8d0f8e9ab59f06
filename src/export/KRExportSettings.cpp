#include "export/KRExportSettings.h"

namespace {

const QString kMp3Title = QStringLiteral("MP3 audio format(*.mp3)");
const QString kM4aTitle = QStringLiteral("iTunes audio format(*.m4a)");
const QString kWavTitle = QStringLiteral("Waveform audio format(*.wav)");
const QString kHigh = QStringLiteral("High");
const QString kNormal = QStringLiteral("Normal");
const QString kLow = QStringLiteral("Low");

}  // namespace

KRExportSettings::KRExportSettings()
{
    m_formatTitle = kMp3Title;
    m_samplerateTitle = supportSamplerate().constFirst();
    m_qualityTitle = kNormal;
}

QStringList KRExportSettings::supportFormats()
{
    return {kMp3Title, kM4aTitle, kWavTitle};
}

QStringList KRExportSettings::supportQualitys()
{
    return {kHigh, kNormal, kLow};
}

QStringList KRExportSettings::supportSamplerateWithFormat(int32_t formatType)
{
    if (formatType == kFormatTypeM4A || formatType == kFormatTypeWAV)
        return {QStringLiteral("96KHz"), QStringLiteral("48KHz"), QStringLiteral("44.1KHz"), QStringLiteral("22.5KHz")};
    return {QStringLiteral("48KHz"), QStringLiteral("44.1KHz")};
}

QString KRExportSettings::extensionWithFormatType(int32_t formatType)
{
    switch (formatType) {
    case kFormatTypeM4A:
        return QStringLiteral("m4a");
    case kFormatTypeWAV:
        return QStringLiteral("wav");
    default:
        return QStringLiteral("mp3");
    }
}

int32_t KRExportSettings::formatTypeWithTitle(const QString& title)
{
    if (title == kM4aTitle)
        return kFormatTypeM4A;
    if (title == kWavTitle)
        return kFormatTypeWAV;
    return kFormatTypeMP3;
}

QString KRExportSettings::titleWithFormatType(int32_t formatType)
{
    if (formatType == kFormatTypeM4A)
        return kM4aTitle;
    if (formatType == kFormatTypeWAV)
        return kWavTitle;
    return kMp3Title;
}

int64_t KRExportSettings::sampleRateWithTitle(const QString& title)
{
    if (title == QLatin1String("96KHz"))
        return 96000;
    if (title == QLatin1String("48KHz"))
        return 48000;
    if (title == QLatin1String("22.5KHz"))
        return 22500;
    return 44100;
}

int32_t KRExportSettings::bitrateWithTitle(const QString& title)
{
    if (title == kHigh)
        return 320000;
    if (title == kNormal)
        return 224000;
    return 128000;
}

QString KRExportSettings::qualityTitleWithBitrate(int32_t bitrate)
{
    if (bitrate <= 128000)
        return kLow;
    if (bitrate <= 224000)
        return kNormal;
    return kHigh;
}

void KRExportSettings::formatChanged()
{
    m_samplerateTitle = supportSamplerate().constFirst();
}
