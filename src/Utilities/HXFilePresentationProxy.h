#pragma once

#include "Utilities/HXFilePresenter.h"

#include <mutex>

// The presenter that stands for an object with a life of its own (a document, a storage, a
// store), so that the coordinator's registry never keeps that object alive: it holds its owner
// weakly, forwards each callback while the owner lives, and answers with the neutral result when
// it is gone. Its queue is serial, so the owner hears of changes one at a time and in order.
// After a move it presents the new path. Any thread.
class HXFilePresentationProxy : public HXFilePresenter,
                                public std::enable_shared_from_this<HXFilePresentationProxy> {
public:
    static std::shared_ptr<HXFilePresentationProxy>
    proxyWithOwner(const std::weak_ptr<HXFilePresenter> &owner, const QString &path,
                   const QString &queueLabel);
    ~HXFilePresentationProxy() override;

    // Registers with the coordinator, and unregisters.
    void beginPresentation();
    void endPresentation();
    bool isPresenting() const;
    void setPresentedItemURL(const QString &path);

    QString presentedItemURL() const override;
    std::shared_ptr<HXDispatchQueue> presentedItemOperationQueue() const override {
        return m_queue;
    }

    void relinquishPresentedItemToReader(Relinquisher reader) override;
    void relinquishPresentedItemToWriter(Relinquisher writer) override;
    void savePresentedItemChangesWithCompletionHandler(CompletionHandler handler) override;
    void accommodatePresentedItemDeletionWithCompletionHandler(CompletionHandler handler) override;
    void presentedItemDidMoveToURL(const QString &path) override;
    void presentedItemDidChange() override;
    void presentedSubitemDidAppearAtURL(const QString &path) override;
    void presentedSubitemDidChangeAtURL(const QString &path) override;
    void presentedSubitemAtURL(const QString &oldPath, const QString &newPath) override;
    void accommodatePresentedSubitemDeletionAtURL(const QString &path,
                                                  CompletionHandler handler) override;

private:
    HXFilePresentationProxy(const std::weak_ptr<HXFilePresenter> &owner, const QString &path,
                            std::shared_ptr<HXDispatchQueue> queue);

    const std::weak_ptr<HXFilePresenter> m_owner;
    const std::shared_ptr<HXDispatchQueue> m_queue;
    mutable std::mutex m_mutex;
    QString m_path;
    bool m_presenting = false;
};
