#include "Model/Operations/HXMoveOperation.h"

#include "Model/Persistence/HXStorage.h"
#include "Model/Sheets/HXSheet.h"
#include "Model/StorageTree/HXGroup.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Utilities/HXDispatchQueue.h"
#include "Utilities/HXLocalizedString.h"
#include "Utilities/HXStringFormat.h"

#include <QSet>

#include <atomic>
#include <mutex>

namespace {

QString localized(const QString &key) {
    return HXLocalizedString(key, QStringLiteral("HXMoveOperation"));
}

HXError refusal(const std::shared_ptr<HXStorageItem> &item,
                const std::shared_ptr<HXContainer> &target) {
    return HXError::fileError(HXFileWriteUnknownError, item->URL(),
                              QStringLiteral("“%1” can’t be put into “%2”.")
                                  .arg(item->filename(), target->displayName()));
}

QList<quint64> sheetSentinels(const std::shared_ptr<HXContainer> &target,
                              const QList<quint64> &lengths, quint64 index,
                              const HXMoveOperation::HandleList &handles) {
    if (const auto group = std::dynamic_pointer_cast<HXGroup>(target))
        return group->sentinelsForInsertingSheetHandleClusters(lengths, index, handles);
    return QList<quint64>(handles.size(), HXNotFound);
}

QList<quint64> containerSentinels(const std::shared_ptr<HXContainer> &target, qsizetype count,
                                  quint64 index) {
    if (const auto group = std::dynamic_pointer_cast<HXGroup>(target))
        return group->sentinelsForInsertingContainers(quint64(count), index);
    return QList<quint64>(count, HXNotFound);
}

HXStorageOperation::Items itemsOf(const auto &list) {
    return HXStorageOperation::Items(list.begin(), list.end());
}

std::shared_ptr<HXMoveOperation> makeOperation(HXContainerOperation::Block block,
                                               HXStorageOperation::Items reading,
                                               const std::shared_ptr<HXContainer> &target,
                                               HXStorageOperation::Items moving, qsizetype count,
                                               quint64 workload) {
    return std::make_shared<HXMoveOperation>(
        std::move(block), std::move(reading), HXStorageOperation::Items{target}, std::move(moving),
        localized(QStringLiteral("MoveOperationTitle")),
        HXStringWithFormat(localized(QStringLiteral("MoveOperationDescription")), quint64(count),
                           target->displayName()),
        workload);
}

// Places each item into the target, concurrently, until one fails or the operation is
// cancelled; `place` answers whether it placed the item, and tells when it did so by copying.
// A move to another library lets the sources of the copies go only when every item is there.
template<typename Item>
void placeAll(HXContainerOperation &operation, const QList<std::shared_ptr<Item>> &items,
              const std::function<bool(qsizetype index, bool *copied)> &place,
              bool (HXStorage::*remove)(const std::shared_ptr<Item> &, HXError *)) {
    std::atomic<bool> stopped = false;
    std::mutex mutex;
    QList<std::shared_ptr<Item>> copied;
    HXDispatchQueue::apply(items.size(), [&](qsizetype i) {
        if (stopped || operation.isCancelled())
            return;
        bool copy = false;
        if (!place(i, &copy)) {
            stopped = true;
            return;
        }
        if (copy) {
            const std::lock_guard lock(mutex);
            copied.append(items.at(i));
        }
    });
    if (stopped || operation.isCancelled())
        return;
    for (const auto &item : std::as_const(copied)) {
        HXError error;
        if (!(item->storage().get()->*remove)(item, &error))
            operation.reportErrorToDelegate(error, item);
    }
}

} // namespace

// --- Making operations ----------------------------------------------------------------------

std::shared_ptr<HXMoveOperation>
HXMoveOperation::moveOperationForSheetHandles(const HandleList &handles,
                                              const std::shared_ptr<HXContainer> &target,
                                              quint64 insertionIndex) {
    const HandleList clean = removeDuplicateSheetHandlesFromArray(handles);
    return makeOperation(
        [clean, target, insertionIndex](HXContainerOperation &operation) {
            static_cast<HXMoveOperation &>(operation).moveSheetHandles(clean, target,
                                                                       insertionIndex);
        },
        {}, target, itemsOf(clean), clean.size(), quint64(clean.size()));
}

