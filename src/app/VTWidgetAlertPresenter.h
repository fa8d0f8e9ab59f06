// Shows the media code's alerts (the refusal of a protected file) as
// application-modal warning boxes. They must be shown on the main thread:
// callers elsewhere go through the main queue and wait.
#pragma once

#include "media/VTAlertPresenter.h"

class VTWidgetAlertPresenter final : public VTAlertPresenter {
public:
    void presentAlert(const QString& messageText, const QString& informativeText) override;
    bool canPresentOnAnyThread() const override { return false; }
};
