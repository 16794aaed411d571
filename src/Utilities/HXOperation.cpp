#include "Utilities/HXOperation.h"

#include "Utilities/HXApplicationLog.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXDispatchQueue.h"
#include "Utilities/HXOperationQueue.h"

#include <QThreadPool>

#include <algorithm>
#include <exception>
#include <utility>

namespace {

// The operation whose main() runs on this thread now.
thread_local const HXOperation *t_currentOperation = nullptr;

class BlockOperation final : public HXOperation {
public:
    explicit BlockOperation(std::function<void()> block)
        : m_block(std::move(block)) {}

protected:
    void main() override { m_block(); }

private:
    std::function<void()> m_block;
};

} // namespace

std::shared_ptr<HXOperation> HXOperation::blockOperation(std::function<void()> block) {
    HX_ASSERT(block != nullptr, u"block != nil");
    return std::make_shared<BlockOperation>(std::move(block));
}

HXOperation::~HXOperation() = default;

void HXOperation::main() {}

bool HXOperation::isReady() const {
    if (isCancelled())
        return true;
    std::lock_guard lock(m_mutex);
    return std::all_of(m_dependencies.begin(), m_dependencies.end(),
                       [](const auto &dependency) { return dependency->isFinished(); });
}

void HXOperation::start() {
    HX_ASSERT(m_state.load() == State::Pending, u"The operation “%@” has started already.", name());
    HX_ASSERT(isReady(), u"The operation “%@” is not ready: a dependency has not finished.",
              name());
    HX_ASSERT(begin(), u"The operation “%@” has started already.", name());
    run();
}

bool HXOperation::begin() {
    State expected = State::Pending;
    return m_state.compare_exchange_strong(expected, State::Executing);
}

void HXOperation::run() {
    if (!isCancelled()) {
        const HXOperation *outer = std::exchange(t_currentOperation, this);
        try {
            main();
        } catch (const HXAssertionFailure &failure) {
            HXApplicationLog::sharedInstance()->logError(
                u"Assertion failed in the operation %@: %@", name(), failure.text());
        } catch (const std::exception &exception) {
            HXApplicationLog::sharedInstance()->logError(u"Exception in the operation %@: %@",
                                                         name(), exception.what());
        } catch (...) {
            HXApplicationLog::sharedInstance()->logError(u"Unknown exception in the operation %@",
                                                         name());
        }
        t_currentOperation = outer;
    }

    std::function<void()> completion;
    std::vector<std::weak_ptr<HXOperation>> dependents;
    std::shared_ptr<HXOperationQueue> queue;
    {
        std::lock_guard lock(m_mutex);
        m_state = State::Finished;
        completion = std::exchange(m_completionBlock, nullptr);
        // Dependencies added from now on see this one finished, and need no word of it.
        dependents.swap(m_dependents);
        queue = m_queue.lock();
    }
    m_finishedCondition.notify_all();
    if (completion)
        HXDispatchQueue::globalQueue()->async(std::move(completion));
    if (queue)
        queue->operationFinished(this);
    for (const std::weak_ptr<HXOperation> &weak : dependents) {
        if (const auto dependent = weak.lock()) {
            if (const auto dependentQueue = dependent->queue())
                dependentQueue->pump();
        }
    }
}

void HXOperation::cancel() {
    if (m_cancelled.exchange(true) || m_state.load() != State::Pending)
        return;
    // Ready now: its queue starts it, and it finishes at once.
    if (const auto queue = this->queue())
        queue->pump();
}

void HXOperation::addDependency(const std::shared_ptr<HXOperation> &operation) {
    HX_ASSERT(operation && operation.get() != this, u"An operation can’t depend on itself.");
    HX_ASSERT(m_state.load() == State::Pending,
              u"The operation “%@” has started; its dependencies can’t change.", name());
    // Registered first, so that a dependency finishing in between still tells this one's queue.
    {
        std::lock_guard lock(operation->m_mutex);
        if (operation->m_state.load() != State::Finished)
            operation->m_dependents.push_back(weak_from_this());
    }
    std::lock_guard lock(m_mutex);
    m_dependencies.push_back(operation);
}

void HXOperation::removeDependency(const std::shared_ptr<HXOperation> &operation) {
    {
        std::lock_guard lock(m_mutex);
        std::erase(m_dependencies, operation);
    }
    // A stale entry among the other's dependents costs no more than one needless look later.
    if (const auto queue = this->queue())
        queue->pump();
}

QList<std::shared_ptr<HXOperation>> HXOperation::dependencies() const {
    std::lock_guard lock(m_mutex);
    return QList<std::shared_ptr<HXOperation>>(m_dependencies.begin(), m_dependencies.end());
}

std::function<void()> HXOperation::completionBlock() const {
    std::lock_guard lock(m_mutex);
    return m_completionBlock;
}

void HXOperation::setCompletionBlock(std::function<void()> block) {
    {
        std::lock_guard lock(m_mutex);
        if (m_state.load() != State::Finished) {
            m_completionBlock = std::move(block);
            return;
        }
    }
    if (block)
        HXDispatchQueue::globalQueue()->async(std::move(block));
}

void HXOperation::waitUntilFinished() {
    std::unique_lock lock(m_mutex);
    if (m_state.load() == State::Finished)
        return;
    HX_ASSERT(t_currentOperation != this, u"The operation “%@” waits for itself.", m_name);
    // Let the pool start another thread while this one waits.
    const bool onPool = HXDispatchQueue::isPoolThread();
    if (onPool)
        HXDispatchQueue::threadPool()->releaseThread();
    m_finishedCondition.wait(lock, [&] { return m_state.load() == State::Finished; });
    lock.unlock();
    if (onPool)
        HXDispatchQueue::threadPool()->reserveThread();
}

QString HXOperation::name() const {
    std::lock_guard lock(m_mutex);
    return m_name;
}

void HXOperation::setName(const QString &name) {
    std::lock_guard lock(m_mutex);
    m_name = name;
}

void HXOperation::setQueue(const std::shared_ptr<HXOperationQueue> &queue) {
    std::lock_guard lock(m_mutex);
    HX_ASSERT(!m_hasQueue && m_state.load() == State::Pending,
              u"The operation “%@” is on a queue already, or has started.", m_name);
    m_hasQueue = true;
    m_queue = queue;
}

std::shared_ptr<HXOperationQueue> HXOperation::queue() const {
    std::lock_guard lock(m_mutex);
    return m_queue.lock();
}

bool HXOperation::isRunningOnQueue(const HXOperationQueue *queue) {
    return t_currentOperation && t_currentOperation->queue().get() == queue;
}
