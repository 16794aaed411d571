#include "Utilities/HXDispatchQueue.h"

#include "Utilities/HXApplicationLog.h"
#include "Utilities/HXAssert.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QThread>
#include <QThreadPool>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <limits>
#include <mutex>
#include <thread>
#include <vector>

namespace {

// The queues whose blocks run on this thread now, innermost last.
thread_local std::vector<const HXDispatchQueue *> t_runningQueues;
// Whether this thread is one of the pool's.
thread_local bool t_isPoolThread = false;

struct RunningMarker {
    explicit RunningMarker(const HXDispatchQueue *queue) { t_runningQueues.push_back(queue); }
    ~RunningMarker() { t_runningQueues.pop_back(); }
};

void runLogged(const QString &label, const std::function<void()> &block) {
    try {
        block();
    } catch (const HXAssertionFailure &failure) {
        HXApplicationLog::sharedInstance()->logError(u"Assertion failed in a block of %@: %@",
                                                     label, failure.text());
    } catch (const std::exception &exception) {
        HXApplicationLog::sharedInstance()->logError(u"Exception in a block of %@: %@", label,
                                                     exception.what());
    }
}

// Fires delayed dispatches. One thread sleeps until the earliest deadline; it only hands blocks
// to their queues and never runs them itself.
class DispatchTimer {
public:
    DispatchTimer() {
        // The pool must outlive this timer, which hands blocks to it until it stops.
        HXDispatchQueue::threadPool();
        m_thread = std::thread([this] { run(); });
    }

    ~DispatchTimer() {
        {
            std::lock_guard lock(m_mutex);
            m_stopped = true;
        }
        m_condition.notify_all();
        m_thread.join();
    }

    void schedule(std::chrono::steady_clock::time_point deadline,
                  std::shared_ptr<HXDispatchQueue> queue, std::function<void()> block) {
        {
            std::lock_guard lock(m_mutex);
            m_entries.push_back({deadline, m_sequence++, std::move(queue), std::move(block)});
            std::push_heap(m_entries.begin(), m_entries.end(), later);
        }
        m_condition.notify_all();
    }

private:
    struct Entry {
        std::chrono::steady_clock::time_point deadline;
        quint64 sequence;
        std::shared_ptr<HXDispatchQueue> queue;
        std::function<void()> block;
    };

    // Heap order: the earliest deadline on top; equal deadlines in order of scheduling.
    static bool later(const Entry &a, const Entry &b) {
        return a.deadline != b.deadline ? a.deadline > b.deadline : a.sequence > b.sequence;
    }

