// Exports a project's mix into an MP3, M4A or WAV file: the pull that hands
// the mix, block by block, to a KRMuxerTask, without any interface. The
// editor's export command and `brindle-cli render` call it.
//
// Contract
// - One exporter per project; one export at a time (a second start while one
//   runs is refused). `exportAduioToFile(path, formatType, block)` makes the
//   muxer context from the options (format code, bit rate, sample format,
//   channels, rate, the project's title as the title tag), makes a mix
//   context at the options' rate, channels and format, starts the project's
//   mix and seeks it to 0 (the whole project, from its start), sets
//   `outNumberOfSamples` to 0 and starts a muxer task with this exporter as
//   data source and the mix context as user object. The block gets the
//   task's actions (KRMuxerTaskActionStart/Progress/Complete) on the
//   callback queue (main queue by default). A refused start (an export
//   running, an empty project, options the mixer cannot produce) answers
//   null, logs why and still reports Complete with 1 through the block.
// - `nextSampleDataWithMixContext` pulls one block of
//   `defaultBlockSampleCount` (2048) frames: null at the end of the mix; n
//   frames of content (the last n of the buffer when the mixer says the
//   content is appended, else the first n; n is clamped to the block, since
//   a converting clip may count more than it holds); a whole block of
//   silence when the mixer has nothing for this stretch. The answer views
//   the exporter's own block buffer and stays valid until the next pull.
// - The data source answers frames of the mix context's description and
//   counts them into `outNumberOfSamples`; the end of the mix ends the
//   project's mix run. A mix that runs more than ten seconds past the
//   project's length is stopped with a log line (the file then ends there).
// - `outLength` is the project's duration in KRTimebase units.
// - An export started here mixes on a thread of its own, up to eight blocks
//   ahead of the muxer (MixAheadQueue), so that mixing and encoding run on
//   two cores; the muxer's pull then takes the next mixed block. The blocks
//   are the same as those of a pull on the muxer's thread, which is what
//   `KRMuxerTaskGetAudioFrame` does for a task that this exporter did not
//   start. The mixing thread ends the project's mix run when the mix ends,
//   and stops when the task completes (also after a failure or a cancel).
//   Its mix context converts ahead (VTMixContext::convertsAhead): the
//   clips' reads, conversions, gain and fades run on the worker pool, in
//   parallel across clips, and the mixing thread mixes what they give; the
//   blocks are the same bytes either way.
// - Buffers: the block buffers and the frame handed to the muxer are made
//   when an export starts and reused for every block (the frame is refilled
//   in place once the muxer has let go of it). The frame is written and read
//   only by the muxer task's thread. `outNumberOfSamples` is atomic and may
//   be read from any thread.
// - The project must not be edited while an export runs (the editor shows
//   a modal progress sheet meanwhile).
#pragma once

#include "codec/KRMuxerTask.h"
#include "export/MixAheadQueue.h"
#include "foundation/Dispatch.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

class KRAudioFrame2;
class KRExportSettings;
class VTMixContext;
class VTProject;

class VTAudioExporter final : public KRMuxerTaskDataSource, public std::enable_shared_from_this<VTAudioExporter> {
public:
    // What to write. The defaults are those of the export options.
    struct Options {
        int32_t formatType = 100;      // 100 MP3, 101 M4A, 102 WAV
        int64_t sampleRate = 48000;    // Hz
        int32_t bitrate = 224000;      // bit/s (ignored for WAV)
        int32_t sampleFormat = 1;      // mix format: 1 (s16) or 3 (float)
        int64_t numberOfChannel = 2;
        QString title;                 // empty: the project's title

        static Options withSettings(const KRExportSettings& settings);
    };
    // The outcome of a blocking export.
    struct Result {
        int32_t result = 1;            // 0 success, 1 failure
        QString errorMessage;
        int64_t numberOfSamples = 0;   // frames handed to the muxer
        int64_t encoderSamplerate = 0; // the rate written to the file
    };

    static std::shared_ptr<VTAudioExporter> initWithProject(std::shared_ptr<VTProject> project);
    ~VTAudioExporter() override;
    static int64_t defaultBlockSampleCount() { return 2048; }

    void setOptions(const Options& options) { m_options = options; }
    const Options& options() const { return m_options; }

    // Starts an export of the whole project into `path` in `formatType`
    // (which replaces the options' format). Answers the running task, or null
    // when the start is refused.
    std::shared_ptr<KRMuxerTask> exportAduioToFile(const QString& path, int32_t formatType, KRMuxerTask::Block block,
                                                   brindle::DispatchQueue* callbackQueue = &brindle::mainQueue());

    // Exports and waits for the end, on the calling thread (for tools without
    // an event loop). `progress` gets the completed fraction on the writing
    // thread.
    static Result exportProjectToFile(std::shared_ptr<VTProject> project, const QString& path, const Options& options,
                                      std::function<void(double fraction)> progress = {});

    // The pull of one block (see above).
    std::optional<QByteArrayView> nextSampleDataWithMixContext(VTMixContext& context);
    int64_t outLength() const;
    int64_t outNumberOfSamples() const { return m_outNumberOfSamples.load(); }
    // Why the last start was refused.
    QString errorMessage() const { return m_errorMessage; }

    // The muxer task's data source.
    std::shared_ptr<KRAudioFrame2> KRMuxerTaskGetAudioFrame(KRMuxerTask& task) override;
    std::shared_ptr<KRVideoFrame> KRMuxerTaskGetVideoFrame(KRMuxerTask& task) override;
    int64_t KRMuxerTaskLength(KRMuxerTask& task) override;

private:
    explicit VTAudioExporter(std::shared_ptr<VTProject> project);
    // Pulls one block of the mix into `buffer` (defaultBlockSampleCount frames
    // of the context's format); where its content lies, or nullopt at the end.
    static std::optional<brindle::MixAheadQueue::Content> pullBlock(VTProject& project, VTMixContext& context,
                                                                    char* buffer);
    // Whether a mix that has produced `frames` frames ran too far past the
    // project's end (logged).
    static bool ranAway(const VTProject& project, const VTMixContext& context, int64_t frames);
    std::shared_ptr<KRMuxerTask> refuse(const QString& message, const KRMuxerTask::Block& block,
                                        brindle::DispatchQueue* callbackQueue);

    std::shared_ptr<VTProject> m_project;
    Options m_options;
    QString m_errorMessage;
    std::weak_ptr<KRMuxerTask> m_runningTask;
    std::atomic<int64_t> m_outNumberOfSamples{0};
    // The block the mixer fills (defaultBlockSampleCount frames), and the
    // frame recycled for the muxer. Muxer thread only, once a run started.
    QByteArray m_blockBuffer;
    std::shared_ptr<KRAudioFrame2> m_frame;
    // The mixing thread of the export this exporter started; replaced only
    // when no export runs.
    std::shared_ptr<brindle::MixAheadQueue> m_mixAhead;
};
