#include "Search/Aggregation/HXTextCounterQuery.h"

#include "Model/Persistence/HXStorage.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Search/Aggregation/HXSheetCountingSource.h"
#include "Utilities/HXDispatchQueue.h"

namespace {

std::mutex providerMutex;
HXTextCounterQuery::SourceProvider provider;

} // namespace

std::shared_ptr<HXTextCounterQuery>
HXTextCounterQuery::create(HXTextCounterQueryDelegate *delegate) {
    return std::shared_ptr<HXTextCounterQuery>(new HXTextCounterQuery(delegate));
}

HXTextCounterQuery::HXTextCounterQuery(HXTextCounterQueryDelegate *delegate)
    : m_delegate(delegate) {}

HXTextCounterQuery::~HXTextCounterQuery() {
    for (const auto &source : std::as_const(m_sources))
        source->removeQuery(this);
}

void HXTextCounterQuery::setSourceProvider(SourceProvider sourceProvider) {
    std::lock_guard lock(providerMutex);
    provider = std::move(sourceProvider);
}

std::shared_ptr<HXTextStatisticsSource>
HXTextCounterQuery::sourceForStorage(const std::shared_ptr<HXStorage> &storage) {
    {
        std::lock_guard lock(providerMutex);
        if (provider)
            return provider(storage);
    }
    return HXSheetCountingSource::sharedSource();
}

void HXTextCounterQuery::setDelegate(HXTextCounterQueryDelegate *delegate) {
    std::lock_guard lock(m_mutex);
    m_delegate = delegate;
}

QSet<std::shared_ptr<HXSheetHandle>> HXTextCounterQuery::scope() const {
    std::lock_guard lock(m_mutex);
    return m_scope;
}

void HXTextCounterQuery::setScope(const QSet<std::shared_ptr<HXSheetHandle>> &scope) {
    QList<std::pair<std::shared_ptr<HXTextStatisticsSource>, QSet<std::shared_ptr<HXSheetHandle>>>>
        updates;
    QList<std::shared_ptr<HXTextStatisticsSource>> added;
    {
        std::lock_guard lock(m_mutex);
        if (scope == m_scope)
            return;
        m_scope = scope;
        QHash<const HXStorage *, QSet<std::shared_ptr<HXSheetHandle>>> byStorage;
        QHash<const HXStorage *, std::shared_ptr<HXStorage>> storages;
        for (const auto &handle : scope) {
            const std::shared_ptr<HXStorage> storage = handle->storage();
            byStorage[storage.get()].insert(handle);
            storages.insert(storage.get(), storage);
        }
        // A storage whose part is gone keeps its registration with an empty part.
        for (auto it = m_scopeByStorage.cbegin(); it != m_scopeByStorage.cend(); ++it) {
            if (!byStorage.contains(it.key()))
                byStorage.insert(it.key(), {});
        }
        for (auto it = byStorage.cbegin(); it != byStorage.cend(); ++it) {
            std::shared_ptr<HXTextStatisticsSource> source = m_sources.value(it.key());
            if (!source) {
                source = sourceForStorage(storages.value(it.key()));
                m_sources.insert(it.key(), source);
                added.append(source);
            }
            if (m_scopeByStorage.value(it.key()) != it.value() || added.contains(source))
                updates.append({source, it.value()});
        }
        m_scopeByStorage = byStorage;
    }
    const std::shared_ptr<HXTextCounterQuery> self = shared_from_this();
    for (const auto &source : std::as_const(added))
        source->addQuery(self);
    for (const auto &[source, part] : std::as_const(updates))
        source->setScopeForQuery(part, self);
    // Sheets that left the scope leave the total at once.
    notifyResultUpdate();
}

void HXTextCounterQuery::sourceDidFindResults(
    const QList<std::shared_ptr<HXSheetHandle>> &handles) {
    {
        std::lock_guard lock(m_mutex);
        for (const auto &handle : handles) {
            if (m_scope.contains(handle))
                m_countedHandles.insert(handle);
        }
    }
    notifyResultUpdate();
}

void HXTextCounterQuery::sourceDidInvalidateResults(
    const QList<std::shared_ptr<HXSheetHandle>> &handles) {
    {
        std::lock_guard lock(m_mutex);
        for (const auto &handle : handles)
            m_countedHandles.remove(handle);
    }
    notifyResultUpdate();
}

void HXTextCounterQuery::sourceDidReplaceResult(const std::shared_ptr<HXSheetHandle> &) {
    notifyResultUpdate();
}

void HXTextCounterQuery::sourceDidStart() {
    bool started = false;
    {
        std::lock_guard lock(m_mutex);
        started = ++m_unfinishedQueries == 1;
    }
    if (started)
        onMainThread([this](HXTextCounterQueryDelegate &delegate) {
            delegate.textCounterQueryDidStart(*this);
        });
}

void HXTextCounterQuery::sourceDidFinish() {
    bool finished = false;
    {
        std::lock_guard lock(m_mutex);
        if (m_unfinishedQueries > 0)
            finished = --m_unfinishedQueries == 0;
    }
    if (finished)
        onMainThread([this](HXTextCounterQueryDelegate &delegate) {
            delegate.textCounterQueryDidFinish(*this);
        });
}

void HXTextCounterQuery::notifyResultUpdate() {
    QList<HXCountDictionary> counts;
    {
        std::lock_guard lock(m_mutex);
        counts.reserve(m_countedHandles.size());
        for (const auto &handle : std::as_const(m_countedHandles)) {
            if (!m_scope.contains(handle))
                continue;
            const auto source = m_sources.value(handle->storage().get());
            if (!source)
                continue;
            if (std::optional<HXCountDictionary> statistics =
                    source->textStatisticsForSheet(handle))
                counts.append(std::move(*statistics));
        }
    }
    // Nothing counted yet is no result, rather than a total of zero.
    const HXCountDictionary result =
        counts.isEmpty() ? HXCountDictionary() : HXTextCounter::countsByCombiningCounts(counts);
    onMainThread([this, result](HXTextCounterQueryDelegate &delegate) {
        delegate.textCounterQueryDidProvideResult(*this, result);
    });
}

void HXTextCounterQuery::onMainThread(std::function<void(HXTextCounterQueryDelegate &)> call) {
    const std::weak_ptr<HXTextCounterQuery> weakSelf = weak_from_this();
    HXDispatchQueue::mainQueue()->async([weakSelf, call = std::move(call)] {
        const std::shared_ptr<HXTextCounterQuery> self = weakSelf.lock();
        if (!self)
            return;
        HXTextCounterQueryDelegate *delegate = nullptr;
        {
            std::lock_guard lock(self->m_mutex);
            delegate = self->m_delegate;
        }
        if (delegate)
            call(*delegate);
    });
}
