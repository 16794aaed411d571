#pragma once

#include "Utilities/HXFilePresenter.h"

#include <QList>
#include <QSet>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

// Coordinated access to files shared by this process, a second Velmora process and sync
// clients. Readers of a path run together; a writer runs alone against readers and writers of
// the same path, of its folders and of everything inside it. Accesses of one thread never wait
// for each other, so a coordinated read may sit inside a coordinated write. A write also holds an
// advisory lock that other processes take for the same coordination root (the library or store
// folder the path lies in, or else its folder), so two processes never write a library at once.
//
// Presenters registered here hear of coordinated accesses in this process at once: before a
// write they are asked to save and give way (a deletion asks them to accommodate it), after it
// they are told what changed. The presenter given to a coordinator hears nothing of its own
// accesses. Changes by other processes reach presenters through the file monitor.
//
// A coordinator is a small value made for one access or a few; the registries are process-wide.
// Any thread.
class HXFileCoordinator {
public:
    enum ReadingOption { ReadingWithoutChanges = 1 };
    enum WritingOption {
        WritingForDeleting = 1,
        WritingForMoving = 2,
        WritingForMerging = 4,
        WritingForReplacing = 8,
    };

    explicit HXFileCoordinator(HXFilePresenterRef filePresenter = nullptr);
    ~HXFileCoordinator();
    HXFileCoordinator(const HXFileCoordinator &) = delete;
    HXFileCoordinator &operator=(const HXFileCoordinator &) = delete;

    // Each runs the accessor with the path to use once the access is granted, and returns false
    // only when the access couldn't be had (the error says why); the accessor's own failures are
    // its own to report.
    bool coordinateReadingItemAtURL(const QString &url, int options, HXError *error,
                                    const std::function<void(const QString &)> &accessor);
    bool coordinateWritingItemAtURL(const QString &url, int options, HXError *error,
                                    const std::function<void(const QString &)> &accessor);
    bool coordinateReadingItemAtURL(
        const QString &readingURL, int readingOptions, const QString &writingURL,
        int writingOptions, HXError *error,
        const std::function<void(const QString &, const QString &)> &accessor);
    bool coordinateWritingItemAtURL(
        const QString &url, int options, const QString &otherURL, int otherOptions, HXError *error,
        const std::function<void(const QString &, const QString &)> &accessor);

    // Inside a coordinated move: the item now lies at the new path. Presenters of it and below
    // follow it; presenters above hear of the move once the access ends.
    void itemAtURL(const QString &oldURL, const QString &newURL);

    static void addFilePresenter(const HXFilePresenterRef &presenter);
    static void removeFilePresenter(const HXFilePresenter *presenter);
    static QList<HXFilePresenterRef> filePresenters();

    // Folders whose writers exclude each other across processes: a library's base, a store.
    static void addCoordinationRoot(const QString &path);
    static void removeCoordinationRoot(const QString &path);
    // Folders with these path extensions are packages: one item to the presenters above them.
    static void addPackagePathExtensions(const QStringList &extensions);
    static bool isPackagePath(const QString &path);
    // The outermost package that holds the path and lies strictly below the folder; the path
    // itself when there is none.
    static QString itemPathBelow(const QString &folder, const QString &path);

    // What happened to an item, as the monitor and the coordinator tell it to presenters.
    enum class Change { Changed, Appeared, Deleted, Moved };
    // Tells every presenter but the excluded one, each in its own terms: the item's presenters,
    // those of folders above (a change inside a package is a change of the package) and, for a
    // move, those of what moved with it. `accommodated` says that the presenters were asked to
    // accommodate the deletion before it happened. `sent` keeps one change per presenter and
    // item across calls.
    static void announceChange(Change change, const QString &path, const QString &newPath,
                               const HXFilePresenter *excluded, bool accommodated,
                               QSet<QString> *sent);
    // Presenters of the item and of what is inside it now present the new path.
    static void rebasePresenters(const QString &from, const QString &to);
    static QList<QPair<HXFilePresenterRef, QString>> presentersWithPaths();

    // Whether a coordinated write of this process covers the path now.
    static bool isBeingWritten(const QString &path);
    // The longest a writer waits for a presenter to save, give way or accommodate a deletion.
    static void setPresenterTimeout(int milliseconds);

    // A clean absolute path, the form every registry keeps.
    static QString standardizedPath(const QString &path);
    // Whether the first path is the second or a folder above it.
    static bool isAncestorOrSelf(const QString &ancestor, const QString &path);

private:
    struct Item {
        QString path;
        bool write = false;
        int options = 0;
    };
    bool coordinate(const QList<Item> &items, HXError *error,
                    const std::function<void(const QStringList &)> &accessor);

    HXFilePresenterRef m_filePresenter;
    QList<QPair<QString, QString>> m_moves;
};
