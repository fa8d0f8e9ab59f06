// Opens a media file and decodes its first audio stream into packed frames.
//
// One context per thread: a context is not shared between threads, but any
// number of contexts may work in parallel. Opening reads the stream
// information, the first audio packet (to refuse protected content) and
// decodes the first frame; nothing more until asked.
#pragma once

#include "codec/KRAudioFrame2.h"

#include <QString>
#include <QStringList>

#include <memory>
#include <optional>

class KRDemuxerContext {
public:
    // Why an open failed, when the library refuses a file rather than failing to read it.
    struct Error {
        int code = 0;         // 1: protected content
        QString description;  // free text
    };

    // Opens `filename`; null on failure. A file whose audio is protected
    // (codec tag drms/drmi/aavd, or encryption side data on its first audio
    // packet) is refused and `error` is set. Other failures leave `error` empty.
    static std::unique_ptr<KRDemuxerContext> initWithFilename(const QString& filename, std::optional<Error>* error);
    static std::unique_ptr<KRDemuxerContext> initWithFilename(const QString& filename);
    ~KRDemuxerContext();
    KRDemuxerContext(const KRDemuxerContext&) = delete;
    KRDemuxerContext& operator=(const KRDemuxerContext&) = delete;

    // With true, every video stream (cover art included) is discarded.
    void disableVideoStream(bool disable);

    // Length of the audio stream in KRTimebase units; KRInvalidTimeValue when
    // there is no audio stream. Accurate for streams whose container gives no
    // duration (VBR MP3 without a Xing header): the stream is then scanned once.
    int64_t audioStreamLength();
    // Properties of the decoded audio: those of the first decoded frame (the
    // decoder's own values when the stream has no frame). `audioSampleFormat`
    // is the decoder's (possibly planar) format code.
    int32_t audioSampleFormat() const;
    int64_t audioSampleRate() const;
    int64_t numberOfChannel() const;

    // The next decoded frame of the audio stream, packed, exactly as
    // libavcodec decodes it (skip samples applied); null at the end of the
    // stream or on an error that ends decoding. Damaged packets are skipped
    // (up to a limit in a row); a read error ends the stream after the decoder
    // is drained; a frame whose format, rate or channel count differs from the
    // first ends decoding, so every frame matches the properties above.
    std::shared_ptr<KRAudioFrame2> decodeNextAudioFrame();

    // File extensions that can be opened, lower case, without dots: FFmpeg's
    // demuxer extensions plus those it finds only by probing (wav, aiff, …).
    static QStringList supportAllFormats();

private:
    KRDemuxerContext();
    struct State;
    std::unique_ptr<State> m_state;
};
