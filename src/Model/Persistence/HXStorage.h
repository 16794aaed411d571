#pragma once

#include "Model/StorageTree/HXContainer.h"
#include "Utilities/HXFilePresenter.h"

#include <QDateTime>
#include <QSet>
#include <QVariant>

#include <functional>
#include <mutex>

class HXFilePresentationProxy;
class HXGroup;
class HXMarkup;
class HXSheet;
class HXSheetHandle;
class HXStaticFilter;

// One change of a storage's tree, as observers of the storage hear it.
struct HXTreeChange {
    enum Kind { Inserted, Removed, Moved, Renamed, InfoChanged };
    Kind kind = Inserted;
    std::shared_ptr<HXStorageItem> item;
    // The parent the item is in now; for a removal, the one it left.
    std::shared_ptr<HXContainer> parent;
    // For a rename, the name before.
    QString oldFilename;

    static QString kindName(Kind kind);
};

// The kinds of nodes a storage reads from disk.
enum class HXStorageItemKind { None, Group, Filter, Trash, Sheet };

// A tree of sheets and containers that mirrors a folder on disk, and follows it: the storage
// presents its base folder, and every change that others make below it (a sync client, a second
// Velmora) becomes a change of the tree, one at a time and in order, on the storage's own
// notification queue. Opening reads the tree from directory entries and info files only; no
// sheet is opened for it. Abstract: a library, or another kind of source, says which files are
// what and how sheets are made.
//
// Made by a factory of the concrete class, which calls `open`. A storage that lost its folder
// is invalid for good, but stays a valid object. Any thread: structural changes, whether from
// file notifications or from operations, run under the storage's monitor.
class HXStorage : public HXFilePresenter, public std::enable_shared_from_this<HXStorage> {
public:
    ~HXStorage() override;
    HXStorage(const HXStorage &) = delete;
    HXStorage &operator=(const HXStorage &) = delete;

    QString identifier() const { return m_identifier; }
    QString baseURL() const;
    virtual QString displayName() const { return m_identifier; }
    std::shared_ptr<HXGroup> rootGroup() const;
    bool isInvalid() const;
    void invalidate();
    std::recursive_mutex &monitor() { return m_monitor; }

    // --- Kinds of files ----------------------------------------------------------------------
    virtual HXStorageItemKind classForReadingItemAtURL(const QString &url) const = 0;
    // The kind by name alone, for a path known to exist.
    virtual HXStorageItemKind classForFilename(const QString &url) const = 0;
    virtual std::shared_ptr<HXContainer> newContainer(HXStorageItemKind kind,
                                                      const QString &filename) = 0;
    virtual std::shared_ptr<HXSheet> sheetForURL(const QString &url, bool readOnly,
                                                 HXError *error) = 0;
    std::shared_ptr<HXSheet> sheetForHandle(const std::shared_ptr<HXSheetHandle> &handle,
                                            bool readOnly, HXError *error);
    virtual QString changeTokenForItemAtURL(const QString &url) const = 0;
    virtual QString filenameForPreferredFilename(const QString &preferred, const QString &current,
                                                 const std::shared_ptr<HXContainer> &container) = 0;
    virtual std::shared_ptr<HXContainer> defaultContainerForItemOfKind(HXStorageItemKind kind);
    virtual std::shared_ptr<HXContainer> trash() const { return nullptr; }
    virtual bool providesStaticContainers() const { return false; }
    virtual bool arePersistentObjectsUbiquitous() const { return false; }
    virtual bool isActive() const { return true; }
    std::shared_ptr<HXStaticFilter> allFilter() const { return m_allFilter; }
    std::shared_ptr<HXStaticFilter> recentFilter() const { return m_recentFilter; }

