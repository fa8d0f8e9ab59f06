#include "codec/KRAudioFrameRecordWriter.h"

#include "codec/KRAudioFrame2.h"
#include "codec/KRZlibCompression.h"
#include "codec/ZlibStoredStream.h"
#include "foundation/KeyedCoding.h"

#include <algorithm>
#include <cstring>

using namespace brindle::zlibstored;

namespace {

bool sameShape(int32_t format, int64_t channels, int64_t rate, int32_t samples, const KRAudioFrame2& frame)
{
    return format == frame.sampleFormat() && channels == frame.numberOfChannel() && rate == frame.sampleRate() &&
           samples == frame.numberOfSamples();
}

const unsigned char* bytesOf(const QByteArray& bytes)
{
    return reinterpret_cast<const unsigned char*>(bytes.constData());
}

}  // namespace

KRAudioFrameRecordWriter::Layout KRAudioFrameRecordWriter::learnLayout(const KRAudioFrame2& frame)
{
    Layout layout;
    layout.sampleFormat = frame.sampleFormat();
    layout.numberOfChannel = frame.numberOfChannel();
    layout.sampleRate = frame.sampleRate();
    layout.numberOfSamples = frame.numberOfSamples();

    const QByteArray& samples = frame.dataOfPackedSamples();
    QByteArray inverted(samples.size(), Qt::Uninitialized);
    for (qsizetype i = 0; i < samples.size(); ++i)
        inverted[i] = char(~samples[i]);
    const auto other = KRAudioFrame2::initWithSampleFormat(frame.sampleFormat(), frame.numberOfChannel(),
                                                           frame.sampleRate(), frame.numberOfSamples(), inverted);
    if (!other || samples.isEmpty())
        return layout;
    const QByteArray archive = brindle::KeyedArchiver::archivedDataWithRootObject(frame);
    const QByteArray otherArchive = brindle::KeyedArchiver::archivedDataWithRootObject(*other);
    if (archive.size() != otherArchive.size() || archive.size() < samples.size())
        return layout;
    const auto size = size_t(archive.size());
    size_t front = 0;
    while (front < size && archive[qsizetype(front)] == otherArchive[qsizetype(front)])
        ++front;
    size_t back = 0;
    while (back < size - front && archive[qsizetype(size - 1 - back)] == otherArchive[qsizetype(size - 1 - back)])
        ++back;
    // Every sample byte differs from its inverse, so a verbatim copy of the
    // samples is exactly what the two archives do not share.
    if (front + size_t(samples.size()) + back != size ||
        std::memcmp(archive.constData() + front, samples.constData(), size_t(samples.size())) != 0)
        return layout;
    layout.before.assign(bytesOf(archive), bytesOf(archive) + front);
    layout.after.assign(bytesOf(archive) + front + size_t(samples.size()), bytesOf(archive) + size);
    layout.repeatedInFraming = repeatedBytes(layout.before.data(), layout.before.size()) +
                               repeatedBytes(layout.after.data(), layout.after.size());
    layout.usable = true;
    return layout;
}

const KRAudioFrameRecordWriter::Layout& KRAudioFrameRecordWriter::layoutOf(const KRAudioFrame2& frame)
{
    for (const Layout& layout : m_layouts) {
        if (sameShape(layout.sampleFormat, layout.numberOfChannel, layout.sampleRate, layout.numberOfSamples, frame))
            return layout;
    }
    Layout learned = learnLayout(frame);
    if (m_layouts.size() < kLayouts) {
        m_layouts.push_back(std::move(learned));
        return m_layouts.back();
    }
    Layout& slot = m_layouts[m_nextLayout];
    m_nextLayout = (m_nextLayout + 1) % kLayouts;
    slot = std::move(learned);
    return slot;
}

bool KRAudioFrameRecordWriter::writeGeneric(const KRAudioFrame2& frame, std::vector<char>& record)
{
    ++m_genericRecords;
    const QByteArray bytes =
        KRZlibCompression::zlibCompressionCompress(brindle::KeyedArchiver::archivedDataWithRootObject(frame));
    record.assign(bytes.constData(), bytes.constData() + bytes.size());
    return !bytes.isEmpty();
}

bool KRAudioFrameRecordWriter::write(const KRAudioFrame2& frame, std::vector<char>& record)
{
    const Layout& layout = layoutOf(frame);
    const QByteArray& samples = frame.dataOfPackedSamples();
    if (!layout.usable || samples.isEmpty())
        return writeGeneric(frame, record);

    // The archive's repeats: inside the framing, inside the samples, and
    // where the samples meet the framing on either side.
    const unsigned char* data = bytesOf(samples);
    const auto count = size_t(samples.size());
    size_t repeated = layout.repeatedInFraming + repeatedBytes(data, count);
    if (!layout.before.empty())
        repeated += layout.before.back() == data[0];
    if (!layout.after.empty())
        repeated += data[count - 1] == layout.after.front();
    const size_t total = layout.before.size() + count + layout.after.size();
    if (prefersRunLength(repeated, total))
        return writeGeneric(frame, record);

    record.resize(StoredStream::streamSize(total));
    StoredStream stream(record.data(), total);
    stream.append(layout.before.data(), layout.before.size());
    stream.append(data, count);
    stream.append(layout.after.data(), layout.after.size());
    return stream.finish();
}
