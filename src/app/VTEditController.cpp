#include "app/VTEditController.h"

#include "app/AppDelegate.h"
#include "app/KRCommandStackMgr.h"
#include "app/KRTimerView.h"
#include "app/MainWindow.h"
#include "app/VTImportExportController.h"
#include "app/VTMixedCheckBox.h"
#include "foundation/KeyedCoding.h"
#include "foundation/KeyedStandard.h"
#include "foundation/Log.h"
#include "foundation/VTBaseDefine.h"
#include "media/VTDataProviderMgr.h"
#include "model/VTClip.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"
#include "timeline/VTTimelineView.h"
#include "waveform/VTProjectAdapter.h"

#include <QFileInfo>
#include <QMimeData>
#include <QSlider>
#include <QUrl>

#include <algorithm>
#include <cmath>

Q_DECLARE_METATYPE(std::shared_ptr<KRCommand>)

namespace {

const QString kVTClipObjects = QStringLiteral("kVTClipObjects");
const QString kVTTrackInformation = QStringLiteral("kVTTrackInformation");

// How far the View menu's zoom commands move the zoom value.
constexpr double kMenuZoomStep = 0.1;

}  // namespace

const QString VTEditController::kVTCommandObject = QStringLiteral("kVTCommandObject");

VTEditController::VTEditController(AppDelegate& app) : m_app(app) {}

VTEditController::~VTEditController() = default;

void VTEditController::commitChange(const std::shared_ptr<KRCommand>& command)
{
    m_app.project()->setNeedSaved(true);
    m_app.timelineView()->reloadData();
    command->endExcute();
    KRCommandStackMgr::shareCommandStackMgr().addUndoCommand(command);
    m_app.validateMenuItems();
}

// --- Snapshots --------------------------------------------------------------

QByteArray VTEditController::editSnapshot() const
{
    const auto project = m_app.project();
    std::vector<brindle::ConstKeyedObjectPtr> clips;
    auto trackInformation = std::make_shared<brindle::KeyedDictionary>();
    for (const auto& clip : project->clipsWithIdentifiers(project->selections())) {
        clips.push_back(std::make_shared<brindle::KeyedData>(brindle::KeyedArchiver::archivedDataWithRootObject(*clip)));
        const int64_t trackIndex = project->trackIndexWithClip(*clip);
        trackInformation->setObjectForKey(brindle::KeyedNumber::fromUnsigned(static_cast<uint64_t>(trackIndex)),
                                          clip->identifier());
    }
    auto snapshot = std::make_shared<brindle::KeyedDictionary>();
    snapshot->setObjectForKey(std::make_shared<brindle::KeyedArray>(std::move(clips)), kVTClipObjects);
    snapshot->setObjectForKey(trackInformation, kVTTrackInformation);
    return brindle::KeyedArchiver::archivedDataWithRootObject(snapshot);
}

std::optional<QByteArray> VTEditController::saveContextState(const KRCommand& command)
{
    switch (command.type()) {
    case KRCommand::kRemove:
    case KRCommand::kAdd:
    case KRCommand::kExchange:
        return brindle::KeyedArchiver::archivedDataWithRootObject(*m_app.project());
    case KRCommand::kEdit:
        return editSnapshot();
    default:
        return std::nullopt;
    }
}

void VTEditController::restoreProjectSnapshot(const QByteArray& state)
{
    auto project = brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTProject>(state);
    if (!project) {
        brindle::log(QStringLiteral("Undo: the recorded project could not be read back; nothing was changed."));
        return;
    }
    // The restored project differs from what is on disk (or was never
    // saved), so closing must still ask.
    project->setNeedSaved(true);
    m_app.updateWithProjectAdapter(VTProjectAdapter::initWithProject(std::move(project)));
}

