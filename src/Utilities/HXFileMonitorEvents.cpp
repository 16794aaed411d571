// The file monitor's events: reading them from the kernel, polling, and settling what they
// touched against the disk.
#include "Utilities/HXApplicationLog.h"
#include "Utilities/HXFileCoordinator.h"
#include "Utilities/HXFileMonitor.h"
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
                // comes in its place gets a watch of its own when the events settle. A watch
                // goes with its folder when that moves, and follows it to its new path then:
                // until that, what happens inside comes under the old path.
                if (event->mask & IN_IGNORED) {
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

bool HXFileMonitor::isAnyTouchedBeingWritten() const {
    return std::any_of(m_touched.cbegin(), m_touched.cend(),
                       [](const QString &path) { return HXFileCoordinator::isBeingWritten(path); });
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
    if (isAnyTouchedBeingWritten()) {
        m_debounce->start();
        return;
    }

    // Folders that come into view are listed and compared with what was known of them before
    // anything is told, so that what they hold settles with them: presenters that hear of a
    // folder that appeared read it afterwards and find at least what the listing found.
    QList<Settled> changes;
    QStringList gone;
    auto isInside = [](const QStringList &items, const QString &path) {
        return std::any_of(items.cbegin(), items.cend(), [&](const QString &item) {
            return item != path && HXFileCoordinator::isAncestorOrSelf(item, path);
        });
    };
    bool complete = true;
    for (int round = 1;; ++round) {
        const qsizetype first = changes.size();
        const QStringList changedFolders = settleTouched(changes);
        for (qsizetype i = first; i < changes.size(); ++i) {
            if (changes.at(i).change == HXFileCoordinator::Change::Deleted ||
                changes.at(i).change == HXFileCoordinator::Change::Moved)
                gone.append(changes.at(i).path);
        }
        // Presenters follow their items before the watches follow the presenters.
        for (qsizetype i = first; i < changes.size(); ++i) {
            const Settled &settled = changes.at(i);
            if (settled.change == HXFileCoordinator::Change::Moved && !isInside(gone, settled.path))
                HXFileCoordinator::rebasePresenters(settled.path, settled.newPath);
        }
        if (!changedFolders.isEmpty() || changes.size() > first)
            updateWatches(changedFolders);
        else
            rememberPresentedItems(); // a presented item replaced by our own save is a new inode
        if (m_touched.isEmpty())
            break;
        // The events of new watches for what their listings hold are queued by now: taken
        // together with the listings, they settle once.
        m_settling = true;
        if (m_inotify >= 0)
            readEvents();
        m_settling = false;
        if (round == settleRounds || m_rescanAll || isAnyTouchedBeingWritten()) {
            complete = false;
            break;
        }
    }

    // What happened inside an item that went away is part of its going, and what is inside an
    // item that appeared is part of its appearing.
    QStringList appeared;
    for (const Settled &settled : std::as_const(changes)) {
        if (settled.change == HXFileCoordinator::Change::Appeared)
            appeared.append(settled.path);
    }
    changes.removeIf([&](const Settled &settled) {
        return isInside(gone, settled.path) ||
               (isInside(appeared, settled.path) &&
                (settled.newPath.isEmpty() || isInside(appeared, settled.newPath)));
    });
    QSet<QString> sent;
    for (const Settled &settled : std::as_const(changes))
        HXFileCoordinator::announceChange(settled.change, settled.path, settled.newPath, nullptr,
                                          false, &sent);
    if (!complete) {
        // What is left settles next time, with the writes of ours it may come from.
        m_debounce->start();
        return;
    }
    forgetOwnWritesUpTo(settledWrites);
}

QStringList HXFileMonitor::settleTouched(QList<Settled> &changes) {
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

    QSet<QString> touched = std::exchange(m_touched, {});
    const QList<QPair<QString, QString>> moves = std::exchange(m_moves, {});
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
        if (target.isDirectory) {
            changedFolders << from << to;
            // The watches went with the folders; what they told until they follow came under
            // the old paths.
            for (auto it = m_folders.cbegin(); it != m_folders.cend(); ++it) {
                if (!HXFileCoordinator::isAncestorOrSelf(from, it.key()))
                    continue;
                Folder carried = *it;
                if (carried.descriptor >= 0 && m_byDescriptor.value(carried.descriptor) != it.key())
                    carried.descriptor = -1;
                m_carried.insert(to + it.key().mid(from.size()), std::move(carried));
            }
            const QSet<QString> inside = touched;
            for (const QString &path : inside) {
                if (path != from && HXFileCoordinator::isAncestorOrSelf(from, path)) {
                    touched.remove(path);
                    touched.insert(to + path.mid(from.size()));
                }
            }
        }
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
    return changedFolders;
}
