#pragma once

#include "Model/StorageTree/HXGroup.h"

#include <QHash>
#include <QVariantMap>

// A group that holds what was thrown away. What lies in it counts for nothing in its parents'
// totals (its aggregates are empty) but stays searchable (its logical sheets are not). It
// remembers where each item came from: the former parent's persistent object and the index
// there, given by the move that brought it. Owned by its storage's root; any thread.
class HXTrash : public HXGroup {
public:
    using HXGroup::HXGroup;

    static inline const QString originalParentKey =
        QStringLiteral("HXTrashPersistentObjectForOriginalParentKey");
    static inline const QString originalIndexKey = QStringLiteral("HXTrashOriginalIndexKey");

    bool isTrash() const override { return true; }
    HXContainerKind kind() const override { return HXContainerKind::Trash; }
    QList<std::shared_ptr<HXSheetHandle>> allSheetHandles() const override { return {}; }
    QList<HXContainerRef> allContainers() const override { return {}; }

    quint64 operationForInsertingContainer(const HXContainerRef &item) const override;
    quint64 operationForInsertingSheetHandle(const std::shared_ptr<HXSheetHandle> &) const override;

    bool accommodateInsertionOfContainer(const HXContainerRef &container,
                                         const HXContainerRef &oldParent, quint64 index) override;
    bool accommodateInsertionOfSheetHandle(const std::shared_ptr<HXSheetHandle> &handle,
                                           const HXContainerRef &oldParent, quint64 index) override;
    void accommodateDeletionOfContainer(const HXContainerRef &container) override;
    void accommodateDeletionOfSheetHandle(const std::shared_ptr<HXSheetHandle> &handle) override;

    // File name to source descriptor, for sheets and for containers.
    QVariantMap sheetHandleSources() const;
    QVariantMap childSources() const;
    void setSources(const QVariantMap &sheetHandleSources, const QVariantMap &childSources);

private:
    QVariantMap sourceOf(const HXContainerRef &oldParent, quint64 index) const;

    mutable std::mutex m_sourcesMutex;
    QVariantMap m_sheetHandleSources;
    QVariantMap m_childSources;
};
