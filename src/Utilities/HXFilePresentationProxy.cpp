#include "Utilities/HXFilePresentationProxy.h"

#include "Utilities/HXFileCoordinator.h"

std::shared_ptr<HXFilePresentationProxy>
HXFilePresentationProxy::proxyWithOwner(const std::weak_ptr<HXFilePresenter> &owner,
                                        const QString &path, const QString &queueLabel) {
    return std::shared_ptr<HXFilePresentationProxy>(
        new HXFilePresentationProxy(owner, path, HXDispatchQueue::create(queueLabel)));
}

HXFilePresentationProxy::HXFilePresentationProxy(const std::weak_ptr<HXFilePresenter> &owner,
                                                 const QString &path,
                                                 std::shared_ptr<HXDispatchQueue> queue)
    : m_owner(owner)
    , m_queue(std::move(queue))
    , m_path(HXFileCoordinator::standardizedPath(path)) {}

HXFilePresentationProxy::~HXFilePresentationProxy() = default;

void HXFilePresentationProxy::beginPresentation() {
    {
        std::lock_guard lock(m_mutex);
        if (m_presenting)
            return;
        m_presenting = true;
    }
    HXFileCoordinator::addFilePresenter(shared_from_this());
}

void HXFilePresentationProxy::endPresentation() {
    {
        std::lock_guard lock(m_mutex);
        if (!m_presenting)
            return;
        m_presenting = false;
    }
    HXFileCoordinator::removeFilePresenter(this);
}

bool HXFilePresentationProxy::isPresenting() const {
    std::lock_guard lock(m_mutex);
    return m_presenting;
}

void HXFilePresentationProxy::setPresentedItemURL(const QString &path) {
    const QString standardized = HXFileCoordinator::standardizedPath(path);
    QString old;
    bool presenting;
    {
        std::lock_guard lock(m_mutex);
        old = m_path;
        m_path = standardized;
        presenting = m_presenting;
    }
    if (presenting && old != standardized) {
        // Registered again, so the registry keeps it under the path it presents.
        HXFileCoordinator::removeFilePresenter(this);
        HXFileCoordinator::addFilePresenter(shared_from_this());
    }
}

QString HXFilePresentationProxy::presentedItemURL() const {
    std::lock_guard lock(m_mutex);
    return m_path;
}

void HXFilePresentationProxy::relinquishPresentedItemToReader(Relinquisher reader) {
    if (const auto owner = m_owner.lock())
        owner->relinquishPresentedItemToReader(std::move(reader));
    else
        reader({});
}

void HXFilePresentationProxy::relinquishPresentedItemToWriter(Relinquisher writer) {
    if (const auto owner = m_owner.lock())
        owner->relinquishPresentedItemToWriter(std::move(writer));
    else
        writer({});
}

void HXFilePresentationProxy::savePresentedItemChangesWithCompletionHandler(
    CompletionHandler handler) {
    if (const auto owner = m_owner.lock())
        owner->savePresentedItemChangesWithCompletionHandler(std::move(handler));
    else
        handler(nullptr);
}

void HXFilePresentationProxy::accommodatePresentedItemDeletionWithCompletionHandler(
    CompletionHandler handler) {
    if (const auto owner = m_owner.lock())
        owner->accommodatePresentedItemDeletionWithCompletionHandler(std::move(handler));
    else
        handler(nullptr);
}

void HXFilePresentationProxy::presentedItemDidMoveToURL(const QString &path) {
    {
        // The registry moved it already; only the path it answers with follows.
        std::lock_guard lock(m_mutex);
        m_path = HXFileCoordinator::standardizedPath(path);
    }
    if (const auto owner = m_owner.lock())
        owner->presentedItemDidMoveToURL(path);
}

void HXFilePresentationProxy::presentedItemDidChange() {
    if (const auto owner = m_owner.lock())
        owner->presentedItemDidChange();
}

void HXFilePresentationProxy::presentedSubitemDidAppearAtURL(const QString &path) {
    if (const auto owner = m_owner.lock())
        owner->presentedSubitemDidAppearAtURL(path);
}

void HXFilePresentationProxy::presentedSubitemDidChangeAtURL(const QString &path) {
    if (const auto owner = m_owner.lock())
        owner->presentedSubitemDidChangeAtURL(path);
}

void HXFilePresentationProxy::presentedSubitemAtURL(const QString &oldPath,
                                                    const QString &newPath) {
    if (const auto owner = m_owner.lock())
        owner->presentedSubitemAtURL(oldPath, newPath);
}

void HXFilePresentationProxy::accommodatePresentedSubitemDeletionAtURL(const QString &path,
                                                                       CompletionHandler handler) {
    if (const auto owner = m_owner.lock())
        owner->accommodatePresentedSubitemDeletionAtURL(path, std::move(handler));
    else
        handler(nullptr);
}
