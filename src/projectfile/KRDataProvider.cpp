#include "projectfile/KRDataProvider.h"

#include "foundation/Log.h"
#include "media/VTAudioFrameInfo.h"

namespace {

const QString kPathFileKey = QStringLiteral("kKRPathFile");
const QString kCachePathFileKey = QStringLiteral("kKRCachePathFile");
const QString kSampleFormatKey = QStringLiteral("kKRSampleFormat");
const QString kSampleRateKey = QStringLiteral("kKRSampleRate");
const QString kComponentsKey = QStringLiteral("kKRNumberOfComponent");
const QString kDurationKey = QStringLiteral("kKRDuration");
const QString kCacheTableKey = QStringLiteral("kKRCacheTable");
const QString kDataBufferKey = QStringLiteral("kKRDataBuffer");
const QString kUserInfoKey = QStringLiteral("KKRUserInfo");

}  // namespace

QStringList KRDataProvider::archiveClassNames()
{
    return {QStringLiteral("KRDataProvider")};
}

std::shared_ptr<KRDataProvider> KRDataProvider::initWithCoder(brindle::KeyedUnarchiver& coder)
{
    auto provider = std::make_shared<KRDataProvider>();
    KRDataProviderLegacyFields& fields = provider->fields;
    fields.pathfile = coder.decodeStringForKey(kPathFileKey).value_or(QString());
    fields.cachePathFile = coder.decodeStringForKey(kCachePathFileKey).value_or(QString());
    fields.sampleFormat = coder.decodeInt32ForKey(kSampleFormatKey);
    fields.samplerate = coder.decodeInt64ForKey(kSampleRateKey);
    fields.numbersOfComponent = coder.decodeInt64ForKey(kComponentsKey);
    fields.duration = coder.decodeInt64ForKey(kDurationKey);
    if (coder.containsValueForKey(kCacheTableKey)) {
        auto rows = coder.decodeArrayOfClass<VTAudioFrameInfo>(kCacheTableKey);
        if (!rows) {
            brindle::log(QStringLiteral("Warning: the frame table of legacy data provider %1 is damaged.")
                             .arg(fields.pathfile));
            return nullptr;
        }
        fields.cacheTable.reserve(rows->size());
        for (const auto& row : *rows)
            fields.cacheTable.push_back({row->offsetOfBuffer(), row->lengthOfBuffer(), row->indexOfSamples(),
                                         row->numberOfSamples()});
    }
    return provider;
}

QString KRDataProvider::classNameForArchive() const
{
    return QStringLiteral("KRDataProvider");
}

void KRDataProvider::encodeWithCoder(brindle::KeyedArchiver& coder) const
{
    coder.encodeString(fields.pathfile, kPathFileKey);
    coder.encodeString(fields.cachePathFile, kCachePathFileKey);
    coder.encodeInt32(fields.sampleFormat, kSampleFormatKey);
    coder.encodeInt64(fields.samplerate, kSampleRateKey);
    coder.encodeInt64(fields.numbersOfComponent, kComponentsKey);
    coder.encodeInt64(fields.duration, kDurationKey);
    std::vector<std::shared_ptr<VTAudioFrameInfo>> rows;
    rows.reserve(fields.cacheTable.size());
    for (const KRDataProviderLegacyFields::Row& row : fields.cacheTable)
        rows.push_back(VTAudioFrameInfo::initWithOffset(row.offsetOfBuffer, row.lengthOfBuffer, row.indexOfSamples,
                                                        row.numberOfSamples));
    coder.encodeArrayOf(rows, kCacheTableKey, true);
    coder.encodeObject(brindle::ConstKeyedObjectPtr(), kDataBufferKey);
    coder.encodeFloat(0.0f, kUserInfoKey);
}
