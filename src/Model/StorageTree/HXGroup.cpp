#include "Model/StorageTree/HXGroup.h"

#include "Model/Persistence/HXStorage.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Utilities/HXAssert.h"

namespace {

template<typename T>
QList<std::shared_ptr<T>> itemsOf(const HXStorageItemSet &set) {
    QList<std::shared_ptr<T>> result;
    const auto items = set.storageItems();
    result.reserve(items.size());
    for (const auto &item : items)
        result.append(std::static_pointer_cast<T>(item));
    return result;
}

} // namespace

HXGroup::HXGroup(const QString &filename, const std::shared_ptr<HXStorage> &storage)
    : HXContainer(filename, storage) {
    m_containerSet.setDelegate(this);
    m_sheetHandleSet.setDelegate(this);
}

HXGroup::~HXGroup() {
    m_containerSet.setDelegate(nullptr);
    m_sheetHandleSet.setDelegate(nullptr);
}

QList<std::shared_ptr<HXSheetHandle>> HXGroup::sheetHandles() const {
    return itemsOf<HXSheetHandle>(m_sheetHandleSet);
}

QList<HXContainerRef> HXGroup::containers() const {
    return itemsOf<HXContainer>(m_containerSet);
}

// --- Masks ----------------------------------------------------------------------------------

quint64 HXGroup::operationForCreatingContainerOfKind(HXContainerKind) const {
    return isDescendantOfTrash() ? 0 : OperationMove;
}

quint64 HXGroup::operationForInsertingContainer(const HXContainerRef &item) const {
    if (trashParent())
        return 0;
    const auto storage = item->storage();
    if (storage && storage != this->storage())
        return OperationCopy;
    // Not into itself, nor into anything inside it.
    return isDescendantOfContainer(item.get()) ? 0 : OperationMove;
}

quint64 HXGroup::operationForRemovingContainer(const HXContainerRef &) const {
    return OperationMove | OperationCopy;
}

quint64 HXGroup::operationForCreatingSheet() const {
    return isDescendantOfTrash() ? 0 : OperationMove;
}

quint64
HXGroup::operationForInsertingSheetHandle(const std::shared_ptr<HXSheetHandle> &handle) const {
    if (trashParent())
        return 0;
    return handle->storage() == storage() ? OperationMove : OperationCopy;
}

quint64 HXGroup::operationForRemovingSheetHandle(const std::shared_ptr<HXSheetHandle> &) const {
    return OperationMove | OperationCopy;
}

// --- Entering and leaving -------------------------------------------------------------------

bool HXGroup::enter(const HXStorageItemRef &item, const HXContainerRef &oldParent) {
    HX_ASSERT(item->storage() == storage(), u"Inserted item must use the same storage.");
    const HXContainerKey key =
        item->isContainer() ? HXContainerKey::Containers : HXContainerKey::SheetHandles;
    willChange(key);
    const bool inserted =
        (item->isContainer() ? m_containerSet : m_sheetHandleSet).insertStorageItem(item);
    didChange(key);
    if (inserted)
        noteTreeChange(oldParent ? HXTreeChange::Moved : HXTreeChange::Inserted, item);
    return inserted;
}

void HXGroup::leave(const HXStorageItemRef &item) {
    HXStorageItemSet &set = item->isContainer() ? m_containerSet : m_sheetHandleSet;
    if (set.filenameOfStorageItem(item.get()).isNull())
        return;
    const HXContainerKey key =
        item->isContainer() ? HXContainerKey::Containers : HXContainerKey::SheetHandles;
    willChange(key);
    set.removeStorageItem(item.get());
    didChange(key);
    // An item that has a new parent moved; that parent told of it.
    if (!item->parent())
        noteTreeChange(HXTreeChange::Removed, item);
}

void HXGroup::noteTreeChange(int kind, const HXStorageItemRef &item, const QString &oldFilename) {
    if (const auto storage = this->storage())
        storage->noteTreeChange(HXTreeChange::Kind(kind), item,
                                std::static_pointer_cast<HXContainer>(shared_from_this()),
                                oldFilename);
}

bool HXGroup::accommodateInsertionOfContainer(const HXContainerRef &container,
                                              const HXContainerRef &oldParent, quint64) {
    return enter(container, oldParent);
}

bool HXGroup::accommodateInsertionOfSheetHandle(const std::shared_ptr<HXSheetHandle> &handle,
                                                const HXContainerRef &oldParent, quint64) {
    return enter(handle, oldParent);
}

void HXGroup::accommodateDeletionOfContainer(const HXContainerRef &container) {
    leave(container);
}

void HXGroup::accommodateDeletionOfSheetHandle(const std::shared_ptr<HXSheetHandle> &handle) {
    leave(handle);
}

