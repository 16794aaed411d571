#include "App/Library/HXLibraryModel.h"

#include "App/Library/HXContainerChangeRelay.h"
#include "App/Library/HXItemsMimeData.h"
#include "Model/Attachments/HXCountingGoal.h"
#include "Model/Operations/HXMoveOperation.h"
#include "Model/Operations/HXRemoveOperation.h"
#include "Model/Operations/HXStorageOperationQueue.h"
#include "Model/Persistence/HXStorage.h"
#include "Model/Persistence/HXStorageController.h"
#include "Model/StorageTree/HXContainer.h"
#include "Model/StorageTree/HXGroup.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Search/Aggregation/HXGoalController.h"
#include "Utilities/HXApplicationLog.h"
#include "Utilities/HXLocalizedString.h"

#include <QFont>
#include <QHash>
#include <QPointer>

#include <vector>

namespace {

const QList<HXContainerKey> observedKeys{HXContainerKey::Containers, HXContainerKey::DisplayName,
                                         HXContainerKey::CountingGoal};

QString text(const char *key) {
    return HXLocalizedString(QString::fromLatin1(key), QStringLiteral("HXAppLibrary"));
}

// One row of the tree, or the invisible root above the libraries.
struct Node {
    // Library rows: the storage, whose root container is `container`.
    std::shared_ptr<HXStorage> storage;
    std::shared_ptr<HXContainer> container;
    Node *parent = nullptr;
    std::vector<std::unique_ptr<Node>> children;
    std::shared_ptr<HXGoalController> goal;
    QMetaObject::Connection goalConnection;
};

// A child a row should have: a library (storage and root container) or a container.
struct Entry {
    std::shared_ptr<HXStorage> storage;
    std::shared_ptr<HXContainer> container;
};

bool isAncestor(const Node *ancestor, const Node *node) {
    for (const Node *at = node; at; at = at->parent) {
        if (at == ancestor)
            return true;
    }
    return false;
}

} // namespace

struct HXLibraryModel::Private {
    Private(HXLibraryModel *model, std::shared_ptr<HXStorageController> storageController)
        : q(model)
        , controller(std::move(storageController)) {}

    HXLibraryModel *q;
    std::shared_ptr<HXStorageController> controller;
    int controllerToken = 0;
    std::shared_ptr<HXContainerChangeRelay> relay;
    Node root;
    QHash<const HXContainer *, Node *> nodes;

    Node *nodeOf(const QModelIndex &index) const {
        return index.isValid() ? static_cast<Node *>(index.internalPointer())
                               : const_cast<Node *>(&root);
    }
    int rowOf(const Node *node) const {
        const auto &siblings = node->parent->children;
        for (size_t row = 0; row < siblings.size(); ++row) {
            if (siblings[row].get() == node)
                return int(row);
        }
        return -1;
    }
    QModelIndex indexOf(const Node *node) const {
        if (node == &root)
            return {};
        return q->createIndex(rowOf(node), 0, const_cast<Node *>(node));
    }

    QList<Entry> wantedChildren(const Node *node) const;
    std::unique_ptr<Node> makeNode(const Entry &entry, Node *parent, QList<Node *> *resync);
    void releaseNode(Node *node);
    void syncChildren(Node *node);
    void rebuild();
    void containerDidChange(const std::shared_ptr<HXContainer> &container, HXContainerKey key);
    void updateGoal(Node *node);

    struct Drop {
        std::shared_ptr<HXContainer> target;
        quint64 index = HXNotFound;
        QList<std::shared_ptr<HXSheetHandle>> handles;
        QList<std::shared_ptr<HXContainer>> containers;
    };
    bool planDrop(const QMimeData *data, int row, const QModelIndex &parent, Drop *drop) const;
};

QList<Entry> HXLibraryModel::Private::wantedChildren(const Node *node) const {
    QList<Entry> wanted;
    if (node == &root) {
        for (const auto &storage : controller->allStorages()) {
            if (!storage->isInvalid() && storage->rootGroup())
                wanted.append(Entry{storage, storage->rootGroup()});
        }
    } else {
        for (const auto &container : node->container->containers())
            wanted.append(Entry{nullptr, container});
    }
    return wanted;
}