void VTEditController::restoreEditSnapshot(const QByteArray& state)
{
    auto snapshot = brindle::KeyedUnarchiver::unarchivedObjectOfClass<brindle::KeyedDictionary>(state);
    auto clipList = snapshot ? snapshot->objectOfClassForKey<brindle::KeyedArray>(kVTClipObjects) : nullptr;
    auto trackInformation = snapshot ? snapshot->objectOfClassForKey<brindle::KeyedDictionary>(kVTTrackInformation)
                                     : nullptr;
    if (!clipList || !trackInformation) {
        brindle::log(QStringLiteral("Undo: the recorded clips could not be read back; nothing was changed."));
        return;
    }
    VTProject::ClipList clips;
    QHash<QString, int64_t> trackInfo;
    for (const auto& element : clipList->objects()) {
        auto data = std::dynamic_pointer_cast<const brindle::KeyedData>(element);
        auto clip = data ? brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTClip>(data->data()) : nullptr;
        auto index = clip ? trackInformation->objectOfClassForKey<brindle::KeyedNumber>(clip->identifier()) : nullptr;
        if (!clip || !index)
            continue;
        trackInfo.insert(clip->identifier(), static_cast<int64_t>(std::min<uint64_t>(
                                                 index->unsignedValue(), static_cast<uint64_t>(VTProject::kNotFound))));
        clips.push_back(std::move(clip));
    }
    const auto project = m_app.project();
    project->replacementWithClips(clips, trackInfo);
    const QStringList identifiers = VTProject::identifiersWithClips(clips);
    m_app.timelineView()->invalidateClipCachesWithIdentifiers(identifiers);
    m_app.projectAdapter()->removeSampleCachesWithClipIDs(identifiers);
}

void VTEditController::restoreContextState(const QByteArray& state, const KRCommand& withCommand)
{
    switch (withCommand.type()) {
    case KRCommand::kRemove:
    case KRCommand::kAdd:
    case KRCommand::kExchange:
        restoreProjectSnapshot(state);
        break;
    case KRCommand::kEdit:
        restoreEditSnapshot(state);
        break;
    default:
        break;
    }
}

// --- Menu actions -----------------------------------------------------------

void VTEditController::undo()
{
    m_app.project()->setNeedSaved(true);
    KRCommandStackMgr::shareCommandStackMgr().undo();
    m_app.timelineView()->reloadData();
    m_app.enableFace();
}

void VTEditController::redo()
{
    m_app.project()->setNeedSaved(true);
    KRCommandStackMgr::shareCommandStackMgr().redo();
    m_app.timelineView()->reloadData();
    m_app.enableFace();
}

void VTEditController::copy()
{
    m_app.project()->copy();
    m_app.validateMenuItems();
}

void VTEditController::cut()
{
    auto command = KRCommand::removeCommandWithContext(this);
    command->beginExcute();
    if (m_app.project()->cut())
        commitChange(command);
}

void VTEditController::paste()
{
    auto command = KRCommand::addCommandWithContext(this);
    command->beginExcute();
    if (m_app.project()->paste())
        commitChange(command);
}

void VTEditController::delete_()
{
    auto command = KRCommand::removeCommandWithContext(this);
    command->beginExcute();
    const auto project = m_app.project();
    if (!project->delete_())
        return;
    project->setSelections({});
    commitChange(command);
    m_app.enableFace();
}

void VTEditController::selectAll()
{
    m_app.project()->selectAll();
    m_app.timelineView()->reloadData();
    m_app.validateMenuItems();
}

void VTEditController::moveLeft()
{
    auto command = KRCommand::editCommandWithContext(this);
    command->beginExcute();
    const auto delta = static_cast<int64_t>(m_app.timelineView()->durationPerPixel());
    if (!m_app.project()->moveLeftWithDelta(delta))
        return;
    m_app.timelineView()->reloadData();
    command->endExcute();
    KRCommandStackMgr::shareCommandStackMgr().addUndoCommand(command);
    m_app.validateMenuItems();
}

