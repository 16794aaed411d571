#pragma once

#include "Model/StorageTree/HXFilter.h"

#include <QVariantMap>

// A filter defined by a query. The query is kept in its property-list form, as read and as it
// will be written, until queries can be run. Owned by its parent's set; any thread.
class HXConditionFilter : public HXFilter {
public:
    using HXFilter::HXFilter;

    QVariantMap query() const;
    void setQuery(const QVariantMap &query);
    // Bit 1: the filter stands even without conditions.
    quint64 options() const { return m_options; }
    void setOptions(quint64 options) { m_options = options; }

private:
    mutable std::mutex m_queryMutex;
    QVariantMap m_query;
    std::atomic<quint64> m_options = 0;
};
