#include "HelpDocument.h"

#include <QAbstractTextDocumentLayout>
#include <QFont>
#include <QPageLayout>
#include <QPageSize>
#include <QPainter>
#include <QPdfWriter>
#include <QRegularExpression>
#include <QTextBlock>
#include <QTextCursor>
#include <QTextDocument>
#include <QTextFrame>
#include <QTextTable>

#include <cmath>
#include <memory>
#include <vector>

namespace artwork {

namespace {

// The PDF is painted in device units of 1/300 inch. The text is laid out in
// units of 1/96 inch on a layout device of that resolution (lengths in text
// formats are taken in those units), with design metrics so that nothing is
// rounded to that coarse grid, and painted scaled up to the device.
constexpr double kDeviceDpi = 300;
constexpr double kLayoutDpi = 96;
constexpr double kLayoutScale = kDeviceDpi / kLayoutDpi;
const QString kFontFamily = QStringLiteral("DejaVu Sans");
const QColor kTextColor(34, 34, 34);
const QColor kHeadingColor(122, 62, 18);
const QColor kSubheadingColor(58, 66, 80);
const QColor kMutedColor(110, 110, 110);
const QColor kRuleColor(185, 176, 166);
const QColor kTableHeaderFill(239, 231, 221);
const QColor kCodeFill(241, 239, 236);

// A length in the painter's device units.
double deviceMm(double mm)
{
    return mm * kDeviceDpi / 25.4;
}

// A length in the text layout's units.
double layoutMm(double mm)
{
    return mm * kLayoutDpi / 25.4;
}

struct Title {
    QString text;
    QString body;  // the guide without its title heading
};

// Splits the first level-one heading off the guide.
Title splitTitle(const QString& markdown)
{
    static const QRegularExpression heading(QStringLiteral("^# +(.+?)\\s*$"), QRegularExpression::MultilineOption);
    const QRegularExpressionMatch match = heading.match(markdown);
    if (!match.hasMatch())
        return {QStringLiteral("Brindle User Guide"), markdown};
    QString body = markdown;
    body.remove(match.capturedStart(), match.capturedLength());
    return {match.captured(1), body};
}

void styleHeadings(QTextDocument& document)
{
    for (QTextBlock block = document.begin(); block.isValid(); block = block.next()) {
        const int level = block.blockFormat().headingLevel();
        if (level == 0)
            continue;
        QTextCursor cursor(block);
        QTextBlockFormat blockFormat = block.blockFormat();
        blockFormat.setTopMargin(level <= 2 ? layoutMm(6) : layoutMm(3.5));
        blockFormat.setBottomMargin(layoutMm(1.5));
        blockFormat.setPageBreakPolicy(QTextFormat::PageBreak_Auto);
        cursor.setBlockFormat(blockFormat);
        cursor.select(QTextCursor::BlockUnderCursor);
        QTextCharFormat charFormat;
        charFormat.setForeground(level <= 2 ? kHeadingColor : kSubheadingColor);
        cursor.mergeCharFormat(charFormat);
    }
}

void styleTable(QTextTable* table)
{
    QTextTableFormat format = table->format();
    format.setBorder(1.0);
    format.setBorderBrush(kRuleColor);
    format.setBorderStyle(QTextFrameFormat::BorderStyle_Solid);
    format.setBorderCollapse(true);
    format.setCellSpacing(0);
    format.setCellPadding(layoutMm(1.2));
    format.setTopMargin(layoutMm(1.5));
    format.setBottomMargin(layoutMm(2.5));
    format.setWidth(QTextLength(QTextLength::PercentageLength, 100));
    format.setHeaderRowCount(1);
    // The menu tables (item, shortcut, description) share one set of column
    // widths, so that they line up from one menu to the next.
    if (table->columns() == 3) {
        format.setColumnWidthConstraints({QTextLength(QTextLength::PercentageLength, 20),
                                          QTextLength(QTextLength::PercentageLength, 24),
                                          QTextLength(QTextLength::PercentageLength, 56)});
    }
    table->setFormat(format);
    // Paragraphs inside cells keep only the cell's padding around them.
    for (int row = 0; row < table->rows(); ++row) {
        for (int column = 0; column < table->columns(); ++column) {
            const QTextTableCell cell = table->cellAt(row, column);
            for (auto it = cell.begin(); !it.atEnd(); ++it) {
                const QTextBlock block = it.currentBlock();
                if (!block.isValid())
                    continue;
                QTextBlockFormat blockFormat = block.blockFormat();
                blockFormat.setTopMargin(0);
                blockFormat.setBottomMargin(0);
                QTextCursor(block).setBlockFormat(blockFormat);
            }
        }
    }
    for (int column = 0; column < table->columns(); ++column) {
        QTextTableCell cell = table->cellAt(0, column);
        QTextCharFormat cellFormat = cell.format();
        cellFormat.setBackground(kTableHeaderFill);
        cellFormat.setFontWeight(QFont::Bold);
        cell.setFormat(cellFormat);
    }
}

void styleTables(QTextFrame* frame)
{
    const QList<QTextFrame*> children = frame->childFrames();
    for (QTextFrame* child : children) {
        if (auto* table = qobject_cast<QTextTable*>(child))
            styleTable(table);
        styleTables(child);
    }
}

// Inline code (the Markdown reader marks it with a fixed-pitch font) gets a
// light background so that key names and paths stand out.
void styleCode(QTextDocument& document)
{
    for (QTextBlock block = document.begin(); block.isValid(); block = block.next()) {
        for (auto it = block.begin(); !it.atEnd(); ++it) {
            const QTextFragment fragment = it.fragment();
            if (!fragment.isValid() || !fragment.charFormat().fontFixedPitch())
                continue;
            QTextCursor cursor(&document);
            cursor.setPosition(fragment.position());
            cursor.setPosition(fragment.position() + fragment.length(), QTextCursor::KeepAnchor);
            QTextCharFormat format;
            format.setBackground(kCodeFill);
            format.setFontFamilies({QStringLiteral("DejaVu Sans Mono")});
            cursor.mergeCharFormat(format);
        }
    }
}

// QTextDocument has neither "keep with next" nor "keep together". Walking
// the top level in document order (the layout follows each change): a
// heading that lands near the foot of a page, and a short table that would
// run over a page break, start on the next page instead; a table's heading
// goes with it.
void keepTogether(QTextDocument& document, double pageHeight)
{
    const double headingRoom = layoutMm(30);
    QAbstractTextDocumentLayout* layout = document.documentLayout();
    const auto pageOf = [pageHeight](double y) { return std::floor(y / pageHeight); };
    const auto breakBefore = [](const QTextBlock& block) {
        QTextBlockFormat format = block.blockFormat();
        format.setPageBreakPolicy(QTextFormat::PageBreak_AlwaysBefore);
        QTextCursor(block).setBlockFormat(format);
    };
    QTextBlock headingAbove;  // the heading right before the current item
    for (auto it = document.rootFrame()->begin(); !it.atEnd(); ++it) {
        if (auto* table = qobject_cast<QTextTable*>(it.currentFrame())) {
            const QRectF box = layout->frameBoundingRect(table);
            if (box.height() <= pageHeight / 2 && pageOf(box.top()) != pageOf(box.bottom())) {
                if (headingAbove.isValid()) {
                    breakBefore(headingAbove);
                } else {
                    QTextTableFormat format = table->format();
                    format.setPageBreakPolicy(QTextFormat::PageBreak_AlwaysBefore);
                    table->setFormat(format);
                }
            }
            headingAbove = QTextBlock();
            continue;
        }
        const QTextBlock block = it.currentBlock();
        const bool heading = block.isValid() && block.blockFormat().headingLevel() > 0;
        headingAbove = heading ? block : QTextBlock();
        if (!heading)
            continue;
        const QRectF box = layout->blockBoundingRect(block);
        if (box.top() - pageOf(box.top()) * pageHeight >= pageHeight - headingRoom)
            breakBefore(block);
    }
}

// An image that only lends the text layout its resolution.
QPaintDevice* layoutDevice()
{
    static QImage device = [] {
        QImage image(1, 1, QImage::Format_ARGB32_Premultiplied);
        const int dotsPerMetre = qRound(kLayoutDpi / 0.0254);
        image.setDotsPerMeterX(dotsPerMetre);
        image.setDotsPerMeterY(dotsPerMetre);
        return image;
    }();
    return &device;
}

// `pageSize` in layout units.
void prepareDocument(QTextDocument& document, const QSizeF& pageSize)
{
    document.documentLayout()->setPaintDevice(layoutDevice());
    document.setUseDesignMetrics(true);
    QFont font(kFontFamily);
    font.setPointSizeF(10);
    document.setDefaultFont(font);
    document.setDocumentMargin(0);
    document.setPageSize(pageSize);
}

struct Contents {
    QString title;
    int level;
    int page;  // zero-based page within the body
};

// The level-two and level-three headings of the laid-out body, with the
// body page each one starts on.
std::vector<Contents> collectContents(QTextDocument& body, double pageHeight)
{
    std::vector<Contents> entries;
    QAbstractTextDocumentLayout* layout = body.documentLayout();
    for (QTextBlock block = body.begin(); block.isValid(); block = block.next()) {
        const int level = block.blockFormat().headingLevel();
        if (level < 2 || level > 3)
            continue;
        const double top = layout->blockBoundingRect(block).top();
        entries.push_back({block.text(), level, int(top / pageHeight)});
    }
    return entries;
}

void buildContentsDocument(QTextDocument& document, const std::vector<Contents>& entries, int firstBodyPage,
                           double width)
{
    QTextCursor cursor(&document);
    QTextBlockFormat headingFormat;
    headingFormat.setHeadingLevel(2);
    headingFormat.setBottomMargin(layoutMm(4));
    QTextCharFormat headingChars;
    headingChars.setFontPointSize(18);
    headingChars.setFontWeight(QFont::Bold);
    headingChars.setForeground(kHeadingColor);
    cursor.setBlockFormat(headingFormat);
    cursor.insertText(QStringLiteral("Contents"), headingChars);

    for (const Contents& entry : entries) {
        QTextBlockFormat lineFormat;
        // Just inside the line, or the number wraps onto a line of its own.
        const double indent = entry.level == 3 ? layoutMm(6) : 0;
        lineFormat.setLeftMargin(indent);
        lineFormat.setTabPositions({QTextOption::Tab(width - indent - layoutMm(1), QTextOption::RightTab)});
        lineFormat.setTopMargin(entry.level == 2 ? layoutMm(2.2) : layoutMm(0.6));
        QTextCharFormat lineChars;
        lineChars.setFontPointSize(entry.level == 2 ? 11 : 10);
        lineChars.setFontWeight(entry.level == 2 ? QFont::DemiBold : QFont::Normal);
        lineChars.setForeground(entry.level == 2 ? kTextColor : kSubheadingColor);
        cursor.insertBlock(lineFormat, lineChars);
        cursor.insertText(entry.title + QLatin1Char('\t') + QString::number(firstBodyPage + entry.page));
    }
}

// Paints each page of `document` (laid out in pages of `page` layout units)
// on a new PDF page, with the footer; `area` is the page's paintable area in
// device units.
void drawPages(QPainter& painter, QPdfWriter& writer, QTextDocument& document, const QSizeF& page,
               int firstPageNumber, const QString& footer, const QRectF& area)
{
    QAbstractTextDocumentLayout::PaintContext context;
    context.palette.setColor(QPalette::Text, kTextColor);
    const int pages = document.pageCount();
    for (int index = 0; index < pages; ++index) {
        writer.newPage();
        painter.save();
        painter.scale(kLayoutScale, kLayoutScale);
        painter.translate(0, -index * page.height());
        context.clip = QRectF(0, index * page.height(), page.width(), page.height());
        // Table borders of a row that runs on to the next page are not cut
        // by the layout itself.
        painter.setClipRect(context.clip.adjusted(-2, -2, 2, 0));
        document.documentLayout()->draw(&painter, context);
        painter.restore();

        QFont footerFont(kFontFamily);
        footerFont.setPointSizeF(8);
        painter.setFont(footerFont);
        painter.setPen(kMutedColor);
        const QRectF footerBox(0, area.height() - deviceMm(6), area.width(), deviceMm(6));
        painter.drawText(footerBox, Qt::AlignLeft | Qt::AlignBottom, footer);
        painter.drawText(footerBox, Qt::AlignRight | Qt::AlignBottom, QString::number(firstPageNumber + index));
    }
}

void drawTitlePage(QPainter& painter, const HelpDocumentInput& input, const QString& title, const QRectF& area)
{
    const double iconSide = deviceMm(62);
    const QRectF iconBox((area.width() - iconSide) / 2, deviceMm(40), iconSide, iconSide);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    painter.drawImage(iconBox, input.icon);

    QFont titleFont(kFontFamily);
    titleFont.setPointSizeF(30);
    titleFont.setBold(true);
    painter.setFont(titleFont);
    painter.setPen(kHeadingColor);
    const QRectF titleBox(0, iconBox.bottom() + deviceMm(14), area.width(), deviceMm(16));
    painter.drawText(titleBox, Qt::AlignCenter, title);

    QFont subtitleFont(kFontFamily);
    subtitleFont.setPointSizeF(13);
    painter.setFont(subtitleFont);
    painter.setPen(kSubheadingColor);
    const QRectF subtitleBox(0, titleBox.bottom() + deviceMm(3), area.width(), deviceMm(9));
    painter.drawText(subtitleBox, Qt::AlignCenter, QStringLiteral("A multi-track audio mixing editor for Linux"));

    painter.setPen(QPen(kRuleColor, deviceMm(0.3)));
    const double ruleY = subtitleBox.bottom() + deviceMm(8);
    painter.drawLine(QPointF(area.width() * 0.3, ruleY), QPointF(area.width() * 0.7, ruleY));

    QFont versionFont(kFontFamily);
    versionFont.setPointSizeF(10);
    painter.setFont(versionFont);
    painter.setPen(kMutedColor);
    painter.drawText(QRectF(0, area.height() - deviceMm(12), area.width(), deviceMm(8)), Qt::AlignCenter,
                     QStringLiteral("Version %1").arg(input.version));
}

}  // namespace

bool writeHelpPdf(const HelpDocumentInput& input, const QString& pdfPath, QString* error)
{
    const Title title = splitTitle(input.markdown);

    QPdfWriter writer(pdfPath);
    writer.setResolution(int(kDeviceDpi));
    writer.setPageLayout(QPageLayout(QPageSize(QPageSize::A4), QPageLayout::Portrait, QMarginsF(20, 20, 20, 16),
                                     QPageLayout::Millimeter));
    writer.setTitle(title.text);
    writer.setCreator(QStringLiteral("Brindle"));

    QPainter painter;
    if (!painter.begin(&writer)) {
        *error = QStringLiteral("cannot write %1").arg(pdfPath);
        return false;
    }
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF area(QPointF(0, 0), writer.pageLayout().paintRectPixels(int(kDeviceDpi)).size());
    // The text's page in layout units, leaving room for the footer.
    const QSizeF textPage(area.width() / kLayoutScale, (area.height() - deviceMm(10)) / kLayoutScale);

    QTextDocument body;
    prepareDocument(body, textPage);
    body.setMarkdown(title.body, QTextDocument::MarkdownDialectGitHub);
    if (body.isEmpty()) {
        *error = QStringLiteral("the user guide is empty");
        return false;
    }
    styleHeadings(body);
    styleTables(body.rootFrame());
    styleCode(body);
    keepTogether(body, textPage.height());

    // The contents page lists body page numbers, so the body is laid out
    // first; the contents are one page unless the guide grows very long.
    const std::vector<Contents> entries = collectContents(body, textPage.height());
    const auto makeContents = [&](int firstBodyPage) {
        auto document = std::make_unique<QTextDocument>();
        prepareDocument(*document, textPage);
        buildContentsDocument(*document, entries, firstBodyPage, textPage.width());
        return document;
    };
    const int firstBodyPage = 2 + makeContents(0)->pageCount();
    const std::unique_ptr<QTextDocument> contents = makeContents(firstBodyPage);

    drawTitlePage(painter, input, title.text, area);
    drawPages(painter, writer, *contents, textPage, 2, title.text, area);
    drawPages(painter, writer, body, textPage, firstBodyPage, title.text, area);
    if (!painter.end()) {
        *error = QStringLiteral("cannot finish %1").arg(pdfPath);
        return false;
    }
    return true;
}

}  // namespace artwork
