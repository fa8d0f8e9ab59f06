#include "foundation/UserDefaults.h"

#include "foundation/Dispatch.h"
#include "foundation/Log.h"

#include <QCoreApplication>
#include <QDataStream>
#include <QFile>
#include <QFileInfo>
#include <QSettings>

#include <chrono>
#include <memory>
#include <mutex>
#include <thread>

namespace brindle {

namespace {

// QSettings reads '/' and '\' in a key as group separators and folds repeated
// separators, so two different keys could name one entry. They are escaped
// (with '%' itself) to keep every key one flat entry. Dots need no escaping.
QString storageKey(const QString& key)
{
    QString escaped;
    escaped.reserve(key.size());
    for (QChar c : key) {
        if (c == u'%')
            escaped += QStringLiteral("%25");
        else if (c == u'/')
            escaped += QStringLiteral("%2F");
        else if (c == u'\\')
            escaped += QStringLiteral("%5C");
        else
            escaped += c;
    }
    return escaped;
}

bool acceptKey(const QString& key, const char* operation)
{
    if (!key.isEmpty())
        return true;
    logf("UserDefaults: %s with an empty key ignored", operation);
    return false;
}

// The settings file holds the map of keys to values as a QDataStream after a
// magic number and a format version. The provider registry is one byte
// array of several megabytes per hour of imported media; a text (ini) file
// escapes it byte by byte and takes seconds to parse at every start, while
// this reads it back as one block.
constexpr quint32 kFileMagic = 0x42524446;  // "BRDF"
constexpr quint32 kFileVersion = 1;
constexpr QDataStream::Version kStreamVersion = QDataStream::Qt_6_4;

// Keeps a damaged settings file beside the new one instead of letting the
// next write replace it.
void setAsideDamaged(QIODevice& device)
{
    const auto* file = qobject_cast<QFile*>(&device);
    if (!file)
        return;
    const QString aside = file->fileName() + QStringLiteral(".damaged");
    QFile::remove(aside);
    const bool kept = QFile::copy(file->fileName(), aside);
    logf("UserDefaults: the settings file %s is damaged and is not used%s", qUtf8Printable(file->fileName()),
         kept ? qUtf8Printable(QStringLiteral("; a copy is kept as ") + aside) : "");
}

bool readSettingsFile(QIODevice& device, QSettings::SettingsMap& map)
{
    // An empty file is a fresh one.
    if (device.atEnd())
        return true;
    QDataStream in(&device);
    in.setVersion(kStreamVersion);
    quint32 magic = 0;
    quint32 version = 0;
    in >> magic >> version;
    QSettings::SettingsMap read;
    if (magic == kFileMagic && version == kFileVersion)
        in >> read;
    if (magic != kFileMagic || version != kFileVersion || in.status() != QDataStream::Ok || !in.atEnd()) {
        setAsideDamaged(device);
        return false;
    }
    map = std::move(read);
    return true;
}

bool writeSettingsFile(QIODevice& device, const QSettings::SettingsMap& map)
{
    QDataStream out(&device);
    out.setVersion(kStreamVersion);
    out << kFileMagic << kFileVersion << map;
    return out.status() == QDataStream::Ok;
}

QSettings::Format settingsFormat()
{
    static const QSettings::Format format =
        QSettings::registerFormat(QStringLiteral("defaults"), readSettingsFile, writeSettingsFile);
    return format;
}

// Settings written by earlier versions as an ini file are carried over once,
// when no settings file of the current format exists yet; the ini file is
// removed only after its values are safely in the new file.
void adoptIniSettings(QSettings& settings)
{
    const QString iniFile = QFileInfo(settings.fileName()).path() + QStringLiteral("/brindle.conf");
    if (QFile::exists(settings.fileName()) || !QFile::exists(iniFile))
        return;
    const QSettings ini(iniFile, QSettings::IniFormat);
    const QStringList keys = ini.allKeys();
    for (const QString& key : keys)
        settings.setValue(key, ini.value(key));
    settings.sync();
    if (settings.status() == QSettings::NoError && QFile::exists(settings.fileName())) {
        QFile::remove(iniFile);
        logf("UserDefaults: %lld settings carried over from %s", static_cast<long long>(keys.size()),
             qUtf8Printable(iniFile));
    }
}

// Changes are kept in memory at once and written shortly afterwards, so that a
// burst of changes (or one large value) costs one write. synchronize() writes
// at once, and so does the destruction of the application object.
constexpr std::chrono::milliseconds kWriteDelay {250};

struct Store {
    std::mutex mutex;
    std::unique_ptr<QSettings> settings;
    bool writeScheduled = false;
    bool flushesAtApplicationEnd = false;

