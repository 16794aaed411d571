#include "Utilities/HXFileCoordinator.h"

#include "Utilities/HXApplicationLog.h"
#include "Utilities/HXFileMonitor.h"
#include "Utilities/HXFileSystem.h"
#include "Utilities/HXUniqueIdentifier.h"

#include <QDir>
#include <QFileInfo>
#include <QHash>
#include <QSet>
#include <QStandardPaths>
#include <QThreadPool>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <fcntl.h>
#include <list>
#include <mutex>
#include <sys/file.h>
#include <thread>
#include <unistd.h>

namespace {

struct PresenterEntry {
    HXFilePresenterRef presenter;
    QString path;
};

struct Registry {
    std::mutex mutex;
    std::vector<PresenterEntry> presenters;
    QStringList packageExtensions;
    QStringList roots;
    std::atomic<int> timeout{10000};
};

Registry &registry() {
    static Registry instance;
    return instance;
}

// --- Exclusion within the process --------------------------------------------------------------

struct Access {
    std::thread::id thread;
    QList<QPair<QString, bool>> items; // path, write
};

struct AccessTable {
    std::mutex mutex;
    std::condition_variable changed;
    std::list<Access *> active;
    std::list<Access *> waiting;
};

AccessTable &accessTable() {
    static AccessTable table;
    return table;
}

bool related(const QString &a, const QString &b) {
    return HXFileCoordinator::isAncestorOrSelf(a, b) || HXFileCoordinator::isAncestorOrSelf(b, a);
}

bool conflicts(const Access &a, const Access &b) {
    if (a.thread == b.thread)
        return false;
    for (const auto &[pathA, writeA] : a.items) {
        for (const auto &[pathB, writeB] : b.items) {
            if ((writeA || writeB) && related(pathA, pathB))
                return true;
        }
    }
    return false;
}

bool holdsAccess(const AccessTable &table, std::thread::id thread) {
    return std::any_of(table.active.begin(), table.active.end(),
                       [&](const Access *access) { return access->thread == thread; });
}

// Waits until no access of another thread conflicts, nor an earlier waiting one (so writers are
// not starved by a stream of readers). A thread that holds an access already only waits for
// active ones, since a waiting one may be waiting for it.
void acquire(Access &access) {
    AccessTable &table = accessTable();
    std::unique_lock lock(table.mutex);
    const bool nested = holdsAccess(table, access.thread);
    auto blocked = [&] {
        for (const Access *other : table.active) {
            if (conflicts(access, *other))
                return true;
        }
        if (!nested) {
            for (const Access *other : table.waiting) {
                if (other == &access)
                    break;
                if (conflicts(access, *other))
                    return true;
            }
        }
        return false;
    };
    if (blocked()) {
        table.waiting.push_back(&access);
        const bool onPool = HXDispatchQueue::isPoolThread();
        if (onPool)
            HXDispatchQueue::threadPool()->releaseThread();
        table.changed.wait(lock, [&] { return !blocked(); });
        if (onPool)
            HXDispatchQueue::threadPool()->reserveThread();
        table.waiting.remove(&access);
    }
    table.active.push_back(&access);
}

void release(Access &access) {
    AccessTable &table = accessTable();
    {
        std::lock_guard lock(table.mutex);
        table.active.remove(&access);
    }
    table.changed.notify_all();
}

// --- Exclusion between processes ---------------------------------------------------------------

struct ProcessLock {
    int fd = -1;
    int count = 0;
    bool acquiring = false;
};

struct ProcessLocks {
    std::mutex mutex;
    std::condition_variable changed;
    QHash<QString, ProcessLock> byFile;
};

ProcessLocks &processLocks() {
    static ProcessLocks locks;
    return locks;
}

QString lockFileForRoot(const QString &root) {
    QString folder = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (folder.isEmpty())
        folder = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    folder += QStringLiteral("/velmora");
    QDir().mkpath(folder);
    return QStringLiteral("%1/%2.lock")
        .arg(folder)
        .arg(HXFNV1a64(root.toUtf8()), 16, 16, QLatin1Char('0'));
}

QString rootForPath(const QString &path) {
    Registry &reg = registry();
    QString best;
    {
        std::lock_guard lock(reg.mutex);
        for (const QString &root : reg.roots) {
            if (root.size() > best.size() && HXFileCoordinator::isAncestorOrSelf(root, path))
                best = root;
        }
    }
    if (!best.isEmpty())
        return best;
    // Outside any root: the folder that holds the item, or for something inside a package the
    // folder that holds the package, so that writers of a package and of its files exclude each
    // other.
    QString item = path;
    for (QString above = QFileInfo(path).absolutePath(); above != u"/" && above.size() > 1;
         above = QFileInfo(above).absolutePath()) {
        if (HXFileCoordinator::isPackagePath(above))
            item = above;
    }
    return QFileInfo(item).absolutePath();
}

// Takes the lock files of the roots in a fixed order, so that two processes that write in two
// libraries at once can't each wait for the other.
QStringList acquireProcessLocks(const QStringList &roots) {
    QStringList files;
    for (const QString &root : roots)
        files.append(lockFileForRoot(root));
    files.sort();
    files.removeDuplicates();
    ProcessLocks &locks = processLocks();
    const bool onPool = HXDispatchQueue::isPoolThread();
    for (const QString &file : std::as_const(files)) {
        std::unique_lock lock(locks.mutex);
        ProcessLock &entry = locks.byFile[file];
        if (entry.acquiring) {
            if (onPool)
                HXDispatchQueue::threadPool()->releaseThread();
            locks.changed.wait(lock, [&] { return !locks.byFile[file].acquiring; });
            if (onPool)
                HXDispatchQueue::threadPool()->reserveThread();
        }
        ProcessLock &current = locks.byFile[file];
        if (current.count > 0) {
            ++current.count;
            continue;
        }
        current.acquiring = true;
        int fd = current.fd;
        lock.unlock();
        if (fd < 0)
            fd = ::open(QFile::encodeName(file).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd >= 0) {
            if (onPool)
                HXDispatchQueue::threadPool()->releaseThread();
            while (::flock(fd, LOCK_EX) != 0 && errno == EINTR) {
            }
            if (onPool)
                HXDispatchQueue::threadPool()->reserveThread();
        } else {
            HXApplicationLog::sharedInstance()->logError(
                u"Can't open the lock file %@; writes are not excluded from other processes.",
                file);
        }
        lock.lock();
        ProcessLock &done = locks.byFile[file];
        done.fd = fd;
        done.acquiring = false;
        done.count = 1;
        locks.changed.notify_all();
    }
    return files;
}

void releaseProcessLocks(const QStringList &files) {
    ProcessLocks &locks = processLocks();
    std::lock_guard lock(locks.mutex);
    for (const QString &file : files) {
        ProcessLock &entry = locks.byFile[file];
        if (--entry.count == 0 && entry.fd >= 0)
            ::flock(entry.fd, LOCK_UN);
    }
}

// --- Presenters ----------------------------------------------------------------------------------

std::vector<PresenterEntry> presentersSnapshot() {
    Registry &reg = registry();
    std::lock_guard lock(reg.mutex);
    return reg.presenters;
}

// Waits for a set of presenter requests, each answered by calling its `done`, up to the timeout.
// A late answer finds the shared state still there and does no harm.
class Answers {
public:
    std::function<void()> expect() {
        {
            std::lock_guard lock(m_state->mutex);
            ++m_state->remaining;
        }
        auto answered = std::make_shared<std::atomic<bool>>(false);
        return [answered, state = m_state] {
            if (answered->exchange(true))
                return;
            std::lock_guard lock(state->mutex);
            if (--state->remaining == 0)
                state->condition.notify_all();
        };
    }
    void wait(const QString &path) {
        std::unique_lock lock(m_state->mutex);
        if (m_state->remaining == 0)
            return;
        const bool onPool = HXDispatchQueue::isPoolThread();
        if (onPool)
            HXDispatchQueue::threadPool()->releaseThread();
        const bool answered =
            m_state->condition.wait_for(lock, std::chrono::milliseconds(registry().timeout.load()),
                                        [&] { return m_state->remaining == 0; });
        if (onPool)
            HXDispatchQueue::threadPool()->reserveThread();
        if (!answered)
            HXApplicationLog::sharedInstance()->logError(
                u"A presenter of %@ didn't answer in time; the access goes ahead.", path);
    }

private:
    struct State {
        std::mutex mutex;
        std::condition_variable condition;
        int remaining = 0;
    };
    std::shared_ptr<State> m_state = std::make_shared<State>();
};

// The blocks that presenters gave to be called when an access is over. One that comes after the
// access ended (the presenter answered after the timeout) is called at once.
struct Reacquirers {
    std::mutex mutex;
    std::vector<std::pair<HXFilePresenterRef, std::function<void()>>> blocks;
    bool accessEnded = false;
};

// Runs a request on the presenter's queue (at once when that is the queue we are on).
void ask(const HXFilePresenterRef &presenter, std::function<void()> request) {
    const auto queue = presenter->presentedItemOperationQueue();
    if (!queue || HXDispatchQueue::current() == queue.get())
        request();
    else
        queue->async(std::move(request));
}

void tell(const HXFilePresenterRef &presenter, std::function<void()> message) {
    const auto queue = presenter->presentedItemOperationQueue();
    if (queue)
        queue->async(std::move(message));
    else
        message();
}

QString folded(const QString &presenterPath, const QString &path) {
    return HXFileCoordinator::itemPathBelow(presenterPath, path);
}

} // namespace