void VTEditController::moveRight()
{
    auto command = KRCommand::editCommandWithContext(this);
    command->beginExcute();
    const auto delta = static_cast<int64_t>(m_app.timelineView()->durationPerPixel());
    if (!m_app.project()->moveRightWithDelta(delta))
        return;
    m_app.timelineView()->reloadData();
    command->endExcute();
    KRCommandStackMgr::shareCommandStackMgr().addUndoCommand(command);
    m_app.validateMenuItems();
}

void VTEditController::splitClk()
{
    // Stops a playing mix and shows "play" (a paused one stays paused).
    m_app.playback().stopAudioPlay();
    auto command = KRCommand::addCommandWithContext(this);
    command->beginExcute();
    const auto project = m_app.project();
    // The split always answers a (possibly empty) table, which counts as a change.
    project->splitSelectionAtTimestamp(project->timePosition());
    commitChange(command);
}

// --- Fades, volume and zoom from the controls ---------------------------------

void VTEditController::checkFadeIn(VTMixedCheckBox* sender)
{
    if (sender->state() == VTMixedCheckBox::kMixed)
        sender->setState(VTMixedCheckBox::kOn);
    setSelectionFade(sender);
}

void VTEditController::checkFadeOut(VTMixedCheckBox* sender)
{
    checkFadeIn(sender);
}

void VTEditController::setSelectionFade(VTMixedCheckBox* checkBox)
{
    m_app.playback().stopAudioPlay();
    auto command = KRCommand::editCommandWithContext(this);
    command->beginExcute();
    if (checkBox->state() == VTMixedCheckBox::kMixed)
        return;
    const bool wanted = checkBox->state() == VTMixedCheckBox::kOn;
    const auto project = m_app.project();
    bool changed = false;
    for (const QString& identifier : project->selections()) {
        auto clip = project->clipWithIdentifier(identifier);
        if (!clip)
            continue;
        const bool fadeIn = checkBox->tag() == 0;
        if ((fadeIn ? clip->enableFadeIn() : clip->enableFadeOut()) == wanted)
            continue;
        if (fadeIn)
            clip->setEnableFadeIn(wanted);
        else
            clip->setEnableFadeOut(wanted);
        m_app.timelineView()->invalidateClipCacheWithIdentifier(identifier);
        changed = true;
    }
    if (changed)
        commitChange(command);
}

void VTEditController::minVolumeClk()
{
    QSlider* slider = m_app.window()->volumeSlider();
    const double volume = MainWindow::sliderValue(slider) - 0.005;
    MainWindow::setSliderValue(slider, volume);
    setSelectsVolume(volume);
}

void VTEditController::maxVolumeClk()
{
    QSlider* slider = m_app.window()->volumeSlider();
    // The slider may clamp what it shows; the clips get the value itself.
    const double volume = MainWindow::sliderValue(slider) + 0.005;
    MainWindow::setSliderValue(slider, volume);
    setSelectsVolume(volume);
}

void VTEditController::onVolumeChanged()
{
    setSelectsVolume(MainWindow::sliderValue(m_app.window()->volumeSlider()));
}

void VTEditController::setSelectsVolume(double volume)
{
    auto command = KRCommand::editCommandWithContext(this);
    command->beginExcute();
    const auto project = m_app.project();
    QStringList changed;
    for (const auto& clip : project->clipsWithIdentifiers(project->selections())) {
        if (std::fabs(clip->volume() - volume) <= VTBaseDefine::expression())
            continue;
        clip->setVolume(volume);
        changed << clip->identifier();
    }
    if (changed.isEmpty())
        return;
    project->setNeedSaved(true);
    m_app.timelineView()->invalidateClipCachesWithIdentifiers(changed);
    m_app.timelineView()->reloadData();
    command->endExcute();
    KRCommandStackMgr::shareCommandStackMgr().addUndoCommand(command);
    m_app.validateMenuItems();
}

void VTEditController::minZoomClk()
{
    QSlider* slider = m_app.window()->zoomSlider();
    const double value = MainWindow::sliderValue(slider);
    const double zoom = std::max(value - (value > 0.5 ? 0.01 : 0.005), 0.0);
    MainWindow::setSliderValue(slider, zoom);
    setTimelineViewZoomvalue(zoom);
}