// Builds the row and, below it, the rows of the containers inside. A container that has a row
// elsewhere still (the tree heard of its move only in part) is left for a second pass, `resync`.
std::unique_ptr<Node> HXLibraryModel::Private::makeNode(const Entry &entry, Node *parent,
                                                        QList<Node *> *resync) {
    auto node = std::make_unique<Node>();
    node->storage = entry.storage;
    node->container = entry.container;
    node->parent = parent;
    nodes.insert(entry.container.get(), node.get());
    // Observed before the children are read, so that no change falls between.
    relay->observe(entry.container, observedKeys);
    for (const auto &child : wantedChildren(node.get())) {
        if (nodes.contains(child.container.get())) {
            resync->append(node.get());
            continue;
        }
        node->children.push_back(makeNode(child, node.get(), resync));
    }
    updateGoal(node.get());
    return node;
}

void HXLibraryModel::Private::releaseNode(Node *node) {
    for (const auto &child : node->children)
        releaseNode(child.get());
    relay->unobserve(node->container.get(), observedKeys);
    nodes.remove(node->container.get());
    QObject::disconnect(node->goalConnection);
    node->goal.reset();
}

// Brings the row's children in line with the tree by the fewest removals, moves and inserts.
void HXLibraryModel::Private::syncChildren(Node *node) {
    const QList<Entry> wanted = wantedChildren(node);
    QSet<const HXContainer *> wantedSet;
    for (const Entry &entry : wanted)
        wantedSet.insert(entry.container.get());
    const QModelIndex parentIndex = indexOf(node);
    for (int row = int(node->children.size()) - 1; row >= 0; --row) {
        if (wantedSet.contains(node->children[size_t(row)]->container.get()))
            continue;
        q->beginRemoveRows(parentIndex, row, row);
        releaseNode(node->children[size_t(row)].get());
        node->children.erase(node->children.begin() + row);
        q->endRemoveRows();
    }
    QList<Node *> resync;
    for (int row = 0; row < wanted.size(); ++row) {
        const Entry &entry = wanted.at(row);
        auto &children = node->children;
        if (size_t(row) < children.size() && children[size_t(row)]->container == entry.container)
            continue;
        Node *existing = nodes.value(entry.container.get());
        if (existing && isAncestor(existing, node)) {
            // The tree turned over (a container moved below what held it) faster than we heard:
            // nothing of the old rows can stay.
            rebuild();
            return;
        }
        if (existing) {
            Node *from = existing->parent;
            const int fromRow = rowOf(existing);
            q->beginMoveRows(indexOf(from), fromRow, fromRow, parentIndex, row);
            std::unique_ptr<Node> moved = std::move(from->children[size_t(fromRow)]);
            from->children.erase(from->children.begin() + fromRow);
            moved->parent = node;
            children.insert(children.begin() + row, std::move(moved));
            q->endMoveRows();
        } else {
            q->beginInsertRows(parentIndex, row, row);
            children.insert(children.begin() + row, makeNode(entry, node, &resync));
            q->endInsertRows();
        }
    }
    for (Node *late : std::as_const(resync)) {
        if (isAncestor(&root, late) && nodes.value(late->container.get()) == late)
            syncChildren(late);
    }
}

void HXLibraryModel::Private::rebuild() {
    q->beginResetModel();
    for (const auto &child : root.children)
        releaseNode(child.get());
    root.children.clear();
    QList<Node *> resync;
    for (const Entry &entry : wantedChildren(&root))
        root.children.push_back(makeNode(entry, &root, &resync));
    q->endResetModel();
    // A container read twice, above and below, shows where it is now.
    for (Node *late : std::as_const(resync))
        syncChildren(late);
}

void HXLibraryModel::Private::containerDidChange(const std::shared_ptr<HXContainer> &container,
                                                 HXContainerKey key) {
    Node *node = nodes.value(container.get());
    if (!node || node->container != container)
        return;
    switch (key) {
    case HXContainerKey::Containers:
        syncChildren(node);
        break;
    case HXContainerKey::CountingGoal:
        updateGoal(node);
        [[fallthrough]];
    default: {
        const QModelIndex index = indexOf(node);
        emit q->dataChanged(index, index);
        break;
    }
    }
}

