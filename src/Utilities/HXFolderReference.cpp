#include "Utilities/HXFolderReference.h"

#include "Utilities/HXFileSystem.h"

#include <QDataStream>
#include <QIODevice>

#include <cerrno>

namespace {

const QByteArray magic = QByteArrayLiteral("VelmoraFolderReference1");

} // namespace

QByteArray HXFolderReference::dataForPath(const QString &path, HXError *error) {
    const HXFileIdentity identity = HXFileIdentity::ofPath(path);
    if (!identity.exists || !identity.isDirectory) {
        HXSetError(error, HXFileSystem::posixError(identity.exists ? ENOTDIR : ENOENT, path,
                                                   QStringLiteral("No folder to refer to.")));
        return {};
    }
    QByteArray data;
    QDataStream stream(&data, QIODevice::WriteOnly);
    stream << magic << quint64(identity.device) << quint64(identity.inode) << path;
    return data;
}

QString HXFolderReference::resolveData(const QByteArray &data, HXError *error) {
    QDataStream stream(data);
    QByteArray head;
    quint64 device = 0;
    quint64 inode = 0;
    QString path;
    stream >> head >> device >> inode >> path;
    if (stream.status() != QDataStream::Ok || head != magic || path.isEmpty()) {
        HXSetError(error, HXError::withDescription(HXCocoaErrorDomain, 259,
                                                   QStringLiteral("The reference is damaged.")));
        return {};
    }
    const HXFileIdentity identity = HXFileIdentity::ofPath(path);
    if (!identity.exists || !identity.isDirectory) {
        HXSetError(error, HXFileSystem::posixError(ENOENT, path,
                                                   QStringLiteral("The folder is gone.")));
        return {};
    }
    if (quint64(identity.device) != device || quint64(identity.inode) != inode) {
        HXSetError(error,
                   HXFileSystem::posixError(ESTALE, path,
                                            QStringLiteral("Another folder took its place.")));
        return {};
    }
    return path;
}
