#pragma once

#include "Model/StorageTree/HXStorageItem.h"
#include "Utilities/HXRange.h"
#include "Utilities/HXReadWriteLock.h"

#include <QList>
#include <QSet>
#include <QVariantMap>

#include <atomic>
#include <functional>

class HXCountingGoal;
class HXSheetHandle;
class HXContainer;

// What an observer of a container can watch. The three aggregates cover the whole subtree.
enum class HXContainerKey {
    Containers,
    SheetHandles,
    AllSheetHandles,
    AllContainers,
    AllLogicalSheetHandles,
    DisplayName,
    IconName,
    CountingGoal,
};

// The kinds of containers a container may be asked to create or take.
enum class HXContainerKind { Group, Filter, Trash };

class HXContainerObserver {
public:
    virtual ~HXContainerObserver() = default;
    virtual void containerWillChange(HXContainer &, HXContainerKey) {}
    virtual void containerDidChange(HXContainer &, HXContainerKey) {}
};

// A node that holds others: a group, a filter, a trash. Besides its children it owns the small
// info file that keeps its name and the order of its children; the file is read when the
// container comes alive and after a foreign change, and written at one of three speeds: a
// suggested update within five minutes, a write within a second, or at once. A file that could
// not be read is never written back, until a read succeeds.
//
// Mask bits: 1 the item can be moved (or created) here, 2 it can be copied here, 0x100 the
// container honours an insertion index.
//
// Observers of the aggregates (all sheet handles, all containers, all logical sheet handles)
// make the container follow its children, lazily: nothing is watched until someone listens.
// Observers hear the changes on the thread that makes them. Any thread; the liveness and the
// info-file state are guarded by `lock`.
class HXOperation;

class HXContainer : public HXStorageItem {
public:
    static constexpr quint64 OperationMove = 1;
    static constexpr quint64 OperationCopy = 2;
    static constexpr quint64 OperationHonoursIndex = 0x100;
    enum ValidatedOperation { ValidateInsert = 1, ValidateCreate = 2, ValidateRemove = 3 };

    HXContainer(const QString &filename, const std::shared_ptr<HXStorage> &storage);
    ~HXContainer() override;

    bool isContainer() const override { return true; }
    HXReadWriteLock &lock() { return m_lock; }
    bool isIntrinsic() const { return m_intrinsic; }
    void setIntrinsic(bool intrinsic) { m_intrinsic = intrinsic; }

    // --- Contents ------------------------------------------------------------------------------
    virtual QList<std::shared_ptr<HXSheetHandle>> sheetHandles() const { return {}; }
    virtual QList<std::shared_ptr<HXContainer>> containers() const { return {}; }
    virtual QList<std::shared_ptr<HXSheetHandle>> logicalSheetHandles() const {
        return sheetHandles();
    }
    virtual QList<std::shared_ptr<HXSheetHandle>> allSheetHandles() const;
    virtual QList<std::shared_ptr<HXContainer>> allContainers() const;
    QSet<std::shared_ptr<HXSheetHandle>> allLogicalSheetHandles() const;
    // Every container below, in the order of allContainers, also inside a trash.
    QList<std::shared_ptr<HXContainer>> descendantContainers() const;

    virtual QString displayName() const { return {}; }
    virtual bool hasDisplayNameSetter() const { return false; }
    virtual void setDisplayName(const QString &) {}
    bool allowsSettingDisplayName() const { return hasDisplayNameSetter() && !m_intrinsic; }
    QString iconName() const;
    virtual QString defaultIconName() const { return {}; }
    virtual QString userIconName() const { return {}; }
    virtual std::shared_ptr<HXCountingGoal> countingGoal() const { return nullptr; }
    virtual bool includeInSaveToOperation() const { return false; }

    virtual bool isTrash() const { return false; }
    virtual HXContainerKind kind() const { return HXContainerKind::Group; }

    std::shared_ptr<HXSheetHandle> sheetHandleWithFilename(const QString &filename,
                                                           bool recursive) const;
    virtual HXRange clusterRangeForSheetHandleIndex(quint64 index) const;
    virtual bool canSetClustered(bool clustered, HXRange range) const;
    virtual void setClustered(bool clustered, HXRange range);

    // --- Masks ---------------------------------------------------------------------------------
    virtual quint64 operationForCreatingContainerOfKind(HXContainerKind kind) const;
    virtual quint64 operationForInsertingContainer(const std::shared_ptr<HXContainer> &item) const;
    virtual quint64 operationForRemovingContainer(const std::shared_ptr<HXContainer> &item) const;
    virtual quint64 operationForCreatingSheet() const;
    virtual quint64
    operationForInsertingSheetHandle(const std::shared_ptr<HXSheetHandle> &handle) const;
    virtual quint64
    operationForRemovingSheetHandle(const std::shared_ptr<HXSheetHandle> &handle) const;
    // The low byte of the mask picks insertion, creation or removal.
    bool validateOperationMask(quint64 mask, const std::shared_ptr<HXSheetHandle> &handle) const;
    bool validateOperationMask(quint64 mask, const std::shared_ptr<HXContainer> &container) const;

