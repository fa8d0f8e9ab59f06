// A map from strings to small values, tuned for the handful of distinct
// strings of a typical archive (keys, class names): up to kLinearLimit entries
// it is a flat list searched linearly, which needs no hashing and one
// allocation; beyond that a hash index is added.
//
// Characters are read with constData(), never utf16(): utf16() reallocates a
// string made from a literal, which would write to the key constants that
// every thread's archiver shares.
#pragma once

#include <QHashFunctions>
#include <QString>
#include <QStringView>

#include <cstring>
#include <unordered_map>
#include <utility>
#include <vector>

namespace brindle {

template <class Value>
class BplistStringTable {
public:
    static constexpr size_t kLinearLimit = 24;

    BplistStringTable() { m_entries.reserve(16); }

    // The value stored for `key`, or null.
    const Value* find(QStringView key) const
    {
        if (m_index.empty()) {
            const size_t bytes = static_cast<size_t>(key.size()) * sizeof(char16_t);
            for (const auto& entry : m_entries)
                if (entry.first.size() == key.size() &&
                    (bytes == 0 || std::memcmp(entry.first.constData(), key.utf16(), bytes) == 0))
                    return &entry.second;
            return nullptr;
        }
        const auto found = m_index.find(key);
        return found == m_index.end() ? nullptr : &m_entries[found->second].second;
    }

    // Adds a key that is not in the table yet.
    void insert(const QString& key, Value value)
    {
        m_entries.emplace_back(key, std::move(value));
        if (!m_index.empty()) {
            m_index.emplace(QStringView(m_entries.back().first), m_entries.size() - 1);
        } else if (m_entries.size() > kLinearLimit) {
            m_index.reserve(m_entries.size() * 2);
            for (size_t i = 0; i < m_entries.size(); ++i)
                m_index.emplace(QStringView(m_entries[i].first), i);
        }
    }

private:
    struct Hash {
        size_t operator()(QStringView key) const { return qHash(key); }
    };

    // The index holds views of the stored strings' characters, which stay put
    // when the vector moves the QString objects.
    std::vector<std::pair<QString, Value>> m_entries;
    std::unordered_map<QStringView, size_t, Hash> m_index;
};

}  // namespace brindle
