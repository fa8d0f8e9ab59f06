// brindle-artwork: draws the editor's images and typesets its user guide at
// build time, so that everything the editor shows is the project's own.
//
//   brindle-artwork OUTPUT_DIR USER_GUIDE.md VERSION
//
// Writes into OUTPUT_DIR: cursor.png, play.png, play@2x.png, pause.png,
// pause@2x.png, brindle.png (256 px), brindle-48.png, brindle-128.png and
// Help.pdf. Exit status 0 on success; 1 with a message on stderr when an
// input cannot be read or an output cannot be written.
#include "Glyphs.h"
#include "HelpDocument.h"

#include <QDir>
#include <QFile>
#include <QGuiApplication>
#include <QStringList>
#include <QTemporaryDir>

#include <cstdio>
#include <utility>
#include <vector>

namespace {

void complain(const QString& message)
{
    std::fprintf(stderr, "brindle-artwork: %s\n", qPrintable(message));
}

bool writeImage(const QDir& directory, const QString& name, const QImage& image)
{
    const QString path = directory.filePath(name);
    if (image.isNull() || !image.save(path, "PNG")) {
        complain(QStringLiteral("cannot write %1").arg(path));
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    // Builds often run without a login session; give Qt a private runtime
    // folder rather than a warning about the missing one.
    QTemporaryDir runtimeDir;
    if (qEnvironmentVariableIsEmpty("XDG_RUNTIME_DIR") && runtimeDir.isValid())
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtimeDir.path()));
    QGuiApplication app(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 4) {
        complain(QStringLiteral("usage: brindle-artwork OUTPUT_DIR USER_GUIDE.md VERSION"));
        return 1;
    }
    const QDir output(arguments.at(1));
    if (!output.mkpath(QStringLiteral("."))) {
        complain(QStringLiteral("cannot create %1").arg(output.path()));
        return 1;
    }

    const QImage icon = artwork::drawAppIcon(256);
    const std::vector<std::pair<QString, QImage>> images = {
        {QStringLiteral("cursor.png"), artwork::drawCursorHandle()},
        {QStringLiteral("play.png"), artwork::drawPlayGlyph(24)},
        {QStringLiteral("play@2x.png"), artwork::drawPlayGlyph(48)},
        {QStringLiteral("pause.png"), artwork::drawPauseGlyph(24)},
        {QStringLiteral("pause@2x.png"), artwork::drawPauseGlyph(48)},
        {QStringLiteral("brindle.png"), icon},
        {QStringLiteral("brindle-48.png"), artwork::drawAppIcon(48)},
        {QStringLiteral("brindle-128.png"), artwork::drawAppIcon(128)},
    };
    for (const auto& [name, image] : images) {
        if (!writeImage(output, name, image))
            return 1;
    }

    QFile guide(arguments.at(2));
    if (!guide.open(QIODevice::ReadOnly | QIODevice::Text)) {
        complain(QStringLiteral("cannot read %1: %2").arg(guide.fileName(), guide.errorString()));
        return 1;
    }
    const artwork::HelpDocumentInput input{QString::fromUtf8(guide.readAll()), icon, arguments.at(3)};
    QString error;
    if (!artwork::writeHelpPdf(input, output.filePath(QStringLiteral("Help.pdf")), &error)) {
        complain(error);
        return 1;
    }
    return 0;
}
