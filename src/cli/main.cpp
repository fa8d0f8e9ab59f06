// brindle-cli: the headless companion tool. It imports media into the same
// PCM cache and registry that the editor uses, reads them back, builds and
// inspects project documents, and renders them to audio files.
#include "cli/Commands.h"
#include "cli/DocumentCommands.h"
#include "cli/RenderCommand.h"

#include <QCoreApplication>
#include <QStringList>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QStringList arguments = QCoreApplication::arguments().mid(1);
    if (arguments.isEmpty()) {
        brindle::cli::printUsage();
        return 0;
    }
    const QString command = arguments.takeFirst();
    if (command == QStringLiteral("import"))
        return brindle::cli::importCommand(arguments);
    if (command == QStringLiteral("pcm"))
        return brindle::cli::pcmCommand(arguments);
    if (command == QStringLiteral("build"))
        return brindle::cli::buildCommand(arguments);
    if (command == QStringLiteral("info"))
        return brindle::cli::infoCommand(arguments);
    if (command == QStringLiteral("render"))
        return brindle::cli::renderCommand(arguments);
    if (command == QStringLiteral("providers"))
        return brindle::cli::providersCommand();
    if (command == QStringLiteral("help") || command == QStringLiteral("--help") || command == QStringLiteral("-h")) {
        brindle::cli::printUsage();
        return 0;
    }
    brindle::cli::printUsage();
    return 2;
}