void VTEditController::maxZoomClk()
{
    QSlider* slider = m_app.window()->zoomSlider();
    const double value = MainWindow::sliderValue(slider);
    const double zoom = std::min(value + (value > 0.5 ? 0.01 : 0.005), 1.0);
    MainWindow::setSliderValue(slider, zoom);
    setTimelineViewZoomvalue(zoom);
}

void VTEditController::zoomIn()
{
    QSlider* slider = m_app.window()->zoomSlider();
    const double zoom = std::min(MainWindow::sliderValue(slider) + kMenuZoomStep, 1.0);
    MainWindow::setSliderValue(slider, zoom);
    setTimelineViewZoomvalue(zoom);
}

void VTEditController::zoomOut()
{
    QSlider* slider = m_app.window()->zoomSlider();
    const double zoom = std::max(MainWindow::sliderValue(slider) - kMenuZoomStep, 0.0);
    MainWindow::setSliderValue(slider, zoom);
    setTimelineViewZoomvalue(zoom);
}

void VTEditController::onZoomChanged()
{
    setTimelineViewZoomvalue(MainWindow::sliderValue(m_app.window()->zoomSlider()));
}

void VTEditController::setTimelineViewZoomvalue(double zoomValue)
{
    VTTimelineView* timeline = m_app.timelineView();
    if (std::fabs(timeline->zoomValue() - zoomValue) <= VTBaseDefine::expression())
        return;
    timeline->setZoomValue(zoomValue);
    timeline->reloadData();
}

// --- Timeline delegate -----------------------------------------------------

bool VTEditController::respondsTo(Operation) const
{
    return true;
}

void VTEditController::selectionsChanged(const QStringList& selections, VTTimelineView*)
{
    m_app.project()->setSelections(selections);
    m_app.enableFace();
}

void VTEditController::currentPositionChanged(int64_t timestamp, VTTimelineView*)
{
    m_app.playback().seekToTimeposition(timestamp);
    m_app.timerView()->setMillSeconds(m_app.project()->timePosition());
}

VTTimelineViewDelegate::Attributes VTEditController::timelineViewWillContinueChange(VTTimelineView*)
{
    auto command = KRCommand::editCommandWithContext(this);
    command->beginExcute();
    Attributes attributes;
    attributes.insert(kVTCommandObject, QVariant::fromValue(command));
    return attributes;
}

void VTEditController::timelineViewDidContinueChange(VTTimelineView* timelineView, const Attributes& attributes)
{
    auto command = attributes.value(kVTCommandObject).value<std::shared_ptr<KRCommand>>();
    if (!command)
        return;
    command->endExcute();
    KRCommandStackMgr::shareCommandStackMgr().addUndoCommand(command);
    timelineView->reloadData();
    m_app.enableFace();
}

void VTEditController::fadeInDurationChanged(const ValueDictionary& values, VTTimelineView*)
{
    m_app.playback().stopAudioPlay();
    const auto project = m_app.project();
    for (auto it = values.cbegin(); it != values.cend(); ++it) {
        if (auto clip = project->clipWithIdentifier(it.key())) {
            project->setNeedSaved(true);
            clip->setDurationOfFadeIn(it.value());
        }
    }
}

void VTEditController::fadeOutDurationChanged(const ValueDictionary& values, VTTimelineView*)
{
    m_app.playback().stopAudioPlay();
    const auto project = m_app.project();
    for (auto it = values.cbegin(); it != values.cend(); ++it) {
        if (auto clip = project->clipWithIdentifier(it.key())) {
            project->setNeedSaved(true);
            clip->setDurationOfFadeOut(it.value());
        }
    }
}

