#include "Utilities/HXFileSystem.h"

#include "Utilities/HXDispatchQueue.h"

#include <QDir>
#include <QFileInfo>
#include <QHash>
#include <QRandomGenerator>
#include <QSet>
#include <QThreadPool>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <mutex>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace {

qint64 nanoseconds(const struct timespec &time) {
    return qint64(time.tv_sec) * 1000000000 + time.tv_nsec;
}

QByteArray encoded(const QString &path) {
    return QFile::encodeName(path);
}

// Retries a call that a signal interrupted.
template<typename F>
auto retrying(F call) {
    decltype(call()) result;
    do {
        result = call();
    } while (result == -1 && errno == EINTR);
    return result;
}

// Removes a folder and everything in it, relative to an open folder; links are removed, never
// followed. Goes on past what it can't remove, and says whether everything went.
bool removeTreeAt(int parent, const char *name) {
    const int fd = retrying([&] {
        return ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    });
    if (fd < 0)
        return ::unlinkat(parent, name, 0) == 0;
    DIR *folder = ::fdopendir(fd);
    if (!folder) {
        ::close(fd);
        return false;
    }
    bool removed = true;
    while (const struct dirent *entry = ::readdir(folder)) {
        const char *child = entry->d_name;
        if (child[0] == '.' && (child[1] == 0 || (child[1] == '.' && child[2] == 0)))
            continue;
        const bool folderEntry = entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN;
        if (folderEntry && removeTreeAt(fd, child))
            continue;
        if (::unlinkat(fd, child, 0) != 0 && errno != ENOENT)
            removed = false;
    }
    ::closedir(folder);
    return ::unlinkat(parent, name, AT_REMOVEDIR) == 0 && removed;
}

bool syncDescriptorOf(const QString &path, int flags) {
    const int fd = retrying([&] { return ::open(encoded(path).constData(), flags | O_CLOEXEC); });
    if (fd < 0)
        return false;
    const bool synced = retrying([&] { return ::fsync(fd); }) == 0;
    ::close(fd);
    return synced;
}

// The case rule by device; folders that fold case on a device that doesn't are found per call.
struct CaseRules {
    std::mutex mutex;
    QHash<dev_t, bool> byDevice;
    QHash<dev_t, bool> forTesting;
};

CaseRules &caseRules() {
    static CaseRules rules;
    return rules;
}

constexpr long msdosMagic = 0x4d44;
constexpr long exfatMagic = 0x2011BAB0;
#ifndef FS_CASEFOLD_FL
constexpr int FS_CASEFOLD_FL = 0x40000000;
#endif

} // namespace

HXFileIdentity HXFileIdentity::ofPath(const QString &path) {
    HXFileIdentity identity;
    struct stat status {};
    if (::lstat(encoded(path).constData(), &status) != 0)
        return identity;
    identity.exists = true;
    identity.isDirectory = S_ISDIR(status.st_mode);
    identity.device = status.st_dev;
    identity.inode = status.st_ino;
    identity.size = status.st_size;
    identity.modificationTime = nanoseconds(status.st_mtim);
    identity.changeTime = nanoseconds(status.st_ctim);
    return identity;
}

HXError HXFileSystem::posixError(int code, const QString &path, const QString &description) {
    const qint64 fileCode = code == ENOENT ? HXFileNoSuchFileError : HXFileWriteUnknownError;
    return HXError::fileError(fileCode, path, description, QString::fromLocal8Bit(strerror(code)))
        .withUserInfoValue(HXUnderlyingErrorKey,
                           QVariant::fromValue(HXError(HXPOSIXErrorDomain, code)));
}

