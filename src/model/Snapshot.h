// A value published as immutable snapshots, for one writer and readers on
// any thread.
//
// Contract
// - `load()` answers the current snapshot: a shared pointer to a value that
//   never changes while anybody holds it. Readers may keep it as long as they
//   like (the mixer keeps a track's clip list for one pull).
// - Writers never change a published value. `update(edit)` copies the
//   current value, lets `edit` change the copy and publishes it
//   (copy-on-write); `store(value)` publishes a value outright. Writers are
//   serialised among themselves, so two updates never lose each other's edits.
// - The lock that guards the pointer is held only to copy or swap it: never
//   across the copy of the value, an edit, or the destruction of the old
//   snapshot. A reader (the audio thread) therefore waits at most for a
//   pointer swap.
#pragma once

#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>

namespace brindle {

template <class T>
class Snapshot {
public:
    using Pointer = std::shared_ptr<const T>;

    Snapshot() : m_current(std::make_shared<const T>()) {}
    explicit Snapshot(T initial) : m_current(std::make_shared<const T>(std::move(initial))) {}
    Snapshot(const Snapshot&) = delete;
    Snapshot& operator=(const Snapshot&) = delete;

    // The current snapshot; never null.
    Pointer load() const
    {
        std::lock_guard<std::mutex> lock(m_pointerMutex);
        return m_current;
    }

    // Publishes `value` as the new snapshot.
    void store(T value)
    {
        std::lock_guard<std::mutex> writer(m_writerMutex);
        publish(std::make_shared<const T>(std::move(value)));
    }

    // Copies the current value, applies `edit(T&)` to the copy and publishes
    // it. When `edit` returns bool, false means "nothing changed": the copy is
    // dropped and nothing is published. Answers whether a value was published.
    template <class Edit>
    bool update(Edit&& edit)
    {
        std::lock_guard<std::mutex> writer(m_writerMutex);
        T copy = *load();
        if constexpr (std::is_same_v<std::invoke_result_t<Edit, T&>, bool>) {
            if (!edit(copy))
                return false;
        } else {
            edit(copy);
        }
        publish(std::make_shared<const T>(std::move(copy)));
        return true;
    }

private:
    void publish(Pointer next)
    {
        Pointer previous;
        {
            std::lock_guard<std::mutex> lock(m_pointerMutex);
            previous = std::exchange(m_current, std::move(next));
        }
        // `previous` is released here, outside the pointer lock.
    }

    mutable std::mutex m_pointerMutex;
    std::mutex m_writerMutex;
    Pointer m_current;
};

}  // namespace brindle
