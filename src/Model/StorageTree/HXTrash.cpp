#include "Model/StorageTree/HXTrash.h"

#include "Model/Persistence/HXStorage.h"
#include "Model/StorageTree/HXSheetHandle.h"

quint64 HXTrash::operationForInsertingContainer(const HXContainerRef &item) const {
    if (!item->parent() || item->isDescendantOfContainer(this))
        return 0;
    return HXGroup::operationForInsertingContainer(item) & ~OperationHonoursIndex;
}

quint64
HXTrash::operationForInsertingSheetHandle(const std::shared_ptr<HXSheetHandle> &handle) const {
    if (allLogicalSheetHandles().contains(handle))
        return 0;
    return HXGroup::operationForInsertingSheetHandle(handle) & ~OperationHonoursIndex;
}

QVariantMap HXTrash::sourceOf(const HXContainerRef &oldParent, quint64 index) const {
    const auto storage = this->storage();
    QVariantMap source;
    source.insert(originalParentKey,
                  storage ? storage->persistentObjectForItem(oldParent) : QVariant());
    source.insert(originalIndexKey, index == HXNotFound ? QVariant() : QVariant(index));
    return source;
}

bool HXTrash::accommodateInsertionOfContainer(const HXContainerRef &container,
                                              const HXContainerRef &oldParent, quint64 index) {
    if (oldParent && !oldParent->isDescendantOfTrash()) {
        std::lock_guard lock(m_sourcesMutex);
        m_childSources.insert(container->filename(), sourceOf(oldParent, index));
    }
    return HXGroup::accommodateInsertionOfContainer(container, oldParent, index);
}

bool HXTrash::accommodateInsertionOfSheetHandle(const std::shared_ptr<HXSheetHandle> &handle,
                                                const HXContainerRef &oldParent, quint64 index) {
    if (oldParent && !oldParent->isDescendantOfTrash()) {
        std::lock_guard lock(m_sourcesMutex);
        m_sheetHandleSources.insert(handle->filename(), sourceOf(oldParent, index));
    }
    return HXGroup::accommodateInsertionOfSheetHandle(handle, oldParent, index);
}

void HXTrash::accommodateDeletionOfContainer(const HXContainerRef &container) {
    {
        std::lock_guard lock(m_sourcesMutex);
        m_childSources.remove(container->filename());
    }
    HXGroup::accommodateDeletionOfContainer(container);
}

void HXTrash::accommodateDeletionOfSheetHandle(const std::shared_ptr<HXSheetHandle> &handle) {
    {
        std::lock_guard lock(m_sourcesMutex);
        m_sheetHandleSources.remove(handle->filename());
    }
    HXGroup::accommodateDeletionOfSheetHandle(handle);
}

QVariantMap HXTrash::sheetHandleSources() const {
    std::lock_guard lock(m_sourcesMutex);
    return m_sheetHandleSources;
}

QVariantMap HXTrash::childSources() const {
    std::lock_guard lock(m_sourcesMutex);
    return m_childSources;
}

void HXTrash::setSources(const QVariantMap &sheetHandleSources, const QVariantMap &childSources) {
    std::lock_guard lock(m_sourcesMutex);
    m_sheetHandleSources = sheetHandleSources;
    m_childSources = childSources;
}
