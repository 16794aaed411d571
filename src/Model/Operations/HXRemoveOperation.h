#pragma once

#include "Model/Operations/HXStorageOperation.h"

class HXContainer;
class HXSheetHandle;

// Removal of sheets and containers: deleting them for good, or moving them into their library's
// trash, which remembers where each came from. The items are done concurrently; the first
// failure stops the rest, and what was done stays done.
class HXRemoveOperation : public HXContainerOperation {
public:
    using HandleList = QList<std::shared_ptr<HXSheetHandle>>;
    using ContainerList = QList<std::shared_ptr<HXContainer>>;

    static std::shared_ptr<HXRemoveOperation> removeOperationForSheetHandles(const HandleList &);
    static std::shared_ptr<HXRemoveOperation> removeOperationForContainers(const ContainerList &);
    static std::shared_ptr<HXRemoveOperation> trashOperationForSheetHandles(const HandleList &);
    static std::shared_ptr<HXRemoveOperation> trashOperationForContainers(const ContainerList &);

    using HXContainerOperation::HXContainerOperation;

private:
    static std::shared_ptr<HXRemoveOperation> make(const Items &items, bool trash,
                                                   bool containers);
    // Runs the action over the items concurrently, until a failure or a cancellation.
    void forEachItem(const Items &items, quint64 (*workload)(const std::shared_ptr<HXStorageItem> &),
                     bool (*action)(const std::shared_ptr<HXStorageItem> &, HXError *));
};
