#pragma once

#include <QListView>

#include <memory>

class HXSheetHandle;
class HXSheetListModel;

// The sheet list of the window: the sheets of the chosen container, each a bold title over a
// grey preview, clusters drawn joined. Several rows may be selected; they are dragged to reorder
// them here or to move them onto a container of the sidebar, and Delete moves them to the
// trash. The single selected sheet is announced so that the window opens it.
//
// Owned by the window; main thread. Shows an HXSheetListModel (set with `setModel`).
class HXSheetListView : public QListView {
    Q_OBJECT

public:
    explicit HXSheetListView(QWidget *parent = nullptr);

    void setModel(QAbstractItemModel *model) override;
    HXSheetListModel *sheetListModel() const;
    // The sheets of the selected rows, in the order of the rows.
    QList<std::shared_ptr<HXSheetHandle>> selectedSheetHandles() const;

public slots:
    // A new sheet at the end of the container, selected once it is there.
    void newSheet();
    void trashSelectedSheets();

signals:
    // The one selected sheet; null when none or several are selected.
    void sheetSelected(std::shared_ptr<HXSheetHandle> handle);

protected:
    void selectionChanged(const QItemSelection &selected,
                          const QItemSelection &deselected) override;
    void keyPressEvent(QKeyEvent *event) override;
    void dropEvent(QDropEvent *event) override;
    void contextMenuEvent(QContextMenuEvent *event) override;

private:
    void announceSelection();

    std::weak_ptr<HXSheetHandle> m_announced;
    bool m_announcedNone = true;
};
