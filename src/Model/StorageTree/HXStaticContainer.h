#pragma once

#include "Model/StorageTree/HXConditionFilter.h"

// One entry of the source list that stands for a container of every active library at once:
// all sheets, the recent ones, the trashes. It belongs to no storage and has no folder; what
// may be dropped on it is what the child of the dropped item's own storage accepts, but never
// at an index. Made by the interface from the storages it shows; any thread.
class HXStaticContainer : public HXContainer {
public:
    static inline const QString allIdentifier = QStringLiteral("__globalAllContainer");
    static inline const QString recentIdentifier = QStringLiteral("__globalRecentContainer");
    static inline const QString trashIdentifier = QStringLiteral("__globalTrashContainer");

    // `identifier` is the entry's persistent identifier in the source list.
    HXStaticContainer(const QString &identifier, const QString &displayName,
                      QList<std::shared_ptr<HXContainer>> containers);

    QString displayName() const override { return m_displayName; }
    QList<std::shared_ptr<HXContainer>> staticContainers() const { return m_containers; }
    HXContainerKind kind() const override;
    bool isTrash() const override;
    QString defaultIconName() const override;
    // The sheets of all the containers, in their order.
    QList<std::shared_ptr<HXSheetHandle>> logicalSheetHandles() const override;

    // The child that lives in the same storage as the item.
    std::shared_ptr<HXContainer>
    childMatchingStorageItem(const std::shared_ptr<HXStorageItem> &item) const;

    quint64 operationForInsertingContainer(const std::shared_ptr<HXContainer> &item) const override;
    quint64 operationForRemovingContainer(const std::shared_ptr<HXContainer> &item) const override;
    quint64
    operationForInsertingSheetHandle(const std::shared_ptr<HXSheetHandle> &handle) const override;
    quint64
    operationForRemovingSheetHandle(const std::shared_ptr<HXSheetHandle> &handle) const override;

private:
    const QString m_displayName;
    const QList<std::shared_ptr<HXContainer>> m_containers;
};

// A filter that has no folder: the all and recent filters of a storage. Its name begins with a
// colon, so no file can be taken for it; it hangs below the root group without being one of its
// children.
class HXStaticFilter : public HXConditionFilter {
public:
    HXStaticFilter(const QString &filename, const std::shared_ptr<HXStorage> &storage,
                   const std::shared_ptr<HXContainer> &filterParent);

    std::shared_ptr<HXContainer> filterParent() const { return m_filterParent.lock(); }
    QString displayName() const override { return m_displayName; }
    void setDisplayName(const QString &name) override { m_displayName = name; }
    QString defaultIconName() const override { return m_iconName; }
    void setIconName(const QString &name) { m_iconName = name; }

private:
    const std::weak_ptr<HXContainer> m_filterParent;
    QString m_displayName;
    QString m_iconName = QStringLiteral("Filter");
};