void VTEditController::cutAtStartClips(const ValueDictionary& values, VTTimelineView*)
{
    m_app.playback().stopAudioPlay();
    const auto project = m_app.project();
    for (auto it = values.cbegin(); it != values.cend(); ++it) {
        if (auto clip = project->clipWithIdentifier(it.key())) {
            project->setNeedSaved(true);
            clip->cutStartWithTimestamp(it.value());
        }
    }
}

void VTEditController::cutAtEndClips(const ValueDictionary& values, VTTimelineView*)
{
    m_app.playback().stopAudioPlay();
    const auto project = m_app.project();
    for (auto it = values.cbegin(); it != values.cend(); ++it) {
        if (auto clip = project->clipWithIdentifier(it.key())) {
            project->setNeedSaved(true);
            clip->cutEndWithDuration(it.value());
        }
    }
}

void VTEditController::moveClipsTrack(const TrackDictionary& values, VTTimelineView*)
{
    m_app.playback().stopAudioPlay();
    const auto project = m_app.project();
    for (auto it = values.cbegin(); it != values.cend(); ++it) {
        if (auto clip = project->clipWithIdentifier(it.key())) {
            project->setNeedSaved(true);
            project->moveClip(clip, static_cast<int64_t>(it.value()));
        }
    }
}

void VTEditController::timestampChanged(const ValueDictionary& values, VTTimelineView* timelineView)
{
    m_app.playback().stopAudioPlay();
    const auto project = m_app.project();
    // Eight pixels at the current zoom.
    const int64_t snap = 8 * static_cast<int64_t>(timelineView->durationPerPixel());
    const int64_t cursor = project->timePosition();
    for (auto it = values.cbegin(); it != values.cend(); ++it) {
        auto clip = project->clipWithIdentifier(it.key());
        if (!clip)
            continue;
        project->setNeedSaved(true);
        const auto track = project->trackWithClip(*clip);
        const int64_t start = it.value();
        const int64_t length = clip->durationOfTrack();
        auto placed = [&]() -> int64_t {
            if (std::llabs(start - cursor) < snap)
                return cursor;
            if (std::llabs(start + length - cursor) < snap && cursor - length >= 0)
                return cursor - length;
            if (!track)
                return start;
            for (int64_t edge : track->attractBeforeTimestampsWithClip(*clip)) {
                if (std::llabs(start - edge) < snap)
                    return edge;
            }
            for (int64_t edge : track->attractAfterTimestampsWithClip(*clip)) {
                if (std::llabs(start + length - edge) < snap && edge - length >= 0)
                    return edge - length;
            }
            return start;
        };
        clip->setTimestampOfTrack(placed());
    }
}

bool VTEditController::dragOutClips(const QStringList& identifiers, VTTimelineView*)
{
    m_app.playback().stopAudioPlay();
    const auto project = m_app.project();
    project->setNeedSaved(true);
    auto command = KRCommand::removeCommandWithContext(this);
    command->beginExcute();
    if (!project->removeClipsWithIdentifer(identifiers))
        return false;
    command->endExcute();
    KRCommandStackMgr::shareCommandStackMgr().addUndoCommand(command);
    m_app.enableFace();
    return true;
}

bool VTEditController::dropOperationWithPasteboard(const QMimeData& pasteboard, uint64_t atTrackIndex,
                                                   int64_t timestamp, VTTimelineView*)
{
    if (!pasteboard.hasUrls())
        return false;
    m_app.playback().stopAudioPlay();
    const QString documentExtension = VTProject::documentType().constFirst();
    const QStringList mediaExtensions = VTDataProviderMgr::supportFormats();
    QList<QUrl> media;
    for (const QUrl& url : pasteboard.urls()) {
        if (!url.isLocalFile())
            continue;
        const QString extension = QFileInfo(url.toLocalFile()).suffix().toLower();
        if (extension == documentExtension) {
            m_app.applicationOpenFile(url.toLocalFile());
            return true;
        }
        if (mediaExtensions.contains(extension))
            media << url;
    }
    if (media.isEmpty())
        return false;
    m_app.importExport().importMediaWithURLs(media, timestamp, atTrackIndex);
    return true;
}
