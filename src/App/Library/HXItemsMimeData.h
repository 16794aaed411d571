#pragma once

#include <QMimeData>

#include <functional>
#include <memory>

class HXContainer;
class HXSheetHandle;
class HXStorageItem;

// The payload of a drag or copy of storage items (sheets and containers) between the sidebar
// and the sheet list. Within the process the nodes travel as they are; the data of the items
// type, the nodes' paths as JSON, stands in for them when the payload comes from elsewhere and
// is resolved against the storages then.
//
// Made by a model's `mimeData` and owned by the drag or the clipboard; main thread.
class HXItemsMimeData : public QMimeData {
    Q_OBJECT

public:
    explicit HXItemsMimeData(const QList<std::shared_ptr<HXStorageItem>> &items);

    QList<std::shared_ptr<HXStorageItem>> items() const { return m_items; }

    // The live nodes of any payload of the items type: those carried, or the paths resolved by
    // `resolve`; nodes that are gone are left out.
    using Resolver = std::function<std::shared_ptr<HXStorageItem>(const QString &url)>;
    static QList<std::shared_ptr<HXStorageItem>> itemsFromMimeData(const QMimeData *data,
                                                                   const Resolver &resolve);
    // The same, split by kind, each in the order carried.
    static void splitItems(const QList<std::shared_ptr<HXStorageItem>> &items,
                           QList<std::shared_ptr<HXSheetHandle>> *handles,
                           QList<std::shared_ptr<HXContainer>> *containers);

private:
    QList<std::shared_ptr<HXStorageItem>> m_items;
};
