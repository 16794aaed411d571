#include "Model/StorageTree/HXStorageItemSet.h"

#include "Model/StorageTree/HXStorageItem.h"
#include "Utilities/HXAssert.h"

#include <algorithm>

// --- Reading --------------------------------------------------------------------------------

QList<HXStorageItemSet::ItemRef> HXStorageItemSet::storageItems() const {
    std::lock_guard lock(m_mutex);
    if (!m_storageItems) {
        QList<ItemRef> items;
        items.reserve(m_storageItemFilenames.size());
        for (const Entry &entry : m_entries) {
            if (!entry.removed && entry.item)
                items.append(entry.item);
        }
        m_storageItems = std::make_shared<const QList<ItemRef>>(std::move(items));
    }
    return *m_storageItems;
}

qsizetype HXStorageItemSet::count() const {
    std::lock_guard lock(m_mutex);
    return m_storageItemFilenames.size();
}

QList<HXOrderCluster> HXStorageItemSet::itemClusters() const {
    std::lock_guard lock(m_mutex);
    QList<HXOrderCluster> result;
    for (const auto &cluster : clustersLocked()) {
        HXOrderCluster handles;
        for (const Entry &entry : cluster)
            handles.append(entry.handle);
        result.append(handles);
    }
    return result;
}

QSet<QString> HXStorageItemSet::validFilenames() const {
    std::lock_guard lock(m_mutex);
    return m_validFilenames;
}

QString HXStorageItemSet::filenameOfStorageItem(const HXStorageItem *item) const {
    std::lock_guard lock(m_mutex);
    return m_storageItemFilenames.value(item);
}

HXStorageItemSet::ItemRef HXStorageItemSet::storageItemWithFilename(const QString &filename) const {
    std::lock_guard lock(m_mutex);
    const auto found = m_positions.constFind(filename);
    return found == m_positions.cend() ? nullptr : m_entries[*found].item;
}

HXRange HXStorageItemSet::clusterRangeForStorageItemIndex(quint64 index) const {
    std::lock_guard lock(m_mutex);
    quint64 before = 0;
    for (const auto &cluster : clustersLocked()) {
        const quint64 active = quint64(
            std::count_if(cluster.begin(), cluster.end(), [](const Entry &e) { return !!e.item; }));
        if (index >= before && index < before + active)
            return HXRange{before, active};
        before += active;
    }
    return HXRange{HXNotFound, 0};
}

QList<QStringList> HXStorageItemSet::persistentStorageItemClusters() const {
    std::lock_guard lock(m_mutex);
    QList<QStringList> result;
    for (const auto &cluster : clustersLocked()) {
        QStringList names;
        for (const Entry &entry : cluster) {
            if (!entry.handle.isSentinel())
                names.append(entry.handle.filename);
        }
        if (!names.isEmpty())
            result.append(names);
    }
    return result;
}

// --- Entering and leaving -------------------------------------------------------------------

bool HXStorageItemSet::insertStorageItem(const ItemRef &item) {
    HX_ASSERT(item != nullptr, u"item");
    bool orderChanged = false;
    {
        std::lock_guard lock(m_mutex);
        const QString filename = item->filename();
        if (m_validFilenames.contains(filename) || m_storageItemFilenames.contains(item.get()))
            return false;
        // The item takes the place that the order kept for it; a name the order lacks goes to
        // the end, in a cluster of its own.
        const auto found = m_positions.constFind(filename);
        if (found != m_positions.cend()) {
            m_entries[*found].item = item;
        } else {
            m_positions.insert(filename, m_entries.size());
            m_entries.push_back(Entry{{filename, 0}, true, false, item});
            orderChanged = true;
        }
        m_storageItemFilenames.insert(item.get(), filename);
        m_validFilenames.insert(filename);
        m_storageItems.reset();
    }
    // An item that arrives where the order expected it leaves the order as it was on disk.
    if (orderChanged)
        notifyChange();
    return true;
}

