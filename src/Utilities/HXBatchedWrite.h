#pragma once

#include "Utilities/HXDispatchQueue.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>

// A write to disk batched behind an atomic flag. The first change after a write sets the flag and
// schedules the write a fixed delay later; changes that follow find the flag set and do nothing
// more, so any number of changes cost one write. The write clears the flag before it writes, so a
// change that comes during the write schedules the next one. `writeIfNeeded` writes at once
// (at termination, say); the scheduled call then finds nothing to do.
//
// Owned by the object whose state it writes. The scheduled call holds it weakly: once the owner
// has destroyed it, a late call does nothing. Any thread may note changes; the write runs on the
// given queue, or on the thread that calls `writeIfNeeded`.
class HXBatchedWrite {
public:
    HXBatchedWrite(std::chrono::milliseconds delay, std::function<void()> write,
                   std::shared_ptr<HXDispatchQueue> queue = HXDispatchQueue::mainQueue());
    ~HXBatchedWrite();
    HXBatchedWrite(const HXBatchedWrite &) = delete;
    HXBatchedWrite &operator=(const HXBatchedWrite &) = delete;

    // Asks for a delayed write. Returns true when this call scheduled it.
    bool noteChanged();
    // Writes now if a write is pending. Returns true when it wrote.
    bool writeIfNeeded();
    bool isWritePending() const;

    std::chrono::milliseconds delay() const { return m_delay; }
    void setDelay(std::chrono::milliseconds delay) { m_delay = delay; }

private:
    struct State {
        std::atomic<int> needsWrite{0};
        std::mutex writing;
        std::function<void()> write;
    };

    static bool writeIfNeeded(State &state);

    std::shared_ptr<State> m_state;
    std::chrono::milliseconds m_delay;
    std::shared_ptr<HXDispatchQueue> m_queue;
};
