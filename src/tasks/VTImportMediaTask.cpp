#include "tasks/VTImportMediaTask.h"

#include "foundation/Log.h"
#include "foundation/VTBaseDefine.h"
#include "media/VTDataProvider.h"

#include <vector>

std::shared_ptr<VTImportMediaTask> VTImportMediaTask::initWithDelegate(std::shared_ptr<VTTaskDelegate> delegate)
{
    return std::shared_ptr<VTImportMediaTask>(new VTImportMediaTask(std::move(delegate)));
}

VTImportMediaTask::~VTImportMediaTask() = default;

brindle::SerialQueue& VTImportMediaTask::percentQueue()
{
    std::call_once(m_percentQueueOnce,
                   [this] { m_percentQueue = std::make_unique<brindle::SerialQueue>(VTBaseDefine::uuidString()); });
    return *m_percentQueue;
}

void VTImportMediaTask::setPercent(int64_t percent, const QString& key)
{
    percentQueue().sync([&] { m_percentBuffer.insert(key, percent); });
}

int64_t VTImportMediaTask::percentForKey(const QString& key)
{
    int64_t value = 0;
    percentQueue().sync([&] { value = m_percentBuffer.value(key, 0); });
    return value;
}

int64_t VTImportMediaTask::percentForAllKeys()
{
    int64_t sum = 0;
    percentQueue().sync([&] {
        for (const int64_t value : std::as_const(m_percentBuffer))
            sum += value;
    });
    return sum;
}

int64_t VTImportMediaTask::percentForAllExceptKey(const QString& key)
{
    int64_t sum = 0;
    percentQueue().sync([&] {
        for (auto it = m_percentBuffer.cbegin(); it != m_percentBuffer.cend(); ++it) {
            if (it.key() != key)
                sum += it.value();
        }
    });
    return sum;
}

VTTaskContext VTImportMediaTask::excuteWithContext(const VTTaskContext& context)
{
    const QList<QUrl> urls = context.urlsForKey(kVTImportURLs);
    if (urls.isEmpty()) {
        brindle::log(QStringLiteral("No file need to parser."));
        return resultWithCode(0);
    }
    m_totalLength = 0;

    // One slot per URL, so that both result lists keep URL order.
    struct Slot {
        QUrl url;
        std::shared_ptr<VTDataProvider> provider;
        std::atomic<bool> decoded{false};
    };
    std::vector<Slot> entries(size_t(urls.size()));
    // Every file is probed before any decode starts, so that each progress
    // report divides by the final total: a decode that reported against a
    // partial total would show the bar far ahead, then pull it back.
    for (size_t i = 0; i < entries.size(); ++i) {
        Slot& slot = entries[i];
        slot.url = urls[qsizetype(i)];
        slot.provider = VTDataProvider::initWithURL(slot.url);
        if (!slot.provider)
            continue;
        m_totalLength += slot.provider->duration();
        setPercent(0, slot.provider->identifier());
    }
    brindle::DispatchGroup group;
    std::shared_ptr<VTImportMediaTask> self = std::static_pointer_cast<VTImportMediaTask>(shared_from_this());
    for (Slot& slot : entries) {
        if (!slot.provider)
            continue;
        group.async(brindle::globalQueue(), [self, &slot, context] {
            const std::shared_ptr<VTDataProvider>& provider = slot.provider;
            const QString key = provider->identifier();
            const int64_t duration = provider->duration();
            const bool decoded = provider->startParserWithBlock([&](double percent) {
                self->setPercent(int64_t(double(duration) * percent / 100.0), key);
                const int64_t total = self->totalLength();
                const float overall = total > 0 ? float(self->percentForAllKeys()) * 100.0f / float(total) : 0.0f;
                self->sendTaskPercent(double(overall), context);
            });
            slot.decoded = decoded;
        });
    }
    group.wait();

    VTTaskContext::ObjectList providers;
    QList<QUrl> failures;
    for (Slot& slot : entries) {
        if (slot.provider && slot.decoded) {
            providers.push_back(slot.provider);
            continue;
        }
        if (slot.provider)
            brindle::log(QStringLiteral("Failed to decode %1.").arg(slot.url.toLocalFile()));
        failures.append(slot.url);
    }
    VTTaskContext result = resultWithCode(providers.empty() ? 1 : 0);
    result.set(kVTFailureURLs, failures);
    result.set(kVTExportObjects, providers);
    return result;
}