// Rows with a goal hold its shared controller, which counts in the background and tells when a
// new measurement is there.
void HXLibraryModel::Private::updateGoal(Node *node) {
    auto goal = node->container->countingGoal();
    if (node->goal && node->goal->countingGoal() == goal)
        return;
    QObject::disconnect(node->goalConnection);
    node->goal.reset();
    if (!goal)
        return;
    node->goal = HXGoalController::controllerWithStorageItem(node->container, goal);
    node->goalConnection = QObject::connect(
        node->goal.get(), &HXGoalController::didUpdate, q,
        [this, container = std::weak_ptr<HXContainer>(node->container)] {
            const auto held = container.lock();
            if (Node *found = held ? nodes.value(held.get()) : nullptr) {
                const QModelIndex index = indexOf(found);
                emit q->dataChanged(index, index, {GoalProgressRole, GoalStatusRole});
            }
        });
}

HXLibraryModel::HXLibraryModel(std::shared_ptr<HXStorageController> controller, QObject *parent)
    : QAbstractItemModel(parent)
    , d(new Private(this, std::move(controller))) {
    d->relay = HXContainerChangeRelay::create(
        this, [this](const std::shared_ptr<HXContainer> &container, HXContainerKey key) {
            d->containerDidChange(container, key);
        });
    QPointer<HXLibraryModel> self(this);
    d->controllerToken = d->controller->addObserver([self](HXStorageControllerKey) {
        // Libraries come and go on the main thread; the rows follow once the change is over.
        QMetaObject::invokeMethod(
            self,
            [self] {
                if (self)
                    self->d->syncChildren(&self->d->root);
            },
            Qt::QueuedConnection);
    });
    QList<Node *> resync;
    for (const Entry &entry : d->wantedChildren(&d->root))
        d->root.children.push_back(d->makeNode(entry, &d->root, &resync));
}

HXLibraryModel::~HXLibraryModel() {
    d->relay->detach();
    d->controller->removeObserver(d->controllerToken);
    for (const auto &child : d->root.children)
        d->releaseNode(child.get());
}

std::shared_ptr<HXContainer> HXLibraryModel::containerForIndex(const QModelIndex &index) const {
    if (!index.isValid() || index.model() != this)
        return nullptr;
    return d->nodeOf(index)->container;
}

QModelIndex HXLibraryModel::indexForContainer(const std::shared_ptr<HXContainer> &container) const {
    const Node *node = container ? d->nodes.value(container.get()) : nullptr;
    return node ? d->indexOf(node) : QModelIndex();
}

std::shared_ptr<HXStorage> HXLibraryModel::storageForIndex(const QModelIndex &index) const {
    const auto container = containerForIndex(index);
    return container ? container->storage() : nullptr;
}

QModelIndex HXLibraryModel::newGroupInContainer(const std::shared_ptr<HXContainer> &parent) {
    return newContainer(HXContainerKind::Group, parent);
}

QModelIndex HXLibraryModel::newFilterInContainer(const std::shared_ptr<HXContainer> &parent) {
    return newContainer(HXContainerKind::Filter, parent);
}

QModelIndex HXLibraryModel::newContainer(HXContainerKind kind,
                                         const std::shared_ptr<HXContainer> &parent) {
    if (!parent || !(parent->operationForCreatingContainerOfKind(kind) & 3))
        return {};
    const auto storage = parent->storage();
    if (!storage)
        return {};
    HXError error;
    const auto made = storage->createContainerOfKind(
        kind, parent, text(kind == HXContainerKind::Filter ? "NewFilterName" : "NewGroupName"),
        HXNotFound, &error);
    if (!made) {
        HXApplicationLog::sharedInstance()->logError(u"Error making a container in %@: %@",
                                                     parent->URL(), error.localizedDescription());
        return {};
    }
    // The row is wanted now, not when the change has travelled.
    if (Node *node = d->nodes.value(parent.get()))
        d->syncChildren(node);
    return indexForContainer(made);
}

std::shared_ptr<HXContainer>
HXLibraryModel::containerForNewContainerOfKind(HXContainerKind kind,
                                               const std::shared_ptr<HXContainer> &current) const {
    // A library stands for its main group; elsewhere the nearest container that takes one.
    std::shared_ptr<HXContainer> at = current;
    if (at && at->storage() &&
        at == std::static_pointer_cast<HXContainer>(at->storage()->rootGroup()))
        at = at->storage()->defaultContainerForItemOfKind(
            kind == HXContainerKind::Filter ? HXStorageItemKind::Filter : HXStorageItemKind::Group);
    for (; at; at = at->parent()) {
        if (at->operationForCreatingContainerOfKind(kind) & 3)
            return at;
    }
    return nullptr;
}

