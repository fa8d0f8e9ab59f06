#include "media/VTAlertPresenter.h"

#include "foundation/Dispatch.h"
#include "foundation/Log.h"

#include <mutex>

namespace {

std::mutex& presenterMutex()
{
    static std::mutex mutex;
    return mutex;
}

std::shared_ptr<VTAlertPresenter>& installedPresenter()
{
    static std::shared_ptr<VTAlertPresenter>* presenter = new std::shared_ptr<VTAlertPresenter>();
    return *presenter;
}

std::shared_ptr<VTAlertPresenter> defaultPresenter()
{
    static const std::shared_ptr<VTAlertPresenter>* presenter =
        new std::shared_ptr<VTAlertPresenter>(std::make_shared<VTLogAlertPresenter>());
    return *presenter;
}

}  // namespace

std::shared_ptr<VTAlertPresenter> VTAlertPresenter::currentAlertPresenter()
{
    std::lock_guard lock(presenterMutex());
    const std::shared_ptr<VTAlertPresenter>& installed = installedPresenter();
    return installed ? installed : defaultPresenter();
}

std::shared_ptr<VTAlertPresenter> VTAlertPresenter::installAlertPresenter(std::shared_ptr<VTAlertPresenter> presenter)
{
    std::lock_guard lock(presenterMutex());
    std::shared_ptr<VTAlertPresenter> previous = std::move(installedPresenter());
    installedPresenter() = std::move(presenter);
    return previous ? previous : defaultPresenter();
}

void VTAlertPresenter::presentAlertWaiting(const QString& messageText, const QString& informativeText)
{
    const std::shared_ptr<VTAlertPresenter> presenter = currentAlertPresenter();
    if (presenter->canPresentOnAnyThread() || brindle::isMainThread()) {
        presenter->presentAlert(messageText, informativeText);
        return;
    }
    brindle::mainQueue().sync([&] { presenter->presentAlert(messageText, informativeText); });
}

void VTLogAlertPresenter::presentAlert(const QString& messageText, const QString& informativeText)
{
    brindle::log(messageText + QLatin1Char(' ') + informativeText);
}
