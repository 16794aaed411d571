#include "Model/Persistence/HXExternalSource.h"

#include "Utilities/HXFileSystem.h"

#include <QDirIterator>
#include <QFileInfo>

std::shared_ptr<HXExternalSource> HXExternalSource::sourceAtURL(const QString &url,
                                                                const QString &identifier) {
    std::shared_ptr<HXExternalSource> source(new HXExternalSource);
    source->open(url, identifier);
    return source;
}

QString HXExternalSource::displayName() const {
    return QFileInfo(baseURL()).fileName();
}

void HXExternalSource::setTrashedHandler(std::function<void()> handler) {
    std::lock_guard lock(m_handlerMutex);
    m_trashedHandler = std::move(handler);
}

void HXExternalSource::setUp() {
    HXNativeStorage::setUp();
    m_folderIdentity = HXFileIdentity::ofPath(baseURL());
}

void HXExternalSource::presentedItemDidMoveToURL(const QString &url) {
    HXNativeStorage::presentedItemDidMoveToURL(url);
    if (isInSystemTrash(url))
        noteTrashed();
}

void HXExternalSource::accommodatePresentedItemDeletionWithCompletionHandler(
    CompletionHandler handler) {
    HXNativeStorage::accommodatePresentedItemDeletionWithCompletionHandler(std::move(handler));
    const QString trash = systemTrashPath() + QStringLiteral("/files");
    QDirIterator entries(trash, QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden);
    while (entries.hasNext()) {
        const QString path = entries.next();
        const HXFileIdentity identity = HXFileIdentity::ofPath(path);
        if (identity.inode == m_folderIdentity.inode &&
            identity.device == m_folderIdentity.device) {
            setBaseURL(path);
            noteTrashed();
            return;
        }
    }
}

void HXExternalSource::noteTrashed() {
    if (m_trashed.exchange(true))
        return;
    std::function<void()> handler;
    {
        std::lock_guard lock(m_handlerMutex);
        handler = m_trashedHandler;
    }
    if (handler)
        handler();
}