    // --- Finding nodes -----------------------------------------------------------------------
    std::shared_ptr<HXStorageItem> itemAtURL(const QString &url) const;
    bool isValidItemAtURL(const QString &url) const;
    std::shared_ptr<HXStorageItem> storageItemForOpeningURL(const QString &url) const;
    // Names and paths compared by the rule of the base folder's volume.
    bool isFilename(const QString &a, const QString &b) const;
    bool isFileURL(const QString &a, const QString &b) const;
    bool isDescendantOfURL(const QString &url, const QString &ancestor) const;
    // A property-list value that names the node across launches; null for none.
    virtual QVariant persistentObjectForItem(const std::shared_ptr<HXStorageItem> &item) const;
    virtual std::shared_ptr<HXStorageItem> itemForPersistentObject(const QVariant &object) const;

    // --- Reading and following the disk ------------------------------------------------------
    void readContentsAtURL(const QString &url);
    std::shared_ptr<HXStorageItem> readItemAtURL(const QString &url);
    void accommodateStorageItem(const std::shared_ptr<HXStorageItem> &item,
                                const QString &filename);
    void storageItemDidAppearAtURL(const QString &url);
    void storageItemWasDeletedAtURL(const QString &url);
    void storageItemAtURL(const QString &oldURL, const QString &newURL);
    void storageItemDidChangeAtURL(const QString &url);

    // --- What a concrete storage makes -------------------------------------------------------
    virtual QString preferredFilenameForSheet() const { return {}; }
    virtual QString preferredFilenameForContainerOfKind(HXStorageItemKind) const { return {}; }
    // A new sheet, without a file, in the markup or the storage's default.
    virtual std::shared_ptr<HXSheet> newSheetMatchingMarkup(const std::shared_ptr<HXMarkup> &) {
        return nullptr;
    }
    // Makes the folder of a new container at the path with the prototype's info.
    virtual bool writeNewContainerAtURL(const QString &url, const HXContainerRef &prototype,
                                        HXError *error);

    // --- Changing the tree -------------------------------------------------------------------
    // The primitive actions of the operations. Each runs under file coordination, puts the new
    // item at the place a sentinel of the target reserved (`HXNotFound`: none) and enters it in
    // the tree before returning. Each asserts that the container allows the action. A name that
    // someone else takes meanwhile makes the action choose another.
    std::shared_ptr<HXSheetHandle> createSheetInContainer(const HXContainerRef &container,
                                                          quint64 sentinel, HXError *error);
    // `sheet` is saved as the new sheet; with a valid date, the file takes it as creation date.
    std::shared_ptr<HXSheetHandle> createSheet(const std::shared_ptr<HXSheet> &sheet,
                                               quint64 sentinel, const HXContainerRef &container,
                                               const QDateTime &creationDate, HXError *error);
    HXContainerRef createContainerOfKind(HXContainerKind kind, const HXContainerRef &container,
                                         const QString &displayName, quint64 sentinel,
                                         HXError *error);
    // A copy of the sheet (closed afterwards) with the source's creation date.
    std::shared_ptr<HXSheetHandle> copySheet(const std::shared_ptr<HXSheet> &sheet,
                                             const HXContainerRef &container, quint64 sentinel,
                                             HXError *error);
    // A new container with the source's info, and no children.
    HXContainerRef copyContainer(const HXContainerRef &source, const HXContainerRef &container,
                                 quint64 sentinel, HXError *error);
    bool moveSheetHandle(const std::shared_ptr<HXSheetHandle> &handle,
                         const HXContainerRef &container, quint64 sentinel, HXError *error);
    bool moveContainer(const HXContainerRef &source, const HXContainerRef &container,
                       quint64 sentinel, HXError *error);
    bool removeSheetHandle(const std::shared_ptr<HXSheetHandle> &handle, HXError *error);
    bool removeContainer(const HXContainerRef &container, HXError *error);
    // What a sheet loses when copied into a new sheet of this storage.
    QSet<QString> lossDescriptionsForCopyingSheet(const HXSheet &sheet);
    // The file move of both move actions, within this storage.
    bool moveStorageItem(const HXStorageItemRef &item, const HXContainerRef &container,
                         quint64 sentinel, HXError *error);
    bool removeItem(const HXStorageItemRef &item, HXError *error);

