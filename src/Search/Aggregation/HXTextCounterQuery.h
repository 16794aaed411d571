#pragma once

#include "Search/Counting/HXTextCounter.h"

#include <QHash>
#include <QSet>

#include <functional>
#include <memory>
#include <mutex>

class HXSheetHandle;
class HXStorage;
class HXTextCounterQuery;
class HXTextStatisticsSource;

// Hears the totals of a counter query, on the main thread.
class HXTextCounterQueryDelegate {
public:
    virtual ~HXTextCounterQueryDelegate() = default;
    virtual void textCounterQueryDidProvideResult(HXTextCounterQuery &query,
                                                  const HXCountDictionary &result) = 0;
    virtual void textCounterQueryDidStart(HXTextCounterQuery &) {}
    virtual void textCounterQueryDidFinish(HXTextCounterQuery &) {}
};

// The combined counts of a set of sheets, kept up to date while the sheets' counts change. The
// counts come from the statistics source of each sheet's storage (where the storage's index
// keeps them), so no sheet is loaded for a total. The scope is split by storage; each storage's
// source gets one registration that stays while the query lives, even when its part shrinks.
//
// Made with `create` and held by its owner; sources hold it weakly. The state is guarded by one
// mutex, since sources call from their own queues; the delegate, which the owner clears before
// it goes, is called on the main thread outside that mutex.
class HXTextCounterQuery : public std::enable_shared_from_this<HXTextCounterQuery> {
public:
    using SourceProvider =
        std::function<std::shared_ptr<HXTextStatisticsSource>(const std::shared_ptr<HXStorage> &)>;

    static std::shared_ptr<HXTextCounterQuery> create(HXTextCounterQueryDelegate *delegate);
    ~HXTextCounterQuery();

    // Main thread.
    void setDelegate(HXTextCounterQueryDelegate *delegate);
    QSet<std::shared_ptr<HXSheetHandle>> scope() const;
    void setScope(const QSet<std::shared_ptr<HXSheetHandle>> &scope);

    // Which source serves a storage; by default the process-wide counting source.
    static void setSourceProvider(SourceProvider provider);

    // --- From the sources --------------------------------------------------------------------
    void sourceDidFindResults(const QList<std::shared_ptr<HXSheetHandle>> &handles);
    void sourceDidInvalidateResults(const QList<std::shared_ptr<HXSheetHandle>> &handles);
    void sourceDidReplaceResult(const std::shared_ptr<HXSheetHandle> &handle);
    void sourceDidStart();
    void sourceDidFinish();

private:
    explicit HXTextCounterQuery(HXTextCounterQueryDelegate *delegate);
    static std::shared_ptr<HXTextStatisticsSource>
    sourceForStorage(const std::shared_ptr<HXStorage> &storage);
    // Totals the counted sheets still in the scope and hands the result to the delegate.
    void notifyResultUpdate();
    void onMainThread(std::function<void(HXTextCounterQueryDelegate &)> call);

    mutable std::mutex m_mutex;
    HXTextCounterQueryDelegate *m_delegate;
    QSet<std::shared_ptr<HXSheetHandle>> m_scope;
    QHash<const HXStorage *, QSet<std::shared_ptr<HXSheetHandle>>> m_scopeByStorage;
    QHash<const HXStorage *, std::shared_ptr<HXTextStatisticsSource>> m_sources;
    QSet<std::shared_ptr<HXSheetHandle>> m_countedHandles;
    int m_unfinishedQueries = 0;
};