// --- The coordinator -----------------------------------------------------------------------------

HXFileCoordinator::HXFileCoordinator(HXFilePresenterRef filePresenter)
    : m_filePresenter(std::move(filePresenter)) {}

HXFileCoordinator::~HXFileCoordinator() = default;

QString HXFileCoordinator::standardizedPath(const QString &path) {
    if (path.startsWith(u'/'))
        return QDir::cleanPath(path);
    return QDir::cleanPath(QFileInfo(path).absoluteFilePath());
}

bool HXFileCoordinator::isAncestorOrSelf(const QString &ancestor, const QString &path) {
    if (!path.startsWith(ancestor))
        return false;
    return path.size() == ancestor.size() || ancestor == u"/" || path.at(ancestor.size()) == u'/';
}

void HXFileCoordinator::addFilePresenter(const HXFilePresenterRef &presenter) {
    if (!presenter)
        return;
    const QString path = standardizedPath(presenter->presentedItemURL());
    {
        Registry &reg = registry();
        std::lock_guard lock(reg.mutex);
        for (const PresenterEntry &entry : reg.presenters) {
            if (entry.presenter == presenter)
                return;
        }
        reg.presenters.push_back({presenter, path});
    }
    HXFileMonitor::presentersChanged();
}

void HXFileCoordinator::removeFilePresenter(const HXFilePresenter *presenter) {
    {
        Registry &reg = registry();
        std::lock_guard lock(reg.mutex);
        std::erase_if(reg.presenters, [&](const PresenterEntry &entry) {
            return entry.presenter.get() == presenter;
        });
    }
    HXFileMonitor::presentersChanged();
}

