#include "codec/KRZlibCompression.h"

#include "codec/ZlibStoredStream.h"
#include "foundation/Log.h"

#include <zlib.h>

#include <algorithm>
#include <limits>

namespace {

// Every decoded frame of every import is compressed, so compression speed
// sets the pace of an import, and decoded audio barely compresses: measured
// on one minute of decoded MP3 (32-bit float frames), levels 1, 3 and 6 all
// keep 91 % of the bytes at 49, 49 and 39 MB/s, and level 1 with the
// run-length strategy keeps 90.9 % at 81 MB/s. Storing the bytes in
// uncompressed deflate blocks keeps 100 % at memory speed. Digital silence
// and long runs are the exception: the run-length strategy shrinks silence
// to under 1 %. So a buffer in which many bytes repeat their predecessor is
// run-length coded by zlib, and any other is stored, written here straight
// from the input (zlib's set-up for a stream costs more than storing a
// frame). Either way the output is an ordinary zlib stream that inflates to
// the same bytes.
constexpr int kRunLengthLevel = Z_BEST_SPEED;
constexpr int kWindowBits = 15;
constexpr int kMemoryLevel = 8;

// zlib counts in uInt; larger buffers are fed in pieces of this size.
constexpr qsizetype kMaximumChunk = qsizetype(std::numeric_limits<uInt>::max() / 2);

uInt chunkOf(qsizetype remaining)
{
    return uInt(std::min(remaining, kMaximumChunk));
}

}  // namespace

QByteArray KRZlibCompression::zlibCompressionCompress(const QByteArray& data)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(data.constData());
    const auto size = size_t(data.size());
    if (brindle::zlibstored::prefersRunLength(brindle::zlibstored::repeatedBytes(bytes, size), size))
        return runLengthCoded(data);
    // Beyond one chunk zlib would be fed in pieces, and then lay out its
    // blocks otherwise: such a buffer is stored by zlib itself.
    if (data.size() > kMaximumChunk)
        return deflated(data, Z_NO_COMPRESSION, Z_DEFAULT_STRATEGY);
    QByteArray out(qsizetype(brindle::zlibstored::StoredStream::streamSize(size)), Qt::Uninitialized);
    brindle::zlibstored::StoredStream stream(out.data(), size);
    stream.append(bytes, size);
    stream.finish();
    return out;
}

QByteArray KRZlibCompression::runLengthCoded(const QByteArray& data)
{
    return deflated(data, kRunLengthLevel, Z_RLE);
}

QByteArray KRZlibCompression::deflated(const QByteArray& data, int level, int strategy)
{
    z_stream stream{};
    if (deflateInit2(&stream, level, Z_DEFLATED, kWindowBits, kMemoryLevel, strategy) != Z_OK) {
        brindle::log(QStringLiteral("zlib: cannot start compression"));
        return {};
    }
    QByteArray out;
    out.resize(qsizetype(deflateBound(&stream, uLong(data.size()))));
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.constData()));
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    qsizetype inputLeft = data.size();
    qsizetype outputLeft = out.size();
    int status = Z_OK;
    while (status == Z_OK || status == Z_BUF_ERROR) {
        if (stream.avail_in == 0 && inputLeft > 0) {
            stream.avail_in = chunkOf(inputLeft);
            inputLeft -= stream.avail_in;
        }
        if (stream.avail_out == 0) {
            if (outputLeft == 0) {
                // deflateBound is an upper bound; reaching here means zlib disagrees with itself.
                qsizetype used = out.size();
                out.resize(used + used / 2 + 64);
                stream.next_out = reinterpret_cast<Bytef*>(out.data() + used);
                outputLeft = out.size() - used;
            }
            stream.avail_out = chunkOf(outputLeft);
            outputLeft -= stream.avail_out;
        }
        status = deflate(&stream, inputLeft == 0 ? Z_FINISH : Z_NO_FLUSH);
        if (status == Z_BUF_ERROR && stream.avail_out != 0 && stream.avail_in != 0)
            break;  // no progress possible: should not happen
    }
    qsizetype produced = qsizetype(stream.total_out);
    deflateEnd(&stream);
    if (status != Z_STREAM_END) {
        brindle::logf("zlib: compression failed (%d)", status);
        return {};
    }
    out.truncate(produced);
    return out;
}

std::optional<QByteArray> KRZlibCompression::zlibCompressionUncompress(const QByteArray& data, qsizetype maximumSize)
{
    if (data.isEmpty() || maximumSize < 0) {
        brindle::log(QStringLiteral("zlib: nothing to uncompress"));
        return std::nullopt;
    }
    z_stream stream{};
    if (inflateInit(&stream) != Z_OK) {
        brindle::log(QStringLiteral("zlib: cannot start decompression"));
        return std::nullopt;
    }
    // A first guess of the output size; it grows by doubling up to the cap.
    // PCM compresses little, so four times the input covers most records at once.
    QByteArray out;
    qsizetype capacity = std::min(maximumSize, std::max<qsizetype>(4096, data.size() * 4));
    out.resize(capacity);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.constData()));
    qsizetype inputLeft = data.size();
    qsizetype produced = 0;
    int status = Z_OK;
    bool overCap = false;
    while (status == Z_OK) {
        if (stream.avail_in == 0) {
            if (inputLeft == 0)
                break;  // truncated: the stream did not end
            stream.avail_in = chunkOf(inputLeft);
            inputLeft -= stream.avail_in;
        }
        if (produced == out.size()) {
            if (out.size() >= maximumSize) {
                // Full to the cap: only an immediate end of stream is still acceptable.
                Bytef probe = 0;
                stream.next_out = &probe;
                stream.avail_out = 1;
                status = inflate(&stream, Z_NO_FLUSH);
                overCap = stream.avail_out == 0;
                if (status == Z_BUF_ERROR && !overCap)
                    status = Z_OK;  // no progress yet without more input
                if (overCap || status != Z_OK)
                    break;
                continue;
            }
            out.resize(std::min(maximumSize, std::max<qsizetype>(out.size() * 2, 4096)));
        }
        stream.next_out = reinterpret_cast<Bytef*>(out.data() + produced);
        stream.avail_out = chunkOf(out.size() - produced);
        uInt before = stream.avail_out;
        status = inflate(&stream, Z_NO_FLUSH);
        produced += qsizetype(before - stream.avail_out);
        if (status == Z_BUF_ERROR)
            status = Z_OK;  // needs more room or more input: the loop supplies both
    }
    bool trailing = status == Z_STREAM_END && (stream.avail_in != 0 || inputLeft != 0);
    inflateEnd(&stream);
    if (overCap) {
        brindle::logf("zlib: uncompressed data exceeds the limit of %lld bytes", static_cast<long long>(maximumSize));
        return std::nullopt;
    }
    if (status != Z_STREAM_END) {
        brindle::logf("zlib: damaged or truncated stream (%d)", status);
        return std::nullopt;
    }
    if (trailing) {
        brindle::log(QStringLiteral("zlib: garbage after the end of the stream"));
        return std::nullopt;
    }
    out.truncate(produced);
    return out;
}
