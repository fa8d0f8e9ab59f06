#include "codec/KRZlibCompression.h"

#include "support/TestMedia.h"

#include <gtest/gtest.h>

namespace {

QByteArray noise(qsizetype size, uint32_t seed)
{
    brindle::test::ToneSpec spec;
    spec.channels = 1;
    spec.frames = size;
    spec.seed = seed;
    spec.amplitude = 0.0;
    spec.noise = 1.0;
    return brindle::test::toneSamples(spec, 0);  // one byte per sample
}

}  // namespace

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

TEST(KRZlibCompression, refusesDamagedTruncatedAndTrailingGarbageStreams)
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
}

TEST(KRZlibCompression, outputIsCappedAtTheMaximumSize)
{
    QByteArray input(100000, 'z');
    QByteArray compressed = KRZlibCompression::zlibCompressionCompress(input);
    EXPECT_TRUE(KRZlibCompression::zlibCompressionUncompress(compressed, input.size()));
    EXPECT_FALSE(KRZlibCompression::zlibCompressionUncompress(compressed, input.size() - 1));
    EXPECT_FALSE(KRZlibCompression::zlibCompressionUncompress(compressed, 0));
    EXPECT_TRUE(KRZlibCompression::zlibCompressionUncompress(KRZlibCompression::zlibCompressionCompress({}), 0));

    // A small stream that would inflate past the default cap of 256 MiB stops at the cap.
    QByteArray bomb = KRZlibCompression::zlibCompressionCompress(QByteArray(qsizetype(257) << 20, '\0'));
    EXPECT_LT(bomb.size(), 2 << 20);
    EXPECT_FALSE(KRZlibCompression::zlibCompressionUncompress(bomb, 1 << 20));
    EXPECT_FALSE(KRZlibCompression::zlibCompressionUncompress(bomb)) ;
}