std::shared_ptr<HXMoveOperation>
HXMoveOperation::moveOperationForContainers(const ContainerList &containers,
                                            const std::shared_ptr<HXContainer> &target,
                                            quint64 insertionIndex) {
    const ContainerList clean = removeDuplicateContainersFromArray(containers);
    return makeOperation(
        [clean, target, insertionIndex](HXContainerOperation &operation) {
            static_cast<HXMoveOperation &>(operation).moveContainers(clean, target,
                                                                     insertionIndex);
        },
        {}, target, itemsOf(clean), clean.size(), workLoadSizeForContainers(clean));
}

std::shared_ptr<HXMoveOperation>
HXMoveOperation::copyOperationForSheetHandles(const HandleList &handles,
                                              const std::shared_ptr<HXContainer> &target,
                                              quint64 insertionIndex) {
    const HandleList clean = removeDuplicateSheetHandlesFromArray(handles);
    return makeOperation(
        [clean, target, insertionIndex](HXContainerOperation &operation) {
            static_cast<HXMoveOperation &>(operation).copySheetHandles(clean, target,
                                                                       insertionIndex, true, {});
        },
        itemsOf(clean), target, {}, clean.size(), quint64(clean.size()));
}

std::shared_ptr<HXMoveOperation>
HXMoveOperation::copyOperationForContainers(const ContainerList &containers,
                                            const std::shared_ptr<HXContainer> &target,
                                            quint64 insertionIndex) {
    const ContainerList clean = removeDuplicateContainersFromArray(containers);
    return makeOperation(
        [clean, target, insertionIndex](HXContainerOperation &operation) {
            static_cast<HXMoveOperation &>(operation).copyContainers(clean, target,
                                                                     insertionIndex, true, {});
        },
        itemsOf(clean), target, {}, clean.size(), workLoadSizeForContainers(clean));
}

// --- Lists ------------------------------------------------------------------------------------

HXMoveOperation::HandleList
HXMoveOperation::removeDuplicateSheetHandlesFromArray(const HandleList &handles) {
    HandleList clean;
    QSet<HXSheetHandle *> seen;
    for (const auto &handle : handles) {
        if (handle && !seen.contains(handle.get())) {
            seen.insert(handle.get());
            clean.append(handle);
        }
    }
    return clean;
}

HXMoveOperation::ContainerList
HXMoveOperation::removeDuplicateContainersFromArray(const ContainerList &containers) {
    ContainerList clean;
    for (const auto &container : containers) {
        if (!container || clean.contains(container))
            continue;
        const bool inside = std::any_of(containers.begin(), containers.end(), [&](const auto &other) {
            return other && other != container && container->isDescendantOfContainer(other.get());
        });
        if (!inside)
            clean.append(container);
    }
    return clean;
}

quint64 HXMoveOperation::workLoadSizeForContainers(const ContainerList &containers) {
    quint64 size = 0;
    for (const auto &container : containers)
        size += 1 + quint64(container->allContainers().size()) +
                quint64(container->allSheetHandles().size());
    return size;
}

QList<quint64> HXMoveOperation::clusterLengthsForSheetHandles(const HandleList &handles) {
    QList<quint64> lengths;
    std::shared_ptr<HXContainer> runParent;
    HXRange runCluster{HXNotFound, 0};
    for (const auto &handle : handles) {
        const auto parent = handle->parent();
        HXRange cluster{HXNotFound, 0};
        if (parent) {
            const qsizetype at = parent->sheetHandles().indexOf(handle);
            if (at >= 0)
                cluster = parent->clusterRangeForSheetHandleIndex(quint64(at));
        }
        const bool joins = !lengths.isEmpty() && parent && parent == runParent &&
                           cluster.location != HXNotFound && cluster == runCluster;
        if (joins) {
            ++lengths.last();
        } else {
            lengths.append(1);
            runParent = parent;
            runCluster = cluster;
        }
    }
    return lengths;
}

