// The fields of an earlier generation's data provider that the conversion to
// VTDataProvider (VTDataProvider::initWithKRDataProvider) takes over.
//
// The legacy project reader fills one of these from the archived provider
// ("kKRPathFile", "kKRCachePathFile", "kKRSampleFormat", "kKRSampleRate",
// "kKRNumberOfComponent", "kKRDuration", "kKRCacheTable"); the old cache file
// named by `cachePathFile` is reused as it is, so the rows keep pointing into it.
#pragma once

#include <QString>

#include <cstdint>
#include <vector>

struct KRDataProviderLegacyFields {
    // One frame-table row, with the same meaning as VTAudioFrameInfo's fields.
    struct Row {
        int64_t offsetOfBuffer = 0;
        int64_t lengthOfBuffer = 0;
        int64_t indexOfSamples = 0;
        int64_t numberOfSamples = 0;
    };

    QString pathfile;          // the media file's path
    int32_t sampleFormat = 0;  // packed sample-format code 0–4
    int64_t samplerate = 0;
    int64_t numbersOfComponent = 0;  // channels
    QString cachePathFile;           // the PCM cache file's path
    int64_t duration = 0;            // milliseconds
    std::vector<Row> cacheTable;     // in stream order, ending with the end marker
};
