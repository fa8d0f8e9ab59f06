// Collects the refusals that media probing reports as alerts (a protected
// file) while brindle-cli imports, so that each failed file can be listed with
// its reason instead of an alert line in the middle of the output.
//
// Installed as the process-wide alert presenter for its lifetime; the previous
// presenter comes back when it is destroyed. Thread-safe: probes run on the
// global queue and report from there.
#pragma once

#include "media/VTAlertPresenter.h"

#include <QString>
#include <QStringList>

#include <memory>
#include <mutex>

namespace brindle::cli {

class ImportFailures {
public:
    ImportFailures();
    ~ImportFailures();
    ImportFailures(const ImportFailures&) = delete;
    ImportFailures& operator=(const ImportFailures&) = delete;

    // The message of the alert that named `path`, or an empty string.
    QString refusalForPath(const QString& path) const;

private:
    class Recorder;
    std::shared_ptr<Recorder> m_recorder;
    std::shared_ptr<VTAlertPresenter> m_previous;
};

}  // namespace brindle::cli
