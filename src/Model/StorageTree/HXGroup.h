#pragma once

#include "Model/StorageTree/HXContainer.h"
#include "Model/StorageTree/HXStorageItemSet.h"

#include <QStringList>
#include <QVariantList>

// A container of containers and sheets, each kind in its own ordered set. The order is kept as
// file names, so it survives a relaunch and names children that have not arrived yet; sheets
// may be joined in clusters. A change of order suggests an update of the info file. Abstract:
// the storage makes its own kind of group. Owned by its parent's set; any thread.
class HXGroup : public HXContainer, public HXStorageItemSetDelegate {
public:
    HXGroup(const QString &filename, const std::shared_ptr<HXStorage> &storage);
    ~HXGroup() override;

    QList<std::shared_ptr<HXSheetHandle>> sheetHandles() const override;
    QList<HXContainerRef> containers() const override;
    QString defaultIconName() const override { return QStringLiteral("Sheets"); }
    bool includeInSaveToOperation() const override { return true; }

    HXStorageItemSet &containerSet() { return m_containerSet; }
    HXStorageItemSet &sheetHandleSet() { return m_sheetHandleSet; }

    quint64 operationForCreatingContainerOfKind(HXContainerKind kind) const override;
    quint64 operationForInsertingContainer(const HXContainerRef &item) const override;
    quint64 operationForRemovingContainer(const HXContainerRef &item) const override;
    quint64 operationForCreatingSheet() const override;
    quint64 operationForInsertingSheetHandle(const std::shared_ptr<HXSheetHandle> &) const override;
    quint64 operationForRemovingSheetHandle(const std::shared_ptr<HXSheetHandle> &) const override;

    bool accommodateInsertionOfContainer(const HXContainerRef &container,
                                         const HXContainerRef &oldParent, quint64 index) override;
    bool accommodateInsertionOfSheetHandle(const std::shared_ptr<HXSheetHandle> &handle,
                                           const HXContainerRef &oldParent, quint64 index) override;
    void accommodateDeletionOfContainer(const HXContainerRef &container) override;
    void accommodateDeletionOfSheetHandle(const std::shared_ptr<HXSheetHandle> &handle) override;
    void storageItemFilenameDidChange(const std::shared_ptr<HXStorageItem> &item) override;

    QList<quint64> sentinelsForInsertingContainers(quint64 count, quint64 index);
    QList<quint64> sentinelsForInsertingSheetHandleClusters(
        const QList<quint64> &sizes, quint64 index,
        const QList<std::shared_ptr<HXSheetHandle>> &representingSheetHandles);
    void substituteContainerSentinel(quint64 sentinel, const QString &filename);
    void substituteSheetHandleSentinel(quint64 sentinel, const QString &filename);

    QStringList persistentContainerOrder() const;
    void setPersistentContainerOrder(const QStringList &order);
    QList<QStringList> persistentSheetHandleClusters() const;
    void setPersistentSheetHandleClusters(const QList<QStringList> &clusters);
    // The clusters as an info file keeps them: a list of lists of names.
    QVariantList sheetClustersPropertyList() const;
    void setSheetClustersFromPropertyList(const QVariant &value);

    HXRange clusterRangeForSheetHandleIndex(quint64 index) const override;
    bool canSetClustered(bool clustered, HXRange range) const override;
    void setClustered(bool clustered, HXRange range) override;

    void storageItemSetDidChangePersistentClusters(HXStorageItemSet &set) override;

private:
    bool enter(const HXStorageItemRef &item, const HXContainerRef &oldParent);
    void leave(const HXStorageItemRef &item);
    void noteTreeChange(int kind, const HXStorageItemRef &item, const QString &oldFilename = {});

    HXStorageItemSet m_containerSet;
    HXStorageItemSet m_sheetHandleSet;
};
