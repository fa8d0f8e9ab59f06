// The context of a background task: one flat dictionary from string keys to
// values, taken by every task and handed back to its delegate merged with
// the task's own result entries.
//
// Keys and their values:
//   "kVTErrorCode"        int32: 0 success, 1 failure (written by every task that works)
//   "kVTImportURLs"       file URLs: media to import, the document to open, the save target
//   "kVTImportObjects"    objects: the project to save (first element)
//   "kVTExportObjects"    objects: the opened project, or the decoded data providers
//   "kVTFailureURLs"      file URLs: media that could not be opened
//   "kVTTaskDescription"  string: defined, read and written by no task
//
// Contract
// - A value is one of: a 32-bit integer, a string, a list of URLs, a list of
//   objects (reference-counted model objects: projects, data providers).
// - Typed readers answer a default (0, empty) when the key is absent or holds
//   another kind of value.
// - A value type: copy it freely. Copies share the objects they list.
#pragma once

#include "foundation/KeyedCoding.h"

#include <QList>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <cstdint>
#include <map>
#include <memory>
#include <variant>
#include <vector>

inline const QString kVTErrorCode = QStringLiteral("kVTErrorCode");
inline const QString kVTImportURLs = QStringLiteral("kVTImportURLs");
inline const QString kVTImportObjects = QStringLiteral("kVTImportObjects");
inline const QString kVTExportObjects = QStringLiteral("kVTExportObjects");
inline const QString kVTFailureURLs = QStringLiteral("kVTFailureURLs");
inline const QString kVTTaskDescription = QStringLiteral("kVTTaskDescription");

class VTTaskContext {
public:
    using ObjectList = std::vector<std::shared_ptr<brindle::KeyedCoding>>;
    using Value = std::variant<int32_t, QString, QList<QUrl>, ObjectList>;

    VTTaskContext() = default;

    bool isEmpty() const { return m_values.empty(); }
    bool contains(const QString& key) const { return m_values.count(key) != 0; }
    QStringList keys() const;
    // The value under `key`, or null.
    const Value* find(const QString& key) const;

    void set(const QString& key, Value value) { m_values[key] = std::move(value); }
    void remove(const QString& key) { m_values.erase(key); }

    int32_t intForKey(const QString& key, int32_t fallback = 0) const;
    QString stringForKey(const QString& key) const;
    QList<QUrl> urlsForKey(const QString& key) const;
    ObjectList objectsForKey(const QString& key) const;
    // The listed objects that are of class T, in order.
    template <class T>
    std::vector<std::shared_ptr<T>> objectsOfClassForKey(const QString& key) const
    {
        std::vector<std::shared_ptr<T>> out;
        for (const auto& object : objectsForKey(key)) {
            if (auto typed = std::dynamic_pointer_cast<T>(object))
                out.push_back(std::move(typed));
        }
        return out;
    }
    // Wraps a typed list for `set`.
    template <class T>
    static ObjectList objectList(const std::vector<std::shared_ptr<T>>& objects)
    {
        return ObjectList(objects.begin(), objects.end());
    }

    // A copy of this context with every entry of `result` added; entries of
    // `result` replace entries with the same key.
    VTTaskContext mergedWith(const VTTaskContext& result) const;

private:
    std::map<QString, Value> m_values;
};