bool HXLibraryModel::trashContainers(const QList<std::shared_ptr<HXContainer>> &containers) {
    QList<std::shared_ptr<HXContainer>> trashed;
    for (const auto &container : containers) {
        if (container && !container->isIntrinsic() && container->parent() &&
            !container->isDescendantOfTrash() && container->storage() &&
            container->storage()->trash())
            trashed.append(container);
    }
    return !trashed.isEmpty() && HXStorageOperationQueue::sharedInstance()->addOperation(
                                     HXRemoveOperation::trashOperationForContainers(trashed));
}

QModelIndex HXLibraryModel::index(int row, int column, const QModelIndex &parent) const {
    const Node *node = d->nodeOf(parent);
    if (column != 0 || row < 0 || size_t(row) >= node->children.size())
        return {};
    return createIndex(row, 0, node->children[size_t(row)].get());
}

QModelIndex HXLibraryModel::parent(const QModelIndex &child) const {
    if (!child.isValid())
        return {};
    return d->indexOf(d->nodeOf(child)->parent);
}

int HXLibraryModel::rowCount(const QModelIndex &parent) const {
    if (parent.column() > 0)
        return 0;
    return int(d->nodeOf(parent)->children.size());
}

int HXLibraryModel::columnCount(const QModelIndex &) const {
    return 1;
}

QVariant HXLibraryModel::data(const QModelIndex &index, int role) const {
    if (!index.isValid())
        return {};
    const Node *node = d->nodeOf(index);
    const bool library = node->storage != nullptr;
    const auto goal = node->goal && !node->goal->countingGoal()->isEmpty() ? node->goal : nullptr;
    switch (role) {
    case Qt::DisplayRole:
    case Qt::EditRole:
        return library ? node->storage->displayName() : node->container->displayName();
    case Qt::ToolTipRole:
        return goal ? QStringLiteral("%1 — %2").arg(data(index, Qt::DisplayRole).toString(),
                                                    goal->displayString())
                    : QVariant();
    case Qt::FontRole:
        if (library) {
            QFont font;
            font.setBold(true);
            return font;
        }
        return {};
    case IsLibraryRole:
        return library;
    case GoalProgressRole:
        return goal ? QVariant(std::clamp(goal->progress(), 0.0, 1.0)) : QVariant();
    case GoalStatusRole:
        return goal ? QVariant(int(goal->progressStatus())) : QVariant();
    default:
        return {};
    }
}

bool HXLibraryModel::setData(const QModelIndex &index, const QVariant &value, int role) {
    if (role != Qt::EditRole || !(flags(index) & Qt::ItemIsEditable))
        return false;
    const QString name = value.toString().simplified();
    const auto container = containerForIndex(index);
    if (name.isEmpty())
        return false;
    if (name != container->displayName()) {
        container->setDisplayName(name);
        emit dataChanged(index, index, {Qt::DisplayRole, Qt::EditRole});
    }
    return true;
}

Qt::ItemFlags HXLibraryModel::flags(const QModelIndex &index) const {
    if (!index.isValid())
        return Qt::NoItemFlags;
    const Node *node = d->nodeOf(index);
    Qt::ItemFlags flags = Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsDropEnabled;
    if (node->storage)
        return flags;
    if (node->container->allowsSettingDisplayName())
        flags |= Qt::ItemIsEditable;
    if (!node->container->isIntrinsic() && node->container->parent())
        flags |= Qt::ItemIsDragEnabled;
    return flags;
}

Qt::DropActions HXLibraryModel::supportedDropActions() const {
    return Qt::MoveAction | Qt::CopyAction;
}

Qt::DropActions HXLibraryModel::supportedDragActions() const {
    return Qt::MoveAction | Qt::CopyAction;
}

QStringList HXLibraryModel::mimeTypes() const {
    return {itemsMimeType};
}

