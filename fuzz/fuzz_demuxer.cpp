// Fuzzes media probing and decoding: the first byte picks the file name's
// extension (FFmpeg weighs it when probing), the rest is written to a file
// that KRDemuxerContext opens, measures and decodes for a bounded number of
// frames. Each frame goes through the cache record's write and read path.
#include "FuzzSupport.h"

#include "codec/KRAudioFrame2.h"
#include "codec/KRDemuxerContext.h"
#include "codec/KRTimebase.h"
#include "codec/KRZlibCompression.h"
#include "foundation/KeyedCoding.h"

#include <QFile>
#include <QFileInfo>

extern "C" {
#include <libavutil/log.h>
}

#include <cstdlib>

using namespace brindle;

namespace {

const char* const kExtensions[] = {"", ".wav", ".mp3", ".m4a", ".flac", ".ogg", ".aiff", ".mka"};
constexpr int kMaximumFrames = 48;

void checkFrame(const KRAudioFrame2& frame, int32_t sampleFormat, int64_t channels)
{
    const int64_t bytes =
        int64_t(frame.numberOfSamples()) * frame.numberOfChannel() * KRAudioFrame2::bytesForSampleFormat(frame.sampleFormat());
    if (bytes != frame.dataOfPackedSamples().size() || frame.numberOfChannel() != channels ||
        frame.sampleFormat() != KRAudioFrame2::packedSampleFormat(sampleFormat))
        std::abort();
    const QByteArray record = KRZlibCompression::zlibCompressionCompress(KeyedArchiver::archivedDataWithRootObject(frame));
    const auto archive = KRZlibCompression::zlibCompressionUncompress(record);
    const auto again = archive ? KeyedUnarchiver::unarchivedObjectOfClass<KRAudioFrame2>(*archive) : nullptr;
    if (!again || again->dataOfPackedSamples() != frame.dataOfPackedSamples())
        std::abort();
}

void writeSeeds(fuzz::SeedFolder& seeds)
{
    for (const QString& path : fuzz::seedMediaFiles(true)) {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly))
            continue;
        const QString suffix = QLatin1Char('.') + QFileInfo(path).suffix();
        uint8_t selector = 0;
        for (uint8_t i = 0; i < std::size(kExtensions); ++i)
            if (suffix == QLatin1String(kExtensions[i]))
                selector = i;
        seeds.add(QStringLiteral("media") + suffix, QByteArray(1, char(selector)) + file.readAll());
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::initialize("demuxer", writeSeeds);
    av_log_set_level(AV_LOG_QUIET);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const QString path = fuzz::scratchFile(QStringLiteral("media")) + QLatin1String(kExtensions[data[0] % std::size(kExtensions)]);
    if (!fuzz::writeFile(path, data + 1, size - 1))
        return 0;
    std::optional<KRDemuxerContext::Error> error;
    std::unique_ptr<KRDemuxerContext> demuxer = KRDemuxerContext::initWithFilename(path, &error);
    if (demuxer) {
        demuxer->disableVideoStream(true);
        if (demuxer->audioStreamLength() != KRInvalidTimeValue) {
            const int32_t sampleFormat = demuxer->audioSampleFormat();
            const int64_t channels = demuxer->numberOfChannel();
            for (int i = 0; i < kMaximumFrames; ++i) {
                const auto frame = demuxer->decodeNextAudioFrame();
                if (!frame)
                    break;
                checkFrame(*frame, sampleFormat, channels);
            }
        }
    }
    QFile::remove(path);
    return 0;
}
