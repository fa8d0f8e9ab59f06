// The editor's look: Qt's Fusion style with a dark palette that matches the
// timeline's greys, applied once at start-up.
#pragma once

class QApplication;

namespace brindle::app {

void applyAppStyle(QApplication& application);

}  // namespace brindle::app
