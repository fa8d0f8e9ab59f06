#include "TimelineTestSupport.h"

#include "foundation/Dispatch.h"
#include "timeline/VTWaveCache.h"
#include "waveform/VTFeatureSample.h"

#include <QApplication>
#include <QMouseEvent>
#include <QOpenGLWidget>

#include <algorithm>
#include <cmath>

namespace brindle::test {

namespace {

QByteArray oneDouble(double value)
{
    return QByteArray(reinterpret_cast<const char*>(&value), sizeof value);
}

}  // namespace

FakeClip::FakeClip(QString identifier, int64_t start, int64_t duration, std::optional<QString> title) :
    id(std::move(identifier)), start(start), duration(duration), title(std::move(title))
{
}

void FakeClip::featureSamplesAtTimestamps(int64_t timestamp, int64_t durationOfTrack, int64_t withDurationPerPixel,
                                          ProcessHandler processHandler)
{
    uint64_t generation = 0;
    {
        std::lock_guard lock(m_deliveryMutex);
        generation = ++m_generation;
        m_delivered = 0;
    }
    ++m_requests;
    ++m_pending;
    const int64_t zoom = std::max<int64_t>(withDurationPerPixel, 1);
    const int64_t trackStart = start, media = mediaStart;
    const double peak = amplitude;
    std::shared_ptr<FakeClip> self = shared_from_this();
    brindle::globalQueue().async([=] {
        for (int64_t at = timestamp + zoom; at < timestamp + durationOfTrack; at += zoom) {
            auto point = VTFeatureSample::initWithTimestampOfDp(media + (at - trackStart), zoom);
            point->setNumberOfChannel(1);
            point->setMaxSamples(oneDouble(peak));
            point->setMinSamples(oneDouble(-peak));
            std::lock_guard lock(self->m_deliveryMutex);
            if (self->m_generation != generation)
                break;
            processHandler({point});
            ++self->m_delivered;
        }
        --self->m_pending;
    });
}

std::shared_ptr<FakeClip> FakeDataSource::addClip(uint64_t track, const QString& identifier, int64_t start,
                                                  int64_t duration, std::optional<QString> title)
{
    if (tracks.size() <= track)
        tracks.resize(track + 1);
    auto clip = std::make_shared<FakeClip>(identifier, start, duration, std::move(title));
    tracks[track].push_back(clip);
    return clip;
}

std::shared_ptr<FakeClip> FakeDataSource::clip(const QString& identifier, uint64_t* track) const
{
    for (uint64_t index = 0; index < tracks.size(); ++index) {
        for (const auto& clip : tracks[index]) {
            if (clip->id != identifier)
                continue;
            if (track)
                *track = index;
            return clip;
        }
    }
    return nullptr;
}

uint64_t FakeDataSource::numberOfClips(VTTimelineView*, uint64_t atTrackIndex)
{
    return atTrackIndex < tracks.size() ? tracks[atTrackIndex].size() : 0;
}

std::shared_ptr<VTTimelineClip> FakeDataSource::clipAtIndex(uint64_t index, uint64_t ofTrackIndex, VTTimelineView*)
{
    return ofTrackIndex < tracks.size() && index < tracks[ofTrackIndex].size() ? tracks[ofTrackIndex][index] : nullptr;
}

std::shared_ptr<VTTimelineClip> FakeDataSource::clipWithIdentifer(const QString& identifier, VTTimelineView*)
{
    return clip(identifier);
}

VTTimelineViewDataSource::ClipList FakeDataSource::clipsWithIdentifers(const QStringList& identifiers,
                                                                       VTTimelineView*)
{
    ClipList clips;
    for (const QString& identifier : identifiers) {
        if (auto found = clip(identifier))
            clips.push_back(found);
    }
    return clips;
}

int64_t FakeDataSource::duration(VTTimelineView*)
{
    if (projectDuration)
        return *projectDuration;
    int64_t end = 0;
    for (const auto& track : tracks) {
        for (const auto& clip : track)
            end = std::max(end, clip->start + clip->duration);
    }
    return end;
}

std::optional<uint64_t> FakeDataSource::trackIndexWithClipIdentifer(const QString& identifier, VTTimelineView*)
{
    uint64_t track = VTTimelineViewDelegate::kNotFound;
    if (!tellsTrackIndexes)
        return std::nullopt;
    clip(identifier, &track);
    return track;
}

QPointF viewportPosition(VTTimelineView& view, const QPointF& documentPoint)
{
    const QRectF visible = view.visibleRect();
    return QPointF(documentPoint.x() - visible.x(), visible.y() + visible.height() - documentPoint.y());
}

void mouseAtViewport(VTTimelineView& view, MouseAction action, const QPointF& position,
                     Qt::KeyboardModifiers modifiers)
{
    static const struct {
        QEvent::Type type;
        Qt::MouseButton button;
        Qt::MouseButtons buttons;
    } kinds[] = {{QEvent::MouseButtonPress, Qt::LeftButton, Qt::LeftButton},
                 {QEvent::MouseMove, Qt::NoButton, Qt::LeftButton},
                 {QEvent::MouseButtonRelease, Qt::LeftButton, Qt::NoButton},
                 {QEvent::MouseMove, Qt::NoButton, Qt::NoButton}};
    const auto& kind = kinds[int(action)];
    QWidget* viewport = view.viewport();
    QMouseEvent event(kind.type, position, viewport->mapToGlobal(position), kind.button, kind.buttons, modifiers);
    QApplication::sendEvent(viewport, &event);
}

QColor pixelAt(const QImage& frame, VTTimelineView& view, const QPointF& documentPoint)
{
    const QRectF visible = view.visibleRect();
    const int column = int(std::floor(documentPoint.x() - visible.x()));
    const int row = int(visible.height()) - 1 - int(std::floor(documentPoint.y() - visible.y()));
    if (column < 0 || row < 0 || column >= frame.width() || row >= frame.height())
        return QColor();
    return frame.pixelColor(column, row);
}

::testing::AssertionResult colourNear(const QColor& actual, int red, int green, int blue, int tolerance)
{
    if (actual.isValid() && std::abs(actual.red() - red) <= tolerance && std::abs(actual.green() - green) <= tolerance
        && std::abs(actual.blue() - blue) <= tolerance)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "colour (" << actual.red() << ", " << actual.green() << ", "
                                         << actual.blue() << ") is not (" << red << ", " << green << ", " << blue
                                         << ") ±" << tolerance;
}

::testing::AssertionResult columnNear(const QImage& frame, VTTimelineView& view, double x, double y, int red,
                                      int green, int blue, int radius)
{
    ::testing::AssertionResult last = ::testing::AssertionFailure();
    for (int offset = -radius; offset <= radius; ++offset) {
        last = colourNear(pixelAt(frame, view, QPointF(x + offset, y)), red, green, blue);
        if (last)
            return last;
    }
    return ::testing::AssertionFailure() << "no pixel within " << radius << " of x " << x << ": " << last.message();
}

bool waitForWaveforms(VTTimelineView& view, const std::vector<std::shared_ptr<FakeClip>>& clips)
{
    return brindle::runMainQueueUntil(
        [&] {
            return std::all_of(clips.begin(), clips.end(), [&](const std::shared_ptr<FakeClip>& clip) {
                const auto cache = view.clipCacheWithIdentifier(clip->id);
                return clip->idle() && cache && int64_t(cache->numberOfFeatureSamples()) == clip->delivered();
            });
        },
        5000);
}

}  // namespace brindle::test
