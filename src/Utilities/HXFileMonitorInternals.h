#pragma once

// What the two halves of the file monitor share: the watch mask and limits, the record of this
// process's own writes, and small path helpers. Not for use outside the monitor.

#include "Utilities/HXFileCoordinator.h"

#include <QFile>
#include <QHash>
#include <QString>
#include <QStringList>

#include <dirent.h>
#include <functional>
#include <mutex>
#include <sys/inotify.h>

namespace HXFileMonitorInternals {

inline constexpr quint32 watchMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                     IN_CLOSE_WRITE | IN_MODIFY | IN_ATTRIB | IN_DELETE_SELF |
                                     IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK;
// How long a write of ours is remembered at most: it is forgotten as soon as a settling has taken
// the events it caused, and this only bounds writes whose events no settling ever takes.
inline constexpr qint64 ownWriteLifetime = 60000;
// The most entries of a written folder that are remembered; beyond, changes inside count as
// foreign.
inline constexpr int ownWriteEntryLimit = 4096;
// Settling lists the folders that its changes brought into view and settles what they hold with
// them, this many rounds deep at most; the rest waits for the next settling.
inline constexpr int settleRounds = 8;

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

inline OwnWrites &ownWrites() {
    static OwnWrites writes;
    return writes;
}

// Walks a folder and everything below it, hidden names aside, without recursion. The visitor
// gets each folder before its entries and says whether to go on (false ends the walk); `entry`
// gets every entry and says whether it is a folder to walk into.
inline void walk(const QString &root, const std::function<bool(const QString &)> &visitFolder,
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

inline void snapshot(const QString &path, QHash<QString, HXFileIdentity> &items) {
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

inline bool isHidden(const QString &path) {
    const qsizetype slash = path.lastIndexOf(u'/');
    return slash + 1 < path.size() && path.at(slash + 1) == u'.';
}

inline QString parentPath(const QString &path) {
    const qsizetype slash = path.lastIndexOf(u'/');
    return slash <= 0 ? QStringLiteral("/") : path.left(slash);
}

} // namespace HXFileMonitorInternals
