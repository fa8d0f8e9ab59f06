#include "export/VTAudioExporter.h"

#include "codec/KRAudioFrame2.h"
#include "codec/KRMuxerContext.h"
#include "codec/KRTimebase.h"
#include "export/KRExportSettings.h"
#include "foundation/Log.h"
#include "model/MixSource.h"
#include "model/VTMixContext.h"
#include "model/VTProject.h"

#include <algorithm>
#include <cstring>

namespace {

// A mix that goes on this long past the project's end is stopped.
constexpr int64_t kRunawayMilliseconds = 10000;
// Blocks the mixing thread may have ready before the muxer takes them.
constexpr int kMixAheadBlocks = 8;

}  // namespace

VTAudioExporter::Options VTAudioExporter::Options::withSettings(const KRExportSettings& settings)
{
    Options options;
    options.formatType = settings.formatType();
    options.sampleRate = settings.sampleRate();
    options.bitrate = settings.bitrate();
    options.sampleFormat = settings.sampleFormat();
    options.numberOfChannel = settings.numberOfChannel();
    return options;
}

std::shared_ptr<VTAudioExporter> VTAudioExporter::initWithProject(std::shared_ptr<VTProject> project)
{
    if (!project) {
        brindle::log(QStringLiteral("VTAudioExporter: no project to export"));
        return nullptr;
    }
    return std::shared_ptr<VTAudioExporter>(new VTAudioExporter(std::move(project)));
}

VTAudioExporter::VTAudioExporter(std::shared_ptr<VTProject> project) : m_project(std::move(project)) {}

VTAudioExporter::~VTAudioExporter() = default;

int64_t VTAudioExporter::outLength() const
{
    return m_project->duration() * KRTimebase / 1000;
}

std::shared_ptr<KRMuxerTask> VTAudioExporter::refuse(const QString& message, const KRMuxerTask::Block& block,
                                                     brindle::DispatchQueue* callbackQueue)
{
    m_errorMessage = message;
    brindle::log(QStringLiteral("VTAudioExporter: ") + message);
    if (block) {
        if (callbackQueue)
            callbackQueue->async([block] { block(KRMuxerTaskActionComplete, QVariant(1)); });
        else
            block(KRMuxerTaskActionComplete, QVariant(1));
    }
    return nullptr;
}