    // The one QSettings object, made on first use. It is detached from every
    // thread so that Qt never runs its own deferred write on some thread
    // outside our lock.
    QSettings& settingsLocked()
    {
        if (!settings) {
            settings = std::make_unique<QSettings>(settingsFormat(), QSettings::UserScope, QStringLiteral("tarnwell"),
                                                   QStringLiteral("brindle"));
            adoptIniSettings(*settings);
            settings->moveToThread(nullptr);
        }
        return *settings;
    }

    void writeLocked()
    {
        writeScheduled = false;
        QSettings& store = settingsLocked();
        store.sync();
        if (store.status() != QSettings::NoError)
            logf("UserDefaults: cannot write %s", qUtf8Printable(store.fileName()));
    }

    void changedLocked()
    {
        flushAtApplicationEndLocked();
        if (writeScheduled)
            return;
        writeScheduled = true;
        writer().async([] {
            std::this_thread::sleep_for(kWriteDelay);
            store().writeIfScheduled();
        });
    }

    void writeIfScheduled()
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (writeScheduled)
            writeLocked();
    }

    // The application object's destructor writes what is still pending. Only
    // the main thread registers this, while the application object exists.
    void flushAtApplicationEndLocked()
    {
        if (flushesAtApplicationEnd || !isMainThread() || !QCoreApplication::instance())
            return;
        flushesAtApplicationEnd = true;
        qAddPostRoutine([] {
            Store& s = store();
            std::lock_guard<std::mutex> lock(s.mutex);
            s.flushesAtApplicationEnd = false;
            if (s.writeScheduled)
                s.writeLocked();
        });
    }

    static Store& store()
    {
        // Never destroyed: it may be used from any thread until the process ends.
        static Store* instance = new Store();
        return *instance;
    }

    static SerialQueue& writer()
    {
        static SerialQueue* queue = new SerialQueue(QStringLiteral("brindle.defaults"));
        return *queue;
    }
};

Store& store()
{
    return Store::store();
}

}  // namespace

QString UserDefaults::fileName()
{
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.settingsLocked().fileName();
}

std::unique_ptr<QSettings> UserDefaults::settingsForFile(const QString& path)
{
    return std::make_unique<QSettings>(path, settingsFormat());
}

UserDefaults& UserDefaults::standardUserDefaults()
{
    static UserDefaults* defaults = new UserDefaults();
    return *defaults;
}

std::optional<QByteArray> UserDefaults::dataForKey(const QString& key) const
{
    const QVariant value = valueForKey(key);
    if (value.typeId() != QMetaType::QByteArray)
        return std::nullopt;
    return value.toByteArray();
}

void UserDefaults::setData(const QByteArray& value, const QString& key)
{
    setValue(QVariant(value), key);
}

QVariant UserDefaults::valueForKey(const QString& key) const
{
    if (!acceptKey(key, "valueForKey"))
        return {};
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.settingsLocked().value(storageKey(key));
}

void UserDefaults::setValue(const QVariant& value, const QString& key)
{
    if (!value.isValid()) {
        removeObjectForKey(key);
        return;
    }
    if (!acceptKey(key, "setValue"))
        return;
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.settingsLocked().setValue(storageKey(key), value);
    s.changedLocked();
}

void UserDefaults::removeObjectForKey(const QString& key)
{
    if (!acceptKey(key, "removeObjectForKey"))
        return;
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.settingsLocked().remove(storageKey(key));
    s.changedLocked();
}

void UserDefaults::synchronize()
{
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.writeLocked();
}

}  // namespace brindle
