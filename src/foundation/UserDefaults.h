// User defaults over QSettings (organisation "tarnwell", application "brindle").
// Thread-safe: every access holds one lock.
#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>

#include <optional>

namespace brindle {

class UserDefaults {
public:
    static UserDefaults& standardUserDefaults();

    std::optional<QByteArray> dataForKey(const QString& key) const;
    void setData(const QByteArray& value, const QString& key);
    QVariant valueForKey(const QString& key) const;
    void setValue(const QVariant& value, const QString& key);
    void removeObjectForKey(const QString& key);
    // Writes pending changes to storage.
    void synchronize();
};

}  // namespace brindle