std::shared_ptr<KRMuxerTask> VTAudioExporter::exportAduioToFile(const QString& path, int32_t formatType,
                                                                KRMuxerTask::Block block,
                                                                brindle::DispatchQueue* callbackQueue)
{
    if (auto running = m_runningTask.lock(); running && running->result() < 0)
        return refuse(QStringLiteral("an export is already running"), block, callbackQueue);
    m_options.formatType = formatType;
    const Options& options = m_options;
    const int64_t duration = m_project->duration();
    if (duration <= 0)
        return refuse(QStringLiteral("the project is empty; there is nothing to export"), block, callbackQueue);
    if (options.sampleFormat != 1 && options.sampleFormat != 3)
        return refuse(QStringLiteral("the mix cannot produce sample format %1").arg(options.sampleFormat), block,
                      callbackQueue);
    if (options.sampleRate < 1 || options.sampleRate > 768000 || options.numberOfChannel < 1 ||
        options.numberOfChannel > 8)
        return refuse(QStringLiteral("cannot export %1 channels at %2 Hz")
                          .arg(options.numberOfChannel)
                          .arg(options.sampleRate),
                      block, callbackQueue);

    auto muxer = KRMuxerContext::initWithFilename(path, formatType);
    muxer->setAudioBitrate(options.bitrate);
    muxer->setSampleFormat(options.sampleFormat);
    muxer->setNumberOfChannels(options.numberOfChannel);
    muxer->setSamplerate(options.sampleRate);
    muxer->setTitle(options.title.isEmpty() ? m_project->title() : options.title);

    auto mixContext = VTMixContext::initWithSamplerate(options.sampleRate, options.numberOfChannel,
                                                       options.sampleFormat);
    // Every pull asks for one block size and nobody edits the project while
    // it exports: the clips are read and converted ahead, on every core.
    mixContext->setConvertsAhead(true);
    m_project->startMixWithContext(*mixContext);
    m_project->seekToTimestamp(0, *mixContext);
    m_outNumberOfSamples = 0;

    // The buffers of the run, made now so that no block allocates.
    const int64_t blockBytes = defaultBlockSampleCount() * mixContext->bytesPerSample();
    m_blockBuffer = QByteArray(static_cast<qsizetype>(blockBytes), '\0');
    m_frame = KRAudioFrame2::initWithSampleFormat(options.sampleFormat, options.numberOfChannel, options.sampleRate,
                                                  static_cast<int32_t>(defaultBlockSampleCount()),
                                                  m_blockBuffer.constData());

    // The mixing thread owns the mix run from here on: it pulls every block,
    // and ends the run when the mix ends or the export stops.
    std::shared_ptr<VTProject> project = m_project;
    auto produced = std::make_shared<int64_t>(0);
    m_mixAhead = std::make_shared<brindle::MixAheadQueue>(
        static_cast<qsizetype>(blockBytes), kMixAheadBlocks,
        [project, mixContext, produced](char* buffer) -> std::optional<brindle::MixAheadQueue::Content> {
            if (ranAway(*project, *mixContext, *produced))
                return std::nullopt;
            const auto content = pullBlock(*project, *mixContext, buffer);
            if (content)
                *produced += content->size / mixContext->bytesPerSample();
            return content;
        },
        [project, mixContext] { project->endMixWithContext(*mixContext); });

    auto task = KRMuxerTask::initWithMuxerContext(muxer);
    task->setDataSource(shared_from_this());
    task->setUserObjectContext(mixContext);
    task->setCallbackQueue(callbackQueue);
    m_runningTask = task;
    m_errorMessage.clear();
    // Once the task completes, for whatever reason, nothing takes blocks any
    // more: the mixing thread stops.
    std::weak_ptr<brindle::MixAheadQueue> mixAhead = m_mixAhead;
    KRMuxerTask::Block stopping = [mixAhead, block = std::move(block)](const QString& action, const QVariant& value) {
        if (action == KRMuxerTaskActionComplete) {
            if (auto queue = mixAhead.lock())
                queue->stop();
        }
        if (block)
            block(action, value);
    };
    // The thread's start orders everything above before its first pull.
    if (!task->startMuxerWithBlock(std::move(stopping))) {
        m_mixAhead.reset();
        return nullptr;
    }
    return task;
}

std::optional<brindle::MixAheadQueue::Content> VTAudioExporter::pullBlock(VTProject& project, VTMixContext& context,
                                                                          char* buffer)
{
    const int64_t capacity = defaultBlockSampleCount();
    const int64_t frameBytes = context.bytesPerSample();
    const int64_t blockBytes = capacity * frameBytes;
    const char silence = context.sampleFormat() == 0 ? char(0x7F) : char(0);
    // A source without state leaves the buffer as it is: start from silence.
    std::memset(buffer, silence, static_cast<size_t>(blockBytes));

    bool appendBefore = false;
    int64_t count = project.nextSample(buffer, capacity, &appendBefore, context);
    if (count == brindle::MixSource::kEndOfSource)
        return std::nullopt;
    if (count <= 0)
        return brindle::MixAheadQueue::Content{0, static_cast<qsizetype>(blockBytes)};
    count = std::min(count, capacity);
    const int64_t offset = appendBefore ? (capacity - count) * frameBytes : 0;
    return brindle::MixAheadQueue::Content{static_cast<qsizetype>(offset), static_cast<qsizetype>(count * frameBytes)};
}

