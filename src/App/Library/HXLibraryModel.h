#pragma once

#include <QAbstractItemModel>

#include <memory>

enum class HXContainerKind;
class HXContainer;
class HXStorage;
class HXStorageController;

// The library sidebar's model: the synced and the local library, each with its groups, filters
// and trash below it, as the storage tree has them. It follows the tree live (containers appearing,
// moving, renamed, goals changed), also when another process or a sync client changes the folders.
// Renaming writes the container's name; drops move or reorder containers through storage
// operations, and sheets dropped on a container move there.
//
// Owned by the window; main thread. Rows are the children of the tree as `containers()` orders
// them; the top rows are the libraries (the storages).
class HXLibraryModel : public QAbstractItemModel {
    Q_OBJECT

public:
    enum Role {
        // The goal's progress from 0 to 1, or an invalid variant when the container has no goal.
        GoalProgressRole = Qt::UserRole + 1,
        // HXGoalProgressStatus as an integer, when there is a goal.
        GoalStatusRole,
        // Whether the row is a library (a storage) rather than a container.
        IsLibraryRole,
    };

    explicit HXLibraryModel(std::shared_ptr<HXStorageController> controller,
                            QObject *parent = nullptr);
    ~HXLibraryModel() override;

    // The container a row stands for; a library row stands for its storage's root container.
    std::shared_ptr<HXContainer> containerForIndex(const QModelIndex &index) const;
    QModelIndex indexForContainer(const std::shared_ptr<HXContainer> &container) const;
    // The storage of the row's container (the library itself for a library row).
    std::shared_ptr<HXStorage> storageForIndex(const QModelIndex &index) const;

    // New containers, with the localised default name, at the end of the parent; the index of the
    // new row (invalid when the parent refuses). The row is there when this returns.
    QModelIndex newGroupInContainer(const std::shared_ptr<HXContainer> &parent);
    QModelIndex newFilterInContainer(const std::shared_ptr<HXContainer> &parent);
    QModelIndex newContainer(HXContainerKind kind, const std::shared_ptr<HXContainer> &parent);
    // Where a new container of the kind goes when `current` is chosen: a library's main group for
    // the library, else the nearest container from `current` upwards that takes one; null for
    // none.
    std::shared_ptr<HXContainer>
    containerForNewContainerOfKind(HXContainerKind kind,
                                   const std::shared_ptr<HXContainer> &current) const;

    // Moves the containers to the trash of their storage, through the operation queue; false when
    // none could go (intrinsic, in the trash already, or refused as busy).
    bool trashContainers(const QList<std::shared_ptr<HXContainer>> &containers);

    // The clipboard and drag type of storage items.
    static inline const QString itemsMimeType = QStringLiteral("application/x-velmora-items");

    QModelIndex index(int row, int column, const QModelIndex &parent = {}) const override;
    QModelIndex parent(const QModelIndex &child) const override;
    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    bool setData(const QModelIndex &index, const QVariant &value, int role) override;
    Qt::ItemFlags flags(const QModelIndex &index) const override;
    Qt::DropActions supportedDropActions() const override;
    Qt::DropActions supportedDragActions() const override;
    QStringList mimeTypes() const override;
    QMimeData *mimeData(const QModelIndexList &indexes) const override;
    bool canDropMimeData(const QMimeData *data, Qt::DropAction action, int row, int column,
                         const QModelIndex &parent) const override;
    bool dropMimeData(const QMimeData *data, Qt::DropAction action, int row, int column,
                      const QModelIndex &parent) override;

private:
    struct Private;
    std::unique_ptr<Private> d;
};
