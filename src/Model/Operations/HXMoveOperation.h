#pragma once

#include "Model/Operations/HXStorageOperation.h"
#include "Utilities/HXRange.h"

#include <QList>

class HXContainer;
class HXSheetHandle;

// Moves and copies of sheets and containers into a target container, within a library or
// between libraries. All places in the target are reserved at once (sentinels), the items are
// then done concurrently, and each takes its place when done, so the order comes out as asked
// whatever finishes first; a cluster moved stays a cluster. A move to another library is a copy
// followed by the removal of the sources, and the sources go only when every copy succeeded.
// Within a library a moved sheet is renamed, never read.
class HXMoveOperation : public HXInsertingContainerOperation {
public:
    using HandleList = QList<std::shared_ptr<HXSheetHandle>>;
    using ContainerList = QList<std::shared_ptr<HXContainer>>;

    static std::shared_ptr<HXMoveOperation>
    moveOperationForSheetHandles(const HandleList &handles,
                                 const std::shared_ptr<HXContainer> &target,
                                 quint64 insertionIndex);
    static std::shared_ptr<HXMoveOperation>
    moveOperationForContainers(const ContainerList &containers,
                               const std::shared_ptr<HXContainer> &target,
                               quint64 insertionIndex);
    static std::shared_ptr<HXMoveOperation>
    copyOperationForSheetHandles(const HandleList &handles,
                                 const std::shared_ptr<HXContainer> &target,
                                 quint64 insertionIndex);
    static std::shared_ptr<HXMoveOperation>
    copyOperationForContainers(const ContainerList &containers,
                               const std::shared_ptr<HXContainer> &target,
                               quint64 insertionIndex);

    // The first of each; for containers also without those inside another one of the list.
    static HandleList removeDuplicateSheetHandlesFromArray(const HandleList &handles);
    static ContainerList removeDuplicateContainersFromArray(const ContainerList &containers);
    // Per container, 1 plus its containers and sheets below.
    static quint64 workLoadSizeForContainers(const ContainerList &containers);
    // The lengths of the runs of the list that sat in one cluster of one parent.
    static QList<quint64> clusterLengthsForSheetHandles(const HandleList &handles);

    using HXInsertingContainerOperation::HXInsertingContainerOperation;

private:
    void moveSheetHandles(const HandleList &handles, const std::shared_ptr<HXContainer> &target,
                          quint64 index);
    void moveContainers(const ContainerList &containers, const std::shared_ptr<HXContainer> &target,
                        quint64 index);
    void copySheetHandles(const HandleList &handles, const std::shared_ptr<HXContainer> &target,
                          quint64 index, bool notifyDelegate,
                          const std::shared_ptr<HXContainer> &progressContainer);
    void copyContainers(const ContainerList &containers, const std::shared_ptr<HXContainer> &target,
                        quint64 index, bool notifyDelegate,
                        const std::shared_ptr<HXContainer> &progressContainer);
    std::shared_ptr<HXContainer>
    copyContainer(const std::shared_ptr<HXContainer> &container,
                  const std::shared_ptr<HXContainer> &target, quint64 sentinel,
                  const std::shared_ptr<HXContainer> &progressContainer);
    bool shouldCopySheetHandlesAndContainers(const HandleList &handles,
                                             const ContainerList &containers,
                                             const std::shared_ptr<HXContainer> &target);
};