    void run() {
        std::unique_lock lock(m_mutex);
        while (!m_stopped) {
            if (m_entries.empty()) {
                m_condition.wait(lock);
                continue;
            }
            const auto deadline = m_entries.front().deadline;
            if (std::chrono::steady_clock::now() < deadline) {
                m_condition.wait_until(lock, deadline);
                continue;
            }
            std::pop_heap(m_entries.begin(), m_entries.end(), later);
            Entry entry = std::move(m_entries.back());
            m_entries.pop_back();
            // Once the application object is gone, nothing will run the main queue again: a
            // block that comes due for it while the process ends is dropped.
            if (entry.queue->kind() == HXDispatchQueue::Kind::Main &&
                !QCoreApplication::instance())
                continue;
            lock.unlock();
            entry.queue->async(std::move(entry.block));
            lock.lock();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_condition;
    std::vector<Entry> m_entries;
    quint64 m_sequence = 0;
    bool m_stopped = false;
    std::thread m_thread;
};

DispatchTimer &dispatchTimer() {
    static DispatchTimer timer;
    return timer;
}

QCoreApplication *requireApplication() {
    QCoreApplication *application = QCoreApplication::instance();
    HX_ASSERT(application, u"The main queue needs an application object.");
    return application;
}

} // namespace

struct HXDispatchQueue::Waiter {
    std::condition_variable condition;
    bool admitted = false;
};

HXDispatchQueue::HXDispatchQueue(QString label, Kind kind, Priority priority, bool global)
    : m_label(std::move(label))
    , m_kind(kind)
    , m_priority(priority)
    , m_global(global) {}

HXDispatchQueue::~HXDispatchQueue() = default;

QThreadPool *HXDispatchQueue::threadPool() {
    static QThreadPool pool;
    static const bool configured = [] {
        pool.setMaxThreadCount(std::max(4, QThread::idealThreadCount()));
        return true;
    }();
    Q_UNUSED(configured);
    return &pool;
}

bool HXDispatchQueue::isPoolThread() {
    return t_isPoolThread;
}

std::shared_ptr<HXDispatchQueue> HXDispatchQueue::mainQueue() {
    static const std::shared_ptr<HXDispatchQueue> queue(
        new HXDispatchQueue(QStringLiteral("main"), Kind::Main, Priority::High, false));
    return queue;
}

std::shared_ptr<HXDispatchQueue> HXDispatchQueue::globalQueue(Priority priority) {
    static const std::shared_ptr<HXDispatchQueue> queues[] = {
        std::shared_ptr<HXDispatchQueue>(new HXDispatchQueue(
            QStringLiteral("global.background"), Kind::Concurrent, Priority::Background, true)),
        std::shared_ptr<HXDispatchQueue>(new HXDispatchQueue(
            QStringLiteral("global.low"), Kind::Concurrent, Priority::Low, true)),
        std::shared_ptr<HXDispatchQueue>(new HXDispatchQueue(
            QStringLiteral("global.default"), Kind::Concurrent, Priority::Default, true)),
        std::shared_ptr<HXDispatchQueue>(new HXDispatchQueue(
            QStringLiteral("global.high"), Kind::Concurrent, Priority::High, true)),
    };
    return queues[int(priority)];
}

std::shared_ptr<HXDispatchQueue> HXDispatchQueue::create(const QString &label, Kind kind,
                                                         Priority priority) {
    HX_ASSERT(kind != Kind::Main, u"There is only one main queue.");
    return std::shared_ptr<HXDispatchQueue>(new HXDispatchQueue(label, kind, priority, false));
}

bool HXDispatchQueue::isMainThread() {
    const QCoreApplication *application = QCoreApplication::instance();
    return application && QThread::currentThread() == application->thread();
}

HXDispatchQueue *HXDispatchQueue::current() {
    if (!t_runningQueues.empty())
        return const_cast<HXDispatchQueue *>(t_runningQueues.back());
    return isMainThread() ? mainQueue().get() : nullptr;
}

bool HXDispatchQueue::isRunningOnThisThread() const {
    return std::find(t_runningQueues.begin(), t_runningQueues.end(), this) != t_runningQueues.end();
}

void HXDispatchQueue::async(std::function<void()> block) {
    HX_ASSERT(block != nullptr, u"block != nil");
    if (m_kind == Kind::Main) {
        QMetaObject::invokeMethod(
            requireApplication(),
            [self = shared_from_this(), block = std::move(block)] {
                const RunningMarker marker(self.get());
                runLogged(self->m_label, block);
            },
            Qt::QueuedConnection);
        return;
    }
    enqueue(Item{std::move(block), nullptr, false});
}

void HXDispatchQueue::asyncBarrier(std::function<void()> block) {
    HX_ASSERT(block != nullptr, u"block != nil");
    if (m_kind != Kind::Concurrent || m_global) {
        async(std::move(block));
        return;
    }
    enqueue(Item{std::move(block), nullptr, true});
}

void HXDispatchQueue::after(std::chrono::milliseconds delay, std::function<void()> block) {
    HX_ASSERT(block != nullptr, u"block != nil");
    if (delay.count() <= 0) {
        async(std::move(block));
        return;
    }
    dispatchTimer().schedule(std::chrono::steady_clock::now() + delay, shared_from_this(),
                             std::move(block));
}

void HXDispatchQueue::syncInvoke(bool barrier, void (*function)(void *), void *context) {
    if (m_kind == Kind::Main) {
        if (isMainThread()) {
            const RunningMarker marker(this);
            function(context);
            return;
        }
        std::exception_ptr failure;
        QMetaObject::invokeMethod(
            requireApplication(),
            [&] {
                const RunningMarker marker(this);
                try {
                    function(context);
                } catch (...) {
                    failure = std::current_exception();
                }
            },
            Qt::BlockingQueuedConnection);
        if (failure)
            std::rethrow_exception(failure);
        return;
    }

    const bool plain = !barrier || m_kind != Kind::Concurrent || m_global;
    if (isRunningOnThisThread()) {
        HX_ASSERT(m_kind == Kind::Concurrent && !barrier,
                  u"Synchronous dispatch onto the queue \"%@\" from its own block would deadlock.",
                  m_label);
        const RunningMarker marker(this);
        function(context);
        return;
    }

    Waiter waiter;
    {
        std::unique_lock lock(m_mutex);
        m_pending.push_back(Item{nullptr, &waiter, !plain});
        pumpLocked();
        if (!waiter.admitted) {
            // Let the pool start another thread while this one waits.
            const bool onPool = t_isPoolThread;
            if (onPool)
                threadPool()->releaseThread();
            waiter.condition.wait(lock, [&] { return waiter.admitted; });
            if (onPool)
                threadPool()->reserveThread();
        }
    }

    struct Done {
        HXDispatchQueue *queue;
        bool barrier;
        ~Done() { queue->finished(barrier); }
    } done{this, !plain};
    const RunningMarker marker(this);
    function(context);
}

void HXDispatchQueue::enqueue(Item item) {
    std::lock_guard lock(m_mutex);
    m_pending.push_back(std::move(item));
    pumpLocked();
}

// Starts every pending block that may start now. Called with the mutex held.
void HXDispatchQueue::pumpLocked() {
    const int width = m_kind == Kind::Serial ? 1 : std::numeric_limits<int>::max();
    while (!m_pending.empty() && !m_barrierRunning) {
        Item &front = m_pending.front();
        if (front.barrier) {
            if (m_running > 0)
                return;
            m_barrierRunning = true;
        } else if (m_running >= width) {
            return;
        }
        ++m_running;
        Item item = std::move(front);
        m_pending.pop_front();
        if (item.waiter) {
            item.waiter->admitted = true;
            item.waiter->condition.notify_one();
        } else {
            launch(std::move(item));
        }
    }
}

void HXDispatchQueue::launch(Item item) {
    threadPool()->start(
        [self = shared_from_this(), block = std::move(item.block), barrier = item.barrier] {
            t_isPoolThread = true;
            {
                const RunningMarker marker(self.get());
                runLogged(self->m_label, block);
            }
            self->finished(barrier);
        },
        int(m_priority));
}

void HXDispatchQueue::finished(bool barrier) {
    std::lock_guard lock(m_mutex);
    --m_running;
    if (barrier)
        m_barrierRunning = false;
    pumpLocked();
}

void HXDispatchQueue::apply(qsizetype count, const std::function<void(qsizetype)> &block) {
    if (count <= 0)
        return;
    struct Work {
        const std::function<void(qsizetype)> &block;
        const qsizetype count;
        std::atomic<qsizetype> next = 0;
        std::mutex mutex;
        std::condition_variable condition;
        int running = 0;
        std::exception_ptr failure;
        void run() {
            for (qsizetype index; (index = next++) < count;) {
                try {
                    block(index);
                } catch (...) {
                    const std::lock_guard lock(mutex);
                    if (!failure)
                        failure = std::current_exception();
                    next = count;
                }
            }
        }
    };
    // The helpers hold the work through a shared pointer: one the pool starts late finds
    // nothing left to do, after the caller has returned.
    auto work = std::shared_ptr<Work>(new Work{block, count});
    const int helpers = int(std::min<qsizetype>(count, std::max(2, QThread::idealThreadCount()))) - 1;
    for (int i = 0; i < helpers; ++i) {
        threadPool()->start([work] {
            {
                const std::lock_guard lock(work->mutex);
                if (work->next.load() >= work->count)
                    return;
                ++work->running;
            }
            work->run();
            const std::lock_guard lock(work->mutex);
            --work->running;
            work->condition.notify_all();
        });
    }
    work->run();
    std::unique_lock lock(work->mutex);
    work->condition.wait(lock, [&] { return work->running == 0; });
    if (work->failure)
        std::rethrow_exception(work->failure);
}
