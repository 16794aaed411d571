#pragma once

#include "Model/Persistence/HXNativeStorage.h"
#include "Utilities/HXFileSystem.h"

#include <functional>

// A folder the user added to the library list: a native storage that is read where it is and
// never created. Its name in the list is the folder's name. When the folder goes to the desktop's
// trash, the source counts as trashed and the controller drops it; a folder that vanished in
// another way leaves an invalid source behind, shown until the user adds the folder anew.
class HXExternalSource : public HXNativeStorage {
public:
    static std::shared_ptr<HXExternalSource> sourceAtURL(const QString &url,
                                                         const QString &identifier);

    QString displayName() const override;
    bool isTrashed() const { return m_trashed; }
    // Called once, on the notification queue, when the folder went to the trash.
    void setTrashedHandler(std::function<void()> handler);

    void presentedItemDidMoveToURL(const QString &url) override;
    // A move into the trash looks like a deletion from where the folder was: the trash is
    // searched for the folder before it counts as gone.
    void accommodatePresentedItemDeletionWithCompletionHandler(CompletionHandler handler) override;

protected:
    bool createRootFolderIfNeeded() const override { return false; }

private:
    HXExternalSource() = default;
    void setUp() override;
    void noteTrashed();

    std::atomic<bool> m_trashed = false;
    HXFileIdentity m_folderIdentity;
    std::mutex m_handlerMutex;
    std::function<void()> m_trashedHandler;
};
