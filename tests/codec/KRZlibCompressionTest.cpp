#include "codec/Adler32.h"
#include "codec/KRZlibCompression.h"

#include "support/TestMedia.h"

#include <gtest/gtest.h>

#include <zlib.h>

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