bool HXFileSystem::writeNewFile(const QByteArray &data, const QString &path, mode_t mode,
                                HXError *error, bool sync, HXSyncBatch *batch) {
    const QByteArray name = encoded(path);
    auto failed = [&](int code, int fd) {
        if (fd >= 0)
            ::close(fd);
        ::unlink(name.constData());
        HXSetError(error, posixError(code, path,
                                     QStringLiteral("The file “%1” couldn’t be saved.").arg(path)));
        return false;
    };
    const int fd = retrying(
        [&] { return ::open(name.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode); });
    if (fd < 0) {
        HXSetError(error, posixError(errno, path,
                                     QStringLiteral("The file “%1” couldn’t be saved.").arg(path)));
        return false;
    }
    ::fchmod(fd, mode); // not narrowed by the umask
    const char *bytes = data.constData();
    qint64 remaining = data.size();
    while (remaining > 0) {
        const ssize_t written = ::write(fd, bytes, size_t(remaining));
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return failed(written < 0 ? errno : ENOSPC, fd);
        bytes += written;
        remaining -= written;
    }
    if (batch) {
        batch->addDescriptor(fd, path);
        return true;
    }
    if (sync && retrying([&] { return ::fsync(fd); }) != 0)
        return failed(errno, fd);
    if (::close(fd) != 0)
        return failed(errno, -1);
    return true;
}

struct HXSyncBatch::Item {
    int fd = -1; // -1: opened from the path when synced
    QString path;
    std::atomic<bool> taken = false;
    std::mutex mutex;
    std::condition_variable condition;
    bool done = false;
    int result = 0; // errno of the failure

    // Syncs unless another thread has taken the item already.
    void take() {
        if (taken.exchange(true))
            return;
        int code = 0;
        if (fd < 0) {
            if (!HXFileSystem::syncItem(path))
                code = errno ? errno : EIO;
        } else {
            if (retrying([&] { return ::fsync(fd); }) != 0)
                code = errno;
            ::close(fd);
        }
        const std::lock_guard lock(mutex);
        result = code;
        done = true;
        condition.notify_all();
    }
};

HXSyncBatch::HXSyncBatch() = default;

HXSyncBatch::~HXSyncBatch() {
    finish(nullptr);
}

void HXSyncBatch::addDescriptor(int fd, const QString &path) {
    auto item = std::make_shared<Item>();
    item->fd = fd;
    item->path = path;
    m_items.append(item);
    HXDispatchQueue::threadPool()->start([item] { item->take(); });
}

void HXSyncBatch::addItem(const QString &path) {
    addDescriptor(-1, path);
}

bool HXSyncBatch::finish(HXError *error) {
    // The newest first: a helper has most likely not taken those up yet, and a sync this thread
    // does itself needs no wake-up at the end.
    for (auto item = m_items.crbegin(); item != m_items.crend(); ++item)
        (*item)->take();
    bool synced = true;
    for (const auto &item : std::as_const(m_items)) {
        std::unique_lock lock(item->mutex);
        item->condition.wait(lock, [&] { return item->done; });
        if (item->result != 0 && synced) {
            synced = false;
            HXSetError(error, HXFileSystem::posixError(
                                  item->result, item->path,
                                  QStringLiteral("“%1” couldn’t be saved.").arg(item->path)));
        }
    }
    m_items.clear();
    return synced;
}

bool HXFileSystem::writeFileAtomically(const QByteArray &data, const QString &path,
                                       HXError *error) {
    // Like a save file, but under a hidden name, so that presenters and sync clients never see
    // the half-written file, and synced before it takes the name, so that a crash right after
    // the rename can't leave an empty file under it.
    struct stat old {};
    if (::stat(encoded(path).constData(), &old) != 0)
        old = {};
    const mode_t mode = old.st_ino != 0 ? old.st_mode & 07777 : 0644;
    // What a writer that died left behind goes, once it is surely no live writer's.
    removeStaleSiblingsOnce(path, QStringLiteral("velmora-tmp"), 600);
    const QString temporary = hiddenSiblingPath(path, QStringLiteral("velmora-tmp"));
    HXError failure;
    if (!writeNewFile(data, temporary, mode, &failure)) {
        // Named after the file being saved, not the hidden one.
        HXSetError(error,
                   HXError::fileError(HXFileWriteUnknownError, path,
                                      QStringLiteral("The file “%1” couldn’t be saved.").arg(path),
                                      failure.localizedFailureReason()));
        return false;
    }
    // The file keeps its creation date across saves, though each save makes a new file.
    if (old.st_ino != 0) {
        const QDateTime created = creationDate(path);
        if (created.isValid())
            setCreationDate(temporary, created);
    }
    if (::rename(encoded(temporary).constData(), encoded(path).constData()) != 0) {
        const int code = errno;
        ::unlink(encoded(temporary).constData());
        HXSetError(error, posixError(code, path,
                                     QStringLiteral("The file “%1” couldn’t be saved.").arg(path)));
        return false;
    }
    syncParentFolder(path);
    return true;
}

