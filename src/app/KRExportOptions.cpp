#include "app/KRExportOptions.h"

#include "export/KRExportSettings.h"
#include "foundation/Log.h"

#include <QComboBox>
#include <QFileDialog>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>

namespace {

// Selects the entry reading `text`, adding it first when there is none.
void selectText(QComboBox* box, const QString& text)
{
    int index = box->findText(text);
    if (index < 0) {
        box->addItem(text);
        index = box->count() - 1;
    }
    box->setCurrentIndex(index);
}

void fill(QComboBox* box, const QStringList& titles, const QString& selected)
{
    box->clear();
    box->addItems(titles);
    selectText(box, selected);
}

QComboBox* makeBox(const QString& name, QWidget* parent)
{
    auto* box = new QComboBox(parent);
    box->setObjectName(name);
    box->setEditable(false);
    box->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    return box;
}

// "MP3 audio (*.mp3)" for {"mp3"}.
QString nameFilterWithExtensions(const QStringList& extensions)
{
    QStringList patterns;
    for (const QString& extension : extensions)
        patterns << QStringLiteral("*.") + extension;
    return QStringLiteral("%1 audio (%2)").arg(extensions.value(0).toUpper(), patterns.join(QLatin1Char(' ')));
}

// The dialog offers and appends the format's extension. Setting the filter
// also makes the dialog replace the extension of the name typed so far.
void allowFileTypes(QFileDialog* panel, const QStringList& extensions)
{
    panel->setDefaultSuffix(extensions.value(0));
    panel->setNameFilter(nameFilterWithExtensions(extensions));
}

}  // namespace

KRExportOptions::KRExportOptions(QWidget* parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("exportOptions"));
    m_cmbFormats = makeBox(QStringLiteral("cmbFormats"), this);
    m_cmbQualitys = makeBox(QStringLiteral("cmbQualitys"), this);
    m_cmbSamplerates = makeBox(QStringLiteral("cmbSamplerates"), this);

    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(0, 6, 0, 0);
    const auto addField = [this, row](const QString& caption, QComboBox* box) {
        auto* label = new QLabel(caption, this);
        label->setBuddy(box);
        row->addWidget(label);
        row->addWidget(box);
        row->addSpacing(12);
    };
    addField(tr("F&ormat:"), m_cmbFormats);
    addField(tr("&Quality:"), m_cmbQualitys);
    addField(tr("Sample &rate:"), m_cmbSamplerates);
    row->addStretch(1);

    // Only the user's pick is a format change; selecting a format from code
    // (setFormatType, awakeFromNib) is not.
    connect(m_cmbFormats, &QComboBox::activated, this, &KRExportOptions::formatChanged);
    awakeFromNib();
}

KRExportOptions::~KRExportOptions() = default;

QFileDialog* KRExportOptions::makeSavePanel(QWidget* window, KRExportOptions* options)
{
    auto* panel = new QFileDialog(window);
    panel->setOption(QFileDialog::DontUseNativeDialog);
    panel->setAcceptMode(QFileDialog::AcceptSave);
    panel->setFileMode(QFileDialog::AnyFile);
    panel->setWindowTitle(tr("Export"));
    panel->setLabelText(QFileDialog::Accept, tr("Export"));
    panel->setWindowModality(Qt::WindowModal);
    panel->setAttribute(Qt::WA_DeleteOnClose);

    // Qt's own dialog lays itself out on a grid whose last row is the file
    // type; the options go on a row of their own below it.
    if (auto* grid = qobject_cast<QGridLayout*>(panel->layout())) {
        grid->addWidget(options, grid->rowCount(), 0, 1, grid->columnCount());
    } else {
        brindle::log(QStringLiteral("Export options: the save dialog has no grid; options appended"));
        options->setParent(panel);
        if (panel->layout())
            panel->layout()->addWidget(options);
    }
    options->show();
    options->setSavePanel(panel);
    allowFileTypes(panel, options->supportFormatUTI());

    // Give the widget back before the dialog deletes itself with its children.
    connect(panel, &QDialog::finished, options, [options] {
        options->setSavePanel(nullptr);
        options->setParent(nullptr);
    });
    return panel;
}

QStringList KRExportOptions::supportFormats()
{
    return KRExportSettings::supportFormats();
}

QStringList KRExportOptions::supportQualitys()
{
    return KRExportSettings::supportQualitys();
}

QStringList KRExportOptions::supportSamplerateWithFormat(int32_t formatType)
{
    return KRExportSettings::supportSamplerateWithFormat(formatType);
}

QStringList KRExportOptions::supportSamplerate() const
{
    return settings().supportSamplerate();
}

int32_t KRExportOptions::formatType() const
{
    return settings().formatType();
}

void KRExportOptions::setFormatType(int32_t formatType)
{
    KRExportSettings wanted = settings();
    wanted.setFormatType(formatType);
    selectText(m_cmbFormats, wanted.formatTitle());
}

int64_t KRExportOptions::sampleRate() const
{
    return settings().sampleRate();
}

void KRExportOptions::setSampleRate(int64_t sampleRate)
{
    KRExportSettings wanted = settings();
    wanted.setSampleRate(sampleRate);
    selectText(m_cmbSamplerates, wanted.samplerateTitle());
}

int32_t KRExportOptions::bitrate() const
{
    return settings().bitrate();
}

void KRExportOptions::setBitrate(int32_t bitrate)
{
    KRExportSettings wanted = settings();
    wanted.setBitrate(bitrate);
    selectText(m_cmbQualitys, wanted.qualityTitle());
}

int32_t KRExportOptions::sampleFormat() const
{
    return settings().sampleFormat();
}

int64_t KRExportOptions::numberOfChannel() const
{
    return settings().numberOfChannel();
}

QStringList KRExportOptions::supportFormatUTI() const
{
    return settings().supportFormatUTI();
}

QString KRExportOptions::extensionWithFormatType(int32_t formatType)
{
    return KRExportSettings::extensionWithFormatType(formatType);
}

int32_t KRExportOptions::defaultSampleFormat()
{
    return KRExportSettings::defaultSampleFormat();
}

int64_t KRExportOptions::defaultNumberOfChannel()
{
    return KRExportSettings::defaultNumberOfChannel();
}

int64_t KRExportOptions::defaultSampleRate()
{
    return KRExportSettings::defaultSampleRate();
}

QFileDialog* KRExportOptions::savePanel() const
{
    return m_savePanel;
}

void KRExportOptions::setSavePanel(QFileDialog* savePanel)
{
    m_savePanel = savePanel;
}

void KRExportOptions::awakeFromNib()
{
    // A new value object holds the initial selection.
    const KRExportSettings initial;
    fill(m_cmbFormats, supportFormats(), initial.formatTitle());
    fill(m_cmbSamplerates, initial.supportSamplerate(), initial.samplerateTitle());
    fill(m_cmbQualitys, supportQualitys(), initial.qualityTitle());
}

void KRExportOptions::formatChanged()
{
    if (!m_savePanel) {
        brindle::log(QStringLiteral("Warning: this view can only using in save panel"));
        return;
    }
    KRExportSettings changed = settings();
    changed.formatChanged();
    allowFileTypes(m_savePanel, changed.supportFormatUTI());
    fill(m_cmbSamplerates, changed.supportSamplerate(), changed.samplerateTitle());
}

KRExportSettings KRExportOptions::settings() const
{
    KRExportSettings current;
    current.setFormatTitle(m_cmbFormats->currentText());
    current.setSamplerateTitle(m_cmbSamplerates->currentText());
    current.setQualityTitle(m_cmbQualitys->currentText());
    return current;
}