void HXStorageItemSet::removeStorageItem(const HXStorageItem *item) {
    {
        std::lock_guard lock(m_mutex);
        const auto known = m_storageItemFilenames.constFind(item);
        if (known == m_storageItemFilenames.cend())
            return;
        const QString filename = *known;
        m_storageItemFilenames.erase(known);
        m_validFilenames.remove(filename);
        // A deletion forgets the place, unlike a name that never arrived.
        const auto found = m_positions.constFind(filename);
        if (found != m_positions.cend())
            eraseEntryLocked(*found);
        m_storageItems.reset();
    }
    notifyChange();
}

void HXStorageItemSet::eraseEntryLocked(size_t position) {
    Entry &entry = m_entries[position];
    if (!entry.handle.isSentinel())
        m_positions.remove(entry.handle.filename);
    // The cluster's opening mark passes to the next handle of the same cluster.
    if (entry.startsCluster) {
        for (size_t next = position + 1; next < m_entries.size(); ++next) {
            if (m_entries[next].startsCluster)
                break;
            if (!m_entries[next].removed) {
                m_entries[next].startsCluster = true;
                break;
            }
        }
    }
    entry = Entry{{}, false, true, nullptr};
    ++m_removedEntries;
    // Gaps are swept once they are many, so that removing many items stays linear.
    if (m_removedEntries > 64 && m_removedEntries * 2 > m_entries.size())
        setClustersLocked(clustersLocked());
}

// --- Sentinels ------------------------------------------------------------------------------

QList<quint64> HXStorageItemSet::sentinelsForInsertingClusters(const QList<quint64> &sizes,
                                                               quint64 index,
                                                               const QList<ItemRef> &items) {
    QList<quint64> sentinels;
    {
        std::lock_guard lock(m_mutex);
        Clusters clusters = clustersLocked();
        // The handle before which the new ones go: the active one at the index.
        size_t c = 0;
        size_t o = 0;
        bool stopped = false;
        quint64 active = 0;
        for (c = 0; c < clusters.size() && !stopped; ++c) {
            for (o = 0; o < clusters[c].size(); ++o) {
                if (clusters[c][o].item && ++active > index) {
                    stopped = true;
                    break;
                }
            }
            if (stopped)
                break;
        }
        size_t reference = c;
        if (!stopped) {
            c = clusters.size();
            reference = c == 0 ? 0 : c - 1;
            o = c == 0 ? 0 : clusters[reference].size();
        }
        const auto isClusterOf = [&](size_t at) {
            if (items.isEmpty() || at >= clusters.size())
                return false;
            QSet<QString> names;
            for (const Entry &entry : clusters[at]) {
                if (!entry.handle.isSentinel())
                    names.insert(entry.handle.filename);
            }
            return std::all_of(items.begin(), items.end(), [&](const ItemRef &item) {
                const QString name = m_storageItemFilenames.value(item.get(), item->filename());
                return names.contains(name);
            });
        };
        std::optional<std::pair<size_t, size_t>> join;
        if (reference < clusters.size() && o > 0 && o < clusters[reference].size())
            join = {reference, o}; // inside a cluster
        else if (isClusterOf(reference))
            join = {reference, o};
        else if (stopped && o == 0 && c != 0 && isClusterOf(c - 1))
            join = {c - 1, clusters[c - 1].size()};
        if (join) {
            auto &cluster = clusters[join->first];
            size_t offset = join->second;
            for (quint64 size : sizes) {
                for (quint64 unit = 0; unit < size; ++unit) {
                    const quint64 sentinel = m_nextSentinelId++;
                    cluster.insert(cluster.begin() + qsizetype(offset++),
                                   Entry{HXOrderHandle::forSentinel(sentinel), false, false, {}});
                    sentinels.append(sentinel);
                }
            }
        } else {
            for (quint64 size : sizes) {
                std::vector<Entry> cluster;
                for (quint64 unit = 0; unit < size; ++unit) {
                    const quint64 sentinel = m_nextSentinelId++;
                    cluster.push_back(
                        Entry{HXOrderHandle::forSentinel(sentinel), false, false, {}});
                    sentinels.append(sentinel);
                }
                if (!cluster.empty())
                    clusters.insert(clusters.begin() + qsizetype(c++), std::move(cluster));
            }
        }
        setClustersLocked(clusters);
    }
    return sentinels;
}

