// Turns the user guide, written in Markdown, into the "Help.pdf" that the
// editor's Help menu opens.
//
// Contract
// - The guide's first level-one heading becomes the title page (with the
//   application icon and the version); the rest is laid out on A4 pages with
//   20 mm margins and a page number in the footer.
// - Text is laid out with QTextDocument's Markdown reader (CommonMark with
//   GitHub tables) and painted into a QPdfWriter; headings, tables and code
//   are given the guide's own styling after reading.
// - Needs a QGuiApplication (the offscreen platform is enough) with at least
//   one font installed; main thread.
#pragma once

#include <QImage>
#include <QString>

namespace artwork {

struct HelpDocumentInput {
    QString markdown;  // the guide's text
    QImage icon;       // shown on the title page
    QString version;   // e.g. "0.1.0"
};

// Writes the PDF to `pdfPath`. On failure returns false and says why in
// `error`; a half-written file may remain and is replaced on the next run.
bool writeHelpPdf(const HelpDocumentInput& input, const QString& pdfPath, QString* error);

}  // namespace artwork
