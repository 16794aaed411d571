#include "App/Library/HXSheetListView.h"

#include "App/Library/HXSheetItemDelegate.h"
#include "App/Library/HXSheetListModel.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Utilities/HXLocalizedString.h"

#include <QContextMenuEvent>
#include <QMenu>
#include <QPointer>

#include <algorithm>

namespace {

QString text(const char *key) {
    return HXLocalizedString(QString::fromLatin1(key), QStringLiteral("HXAppLibrary"));
}

} // namespace

HXSheetListView::HXSheetListView(QWidget *parent)
    : QListView(parent) {
    setItemDelegate(new HXSheetItemDelegate(this));
    setSelectionMode(QAbstractItemView::ExtendedSelection);
    setEditTriggers(QAbstractItemView::NoEditTriggers);
    setUniformItemSizes(true);
    setDragEnabled(true);
    setAcceptDrops(true);
    setDropIndicatorShown(true);
    setDragDropMode(QAbstractItemView::DragDrop);
    setDefaultDropAction(Qt::MoveAction);
    setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
}

void HXSheetListView::setModel(QAbstractItemModel *model) {
    if (QAbstractItemModel *old = this->model())
        disconnect(old, nullptr, this, nullptr);
    QListView::setModel(model);
    if (model) {
        // A reset or a removal may take the selection away without telling.
        connect(model, &QAbstractItemModel::modelReset, this, &HXSheetListView::announceSelection);
        connect(model, &QAbstractItemModel::rowsRemoved, this, &HXSheetListView::announceSelection);
    }
    announceSelection();
}

HXSheetListModel *HXSheetListView::sheetListModel() const {
    return qobject_cast<HXSheetListModel *>(model());
}

QList<std::shared_ptr<HXSheetHandle>> HXSheetListView::selectedSheetHandles() const {
    QList<std::shared_ptr<HXSheetHandle>> handles;
    const HXSheetListModel *model = sheetListModel();
    if (!model || !selectionModel())
        return handles;
    QModelIndexList rows = selectionModel()->selectedRows();
    std::sort(rows.begin(), rows.end(),
              [](const QModelIndex &a, const QModelIndex &b) { return a.row() < b.row(); });
    for (const QModelIndex &index : std::as_const(rows)) {
        if (auto handle = model->sheetHandleForIndex(index))
            handles.append(handle);
    }
    return handles;
}

void HXSheetListView::announceSelection() {
    const auto handles = selectedSheetHandles();
    const auto handle = handles.size() == 1 ? handles.first() : nullptr;
    if (handle ? (!m_announcedNone && m_announced.lock() == handle) : m_announcedNone)
        return;
    m_announced = handle;
    m_announcedNone = !handle;
    emit sheetSelected(handle);
}

void HXSheetListView::selectionChanged(const QItemSelection &selected,
                                       const QItemSelection &deselected) {
    QListView::selectionChanged(selected, deselected);
    announceSelection();
}

void HXSheetListView::newSheet() {
    HXSheetListModel *model = sheetListModel();
    if (!model)
        return;
    QPointer<HXSheetListView> self(this);
    model->newSheetAtRow(-1, [self](const std::shared_ptr<HXSheetHandle> &handle) {
        if (!self || !handle || !self->sheetListModel())
            return;
        const QModelIndex index = self->sheetListModel()->indexForSheetHandle(handle);
        if (!index.isValid())
            return;
        self->selectionModel()->setCurrentIndex(index, QItemSelectionModel::ClearAndSelect);
        self->scrollTo(index);
    });
}

void HXSheetListView::trashSelectedSheets() {
    HXSheetListModel *model = sheetListModel();
    if (!model || !selectionModel())
        return;
    QList<int> rows;
    for (const QModelIndex &index : selectionModel()->selectedRows())
        rows.append(index.row());
    if (!rows.isEmpty())
        model->trashSheetsAtRows(rows);
}

void HXSheetListView::keyPressEvent(QKeyEvent *event) {
    if (event->key() == Qt::Key_Delete && event->modifiers() == Qt::NoModifier) {
        trashSelectedSheets();
        event->accept();
        return;
    }
    QListView::keyPressEvent(event);
}

// Drops go to the model as they are: the list view's own way of moving rows inside would
// reorder rows without the storage knowing.
void HXSheetListView::dropEvent(QDropEvent *event) {
    QAbstractItemView::dropEvent(event);
}

void HXSheetListView::contextMenuEvent(QContextMenuEvent *event) {
    const QModelIndex index = indexAt(event->pos());
    if (index.isValid() && !selectionModel()->isSelected(index))
        selectionModel()->setCurrentIndex(index, QItemSelectionModel::ClearAndSelect);
    QMenu menu(this);
    menu.addAction(text("NewSheet"), this, &HXSheetListView::newSheet);
    menu.addAction(text("MoveToTrash"), this, &HXSheetListView::trashSelectedSheets)
        ->setEnabled(!selectedSheetHandles().isEmpty());
    menu.exec(event->globalPos());
}
