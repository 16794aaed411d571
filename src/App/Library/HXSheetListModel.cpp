#include "App/Library/HXSheetListModel.h"

#include "App/Library/HXContainerChangeRelay.h"
#include "App/Library/HXItemsMimeData.h"
#include "App/Library/HXSheetPreview.h"
#include "Model/Operations/HXMoveOperation.h"
#include "Model/Operations/HXRemoveOperation.h"
#include "Model/Operations/HXStorageOperationQueue.h"
#include "Model/Persistence/HXStorage.h"
#include "Model/Sheets/HXSheet.h"
#include "Model/StorageTree/HXContainer.h"
#include "Model/StorageTree/HXGroup.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Utilities/HXApplicationLog.h"
#include "Utilities/HXDispatchQueue.h"
#include "Utilities/HXLocalizedString.h"

#include <QHash>
#include <QMimeData>

#include <algorithm>

namespace {

QString text(const char *key) {
    return HXLocalizedString(QString::fromLatin1(key), QStringLiteral("HXAppLibrary"));
}

// A sheet as the list shows it; title and preview are derived from the handle's prefix when
// asked, and kept until the prefix changes.
struct Row {
    std::shared_ptr<HXSheetHandle> handle;
    HXSheetListModel::ClusterPosition position = HXSheetListModel::Single;
    mutable QString derivedFrom;
    mutable std::pair<QString, QString> titleAndPreview;
};

// Where each of the sheets stands in its cluster, from the clusters the group keeps by name, so
// that the answer fits the list it is given even when the group has changed since.
QList<HXSheetListModel::ClusterPosition>
clusterPositions(const std::shared_ptr<HXContainer> &container,
                 const QList<std::shared_ptr<HXSheetHandle>> &handles) {
    QList<HXSheetListModel::ClusterPosition> positions(handles.size(), HXSheetListModel::Single);
    const auto group = std::dynamic_pointer_cast<HXGroup>(container);
    if (!group)
        return positions;
    QHash<QString, int> clusterOf;
    int number = 0;
    for (const QStringList &cluster : group->persistentSheetHandleClusters()) {
        ++number;
        if (cluster.size() > 1) {
            for (const QString &name : cluster)
                clusterOf.insert(name, number);
        }
    }
    const auto joined = [&](qsizetype a, qsizetype b) {
        if (a < 0 || b >= handles.size())
            return false;
        const int cluster = clusterOf.value(handles.at(a)->filename());
        return cluster != 0 && cluster == clusterOf.value(handles.at(b)->filename());
    };
    for (qsizetype row = 0; row < handles.size(); ++row) {
        const bool before = joined(row - 1, row);
        const bool after = joined(row, row + 1);
        positions[row] = before ? (after ? HXSheetListModel::Middle : HXSheetListModel::Last)
                                : (after ? HXSheetListModel::First : HXSheetListModel::Single);
    }
    return positions;
}

} // namespace

struct HXSheetListModel::Private {
    HXSheetListModel *q;
    std::shared_ptr<HXContainer> container;
    QList<HXContainerKey> observedKeys;
    std::shared_ptr<HXContainerChangeRelay> relay;
    QList<Row> rows;
    // Sheets whose text is being read for their preview.
    QSet<const HXSheetHandle *> reading;
    std::shared_ptr<HXDispatchQueue> previewQueue =
        HXDispatchQueue::create(QStringLiteral("HXSheetListModel.previews"),
                                HXDispatchQueue::Kind::Serial, HXDispatchQueue::Priority::Low);

    QList<std::shared_ptr<HXSheetHandle>> wantedHandles() const {
        if (!container || !container->isAlive())
            return {};
        return container->logicalSheetHandles();
    }
    int rowOf(const HXSheetHandle *handle) const {
        for (qsizetype row = 0; row < rows.size(); ++row) {
            if (rows.at(row).handle.get() == handle)
                return int(row);
        }
        return -1;
    }
    void sync();
    void requestPreviews();
    void readPreview(const std::shared_ptr<HXSheetHandle> &handle);

    struct Drop {
        quint64 index = HXNotFound;
        QList<std::shared_ptr<HXSheetHandle>> handles;
    };
    bool planDrop(const QMimeData *data, int row, Drop *drop) const;
};

