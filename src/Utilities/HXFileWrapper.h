#pragma once

#include "Utilities/HXError.h"

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QVariant>

#include <functional>
#include <memory>

class HXSyncBatch;

// A file or a folder of files held in memory: an image in a sheet, a package being written. A
// regular file has its contents; a directory its children by name. Written to disk atomically:
// a file through a hidden sibling renamed over it; a folder (a package) as a hidden sibling that
// is then exchanged with the old one in one step, so that at every moment the path holds either
// the whole old package or the whole new one. Files and folders are synced before they take the
// name. A file read from disk remembers where it came from, and is hard-linked rather than
// copied into a new package while that file is unchanged. Immutable once made, and so shared
// freely; any thread.
class HXFileWrapper {
public:
    static std::shared_ptr<HXFileWrapper> regularFileWithContents(const QByteArray &contents,
                                                                  const QString &preferredFilename);
    static std::shared_ptr<HXFileWrapper>
    directoryWithFileWrappers(const QMap<QString, std::shared_ptr<HXFileWrapper>> &children,
                              const QString &preferredFilename = QString());
    // A child of a package still being made: `make` starts on a helper thread now (or, with
    // `startNow` false, waits to be needed), and runs on the thread that needs it when no helper
    // has taken it up yet, so that a busy pool never holds a save up. Writing a package writes
    // its other children first, then puts what `make` gave in this one's place: nothing with an
    // error fails the write, nothing without one leaves the child out. Only for writing.
    static std::shared_ptr<HXFileWrapper>
    pendingWrapper(std::function<std::shared_ptr<HXFileWrapper>(HXError *)> make,
                   bool startNow = true);
    bool isPending() const { return m_pending != nullptr; }
    // Reads a file or a folder; nothing and an error naming the path when it can't.
    static std::shared_ptr<HXFileWrapper> fileWrapperWithPath(const QString &path, HXError *error);

    bool isRegularFile() const { return !m_isDirectory; }
    bool isDirectory() const { return m_isDirectory; }
    const QString &preferredFilename() const { return m_preferredFilename; }
    void setPreferredFilename(const QString &name) { m_preferredFilename = name; }
    const QByteArray &regularFileContents() const { return m_contents; }
    const QMap<QString, std::shared_ptr<HXFileWrapper>> &fileWrappers() const { return m_children; }
    // The MIME type of a regular file, by its name and contents.
    QString mimeType() const;
    // Whether the file is of one of the types; "image/*" takes any image.
    bool conformsToTypes(const QStringList &types) const;
    // Same kind, same contents, same children by name; names of the wrappers themselves aside.
    bool hasSameContentsAs(const HXFileWrapper &other) const;

    // Writes the file or package over whatever is at the path. With `backupPath` a replaced
    // package is kept at the hidden path given there, and the folder that holds the package is
    // not synced: the caller syncs it, then removes the old package. Without, both happen here. On
    // failure the old item is untouched.
    bool writeToPath(const QString &path, HXError *error, QString *backupPath = nullptr) const;
    // The file on disk this wrapper was read from, when it still holds the same bytes.
    QString unchangedSourcePath() const;

    HXFileWrapper() = default;

private:
    // `package` is the final path of the package being written, whose old files may be linked.
    // Writes the tree; what still needs an fsync goes to `unsynced` as soon as it is written,
    // children before their folder.
    bool writeTreeToPath(const QString &path, const QString &package, HXError *error,
                         HXSyncBatch *unsynced) const;
    bool writeNewFile(const QString &path, const QString &package, HXError *error,
                      HXSyncBatch *unsynced) const;

    struct Pending;
    std::shared_ptr<Pending> m_pending;
    bool m_isDirectory = false;
    QString m_preferredFilename;
    QByteArray m_contents;
    QMap<QString, std::shared_ptr<HXFileWrapper>> m_children;
    QString m_sourcePath;
    qint64 m_sourceInode = 0;
    qint64 m_sourceSize = 0;
    qint64 m_sourceModificationTime = 0;
};

using HXFileWrapperRef = std::shared_ptr<HXFileWrapper>;
// A file may stand in a QVariant, as the value of a file attribute does.
Q_DECLARE_METATYPE(HXFileWrapperRef)
