#include "codec/Adler32.h"
#include "codec/KRZlibCompression.h"
#include "codec/ZlibStoredStream.h"

#include "support/TestMedia.h"

#include <gtest/gtest.h>

#include <zlib.h>

#include <algorithm>
#include <vector>

namespace {

QByteArray noise(qsizetype size, uint32_t seed)
{
    brindle::test::ToneSpec tone;
    tone.channels = 1;
    tone.frames = size;
    tone.seed = seed;
    tone.amplitude = 0.0;
    tone.noise = 1.0;
    return brindle::test::toneSamples(tone, 0);  // one byte per sample
}

uint32_t zlibAdler(uint32_t start, const unsigned char* bytes, size_t length)
{
    return uint32_t(adler32_z(start, bytes, length));
}

}  // namespace

TEST(Adler32Test, agreesWithZlibForEveryLengthAlignmentAndStartingValue)
{
    const QByteArray noiseBytes = noise(70000, 7);
    const auto* bytes = reinterpret_cast<const unsigned char*>(noiseBytes.constData());
    for (size_t length = 0; length < 300; ++length)
        for (size_t start = 0; start < 3; ++start)
            ASSERT_EQ(brindle::adler32(1, bytes + start, length), zlibAdler(1, bytes + start, length)) << length;
    // Lengths around the chunk in which sums are reduced, and a continued checksum.
    for (size_t length : {5535u, 5536u, 5552u, 5553u, 11104u, 69999u}) {
        ASSERT_EQ(brindle::adler32(1, bytes + 1, length), zlibAdler(1, bytes + 1, length)) << length;
        const uint32_t half = brindle::adler32(1, bytes, length / 2);
        EXPECT_EQ(brindle::adler32(half, bytes + length / 2, length - length / 2), zlibAdler(1, bytes, length));
    }
    // All bytes 0xff: the largest sums, where a missed reduction would overflow.
    const std::vector<unsigned char> full(1 << 20, 0xff);
    EXPECT_EQ(brindle::adler32(1, full.data(), full.size()), zlibAdler(1, full.data(), full.size()));
    EXPECT_EQ(brindle::adler32(0xfff0fff0u, full.data(), 5552), zlibAdler(0xfff0fff0u, full.data(), 5552));
}

TEST(KRZlibCompression, roundTripsEmptySmallLargeAndIncompressibleBuffers)
{
    brindle::test::ToneSpec tone;
    tone.frames = 300000;
    const QByteArray inputs[] = {QByteArray(), QByteArray("x"), QByteArray(1 << 20, 'a'), noise(700001, 3),
                                 brindle::test::toneSamples(tone, 3)};
    for (const QByteArray& input : inputs) {
        QByteArray compressed = KRZlibCompression::zlibCompressionCompress(input);
        ASSERT_FALSE(compressed.isEmpty()) << "even an empty buffer gives a zlib stream";
        std::optional<QByteArray> restored = KRZlibCompression::zlibCompressionUncompress(compressed);
        ASSERT_TRUE(restored) << input.size();
        EXPECT_TRUE(*restored == input) << input.size();
    }
    EXPECT_LT(KRZlibCompression::zlibCompressionCompress(QByteArray(1 << 20, 'a')).size(), 8192);
}

TEST(KRZlibCompression, refusesDamagedTruncatedTrailingGarbageAndOversizedStreams)
{
    QByteArray input = noise(50000, 9) + QByteArray(50000, 'q');
    QByteArray good = KRZlibCompression::zlibCompressionCompress(input);
    ASSERT_TRUE(KRZlibCompression::zlibCompressionUncompress(good));
    QByteArray flipped = good;
    flipped[flipped.size() / 2] = char(flipped[flipped.size() / 2] ^ 0x10);
    QByteArray badChecksum = good;
    badChecksum[badChecksum.size() - 1] = char(badChecksum[badChecksum.size() - 1] ^ 0x01);
    const QByteArray damaged[] = {QByteArray(),        QByteArray("not zlib at all"), good.left(good.size() - 1),
                                  good.left(2),        good.left(good.size() / 2),    good + QByteArray("x"),
                                  good + good,         flipped,                       badChecksum};
    for (const QByteArray& bytes : damaged)
        EXPECT_FALSE(KRZlibCompression::zlibCompressionUncompress(bytes)) << bytes.size();

    // The output is capped at the maximum size, which may be zero.
    QByteArray z = KRZlibCompression::zlibCompressionCompress(QByteArray(100000, 'z'));
    EXPECT_TRUE(KRZlibCompression::zlibCompressionUncompress(z, 100000));
    EXPECT_FALSE(KRZlibCompression::zlibCompressionUncompress(z, 99999));
    EXPECT_FALSE(KRZlibCompression::zlibCompressionUncompress(z, 0));
    EXPECT_TRUE(KRZlibCompression::zlibCompressionUncompress(KRZlibCompression::zlibCompressionCompress({}), 0));
    // A small stream that would inflate past the default cap of 256 MiB stops at the cap.
    QByteArray bomb = KRZlibCompression::zlibCompressionCompress(QByteArray(qsizetype(257) << 20, '\0'));
    EXPECT_LT(bomb.size(), 2 << 20);
    EXPECT_FALSE(KRZlibCompression::zlibCompressionUncompress(bomb, 1 << 20));
    EXPECT_FALSE(KRZlibCompression::zlibCompressionUncompress(bomb));
}

