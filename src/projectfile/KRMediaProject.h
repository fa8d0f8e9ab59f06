// The earlier generation's project: reads a legacy container and converts
// its providers, timeline, tracks and clips into the current model.
//
// Contract
// - `projectFromMediaProjectWithURL` opens the container (KRFileStorage; a
//   missing file is not created), decodes each block as a zlib-compressed
//   keyed archive of a KRDataProvider, converts and registers the providers
//   (all at once, with VTDataProviderMgr::importDataProviders), then decodes
//   the trailer as the KRMediaTimeline and converts it. It answers null, with
//   "Unknown file type(<path>)", when the container cannot be opened, and null
//   with a log line when a block or the trailer is damaged. An empty trailer
//   gives an empty project.
// - Progress: i × 100 / count (single precision) after block i, then 100
//   after the trailer. The block is called on the caller's thread.
// - Conversions: a clip over the whole media of its provider, then start,
//   length, gain (percent ÷ 100 in single precision), fade lengths, fade
//   switches and media offset through the clip's setters. A clip whose
//   provider is not registered is left out (logged). The old track's mix
//   format is not carried over.
// - Thread-safe as far as the registry is: may run on a task's thread.
#pragma once

#include <QUrl>

#include <functional>
#include <memory>

class KRMediaClip;
class KRMediaTimeline;
class KRMediaTrack;
class VTClip;
class VTProject;
class VTTrack;

class KRMediaProject {
public:
    using ProcessBlock = std::function<void(double)>;

    KRMediaProject() = delete;

    // The document types of legacy projects: the same as the current ones.
    static QStringList documentType();

    static std::shared_ptr<VTProject> projectFromMediaProjectWithURL(const QUrl& url, const ProcessBlock& processBlock);

    static std::shared_ptr<VTProject> projectFromMediaTimeline(const KRMediaTimeline* timeline);
    static std::shared_ptr<VTTrack> trackFromMediaTrack(const KRMediaTrack& track);
    static std::shared_ptr<VTClip> clipFromMediaClip(const KRMediaClip& clip);

    // Registers the legacy archive classes for generic decoding; once only,
    // thread-safe. Typed decoding (what the loader uses) works without it.
    static void registerArchiveClasses();
};