QList<HXFilePresenterRef> HXFileCoordinator::filePresenters() {
    QList<HXFilePresenterRef> list;
    for (const PresenterEntry &entry : presentersSnapshot())
        list.append(entry.presenter);
    return list;
}

void HXFileCoordinator::addCoordinationRoot(const QString &path) {
    Registry &reg = registry();
    std::lock_guard lock(reg.mutex);
    const QString root = standardizedPath(path);
    if (!reg.roots.contains(root))
        reg.roots.append(root);
}

void HXFileCoordinator::removeCoordinationRoot(const QString &path) {
    Registry &reg = registry();
    std::lock_guard lock(reg.mutex);
    reg.roots.removeOne(standardizedPath(path));
}

void HXFileCoordinator::addPackagePathExtensions(const QStringList &extensions) {
    Registry &reg = registry();
    std::lock_guard lock(reg.mutex);
    for (const QString &extension : extensions) {
        if (!reg.packageExtensions.contains(extension, Qt::CaseInsensitive))
            reg.packageExtensions.append(extension);
    }
}

bool HXFileCoordinator::isPackagePath(const QString &path) {
    const qsizetype dot = path.lastIndexOf(u'.');
    if (dot < 0 || path.indexOf(u'/', dot) >= 0)
        return false;
    const QString extension = path.mid(dot + 1);
    Registry &reg = registry();
    std::lock_guard lock(reg.mutex);
    return reg.packageExtensions.contains(extension, Qt::CaseInsensitive);
}

QString HXFileCoordinator::itemPathBelow(const QString &folder, const QString &path) {
    if (!isAncestorOrSelf(folder, path) || path.size() == folder.size())
        return path;
    qsizetype end = folder == u"/" ? 1 : folder.size() + 1;
    while (end < path.size()) {
        qsizetype slash = path.indexOf(u'/', end);
        if (slash < 0)
            break;
        const QString candidate = path.left(slash);
        if (isPackagePath(candidate))
            return candidate;
        end = slash + 1;
    }
    return path;
}

