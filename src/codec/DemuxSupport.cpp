#include "codec/DemuxSupport.h"

#include "foundation/Log.h"

extern "C" {
#include <libavutil/dict.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
}

#include <algorithm>
#include <mutex>

namespace brindle::demux {

QString errorText(int code)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return QString::fromUtf8(text);
}

void quietLibraryLogging()
{
    static std::once_flag once;
    std::call_once(once, [] {
        if (av_log_get_level() == AV_LOG_INFO)
            av_log_set_level(AV_LOG_ERROR);
    });
}

FormatContextPtr openInput(const QString& filename)
{
    quietLibraryLogging();
    if (filename.isEmpty()) {
        log(QStringLiteral("demuxer: no file name given"));
        return nullptr;
    }
    // The "file:" prefix keeps a name such as "a:b.mp3" from being read as a protocol.
    QByteArray url = "file:" + filename.toUtf8();
    AVDictionary* options = nullptr;
    av_dict_set(&options, "protocol_whitelist", "file", 0);
    AVFormatContext* raw = nullptr;
    int status = avformat_open_input(&raw, url.constData(), nullptr, &options);
    av_dict_free(&options);
    if (status < 0) {
        log(QStringLiteral("demuxer: cannot open %1: %2").arg(filename, errorText(status)));
        return nullptr;
    }
    FormatContextPtr context(raw);
    status = avformat_find_stream_info(context.get(), nullptr);
    if (status < 0) {
        log(QStringLiteral("demuxer: cannot read the streams of %1: %2").arg(filename, errorText(status)));
        return nullptr;
    }
    return context;
}

bool isProtectedStream(const AVStream* stream)
{
    if (!stream || !stream->codecpar)
        return false;
    static constexpr uint32_t kProtectedTags[] = {MKTAG('d', 'r', 'm', 's'), MKTAG('d', 'r', 'm', 'i'),
                                                  MKTAG('a', 'a', 'v', 'd')};
    const uint32_t tag = stream->codecpar->codec_tag;
    if (std::find(std::begin(kProtectedTags), std::end(kProtectedTags), tag) != std::end(kProtectedTags))
        return true;
    size_t size = 0;
    return av_stream_get_side_data(stream, AV_PKT_DATA_ENCRYPTION_INIT_INFO, &size) != nullptr;
}

bool isEncryptedPacket(const AVPacket* packet)
{
    size_t size = 0;
    return packet && av_packet_get_side_data(packet, AV_PKT_DATA_ENCRYPTION_INFO, &size) != nullptr;
}

int64_t scanStreamLength(const QString& filename, int streamIndex)
{
    FormatContextPtr context = openInput(filename);
    if (!context || streamIndex < 0 || unsigned(streamIndex) >= context->nb_streams ||
        context->streams[streamIndex]->codecpar->codec_type != AVMEDIA_TYPE_AUDIO)
        return -1;
    for (unsigned i = 0; i < context->nb_streams; ++i)
        context->streams[i]->discard = int(i) == streamIndex ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    const AVStream* stream = context->streams[streamIndex];

    PacketPtr packet(av_packet_alloc());
    if (!packet)
        return -1;
    int64_t summed = 0;
    int64_t first = AV_NOPTS_VALUE;
    int64_t end = AV_NOPTS_VALUE;
    while (av_read_frame(context.get(), packet.get()) >= 0) {
        if (packet->stream_index == streamIndex) {
            if (packet->duration > 0)
                summed += packet->duration;
            if (packet->pts != AV_NOPTS_VALUE) {
                if (first == AV_NOPTS_VALUE || packet->pts < first)
                    first = packet->pts;
                end = std::max(end == AV_NOPTS_VALUE ? packet->pts : end, packet->pts + std::max<int64_t>(0, packet->duration));
            }
        }
        av_packet_unref(packet.get());
    }
    // Packets normally carry their durations; timestamps are the fallback.
    int64_t length = summed > 0 ? summed : (first != AV_NOPTS_VALUE ? end - first : 0);
    return av_rescale_q(length, stream->time_base, AVRational{1, AV_TIME_BASE});
}

}  // namespace brindle::demux
