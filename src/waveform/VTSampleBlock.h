// The per-channel extremes of one stretch of a data provider's PCM.
//
// Contract
// - `initWithIndexOfDataProvider` reads `numberOfSamples` sample frames from
//   `indexOfSampleInDataProvider` and keeps, per channel, the largest and the
//   smallest value, as 64-bit floats in the sample's own scale (16-bit media
//   -32768..32767, 8-bit media 0..255, float media -1..1). The extremes start
//   from 0 (127, the silence level, for 8-bit media), not from the first
//   sample, so for signed formats max is never below 0 and min never above 0.
//   Only the frames that exist are scanned: a stretch past the media's end
//   keeps the starting extremes. An unknown sample format logs
//   "Cannot support such format." and keeps zero extremes. Null without a provider.
// - Binary form (little-endian unsigned 64-bit integers): index, count, M,
//   M bytes of maxima, N, N bytes of minima; `encodeSize` = M + N + 32.
//   `initWithData` refuses (null) data that ends before any field, M = 0 or
//   N = 0, and never reads past the data; trailing bytes are ignored.
// - Keyed coding: class "VTSampleBlock", keys "_indexOfSampleInDataProvider",
//   "_numberOfSamplesInDataProvider" (integers), "_minSamples", "_maxSamples" (data).
// - Immutable once made, so it may be shared between threads.
#pragma once

#include "foundation/KeyedCoding.h"
#include "media/VTDataProvider.h"

#include <QByteArray>
#include <QStringList>

#include <cstdint>
#include <memory>

class VTSampleBlock final : public brindle::KeyedCoding {
public:
    static std::shared_ptr<VTSampleBlock> initWithIndexOfDataProvider(uint64_t index, uint64_t numberOfSamples,
                                                                      const std::shared_ptr<VTDataProvider>& dataProvider);
    // The same, reading through `cursor`, which keeps the frame it unpacked
    // last for the next block of a walk.
    static std::shared_ptr<VTSampleBlock> initWithIndexOfDataProvider(uint64_t index, uint64_t numberOfSamples,
                                                                      const std::shared_ptr<VTDataProvider>& dataProvider,
                                                                      VTDataProvider::FrameCursor& cursor);
    // A block with the given fields as they are (for decoding and tests).
    static std::shared_ptr<VTSampleBlock> initWithFields(uint64_t index, uint64_t numberOfSamples, QByteArray maxSamples,
                                                         QByteArray minSamples);
    static std::shared_ptr<VTSampleBlock> initWithData(const QByteArray& data);

    uint64_t indexOfSampleInDataProvider() const { return m_indexOfSampleInDataProvider; }
    uint64_t numberOfSamplesInDataProvider() const { return m_numberOfSamplesInDataProvider; }
    // One 64-bit float per channel, channel 0 first.
    const QByteArray& maxSamples() const { return m_maxSamples; }
    const QByteArray& minSamples() const { return m_minSamples; }
    // The value of channel `channel` in either buffer; 0 when out of range.
    double maxSampleOfChannel(int64_t channel) const;
    double minSampleOfChannel(int64_t channel) const;

    uint64_t encodeSize() const;
    QByteArray encodeToData() const;

    // Keyed coding.
    static QStringList archiveClassNames();
    static std::shared_ptr<VTSampleBlock> initWithCoder(brindle::KeyedUnarchiver& coder);
    QString classNameForArchive() const override;
    void encodeWithCoder(brindle::KeyedArchiver& coder) const override;

private:
    VTSampleBlock(uint64_t index, uint64_t numberOfSamples) :
        m_indexOfSampleInDataProvider(index), m_numberOfSamplesInDataProvider(numberOfSamples)
    {
    }
    void scan(const VTDataProvider& dataProvider, VTDataProvider::FrameCursor& cursor);
    // Widens the per-channel extremes in `max` and `min` over the stretch.
    void scanInto(const VTDataProvider& dataProvider, VTDataProvider::FrameCursor& cursor, double* max,
                  double* min) const;

    uint64_t m_indexOfSampleInDataProvider = 0;
    uint64_t m_numberOfSamplesInDataProvider = 0;
    QByteArray m_maxSamples;
    QByteArray m_minSamples;
};