bool HXFileCoordinator::isBeingWritten(const QString &path) {
    AccessTable &table = accessTable();
    std::lock_guard lock(table.mutex);
    for (const Access *access : table.active) {
        for (const auto &[itemPath, write] : access->items) {
            if (write && related(itemPath, path))
                return true;
        }
    }
    return false;
}

void HXFileCoordinator::setPresenterTimeout(int milliseconds) {
    registry().timeout = milliseconds;
}

bool HXFileCoordinator::coordinateReadingItemAtURL(
    const QString &url, int options, HXError *error,
    const std::function<void(const QString &)> &accessor) {
    return coordinate({Item{standardizedPath(url), false, options}}, error,
                      [&](const QStringList &paths) { accessor(paths.at(0)); });
}

bool HXFileCoordinator::coordinateWritingItemAtURL(
    const QString &url, int options, HXError *error,
    const std::function<void(const QString &)> &accessor) {
    return coordinate({Item{standardizedPath(url), true, options}}, error,
                      [&](const QStringList &paths) { accessor(paths.at(0)); });
}

bool HXFileCoordinator::coordinateReadingItemAtURL(
    const QString &readingURL, int readingOptions, const QString &writingURL, int writingOptions,
    HXError *error, const std::function<void(const QString &, const QString &)> &accessor) {
    return coordinate({Item{standardizedPath(readingURL), false, readingOptions},
                       Item{standardizedPath(writingURL), true, writingOptions}},
                      error, [&](const QStringList &paths) { accessor(paths.at(0), paths.at(1)); });
}

bool HXFileCoordinator::coordinateWritingItemAtURL(
    const QString &url, int options, const QString &otherURL, int otherOptions, HXError *error,
    const std::function<void(const QString &, const QString &)> &accessor) {
    return coordinate({Item{standardizedPath(url), true, options},
                       Item{standardizedPath(otherURL), true, otherOptions}},
                      error, [&](const QStringList &paths) { accessor(paths.at(0), paths.at(1)); });
}

void HXFileCoordinator::itemAtURL(const QString &oldURL, const QString &newURL) {
    const QString from = standardizedPath(oldURL), to = standardizedPath(newURL);
    m_moves.append({from, to});
    rebasePresenters(from, to);
}

void HXFileCoordinator::rebasePresenters(const QString &from, const QString &to) {
    Registry &reg = registry();
    {
        std::lock_guard lock(reg.mutex);
        for (PresenterEntry &entry : reg.presenters) {
            if (isAncestorOrSelf(from, entry.path))
                entry.path = to + entry.path.mid(from.size());
        }
    }
    HXFileMonitor::presentersChanged();
}

QList<QPair<HXFilePresenterRef, QString>> HXFileCoordinator::presentersWithPaths() {
    QList<QPair<HXFilePresenterRef, QString>> list;
    for (const PresenterEntry &entry : presentersSnapshot())
        list.append({entry.presenter, entry.path});
    return list;
}