bool VTAudioExporter::ranAway(const VTProject& project, const VTMixContext& context, int64_t frames)
{
    const int64_t maximum = (project.duration() + kRunawayMilliseconds) * context.samplerate() / 1000;
    if (frames < maximum)
        return false;
    brindle::logf("VTAudioExporter: the mix ran on past the project's end; the export stops after %lld frames",
                  static_cast<long long>(frames));
    return true;
}

std::optional<QByteArrayView> VTAudioExporter::nextSampleDataWithMixContext(VTMixContext& context)
{
    const qsizetype blockBytes = static_cast<qsizetype>(defaultBlockSampleCount() * context.bytesPerSample());
    if (m_blockBuffer.size() != blockBytes)
        m_blockBuffer = QByteArray(blockBytes, '\0');
    const auto content = pullBlock(*m_project, context, m_blockBuffer.data());
    if (!content)
        return std::nullopt;
    return QByteArrayView(m_blockBuffer.constData() + content->offset, content->size);
}

std::shared_ptr<KRAudioFrame2> VTAudioExporter::KRMuxerTaskGetAudioFrame(KRMuxerTask& task)
{
    auto* holder = task.userObjectContextAs<std::shared_ptr<VTMixContext>>();
    if (!holder || !*holder) {
        brindle::log(QStringLiteral("VTAudioExporter: the muxer task carries no mix context"));
        return nullptr;
    }
    VTMixContext& context = **holder;
    std::optional<QByteArrayView> data;
    if (m_mixAhead && m_runningTask.lock().get() == &task) {
        data = m_mixAhead->take();
    } else {
        // A task this exporter did not start: mix on the caller's thread.
        if (ranAway(*m_project, context, m_outNumberOfSamples)) {
            m_project->endMixWithContext(context);
            return nullptr;
        }
        data = nextSampleDataWithMixContext(context);
        if (!data)
            m_project->endMixWithContext(context);
    }
    if (!data)
        return nullptr;
    const auto frames = static_cast<int32_t>(data->size() / context.bytesPerSample());
    // The muxer lets go of the frame before it asks for the next, so the
    // one frame of the run is normally free to refill.
    if (m_frame && m_frame.use_count() == 1 && m_frame->sampleFormat() == context.sampleFormat() &&
        m_frame->numberOfChannel() == context.numberOfChannel() && m_frame->sampleRate() == context.samplerate()) {
        if (!m_frame->replaceSamples(frames, data->data()))
            return nullptr;
    } else {
        m_frame = KRAudioFrame2::initWithSampleFormat(context.sampleFormat(), context.numberOfChannel(),
                                                      context.samplerate(), frames, data->data());
        if (!m_frame)
            return nullptr;
    }
    m_outNumberOfSamples += frames;
    return m_frame;
}

std::shared_ptr<KRVideoFrame> VTAudioExporter::KRMuxerTaskGetVideoFrame(KRMuxerTask&)
{
    return nullptr;
}

int64_t VTAudioExporter::KRMuxerTaskLength(KRMuxerTask&)
{
    return outLength();
}

VTAudioExporter::Result VTAudioExporter::exportProjectToFile(std::shared_ptr<VTProject> project, const QString& path,
                                                             const Options& options,
                                                             std::function<void(double fraction)> progress)
{
    Result result;
    auto exporter = initWithProject(std::move(project));
    if (!exporter) {
        result.errorMessage = QStringLiteral("no project to export");
        return result;
    }
    exporter->setOptions(options);
    KRMuxerTask::Block block;
    if (progress) {
        block = [progress](const QString& action, const QVariant& value) {
            if (action == KRMuxerTaskActionProgress)
                progress(value.toDouble());
        };
    }
    auto task = exporter->exportAduioToFile(path, options.formatType, block, nullptr);
    if (!task) {
        result.errorMessage = exporter->errorMessage();
        return result;
    }
    task->waitUntilFinished();
    result.result = task->result();
    result.errorMessage = task->errorMessage();
    result.numberOfSamples = exporter->outNumberOfSamples();
    result.encoderSamplerate = task->muxerContext()->encoderSamplerate();
    return result;
}
