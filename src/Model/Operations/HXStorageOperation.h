#pragma once

#include "Utilities/HXError.h"
#include "Utilities/HXOperation.h"

#include <QList>
#include <QSet>
#include <QString>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

class HXContainer;
class HXContainerOperation;
class HXStorageItem;

// Told when a container operation fails, on a background queue.
class HXContainerOperationDelegate {
public:
    virtual ~HXContainerOperationDelegate() = default;
    virtual void containerOperationFailedOnError(HXContainerOperation &, const HXError &) {}
};

// A change of a library's structure: a move, a copy, an import, a removal, a save to a folder.
// Its footprint is three lists of nodes: what it reads, where it appends, and what it moves
// away; the queue admits it by these. Abstract.
class HXStorageOperation : public HXOperation {
public:
    using Items = QList<std::shared_ptr<HXStorageItem>>;

    const Items &readingItems() const { return m_readingItems; }
    const Items &appendingItems() const { return m_appendingItems; }
    const Items &movingItems() const { return m_movingItems; }

    virtual Items affectedItems() const;
    virtual QString displayTitle() const;
    virtual QString displayDescription() const;
    virtual double progress() const;

protected:
    HXStorageOperation(Items reading, Items appending, Items moving);

private:
    const Items m_readingItems;
    const Items m_appendingItems;
    const Items m_movingItems;
};

// A storage operation whose work is a block, with a work load that it reports as it goes and a
// delegate that hears of failures. The first failure cancels the operation; what it did stays
// done. Besides the delegate, each failure is kept with the item it concerns, for a caller that
// reports them per item.
class HXContainerOperation : public HXStorageOperation {
public:
    using Block = std::function<void(HXContainerOperation &operation)>;
    struct Failure {
        std::shared_ptr<HXStorageItem> item;
        QString itemName; // the item's path, or the file's for an import
        HXError error;
    };

    HXContainerOperation(Block block, Items reading, Items appending, Items moving,
                         QString title, QString description, quint64 workLoadSize);

    Items affectedItems() const override;
    QString displayTitle() const override { return m_title; }
    QString displayDescription() const override { return m_description; }
    double progress() const override;

    quint64 workLoadSize() const { return m_workLoadSize; }
    qint64 processedWorkLoad() const { return m_processedWorkLoad.load(); }
    void incrementProcessedWorkLoad(qint64 amount);
    // Called with the progress after each increment, on the worker's thread.
    void setProgressHandler(std::function<void(double progress)> handler);

    void setDelegate(const std::weak_ptr<HXContainerOperationDelegate> &delegate);
    // Tells the delegate (on a background queue) and cancels the operation.
    void reportErrorToDelegate(const HXError &error, const std::shared_ptr<HXStorageItem> &item = {},
                               const QString &itemName = QString());
    QList<Failure> failures() const;

protected:
    void main() override;

private:
    Block m_block;
    const QString m_title;
    const QString m_description;
    const quint64 m_workLoadSize;
    std::atomic<qint64> m_processedWorkLoad = 0;
    mutable std::mutex m_mutex;
    std::function<void(double)> m_progressHandler;
    std::weak_ptr<HXContainerOperationDelegate> m_delegate;
    QList<Failure> m_failures;
};

// A container operation that puts items into a target: it may ask whether a lossy copy should
// go on, and tells of each new item with its source, on the main queue.
class HXInsertingContainerOperation : public HXContainerOperation {
public:
    using LossyCopyConfirmationHandler = std::function<bool(
        const QSet<QString> &lossDescriptions, const std::shared_ptr<HXContainer> &target)>;
    // The new item with where it came from: the node copied or moved, or the file imported
    // (then without a node).
    using InsertionHandler = std::function<void(const std::shared_ptr<HXStorageItem> &item,
                                                const std::shared_ptr<HXStorageItem> &source,
                                                const QString &sourceURL)>;

    using HXContainerOperation::HXContainerOperation;

    void setLossyCopyConfirmationHandler(LossyCopyConfirmationHandler handler);
    void setInsertionHandler(InsertionHandler handler);
    // Whether to go on with a copy that loses what the descriptions name: the handler's answer,
    // or yes without one.
    bool shouldCopyToTarget(const std::shared_ptr<HXContainer> &target,
                            const QSet<QString> &lossDescriptions);
    void notifyInsertionOfItem(const std::shared_ptr<HXStorageItem> &item,
                               const std::shared_ptr<HXStorageItem> &source,
                               const QString &sourceURL = QString());

protected:
    // The target shows the work coming its way; these hop to the main thread.
    void registerInserting(const std::shared_ptr<HXContainer> &target, quint64 workload);
    void didProgress(const std::shared_ptr<HXContainer> &target, quint64 workload);
    void unregisterInserting(const std::shared_ptr<HXContainer> &target);

private:
    mutable std::mutex m_handlerMutex;
    LossyCopyConfirmationHandler m_lossyCopyConfirmationHandler;
    InsertionHandler m_insertionHandler;
};