void HXFileCoordinator::announceChange(Change change, const QString &path, const QString &newPath,
                                       const HXFilePresenter *excluded, bool accommodated,
                                       QSet<QString> *sent) {
    auto once = [&](const HXFilePresenter *presenter, const QString &key) {
        if (!sent)
            return true;
        const QString tag = QString::number(quintptr(presenter), 16) + key;
        if (sent->contains(tag))
            return false;
        sent->insert(tag);
        return true;
    };
    auto changed = [&](const HXFilePresenterRef &presenter) {
        if (once(presenter.get(), QStringLiteral(":changed")))
            tell(presenter, [presenter] { presenter->presentedItemDidChange(); });
    };
    auto subitemChanged = [&](const HXFilePresenterRef &presenter, const QString &item) {
        if (once(presenter.get(), u':' + item))
            tell(presenter, [presenter, item] { presenter->presentedSubitemDidChangeAtURL(item); });
    };
    auto subitemDeleted = [&](const HXFilePresenterRef &presenter, const QString &item) {
        tell(presenter, [presenter, item] {
            presenter->accommodatePresentedSubitemDeletionAtURL(item, [](const HXError *) {});
        });
    };
    auto subitemAppeared = [&](const HXFilePresenterRef &presenter, const QString &item) {
        tell(presenter, [presenter, item] { presenter->presentedSubitemDidAppearAtURL(item); });
    };

    for (const PresenterEntry &entry : presentersSnapshot()) {
        const HXFilePresenterRef &presenter = entry.presenter;
        if (presenter.get() == excluded)
            continue;
        if (change == Change::Moved) {
            if (isAncestorOrSelf(newPath, entry.path)) {
                // Moved with the item; the registry has it at its new place already.
                const QString moved = entry.path;
                tell(presenter,
                     [presenter, moved] { presenter->presentedItemDidMoveToURL(moved); });
                continue;
            }
            const bool aboveOld = isAncestorOrSelf(entry.path, path);
            const bool aboveNew = isAncestorOrSelf(entry.path, newPath);
            if (!aboveOld && !aboveNew)
                continue;
            if (isPackagePath(entry.path)) {
                changed(presenter);
                continue;
            }
            const QString oldItem = folded(entry.path, path), newItem = folded(entry.path, newPath);
            if (aboveOld && aboveNew && oldItem == path && newItem == newPath) {
                tell(presenter, [presenter, path, newPath] {
                    presenter->presentedSubitemAtURL(path, newPath);
                });
                continue;
            }
            if (aboveOld) {
                if (oldItem != path)
                    subitemChanged(presenter, oldItem);
                else
                    subitemDeleted(presenter, oldItem);
            }
            if (aboveNew) {
                if (newItem != newPath)
                    subitemChanged(presenter, newItem);
                else
                    subitemAppeared(presenter, newItem);
            }
            continue;
        }
        if (isAncestorOrSelf(path, entry.path)) {
            // The item itself, or something inside what changed.
            if (change == Change::Deleted || !HXFileIdentity::ofPath(entry.path).exists) {
                if (!accommodated)
                    tell(presenter, [presenter] {
                        presenter->accommodatePresentedItemDeletionWithCompletionHandler(
                            [](const HXError *) {});
                    });
            } else {
                changed(presenter);
            }
            continue;
        }
        if (!isAncestorOrSelf(entry.path, path))
            continue;
        if (isPackagePath(entry.path)) {
            changed(presenter);
            continue;
        }
        const QString item = folded(entry.path, path);
        if (item != path || change == Change::Changed)
            subitemChanged(presenter, item);
        else if (change == Change::Appeared)
            subitemAppeared(presenter, item);
        else if (!accommodated)
            subitemDeleted(presenter, item);
    }
}

