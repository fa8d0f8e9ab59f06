// The values of the export options, without widgets: the formats with their
// titles, codes and extensions, the sample rates each format offers, the
// qualities and their bit rates, and the defaults. The editor's options view
// shows these texts in its combo boxes and reads its values through here.
//
// Contract
// - Like the view, the object holds the selected texts (format title, rate
//   title, quality title) and derives every value from them each time it is
//   asked, so the rules for texts that match nothing live in one place:
//   a format text that matches no title is code 100 (MP3); a rate text other
//   than "96KHz", "48KHz", "44.1KHz", "22.5KHz" is 44100 Hz ("22.5KHz" is
//   22500 Hz, as its title reads); a quality text other than "High" and
//   "Normal" is 128000 bit/s.
// - A new object holds the view's initial selection: MP3, "48KHz", "Normal"
//   (48000 Hz, 224000 bit/s), 2 channels, sample format 1.
// - `setFormatType` selects a format title only; `formatChanged` is the
//   user's choice of a format: it refills the rate list for the new format
//   and selects its first rate.
// - `setSampleRate` writes the number itself as the rate text (what the view
//   does with its combo box), so only a rate spelled as a title reads back
//   as itself through `sampleRate`.
// - Plain value object; no threads.
#pragma once

#include <QString>
#include <QStringList>

#include <cstdint>

class KRExportSettings {
public:
    static constexpr int32_t kFormatTypeMP3 = 100;
    static constexpr int32_t kFormatTypeM4A = 101;
    static constexpr int32_t kFormatTypeWAV = 102;

    KRExportSettings();

    // The format titles in combo-box order (MP3, M4A, WAV).
    static QStringList supportFormats();
    // "High", "Normal", "Low".
    static QStringList supportQualitys();
    // The rate titles of a format code (any code but 101 and 102: MP3's).
    static QStringList supportSamplerateWithFormat(int32_t formatType);
    // The rate titles of the selected format.
    QStringList supportSamplerate() const { return supportSamplerateWithFormat(formatType()); }
    // "mp3", "m4a", "wav"; "mp3" for any other code.
    static QString extensionWithFormatType(int32_t formatType);
    static int32_t defaultSampleFormat() { return 1; }
    static int64_t defaultNumberOfChannel() { return 2; }
    static int64_t defaultSampleRate() { return 48000; }

    // The rules from text to value and back.
    static int32_t formatTypeWithTitle(const QString& title);
    static QString titleWithFormatType(int32_t formatType);
    static int64_t sampleRateWithTitle(const QString& title);
    static int32_t bitrateWithTitle(const QString& title);
    static QString qualityTitleWithBitrate(int32_t bitrate);

    int32_t formatType() const { return formatTypeWithTitle(m_formatTitle); }
    void setFormatType(int32_t formatType) { m_formatTitle = titleWithFormatType(formatType); }
    // The user picked a format: its rates are offered and the first is selected.
    void formatChanged();
    int64_t sampleRate() const { return sampleRateWithTitle(m_samplerateTitle); }
    void setSampleRate(int64_t sampleRate) { m_samplerateTitle = QString::number(sampleRate); }
    int32_t bitrate() const { return bitrateWithTitle(m_qualityTitle); }
    void setBitrate(int32_t bitrate) { m_qualityTitle = qualityTitleWithBitrate(bitrate); }
    int32_t sampleFormat() const { return defaultSampleFormat(); }
    void setSampleFormat(int32_t) {}
    int64_t numberOfChannel() const { return defaultNumberOfChannel(); }
    void setNumberOfChannel(int64_t) {}
    // The file types a save dialog should allow: the selected format's extension.
    QStringList supportFormatUTI() const { return {extensionWithFormatType(formatType())}; }

    // The selected texts, as the view's combo boxes show them.
    QString formatTitle() const { return m_formatTitle; }
    void setFormatTitle(const QString& title) { m_formatTitle = title; }
    QString samplerateTitle() const { return m_samplerateTitle; }
    void setSamplerateTitle(const QString& title) { m_samplerateTitle = title; }
    QString qualityTitle() const { return m_qualityTitle; }
    void setQualityTitle(const QString& title) { m_qualityTitle = title; }

private:
    QString m_formatTitle;
    QString m_samplerateTitle;
    QString m_qualityTitle;
};