bool HXFileSystem::exchangeItems(const QString &first, const QString &second, HXError *error) {
    const QByteArray a = encoded(first), b = encoded(second);
    if (::renameat2(AT_FDCWD, a.constData(), AT_FDCWD, b.constData(), RENAME_EXCHANGE) == 0)
        return true;
    if (errno != EINVAL && errno != ENOSYS && errno != ENOTSUP) {
        HXSetError(error, posixError(errno, second,
                                     QStringLiteral("“%1” couldn’t be replaced.").arg(second)));
        return false;
    }
    // No exchange here: three renames, with a moment in which the second name is missing.
    const QString aside = hiddenSiblingPath(second, QStringLiteral("exchange"));
    if (!moveItem(second, aside, false, error))
        return false;
    if (!moveItem(first, second, false, error)) {
        moveItem(aside, second, false, nullptr);
        return false;
    }
    return moveItem(aside, first, false, error);
}

bool HXFileSystem::moveItem(const QString &from, const QString &to, bool replace, HXError *error) {
    const unsigned flags = replace ? 0 : RENAME_NOREPLACE;
    int result =
        ::renameat2(AT_FDCWD, encoded(from).constData(), AT_FDCWD, encoded(to).constData(), flags);
    if (result != 0 && !replace && (errno == EINVAL || errno == ENOSYS)) {
        // A file system without the flag: check, then rename.
        if (QFileInfo::exists(to)) {
            errno = EEXIST;
        } else {
            result = ::rename(encoded(from).constData(), encoded(to).constData());
        }
    }
    if (result != 0) {
        HXSetError(error,
                   posixError(errno, from,
                              QStringLiteral("“%1” couldn’t be moved to “%2”.").arg(from, to)));
        return false;
    }
    return true;
}

bool HXFileSystem::removeItem(const QString &path, HXError *error) {
    const HXFileIdentity identity = HXFileIdentity::ofPath(path);
    if (!identity.exists)
        return true;
    const bool removed = identity.isDirectory ? removeTreeAt(AT_FDCWD, encoded(path).constData())
                                              : ::unlink(encoded(path).constData()) == 0;
    if (!removed && HXFileIdentity::ofPath(path).exists) {
        HXSetError(error, posixError(errno ? errno : EIO, path,
                                     QStringLiteral("“%1” couldn’t be removed.").arg(path)));
        return false;
    }
    return true;
}

bool HXFileSystem::syncItem(const QString &path) {
    const HXFileIdentity identity = HXFileIdentity::ofPath(path);
    return syncDescriptorOf(path, identity.isDirectory ? O_RDONLY | O_DIRECTORY : O_RDONLY);
}

bool HXFileSystem::syncParentFolder(const QString &path) {
    return syncDescriptorOf(QFileInfo(path).absolutePath(), O_RDONLY | O_DIRECTORY);
}