void HXStorageItemSet::substituteSentinel(const HXOrderHandle &sentinel, const QString &filename) {
    HX_ASSERT(sentinel.isSentinel(), u"[sentinel isKindOfClass: NSNumber.class]");
    {
        std::lock_guard lock(m_mutex);
        Clusters clusters = clustersLocked();
        // An item already here under the name leaves its old place for the reserved one.
        ItemRef moving;
        for (auto &cluster : clusters) {
            for (const Entry &entry : cluster) {
                if (!entry.handle.isSentinel() && entry.handle.filename == filename && entry.item)
                    moving = entry.item;
            }
            std::erase_if(cluster, [&](const Entry &entry) {
                return !entry.handle.isSentinel() && entry.handle.filename == filename;
            });
        }
        for (auto &cluster : clusters) {
            for (Entry &entry : cluster) {
                if (entry.handle == sentinel)
                    entry = Entry{{filename, 0}, false, false, moving};
            }
        }
        setClustersLocked(clusters);
    }
    notifyChange();
}

// --- Clusters -------------------------------------------------------------------------------

void HXStorageItemSet::setClustered(bool clustered, HXRange range) {
    HX_ASSERT((clustered && range.length > 1) || (!clustered && range.length > 0),
              u"(clustered && range.length > 1) || (!clustered && range.length > 0)");
    {
        std::lock_guard lock(m_mutex);
        Clusters result;
        std::vector<Entry> current;
        const auto close = [&] {
            if (!current.empty())
                result.push_back(std::move(current));
            current.clear();
        };
        quint64 n = 0;
        const quint64 end = range.max();
        for (auto &cluster : clustersLocked()) {
            for (Entry &entry : cluster) {
                const bool active = !!entry.item;
                current.push_back(std::move(entry));
                if (active)
                    ++n;
                if (clustered) {
                    if (active && (n == range.location || n == end))
                        close();
                } else if (n >= range.location && n <= end) {
                    // Inclusive at the end: the handle just after the range is split off too.
                    close();
                }
            }
            if (!clustered || !(n >= range.location && n < end))
                close();
        }
        close();
        setClustersLocked(result);
    }
    notifyChange();
}

void HXStorageItemSet::setPersistentStorageItemClusters(const QList<QStringList> &clusters) {
    {
        std::lock_guard lock(m_mutex);
        QHash<QString, ItemRef> items;
        for (const Entry &entry : m_entries) {
            if (!entry.removed && entry.item)
                items.insert(entry.handle.filename, entry.item);
        }
        QList<ItemRef> order = m_storageItems ? *m_storageItems : QList<ItemRef>();
        if (!m_storageItems) {
            for (const Entry &entry : m_entries) {
                if (!entry.removed && entry.item)
                    order.append(entry.item);
            }
        }
        // The first occurrence of a name wins; names without an item stay as placeholders.
        Clusters result;
        QSet<QString> seen;
        for (const QStringList &names : clusters) {
            std::vector<Entry> cluster;
            for (const QString &name : names) {
                if (name.isEmpty() || seen.contains(name))
                    continue;
                seen.insert(name);
                cluster.push_back(Entry{{name, 0}, false, false, items.value(name)});
            }
            if (!cluster.empty())
                result.push_back(std::move(cluster));
        }
        for (const ItemRef &item : order) {
            const QString name = m_storageItemFilenames.value(item.get());
            if (!seen.contains(name))
                result.push_back({Entry{{name, 0}, true, false, item}});
        }
        setClustersLocked(result);
    }
    notifyChange();
}

