#include "Search/Aggregation/HXSheetCountingSource.h"

#include "Model/Sheets/HXSheet.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Search/Aggregation/HXTextCounterQuery.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Utilities/HXDispatchQueue.h"

std::shared_ptr<HXSheetCountingSource> HXSheetCountingSource::sharedSource() {
    static const std::shared_ptr<HXSheetCountingSource> shared = create();
    return shared;
}

std::shared_ptr<HXSheetCountingSource> HXSheetCountingSource::create() {
    return std::shared_ptr<HXSheetCountingSource>(new HXSheetCountingSource());
}

HXSheetCountingSource::HXSheetCountingSource()
    : m_queue(HXDispatchQueue::create(QStringLiteral("velmora.sheet-counting"))) {}

void HXSheetCountingSource::addQuery(const std::shared_ptr<HXTextCounterQuery> &query) {
    std::lock_guard lock(m_mutex);
    m_registrations.insert(query.get(), Registration{query, {}});
}

void HXSheetCountingSource::removeQuery(const HXTextCounterQuery *query) {
    std::lock_guard lock(m_mutex);
    m_registrations.remove(query);
}

void HXSheetCountingSource::setScopeForQuery(const QSet<std::shared_ptr<HXSheetHandle>> &scope,
                                             const std::shared_ptr<HXTextCounterQuery> &query) {
    QSet<std::shared_ptr<HXSheetHandle>> left;
    {
        std::lock_guard lock(m_mutex);
        auto found = m_registrations.find(query.get());
        if (found == m_registrations.end())
            return;
        left = found->scope - scope;
        found->scope = scope;
    }
    if (!left.isEmpty())
        query->sourceDidInvalidateResults(left.values());
    query->sourceDidStart();
    const std::weak_ptr<HXTextCounterQuery> weakQuery = query;
    const std::weak_ptr<HXSheetCountingSource> weakSelf = weak_from_this();
    m_queue->async([weakSelf, weakQuery, scope] {
        const auto self = weakSelf.lock();
        const auto query = weakQuery.lock();
        if (!self || !query)
            return;
        QList<std::shared_ptr<HXSheetHandle>> found;
        for (const auto &handle : scope) {
            self->countIfNeeded(handle, false);
            if (self->textStatisticsForSheet(handle))
                found.append(handle);
        }
        query->sourceDidFindResults(found);
        query->sourceDidFinish();
    });
}

std::optional<HXCountDictionary>
HXSheetCountingSource::textStatisticsForSheet(const std::shared_ptr<HXSheetHandle> &handle) const {
    std::lock_guard lock(m_mutex);
    const auto found = m_entries.constFind(handle.get());
    if (found == m_entries.constEnd() || found->handle.lock() != handle)
        return std::nullopt;
    return found->counts;
}

void HXSheetCountingSource::noteSheetDidChange(const std::shared_ptr<HXSheetHandle> &handle) {
    const std::weak_ptr<HXSheetCountingSource> weakSelf = weak_from_this();
    m_queue->async([weakSelf, handle] {
        const auto self = weakSelf.lock();
        if (!self || !self->countIfNeeded(handle, true))
            return;
        QList<std::shared_ptr<HXTextCounterQuery>> queries;
        {
            std::lock_guard lock(self->m_mutex);
            for (const Registration &registration : std::as_const(self->m_registrations)) {
                if (registration.scope.contains(handle)) {
                    if (auto query = registration.query.lock())
                        queries.append(query);
                }
            }
        }
        for (const auto &query : std::as_const(queries))
            query->sourceDidFindResults({handle});
    });
}

void HXSheetCountingSource::waitUntilIdle() {
    m_queue->sync([] {});
}

bool HXSheetCountingSource::countIfNeeded(const std::shared_ptr<HXSheetHandle> &handle,
                                          bool force) {
    const QString token = handle->changeToken();
    if (!force) {
        std::lock_guard lock(m_mutex);
        const auto found = m_entries.constFind(handle.get());
        if (found != m_entries.constEnd() && found->handle.lock() == handle &&
            found->changeToken == token)
            return false;
    }
    std::shared_ptr<HXSheet> sheet = handle->sheet();
    if (!sheet)
        sheet = handle->loadSheetForReading();
    if (!sheet)
        return false;
    HXCountDictionary counts = HXTextCounter::allCountsForString(*sheet->text());
    std::lock_guard lock(m_mutex);
    m_entries.insert(handle.get(), Entry{handle, token, std::move(counts)});
    return true;
}
