#include "Model/StorageTree/HXStaticContainer.h"

#include "Model/StorageTree/HXSheetHandle.h"

HXStaticContainer::HXStaticContainer(const QString &identifier, const QString &displayName,
                                     QList<std::shared_ptr<HXContainer>> containers)
    : HXContainer(identifier, nullptr), m_displayName(displayName),
      m_containers(std::move(containers)) {
    setIntrinsic(true);
}

HXContainerKind HXStaticContainer::kind() const {
    return m_containers.isEmpty() ? HXContainerKind::Filter : m_containers.first()->kind();
}

bool HXStaticContainer::isTrash() const {
    return !m_containers.isEmpty() && m_containers.first()->isTrash();
}

QString HXStaticContainer::defaultIconName() const {
    return m_containers.isEmpty() ? QString() : m_containers.first()->iconName();
}

QList<std::shared_ptr<HXSheetHandle>> HXStaticContainer::logicalSheetHandles() const {
    QList<std::shared_ptr<HXSheetHandle>> handles;
    for (const auto &container : m_containers)
        handles += container->logicalSheetHandles();
    return handles;
}

std::shared_ptr<HXContainer>
HXStaticContainer::childMatchingStorageItem(const std::shared_ptr<HXStorageItem> &item) const {
    const auto storage = item ? item->storage() : nullptr;
    if (!storage)
        return nullptr;
    for (const auto &container : m_containers) {
        if (container->storage() == storage)
            return container;
    }
    return nullptr;
}

quint64 HXStaticContainer::operationForInsertingContainer(const HXContainerRef &item) const {
    const auto child = childMatchingStorageItem(item);
    return child ? child->operationForInsertingContainer(item) & ~OperationHonoursIndex : 0;
}

quint64 HXStaticContainer::operationForRemovingContainer(const HXContainerRef &item) const {
    const auto child = childMatchingStorageItem(item);
    return child ? child->operationForRemovingContainer(item) : 0;
}

quint64 HXStaticContainer::operationForInsertingSheetHandle(
    const std::shared_ptr<HXSheetHandle> &handle) const {
    const auto child = childMatchingStorageItem(handle);
    return child ? child->operationForInsertingSheetHandle(handle) & ~OperationHonoursIndex : 0;
}

quint64 HXStaticContainer::operationForRemovingSheetHandle(
    const std::shared_ptr<HXSheetHandle> &handle) const {
    const auto child = childMatchingStorageItem(handle);
    return child ? child->operationForRemovingSheetHandle(handle) : 0;
}

HXStaticFilter::HXStaticFilter(const QString &filename, const std::shared_ptr<HXStorage> &storage,
                               const std::shared_ptr<HXContainer> &filterParent)
    : HXConditionFilter(filename, storage), m_filterParent(filterParent) {
    setIntrinsic(true);
}
