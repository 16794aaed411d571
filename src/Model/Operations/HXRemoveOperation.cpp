#include "Model/Operations/HXRemoveOperation.h"

#include "Model/Operations/HXMoveOperation.h"
#include "Model/Persistence/HXStorage.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Utilities/HXDispatchQueue.h"
#include "Utilities/HXLocalizedString.h"
#include "Utilities/HXStringFormat.h"

#include <atomic>

namespace {

QString localized(const QString &key) {
    return HXLocalizedString(key, QStringLiteral("HXRemoveOperation"));
}

quint64 one(const std::shared_ptr<HXStorageItem> &) {
    return 1;
}

quint64 containerWorkload(const std::shared_ptr<HXStorageItem> &item) {
    return HXMoveOperation::workLoadSizeForContainers(
        {std::static_pointer_cast<HXContainer>(item)});
}

bool removeSheet(const std::shared_ptr<HXStorageItem> &item, HXError *error) {
    const auto handle = std::static_pointer_cast<HXSheetHandle>(item);
    return handle->storage()->removeSheetHandle(handle, error);
}

bool removeContainer(const std::shared_ptr<HXStorageItem> &item, HXError *error) {
    const auto container = std::static_pointer_cast<HXContainer>(item);
    return container->storage()->removeContainer(container, error);
}

HXError refusal(const std::shared_ptr<HXStorageItem> &item) {
    return HXError::fileError(HXFileWriteUnknownError, item->URL(),
                              QStringLiteral("“%1” can’t be moved to the trash.")
                                  .arg(item->filename()));
}

bool trashSheet(const std::shared_ptr<HXStorageItem> &item, HXError *error) {
    const auto handle = std::static_pointer_cast<HXSheetHandle>(item);
    const auto storage = handle->storage();
    const auto trash = storage ? storage->trash() : nullptr;
    if (!trash || (trash->operationForInsertingSheetHandle(handle) & 3) != HXContainer::OperationMove) {
        HXSetError(error, refusal(item));
        return false;
    }
    return storage->moveSheetHandle(handle, trash, HXNotFound, error);
}

bool trashContainer(const std::shared_ptr<HXStorageItem> &item, HXError *error) {
    const auto container = std::static_pointer_cast<HXContainer>(item);
    const auto storage = container->storage();
    const auto trash = storage ? storage->trash() : nullptr;
    if (!trash || container->isIntrinsic() ||
        (trash->operationForInsertingContainer(container) & 3) != HXContainer::OperationMove) {
        HXSetError(error, refusal(item));
        return false;
    }
    return storage->moveContainer(container, trash, HXNotFound, error);
}

template<typename List>
HXStorageOperation::Items itemsOf(const List &list) {
    return HXStorageOperation::Items(list.begin(), list.end());
}

} // namespace

std::shared_ptr<HXRemoveOperation> HXRemoveOperation::make(const Items &items, bool trash,
                                                           bool containers) {
    quint64 workload = 0;
    for (const auto &item : items)
        workload += containers ? containerWorkload(item) : 1;
    const QString kind = trash ? QStringLiteral("Trash") : QStringLiteral("Remove");
    return std::make_shared<HXRemoveOperation>(
        [items, trash, containers](HXContainerOperation &operation) {
            static_cast<HXRemoveOperation &>(operation).forEachItem(
                items, containers ? containerWorkload : one,
                containers ? (trash ? trashContainer : removeContainer)
                           : (trash ? trashSheet : removeSheet));
        },
        Items{}, Items{}, items, localized(kind + QStringLiteral("OperationTitle")),
        HXStringWithFormat(localized(kind + QStringLiteral("OperationDescription")),
                           quint64(items.size())),
        workload);
}

std::shared_ptr<HXRemoveOperation>
HXRemoveOperation::removeOperationForSheetHandles(const HandleList &handles) {
    return make(itemsOf(HXMoveOperation::removeDuplicateSheetHandlesFromArray(handles)), false,
                false);
}

std::shared_ptr<HXRemoveOperation>
HXRemoveOperation::removeOperationForContainers(const ContainerList &containers) {
    return make(itemsOf(HXMoveOperation::removeDuplicateContainersFromArray(containers)), false,
                true);
}

std::shared_ptr<HXRemoveOperation>
HXRemoveOperation::trashOperationForSheetHandles(const HandleList &handles) {
    return make(itemsOf(HXMoveOperation::removeDuplicateSheetHandlesFromArray(handles)), true,
                false);
}

std::shared_ptr<HXRemoveOperation>
HXRemoveOperation::trashOperationForContainers(const ContainerList &containers) {
    return make(itemsOf(HXMoveOperation::removeDuplicateContainersFromArray(containers)), true,
                true);
}

void HXRemoveOperation::forEachItem(const Items &items,
                                    quint64 (*workload)(const std::shared_ptr<HXStorageItem> &),
                                    bool (*action)(const std::shared_ptr<HXStorageItem> &,
                                                   HXError *)) {
    std::atomic<bool> stopped = false;
    HXDispatchQueue::apply(items.size(), [&](qsizetype i) {
        if (stopped || isCancelled())
            return;
        const auto &item = items.at(i);
        const quint64 amount = workload(item);
        HXError error;
        if (!action(item, &error)) {
            stopped = true;
            reportErrorToDelegate(error, item);
            return;
        }
        incrementProcessedWorkLoad(qint64(amount));
    });
}