bool HXFileSystem::makeFolder(const QString &path, HXError *error) {
    const QString absolute = QFileInfo(path).absoluteFilePath();
    if (QFileInfo(absolute).isDir())
        return true;
    const QString parent = QFileInfo(absolute).absolutePath();
    if (parent != absolute && !makeFolder(parent, error))
        return false;
    if (::mkdir(encoded(absolute).constData(), 0755) != 0 && errno != EEXIST) {
        HXSetError(error,
                   posixError(errno, absolute,
                              QStringLiteral("The folder “%1” couldn’t be made.").arg(absolute)));
        return false;
    }
    syncParentFolder(absolute);
    return true;
}

QString HXFileSystem::hiddenSiblingPath(const QString &path, const QString &tag) {
    const QFileInfo info(path);
    return info.absoluteDir().filePath(
        QStringLiteral(".%1.%2-%3")
            .arg(info.fileName(), tag)
            .arg(QRandomGenerator::global()->generate64(), 16, 16, QLatin1Char('0')));
}

QStringList HXFileSystem::siblingPaths(const QString &path, const QString &tag) {
    const QFileInfo info(path);
    const QDir folder = info.absoluteDir();
    const QString prefix = QStringLiteral(".%1.%2-").arg(info.fileName(), tag);
    QStringList paths;
    for (const QString &name :
         folder.entryList({prefix + u'*'}, QDir::AllEntries | QDir::Hidden | QDir::System)) {
        if (name.size() == prefix.size() + 16)
            paths.append(folder.filePath(name));
    }
    return paths;
}

void HXFileSystem::removeStaleSiblings(const QString &path, const QString &tag,
                                       qint64 minimumAgeSeconds) {
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    for (const QString &sibling : siblingPaths(path, tag)) {
        const HXFileIdentity identity = HXFileIdentity::ofPath(sibling);
        if (now - identity.modificationTime / 1000000000 >= minimumAgeSeconds)
            removeItem(sibling, nullptr);
    }
}

void HXFileSystem::removeStaleSiblingsOnce(const QString &path, const QString &tag,
                                           qint64 minimumAgeSeconds) {
    static std::mutex mutex;
    static QSet<QString> looked;
    {
        const std::lock_guard lock(mutex);
        const QString key = tag + u'/' + path;
        if (looked.contains(key))
            return;
        looked.insert(key);
    }
    removeStaleSiblings(path, tag, minimumAgeSeconds);
}

bool HXFileSystem::recoverInterruptedExchange(const QString &path) {
    if (HXFileIdentity::ofPath(path).exists)
        return false;
    // A writer on a file system without exchange died between its renames: the old item waits
    // under its hidden name.
    const QStringList aside = siblingPaths(path, QStringLiteral("exchange"));
    return aside.size() == 1 && moveItem(aside.first(), path, false, nullptr);
}

// --- Dates -----------------------------------------------------------------------------------

QDateTime HXFileSystem::creationDate(const QString &path) {
    const QByteArray name = encoded(path);
    char buffer[64];
    const ssize_t length =
        ::getxattr(name.constData(), creationDateAttribute.constData(), buffer, sizeof buffer - 1);
    if (length > 0) {
        const QDateTime date =
            QDateTime::fromString(QString::fromLatin1(buffer, length), Qt::ISODateWithMs);
        if (date.isValid())
            return date.toUTC();
    }
    struct statx status {};
    if (::statx(AT_FDCWD, name.constData(), AT_SYMLINK_NOFOLLOW, STATX_BTIME | STATX_MTIME,
                &status) != 0)
        return {};
    const auto fromStatx = [](const struct statx_timestamp &time) {
        return QDateTime::fromMSecsSinceEpoch(qint64(time.tv_sec) * 1000 + time.tv_nsec / 1000000,
                                              Qt::UTC);
    };
    if (status.stx_mask & STATX_BTIME)
        return fromStatx(status.stx_btime);
    return fromStatx(status.stx_mtime);
}

bool HXFileSystem::setCreationDate(const QString &path, const QDateTime &date) {
    const QByteArray value = date.toUTC().toString(Qt::ISODateWithMs).toLatin1();
    return ::setxattr(encoded(path).constData(), creationDateAttribute.constData(),
                      value.constData(), value.size(), 0) == 0;
}