namespace {

// zlib's own deflate of the whole buffer in one call, as compression used to
// call it for every buffer.
QByteArray zlibDeflate(const QByteArray& input, int level, int strategy)
{
    z_stream stream{};
    EXPECT_EQ(deflateInit2(&stream, level, Z_DEFLATED, 15, 8, strategy), Z_OK);
    QByteArray out(qsizetype(deflateBound(&stream, uLong(input.size()))), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.constData()));
    stream.avail_in = uInt(input.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = uInt(out.size());
    EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
    out.truncate(qsizetype(stream.total_out));
    deflateEnd(&stream);
    return out;
}

}  // namespace

// Stored streams are written without zlib: they must be zlib's level-0
// output byte for byte, at every block boundary; buffers where one byte in
// eight repeats its predecessor go to zlib's run-length coding, one repeat
// fewer does not.
TEST(KRZlibCompression, storesExactlyAsZlibDoesAndRunLengthCodesFromOneRepeatInEight)
{
    for (qsizetype size : {0, 1, 2, 31, 32, 33, 100, 4095, 9216, 32767, 32768, 65534, 65535, 65536, 65537, 131070,
                           131071, 200003}) {
        const QByteArray input = noise(size, uint32_t(size) + 1);
        // (An empty buffer has no bytes that fail to repeat: it is run-length coded.)
        ASSERT_EQ(KRZlibCompression::zlibCompressionCompress(input),
                  size == 0 ? zlibDeflate(input, Z_BEST_SPEED, Z_RLE) : zlibDeflate(input, 0, Z_DEFAULT_STRATEGY))
            << size;
        // The same stream from pieces that cross the block boundaries.
        std::vector<char> pieces(brindle::zlibstored::StoredStream::streamSize(size_t(size)));
        brindle::zlibstored::StoredStream stream(pieces.data(), size_t(size));
        for (qsizetype at = 0; at < size; at += 40000)
            stream.append(input.constData() + at, size_t(std::min<qsizetype>(40000, size - at)));
        ASSERT_TRUE(stream.finish());
        EXPECT_EQ(QByteArray(pieces.data(), qsizetype(pieces.size())), zlibDeflate(input, 0, Z_DEFAULT_STRATEGY)) << size;
    }

    // Noise bytes repeat their predecessor about once in 256: a repeated run
    // at the start brings the count to an exact share.
    for (qsizetype size : {64, 1000, 9219}) {
        QByteArray input = noise(size, 5);
        const auto* bytes = reinterpret_cast<const unsigned char*>(input.constData());
        size_t scalar = 0;
        for (qsizetype i = 1; i < size; ++i)
            scalar += bytes[i] == bytes[i - 1];
        ASSERT_EQ(brindle::zlibstored::repeatedBytes(bytes, size_t(size)), scalar) << size;
        for (qsizetype run = 1; run < size; ++run) {
            input[run] = input[0];
            const size_t repeated = brindle::zlibstored::repeatedBytes(bytes, size_t(size));
            if (repeated * 8 < size_t(size) - 8)
                continue;
            const bool runLength = repeated * 8 >= size_t(size);
            EXPECT_EQ(KRZlibCompression::zlibCompressionCompress(input),
                      runLength ? zlibDeflate(input, Z_BEST_SPEED, Z_RLE) : zlibDeflate(input, 0, Z_DEFAULT_STRATEGY))
                << size << " with " << repeated << " repeats";
            if (runLength)
                break;
        }
    }
}
