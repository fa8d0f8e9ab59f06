// The export options inside the export save dialog, the progress sheet, and
// the build-time artwork as the editor's libraries carry it in resources.
#include "app/KRExportOptions.h"
#include "gui/WaitFor.h"
#include "app/KRProgressWndCtrl.h"
#include "foundation/Log.h"

#include <QComboBox>
#include <QDialog>
#include <QFile>
#include <QFileDialog>
#include <QImage>
#include <QLabel>
#include <QLineEdit>
#include <QMainWindow>
#include <QPointer>
#include <QTest>

#include <gtest/gtest.h>

#include <mutex>

namespace {

QStringList itemsOf(const QComboBox* box)
{
    QStringList items;
    for (int i = 0; i < box->count(); ++i)
        items << box->itemText(i);
    return items;
}

// What a person does: pick the entry in the box (which sends `activated`).
void pick(QComboBox* box, const QString& text)
{
    const int index = box->findText(text);
    ASSERT_GE(index, 0) << text.toStdString();
    box->setCurrentIndex(index);
    Q_EMIT box->activated(index);
}

// The log lines written while it exists.
class LogLines {
public:
    LogLines()
    {
        m_previous = brindle::setLogSink([this](const QString& line) {
            const std::lock_guard lock(m_mutex);
            m_lines << line;
        });
    }
    ~LogLines() { brindle::setLogSink(std::move(m_previous)); }
    bool contains(const QString& line) const
    {
        const std::lock_guard lock(m_mutex);
        return m_lines.contains(line);
    }

private:
    mutable std::mutex m_mutex;
    QStringList m_lines;
    brindle::LogSink m_previous;
};

const QString kMp3 = QStringLiteral("MP3 audio format(*.mp3)");
const QString kWav = QStringLiteral("Waveform audio format(*.wav)");

}  // namespace

TEST(ExportOptions, StartsWithMp3At48KHzNormalQuality)
{
    KRExportOptions options;
    EXPECT_EQ(options.formatType(), 100);
    EXPECT_EQ(options.sampleRate(), 48000);
    EXPECT_EQ(options.bitrate(), 224000);
    EXPECT_EQ(options.numberOfChannel(), 2);
    EXPECT_EQ(options.sampleFormat(), 1);
    EXPECT_EQ(options.supportFormatUTI(), QStringList{QStringLiteral("mp3")});

    EXPECT_EQ(options.cmbFormats()->currentText(), kMp3);
    EXPECT_EQ(itemsOf(options.cmbSamplerates()), (QStringList{"48KHz", "44.1KHz"}));
    EXPECT_EQ(options.cmbSamplerates()->currentText(), QStringLiteral("48KHz"));
    EXPECT_EQ(options.cmbQualitys()->currentText(), QStringLiteral("Normal"));
    for (const QComboBox* box : {options.cmbFormats(), options.cmbQualitys(), options.cmbSamplerates()})
        EXPECT_FALSE(box->isEditable()) << box->objectName().toStdString();
}

TEST(ExportOptions, SettersSelectEntriesThatReadBackThroughTheBoxes)
{
    KRExportOptions options;
    const struct {
        int32_t bitrate;
        QString quality;
    } qualities[] = {{320000, "High"}, {224001, "High"}, {224000, "Normal"}, {128001, "Normal"}, {128000, "Low"}};
    for (const auto& row : qualities) {
        options.setBitrate(row.bitrate);
        EXPECT_EQ(options.cmbQualitys()->currentText(), row.quality) << row.bitrate;
    }

    // A rate is written as a number, which is no rate title: it reads 44100.
    options.setSampleRate(48000);
    EXPECT_EQ(options.cmbSamplerates()->currentText(), QStringLiteral("48000"));
    EXPECT_EQ(options.sampleRate(), 44100);

    // Selecting a format from code is not the user's choice: the rates stay.
    options.setFormatType(102);
    EXPECT_EQ(options.formatType(), 102);
    EXPECT_EQ(options.supportFormatUTI(), QStringList{QStringLiteral("wav")});
    EXPECT_EQ(options.cmbSamplerates()->count(), 3);
}

TEST(ExportOptions, FormatChangeOutsideASavePanelOnlyWarns)
{
    KRExportOptions options;
    const LogLines log;
    pick(options.cmbFormats(), kWav);
    EXPECT_TRUE(log.contains(QStringLiteral("Warning: this view can only using in save panel")));
    EXPECT_EQ(itemsOf(options.cmbSamplerates()), (QStringList{"48KHz", "44.1KHz"}));
}