// --- The loss question ----------------------------------------------------------------------

bool HXMoveOperation::shouldCopySheetHandlesAndContainers(
    const HandleList &handles, const ContainerList &containers,
    const std::shared_ptr<HXContainer> &target) {
    const auto storage = target->storage();
    if (!storage)
        return false;
    HandleList all = handles;
    for (const auto &container : containers)
        all += container->allSheetHandles();
    const bool local = std::all_of(all.begin(), all.end(), [&](const auto &handle) {
        return handle->storage() == storage;
    });
    if (local)
        return true;
    std::mutex mutex;
    QSet<QString> losses;
    HXDispatchQueue::apply(all.size(), [&](qsizetype index) {
        if (isCancelled() || all.at(index)->storage() == storage)
            return;
        if (const auto sheet = all.at(index)->loadSheetForReading()) {
            const QSet<QString> found = storage->lossDescriptionsForCopyingSheet(*sheet);
            const std::lock_guard lock(mutex);
            losses.unite(found);
        }
    });
    if (isCancelled())
        return false;
    return losses.isEmpty() || shouldCopyToTarget(target, losses);
}

// --- Moving -----------------------------------------------------------------------------------

void HXMoveOperation::moveSheetHandles(const HandleList &handles,
                                       const std::shared_ptr<HXContainer> &target,
                                       quint64 index) {
    const QList<quint64> sentinels =
        sheetSentinels(target, clusterLengthsForSheetHandles(handles), index, handles);
    registerInserting(target, quint64(handles.size()));
    if (shouldCopySheetHandlesAndContainers(handles, {}, target)) {
        const auto storage = target->storage();
        placeAll<HXSheetHandle>(*this, handles, [&](qsizetype i, bool *copied) {
            const auto &handle = handles.at(i);
            const quint64 mask = target->operationForInsertingSheetHandle(handle) & 3;
            HXError error;
            std::shared_ptr<HXStorageItem> inserted;
            if (mask == HXContainer::OperationMove) {
                if (storage->moveSheetHandle(handle, target, sentinels.at(i), &error))
                    inserted = handle;
            } else if (mask == HXContainer::OperationCopy) {
                const auto sheet = handle->loadSheetForReading();
                if (!sheet)
                    return false;
                inserted = storage->copySheet(sheet, target, sentinels.at(i), &error);
                *copied = true;
            } else {
                error = refusal(handle, target);
            }
            if (!inserted) {
                reportErrorToDelegate(error, handle);
                return false;
            }
            incrementProcessedWorkLoad(1);
            didProgress(target, 1);
            notifyInsertionOfItem(inserted, handle);
            return true;
        }, &HXStorage::removeSheetHandle);
    }
    unregisterInserting(target);
}

void HXMoveOperation::moveContainers(const ContainerList &containers,
                                     const std::shared_ptr<HXContainer> &target, quint64 index) {
    const QList<quint64> sentinels = containerSentinels(target, containers.size(), index);
    registerInserting(target, workLoadSizeForContainers(containers));
    if (shouldCopySheetHandlesAndContainers({}, containers, target)) {
        const auto storage = target->storage();
        placeAll<HXContainer>(*this, containers, [&](qsizetype i, bool *copied) {
            const auto &container = containers.at(i);
            const quint64 mask = target->operationForInsertingContainer(container) & 3;
            if (mask == HXContainer::OperationCopy) {
                *copied = true;
                return copyContainer(container, target, sentinels.at(i), target) && !isCancelled();
            }
            HXError error = refusal(container, target);
            if (mask != HXContainer::OperationMove ||
                !storage->moveContainer(container, target, sentinels.at(i), &error)) {
                reportErrorToDelegate(error, container);
                return false;
            }
            const quint64 workload = workLoadSizeForContainers({container});
            incrementProcessedWorkLoad(qint64(workload));
            didProgress(target, workload);
            notifyInsertionOfItem(container, container);
            return true;
        }, &HXStorage::removeContainer);
    }
    unregisterInserting(target);
}

