#pragma once

#include "Utilities/HXFileCoordinator.h"
#include "Utilities/HXFileSystem.h"

#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>
#include <QTimer>

#include <memory>

class QSocketNotifier;

// Tells file presenters what other processes did to their files: the inotify side of the file
// coordinator. Watches every folder a presenter shows and everything below it, packages
// included, and the folder that holds each presented item. Events are gathered for a short
// while and then settled against the disk: a name that is there and was known has changed, one
// that is new appeared, one that is gone was deleted, and a pair of events with one cookie is a
// move. So a package replaced in one step by an exchange is one change, not a deletion and an
// appearance. A folder that is watched only after the tree around it was (it appeared, moved, or
// its watch had to be put again) is compared with what was known of it, so nothing done in it
// before its watch is lost. Hidden names are never reported. When the kernel's queue overflows,
// every folder is listed again; when no more watches can be had, the folders without one are
// polled.
//
// Changes made by coordinated writes of this process are known from what the writer noted as its
// own (the state of the written items when the write ended): those presenters were told by the
// coordinator already, so the monitor drops them.
//
// One instance per process, living on the main thread and run by its event loop; without a
// QCoreApplication nothing is watched. The static calls may come from any thread.
class HXFileMonitor : public QObject {
    Q_OBJECT
public:
    static HXFileMonitor *shared();

    // The set of presenters or a presented path changed: the watches follow.
    static void presentersChanged();
    // A coordinated write of this process ends with the item (and what is inside) as it is now.
    static void noteOwnWrite(const QString &path);

    // How long events are gathered before they are settled (100 ms by default).
    void setDebounceInterval(int milliseconds);
    // How often folders without a watch are listed again (1 s by default).
    void setPollInterval(int milliseconds);
    // For tests: no more than this many watches, as if the kernel had run out.
    void setWatchLimitForTesting(int limit);
    int watchCount() const { return int(m_byDescriptor.size()); }
    int polledFolderCount() const;
    // For tests: forgets the events the kernel holds, as an overflow of its queue would.
    void dropEventsForTesting();

    ~HXFileMonitor() override;

private:
    struct Entry {
        ino_t inode = 0;
        qint64 changeTime = 0;
        bool isDirectory = false;
        friend bool operator==(const Entry &, const Entry &) = default;
    };
    struct Folder {
        int descriptor = -1;
        ino_t inode = 0;
        QHash<QString, Entry> entries;
    };
    struct Settled {
        HXFileCoordinator::Change change;
        QString path;
        QString newPath;
    };

    HXFileMonitor() = default;
    static Entry entryOf(const HXFileIdentity &identity);
    // Sets up the notifier and the timers on the main thread.
    void start();
    void updateWatches(const QStringList &changedFolders = {});
    // With `packages`, the packages below the path are not walked but put there.
    static QSet<QString> treeOf(const QString &path, QStringList *packages = nullptr);
    static void addSubtree(const QString &root, QSet<QString> &folders,
                           QStringList *packages = nullptr);
    void watchDeferredPackages();
    // Whether a folder new to the watches lies in a tree that was watched before it came, so
    // that it appeared since (a package still waiting for its watch aside).
    bool appearedInWatchedTree(const QString &folder, const QSet<QString> &newTrees) const;
    // Whether the folder is, or is inside, a package still waiting for its watch.
    bool isWaitingForWatch(const QString &folder) const;
    // With `known`, what the folder holds now is compared with it and every name that differs is
    // touched; without, the folder's entries are taken as they are.
    void addFolder(const QString &path, const Folder *known = nullptr);
    Folder removeFolder(const QString &path);
    void readEvents();
    void noteTouched(const QString &path);
    void scheduleSettle();
    void settle();
    // Settles the touched paths and the moves into changes; returns the folders among them.
    QStringList settleTouched(QList<Settled> &changes);
    bool isAnyTouchedBeingWritten() const;
    void poll();
    // Lists a folder afresh; touches every name whose state differs from what was known.
    void rescan(const QString &path);
    bool isOwnWrite(const QString &path, const HXFileIdentity &identity);
    static void forgetOwnWritesIn(const QString &folder);
    static bool ownWriteLeftItem(const QString &path);
    static void forgetOwnWritesUpTo(quint64 sequence);
    static quint64 lastOwnWriteSequence();
    void rememberPresentedItems();
    QString movedLocationOfPresentedItem(const QString &path);

    int m_inotify = -1;
    QSocketNotifier *m_notifier = nullptr;
    QTimer *m_debounce = nullptr;
    QTimer *m_poller = nullptr;
    int m_debounceInterval = 100;
    int m_pollInterval = 1000;
    int m_watchLimit = -1;
    QHash<QString, Folder> m_folders;
    // The folders each presented item needs watched, by its path.
    QHash<QString, QSet<QString>> m_trees;
    // How many of those trees want each folder.
    QHash<QString, int> m_wanted;
    // Packages inside newly presented folders, watched a batch at a time once the presenter is
    // in place: (presented path, package).
    QList<QPair<QString, QString>> m_deferredPackages;
    // How often each of those packages is waiting.
    QHash<QString, int> m_deferredWaiting;
    bool m_deferredScheduled = false;
    // Folders that moved, watches and all, by their new paths, until the watches follow them.
    QHash<QString, Folder> m_carried;
    QHash<int, QString> m_byDescriptor;
    QSet<QString> m_touched;
    QHash<quint32, QString> m_movedFrom;
    QList<QPair<QString, QString>> m_moves;
    bool m_rescanAll = false;
    bool m_settling = false;
    // An O_PATH descriptor for each presented item, to find where it went when it moves away.
    QHash<QString, int> m_presentedItems;
};
