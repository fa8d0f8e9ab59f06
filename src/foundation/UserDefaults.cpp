#include "foundation/UserDefaults.h"

#include "foundation/Dispatch.h"
#include "foundation/Log.h"

#include <QCoreApplication>
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
            settings = std::make_unique<QSettings>(QStringLiteral("tarnwell"), QStringLiteral("brindle"));
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
