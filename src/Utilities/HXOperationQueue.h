#pragma once

#include "Utilities/HXOperation.h"

#include <QList>
#include <QString>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

// A queue of operations, in the manner of the platform's operation queues. It starts each of its
// operations on the pool of the dispatch queues once the operation is ready, the highest priority
// first and otherwise in order of addition, with no more running at a time than its limit (by
// default none of its own, only the pool's). An operation waiting for a dependency, here or on
// another queue, holds no thread: the queue looks again when a dependency finishes. Finished
// operations leave the queue. Suspending stops new starts; running operations go on.
//
// Shared through std::shared_ptr; while it holds operations the queue keeps itself alive, so
// that dropping it doesn't drop its work. Any thread.
class HXOperationQueue : public std::enable_shared_from_this<HXOperationQueue> {
public:
    static std::shared_ptr<HXOperationQueue> create(const QString &name);
    ~HXOperationQueue();
    HXOperationQueue(const HXOperationQueue &) = delete;
    HXOperationQueue &operator=(const HXOperationQueue &) = delete;

    const QString &name() const { return m_name; }

    // An operation goes onto one queue, once, and before it starts.
    void addOperation(const std::shared_ptr<HXOperation> &operation);
    void addOperationWithBlock(std::function<void()> block);
    // Adds them all; with `waitUntilFinished`, returns once they have finished.
    void addOperations(const QList<std::shared_ptr<HXOperation>> &operations,
                       bool waitUntilFinished);

    // At most this many operations run at a time; -1, the default, sets no limit of the queue's.
    int maxConcurrentOperationCount() const;
    void setMaxConcurrentOperationCount(int count);
    bool isSuspended() const;
    void setSuspended(bool suspended);

    void cancelAllOperations();
    // Returns once the queue holds no operations. A pool thread is given back to the pool
    // meanwhile; from an operation of this queue itself it would never return.
    void waitUntilAllOperationsAreFinished();

    // The operations not finished yet, in order of addition.
    QList<std::shared_ptr<HXOperation>> operations() const;
    qsizetype operationCount() const;

private:
    friend class HXOperation;
    struct Entry {
        std::shared_ptr<HXOperation> operation;
        bool launched = false;
    };

    explicit HXOperationQueue(QString name);

    // Launches every operation that may start now.
    void pump();
    void operationFinished(const HXOperation *operation);

    const QString m_name;
    mutable std::mutex m_mutex;
    std::condition_variable m_emptyCondition;
    std::vector<Entry> m_entries;
    std::shared_ptr<HXOperationQueue> m_keepAlive;
    int m_launched = 0;
    int m_maxConcurrentOperationCount = -1;
    bool m_suspended = false;
};