QDateTime HXFileSystem::modificationDate(const QString &path) {
    const HXFileIdentity identity = HXFileIdentity::ofPath(path);
    if (!identity.exists)
        return {};
    return QDateTime::fromMSecsSinceEpoch(identity.modificationTime / 1000000, Qt::UTC);
}

bool HXFileSystem::setModificationDate(const QString &path, const QDateTime &date) {
    const qint64 ms = date.toMSecsSinceEpoch();
    struct timespec times[2];
    times[0].tv_sec = 0;
    times[0].tv_nsec = UTIME_OMIT;
    times[1].tv_sec = ms / 1000;
    times[1].tv_nsec = (ms % 1000) * 1000000;
    return ::utimensat(AT_FDCWD, encoded(path).constData(), times, AT_SYMLINK_NOFOLLOW) == 0;
}

// --- Case -------------------------------------------------------------------------------------

bool HXFileSystem::isCaseSensitive(const QString &folder) {
    struct stat status {};
    QString probe = folder;
    // A folder that isn't there yet answers for the nearest one that is.
    while (::stat(encoded(probe).constData(), &status) != 0) {
        const QString parent = QFileInfo(probe).absolutePath();
        if (parent == probe)
            return true;
        probe = parent;
    }
    CaseRules &rules = caseRules();
    {
        std::lock_guard lock(rules.mutex);
        if (const auto it = rules.forTesting.constFind(status.st_dev);
            it != rules.forTesting.cend())
            return *it;
        if (const auto it = rules.byDevice.constFind(status.st_dev);
            it != rules.byDevice.cend() && !*it)
            return false;
    }
    bool sensitive = true;
    bool knownDevice = false;
    {
        std::lock_guard lock(rules.mutex);
        knownDevice = rules.byDevice.contains(status.st_dev);
    }
    if (!knownDevice) {
        struct statfs fileSystem {};
        if (::statfs(encoded(probe).constData(), &fileSystem) == 0)
            sensitive = fileSystem.f_type != msdosMagic && fileSystem.f_type != exfatMagic;
        std::lock_guard lock(rules.mutex);
        rules.byDevice.insert(status.st_dev, sensitive);
        if (!sensitive)
            return false;
    }
    // A case-sensitive device may still have folders that fold case.
    const int fd = ::open(encoded(probe).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        int flags = 0;
        if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 && (flags & FS_CASEFOLD_FL))
            sensitive = false;
        ::close(fd);
    }
    return sensitive;
}

void HXFileSystem::setCaseSensitivityForTesting(const QString &path, bool caseSensitive) {
    struct stat status {};
    if (::stat(encoded(path).constData(), &status) != 0)
        return;
    std::lock_guard lock(caseRules().mutex);
    caseRules().forTesting.insert(status.st_dev, caseSensitive);
}

void HXFileSystem::resetCaseSensitivityForTesting() {
    std::lock_guard lock(caseRules().mutex);
    caseRules().forTesting.clear();
}

bool HXFileSystem::filenamesEqual(const QString &a, const QString &b, bool caseSensitive) {
    return a.compare(b, caseSensitive ? Qt::CaseSensitive : Qt::CaseInsensitive) == 0;
}

QString HXFileSystem::exactPath(const QString &path) {
    const QFileInfo info(path);
    const QString folder = info.absolutePath();
    if (isCaseSensitive(folder))
        return path;
    const QString name = info.fileName();
    const QStringList names = QDir(folder).entryList(QDir::AllEntries | QDir::Hidden |
                                                     QDir::System | QDir::NoDotAndDotDot);
    if (names.contains(name))
        return path;
    for (const QString &candidate : names) {
        if (filenamesEqual(candidate, name, false))
            return QDir(folder).filePath(candidate);
    }
    return path;
}
