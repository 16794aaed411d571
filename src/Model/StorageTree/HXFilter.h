#pragma once

#include "Model/StorageTree/HXContainer.h"

// A container whose sheets are not its own but those that match it somewhere in its storage:
// it has no folder of children, and its logical sheet handles are its results. Until queries
// run, a filter has no results. Owned by its parent's set; any thread.
class HXFilter : public HXContainer {
public:
    using HXContainer::HXContainer;

    HXContainerKind kind() const override { return HXContainerKind::Filter; }
    QString defaultIconName() const override { return QStringLiteral("Filter"); }
    QList<std::shared_ptr<HXSheetHandle>> sheetHandles() const override { return {}; }
    QList<std::shared_ptr<HXSheetHandle>> logicalSheetHandles() const override;
    void setResults(const QList<std::shared_ptr<HXSheetHandle>> &results);

private:
    mutable std::mutex m_resultsMutex;
    QList<std::shared_ptr<HXSheetHandle>> m_results;
};
