// The export options: format, quality and sample rate, chosen in three
// combo boxes that sit inside the export save dialog.
//
// Contract
// - Every value is read from the combo boxes each time it is asked for and
//   turned into a number by KRExportSettings, which holds every rule (titles,
//   codes, rates, bit rates, extensions, defaults); nothing here repeats one.
// - The constructor runs awakeFromNib: MP3, its first rate "48KHz", quality
//   "Normal" (48000 Hz, 224000 bit/s, 2 channels, sample format 1).
// - The setters select the matching entry; they are not the user's choice and
//   send nothing. `setFormatType` therefore leaves the rate list as it is;
//   `formatChanged` (run when the user picks a format in the box) refills it
//   for the new format and selects its first rate.
// - `formatChanged` needs the save dialog the options are shown in
//   (`savePanel`); without one it logs "Warning: this view can only using in
//   save panel" and does nothing. With one it also sets the dialog's name
//   filter and default suffix to the new format's extension, which changes
//   the extension of the file name typed in the dialog to match.
// - `makeSavePanel` builds that dialog and lends the options widget to it for
//   as long as it is open; the widget outlives the dialog and keeps the last
//   choices for the next export.
// - Main thread only.
#pragma once

#include <QPointer>
#include <QStringList>
#include <QWidget>

#include <cstdint>

class KRExportSettings;
class QComboBox;
class QFileDialog;

class KRExportOptions : public QWidget {
    Q_OBJECT

public:
    explicit KRExportOptions(QWidget* parent = nullptr);
    ~KRExportOptions() override;

    // A window-modal, non-native save dialog on `window` (AcceptSave,
    // deleted when closed) with `options` under its file type row, its name
    // filter and default suffix set from the options' format, and the
    // options' savePanel set to it. When the dialog finishes, savePanel is
    // cleared and the widget is taken back out of it before the finished
    // signal reaches later receivers. The caller connects to the dialog's
    // `finished` signal and calls `open()`.
    static QFileDialog* makeSavePanel(QWidget* window, KRExportOptions* options);

    // The choices offered, in combo-box order.
    static QStringList supportFormats();
    static QStringList supportQualitys();
    static QStringList supportSamplerateWithFormat(int32_t formatType);
    // The rates of the selected format.
    QStringList supportSamplerate() const;

    int32_t formatType() const;
    void setFormatType(int32_t formatType);
    int64_t sampleRate() const;
    // Writes the number into the rate box (as an extra entry when no rate
    // title reads so), so only a rate spelled as a title reads back as itself.
    void setSampleRate(int64_t sampleRate);
    int32_t bitrate() const;
    void setBitrate(int32_t bitrate);
    int32_t sampleFormat() const;
    void setSampleFormat(int32_t) {}
    int64_t numberOfChannel() const;
    void setNumberOfChannel(int64_t) {}
    // The file types the save dialog allows: the selected format's extension.
    QStringList supportFormatUTI() const;

    static QString extensionWithFormatType(int32_t formatType);
    static int32_t defaultSampleFormat();
    static int64_t defaultNumberOfChannel();
    static int64_t defaultSampleRate();

    // The save dialog the options are shown in, or null.
    QFileDialog* savePanel() const;
    void setSavePanel(QFileDialog* savePanel);

    // Fills the boxes and selects the initial choices.
    void awakeFromNib();
    // The user picked a format (see the contract).
    void formatChanged();

    QComboBox* cmbFormats() const { return m_cmbFormats; }
    QComboBox* cmbQualitys() const { return m_cmbQualitys; }
    QComboBox* cmbSamplerates() const { return m_cmbSamplerates; }

private:
    // The boxes' current texts, read into the value object that knows what
    // they mean.
    KRExportSettings settings() const;

    QComboBox* m_cmbFormats = nullptr;
    QComboBox* m_cmbQualitys = nullptr;
    QComboBox* m_cmbSamplerates = nullptr;
    QPointer<QFileDialog> m_savePanel;
};
