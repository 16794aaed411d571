#include "App/Library/HXLibrarySidebar.h"

#include "App/Library/HXLibraryItemDelegate.h"
#include "App/Library/HXLibraryModel.h"
#include "Model/StorageTree/HXContainer.h"
#include "Utilities/HXLocalizedString.h"

#include <QContextMenuEvent>
#include <QMenu>

namespace {

QString text(const char *key) {
    return HXLocalizedString(QString::fromLatin1(key), QStringLiteral("HXAppLibrary"));
}

} // namespace

HXLibrarySidebar::HXLibrarySidebar(QWidget *parent)
    : QTreeView(parent) {
    setHeaderHidden(true);
    setItemDelegate(new HXLibraryItemDelegate(this));
    setSelectionMode(QAbstractItemView::SingleSelection);
    setEditTriggers(QAbstractItemView::DoubleClicked | QAbstractItemView::EditKeyPressed);
    setExpandsOnDoubleClick(false);
    setDragEnabled(true);
    setAcceptDrops(true);
    setDropIndicatorShown(true);
    setDragDropMode(QAbstractItemView::DragDrop);
    setDefaultDropAction(Qt::MoveAction);
    setUniformRowHeights(true);
    setAnimated(false);
}

void HXLibrarySidebar::setModel(QAbstractItemModel *model) {
    if (QAbstractItemModel *old = this->model())
        disconnect(old, &QAbstractItemModel::modelReset, this, nullptr);
    QTreeView::setModel(model);
    if (model)
        connect(model, &QAbstractItemModel::modelReset, this, &HXLibrarySidebar::expandLibraries);
    expandLibraries();
}

HXLibraryModel *HXLibrarySidebar::libraryModel() const {
    return qobject_cast<HXLibraryModel *>(model());
}

std::shared_ptr<HXContainer> HXLibrarySidebar::currentContainer() const {
    const HXLibraryModel *model = libraryModel();
    return model ? model->containerForIndex(currentIndex()) : nullptr;
}

void HXLibrarySidebar::selectContainer(const std::shared_ptr<HXContainer> &container) {
    if (const HXLibraryModel *model = libraryModel()) {
        if (const QModelIndex index = model->indexForContainer(container); index.isValid()) {
            scrollTo(index);
            setCurrentIndex(index);
        }
    }
}

void HXLibrarySidebar::expandLibraries() {
    if (QAbstractItemModel *model = this->model()) {
        for (int row = 0; row < model->rowCount(); ++row)
            expand(model->index(row, 0));
    }
}

void HXLibrarySidebar::rowsInserted(const QModelIndex &parent, int start, int end) {
    QTreeView::rowsInserted(parent, start, end);
    if (!parent.isValid()) {
        for (int row = start; row <= end; ++row)
            expand(model()->index(row, 0));
    }
}

void HXLibrarySidebar::currentChanged(const QModelIndex &current, const QModelIndex &previous) {
    QTreeView::currentChanged(current, previous);
    emit containerSelected(currentContainer());
}

void HXLibrarySidebar::newGroup() {
    newContainer(HXContainerKind::Group);
}

void HXLibrarySidebar::newFilter() {
    newContainer(HXContainerKind::Filter);
}

void HXLibrarySidebar::newContainer(HXContainerKind kind) {
    HXLibraryModel *model = libraryModel();
    if (!model)
        return;
    auto current = currentContainer();
    if (!current && model->rowCount() > 0)
        current = model->containerForIndex(model->index(0, 0));
    const QModelIndex index =
        model->newContainer(kind, model->containerForNewContainerOfKind(kind, current));
    if (!index.isValid())
        return;
    expand(index.parent());
    setCurrentIndex(index);
    scrollTo(index);
    edit(index);
}

void HXLibrarySidebar::renameCurrentContainer() {
    if (currentIndex().flags() & Qt::ItemIsEditable)
        edit(currentIndex());
}

void HXLibrarySidebar::trashCurrentContainer() {
    if (HXLibraryModel *model = libraryModel();
        model && (currentIndex().flags() & Qt::ItemIsDragEnabled))
        model->trashContainers({currentContainer()});
}

void HXLibrarySidebar::contextMenuEvent(QContextMenuEvent *event) {
    const QModelIndex index = indexAt(event->pos());
    if (index.isValid())
        setCurrentIndex(index);
    const auto container = currentContainer();
    QMenu menu(this);
    menu.addAction(text("NewGroup"), this, &HXLibrarySidebar::newGroup);
    menu.addAction(text("NewFilter"), this, &HXLibrarySidebar::newFilter);
    if (index.isValid()) {
        menu.addSeparator();
        menu.addAction(text("Rename"), this, &HXLibrarySidebar::renameCurrentContainer)
            ->setEnabled(index.flags() & Qt::ItemIsEditable);
        menu.addAction(text("MoveToTrash"), this, &HXLibrarySidebar::trashCurrentContainer)
            ->setEnabled((index.flags() & Qt::ItemIsDragEnabled) && container &&
                         !container->isDescendantOfTrash());
    }
    menu.exec(event->globalPos());
}
