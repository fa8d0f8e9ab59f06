// Decoded media fixtures shared by the data-provider tests of one process,
// and a read checker against FFmpeg's own decode.
#pragma once

#include "media/VTDataProvider.h"

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <memory>

namespace brindle::test {

struct ImportedMedia {
    QString path;
    std::shared_ptr<VTDataProvider> provider;
    // The ffmpeg program's decode of the file in the provider's sample format.
    QByteArray reference;
    uint64_t referenceSamples() const;
};

// Probes and decodes `path` once per process (later calls answer the same
// provider); the provider is null when probing failed.
const ImportedMedia& importedMedia(const QString& path);

// Probes and decodes `path` into a new cache file.
std::shared_ptr<VTDataProvider> importFresh(const QString& path);

// Reads `count` samples at `index` into a guarded buffer and checks the count,
// the bytes against the reference, and that nothing beyond them was written.
// Answers an empty string on success, else a description of the first fault.
QString checkRead(const VTDataProvider& provider, const QByteArray& reference, uint64_t index, uint64_t count);

}  // namespace brindle::test
