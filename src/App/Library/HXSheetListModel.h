#pragma once

#include "App/Library/HXLibraryModel.h"

#include <QAbstractListModel>

#include <functional>
#include <memory>

class HXContainer;
class HXSheetHandle;

// The sheets of one container, in its order, for the sheet list: a title and a short preview per
// sheet, and where the sheet stands in its cluster so that clustered sheets are drawn joined.
// Follows the container live (sheets added, removed, moved, also by another process). Drops
// reorder and move sheets through storage operations; new sheets and trashing go the same way.
//
// Owned by the window; main thread.
class HXSheetListModel : public QAbstractListModel {
    Q_OBJECT

public:
    enum Role {
        TitleRole = Qt::UserRole + 1,
        PreviewRole,
        // Where the row stands in its cluster: ClusterPosition as an integer.
        ClusterPositionRole,
    };
    enum ClusterPosition { Single, First, Middle, Last };

    explicit HXSheetListModel(QObject *parent = nullptr);
    ~HXSheetListModel() override;

    std::shared_ptr<HXContainer> container() const;
    void setContainer(const std::shared_ptr<HXContainer> &container);

    std::shared_ptr<HXSheetHandle> sheetHandleForIndex(const QModelIndex &index) const;
    QModelIndex indexForSheetHandle(const std::shared_ptr<HXSheetHandle> &handle) const;

    // A new empty sheet at the row (the end when -1); the handle, once it is in the container,
    // reaches the completion on the main thread (null when the container refused).
    void newSheetAtRow(int row,
                       std::function<void(const std::shared_ptr<HXSheetHandle> &)> completion = {});
    // Moves the sheets of the rows to the trash of their storage.
    void trashSheetsAtRows(const QList<int> &rows);
    // The sheet's text changed (a save): its title and preview are read again.
    void reloadPreviewOfSheetHandle(const std::shared_ptr<HXSheetHandle> &handle);

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    Qt::ItemFlags flags(const QModelIndex &index) const override;
    Qt::DropActions supportedDropActions() const override;
    Qt::DropActions supportedDragActions() const override;
    QStringList mimeTypes() const override;
    QMimeData *mimeData(const QModelIndexList &indexes) const override;
    bool canDropMimeData(const QMimeData *data, Qt::DropAction action, int row, int column,
                         const QModelIndex &parent) const override;
    bool dropMimeData(const QMimeData *data, Qt::DropAction action, int row, int column,
                      const QModelIndex &parent) override;

signals:
    // The container's sheets were replaced by another set (after a change on disk, a move).
    void sheetsChanged();

private:
    struct Private;
    std::unique_ptr<Private> d;
};
