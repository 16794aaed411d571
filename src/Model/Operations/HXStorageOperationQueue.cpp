#include "Model/Operations/HXStorageOperationQueue.h"

#include "Model/StorageTree/HXContainer.h"
#include "Utilities/HXDispatchQueue.h"
#include "Utilities/HXOperationQueue.h"

namespace {

// Pending moves are main-thread state of the nodes: marked there, at once when already there.
void onMainThread(std::function<void()> block) {
    if (HXDispatchQueue::isMainThread())
        block();
    else
        HXDispatchQueue::mainQueue()->async(std::move(block));
}

bool isDescendant(const std::shared_ptr<HXStorageItem> &item,
                  const std::shared_ptr<HXStorageItem> &ancestor) {
    if (item == ancestor)
        return true;
    return ancestor->isContainer() &&
           item->isDescendantOfContainer(static_cast<const HXContainer *>(ancestor.get()));
}

} // namespace

HXStorageOperationQueue *HXStorageOperationQueue::sharedInstance() {
    // Lives to the end of the process, so that operations still running at exit have a queue.
    static HXStorageOperationQueue *const queue = new HXStorageOperationQueue;
    return queue;
}

HXStorageOperationQueue::HXStorageOperationQueue()
    : m_operationQueue(HXOperationQueue::create(QStringLiteral("HXStorageOperationQueue"))) {}

bool HXStorageOperationQueue::verifyItemsIncludeItems(const HXStorageOperation::Items &containers,
                                                      const HXStorageOperation::Items &items) {
    for (const auto &item : items) {
        for (const auto &container : containers) {
            if (item && container && isDescendant(item, container))
                return true;
        }
    }
    return false;
}

bool HXStorageOperationQueue::addOperation(const std::shared_ptr<HXStorageOperation> &operation) {
    {
        const std::lock_guard lock(m_mutex);
        // Either way round: an item that contains, or lies in, what another operation moves.
        const auto overlaps = [](const HXStorageOperation::Items &a,
                                 const HXStorageOperation::Items &b) {
            return verifyItemsIncludeItems(a, b) || verifyItemsIncludeItems(b, a);
        };
        // A finished operation leaves the list in its completion block, which may still be on
        // its way: it constrains nothing.
        const auto live = [&] {
            QList<std::shared_ptr<HXStorageOperation>> running;
            for (const auto &existing : std::as_const(m_operations)) {
                if (!existing->isFinished())
                    running.append(existing);
            }
            return running;
        }();
        for (const auto &existing : live) {
            const auto &moving = existing->movingItems();
            if (overlaps(moving, operation->readingItems()) ||
                overlaps(moving, operation->appendingItems()) ||
                overlaps(moving, operation->movingItems()))
                return false;
        }
        for (const auto &existing : live) {
            if (verifyItemsIncludeItems(operation->movingItems(), existing->affectedItems()) ||
                overlaps(existing->readingItems(), operation->appendingItems()) ||
                overlaps(existing->appendingItems(), operation->readingItems()) ||
                overlaps(existing->movingItems(), operation->readingItems()))
                operation->addDependency(existing);
        }
        m_operations.append(operation);
    }
    for (const auto &item : operation->movingItems()) {
        onMainThread([item] { item->addPendingMove(); });
    }
    const std::weak_ptr<HXStorageOperation> weak = operation;
    // The caller's own completion block runs after the operation has left the list.
    operation->setCompletionBlock([this, weak, own = operation->completionBlock()] {
        if (const auto finished = weak.lock())
            operationDidFinish(finished);
        if (own)
            own();
    });
    emit operationsChanged();
    m_operationQueue->addOperation(operation);
    return true;
}

void HXStorageOperationQueue::operationDidFinish(const std::shared_ptr<HXStorageOperation> &operation) {
    for (const auto &item : operation->movingItems()) {
        onMainThread([item] { item->removePendingMove(); });
    }
    {
        const std::lock_guard lock(m_mutex);
        m_operations.removeAll(operation);
        if (m_operations.isEmpty())
            m_emptied.notify_all();
    }
    emit operationsChanged();
}

QList<std::shared_ptr<HXStorageOperation>> HXStorageOperationQueue::operations() const {
    const std::lock_guard lock(m_mutex);
    return m_operations;
}

void HXStorageOperationQueue::waitUntilAllOperationsAreFinished() {
    std::unique_lock lock(m_mutex);
    m_emptied.wait(lock, [&] { return m_operations.isEmpty(); });
}
