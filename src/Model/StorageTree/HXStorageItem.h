#pragma once

#include <QString>

#include <memory>
#include <mutex>

class HXContainer;
class HXStorage;

// A node of a storage's tree: a container or a sheet handle. A node knows its file name, its
// parent and its storage, and derives its path from its parent's; only a node that is alive,
// that is attached to a live tree, has a path. A node is made not alive, given its parent, made
// alive and entered in the parent's set; it leaves in the reverse order.
//
// The tree owns its nodes through the parents' sets; parent and storage are weak. Any thread:
// the name, parent, path and liveness are guarded by the node's own mutex, and the storage
// serialises structural changes.
class HXStorageItem : public std::enable_shared_from_this<HXStorageItem> {
public:
    HXStorageItem(const QString &filename, const std::shared_ptr<HXStorage> &storage);
    virtual ~HXStorageItem();
    HXStorageItem(const HXStorageItem &) = delete;
    HXStorageItem &operator=(const HXStorageItem &) = delete;

    bool isAlive() const;
    virtual void setAlive(bool alive);
    QString filename() const;
    void setFilename(const QString &filename);
    std::shared_ptr<HXContainer> parent() const;
    void setParent(const std::shared_ptr<HXContainer> &parent);
    std::shared_ptr<HXStorage> storage() const;
    // The path of the node; empty while it is not alive.
    QString URL() const;

    // Whether the container is this node or lies above it.
    bool isDescendantOfContainer(const HXContainer *container) const;
    virtual bool isContainer() const { return false; }
    // The nearest trash that holds this node, or null.
    std::shared_ptr<HXContainer> trashParent() const;
    bool isDescendantOfTrash() const;

    // The node that stands for the path: this one for its own path.
    virtual std::shared_ptr<HXStorageItem> storageItemForOpeningURL(const QString &url);

    // The file at the path, this node's or one below it, changed on disk.
    virtual void itemDidChangeAtURL(const QString &) {}

    // Moving operations that name this node register here, so that it counts as pending.
    void addPendingMove();
    void removePendingMove();
    virtual bool isPendingForMove() const;

    // Called at the end of each setter of the name, liveness and parent, and for every node
    // below one whose path changed; recomputes the path.
    virtual void parentsDidChange();

protected:
    void updateURL();

private:
    mutable std::mutex m_itemMutex;
    bool m_alive = false;
    QString m_filename;
    QString m_URL;
    std::weak_ptr<HXContainer> m_parent;
    const std::weak_ptr<HXStorage> m_storage;
    int m_pendingMoves = 0;
};

using HXStorageItemRef = std::shared_ptr<HXStorageItem>;
