// Private helpers of KRDemuxerContext: owning handles for FFmpeg objects,
// opening an input safely, recognising protected content, and measuring an
// audio stream's length by reading its packets.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <QString>

#include <cstdint>
#include <memory>

namespace brindle::demux {

struct FormatContextDeleter {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
struct CodecContextDeleter {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct PacketDeleter {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct FrameDeleter {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
using FormatContextPtr = std::unique_ptr<AVFormatContext, FormatContextDeleter>;
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;

// FFmpeg's text for an error code.
QString errorText(int code);

// Lowers FFmpeg's own console logging to errors, once per process, unless the
// program already chose a level.
void quietLibraryLogging();

// Opens a local file by path (only the file protocol is allowed, so a
// playlist inside a media file cannot reach the network) and reads its
// stream information. Null, with a log line, on failure.
FormatContextPtr openInput(const QString& filename);

// True when a stream's sample entry marks protected content (drms, drmi, aavd),
// or the stream carries encryption initialisation data.
bool isProtectedStream(const AVStream* stream);
// True when a packet carries encryption side data.
bool isEncryptedPacket(const AVPacket* packet);

// Length of stream `streamIndex` of `filename` in microseconds, measured by
// reading (not decoding) all of its packets in a separate context: the sum of
// their durations. -1 when the file cannot be read.
int64_t scanStreamLength(const QString& filename, int streamIndex);

}  // namespace brindle::demux
