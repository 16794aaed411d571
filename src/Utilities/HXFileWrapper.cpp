#include "Utilities/HXFileWrapper.h"

#include "Utilities/HXDispatchQueue.h"
#include "Utilities/HXFileSystem.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QMimeDatabase>
#include <QRunnable>
#include <QThreadPool>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <fcntl.h>
#include <mutex>
#include <thread>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

std::shared_ptr<HXFileWrapper>
HXFileWrapper::regularFileWithContents(const QByteArray &contents,
                                       const QString &preferredFilename) {
    auto wrapper = std::make_shared<HXFileWrapper>();
    wrapper->m_contents = contents;
    wrapper->m_preferredFilename = preferredFilename;
    return wrapper;
}

std::shared_ptr<HXFileWrapper> HXFileWrapper::directoryWithFileWrappers(
    const QMap<QString, std::shared_ptr<HXFileWrapper>> &children,
    const QString &preferredFilename) {
    auto wrapper = std::make_shared<HXFileWrapper>();
    wrapper->m_isDirectory = true;
    wrapper->m_children = children;
    wrapper->m_preferredFilename = preferredFilename;
    return wrapper;
}

// Made once, by whichever thread comes first: a helper or the one that needs the result.
struct HXFileWrapper::Pending {
    std::function<std::shared_ptr<HXFileWrapper>(HXError *)> make;
    std::mutex mutex;
    std::condition_variable condition;
    enum class State { Waiting, Running, Done } state = State::Waiting;
    std::shared_ptr<HXFileWrapper> result;
    std::optional<HXError> failure;
    std::atomic<bool> done = false;

    // `make` stays with the wrapper: what it holds is let go with the wrapper, not on the
    // thread that happened to run it.
    void run() {
        {
            const std::lock_guard lock(mutex);
            if (state != State::Waiting)
                return;
            state = State::Running;
        }
        HXError error;
        std::shared_ptr<HXFileWrapper> made = make(&error);
        const std::lock_guard lock(mutex);
        result = std::move(made);
        if (!result && !error.isNull())
            failure = error;
        state = State::Done;
        done = true;
        condition.notify_all();
    }

    std::shared_ptr<HXFileWrapper> wait(HXError *error) {
        run();
        // A helper that is nearly done is waited for without sleeping, for a while: waking up
        // after a sleep takes longer than the rest of a short job.
        constexpr qint64 spinning = 300000; // nanoseconds
        QElapsedTimer timer;
        timer.start();
        while (!done && timer.nsecsElapsed() < spinning)
            std::this_thread::yield();
        std::unique_lock lock(mutex);
        condition.wait(lock, [&] { return state == State::Done; });
        if (failure)
            HXSetError(error, *failure);
        return result;
    }
};

std::shared_ptr<HXFileWrapper>
HXFileWrapper::pendingWrapper(std::function<std::shared_ptr<HXFileWrapper>(HXError *)> make,
                              bool startNow) {
    auto wrapper = std::make_shared<HXFileWrapper>();
    wrapper->m_pending = std::make_shared<Pending>();
    wrapper->m_pending->make = std::move(make);
    if (startNow) {
        HXDispatchQueue::threadPool()->start(
            [pending = wrapper->m_pending] { pending->run(); });
    }
    return wrapper;
}

std::shared_ptr<HXFileWrapper> HXFileWrapper::fileWrapperWithPath(const QString &path,
                                                                  HXError *error) {
    const QFileInfo info(path);
    if (info.isDir()) {
        QMap<QString, std::shared_ptr<HXFileWrapper>> children;
        const QDir folder(path);
        for (const QString &name :
             folder.entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot)) {
            auto child = fileWrapperWithPath(folder.filePath(name), error);
            if (!child)
                return nullptr;
            children.insert(name, child);
        }
        return directoryWithFileWrappers(children, info.fileName());
    }
    QFile file(path);
    const HXFileIdentity identity = HXFileIdentity::ofPath(path);
    if (!file.open(QIODevice::ReadOnly)) {
        HXSetError(error, HXError::fileError(
                              info.exists() ? HXFileReadUnknownError : HXFileNoSuchFileError, path,
                              QStringLiteral("The file “%1” couldn’t be opened.").arg(path),
                              file.errorString()));
        return nullptr;
    }
    auto wrapper = regularFileWithContents(file.readAll(), info.fileName());
    // Remembered only when nothing changed the file while it was read.
    if (HXFileIdentity::ofPath(path) == identity) {
        wrapper->m_sourcePath = QFileInfo(path).absoluteFilePath();
        wrapper->m_sourceInode = qint64(identity.inode);
        wrapper->m_sourceSize = identity.size;
        wrapper->m_sourceModificationTime = identity.modificationTime;
    }
    return wrapper;
}

QString HXFileWrapper::unchangedSourcePath() const {
    if (m_sourcePath.isEmpty())
        return {};
    const HXFileIdentity identity = HXFileIdentity::ofPath(m_sourcePath);
    // Not the change time: the links of earlier saves move it without touching the bytes.
    if (qint64(identity.inode) != m_sourceInode || identity.size != m_sourceSize ||
        identity.modificationTime != m_sourceModificationTime)
        return {};
    return m_sourcePath;
}