// --- Copying ----------------------------------------------------------------------------------

std::shared_ptr<HXContainer>
HXMoveOperation::copyContainer(const std::shared_ptr<HXContainer> &container,
                               const std::shared_ptr<HXContainer> &target, quint64 sentinel,
                               const std::shared_ptr<HXContainer> &progressContainer) {
    HXError error;
    const auto copy = target->storage()->copyContainer(container, target, sentinel, &error);
    if (!copy) {
        reportErrorToDelegate(error, container);
        return nullptr;
    }
    notifyInsertionOfItem(copy, container);
    std::shared_ptr<HXContainer> progress = progressContainer;
    if (!progress) {
        progress = copy;
        registerInserting(copy, workLoadSizeForContainers({container}));
    }
    const quint64 childIndex =
        copy->operationForCreatingContainerOfKind(HXContainerKind::Group) &
                HXContainer::OperationHonoursIndex
            ? 0
            : HXNotFound;
    copyContainers(container->containers(), copy, childIndex, false, progress);
    if (!isCancelled())
        copySheetHandles(container->sheetHandles(), copy, childIndex, false, progress);
    incrementProcessedWorkLoad(1);
    didProgress(progress, 1);
    if (!progressContainer)
        unregisterInserting(copy);
    return isCancelled() ? nullptr : copy;
}

void HXMoveOperation::copySheetHandles(const HandleList &handles,
                                       const std::shared_ptr<HXContainer> &target,
                                       quint64 index, bool notifyDelegate,
                                       const std::shared_ptr<HXContainer> &progressContainer) {
    if (handles.isEmpty())
        return;
    const QList<quint64> sentinels =
        sheetSentinels(target, clusterLengthsForSheetHandles(handles), index, handles);
    const std::shared_ptr<HXContainer> progress = progressContainer ? progressContainer : target;
    if (!progressContainer)
        registerInserting(target, quint64(handles.size()));
    if (notifyDelegate && !shouldCopySheetHandlesAndContainers(handles, {}, target)) {
        if (!progressContainer)
            unregisterInserting(target);
        return;
    }
    const auto storage = target->storage();
    std::atomic<bool> stopped = false;
    HXDispatchQueue::apply(handles.size(), [&](qsizetype i) {
        if (stopped || isCancelled())
            return;
        const auto &handle = handles.at(i);
        if ((target->operationForCreatingSheet() & 3) == 0) {
            stopped = true;
            reportErrorToDelegate(refusal(handle, target), handle);
            return;
        }
        const auto sheet = handle->loadSheetForReading();
        if (!sheet) {
            stopped = true;
            return;
        }
        HXError error;
        const auto copy = storage->copySheet(sheet, target, sentinels.at(i), &error);
        if (!copy) {
            stopped = true;
            reportErrorToDelegate(error, handle);
            return;
        }
        incrementProcessedWorkLoad(1);
        didProgress(progress, 1);
        notifyInsertionOfItem(copy, handle);
    });
    if (!progressContainer)
        unregisterInserting(target);
}

void HXMoveOperation::copyContainers(const ContainerList &containers,
                                     const std::shared_ptr<HXContainer> &target, quint64 index,
                                     bool notifyDelegate,
                                     const std::shared_ptr<HXContainer> &progressContainer) {
    if (containers.isEmpty())
        return;
    const QList<quint64> sentinels = containerSentinels(target, containers.size(), index);
    const std::shared_ptr<HXContainer> progress = progressContainer ? progressContainer : target;
    if (!progressContainer)
        registerInserting(target, workLoadSizeForContainers(containers));
    if (notifyDelegate && !shouldCopySheetHandlesAndContainers({}, containers, target)) {
        if (!progressContainer)
            unregisterInserting(target);
        return;
    }
    std::atomic<bool> stopped = false;
    HXDispatchQueue::apply(containers.size(), [&](qsizetype i) {
        if (stopped || isCancelled())
            return;
        if (!copyContainer(containers.at(i), target, sentinels.at(i), progress))
            stopped = true;
    });
    if (!progressContainer)
        unregisterInserting(target);
}
