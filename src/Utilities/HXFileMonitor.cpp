#include "Utilities/HXFileMonitor.h"

#include "Utilities/HXApplicationLog.h"
#include "Utilities/HXFileCoordinator.h"
#include "Utilities/HXFileMonitorInternals.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSocketNotifier>
#include <QThread>

#include <cerrno>
#include <climits>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <mutex>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace HXFileMonitorInternals;

namespace {

HXFileMonitor *s_shared = nullptr;

} // namespace

HXFileMonitor *HXFileMonitor::shared() {
    static std::once_flag once;
    QCoreApplication *application = QCoreApplication::instance();
    if (!application)
        return nullptr;
    std::call_once(once, [application] {
        // Lives on the main thread, where its notifier and timers run; set up there without
        // waiting for it, since the main thread may be waiting for the caller.
        s_shared = new HXFileMonitor;
        s_shared->moveToThread(application->thread());
        QMetaObject::invokeMethod(s_shared, &HXFileMonitor::start, Qt::AutoConnection);
        QObject::connect(application, &QObject::destroyed, [] {
            delete s_shared;
            s_shared = nullptr;
        });
    });
    return s_shared;
}

void HXFileMonitor::start() {
    m_inotify = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (m_inotify >= 0) {
        m_notifier = new QSocketNotifier(m_inotify, QSocketNotifier::Read, this);
        connect(m_notifier, &QSocketNotifier::activated, this, &HXFileMonitor::readEvents);
    } else {
        HXApplicationLog::sharedInstance()->logError(
            u"File notifications are not available (%@); folders are polled instead.",
            QString::fromLocal8Bit(strerror(errno)));
    }
    m_debounce = new QTimer(this);
    m_debounce->setSingleShot(true);
    m_debounce->setInterval(m_debounceInterval);
    connect(m_debounce, &QTimer::timeout, this, &HXFileMonitor::settle);
    m_poller = new QTimer(this);
    m_poller->setInterval(m_pollInterval);
    connect(m_poller, &QTimer::timeout, this, &HXFileMonitor::poll);
    updateWatches();
}

HXFileMonitor::~HXFileMonitor() {
    for (const int fd : std::as_const(m_presentedItems))
        ::close(fd);
    if (m_inotify >= 0)
        ::close(m_inotify);
}

void HXFileMonitor::presentersChanged() {
    HXFileMonitor *monitor = shared();
    if (!monitor)
        return;
    if (QThread::currentThread() == monitor->thread())
        monitor->updateWatches();
    else
        QMetaObject::invokeMethod(
            monitor, [monitor] { monitor->updateWatches(); }, Qt::QueuedConnection);
}

void HXFileMonitor::noteOwnWrite(const QString &path) {
    OwnWrites::Write write;
    snapshot(path, write.items);
    write.expiry = QDateTime::currentMSecsSinceEpoch() + ownWriteLifetime;
    OwnWrites &writes = ownWrites();
    std::lock_guard lock(writes.mutex);
    write.sequence = ++writes.lastSequence;
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    for (auto it = writes.byPath.begin(); it != writes.byPath.end();)
        it = it->expiry < now ? writes.byPath.erase(it) : std::next(it);
    writes.byPath.insert(path, std::move(write));
}

void HXFileMonitor::setDebounceInterval(int milliseconds) {
    m_debounceInterval = milliseconds;
    if (m_debounce)
        m_debounce->setInterval(milliseconds);
}

void HXFileMonitor::setPollInterval(int milliseconds) {
    m_pollInterval = milliseconds;
    if (m_poller)
        m_poller->setInterval(milliseconds);
}

void HXFileMonitor::setWatchLimitForTesting(int limit) {
    m_watchLimit = limit;
    // Start over, so the limit holds for the folders watched already.
    const QStringList folders = m_folders.keys();
    for (const QString &folder : folders)
        removeFolder(folder);
    m_trees.clear();
    m_wanted.clear();
    updateWatches();
}