TEST(ExportOptions, SavePanelFollowsTheChosenFormat)
{
    QMainWindow window;
    window.show();
    KRExportOptions options;
    QPointer<QFileDialog> panel = KRExportOptions::makeSavePanel(&window, &options);
    ASSERT_TRUE(panel);
    EXPECT_EQ(panel->windowModality(), Qt::WindowModal);
    EXPECT_TRUE(panel->testOption(QFileDialog::DontUseNativeDialog));
    EXPECT_EQ(panel->acceptMode(), QFileDialog::AcceptSave);
    EXPECT_EQ(options.savePanel(), panel.data());
    EXPECT_TRUE(panel->isAncestorOf(&options));
    EXPECT_EQ(panel->defaultSuffix(), QStringLiteral("mp3"));
    EXPECT_TRUE(panel->nameFilters().constFirst().contains(QStringLiteral("*.mp3")));

    panel->selectFile(QStringLiteral("mix.mp3"));
    panel->open();
    auto* fileName = panel->findChild<QLineEdit*>(QStringLiteral("fileNameEdit"));
    ASSERT_NE(fileName, nullptr);

    pick(options.cmbFormats(), kWav);
    EXPECT_EQ(itemsOf(options.cmbSamplerates()), (QStringList{"96KHz", "48KHz", "44.1KHz", "22.5KHz"}));
    EXPECT_EQ(options.sampleRate(), 96000);
    EXPECT_EQ(panel->defaultSuffix(), QStringLiteral("wav"));
    EXPECT_TRUE(panel->nameFilters().constFirst().contains(QStringLiteral("*.wav")));
    EXPECT_EQ(fileName->text(), QStringLiteral("mix.wav"));

    pick(options.cmbSamplerates(), QStringLiteral("22.5KHz"));
    EXPECT_EQ(options.sampleRate(), 22500);

    pick(options.cmbFormats(), kMp3);
    EXPECT_EQ(itemsOf(options.cmbSamplerates()), (QStringList{"48KHz", "44.1KHz"}));
    EXPECT_EQ(options.cmbSamplerates()->currentText(), QStringLiteral("48KHz"));
    EXPECT_EQ(fileName->text(), QStringLiteral("mix.mp3"));

    // Closing gives the options back (with their choices) before the panel goes.
    panel->reject();
    EXPECT_EQ(options.savePanel(), nullptr);
    EXPECT_EQ(options.parent(), nullptr);
    BRINDLE_WAIT_TRUE(panel.isNull());
    EXPECT_EQ(options.formatType(), 100);
}

TEST(ProgressWndCtrl, ShowsDescriptionAndPercentageAsAWindowModalSheet)
{
    QMainWindow window;
    window.show();
    KRProgressWndCtrl progress;
    progress.setProgressDescription(QStringLiteral("Saving project, please wait..."));
    progress.setCanCancel(false);
    progress.beginSheet(&window);

    QDialog* sheet = progress.window();
    BRINDLE_WAIT_TRUE(sheet->isVisible());
    EXPECT_EQ(sheet->parentWidget(), &window);
    EXPECT_EQ(sheet->windowModality(), Qt::WindowModal);
    const auto* description = sheet->findChild<QLabel*>(QStringLiteral("progressDescription"));
    const auto* percentage = sheet->findChild<QLabel*>(QStringLiteral("progressPercentage"));
    ASSERT_TRUE(description && percentage);
    EXPECT_EQ(description->text(), QStringLiteral("Saving project, please wait..."));
    EXPECT_EQ(percentage->text(), QStringLiteral("0 %"));

    progress.setProcent(42.7);
    EXPECT_EQ(percentage->text(), QStringLiteral("42 %"));
    progress.setProcent(250.0);
    EXPECT_EQ(percentage->text(), QStringLiteral("100 %"));
    for (const QWidget* button : sheet->findChildren<QWidget*>()) {
        if (button->inherits("QAbstractButton")) {
            EXPECT_FALSE(button->isVisible()) << "no Cancel while canCancel is off";
        }
    }

    QTest::keyClick(sheet, Qt::Key_Escape);
    EXPECT_TRUE(sheet->isVisible());
    progress.endSheet();
    EXPECT_FALSE(sheet->isVisible());
}

TEST(Artwork, IsInTheLibrariesResources)
{
    const struct {
        const char* path;
        QSize size;
    } images[] = {{":/cursor.png", {13, 14}},          {":/images/play.png", {24, 24}},
                  {":/images/play@2x.png", {48, 48}},  {":/images/pause.png", {24, 24}},
                  {":/images/brindle.png", {256, 256}}};
    for (const auto& image : images) {
        const QImage loaded(QString::fromLatin1(image.path));
        EXPECT_EQ(loaded.size(), image.size) << image.path;
        EXPECT_TRUE(loaded.hasAlphaChannel()) << image.path;
    }
    QFile help(QStringLiteral(":/Help.pdf"));
    ASSERT_TRUE(help.open(QIODevice::ReadOnly));
    EXPECT_TRUE(help.read(5) == "%PDF-");
    EXPECT_GT(help.size(), 20000);
}