void HXStorageItemSet::storageItemFilenameDidChange(const HXStorageItem *item,
                                                    const QString &newFilename) {
    {
        std::lock_guard lock(m_mutex);
        const auto known = m_storageItemFilenames.find(item);
        if (known == m_storageItemFilenames.end() || *known == newFilename)
            return;
        const QString oldFilename = *known;
        *known = newFilename;
        m_validFilenames.remove(oldFilename);
        m_validFilenames.insert(newFilename);
        const auto oldPlace = m_positions.constFind(oldFilename);
        const auto newPlace = m_positions.constFind(newFilename);
        if (oldPlace != m_positions.cend()) {
            const size_t from = *oldPlace;
            ItemRef moving = m_entries[from].item;
            if (newPlace != m_positions.cend()) {
                // The new name has a place already: the item takes it.
                m_entries[*newPlace].item = moving;
                eraseEntryLocked(from);
            } else {
                m_positions.remove(oldFilename);
                m_entries[from].handle.filename = newFilename;
                m_positions.insert(newFilename, from);
            }
        }
        m_storageItems.reset();
    }
    notifyChange();
}

// --- Representation -------------------------------------------------------------------------

HXStorageItemSet::Clusters HXStorageItemSet::clustersLocked() const {
    Clusters clusters;
    for (const Entry &entry : m_entries) {
        if (entry.startsCluster || clusters.empty())
            clusters.emplace_back();
        if (!entry.removed)
            clusters.back().push_back(entry);
    }
    std::erase_if(clusters, [](const std::vector<Entry> &cluster) { return cluster.empty(); });
    return clusters;
}

void HXStorageItemSet::setClustersLocked(const Clusters &clusters) {
    m_entries.clear();
    for (const auto &cluster : clusters) {
        bool first = true;
        for (const Entry &entry : cluster) {
            m_entries.push_back(entry);
            m_entries.back().startsCluster = first;
            m_entries.back().removed = false;
            first = false;
        }
    }
    m_removedEntries = 0;
    reindexLocked();
    m_storageItems.reset();
}

void HXStorageItemSet::reindexLocked() {
    m_positions.clear();
    m_positions.reserve(qsizetype(m_entries.size()));
    for (size_t position = 0; position < m_entries.size(); ++position) {
        const Entry &entry = m_entries[position];
        if (!entry.removed && !entry.handle.isSentinel())
            m_positions.insert(entry.handle.filename, position);
    }
}

void HXStorageItemSet::notifyChange() {
    if (m_delegate)
        m_delegate->storageItemSetDidChangePersistentClusters(*this);
}

void HXStorageItemSet::checkInvariants() const {
    std::lock_guard lock(m_mutex);
    qsizetype items = 0;
    size_t removed = 0;
    QSet<QString> names;
    for (size_t position = 0; position < m_entries.size(); ++position) {
        const Entry &entry = m_entries[position];
        if (entry.removed) {
            ++removed;
            HX_ASSERT(!entry.item, u"A removed handle keeps its item.");
            continue;
        }
        if (!entry.handle.isSentinel()) {
            HX_ASSERT(!names.contains(entry.handle.filename), u"Name listed twice: %@",
                      entry.handle.filename);
            names.insert(entry.handle.filename);
            HX_ASSERT(m_positions.value(entry.handle.filename, size_t(-1)) == position,
                      u"Place of %@ is not indexed.", entry.handle.filename);
        }
        if (entry.item) {
            ++items;
            HX_ASSERT(m_storageItemFilenames.value(entry.item.get()) == entry.handle.filename,
                      u"Item entered under another name than its handle's.");
            HX_ASSERT(m_validFilenames.contains(entry.handle.filename), u"Item name not valid.");
        }
    }
    HX_ASSERT(removed == m_removedEntries, u"Removed handles miscounted.");
    HX_ASSERT(items == m_storageItemFilenames.size() && items == m_validFilenames.size(),
              u"Items and handles disagree.");
    HX_ASSERT(qsizetype(names.size()) == m_positions.size(), u"Stale place in the index.");
}
