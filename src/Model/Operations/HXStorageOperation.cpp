#include "Model/Operations/HXStorageOperation.h"

#include "Model/StorageTree/HXContainer.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXDispatchQueue.h"

HXStorageOperation::HXStorageOperation(Items reading, Items appending, Items moving)
    : m_readingItems(std::move(reading))
    , m_appendingItems(std::move(appending))
    , m_movingItems(std::move(moving)) {}

HXStorageOperation::Items HXStorageOperation::affectedItems() const {
    HX_ASSERT(false, u"Abstract method called");
    return {};
}

QString HXStorageOperation::displayTitle() const {
    HX_ASSERT(false, u"Abstract method called");
    return {};
}

QString HXStorageOperation::displayDescription() const {
    HX_ASSERT(false, u"Abstract method called");
    return {};
}

double HXStorageOperation::progress() const {
    HX_ASSERT(false, u"Abstract method called");
    return 0;
}

// --- Container operations -------------------------------------------------------------------

HXContainerOperation::HXContainerOperation(Block block, Items reading, Items appending,
                                           Items moving, QString title, QString description,
                                           quint64 workLoadSize)
    : HXStorageOperation(std::move(reading), std::move(appending), std::move(moving))
    , m_block(std::move(block))
    , m_title(std::move(title))
    , m_description(std::move(description))
    , m_workLoadSize(workLoadSize) {}

HXStorageOperation::Items HXContainerOperation::affectedItems() const {
    return readingItems() + appendingItems() + movingItems();
}

double HXContainerOperation::progress() const {
    return m_workLoadSize == 0 ? 0.0 : double(m_processedWorkLoad.load()) / double(m_workLoadSize);
}

void HXContainerOperation::incrementProcessedWorkLoad(qint64 amount) {
    m_processedWorkLoad += amount;
    std::function<void(double)> handler;
    {
        const std::lock_guard lock(m_mutex);
        handler = m_progressHandler;
    }
    if (handler)
        handler(progress());
}

void HXContainerOperation::setProgressHandler(std::function<void(double)> handler) {
    const std::lock_guard lock(m_mutex);
    m_progressHandler = std::move(handler);
}

void HXContainerOperation::setDelegate(const std::weak_ptr<HXContainerOperationDelegate> &delegate) {
    const std::lock_guard lock(m_mutex);
    m_delegate = delegate;
}

void HXContainerOperation::reportErrorToDelegate(const HXError &error,
                                                 const std::shared_ptr<HXStorageItem> &item,
                                                 const QString &itemName) {
    std::shared_ptr<HXContainerOperationDelegate> delegate;
    {
        const std::lock_guard lock(m_mutex);
        m_failures.append(Failure{item, itemName.isEmpty() && item ? item->URL() : itemName, error});
        delegate = m_delegate.lock();
    }
    if (delegate) {
        const auto self = std::static_pointer_cast<HXContainerOperation>(shared_from_this());
        HXDispatchQueue::globalQueue(HXDispatchQueue::Priority::Background)
            ->async([self, delegate, error] { delegate->containerOperationFailedOnError(*self, error); });
    }
    cancel();
}

QList<HXContainerOperation::Failure> HXContainerOperation::failures() const {
    const std::lock_guard lock(m_mutex);
    return m_failures;
}

void HXContainerOperation::main() {
    if (m_block)
        m_block(*this);
}

// --- Inserting operations -------------------------------------------------------------------

void HXInsertingContainerOperation::setLossyCopyConfirmationHandler(
    LossyCopyConfirmationHandler handler) {
    const std::lock_guard lock(m_handlerMutex);
    m_lossyCopyConfirmationHandler = std::move(handler);
}

void HXInsertingContainerOperation::setInsertionHandler(InsertionHandler handler) {
    const std::lock_guard lock(m_handlerMutex);
    m_insertionHandler = std::move(handler);
}

bool HXInsertingContainerOperation::shouldCopyToTarget(const std::shared_ptr<HXContainer> &target,
                                                       const QSet<QString> &lossDescriptions) {
    LossyCopyConfirmationHandler handler;
    {
        const std::lock_guard lock(m_handlerMutex);
        handler = m_lossyCopyConfirmationHandler;
    }
    return !handler || handler(lossDescriptions, target);
}

void HXInsertingContainerOperation::notifyInsertionOfItem(
    const std::shared_ptr<HXStorageItem> &item, const std::shared_ptr<HXStorageItem> &source,
    const QString &sourceURL) {
    InsertionHandler handler;
    {
        const std::lock_guard lock(m_handlerMutex);
        handler = m_insertionHandler;
    }
    if (!handler || !item)
        return;
    const QString url = sourceURL.isEmpty() && source ? source->URL() : sourceURL;
    HXDispatchQueue::mainQueue()->async([handler, item, source, url] { handler(item, source, url); });
}

namespace {

// Node state is the main thread's: changes hop there, at once when already there.
void onMainThread(std::function<void()> block) {
    if (HXDispatchQueue::isMainThread())
        block();
    else
        HXDispatchQueue::mainQueue()->async(std::move(block));
}

} // namespace

void HXInsertingContainerOperation::registerInserting(const std::shared_ptr<HXContainer> &target,
                                                      quint64 workload) {
    const auto self = shared_from_this();
    onMainThread([target, self, workload] { target->registerInsertingOperation(self, workload); });
}

void HXInsertingContainerOperation::didProgress(const std::shared_ptr<HXContainer> &target,
                                                quint64 workload) {
    const auto self = shared_from_this();
    onMainThread(
        [target, self, workload] { target->insertingOperationDidProgress(self, workload); });
}

void HXInsertingContainerOperation::unregisterInserting(const std::shared_ptr<HXContainer> &target) {
    const auto self = shared_from_this();
    onMainThread([target, self] { target->unregisterInsertingOperation(self); });
}
