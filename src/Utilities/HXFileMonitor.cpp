#include "Utilities/HXFileMonitor.h"

#include "Utilities/HXApplicationLog.h"
#include "Utilities/HXFileCoordinator.h"

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

namespace {

constexpr quint32 watchMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE |
                              IN_MODIFY | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR |
                              IN_EXCL_UNLINK;
// How long a write of ours is remembered at most: it is forgotten as soon as a settling has taken
// the events it caused, and this only bounds writes whose events no settling ever takes.
constexpr qint64 ownWriteLifetime = 60000;
// The most entries of a written folder that are remembered; beyond, changes inside count as
// foreign.
constexpr int ownWriteEntryLimit = 4096;

// The state of the items that coordinated writes of this process left, by written path.
struct OwnWrites {
    std::mutex mutex;
    struct Write {
        QHash<QString, HXFileIdentity> items;
        qint64 expiry = 0;
        quint64 sequence = 0; // later writes have higher numbers
    };
    QHash<QString, Write> byPath;
    quint64 lastSequence = 0;
};

OwnWrites &ownWrites() {
    static OwnWrites writes;
    return writes;
}

// Walks a folder and everything below it, hidden names aside, without recursion. The visitor
// gets each folder before its entries and says whether to go on (false ends the walk); `entry`
// gets every entry and says whether it is a folder to walk into.
void walk(const QString &root, const std::function<bool(const QString &)> &visitFolder,
          const std::function<bool(const QString &, const dirent &)> &entry) {
    QStringList folders{root};
    while (!folders.isEmpty()) {
        const QString folder = folders.takeLast();
        if (!visitFolder(folder))
            return;
        DIR *directory = ::opendir(QFile::encodeName(folder).constData());
        if (!directory)
            continue;
        while (const dirent *item = ::readdir(directory)) {
            if (item->d_name[0] == '.')
                continue;
            const QString child = folder + u'/' + QFile::decodeName(item->d_name);
            if (entry(child, *item))
                folders.append(child);
        }
        ::closedir(directory);
    }
}

void snapshot(const QString &path, QHash<QString, HXFileIdentity> &items) {
    const HXFileIdentity identity = HXFileIdentity::ofPath(path);
    items.insert(path, identity);
    if (!identity.isDirectory)
        return;
    walk(
        path, [&](const QString &) { return items.size() < ownWriteEntryLimit; },
        [&](const QString &child, const dirent &) {
            const HXFileIdentity childIdentity = HXFileIdentity::ofPath(child);
            items.insert(child, childIdentity);
            return childIdentity.isDirectory;
        });
}

bool isHidden(const QString &path) {
    const qsizetype slash = path.lastIndexOf(u'/');
    return slash + 1 < path.size() && path.at(slash + 1) == u'.';
}

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

void HXFileMonitor::addSubtree(const QString &root, QSet<QString> &folders,
                               QStringList *packages) {
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
void HXFileMonitor::updateWatches(const QStringList &changedFolders) {
    if (!m_debounce)
        return; // not started yet; starting updates them
    QStringList gained, lost;
    auto take = [&](const QSet<QString> &folders) {
        for (const QString &folder : folders) {
            if (++m_wanted[folder] == 1)
                gained.append(folder);
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
    for (const QString &path : std::as_const(presented)) {
        auto tree = m_trees.find(path);
        if (tree == m_trees.end()) {
            QStringList packages;
            const QSet<QString> folders = treeOf(path, &packages);
            take(folders);
            m_trees.insert(path, folders);
            for (const QString &package : std::as_const(packages))
                m_deferredPackages.append({path, package});
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
            take(now - old);
            tree->subtract(old);
            tree->unite(now);
        }
    }

    for (const QString &folder : std::as_const(lost))
        removeFolder(folder);
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
                removeFolder(folder);
                if (m_wanted.contains(folder))
                    gained.append(folder);
            }
        }
    }
    for (const QString &folder : std::as_const(gained)) {
        if (!m_folders.contains(folder) && QFileInfo(folder).isDir())
            addFolder(folder);
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

void HXFileMonitor::addFolder(const QString &path) {
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
    // one is compared by times, so those are taken too.
    const bool polled = folder.descriptor < 0;
    if (DIR *directory = ::opendir(QFile::encodeName(path).constData())) {
        while (const dirent *item = ::readdir(directory)) {
            if (item->d_name[0] == '.')
                continue;
            const QString name = QFile::decodeName(item->d_name);
            if (polled || item->d_type == DT_UNKNOWN) {
                const HXFileIdentity identity = HXFileIdentity::ofPath(path + u'/' + name);
                if (identity.exists)
                    folder.entries.insert(name, polled ? entryOf(identity)
                                                       : Entry{identity.inode, 0,
                                                               identity.isDirectory});
            } else {
                folder.entries.insert(name, Entry{item->d_ino, 0, item->d_type == DT_DIR});
            }
        }
        ::closedir(directory);
    }
    m_folders.insert(path, std::move(folder));
}

void HXFileMonitor::removeFolder(const QString &path) {
    const Folder folder = m_folders.take(path);
    if (folder.descriptor >= 0 && m_byDescriptor.value(folder.descriptor) == path) {
        ::inotify_rm_watch(m_inotify, folder.descriptor);
        m_byDescriptor.remove(folder.descriptor);
    }
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

// --- Events --------------------------------------------------------------------------------------

void HXFileMonitor::readEvents() {
    alignas(inotify_event) char buffer[64 * 1024];
    for (;;) {
        const ssize_t length = ::read(m_inotify, buffer, sizeof buffer);
        if (length <= 0)
            break;
        for (ssize_t offset = 0; offset < length;) {
            const auto *event = reinterpret_cast<const inotify_event *>(buffer + offset);
            offset += sizeof(inotify_event) + event->len;
            if (event->mask & IN_Q_OVERFLOW) {
                m_rescanAll = true;
                continue;
            }
            const auto folder = m_byDescriptor.constFind(event->wd);
            if (folder == m_byDescriptor.cend())
                continue;
            const QString folderPath = *folder;
            if (event->mask & (IN_IGNORED | IN_MOVE_SELF | IN_DELETE_SELF)) {
                // The folder went; its name is reported by the folder above, and a folder that
                // comes in its place gets a watch of its own when the events settle.
                if (event->mask & IN_IGNORED || event->mask & IN_MOVE_SELF) {
                    if (!(event->mask & IN_IGNORED))
                        ::inotify_rm_watch(m_inotify, event->wd);
                    m_byDescriptor.remove(event->wd);
                    if (m_folders.contains(folderPath))
                        m_folders[folderPath].descriptor = -1;
                }
                noteTouched(folderPath);
                continue;
            }
            if (event->len == 0)
                continue;
            const QString path = folderPath + u'/' + QFile::decodeName(event->name);
            if (event->mask & IN_MOVED_FROM)
                m_movedFrom.insert(event->cookie, path);
            if ((event->mask & IN_MOVED_TO) && m_movedFrom.contains(event->cookie)) {
                const QString from = m_movedFrom.take(event->cookie);
                if (!isHidden(from) && !isHidden(path))
                    m_moves.append({from, path});
            }
            if (!isHidden(path))
                noteTouched(path);
        }
    }
    if (m_rescanAll)
        scheduleSettle();
}

void HXFileMonitor::noteTouched(const QString &path) {
    m_touched.insert(path);
    scheduleSettle();
}

void HXFileMonitor::scheduleSettle() {
    // Not restarted by later events: a change reaches its presenters at most one interval late.
    if (!m_settling && !m_debounce->isActive())
        m_debounce->start();
}

void HXFileMonitor::poll() {
    const QStringList folders = m_folders.keys();
    for (const QString &folder : folders) {
        if (m_folders.value(folder).descriptor < 0)
            rescan(folder);
    }
    if (!m_touched.isEmpty())
        settle();
}

void HXFileMonitor::rescan(const QString &path) {
    const auto found = m_folders.constFind(path);
    if (found == m_folders.cend())
        return;
    const QHash<QString, Entry> known = found->entries;
    QSet<QString> seen;
    const QDir directory(path);
    for (const QString &name :
         directory.entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)) {
        seen.insert(name);
        const HXFileIdentity identity = HXFileIdentity::ofPath(directory.filePath(name));
        if (!known.contains(name) || known.value(name) != entryOf(identity))
            m_touched.insert(directory.filePath(name));
    }
    for (auto it = known.cbegin(); it != known.cend(); ++it) {
        if (!seen.contains(it.key()))
            m_touched.insert(directory.filePath(it.key()));
    }
}

bool HXFileMonitor::isOwnWrite(const QString &path, const HXFileIdentity &identity) {
    OwnWrites &writes = ownWrites();
    std::lock_guard lock(writes.mutex);
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    // The latest write that covers the path knows its state last.
    OwnWrites::Write *latest = nullptr;
    for (auto it = writes.byPath.begin(); it != writes.byPath.end(); ++it) {
        if (it->expiry >= now && HXFileCoordinator::isAncestorOrSelf(it.key(), path) &&
            (!latest || it->sequence > latest->sequence))
            latest = &*it;
    }
    if (!latest)
        return false;
    const auto item = latest->items.find(path);
    if (item == latest->items.end())
        // Not there when the write ended, and still not there: a name the write used on the way.
        return !identity.exists;
    // A folder's times move with every entry made in it, by us as well: it is the same folder
    // while it is the same inode.
    const bool same = item->isDirectory && identity.isDirectory
                          ? item->exists == identity.exists && item->inode == identity.inode
                          : *item == identity;
    if (same)
        return true;
    // Changed since by someone else: from now on the path's changes are not ours.
    latest->items.erase(item);
    return false;
}

// Forgets the writes whose events a settling has taken.
void HXFileMonitor::forgetOwnWritesUpTo(quint64 sequence) {
    OwnWrites &writes = ownWrites();
    std::lock_guard lock(writes.mutex);
    for (auto it = writes.byPath.begin(); it != writes.byPath.end();)
        it = it->sequence <= sequence ? writes.byPath.erase(it) : std::next(it);
}

quint64 HXFileMonitor::lastOwnWriteSequence() {
    OwnWrites &writes = ownWrites();
    std::lock_guard lock(writes.mutex);
    return writes.lastSequence;
}

// Whether a write of ours left the item there: then it counts as known even before the events of
// that write have settled.
bool HXFileMonitor::ownWriteLeftItem(const QString &path) {
    OwnWrites &writes = ownWrites();
    std::lock_guard lock(writes.mutex);
    for (auto it = writes.byPath.cbegin(); it != writes.byPath.cend(); ++it) {
        const auto item = it->items.constFind(path);
        if (item != it->items.cend() && item->exists)
            return true;
    }
    return false;
}

// Writes remembered for a folder that was not watched since can't be told from what others did
// meanwhile.
void HXFileMonitor::forgetOwnWritesIn(const QString &folder) {
    OwnWrites &writes = ownWrites();
    std::lock_guard lock(writes.mutex);
    for (auto it = writes.byPath.begin(); it != writes.byPath.end();) {
        if (HXFileCoordinator::isAncestorOrSelf(folder, it.key()))
            it = writes.byPath.erase(it);
        else
            ++it;
    }
}

void HXFileMonitor::settle() {
    // The writes of ours that ended before this point caused events that are in the kernel's
    // queue now: take them all, and those writes can be forgotten once they are settled.
    const quint64 settledWrites = lastOwnWriteSequence();
    m_settling = true;
    if (m_inotify >= 0)
        readEvents();
    m_settling = false;
    if (m_rescanAll) {
        m_rescanAll = false;
        m_moves.clear();
        const QStringList folders = m_folders.keys();
        for (const QString &folder : folders)
            rescan(folder);
    }
    // A write of ours still under way settles when it is done.
    for (const QString &path : std::as_const(m_touched)) {
        if (HXFileCoordinator::isBeingWritten(path)) {
            m_debounce->start();
            return;
        }
    }

    struct Settled {
        HXFileCoordinator::Change change;
        QString path;
        QString newPath;
    };
    QList<Settled> changes;
    auto knownEntry = [&](const QString &path, Entry *entry) {
        const auto folder = m_folders.constFind(QFileInfo(path).absolutePath());
        if (folder == m_folders.cend())
            return false;
        const auto found = folder->entries.constFind(QFileInfo(path).fileName());
        if (found == folder->entries.cend())
            return false;
        if (entry)
            *entry = *found;
        return true;
    };
    auto record = [&](const QString &path, const HXFileIdentity &identity) {
        auto folder = m_folders.find(QFileInfo(path).absolutePath());
        if (folder == m_folders.end())
            return;
        if (identity.exists)
            folder->entries.insert(QFileInfo(path).fileName(), entryOf(identity));
        else
            folder->entries.remove(QFileInfo(path).fileName());
    };

    QSet<QString> touched = m_touched;
    m_touched.clear();
    const QList<QPair<QString, QString>> moves = m_moves;
    m_moves.clear();
    m_movedFrom.clear();
    QStringList changedFolders;

    for (const auto &[from, to] : moves) {
        const HXFileIdentity source = HXFileIdentity::ofPath(from);
        const HXFileIdentity target = HXFileIdentity::ofPath(to);
        // A name made and renamed within one settling is no move; neither is a move whose
        // source came back: both settle below as plain changes.
        if (source.exists || !target.exists || !knownEntry(from, nullptr))
            continue;
        touched.remove(from);
        touched.remove(to);
        record(from, source);
        record(to, target);
        if (target.isDirectory)
            changedFolders << from << to;
        if (isOwnWrite(from, source) && isOwnWrite(to, target))
            continue;
        changes.append({HXFileCoordinator::Change::Moved, from, to});
    }
    QStringList paths(touched.cbegin(), touched.cend());
    paths.sort();
    for (const QString &path : std::as_const(paths)) {
        const HXFileIdentity identity = HXFileIdentity::ofPath(path);
        Entry known;
        const bool wasKnown = knownEntry(path, &known) || ownWriteLeftItem(path);
        record(path, identity);
        if (identity.isDirectory || (wasKnown && known.isDirectory))
            changedFolders << path;
        if (isOwnWrite(path, identity))
            continue;
        if (identity.exists && wasKnown) {
            changes.append({HXFileCoordinator::Change::Changed, path, {}});
        } else if (identity.exists) {
            changes.append({HXFileCoordinator::Change::Appeared, path, {}});
        } else if (wasKnown) {
            const QString moved = movedLocationOfPresentedItem(path);
            if (!moved.isEmpty())
                changes.append({HXFileCoordinator::Change::Moved, path, moved});
            else
                changes.append({HXFileCoordinator::Change::Deleted, path, {}});
        }
    }

    // What happened inside an item that went away is part of its going.
    QStringList gone;
    for (const Settled &settled : std::as_const(changes)) {
        if (settled.change == HXFileCoordinator::Change::Deleted ||
            settled.change == HXFileCoordinator::Change::Moved)
            gone.append(settled.path);
    }
    changes.removeIf([&](const Settled &settled) {
        return std::any_of(gone.cbegin(), gone.cend(), [&](const QString &path) {
            return path != settled.path && HXFileCoordinator::isAncestorOrSelf(path, settled.path);
        });
    });
    QSet<QString> sent;
    for (const Settled &settled : std::as_const(changes)) {
        if (settled.change == HXFileCoordinator::Change::Moved)
            HXFileCoordinator::rebasePresenters(settled.path, settled.newPath);
        HXFileCoordinator::announceChange(settled.change, settled.path, settled.newPath, nullptr,
                                          false, &sent);
    }
    if (!changedFolders.isEmpty() || !changes.isEmpty())
        updateWatches(changedFolders);
    else
        rememberPresentedItems(); // a presented item replaced by our own save is a new inode
    forgetOwnWritesUpTo(settledWrites);
}