void HXGroup::storageItemFilenameDidChange(const std::shared_ptr<HXStorageItem> &item) {
    HXStorageItemSet &set = item->isContainer() ? m_containerSet : m_sheetHandleSet;
    const QString oldName = set.filenameOfStorageItem(item.get());
    if (oldName.isNull() || oldName == item->filename())
        return;
    set.storageItemFilenameDidChange(item.get(), item->filename());
    if (const auto storage = this->storage())
        storage->noteTreeChange(HXTreeChange::Renamed, item,
                                std::static_pointer_cast<HXContainer>(shared_from_this()), oldName);
}

// --- Order ----------------------------------------------------------------------------------

QList<quint64> HXGroup::sentinelsForInsertingContainers(quint64 count, quint64 index) {
    return m_containerSet.sentinelsForInsertingClusters(QList<quint64>(qsizetype(count), 1), index,
                                                        {});
}

QList<quint64> HXGroup::sentinelsForInsertingSheetHandleClusters(
    const QList<quint64> &sizes, quint64 index,
    const QList<std::shared_ptr<HXSheetHandle>> &representingSheetHandles) {
    QList<HXStorageItemSet::ItemRef> items(representingSheetHandles.begin(),
                                           representingSheetHandles.end());
    return m_sheetHandleSet.sentinelsForInsertingClusters(sizes, index, items);
}

void HXGroup::substituteContainerSentinel(quint64 sentinel, const QString &filename) {
    willChange(HXContainerKey::Containers);
    m_containerSet.substituteSentinel(HXOrderHandle::forSentinel(sentinel), filename);
    didChange(HXContainerKey::Containers);
}

void HXGroup::substituteSheetHandleSentinel(quint64 sentinel, const QString &filename) {
    willChange(HXContainerKey::SheetHandles);
    m_sheetHandleSet.substituteSentinel(HXOrderHandle::forSentinel(sentinel), filename);
    didChange(HXContainerKey::SheetHandles);
}

QStringList HXGroup::persistentContainerOrder() const {
    QStringList order;
    for (const QStringList &cluster : m_containerSet.persistentStorageItemClusters())
        order.append(cluster);
    return order;
}

void HXGroup::setPersistentContainerOrder(const QStringList &order) {
    // Containers are never clustered.
    QList<QStringList> clusters;
    clusters.reserve(order.size());
    for (const QString &name : order)
        clusters.append(QStringList{name});
    willChange(HXContainerKey::Containers);
    m_containerSet.setPersistentStorageItemClusters(clusters);
    didChange(HXContainerKey::Containers);
}

QList<QStringList> HXGroup::persistentSheetHandleClusters() const {
    return m_sheetHandleSet.persistentStorageItemClusters();
}

void HXGroup::setPersistentSheetHandleClusters(const QList<QStringList> &clusters) {
    willChange(HXContainerKey::SheetHandles);
    m_sheetHandleSet.setPersistentStorageItemClusters(clusters);
    didChange(HXContainerKey::SheetHandles);
}

QVariantList HXGroup::sheetClustersPropertyList() const {
    QVariantList list;
    for (const QStringList &cluster : persistentSheetHandleClusters())
        list.append(cluster);
    return list;
}

void HXGroup::setSheetClustersFromPropertyList(const QVariant &value) {
    QList<QStringList> clusters;
    for (const QVariant &cluster : value.toList())
        clusters.append(cluster.toStringList());
    setPersistentSheetHandleClusters(clusters);
}

HXRange HXGroup::clusterRangeForSheetHandleIndex(quint64 index) const {
    const quint64 count = quint64(m_sheetHandleSet.count());
    HX_ASSERT(index <= count, u"index <= count");
    return m_sheetHandleSet.clusterRangeForStorageItemIndex(index);
}

bool HXGroup::canSetClustered(bool clustered, HXRange range) const {
    const quint64 count = quint64(m_sheetHandleSet.count());
    HX_ASSERT(range.max() <= count, u"NSMaxRange(range) <= self.sheetHandles.count");
    if (clustered)
        return range.length > 1;
    if (range.length == 0)
        return false;
    for (quint64 index = range.location; index < range.max(); ++index) {
        if (m_sheetHandleSet.clusterRangeForStorageItemIndex(index).length >= 2)
            return true;
    }
    return false;
}

void HXGroup::setClustered(bool clustered, HXRange range) {
    if (!canSetClustered(clustered, range)) {
        HXRaiseAssertion(QStringLiteral("Clustering not allowed: %1, (%2, %3)")
                             .arg(clustered ? 1 : 0)
                             .arg(range.location)
                             .arg(range.length));
    }
    willChange(HXContainerKey::SheetHandles);
    m_sheetHandleSet.setClustered(clustered, range);
    didChange(HXContainerKey::SheetHandles);
}

void HXGroup::storageItemSetDidChangePersistentClusters(HXStorageItemSet &) {
    suggestInfoFileUpdate();
}
