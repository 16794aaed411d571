#include "Utilities/HXOperationQueue.h"

#include "Utilities/HXAssert.h"
#include "Utilities/HXDispatchQueue.h"

#include <QThreadPool>

#include <algorithm>
#include <limits>

HXOperationQueue::HXOperationQueue(QString name)
    : m_name(std::move(name)) {}

HXOperationQueue::~HXOperationQueue() = default;

std::shared_ptr<HXOperationQueue> HXOperationQueue::create(const QString &name) {
    return std::shared_ptr<HXOperationQueue>(new HXOperationQueue(name));
}

void HXOperationQueue::addOperation(const std::shared_ptr<HXOperation> &operation) {
    HX_ASSERT(operation != nullptr, u"operation != nil");
    operation->setQueue(shared_from_this());
    {
        std::lock_guard lock(m_mutex);
        if (m_entries.empty())
            m_keepAlive = shared_from_this();
        m_entries.push_back(Entry{operation});
    }
    pump();
}

void HXOperationQueue::addOperationWithBlock(std::function<void()> block) {
    addOperation(HXOperation::blockOperation(std::move(block)));
}

void HXOperationQueue::addOperations(const QList<std::shared_ptr<HXOperation>> &operations,
                                     bool waitUntilFinished) {
    for (const auto &operation : operations)
        addOperation(operation);
    if (waitUntilFinished) {
        for (const auto &operation : operations)
            operation->waitUntilFinished();
    }
}

int HXOperationQueue::maxConcurrentOperationCount() const {
    std::lock_guard lock(m_mutex);
    return m_maxConcurrentOperationCount;
}

void HXOperationQueue::setMaxConcurrentOperationCount(int count) {
    HX_ASSERT(count == -1 || count > 0, u"%ld operations at a time is no limit.", count);
    {
        std::lock_guard lock(m_mutex);
        m_maxConcurrentOperationCount = count;
    }
    pump();
}

bool HXOperationQueue::isSuspended() const {
    std::lock_guard lock(m_mutex);
    return m_suspended;
}

void HXOperationQueue::setSuspended(bool suspended) {
    {
        std::lock_guard lock(m_mutex);
        m_suspended = suspended;
    }
    pump();
}

void HXOperationQueue::cancelAllOperations() {
    // Each cancellation may pump this queue, so none happens under the lock.
    for (const auto &operation : operations())
        operation->cancel();
}

void HXOperationQueue::waitUntilAllOperationsAreFinished() {
    HX_ASSERT(!HXOperation::isRunningOnQueue(this),
              u"An operation of the queue “%@” waits for the queue to empty.", m_name);
    std::unique_lock lock(m_mutex);
    if (m_entries.empty())
        return;
    const bool onPool = HXDispatchQueue::isPoolThread();
    if (onPool)
        HXDispatchQueue::threadPool()->releaseThread();
    m_emptyCondition.wait(lock, [&] { return m_entries.empty(); });
    lock.unlock();
    if (onPool)
        HXDispatchQueue::threadPool()->reserveThread();
}

QList<std::shared_ptr<HXOperation>> HXOperationQueue::operations() const {
    std::lock_guard lock(m_mutex);
    QList<std::shared_ptr<HXOperation>> result;
    result.reserve(qsizetype(m_entries.size()));
    for (const Entry &entry : m_entries)
        result.append(entry.operation);
    return result;
}

qsizetype HXOperationQueue::operationCount() const {
    std::lock_guard lock(m_mutex);
    return qsizetype(m_entries.size());
}

void HXOperationQueue::pump() {
    std::vector<std::shared_ptr<HXOperation>> launching;
    {
        std::lock_guard lock(m_mutex);
        const int limit = m_maxConcurrentOperationCount > 0 ? m_maxConcurrentOperationCount
                                                            : std::numeric_limits<int>::max();
        if (m_suspended || m_launched >= limit)
            return;
        // The ready operations, the highest priority first and the earliest among equals.
        std::vector<std::pair<int, Entry *>> ready;
        for (Entry &entry : m_entries) {
            if (!entry.launched && entry.operation->isReady())
                ready.emplace_back(-entry.operation->queuePriority(), &entry);
        }
        std::stable_sort(ready.begin(), ready.end(),
                         [](const auto &a, const auto &b) { return a.first < b.first; });
        for (auto it = ready.begin(); it != ready.end() && m_launched < limit; ++it) {
            it->second->launched = true;
            ++m_launched;
            launching.push_back(it->second->operation);
        }
    }
    for (auto &operation : launching) {
        HXDispatchQueue::globalQueue()->async([operation = std::move(operation)] {
            // Someone may have started it by hand meanwhile; it then finishes there.
            if (operation->begin())
                operation->run();
        });
    }
}

void HXOperationQueue::operationFinished(const HXOperation *operation) {
    std::shared_ptr<HXOperationQueue> keepAlive;
    {
        std::lock_guard lock(m_mutex);
        const auto it = std::find_if(m_entries.begin(), m_entries.end(), [&](const Entry &entry) {
            return entry.operation.get() == operation;
        });
        if (it == m_entries.end())
            return;
        if (it->launched)
            --m_launched;
        m_entries.erase(it);
        if (m_entries.empty()) {
            keepAlive = std::move(m_keepAlive);
            m_emptyCondition.notify_all();
        }
    }
    pump();
}