QString HXFileWrapper::mimeType() const {
    if (m_isDirectory)
        return QStringLiteral("inode/directory");
    return QMimeDatabase().mimeTypeForFileNameAndData(m_preferredFilename, m_contents).name();
}

bool HXFileWrapper::conformsToTypes(const QStringList &types) const {
    const QMimeType type = QMimeDatabase().mimeTypeForName(mimeType());
    for (const QString &wanted : types) {
        if (wanted.endsWith(QStringLiteral("/*"))) {
            if (type.name().startsWith(wanted.chopped(1)))
                return true;
        } else if (type.inherits(wanted)) {
            return true;
        }
    }
    return false;
}

bool HXFileWrapper::hasSameContentsAs(const HXFileWrapper &other) const {
    if (m_isDirectory != other.m_isDirectory)
        return false;
    if (!m_isDirectory)
        return m_contents == other.m_contents;
    if (m_children.keys() != other.m_children.keys())
        return false;
    for (auto it = m_children.cbegin(); it != m_children.cend(); ++it) {
        if (!it.value()->hasSameContentsAs(*other.m_children.value(it.key())))
            return false;
    }
    return true;
}

// A file of a new package: a hard link to its unchanged source, or written and synced.
bool HXFileWrapper::writeNewFile(const QString &path, const QString &package, HXError *error,
                                 HXSyncBatch *unsynced) const {
    const QByteArray name = QFile::encodeName(path);
    // Only the package being replaced shares files with its new self: a copy elsewhere must not
    // change when this one's files do.
    const QString source = unchangedSourcePath();
    if (!source.isEmpty() && !package.isEmpty() && source.startsWith(package + u'/') &&
        ::link(QFile::encodeName(source).constData(), name.constData()) == 0)
        return true;
    return HXFileSystem::writeNewFile(m_contents, path, 0644, error, false, unsynced);
}

bool HXFileWrapper::writeTreeToPath(const QString &path, const QString &package, HXError *error,
                                    HXSyncBatch *unsynced) const {
    if (!m_isDirectory)
        return writeNewFile(path, package, error, unsynced);
    if (::mkdir(QFile::encodeName(path).constData(), 0755) != 0) {
        HXSetError(error,
                   HXFileSystem::posixError(
                       errno, path, QStringLiteral("The folder “%1” couldn’t be made.").arg(path)));
        return false;
    }
    // Children still being made come last, so that they have the longest to get ready.
    for (const bool pending : {false, true}) {
        for (auto it = m_children.cbegin(); it != m_children.cend(); ++it) {
            if (it.value()->isPending() != pending)
                continue;
            HXError failure;
            const auto child = pending ? it.value()->m_pending->wait(&failure) : it.value();
            if (!child && !failure.isNull()) {
                HXSetError(error, failure);
                return false;
            }
            if (child && !child->writeTreeToPath(path + u'/' + it.key(), package, error, unsynced))
                return false;
        }
    }
    unsynced->addItem(path);
    return true;
}

bool HXFileWrapper::writeToPath(const QString &path, HXError *error, QString *backupPath) const {
    if (backupPath)
        backupPath->clear();
    if (!m_isDirectory)
        return HXFileSystem::writeFileAtomically(m_contents, path, error);

    static const QString newTag = QStringLiteral("velmora-new");
    // Whatever a writer that died left beside the package goes first; the caller holds the
    // coordinated write, so no live writer is using these names.
    HXFileSystem::recoverInterruptedExchange(path);
    // A new package beside a missing one may be all that is left of it: it stays then.
    if (HXFileIdentity::ofPath(path).exists)
        HXFileSystem::removeStaleSiblingsOnce(path, newTag);
    const QString beside = HXFileSystem::hiddenSiblingPath(path, newTag);
    // Each file's flush starts once it is written, and all are waited for before the exchange.
    HXSyncBatch unsynced;
    if (!writeTreeToPath(beside, QFileInfo(path).absoluteFilePath(), error, &unsynced)) {
        unsynced.finish(nullptr);
        HXFileSystem::removeItem(beside, nullptr);
        return false;
    }
    if (!unsynced.finish(error)) {
        HXFileSystem::removeItem(beside, nullptr);
        return false;
    }
    const HXFileIdentity old = HXFileIdentity::ofPath(path);
    if (old.exists) {
        // The package keeps its creation date across saves.
        const QDateTime created = HXFileSystem::creationDate(path);
        if (created.isValid())
            HXFileSystem::setCreationDate(beside, created);
        if (!HXFileSystem::exchangeItems(beside, path, error)) {
            HXFileSystem::removeItem(beside, nullptr);
            return false;
        }
        // `beside` now holds the old package. A caller that keeps it syncs the folder itself
        // before it lets the old package go.
        if (backupPath) {
            *backupPath = beside;
        } else {
            HXFileSystem::syncParentFolder(path);
            HXFileSystem::removeItem(beside, nullptr);
        }
        return true;
    }
    if (!HXFileSystem::moveItem(beside, path, false, error)) {
        HXFileSystem::removeItem(beside, nullptr);
        return false;
    }
    HXFileSystem::syncParentFolder(path);
    return true;
}