void HXFileMonitor::dropEventsForTesting() {
    char buffer[16 * 1024];
    while (m_inotify >= 0 && ::read(m_inotify, buffer, sizeof buffer) > 0) {
    }
    m_touched.clear();
    m_moves.clear();
    m_movedFrom.clear();
    m_rescanAll = true;
    scheduleSettle();
}

int HXFileMonitor::polledFolderCount() const {
    int count = 0;
    for (const Folder &folder : m_folders)
        count += folder.descriptor < 0;
    return count;
}

// What is known of an entry of a folder. A folder's own change time moves whenever something is
// added inside it; that is no change of the folder, so it isn't kept.
HXFileMonitor::Entry HXFileMonitor::entryOf(const HXFileIdentity &identity) {
    return Entry{identity.inode, identity.isDirectory ? 0 : identity.changeTime,
                 identity.isDirectory};
}

// --- Watches -------------------------------------------------------------------------------------

// The folders a presented item needs watched: the one that holds it and, for a folder, itself
// and every folder below.
QSet<QString> HXFileMonitor::treeOf(const QString &path, QStringList *packages) {
    QSet<QString> folders{QFileInfo(path).absolutePath()};
    if (QFileInfo(path).isDir())
        addSubtree(path, folders, packages);
    return folders;
}

void HXFileMonitor::addSubtree(const QString &root, QSet<QString> &folders, QStringList *packages) {
    walk(
        root,
        [&](const QString &folder) {
            folders.insert(folder);
            return true;
        },
        [&](const QString &child, const dirent &entry) {
            const bool folder = !folders.contains(child) &&
                                (entry.d_type == DT_DIR ||
                                 (entry.d_type == DT_UNKNOWN && QFileInfo(child).isDir()));
            if (folder && packages && HXFileCoordinator::isPackagePath(child)) {
                packages->append(child);
                return false;
            }
            return folder;
        });
}

// The insides of packages matter to the presenters above them only as changes of the package,
// and a library holds thousands of them: they are watched after the folders that hold them, so
// that presenting a library costs its folders, not its packages. A change inside a package
// before its watch is in place goes unreported; whoever cares reads the package's state when it
// first needs it.
void HXFileMonitor::watchDeferredPackages() {
    m_deferredScheduled = false;
    constexpr int batch = 256;
    for (int i = 0; i < batch && !m_deferredPackages.isEmpty(); ++i) {
        const auto [path, package] = m_deferredPackages.takeFirst();
        if (const auto waiting = m_deferredWaiting.find(package);
            waiting != m_deferredWaiting.end() && --*waiting == 0)
            m_deferredWaiting.erase(waiting);
        const auto tree = m_trees.find(path);
        if (tree == m_trees.end() || !QFileInfo(package).isDir())
            continue;
        QSet<QString> folders;
        addSubtree(package, folders);
        folders.subtract(*tree);
        tree->unite(folders);
        for (const QString &folder : std::as_const(folders)) {
            if (++m_wanted[folder] == 1 && !m_folders.contains(folder))
                addFolder(folder);
        }
    }
    if (!m_deferredPackages.isEmpty()) {
        m_deferredScheduled = true;
        QTimer::singleShot(0, this, &HXFileMonitor::watchDeferredPackages);
    }
    if (polledFolderCount() > 0 && !m_poller->isActive())
        m_poller->start();
}

