#pragma once

#include "Search/Counting/HXTextCounter.h"

#include <QSet>

#include <memory>
#include <optional>

class HXSheetHandle;
class HXTextCounterQuery;

// What keeps the finished counts of the sheets of a storage and tells queries which of their
// sheets have counts: the role of a storage's search index. A query registers once, then sets
// the part of its scope that lies in the storage; the source answers, on a queue of its own,
// through the query's source callbacks. Any thread.
class HXTextStatisticsSource {
public:
    virtual ~HXTextStatisticsSource() = default;

    virtual void addQuery(const std::shared_ptr<HXTextCounterQuery> &query) = 0;
    virtual void removeQuery(const HXTextCounterQuery *query) = 0;
    virtual void setScopeForQuery(const QSet<std::shared_ptr<HXSheetHandle>> &scope,
                                  const std::shared_ptr<HXTextCounterQuery> &query) = 0;
    // The stored counts of a sheet; nothing while it has none.
    virtual std::optional<HXCountDictionary>
    textStatisticsForSheet(const std::shared_ptr<HXSheetHandle> &handle) const = 0;
};