bool HXFileCoordinator::coordinate(const QList<Item> &items, HXError *error,
                                   const std::function<void(const QStringList &)> &accessor) {
    (void)error; // an access is always granted in the end; the timeout only ends waiting
    const HXFilePresenter *own = m_filePresenter.get();
    HXApplicationLog *log = HXApplicationLog::sharedInstance();
    const bool logging = HXApplicationLog::isExtensiveLogging();
    if (logging) {
        for (const Item &item : items)
            log->logCoordinatingFileAtURL(item.path, false, __FILE__, __LINE__);
    }

    // Before: presenters of the items and of what lies inside save and give way; a deletion is
    // accommodated by them and by the folders above.
    std::vector<PresenterEntry> presenters = presentersSnapshot();
    const auto reacquirers = std::make_shared<Reacquirers>();
    if (!presenters.empty()) {
        Answers answers;
        for (const Item &item : items) {
            const bool quiet = !item.write && (item.options & ReadingWithoutChanges);
            for (const PresenterEntry &entry : presenters) {
                if (entry.presenter.get() == own)
                    continue;
                const HXFilePresenterRef presenter = entry.presenter;
                if (isAncestorOrSelf(item.path, entry.path)) {
                    if (item.write && (item.options & WritingForDeleting)) {
                        auto done = answers.expect();
                        ask(presenter, [presenter, done] {
                            presenter->accommodatePresentedItemDeletionWithCompletionHandler(
                                [done](const HXError *) { done(); });
                        });
                        continue;
                    }
                    if (quiet)
                        continue;
                    auto saved = answers.expect();
                    auto gaveWay = answers.expect();
                    const bool write = item.write;
                    ask(presenter, [presenter, saved, gaveWay, write, reacquirers] {
                        presenter->savePresentedItemChangesWithCompletionHandler(
                            [saved](const HXError *) { saved(); });
                        auto relinquished = [presenter, gaveWay,
                                             reacquirers](std::function<void()> reacquirer) {
                            if (reacquirer) {
                                std::unique_lock lock(reacquirers->mutex);
                                if (reacquirers->accessEnded) {
                                    lock.unlock();
                                    tell(presenter, std::move(reacquirer));
                                } else {
                                    reacquirers->blocks.emplace_back(presenter,
                                                                     std::move(reacquirer));
                                }
                            }
                            gaveWay();
                        };
                        if (write)
                            presenter->relinquishPresentedItemToWriter(relinquished);
                        else
                            presenter->relinquishPresentedItemToReader(relinquished);
                    });
                } else if (item.write && (item.options & WritingForDeleting) &&
                           isAncestorOrSelf(entry.path, item.path) &&
                           folded(entry.path, item.path) == item.path &&
                           !isPackagePath(entry.path)) {
                    auto done = answers.expect();
                    const QString path = item.path;
                    ask(presenter, [presenter, path, done] {
                        presenter->accommodatePresentedSubitemDeletionAtURL(
                            path, [done](const HXError *) { done(); });
                    });
                }
            }
        }
        answers.wait(items.first().path);
    }

    Access access{std::this_thread::get_id(), {}};
    QStringList roots;
    QList<HXFileIdentity> before;
    for (const Item &item : items) {
        access.items.append({item.path, item.write});
        if (item.write)
            roots.append(rootForPath(item.path));
    }
    acquire(access);
    const QStringList lockFiles = roots.isEmpty() ? QStringList() : acquireProcessLocks(roots);
    // Taken once the access is ours: a writer that went before may have changed the items.
    for (const Item &item : items)
        before.append(item.write ? HXFileIdentity::ofPath(item.path) : HXFileIdentity());
    QStringList paths;
    for (const Item &item : items)
        paths.append(item.path);

    struct Release {
        HXFileCoordinator *coordinator;
        Access &access;
        const QStringList &lockFiles;
        const QList<Item> &items;
        ~Release() {
            // What was written is remembered as ours before the exclusion ends, so the monitor
            // can't take it for a change by another process.
            for (const Item &item : items) {
                if (item.write)
                    HXFileMonitor::noteOwnWrite(item.path);
            }
            for (const auto &[from, to] : coordinator->m_moves) {
                HXFileMonitor::noteOwnWrite(from);
                HXFileMonitor::noteOwnWrite(to);
            }
            if (!lockFiles.isEmpty())
                releaseProcessLocks(lockFiles);
            release(access);
        }
    };
    const QList<QPair<QString, QString>> earlierMoves = m_moves;
    m_moves.clear();
    {
        Release releasing{this, access, lockFiles, items};
        accessor(paths);
    }
    const QList<QPair<QString, QString>> moves = m_moves;
    m_moves = earlierMoves;

    {
        std::lock_guard lock(reacquirers->mutex);
        for (const auto &[presenter, reacquirer] : reacquirers->blocks)
            tell(presenter, reacquirer);
        reacquirers->blocks.clear();
        reacquirers->accessEnded = true;
    }

    // After: the others hear what changed.
    QSet<QString> sent;
    auto partOfMove = [&](const QString &path) {
        return std::any_of(moves.begin(), moves.end(), [&](const auto &move) {
            return move.first == path || move.second == path;
        });
    };
    for (qsizetype i = 0; i < items.size(); ++i) {
        const Item &item = items.at(i);
        if (!item.write || partOfMove(item.path))
            continue;
        const bool existed = before.at(i).exists;
        const HXFileIdentity after = HXFileIdentity::ofPath(item.path);
        const bool exists = after.exists;
        // An accessor that found nothing to write changed nothing.
        if ((!existed && !exists) || (exists && after == before.at(i)))
            continue;
        const Change change = !existed ? Change::Appeared
                              : exists ? Change::Changed
                                       : Change::Deleted;
        announceChange(change, item.path, QString(), own, item.options & WritingForDeleting, &sent);
    }
    for (const auto &[from, to] : moves)
        announceChange(Change::Moved, from, to, own, false, &sent);
    if (logging) {
        for (const Item &item : items)
            log->logCoordinatingFileAtURL(item.path, true, __FILE__, __LINE__);
    }
    return true;
}