// Brings the watches in line with the presenters. Each presented item's tree is walked when it
// comes and afterwards only where folders changed, and every folder counts the trees that want
// it, so a new presenter or a new folder costs its own tree, not the whole library's.
//
// A folder that comes into a tree walked before it (it appeared, or moved there) or whose watch
// is put again is compared with what was known of it: another process may have been at work in
// it before the watch was in place. Only the folders of a tree walked for the first time, and
// packages waiting for their watch, are taken as they are.
void HXFileMonitor::updateWatches(const QStringList &changedFolders) {
    if (!m_debounce)
        return; // not started yet; starting updates them
    QStringList gained, lost;
    QSet<QString> compared;
    auto take = [&](const QSet<QString> &folders, bool compare) {
        for (const QString &folder : folders) {
            if (++m_wanted[folder] == 1) {
                gained.append(folder);
                if (compare && !isWaitingForWatch(folder))
                    compared.insert(folder);
            }
        }
    };
    auto drop = [&](const QSet<QString> &folders) {
        for (const QString &folder : folders) {
            const auto it = m_wanted.find(folder);
            if (it != m_wanted.end() && --*it == 0) {
                m_wanted.erase(it);
                lost.append(folder);
            }
        }
    };

    QSet<QString> presented;
    for (const auto &[presenter, path] : HXFileCoordinator::presentersWithPaths()) {
        (void)presenter;
        presented.insert(path);
    }
    for (auto it = m_trees.begin(); it != m_trees.end();) {
        if (presented.contains(it.key())) {
            ++it;
            continue;
        }
        drop(*it);
        it = m_trees.erase(it);
    }
    QSet<QString> newTrees;
    for (const QString &path : std::as_const(presented)) {
        if (!m_trees.contains(path))
            newTrees.insert(path);
    }
    for (const QString &path : std::as_const(presented)) {
        auto tree = m_trees.find(path);
        if (tree == m_trees.end()) {
            QStringList packages;
            const QSet<QString> folders = treeOf(path, &packages);
            for (const QString &folder : folders) {
                if (++m_wanted[folder] == 1) {
                    gained.append(folder);
                    if (appearedInWatchedTree(folder, newTrees))
                        compared.insert(folder);
                }
            }
            m_trees.insert(path, folders);
            for (const QString &package : std::as_const(packages)) {
                m_deferredPackages.append({path, package});
                ++m_deferredWaiting[package];
            }
            continue;
        }
        for (const QString &folder : changedFolders) {
            if (!HXFileCoordinator::isAncestorOrSelf(path, folder))
                continue;
            QSet<QString> old, now;
            if (folder == path) {
                old = *tree;
                now = treeOf(path);
            } else {
                for (const QString &inside : std::as_const(*tree)) {
                    if (HXFileCoordinator::isAncestorOrSelf(folder, inside))
                        old.insert(inside);
                }
                if (QFileInfo(folder).isDir())
                    addSubtree(folder, now);
            }
            drop(old - now);
            take(now - old, true);
            tree->subtract(old);
            tree->unite(now);
        }
    }

    // Folders that moved keep their watches, which went with them, and what was known of them.
    for (auto it = m_carried.begin(); it != m_carried.end();) {
        const QString &to = it.key();
        if (!m_wanted.contains(to) || it->descriptor < 0 ||
            HXFileIdentity::ofPath(to).inode != it->inode) {
            ++it;
            continue;
        }
        if (const auto there = m_folders.constFind(to); there != m_folders.cend()) {
            if (there->inode == it->inode) {
                it = m_carried.erase(it);
                continue;
            }
            removeFolder(to);
        }
        m_byDescriptor.insert(it->descriptor, to);
        m_folders.insert(to, std::move(*it));
        it = m_carried.erase(it);
    }
    for (const QString &folder : std::as_const(lost)) {
        // Given up by one tree and taken by another: what is known of it stays.
        if (!m_wanted.contains(folder))
            removeFolder(folder);
    }
    // What was known of folders whose watches are put again.
    QHash<QString, Folder> known = std::exchange(m_carried, {});
    if (!changedFolders.isEmpty()) {
        // A folder replaced by another under the same name needs a watch of its own, and so does
        // one whose watch ended when it moved.
        const QStringList present = m_folders.keys();
        for (const QString &folder : present) {
            if (std::none_of(changedFolders.cbegin(), changedFolders.cend(),
                             [&](const QString &changed) {
                                 return HXFileCoordinator::isAncestorOrSelf(changed, folder);
                             }))
                continue;
            const HXFileIdentity identity = HXFileIdentity::ofPath(folder);
            const Folder &state = m_folders.value(folder);
            if (!identity.exists || identity.inode != state.inode ||
                (state.descriptor < 0 && m_inotify >= 0)) {
                Folder previous = removeFolder(folder);
                if (!m_wanted.contains(folder))
                    continue;
                known.insert(folder, std::move(previous));
                gained.append(folder);
            }
        }
    }
    const Folder nothing;
    for (const QString &folder : std::as_const(gained)) {
        if (m_folders.contains(folder) || !QFileInfo(folder).isDir())
            continue;
        if (const auto previous = known.constFind(folder); previous != known.cend())
            addFolder(folder, &*previous);
        else
            addFolder(folder, compared.contains(folder) ? &nothing : nullptr);
    }
    rememberPresentedItems();
    if (!m_deferredPackages.isEmpty() && !m_deferredScheduled) {
        m_deferredScheduled = true;
        QTimer::singleShot(0, this, &HXFileMonitor::watchDeferredPackages);
    }
    if (polledFolderCount() > 0) {
        if (!m_poller->isActive())
            m_poller->start();
    } else {
        m_poller->stop();
    }
}

