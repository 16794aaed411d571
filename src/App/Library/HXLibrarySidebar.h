#pragma once

#include <QTreeView>

#include <memory>

enum class HXContainerKind;
class HXContainer;
class HXLibraryModel;

// The sidebar of the window: the libraries as top rows, always expanded, with their groups,
// filters and trash below. Containers are renamed in place (double-click, the edit key), made
// from the context menu or the window's menu, and dragged to move or reorder them; sheets
// dragged from the sheet list are dropped on a container to move them there.
//
// Owned by the window; main thread. Shows an HXLibraryModel (set with `setModel`).
class HXLibrarySidebar : public QTreeView {
    Q_OBJECT

public:
    explicit HXLibrarySidebar(QWidget *parent = nullptr);

    void setModel(QAbstractItemModel *model) override;
    HXLibraryModel *libraryModel() const;
    // The container of the current row; null without one.
    std::shared_ptr<HXContainer> currentContainer() const;
    // Makes the container's row current (nothing when it has none).
    void selectContainer(const std::shared_ptr<HXContainer> &container);

public slots:
    // A new group or filter where the current container says (see
    // HXLibraryModel::containerForNewContainerOfKind), made current and opened for its name.
    void newGroup();
    void newFilter();
    void renameCurrentContainer();
    void trashCurrentContainer();

signals:
    // The current row changed; null when there is none.
    void containerSelected(std::shared_ptr<HXContainer> container);

protected:
    void currentChanged(const QModelIndex &current, const QModelIndex &previous) override;
    void rowsInserted(const QModelIndex &parent, int start, int end) override;
    void contextMenuEvent(QContextMenuEvent *event) override;

private:
    void newContainer(HXContainerKind kind);
    void expandLibraries();
};