// Brings the rows in line with the container by the fewest removals, moves and inserts.
void HXSheetListModel::Private::sync() {
    const QList<std::shared_ptr<HXSheetHandle>> wanted = wantedHandles();
    const QList<ClusterPosition> positions = clusterPositions(container, wanted);
    const QSet<std::shared_ptr<HXSheetHandle>> wantedSet(wanted.begin(), wanted.end());
    bool changed = false;
    for (int row = int(rows.size()) - 1; row >= 0; --row) {
        if (wantedSet.contains(rows.at(row).handle))
            continue;
        q->beginRemoveRows({}, row, row);
        rows.removeAt(row);
        q->endRemoveRows();
        changed = true;
    }
    for (int row = 0; row < wanted.size(); ++row) {
        const auto &handle = wanted.at(row);
        if (row < rows.size() && rows.at(row).handle == handle)
            continue;
        changed = true;
        const int from = rowOf(handle.get());
        if (from > row) {
            q->beginMoveRows({}, from, from, {}, row);
            rows.move(from, row);
            q->endMoveRows();
        } else {
            q->beginInsertRows({}, row, row);
            rows.insert(row, Row{handle, positions.at(row), {}, {}});
            q->endInsertRows();
        }
    }
    for (int row = 0; row < rows.size(); ++row) {
        if (rows.at(row).position == positions.at(row))
            continue;
        rows[row].position = positions.at(row);
        const QModelIndex index = q->index(row);
        emit q->dataChanged(index, index, {ClusterPositionRole});
        changed = true;
    }
    if (changed)
        emit q->sheetsChanged();
    requestPreviews();
}

void HXSheetListModel::Private::requestPreviews() {
    for (const Row &row : std::as_const(rows)) {
        if (row.handle->cachedContentPrefix().isNull() && !reading.contains(row.handle.get()))
            readPreview(row.handle);
    }
}

// The beginning of the text is read on a queue of its own and kept by the handle for every list
// that shows it.
void HXSheetListModel::Private::readPreview(const std::shared_ptr<HXSheetHandle> &handle) {
    reading.insert(handle.get());
    previewQueue->async([this, relay = std::weak_ptr(relay), weak = std::weak_ptr(handle)] {
        const auto handle = weak.lock();
        if (!handle)
            return;
        handle->setCachedContentPrefix(HXSheetPreview::readContentPrefix(handle));
        if (const auto held = relay.lock()) {
            held->post([this, weak] {
                const auto handle = weak.lock();
                if (!handle)
                    return;
                reading.remove(handle.get());
                if (const int row = rowOf(handle.get()); row >= 0) {
                    const QModelIndex index = q->index(row);
                    emit q->dataChanged(index, index, {Qt::DisplayRole, TitleRole, PreviewRole});
                }
            });
        }
    });
}

HXSheetListModel::HXSheetListModel(QObject *parent)
    : QAbstractListModel(parent)
    , d(new Private) {
    d->q = this;
    d->relay = HXContainerChangeRelay::create(
        this, [this](const std::shared_ptr<HXContainer> &container, HXContainerKey) {
            if (container == d->container)
                d->sync();
        });
}

HXSheetListModel::~HXSheetListModel() {
    d->relay->detach();
    if (d->container)
        d->relay->unobserve(d->container.get(), d->observedKeys);
}

std::shared_ptr<HXContainer> HXSheetListModel::container() const {
    return d->container;
}

void HXSheetListModel::setContainer(const std::shared_ptr<HXContainer> &container) {
    if (container == d->container)
        return;
    if (d->container)
        d->relay->unobserve(d->container.get(), d->observedKeys);
    beginResetModel();
    d->container = container;
    d->rows.clear();
    d->observedKeys.clear();
    if (container) {
        // A filter's sheets are its results, which change with the whole storage.
        d->observedKeys = {HXContainerKey::SheetHandles};
        if (container->kind() == HXContainerKind::Filter)
            d->observedKeys.append(HXContainerKey::AllLogicalSheetHandles);
        d->relay->observe(container, d->observedKeys);
        const auto handles = d->wantedHandles();
        const auto positions = clusterPositions(container, handles);
        for (qsizetype row = 0; row < handles.size(); ++row)
            d->rows.append(Row{handles.at(row), positions.at(row), {}, {}});
    }
    endResetModel();
    emit sheetsChanged();
    d->requestPreviews();
}

