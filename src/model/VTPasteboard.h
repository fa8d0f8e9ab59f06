// The general pasteboard: a process-wide place where copy puts typed data and
// paste takes it.
//
// Contract
// - `VTPasteboard` is abstract. A program installs the pasteboard it wants
//   with `setGeneralPasteboard`: the editor installs one over the system
//   clipboard; headless programs and tests get `brindle::MemoryPasteboard`,
//   which `generalPasteboard()` creates on first use when none is installed.
// - `declareTypes` starts new contents: it empties the pasteboard and lists
//   the types that will be provided. `setData` then stores the bytes of one
//   declared type (an undeclared type is refused). `types` lists the declared
//   types, `dataForType` answers the bytes of a type, or nothing when the
//   type was not declared or not given data.
// - Installing and fetching the general pasteboard is thread-safe. The
//   in-process implementation is thread-safe as well; other implementations
//   say what they allow (one over the system clipboard is main-thread only).
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <map>
#include <memory>
#include <mutex>
#include <optional>

class VTPasteboard {
public:
    virtual ~VTPasteboard() = default;

    // The installed general pasteboard; a MemoryPasteboard when none was installed.
    static std::shared_ptr<VTPasteboard> generalPasteboard();
    // Installs `pasteboard` as the general pasteboard; null restores the default
    // (a fresh MemoryPasteboard made on the next use).
    static void setGeneralPasteboard(std::shared_ptr<VTPasteboard> pasteboard);

    virtual QStringList types() const = 0;
    virtual void declareTypes(const QStringList& types) = 0;
    // Stores the bytes of a declared type; false when the type was not declared.
    virtual bool setData(const QByteArray& data, const QString& type) = 0;
    virtual std::optional<QByteArray> dataForType(const QString& type) const = 0;
};

namespace brindle {

// A pasteboard that lives in this process only. Thread-safe.
class MemoryPasteboard final : public VTPasteboard {
public:
    QStringList types() const override;
    void declareTypes(const QStringList& types) override;
    bool setData(const QByteArray& data, const QString& type) override;
    std::optional<QByteArray> dataForType(const QString& type) const override;

private:
    mutable std::mutex m_mutex;
    QStringList m_types;
    std::map<QString, QByteArray> m_data;
};

}  // namespace brindle
