#pragma once

#include "Utilities/HXError.h"

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>

#include <memory>
#include <sys/types.h>

// What a file is at one moment, as far as telling one state of it from another goes: the same
// inode with the same change time is the same state. A missing file has `exists` false.
struct HXFileIdentity {
    bool exists = false;
    bool isDirectory = false;
    dev_t device = 0;
    ino_t inode = 0;
    qint64 size = 0;
    qint64 modificationTime = 0; // nanoseconds since 1970
    qint64 changeTime = 0;       // nanoseconds since 1970

    static HXFileIdentity ofPath(const QString &path);
    friend bool operator==(const HXFileIdentity &, const HXFileIdentity &) = default;
};

// fsyncs that start as their items are added, on helpers of the shared pool, so that a flush
// overlaps with the writing of what comes next and with the other flushes. `finish` waits for
// them all, doing itself any that no helper has taken up yet, so that a busy pool never holds a
// save up. One thread adds and finishes.
class HXSyncBatch {
public:
    HXSyncBatch();
    ~HXSyncBatch();
    HXSyncBatch(const HXSyncBatch &) = delete;
    HXSyncBatch &operator=(const HXSyncBatch &) = delete;

    // An open descriptor, which the batch closes; `path` names it in errors.
    void addDescriptor(int fd, const QString &path);
    // A file or folder by its path.
    void addItem(const QString &path);
    // Whether every sync went; with the error of the first that failed.
    bool finish(HXError *error);

private:
    struct Item;
    QList<std::shared_ptr<Item>> m_items;
};

// The file operations on which every write of a library or store file stands: replacement that
// leaves either the old or the new state on disk, never a mix and never nothing, made durable
// with fsync of the file and of its folder. Paths are plain local paths. Stateless apart from the
// per-device case rule cache; any thread.
class HXFileSystem {
public:
    HXFileSystem() = delete;

    // Writes the bytes to a hidden sibling, syncs it, renames it over the path and syncs the
    // folder. On failure (a full disk, a file-size limit) the old file is untouched.
    static bool writeFileAtomically(const QByteArray &data, const QString &path, HXError *error);

    // Makes a new file (never replacing one) with the bytes and syncs it; on failure nothing is
    // left at the path. With `batch`, the file's sync is left to the batch instead, which starts
    // it at once.
    static bool writeNewFile(const QByteArray &data, const QString &path, mode_t mode,
                             HXError *error, bool sync = true, HXSyncBatch *batch = nullptr);

    // Swaps two items in one step. Where the file system refuses an exchange, the first is moved
    // aside to a hidden name, the second into place, and the first to the second's old name.
    static bool exchangeItems(const QString &first, const QString &second, HXError *error);
    // Renames an item; refuses to replace an existing item unless `replace` is set.
    static bool moveItem(const QString &from, const QString &to, bool replace, HXError *error);
    // Removes a file or a whole folder; a missing item is no error.
    static bool removeItem(const QString &path, HXError *error);
    // fsync of a file or folder; of the folder that holds an item.
    static bool syncItem(const QString &path);
    static bool syncParentFolder(const QString &path);
    // Makes a folder with its parents, syncing each new one's parent.
    static bool makeFolder(const QString &path, HXError *error);

    // A hidden sibling name for the path: ".<name>.<tag>-<random>".
    static QString hiddenSiblingPath(const QString &path, const QString &tag);
    // Hidden siblings made by hiddenSiblingPath with the tag.
    static QStringList siblingPaths(const QString &path, const QString &tag);
    // Removes hidden siblings left by a writer that died: ".<name>.<tag>-*" at least that old.
    static void removeStaleSiblings(const QString &path, const QString &tag,
                                    qint64 minimumAgeSeconds = 0);
    // The same, the first time it is asked for the path and tag in this run only: looking
    // means listing the folder, too dear for every save.
    static void removeStaleSiblingsOnce(const QString &path, const QString &tag,
                                        qint64 minimumAgeSeconds = 0);
    // Puts back an item that an interrupted exchange left under its hidden name while nothing
    // has its name; true when it did.
    static bool recoverInterruptedExchange(const QString &path);

    // Creation dates: the extended attribute we set, else the birth time the file system keeps,
    // else the modification date. Invalid for a missing item.
    static QDateTime creationDate(const QString &path);
    static bool setCreationDate(const QString &path, const QDateTime &date);
    static QDateTime modificationDate(const QString &path);
    static bool setModificationDate(const QString &path, const QDateTime &date);

    // Whether names in the folder differ by case alone. Found once per device (FAT and exFAT
    // fold case) and per folder where the folder itself folds case (a casefolded ext4 folder).
    static bool isCaseSensitive(const QString &folder);
    // For tests: makes every folder on the device of the path answer so; clears with reset.
    static void setCaseSensitivityForTesting(const QString &path, bool caseSensitive);
    static void resetCaseSensitivityForTesting();
    // The path with its last component spelt as on disk; the path itself when nothing matches
    // or the folder tells case apart.
    static QString exactPath(const QString &path);
    static bool filenamesEqual(const QString &a, const QString &b, bool caseSensitive);

    // An error for a failed system call on a path, naming the file and the cause.
    static HXError posixError(int code, const QString &path, const QString &description);

    static inline const QByteArray creationDateAttribute = "user.velmora.creationDate";
};
