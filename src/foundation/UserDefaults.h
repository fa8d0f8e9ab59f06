// User defaults over QSettings (organisation "tarnwell", application "brindle"),
// stored under XDG_CONFIG_HOME in a binary settings file (a text file would
// escape the large registry value byte by byte). Settings of an earlier ini
// file are carried over on first use; a damaged file is set aside, logged,
// and not used.
// Thread-safe: every access holds one lock.
// - Keys are flat: dots are plain characters, and '/' or '\\' in a key do not
//   make groups (they are escaped). An empty key is refused with a log line.
// - Values are QVariants; byte arrays round-trip exactly, whatever their bytes.
// - A change is seen at once by every reader and reaches the file shortly
//   afterwards (a burst of changes is written once); `synchronize` writes at
//   once, and so does the destruction of the application object.
#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>

#include <memory>
#include <optional>

class QSettings;

namespace brindle {

class UserDefaults {
public:
    static UserDefaults& standardUserDefaults();
    // Where the defaults are stored, and a QSettings over any file of that
    // format (for tools and tests that read one from disk).
    static QString fileName();
    static std::unique_ptr<QSettings> settingsForFile(const QString& path);

    // The value if it is a byte array; nothing when absent or of another type.
    std::optional<QByteArray> dataForKey(const QString& key) const;
    void setData(const QByteArray& value, const QString& key);
    QVariant valueForKey(const QString& key) const;
    // An invalid QVariant removes the key.
    void setValue(const QVariant& value, const QString& key);
    void removeObjectForKey(const QString& key);
    // Writes pending changes to storage.
    void synchronize();
};

}  // namespace brindle