    // --- Entering and leaving ------------------------------------------------------------------
    // True when the item was new here.
    virtual bool accommodateInsertionOfContainer(const std::shared_ptr<HXContainer> &container,
                                                 const std::shared_ptr<HXContainer> &oldParent,
                                                 quint64 index);
    virtual bool accommodateInsertionOfSheetHandle(const std::shared_ptr<HXSheetHandle> &handle,
                                                   const std::shared_ptr<HXContainer> &oldParent,
                                                   quint64 index);
    virtual void accommodateDeletionOfContainer(const std::shared_ptr<HXContainer> &container);
    virtual void accommodateDeletionOfSheetHandle(const std::shared_ptr<HXSheetHandle> &handle);
    virtual void storageItemFilenameDidChange(const std::shared_ptr<HXStorageItem> &item);

    void setAlive(bool alive) override;
    std::shared_ptr<HXStorageItem> storageItemForOpeningURL(const QString &url) override;

    // --- The info file -------------------------------------------------------------------------
    // The name of the info file inside the container's folder; none for containers without one.
    virtual QString infoFilename() const { return {}; }
    QString infoFileURL() const;
    // `copy`: the contents for a new duplicate, without the order.
    virtual QVariantMap infoFileContents(bool copy) const;
    virtual void setInfoFileContents(const QVariantMap &contents);
    void readInfoFile();
    qint64 readInfoModificationDate() const;
    qint64 infoModificationDate() const { return m_infoModificationDate; }
    bool isReadingInfoFile() const { return m_isReadingInfoFile; }
    void writeInfoFile();
    void writeInfoFileImmediately();
    void suggestInfoFileUpdate();
    void saveMetadataIfNeeded();
    // Whether a write is scheduled or suggested: termination writes these at once.
    bool hasPendingInfoFileWrite() const;
    virtual void writeAdditionalFiles() {}
    // A path below the container, or its own info file, changed on disk.
    void itemDidChangeAtURL(const QString &url) override;

    // The delays of the two slower speeds; tests shorten them.
    static void setInfoFileDelaysForTesting(int suggestedMilliseconds, int writeMilliseconds);

    // --- Operations putting items here ---------------------------------------------------------
    // Main thread only: operations hop there to register. The maximum is the sum of the
    // workloads registered since the container last had none; the progress is processed over
    // maximum, not a number when the maximum is 0.
    void registerInsertingOperation(const std::shared_ptr<HXOperation> &operation,
                                    quint64 workload);
    void insertingOperationDidProgress(const std::shared_ptr<HXOperation> &operation,
                                       quint64 workload);
    void unregisterInsertingOperation(const std::shared_ptr<HXOperation> &operation);
    QList<std::shared_ptr<HXOperation>> insertingOperations() const;
    quint64 maximumInsertionWorkload() const;
    quint64 processedInsertionWorkload() const;
    double insertingOperationsProgress() const;

    // --- Observers -----------------------------------------------------------------------------
    void addObserver(const std::weak_ptr<HXContainerObserver> &observer, HXContainerKey key);
    void removeObserver(const HXContainerObserver *observer, HXContainerKey key);
    void willChange(HXContainerKey key);
    void didChange(HXContainerKey key);

    void parentsDidChange() override;

private:
    void startObservingChildrenIfNeeded();
    void updateObservedChildren();
    void addObservationToChild(const std::shared_ptr<HXContainer> &child);
    void removeObservationFromChild(HXContainer *child);
    void notify(HXContainerKey key, bool prior);
    void announce(HXContainerKey key, bool prior);

    HXReadWriteLock m_lock;
    bool m_intrinsic = false;
    qint64 m_infoModificationDate = 0; // nanoseconds since 1970; 0 when not known
    std::atomic<int> m_writeScheduled = 0;
    std::atomic<int> m_shouldUpdateInfoFile = 0;
    std::atomic<bool> m_isReadingInfoFile = false;

    mutable std::mutex m_observerMutex;
    bool m_observesChildren = false;
    QList<QPair<std::weak_ptr<HXContainerObserver>, HXContainerKey>> m_observers;
    QSet<HXContainer *> m_observedContainers;
    QList<std::shared_ptr<HXOperation>> m_insertingOperations;
    quint64 m_maximumInsertionWorkload = 0;
    quint64 m_processedInsertionWorkload = 0;
    // The containers above that mirror this one's aggregate changes.
    QList<std::weak_ptr<HXContainer>> m_aggregateObservers;
};

using HXContainerRef = std::shared_ptr<HXContainer>;