    // --- The storage's own file --------------------------------------------------------------
    virtual QString infoFileURL() const { return {}; }
    virtual QVariantMap infoDictionary() const { return {}; }
    virtual void setInfoDictionary(const QVariantMap &) {}
    void readInfoFile();
    void writeInfoFile();
    // While set, the storage's file was not understood and is not written.
    bool isReadingInfoFile() const { return m_readingInfoFile; }
    // Writes every info file with a write scheduled or suggested, now: for termination.
    void writePendingInfoFiles();

    // --- Observers ---------------------------------------------------------------------------
    using TreeObserver = std::function<void(const HXTreeChange &)>;
    int addTreeObserver(TreeObserver observer);
    void removeTreeObserver(int token);
    void noteTreeChange(HXTreeChange::Kind kind, const std::shared_ptr<HXStorageItem> &item,
                        const std::shared_ptr<HXContainer> &parent, const QString &oldFilename);

    // --- Presenting --------------------------------------------------------------------------
    std::shared_ptr<HXFilePresenter> filePresenter() const;
    QString presentedItemURL() const override;
    std::shared_ptr<HXDispatchQueue> presentedItemOperationQueue() const override;
    void presentedItemDidChange() override;
    void presentedItemDidMoveToURL(const QString &url) override;
    void accommodatePresentedItemDeletionWithCompletionHandler(CompletionHandler handler) override;
    void presentedSubitemDidAppearAtURL(const QString &url) override;
    void accommodatePresentedSubitemDeletionAtURL(const QString &url,
                                                  CompletionHandler handler) override;
    void presentedSubitemAtURL(const QString &oldURL, const QString &newURL) override;
    void presentedSubitemDidChangeAtURL(const QString &url) override;

    // The desktop's trash folder in the home folder, and whether a path lies in it.
    static QString systemTrashPath();
    static bool isInSystemTrash(const QString &url);

protected:
    HXStorage() = default;
    // Builds the storage at the folder; false leaves it invalid.
    bool open(const QString &baseURL, const QString &identifier);
    virtual bool createRootFolderIfNeeded() const { return true; }
    virtual void setUp() {}
    virtual void didInvalidate() {}
    // A node was read from disk and entered in the tree.
    virtual void didReadItem(const std::shared_ptr<HXStorageItem> &) {}
    void setBaseURL(const QString &url);
    std::shared_ptr<HXStorageItem> itemAtURLLocked(const QString &url) const;

private:
    // Makes a new container's folder under a free name, the prototype prepared by the block.
    HXContainerRef createContainer(HXContainerKind kind, const HXContainerRef &container,
                                   quint64 sentinel, HXError *error,
                                   const std::function<void(const HXContainerRef &)> &prepare);
    void readFolder(const std::shared_ptr<HXContainer> &container);
    // Reads the item of that kind at the path, known to lie in the container; the monitor is
    // held.
    std::shared_ptr<HXStorageItem> readItemInContainer(const HXContainerRef &parent,
                                                       const QString &url, HXStorageItemKind kind);
    void setUpStaticContainers();
    void setUpSearchIndex() {}

    mutable std::recursive_mutex m_monitor;
    QString m_identifier;
    mutable std::mutex m_baseMutex;
    QString m_baseURL;
    bool m_invalid = false;
    bool m_caseSensitive = true;
    std::shared_ptr<HXGroup> m_rootGroup;
    std::shared_ptr<HXFilePresentationProxy> m_presenter;
    std::shared_ptr<HXStaticFilter> m_allFilter;
    std::shared_ptr<HXStaticFilter> m_recentFilter;
    qint64 m_infoModificationDate = 0;
    bool m_readingInfoFile = true;

    std::mutex m_observerMutex;
    int m_nextObserverToken = 1;
    QList<QPair<int, TreeObserver>> m_treeObservers;
};

using HXStorageRef = std::shared_ptr<HXStorage>;