QMimeData *HXLibraryModel::mimeData(const QModelIndexList &indexes) const {
    QList<std::shared_ptr<HXStorageItem>> items;
    for (const QModelIndex &index : indexes) {
        if (!(flags(index) & Qt::ItemIsDragEnabled))
            continue;
        if (const auto container = containerForIndex(index); !items.contains(container))
            items.append(container);
    }
    return items.isEmpty() ? nullptr : new HXItemsMimeData(items);
}

// Where a drop goes. On a row: into its container, at the end (on a library: where new items of
// the kind go). Between rows: containers only, into the parent row at that place.
bool HXLibraryModel::Private::planDrop(const QMimeData *data, int row, const QModelIndex &parent,
                                       Drop *drop) const {
    const Node *node = nodeOf(parent);
    if (node == &root)
        return false;
    const auto items = HXItemsMimeData::itemsFromMimeData(
        data, [this](const QString &url) { return controller->storageItemForOpeningURL(url); });
    HXItemsMimeData::splitItems(items, &drop->handles, &drop->containers);
    if (drop->handles.isEmpty() && drop->containers.isEmpty())
        return false;
    drop->target = node->container;
    if (row < 0 && node->storage) {
        if (!drop->handles.isEmpty() && !drop->containers.isEmpty())
            return false;
        drop->target = node->storage->defaultContainerForItemOfKind(
            drop->handles.isEmpty() ? HXStorageItemKind::Group : HXStorageItemKind::Sheet);
    }
    const auto &target = drop->target;
    if (!target || (row >= 0 && !drop->handles.isEmpty()))
        return false;
    const bool trash = target->isTrash();
    for (const auto &container : std::as_const(drop->containers)) {
        if (container->isIntrinsic() || !container->parent() || container == target ||
            target->isDescendantOfContainer(container.get()))
            return false;
        if (row < 0 && container->parent() == target)
            return false;
        if (trash &&
            (container->storage() != target->storage() || container->isDescendantOfTrash()))
            return false;
        const quint64 mask = target->operationForInsertingContainer(container);
        if (!(mask & 3))
            return false;
        if (row >= 0 && (mask & HXContainer::OperationHonoursIndex))
            drop->index = quint64(row);
    }
    for (const auto &handle : std::as_const(drop->handles)) {
        if (handle->parent() == target)
            return false;
        if (trash && (handle->storage() != target->storage() || handle->isDescendantOfTrash()))
            return false;
        if (!(target->operationForInsertingSheetHandle(handle) & 3))
            return false;
    }
    return true;
}

bool HXLibraryModel::canDropMimeData(const QMimeData *data, Qt::DropAction action, int row, int,
                                     const QModelIndex &parent) const {
    if (action != Qt::MoveAction && action != Qt::CopyAction)
        return false;
    Private::Drop drop;
    return d->planDrop(data, row, parent, &drop) &&
           !(action == Qt::CopyAction && drop.target->isTrash());
}

bool HXLibraryModel::dropMimeData(const QMimeData *data, Qt::DropAction action, int row, int,
                                  const QModelIndex &parent) {
    Private::Drop drop;
    if ((action != Qt::MoveAction && action != Qt::CopyAction) ||
        !d->planDrop(data, row, parent, &drop))
        return false;
    const bool copy = action == Qt::CopyAction;
    if (copy && drop.target->isTrash())
        return false;
    QList<std::shared_ptr<HXStorageOperation>> operations;
    if (!drop.containers.isEmpty()) {
        if (drop.target->isTrash())
            operations.append(HXRemoveOperation::trashOperationForContainers(drop.containers));
        else
            operations.append(copy ? HXMoveOperation::copyOperationForContainers(
                                         drop.containers, drop.target, drop.index)
                                   : HXMoveOperation::moveOperationForContainers(
                                         drop.containers, drop.target, drop.index));
    }
    if (!drop.handles.isEmpty()) {
        if (drop.target->isTrash())
            operations.append(HXRemoveOperation::trashOperationForSheetHandles(drop.handles));
        else
            operations.append(copy ? HXMoveOperation::copyOperationForSheetHandles(
                                         drop.handles, drop.target, drop.index)
                                   : HXMoveOperation::moveOperationForSheetHandles(
                                         drop.handles, drop.target, drop.index));
    }
    bool queued = false;
    for (const auto &operation : std::as_const(operations))
        queued = HXStorageOperationQueue::sharedInstance()->addOperation(operation) || queued;
    return queued;
}