std::shared_ptr<HXSheetHandle>
HXSheetListModel::sheetHandleForIndex(const QModelIndex &index) const {
    if (!index.isValid() || index.model() != this || index.row() >= d->rows.size())
        return nullptr;
    return d->rows.at(index.row()).handle;
}

QModelIndex
HXSheetListModel::indexForSheetHandle(const std::shared_ptr<HXSheetHandle> &handle) const {
    const int row = handle ? d->rowOf(handle.get()) : -1;
    return row < 0 ? QModelIndex() : index(row);
}

void HXSheetListModel::reloadPreviewOfSheetHandle(const std::shared_ptr<HXSheetHandle> &handle) {
    if (!handle)
        return;
    handle->setCachedContentPrefix(QString());
    if (d->rowOf(handle.get()) >= 0 && !d->reading.contains(handle.get()))
        d->readPreview(handle);
}

void HXSheetListModel::newSheetAtRow(
    int row, std::function<void(const std::shared_ptr<HXSheetHandle> &)> completion) {
    const auto container = d->container;
    const auto finish = [this, completion](const std::shared_ptr<HXSheetHandle> &handle) {
        // The row is there before the caller hears of the sheet.
        d->sync();
        if (completion)
            completion(handle && d->rowOf(handle.get()) >= 0 ? handle : nullptr);
    };
    if (!container || !container->storage() || !(container->operationForCreatingSheet() & 3)) {
        QMetaObject::invokeMethod(
            this, [finish] { finish(nullptr); }, Qt::QueuedConnection);
        return;
    }
    const quint64 index =
        row >= 0 && (container->operationForCreatingSheet() & HXContainer::OperationHonoursIndex)
            ? quint64(row)
            : HXNotFound;
    auto made = std::make_shared<std::shared_ptr<HXSheetHandle>>();
    const auto operation = std::make_shared<HXContainerOperation>(
        [container, index, made](HXContainerOperation &operation) {
            quint64 sentinel = HXNotFound;
            const auto group = std::dynamic_pointer_cast<HXGroup>(container);
            if (group && index != HXNotFound && index < quint64(group->sheetHandles().size()))
                sentinel = group->sentinelsForInsertingSheetHandleClusters({1}, index, {}).first();
            HXError error;
            *made = container->storage()->createSheetInContainer(container, sentinel, &error);
            if (!*made)
                operation.reportErrorToDelegate(error, container);
        },
        HXStorageOperation::Items{}, HXStorageOperation::Items{container},
        HXStorageOperation::Items{}, text("NewSheetOperationTitle"),
        text("NewSheetOperationDescription"), 1);
    operation->setCompletionBlock([relay = std::weak_ptr(d->relay), made, finish] {
        if (const auto held = relay.lock())
            held->post([made, finish] { finish(*made); });
    });
    if (!HXStorageOperationQueue::sharedInstance()->addOperation(operation))
        QMetaObject::invokeMethod(
            this, [finish] { finish(nullptr); }, Qt::QueuedConnection);
}

void HXSheetListModel::trashSheetsAtRows(const QList<int> &rows) {
    QList<std::shared_ptr<HXSheetHandle>> handles;
    QList<int> sorted = rows;
    std::sort(sorted.begin(), sorted.end());
    for (const int row : std::as_const(sorted)) {
        const auto handle = sheetHandleForIndex(index(row));
        // What is in the trash already stays; deleting for good is another matter.
        if (handle && !handle->isDescendantOfTrash() && !handles.contains(handle))
            handles.append(handle);
    }
    if (handles.isEmpty())
        return;
    if (!HXStorageOperationQueue::sharedInstance()->addOperation(
            HXRemoveOperation::trashOperationForSheetHandles(handles)))
        HXApplicationLog::sharedInstance()->logError(u"Trashing refused: %@ sheets busy",
                                                     quint64(handles.size()));
}

int HXSheetListModel::rowCount(const QModelIndex &parent) const {
    return parent.isValid() ? 0 : int(d->rows.size());
}

