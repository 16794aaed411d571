#pragma once

#include "Model/Operations/HXStorageOperation.h"

#include <QObject>

#include <condition_variable>
#include <memory>
#include <mutex>

class HXOperationQueue;

// The one queue of storage operations. It admits an operation by its footprint against those
// already queued: refused when it would read, append to or move what another one is moving;
// made to wait for the operations it overlaps otherwise (a reader for a writer to the same
// place, a mover for anything inside what it moves). Nodes an operation moves count as pending
// while it lasts. `operationsChanged` is emitted on the thread that changes the list. Any
// thread.
class HXStorageOperationQueue : public QObject {
    Q_OBJECT

public:
    static HXStorageOperationQueue *sharedInstance();

    // True when queued; false when refused: the caller tells the user or tries again later.
    bool addOperation(const std::shared_ptr<HXStorageOperation> &operation);
    QList<std::shared_ptr<HXStorageOperation>> operations() const;
    void waitUntilAllOperationsAreFinished();

    // Whether some item of `items` equals or lies below some item of `containers`.
    static bool verifyItemsIncludeItems(const HXStorageOperation::Items &containers,
                                        const HXStorageOperation::Items &items);

signals:
    void operationsChanged();

private:
    HXStorageOperationQueue();
    void operationDidFinish(const std::shared_ptr<HXStorageOperation> &operation);

    std::shared_ptr<HXOperationQueue> m_operationQueue;
    mutable std::mutex m_mutex;
    std::condition_variable m_emptied;
    QList<std::shared_ptr<HXStorageOperation>> m_operations;
};