bool HXFileMonitor::appearedInWatchedTree(const QString &folder,
                                          const QSet<QString> &newTrees) const {
    if (isWaitingForWatch(folder))
        return false;
    for (QString path = folder; path.size() > 1; path = parentPath(path)) {
        if (path != folder && m_trees.contains(path) && !newTrees.contains(path))
            return true;
        // What lies below a hidden name is no part of the tree around it.
        if (isHidden(path))
            return false;
    }
    return false;
}

bool HXFileMonitor::isWaitingForWatch(const QString &folder) const {
    if (m_deferredWaiting.isEmpty())
        return false;
    for (QString path = folder; path.size() > 1; path = parentPath(path)) {
        if (m_deferredWaiting.contains(path))
            return true;
    }
    return false;
}

void HXFileMonitor::addFolder(const QString &path, const Folder *known) {
    // Taken as it is, the folder has nothing to tell apart from our own writes; compared, the
    // names that differ settle against them.
    if (!known)
        forgetOwnWritesIn(path);
    Folder folder;
    folder.inode = HXFileIdentity::ofPath(path).inode;
    if (m_inotify >= 0 && (m_watchLimit < 0 || m_byDescriptor.size() < m_watchLimit)) {
        folder.descriptor =
            ::inotify_add_watch(m_inotify, QFile::encodeName(path).constData(), watchMask);
        if (folder.descriptor < 0 && errno == ENOSPC)
            HXApplicationLog::sharedInstance()->logNotice(u"Out of file watches; %@ is polled.",
                                                          path);
    }
    if (folder.descriptor >= 0) {
        // A second path to a folder watched already shares its descriptor; keep one.
        if (m_byDescriptor.contains(folder.descriptor))
            m_folders.remove(m_byDescriptor.value(folder.descriptor));
        m_byDescriptor.insert(folder.descriptor, path);
    }
    // Listed after the watch is in place, so nothing made in between goes unseen. A watched
    // folder's events say what changed, so its entries need only their names and kinds; a polled
    // one is compared by times, and so is a file that was known before.
    const bool polled = folder.descriptor < 0;
    QHash<QString, Entry> listed;
    if (DIR *directory = ::opendir(QFile::encodeName(path).constData())) {
        while (const dirent *item = ::readdir(directory)) {
            if (item->d_name[0] == '.')
                continue;
            const QString name = QFile::decodeName(item->d_name);
            const auto before =
                known ? known->entries.constFind(name) : QHash<QString, Entry>::const_iterator();
            const bool knownFile = known && before != known->entries.cend() &&
                                   !before->isDirectory && item->d_type != DT_DIR;
            if (polled || knownFile || item->d_type == DT_UNKNOWN) {
                const HXFileIdentity identity = HXFileIdentity::ofPath(path + u'/' + name);
                if (identity.exists)
                    listed.insert(name, polled || knownFile
                                            ? entryOf(identity)
                                            : Entry{identity.inode, 0, identity.isDirectory});
            } else {
                listed.insert(name, Entry{item->d_ino, 0, item->d_type == DT_DIR});
            }
        }
        ::closedir(directory);
    }
    if (!known) {
        folder.entries = std::move(listed);
        m_folders.insert(path, std::move(folder));
        return;
    }

    // A name that differs keeps what was known of it (or stays unknown) until it settles. The
    // watch may tell of it too, as it came after the watch: both settle as one.
    auto differs = [&](const Entry &before, const Entry &now) {
        if (before.inode != now.inode || before.isDirectory != now.isDirectory)
            return true;
        if (now.isDirectory)
            return false; // what is inside has its own watch
        if (before.changeTime)
            return before.changeTime != now.changeTime;
        // Listed without its times: the same file in the same folder, or one linked in from the
        // folder that was here before.
        return known->inode != folder.inode;
    };
    folder.entries = known->entries;
    bool touched = false;
    for (auto it = listed.cbegin(); it != listed.cend(); ++it) {
        const auto before = known->entries.constFind(it.key());
        if (before != known->entries.cend() && !differs(*before, *it)) {
            folder.entries.insert(it.key(), *it);
            continue;
        }
        m_touched.insert(path + u'/' + it.key());
        touched = true;
    }
    for (auto it = known->entries.cbegin(); it != known->entries.cend(); ++it) {
        if (!listed.contains(it.key())) {
            m_touched.insert(path + u'/' + it.key());
            touched = true;
        }
    }
    m_folders.insert(path, std::move(folder));
    if (touched)
        scheduleSettle();
}