QVariant HXSheetListModel::data(const QModelIndex &index, int role) const {
    if (!index.isValid() || index.row() >= d->rows.size())
        return {};
    const Row &row = d->rows.at(index.row());
    switch (role) {
    case Qt::DisplayRole:
    case TitleRole:
    case PreviewRole: {
        const QString prefix = row.handle->cachedContentPrefix();
        if (prefix.isNull())
            return QString();
        if (row.derivedFrom.isNull() || prefix != row.derivedFrom) {
            row.derivedFrom = prefix;
            const auto sheet = row.handle->sheet();
            row.titleAndPreview =
                HXSheetPreview::titleAndPreviewForText(prefix, sheet ? sheet->markup() : nullptr);
        }
        const auto &[title, preview] = row.titleAndPreview;
        if (role == PreviewRole)
            return preview;
        return title.isEmpty() ? text("EmptySheetTitle") : title;
    }
    case ClusterPositionRole:
        return int(row.position);
    default:
        return {};
    }
}

Qt::ItemFlags HXSheetListModel::flags(const QModelIndex &index) const {
    if (!index.isValid())
        return d->container ? Qt::ItemIsDropEnabled : Qt::NoItemFlags;
    return Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsDragEnabled;
}

Qt::DropActions HXSheetListModel::supportedDropActions() const {
    return Qt::MoveAction | Qt::CopyAction;
}

Qt::DropActions HXSheetListModel::supportedDragActions() const {
    return Qt::MoveAction | Qt::CopyAction;
}

QStringList HXSheetListModel::mimeTypes() const {
    return {HXLibraryModel::itemsMimeType};
}

QMimeData *HXSheetListModel::mimeData(const QModelIndexList &indexes) const {
    QList<int> rows;
    for (const QModelIndex &index : indexes) {
        if (index.isValid() && index.model() == this && !rows.contains(index.row()))
            rows.append(index.row());
    }
    std::sort(rows.begin(), rows.end());
    QList<std::shared_ptr<HXStorageItem>> items;
    for (const int row : std::as_const(rows))
        items.append(d->rows.at(row).handle);
    return items.isEmpty() ? nullptr : new HXItemsMimeData(items);
}

// Sheets only, into the container shown, before the row (at the end for -1). Sheets of the
// container itself are reordered, which the container must allow.
bool HXSheetListModel::Private::planDrop(const QMimeData *data, int row, Drop *drop) const {
    if (!container || !container->isAlive())
        return false;
    const auto storage = container->storage();
    const auto items = HXItemsMimeData::itemsFromMimeData(data, [storage](const QString &url) {
        return storage ? storage->itemAtURL(url) : nullptr;
    });
    QList<std::shared_ptr<HXContainer>> containers;
    HXItemsMimeData::splitItems(items, &drop->handles, &containers);
    if (drop->handles.isEmpty() || !containers.isEmpty())
        return false;
    const bool trash = container->isTrash();
    for (const auto &handle : std::as_const(drop->handles)) {
        const quint64 mask = container->operationForInsertingSheetHandle(handle);
        if (handle->parent() == container) {
            if (row < 0 || !(mask & HXContainer::OperationHonoursIndex))
                return false;
        } else if (trash && (handle->storage() != storage || handle->isDescendantOfTrash())) {
            return false;
        }
        if (!(mask & 3))
            return false;
        if (row >= 0 && (mask & HXContainer::OperationHonoursIndex))
            drop->index = quint64(row);
    }
    return true;
}

bool HXSheetListModel::canDropMimeData(const QMimeData *data, Qt::DropAction action, int row, int,
                                       const QModelIndex &parent) const {
    Private::Drop drop;
    if (parent.isValid() || (action != Qt::MoveAction && action != Qt::CopyAction))
        return false;
    return d->planDrop(data, row, &drop) && !(action == Qt::CopyAction && d->container->isTrash());
}

bool HXSheetListModel::dropMimeData(const QMimeData *data, Qt::DropAction action, int row,
                                    int column, const QModelIndex &parent) {
    if (!canDropMimeData(data, action, row, column, parent))
        return false;
    Private::Drop drop;
    d->planDrop(data, row, &drop);
    std::shared_ptr<HXStorageOperation> operation;
    if (d->container->isTrash())
        operation = HXRemoveOperation::trashOperationForSheetHandles(drop.handles);
    else if (action == Qt::CopyAction)
        operation =
            HXMoveOperation::copyOperationForSheetHandles(drop.handles, d->container, drop.index);
    else
        operation =
            HXMoveOperation::moveOperationForSheetHandles(drop.handles, d->container, drop.index);
    return HXStorageOperationQueue::sharedInstance()->addOperation(operation);
}
