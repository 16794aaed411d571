#pragma once

#include <QList>
#include <QString>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

class HXOperationQueue;

// A unit of work, in the manner of the platform's operations. It runs once, after every operation
// it depends on has finished: on the thread that calls start(), or, added to an operation queue,
// on the pool of the dispatch queues. Subclasses override main(); a block operation runs a block.
// Cancelling asks a running operation to end itself, which it sees in isCancelled(); one that has
// not started becomes ready at once and finishes without running main(), after which its
// dependents may run. Shared through std::shared_ptr: its queue holds it until it finishes, and
// every operation that depends on it holds it as long as that one lives. Any thread.
class HXOperation : public std::enable_shared_from_this<HXOperation> {
public:
    static std::shared_ptr<HXOperation> blockOperation(std::function<void()> block);

    HXOperation() = default;
    virtual ~HXOperation();
    HXOperation(const HXOperation &) = delete;
    HXOperation &operator=(const HXOperation &) = delete;

    // Runs main() on the calling thread (or, when cancelled, only finishes) and returns after it.
    // The operation must be ready and not started yet.
    void start();
    void cancel();

    bool isCancelled() const { return m_cancelled.load(); }
    bool isExecuting() const { return m_state.load() == State::Executing; }
    bool isFinished() const { return m_state.load() == State::Finished; }
    // Whether every dependency has finished; a cancelled operation is ready whatever they do.
    bool isReady() const;

    // Dependencies may change only until the operation starts; they may be on any queue.
    void addDependency(const std::shared_ptr<HXOperation> &operation);
    void removeDependency(const std::shared_ptr<HXOperation> &operation);
    QList<std::shared_ptr<HXOperation>> dependencies() const;

    // Runs once on a pool thread after the operation has finished, cancelled or not; at once when
    // it has finished already.
    void setCompletionBlock(std::function<void()> block);
    std::function<void()> completionBlock() const;
    // Returns once the operation has finished. A pool thread is given back to the pool meanwhile.
    void waitUntilFinished();

    // Among the ready operations of a queue, a higher priority starts first.
    int queuePriority() const { return m_queuePriority.load(); }
    void setQueuePriority(int priority) { m_queuePriority.store(priority); }
    QString name() const;
    void setName(const QString &name);

protected:
    // The work. A long one looks at isCancelled() now and then and ends early when it is set.
    virtual void main();

private:
    friend class HXOperationQueue;
    enum class State { Pending, Executing, Finished };

    // Moves from pending to executing; false when the operation has started already.
    bool begin();
    // Runs main() unless cancelled, then finishes: wakes waiters, schedules the completion block,
    // and tells the queues of this operation and of its dependents.
    void run();
    // Gives the operation to a queue; an operation goes onto one queue, once.
    void setQueue(const std::shared_ptr<HXOperationQueue> &queue);
    std::shared_ptr<HXOperationQueue> queue() const;
    // Whether an operation of the queue runs its main() on this thread now.
    static bool isRunningOnQueue(const HXOperationQueue *queue);

    mutable std::mutex m_mutex;
    std::condition_variable m_finishedCondition;
    std::atomic<State> m_state{State::Pending};
    std::atomic<bool> m_cancelled{false};
    std::atomic<int> m_queuePriority{0};
    std::vector<std::shared_ptr<HXOperation>> m_dependencies;
    // The operations that wait for this one, to be told when it finishes.
    std::vector<std::weak_ptr<HXOperation>> m_dependents;
    std::function<void()> m_completionBlock;
    QString m_name;
    std::weak_ptr<HXOperationQueue> m_queue;
    bool m_hasQueue = false;
};
