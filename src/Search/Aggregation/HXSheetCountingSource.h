#pragma once

#include "Search/Aggregation/HXTextStatisticsSource.h"

#include <QHash>

#include <mutex>

class HXDispatchQueue;

// The statistics source that stands in while storages keep no index: it counts each sheet of a
// query's scope itself, the loaded sheet if it is open, else a read-only copy loaded from its
// file, and keeps the counts by sheet until the sheet's change token moves or someone says the
// sheet changed. Counting runs on a serial queue of its own, so queries hear of results in the
// order their scopes were set. Any thread; the state is guarded by one mutex.
class HXSheetCountingSource : public HXTextStatisticsSource,
                              public std::enable_shared_from_this<HXSheetCountingSource> {
public:
    static std::shared_ptr<HXSheetCountingSource> sharedSource();
    static std::shared_ptr<HXSheetCountingSource> create();

    void addQuery(const std::shared_ptr<HXTextCounterQuery> &query) override;
    void removeQuery(const HXTextCounterQuery *query) override;
    void setScopeForQuery(const QSet<std::shared_ptr<HXSheetHandle>> &scope,
                          const std::shared_ptr<HXTextCounterQuery> &query) override;
    std::optional<HXCountDictionary>
    textStatisticsForSheet(const std::shared_ptr<HXSheetHandle> &handle) const override;

    // The sheet's text changed (a pause in typing): count it again and tell the queries.
    void noteSheetDidChange(const std::shared_ptr<HXSheetHandle> &handle);
    // Runs after everything asked for so far; for tests and tools that want the counts now.
    void waitUntilIdle();

private:
    HXSheetCountingSource();
    // Keyed by address; the weak reference tells a dead handle from a new one at that address.
    struct Entry {
        std::weak_ptr<HXSheetHandle> handle;
        QString changeToken;
        HXCountDictionary counts;
    };
    struct Registration {
        std::weak_ptr<HXTextCounterQuery> query;
        QSet<std::shared_ptr<HXSheetHandle>> scope;
    };
    // On the queue: counts the sheets that have no current counts; true for each one counted.
    bool countIfNeeded(const std::shared_ptr<HXSheetHandle> &handle, bool force);

    std::shared_ptr<HXDispatchQueue> m_queue;
    mutable std::mutex m_mutex;
    QHash<const HXSheetHandle *, Entry> m_entries;
    QHash<const HXTextCounterQuery *, Registration> m_registrations;
};
