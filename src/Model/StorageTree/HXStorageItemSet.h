#pragma once

#include "Utilities/HXRange.h"

#include <QHash>
#include <QList>
#include <QSet>
#include <QString>
#include <QStringList>

#include <memory>
#include <mutex>
#include <vector>

class HXStorageItem;
class HXStorageItemSet;

// A place in an order: the file name of a child, present or not yet arrived, or a sentinel, a
// number that reserves a place for an item on its way here.
struct HXOrderHandle {
    QString filename;
    quint64 sentinel = 0;

    bool isSentinel() const { return filename.isNull(); }
    static HXOrderHandle forSentinel(quint64 number) { return {QString(), number}; }
    friend bool operator==(const HXOrderHandle &, const HXOrderHandle &) = default;
};
using HXOrderCluster = QList<HXOrderHandle>;

class HXStorageItemSetDelegate {
public:
    virtual ~HXStorageItemSetDelegate() = default;
    virtual void storageItemSetDidChangePersistentClusters(HXStorageItemSet &set) = 0;
};

// The children of one kind of a group, in the order the group keeps for them: a list of
// clusters of order handles. The order outlives the items: names of children that have not
// arrived keep their places, and an item that arrives takes the place kept for it; one that is
// named nowhere goes to the end. Indices given to the set count only the handles of present
// items.
//
// The handles are kept flat, each marking whether it opens a cluster, with a table from name to
// place, so that entering thousands of items costs a lookup each; removals leave a gap that is
// swept once gaps are many. `storageItems` is a list made anew after a change and never changed
// after, so a reader may keep what it got. Owned by its group; any thread, under the set's own
// lock; the delegate hears of changes after the lock is left.
class HXStorageItemSet {
public:
    using ItemRef = std::shared_ptr<HXStorageItem>;

    HXStorageItemSet() = default;
    HXStorageItemSet(const HXStorageItemSet &) = delete;
    HXStorageItemSet &operator=(const HXStorageItemSet &) = delete;

    void setDelegate(HXStorageItemSetDelegate *delegate) { m_delegate = delegate; }

    QList<ItemRef> storageItems() const;
    qsizetype count() const;
    QList<HXOrderCluster> itemClusters() const;
    QSet<QString> validFilenames() const;
    // The name under which the item was entered; null for an item not in the set.
    QString filenameOfStorageItem(const HXStorageItem *item) const;
    ItemRef storageItemWithFilename(const QString &filename) const;

    // False when the name or the item is here already.
    bool insertStorageItem(const ItemRef &item);
    void removeStorageItem(const HXStorageItem *item);

    // Reserves places for clusters of the given sizes before the active handle at the index
    // (HXNotFound: the end), and returns the new sentinels in order.
    QList<quint64> sentinelsForInsertingClusters(const QList<quint64> &sizes, quint64 index,
                                                 const QList<ItemRef> &representingItems);
    void substituteSentinel(const HXOrderHandle &sentinel, const QString &filename);

    HXRange clusterRangeForStorageItemIndex(quint64 index) const;
    void setClustered(bool clustered, HXRange range);

    // The clusters as written to disk: names only, no sentinels, no empty clusters.
    QList<QStringList> persistentStorageItemClusters() const;
    void setPersistentStorageItemClusters(const QList<QStringList> &clusters);

    // The item's file name changed: its handle follows it.
    void storageItemFilenameDidChange(const HXStorageItem *item, const QString &newFilename);

    // Throws an assertion failure when the tables disagree; for tests.
    void checkInvariants() const;

private:
    struct Entry {
        HXOrderHandle handle;
        bool startsCluster = true;
        bool removed = false;
        ItemRef item;
    };
    using Clusters = std::vector<std::vector<Entry>>;

    Clusters clustersLocked() const;
    void setClustersLocked(const Clusters &clusters);
    void reindexLocked();
    void eraseEntryLocked(size_t position);
    void notifyChange();

    mutable std::mutex m_mutex;
    HXStorageItemSetDelegate *m_delegate = nullptr;
    quint64 m_nextSentinelId = 0;
    std::vector<Entry> m_entries;
    size_t m_removedEntries = 0;
    QHash<QString, size_t> m_positions;
    QHash<const HXStorageItem *, QString> m_storageItemFilenames;
    QSet<QString> m_validFilenames;
    mutable std::shared_ptr<const QList<ItemRef>> m_storageItems;
};
