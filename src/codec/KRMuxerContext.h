// Encodes interleaved PCM and writes it into an MP3, M4A or WAV file.
//
// Contract
// - Made for an output path and a format code: 100 MP3 (libmp3lame, "mp3"
//   muxer, ID3v2 tags), 101 M4A (FFmpeg's native AAC encoder in the "ipod"
//   muxer), 102 WAV (signed 16-bit PCM). The settings (`setAudioBitrate`,
//   `setSampleFormat`, `setNumberOfChannels`, `setSamplerate`, `setTitle`)
//   describe the input and are read when the file is opened; the bit rate is
//   ignored for WAV.
// - `open` checks the settings, finds the encoder and starts the file. A rate
//   that the encoder does not take (AAC at 22500 Hz, MP3 at 96000 Hz) is
//   resampled to the nearest rate it takes, with a log line; a channel count
//   it does not take is mixed to the nearest one it does. `encoderSamplerate`
//   and `encoderNumberOfChannels` then say what is written.
// - `writeAudioSamples`/`writeAudioFrame` accept blocks of any size: they
//   are converted to the encoder's format and collected until the encoder's
//   frame size is reached. `finish` drains the converter and the encoder and
//   writes the trailer.
// - The file is written under a temporary name beside the target and renamed
//   onto it only by a successful `finish`, so a failed export never leaves a
//   broken file and never damages a file already at the path. Any failure
//   (unwritable folder, disk full, encoder missing, bad settings) answers
//   false with a message (`errorMessage`, also logged); after one, every call
//   answers false and the temporary file is gone. Destroying a context that
//   was not finished discards the temporary file.
// - One thread at a time (the muxer task's thread); no locks.
#pragma once

#include <QString>

#include <cstdint>
#include <memory>

class KRAudioFrame2;

class KRMuxerContext {
public:
    static constexpr int32_t kFormatMP3 = 100;
    static constexpr int32_t kFormatM4A = 101;
    static constexpr int32_t kFormatWAV = 102;

    // The context for `filename` and format code `format` (checked by `open`).
    static std::shared_ptr<KRMuxerContext> initWithFilename(const QString& filename, int32_t format);
    ~KRMuxerContext();
    KRMuxerContext(const KRMuxerContext&) = delete;
    KRMuxerContext& operator=(const KRMuxerContext&) = delete;

    // Input description and encoder settings; defaults: 224000 bit/s, format 1
    // (signed 16-bit), 2 channels, 48000 Hz, no title.
    void setAudioBitrate(int32_t bitrate) { m_audioBitrate = bitrate; }
    void setSampleFormat(int32_t sampleFormat) { m_sampleFormat = sampleFormat; }
    void setNumberOfChannels(int64_t channels) { m_numberOfChannels = channels; }
    void setSamplerate(int64_t samplerate) { m_samplerate = samplerate; }
    void setTitle(const QString& title) { m_title = title; }

    QString filename() const { return m_filename; }
    int32_t format() const { return m_format; }
    int32_t audioBitrate() const { return m_audioBitrate; }
    int32_t sampleFormat() const { return m_sampleFormat; }
    int64_t numberOfChannels() const { return m_numberOfChannels; }
    int64_t samplerate() const { return m_samplerate; }
    QString title() const { return m_title; }

    // Starts the file. False with a message on failure.
    bool open();
    // Encodes `numberOfSamples` interleaved frames in the input description.
    bool writeAudioSamples(const void* samples, int64_t numberOfSamples);
    // The same for a frame, which must match the input description.
    bool writeAudioFrame(const KRAudioFrame2& frame);
    // Drains everything, completes the file and moves it to its path.
    bool finish();
    // Stops writing and discards the temporary file (cancel).
    void abort(const QString& reason);

    bool isOpen() const;
    bool isFinished() const { return m_finished; }
    QString errorMessage() const { return m_errorMessage; }
    // What the encoder writes (valid after `open`).
    int64_t encoderSamplerate() const { return m_encoderSamplerate; }
    int64_t encoderNumberOfChannels() const { return m_encoderNumberOfChannels; }
    // Input frames accepted so far.
    int64_t numberOfSamplesWritten() const { return m_numberOfSamplesWritten; }

    // The file extension of a format code ("mp3", "m4a", "wav"; "mp3" for others).
    static QString extensionWithFormat(int32_t format);

private:
    KRMuxerContext(QString filename, int32_t format);
    bool fail(const QString& message);
    bool convertAndQueue(const void* samples, int64_t numberOfSamples);
    bool encodeQueued(bool flushing);
    bool sendFrame(bool last);
    bool drainPackets();
    void release();

    struct State;
    std::unique_ptr<State> m_state;
    QString m_filename;
    int32_t m_format;
    int32_t m_audioBitrate = 224000;
    int32_t m_sampleFormat = 1;
    int64_t m_numberOfChannels = 2;
    int64_t m_samplerate = 48000;
    QString m_title;
    int64_t m_encoderSamplerate = 0;
    int64_t m_encoderNumberOfChannels = 0;
    int64_t m_numberOfSamplesWritten = 0;
    bool m_failed = false;
    bool m_finished = false;
    QString m_errorMessage;
};
