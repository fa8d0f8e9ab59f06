// Undo records: a command holds a snapshot of what an edit can touch, taken
// before the edit (`beginExcute`) and after it (`endExcute`); undo puts the
// first back, redo the second.
//
// Contract
// - A command's kind (`type`) says what its snapshots hold and is fixed by
//   the factory that made it: remove 0, add 1 and exchange 3 snapshot the
//   whole project; edit 2 snapshots only the selected clips and their tracks.
// - The snapshots are taken and restored by the command's context
//   (KRCommandContext, the editor's controller). A snapshot the context could
//   not take is empty, and undo or redo of it does nothing.
// - The context is not owned: it is the editor's controller, which empties
//   the undo stack before it goes, so no command outlives it in a list.
// - Main thread only.
#pragma once

#include <QByteArray>

#include <cstdint>
#include <memory>
#include <optional>

class KRCommand;

// Takes and restores the snapshots of commands.
class KRCommandContext {
public:
    virtual ~KRCommandContext() = default;
    // The snapshot for `command`'s kind, or nothing.
    virtual std::optional<QByteArray> saveContextState(const KRCommand& command) = 0;
    virtual void restoreContextState(const QByteArray& state, const KRCommand& withCommand) = 0;
};

class KRCommand {
public:
    enum Type : int64_t {
        kRemove = 0,
        kAdd = 1,
        kEdit = 2,
        kExchange = 3,
    };

    // Null for a null context.
    static std::shared_ptr<KRCommand> removeCommandWithContext(KRCommandContext* context);
    static std::shared_ptr<KRCommand> addCommandWithContext(KRCommandContext* context);
    static std::shared_ptr<KRCommand> editCommandWithContext(KRCommandContext* context);
    static std::shared_ptr<KRCommand> exchangeCommandWithContext(KRCommandContext* context);

    virtual ~KRCommand() = default;
    KRCommand(const KRCommand&) = delete;
    KRCommand& operator=(const KRCommand&) = delete;

    virtual int64_t type() const { return kExchange; }
    KRCommandContext* context() const { return m_context; }

    void beginExcute();
    void endExcute();
    void undo();
    void redo();

    const std::optional<QByteArray>& beforeExcuteState() const { return m_beforeExcuteState; }
    const std::optional<QByteArray>& afterExcuteState() const { return m_afterExcuteState; }

protected:
    explicit KRCommand(KRCommandContext* context) : m_context(context) {}
    template <class T>
    static std::shared_ptr<KRCommand> initWithContext(KRCommandContext* context)
    {
        if (!context)
            return nullptr;
        return std::shared_ptr<KRCommand>(new T(context));
    }

private:
    KRCommandContext* m_context;
    std::optional<QByteArray> m_beforeExcuteState;
    std::optional<QByteArray> m_afterExcuteState;
};

class KRRemoveCommand final : public KRCommand {
public:
    int64_t type() const override { return kRemove; }

private:
    friend class KRCommand;
    using KRCommand::KRCommand;
};

class KRAddCommand final : public KRCommand {
public:
    int64_t type() const override { return kAdd; }

private:
    friend class KRCommand;
    using KRCommand::KRCommand;
};

class KREditCommand final : public KRCommand {
public:
    int64_t type() const override { return kEdit; }

private:
    friend class KRCommand;
    using KRCommand::KRCommand;
};