HXFileMonitor::Folder HXFileMonitor::removeFolder(const QString &path) {
    Folder folder = m_folders.take(path);
    if (folder.descriptor >= 0 && m_byDescriptor.value(folder.descriptor) == path) {
        ::inotify_rm_watch(m_inotify, folder.descriptor);
        m_byDescriptor.remove(folder.descriptor);
    }
    return folder;
}

void HXFileMonitor::rememberPresentedItems() {
    QHash<QString, int> items;
    for (const auto &[presenter, path] : HXFileCoordinator::presentersWithPaths()) {
        (void)presenter;
        if (items.contains(path))
            continue;
        int fd = m_presentedItems.take(path);
        const HXFileIdentity now = HXFileIdentity::ofPath(path);
        struct stat status {};
        if (fd > 0 && (::fstat(fd, &status) != 0 || status.st_ino != now.inode)) {
            ::close(fd);
            fd = 0;
        }
        if (fd <= 0 && now.exists)
            fd = ::open(QFile::encodeName(path).constData(), O_PATH | O_CLOEXEC | O_NOFOLLOW);
        if (fd > 0)
            items.insert(path, fd);
    }
    for (const int fd : std::as_const(m_presentedItems))
        ::close(fd);
    m_presentedItems = items;
}

// Where a presented item went that is no longer at its path: the kernel knows the path of an
// open descriptor, as long as the item still exists.
QString HXFileMonitor::movedLocationOfPresentedItem(const QString &path) {
    const int fd = m_presentedItems.value(path);
    if (fd <= 0)
        return {};
    char target[PATH_MAX];
    const QByteArray link = "/proc/self/fd/" + QByteArray::number(fd);
    const ssize_t length = ::readlink(link.constData(), target, sizeof target - 1);
    if (length <= 0)
        return {};
    const QString moved = QFile::decodeName(QByteArray(target, length));
    if (moved.endsWith(QStringLiteral(" (deleted)")) || moved == path)
        return {};
    struct stat status {};
    if (::fstat(fd, &status) != 0 || status.st_nlink == 0)
        return {};
    return moved;
}
