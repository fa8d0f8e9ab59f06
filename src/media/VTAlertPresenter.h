// Shows the alerts that media code must put in front of the user (the refusal
// of a protected file) without depending on a user interface.
//
// Contract
// - `presentAlert` shows one alert, modally, and returns when it is dismissed.
// - A presenter that needs the main thread (a window toolkit) answers false
//   from `canPresentOnAnyThread`; callers off the main thread then run it on
//   the main queue synchronously (brindle::mainQueue().sync) and wait, which
//   needs the main thread's event loop to be running (or the program to pump
//   the main queue, as brindle::runMainQueueUntil does).
// - The default presenter only writes the two texts as one log line. It may be
//   called on any thread, so programs without an event loop never wait on the
//   main queue for it.
// - One presenter is installed process-wide; installing nullptr restores the
//   default. Installation and look-up are thread-safe.
#pragma once

#include <QString>

#include <memory>

class VTAlertPresenter {
public:
    virtual ~VTAlertPresenter() = default;

    virtual void presentAlert(const QString& messageText, const QString& informativeText) = 0;
    // True when presentAlert may run on any thread; false when it must run on the main thread.
    virtual bool canPresentOnAnyThread() const = 0;

    // The installed presenter (the logging default when none is installed).
    static std::shared_ptr<VTAlertPresenter> currentAlertPresenter();
    // Installs `presenter` for the whole process and answers the previous one.
    static std::shared_ptr<VTAlertPresenter> installAlertPresenter(std::shared_ptr<VTAlertPresenter> presenter);

    // Shows an alert with the installed presenter, on the main thread when the
    // presenter needs it, waiting for it to finish.
    static void presentAlertWaiting(const QString& messageText, const QString& informativeText);
};

// The default presenter: one log line "<message> <informative text>".
class VTLogAlertPresenter final : public VTAlertPresenter {
public:
    void presentAlert(const QString& messageText, const QString& informativeText) override;
    bool canPresentOnAnyThread() const override { return true; }
};
