#pragma once

#include <QString>

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include <QThreadPool>

// A queue of blocks, in the manner of the platform's dispatch queues.
//
// - The main queue runs its blocks on the Qt event loop of the main thread, in order.
// - Global queues, one per priority, run their blocks side by side; a barrier on them is a plain
//   block.
// - Serial queues run one block at a time, in order of arrival; concurrent queues run blocks side
//   by side, except that a barrier waits for what came before it and runs alone.
//
// All queues but the main one share one thread pool, so that many serial queues cost no thread
// each. A synchronous dispatch runs its block on the calling thread once the queue admits it;
// while it waits on a pool thread the pool may start another thread. Queues are shared objects;
// any thread may dispatch onto any queue. A block of an asynchronous dispatch that throws is ended
// there, and the failure goes to the application log.
class HXDispatchQueue : public std::enable_shared_from_this<HXDispatchQueue> {
public:
    enum class Kind { Serial, Concurrent, Main };
    enum class Priority { Background = 0, Low = 1, Default = 2, High = 3 };

    static std::shared_ptr<HXDispatchQueue> mainQueue();
    static std::shared_ptr<HXDispatchQueue> globalQueue(Priority priority = Priority::Default);
    static std::shared_ptr<HXDispatchQueue> create(const QString &label, Kind kind = Kind::Serial,
                                                   Priority priority = Priority::Default);

    // The queue whose block runs on this thread now; the main queue on the main thread outside
    // any block; null elsewhere.
    static HXDispatchQueue *current();
    static bool isMainThread();
    // The pool that runs the blocks of every queue but the main one.
    static QThreadPool *threadPool();
    // Whether this thread is one of the pool's. A wait there should release its thread to the
    // pool while it waits, and reserve it again after, so that waits never starve the pool.
    static bool isPoolThread();
    // Runs a blocking wait; on a pool thread, with the thread released to the pool meanwhile.
    template<typename Wait>
    static void waitReleasingPoolThread(Wait &&wait) {
        const bool onPool = isPoolThread();
        if (onPool)
            threadPool()->releaseThread();
        wait();
        if (onPool)
            threadPool()->reserveThread();
    }

    ~HXDispatchQueue();
    HXDispatchQueue(const HXDispatchQueue &) = delete;
    HXDispatchQueue &operator=(const HXDispatchQueue &) = delete;

    const QString &label() const { return m_label; }
    Kind kind() const { return m_kind; }
    Priority priority() const { return m_priority; }

    void async(std::function<void()> block);
    void asyncBarrier(std::function<void()> block);

    // Runs the block on the calling thread once the queue admits it, and returns after it. On a
    // serial queue, from a block of that same queue, this is the assertion of a certain deadlock;
    // a plain synchronous block inside a concurrent queue's own block runs at once.
    template<typename F>
    void sync(F &&block) {
        syncInvoke(false, &invoke<std::remove_reference_t<F>>, &block);
    }
    template<typename F>
    void syncBarrier(F &&block) {
        syncInvoke(true, &invoke<std::remove_reference_t<F>>, &block);
    }

    // Dispatches the block asynchronously once the delay has passed.
    void after(std::chrono::milliseconds delay, std::function<void()> block);

    // Calls the block once for each index below the count, on helpers of the pool and on the
    // calling thread together, and returns when all calls are done. An index no helper has taken
    // up is done by the caller rather than waited for, so a busy pool never holds it up. A block
    // that throws ends the loop; the first failure is thrown again here.
    static void apply(qsizetype count, const std::function<void(qsizetype index)> &block);

private:
    struct Waiter;
    struct Item {
        std::function<void()> block;
        Waiter *waiter = nullptr;
        bool barrier = false;
    };

    HXDispatchQueue(QString label, Kind kind, Priority priority, bool global);

    template<typename F>
    static void invoke(void *block) {
        (*static_cast<F *>(block))();
    }

    void enqueue(Item item);
    void syncInvoke(bool barrier, void (*function)(void *), void *context);
    void pumpLocked();
    void launch(Item item);
    void finished(bool barrier);
    bool isRunningOnThisThread() const;

    const QString m_label;
    const Kind m_kind;
    const Priority m_priority;
    const bool m_global;

    std::mutex m_mutex;
    std::deque<Item> m_pending;
    int m_running = 0;
    bool m_barrierRunning = false;
};
