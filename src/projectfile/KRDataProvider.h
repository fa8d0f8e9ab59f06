// The earlier generation's data provider, as archived in each block of a
// legacy project container: the fields that the conversion to VTDataProvider
// takes over.
//
// Contract
// - Keyed coding, class "KRDataProvider": "kKRPathFile", "kKRCachePathFile"
//   (strings), "kKRSampleFormat" (32-bit integer), "kKRSampleRate",
//   "kKRNumberOfComponent", "kKRDuration" (integers), "kKRCacheTable" (a list
//   of frame rows with VTAudioFrameInfo's class and keys). The old cache
//   buffer under "kKRDataBuffer" and the float under "KKRUserInfo" are not
//   used by the conversion and are not decoded; encoding writes the buffer as
//   nil and the float as 0.
// - A frame table that is present but damaged makes the provider undecodable.
// - A plain value: built and read on one thread.
#pragma once

#include "foundation/KeyedCoding.h"
#include "media/KRDataProviderLegacyFields.h"

#include <memory>

class KRDataProvider final : public brindle::KeyedCoding {
public:
    KRDataProviderLegacyFields fields;

    static QStringList archiveClassNames();
    static std::shared_ptr<KRDataProvider> initWithCoder(brindle::KeyedUnarchiver& coder);
    QString classNameForArchive() const override;
    void encodeWithCoder(brindle::KeyedArchiver& coder) const override;
};
