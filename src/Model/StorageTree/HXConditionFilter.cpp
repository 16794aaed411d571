#include "Model/StorageTree/HXConditionFilter.h"

QVariantMap HXConditionFilter::query() const {
    std::lock_guard lock(m_queryMutex);
    return m_query;
}

void HXConditionFilter::setQuery(const QVariantMap &query) {
    std::lock_guard lock(m_queryMutex);
    m_query = query;
}
