#include "Utilities/HXFileWrapper.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMimeDatabase>
#include <QSaveFile>

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
    if (!file.open(QIODevice::ReadOnly)) {
        HXSetError(error, HXError::fileError(
                              info.exists() ? HXFileReadUnknownError : HXFileNoSuchFileError, path,
                              QStringLiteral("The file “%1” couldn’t be opened.").arg(path),
                              file.errorString()));
        return nullptr;
    }
    return regularFileWithContents(file.readAll(), info.fileName());
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

bool HXFileWrapper::writeTreeToPath(const QString &path, HXError *error) const {
    auto failed = [&](const QString &reason) {
        HXSetError(error,
                   HXError::fileError(HXFileWriteUnknownError, path,
                                      QStringLiteral("The file “%1” couldn’t be saved.").arg(path),
                                      reason));
        return false;
    };
    if (!m_isDirectory) {
        QSaveFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(m_contents) != m_contents.size() ||
            !file.commit())
            return failed(file.errorString());
        return true;
    }
    if (!QDir().mkpath(path))
        return failed(QStringLiteral("The folder can’t be made."));
    for (auto it = m_children.cbegin(); it != m_children.cend(); ++it) {
        if (!it.value()->writeTreeToPath(QDir(path).filePath(it.key()), error))
            return false;
    }
    return true;
}

bool HXFileWrapper::writeToPath(const QString &path, HXError *error) const {
    if (!m_isDirectory)
        return writeTreeToPath(path, error);
    // A folder is written beside its place and renamed into it, so that a failure leaves the
    // old one whole.
    const QString beside = path + QStringLiteral(".writing");
    QDir(beside).removeRecursively();
    if (!writeTreeToPath(beside, error)) {
        QDir(beside).removeRecursively();
        return false;
    }
    const QString old = path + QStringLiteral(".old");
    QDir(old).removeRecursively();
    const bool existed = QFileInfo::exists(path);
    if ((existed && !QDir().rename(path, old)) || !QDir().rename(beside, path)) {
        QDir(beside).removeRecursively();
        HXSetError(error,
                   HXError::fileError(HXFileWriteUnknownError, path,
                                      QStringLiteral("The file “%1” couldn’t be saved.").arg(path),
                                      QStringLiteral("It couldn’t be moved into place.")));
        return false;
    }
    QDir(old).removeRecursively();
    return true;
}
