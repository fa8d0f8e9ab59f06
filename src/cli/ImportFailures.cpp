#include "cli/ImportFailures.h"

#include <utility>
#include <vector>

namespace brindle::cli {

// Keeps each alert as (message, informative text); the informative text of a
// media refusal names the file's path.
class ImportFailures::Recorder final : public VTAlertPresenter {
public:
    void presentAlert(const QString& messageText, const QString& informativeText) override
    {
        std::lock_guard lock(m_mutex);
        m_alerts.emplace_back(messageText, informativeText);
    }
    bool canPresentOnAnyThread() const override { return true; }

    QString messageNaming(const QString& path) const
    {
        std::lock_guard lock(m_mutex);
        for (const auto& [message, informative] : m_alerts) {
            if (informative.endsWith(path))
                return message;
        }
        return {};
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::pair<QString, QString>> m_alerts;
};

ImportFailures::ImportFailures()
    : m_recorder(std::make_shared<Recorder>())
{
    m_previous = VTAlertPresenter::installAlertPresenter(m_recorder);
}

ImportFailures::~ImportFailures()
{
    VTAlertPresenter::installAlertPresenter(m_previous);
}

QString ImportFailures::refusalForPath(const QString& path) const
{
    return m_recorder->messageNaming(path);
}

}  // namespace brindle::cli
