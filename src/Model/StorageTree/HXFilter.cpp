#include "Model/StorageTree/HXFilter.h"

#include "Model/StorageTree/HXSheetHandle.h"

QList<std::shared_ptr<HXSheetHandle>> HXFilter::logicalSheetHandles() const {
    std::lock_guard lock(m_resultsMutex);
    return m_results;
}

void HXFilter::setResults(const QList<std::shared_ptr<HXSheetHandle>> &results) {
    willChange(HXContainerKey::AllLogicalSheetHandles);
    {
        std::lock_guard lock(m_resultsMutex);
        m_results = results;
    }
    didChange(HXContainerKey::AllLogicalSheetHandles);
}
