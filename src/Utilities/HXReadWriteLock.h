#pragma once

#include "Utilities/HXAssert.h"
#include "Utilities/HXDispatchQueue.h"

#include <QString>

#include <memory>
#include <optional>
#include <type_traits>

// A reader-writer lock that can be taken again on a thread that holds it. Readers run together, a
// writer alone, in order of arrival: a waiting writer holds back the readers that come after it.
// Blocks run on the calling thread. On a thread that is already inside the lock:
//
//   already in | synchronizedRead    | synchronizedWrite
//   nothing    | waits, then runs    | waits for sole access, then runs
//   read       | runs at once        | raises the assertion "Recursive call to write operation
//              |                     | within a read operation" and does not run
//   write      | runs at once        | runs at once
//
// A write inside a read is a fault of the caller. It is refused before the block can change
// anything, since readers around it rely on what they read staying as it is. Any thread; owned
// by what it guards.
class HXReadWriteLock {
public:
    HXReadWriteLock();
    HXReadWriteLock(const HXReadWriteLock &) = delete;
    HXReadWriteLock &operator=(const HXReadWriteLock &) = delete;

    // The key of this lock in a thread's marker: class name and address.
    const QString &key() const { return m_key; }

    // What this thread holds of the lock now.
    enum class Mode { None, Read, Write };
    Mode currentMode() const;

    template<typename F>
    decltype(auto) synchronizedRead(F &&block) {
        if (currentMode() != Mode::None)
            return block();
        return runMarked(Mode::Read, std::forward<F>(block));
    }

    template<typename F>
    decltype(auto) synchronizedWrite(F &&block) {
        switch (currentMode()) {
        case Mode::Write:
            return block();
        case Mode::Read:
            raiseWriteWithinRead();
        case Mode::None:
            break;
        }
        return runMarked(Mode::Write, std::forward<F>(block));
    }

private:
    // Sets this thread's marker for the duration of a block.
    class Marker {
    public:
        Marker(const HXReadWriteLock *lock, Mode mode);
        ~Marker();

    private:
        const HXReadWriteLock *m_lock;
    };

    template<typename F>
    decltype(auto) runMarked(Mode mode, F &&block) {
        using Result = decltype(block());
        if constexpr (std::is_void_v<Result>) {
            auto run = [&] {
                const Marker marker(this, mode);
                block();
            };
            mode == Mode::Read ? m_queue->sync(run) : m_queue->syncBarrier(run);
        } else {
            std::optional<Result> result;
            auto run = [&] {
                const Marker marker(this, mode);
                result.emplace(block());
            };
            mode == Mode::Read ? m_queue->sync(run) : m_queue->syncBarrier(run);
            return Result(std::move(*result));
        }
    }

    [[noreturn]] static void raiseWriteWithinRead();

    std::shared_ptr<HXDispatchQueue> m_queue;
    QString m_key;
};
