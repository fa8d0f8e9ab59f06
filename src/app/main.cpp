// brindle: the editor. `brindle [FILE.loomwick]` starts with an empty project
// or the document it is given (also how the desktop shell opens one).
#include "BuildInfo.h"
#include "app/AppDelegate.h"
#include "app/AppStyle.h"
#include "app/MainWindow.h"
#include "app/VTClipboardPasteboard.h"
#include "app/VTWidgetAlertPresenter.h"
#include "media/VTAlertPresenter.h"
#include "model/VTPasteboard.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QIcon>
#include <QTimer>

#include <cstdio>

namespace {

// Without any display the toolkit would abort with a message of its own;
// say what to do instead.
bool hasDisplay()
{
    return !qEnvironmentVariableIsEmpty("DISPLAY") || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") ||
           !qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM");
}

}  // namespace

int main(int argc, char** argv)
{
    if (!hasDisplay()) {
        std::fprintf(stderr, "brindle: no display to show the editor on; run it in a desktop session, under a "
                             "virtual display (xvfb-run -a brindle FILE), or use the headless brindle-cli.\n");
        return 1;
    }
    QApplication application(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("tarnwell"));
    QApplication::setApplicationName(QStringLiteral("brindle"));
    QApplication::setApplicationDisplayName(QStringLiteral("Brindle"));
    QApplication::setApplicationVersion(QString::fromUtf8(brindle::buildinfo::kShortVersion));
    QApplication::setDesktopFileName(QStringLiteral("brindle"));
    QApplication::setWindowIcon(QIcon(QStringLiteral(":/images/brindle.png")));
    brindle::app::applyAppStyle(application);

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Brindle, a multi-track audio mixing editor."));
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addPositionalArgument(QStringLiteral("file"), QStringLiteral("A project document to open."),
                                 QStringLiteral("[FILE.loomwick]"));
    parser.process(application);

    VTPasteboard::setGeneralPasteboard(std::make_shared<VTClipboardPasteboard>());
    VTAlertPresenter::installAlertPresenter(std::make_shared<VTWidgetAlertPresenter>());

    AppDelegate appDelegate;
    // A document given on the command line is opened as the desktop shell
    // opens one; it may arrive before start-up has finished.
    const QStringList files = parser.positionalArguments();
    if (!files.isEmpty())
        appDelegate.applicationOpenFile(files.constFirst());
    appDelegate.applicationDidFinishLaunching();
    appDelegate.window()->show();
    // Setting up the audio output takes a moment; do it now rather than at
    // the first press of play.
    QTimer::singleShot(0, &appDelegate, [&appDelegate] { appDelegate.playback().audioPlayerCtrl(); });
    return QApplication::exec();
}
