#include "Utilities/HXFileWrapper.h"

#include "Utilities/HXFileSystem.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMimeDatabase>

#include <cerrno>
#include <fcntl.h>
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
                                 QStringList *unsynced) const {
    const QByteArray name = QFile::encodeName(path);
    // Only the package being replaced shares files with its new self: a copy elsewhere must not
    // change when this one's files do.
    const QString source = unchangedSourcePath();
    if (!source.isEmpty() && !package.isEmpty() && source.startsWith(package + u'/') &&
        ::link(QFile::encodeName(source).constData(), name.constData()) == 0)
        return true;
    if (!HXFileSystem::writeNewFile(m_contents, path, 0644, error, false))
        return false;
    unsynced->append(path);
    return true;
}

bool HXFileWrapper::writeTreeToPath(const QString &path, const QString &package, HXError *error,
                                    QStringList *unsynced) const {
    if (!m_isDirectory)
        return writeNewFile(path, package, error, unsynced);
    if (::mkdir(QFile::encodeName(path).constData(), 0755) != 0) {
        HXSetError(error,
                   HXFileSystem::posixError(
                       errno, path, QStringLiteral("The folder “%1” couldn’t be made.").arg(path)));
        return false;
    }
    for (auto it = m_children.cbegin(); it != m_children.cend(); ++it) {
        if (!it.value()->writeTreeToPath(path + u'/' + it.key(), package, error, unsynced))
            return false;
    }
    unsynced->append(path);
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
    // Everything is written first and synced together, so that the flushes overlap.
    QStringList unsynced;
    if (!writeTreeToPath(beside, QFileInfo(path).absoluteFilePath(), error, &unsynced) ||
        !HXFileSystem::syncItems(unsynced, error)) {
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
