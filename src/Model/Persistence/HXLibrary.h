#pragma once

#include "Model/Persistence/HXNativeStorage.h"

class HXNativeGroup;
class HXNativeTrash;

// A writer's library: a native storage with three containers of its own, made when missing at
// each opening: "Unfiled-hxgroup", the inbox for new sheets; "Groups-hxgroup", the visible top
// group; and "Trash-hxtrash". The local library lives in the documents folder, the synced one in
// the folder the user chose for it. A library whose folder vanishes or moves is invalid until
// the next launch. Any thread.
class HXLibrary : public HXNativeStorage {
public:
    static inline const QString localIdentifier = QStringLiteral("Local Library");
    static inline const QString ubiquitousIdentifier = QStringLiteral("Ubiquitous Library");
    static inline const QString defaultGroupName = QStringLiteral("Unfiled-hxgroup");
    static inline const QString mainGroupName = QStringLiteral("Groups-hxgroup");
    static inline const QString trashName = QStringLiteral("Trash-hxtrash");
    // The user default that names the synced folder.
    static inline const QString ubiquityContainerKey = QStringLiteral("storage.ubiquityContainer");

    // "Velmora/Library" in the documents folder, unless another folder was set for this run.
    static QString localLibraryPath();
    // Opens another folder as the local library for the rest of the run (empty: the default);
    // set before the storage controller exists.
    static void setLocalLibraryPath(const QString &path);
    // Empty when no synced folder is chosen.
    static QString ubiquitousLibraryPath();
    static std::shared_ptr<HXLibrary> localLibrary();
    // Null when no synced folder is chosen or it is not there.
    static std::shared_ptr<HXLibrary> ubiquitousLibrary();
    static std::shared_ptr<HXLibrary> libraryAtURL(const QString &url, const QString &identifier);

    bool isUbiquitous() const { return identifier() == ubiquitousIdentifier; }
    bool arePersistentObjectsUbiquitous() const override { return isUbiquitous(); }
    bool providesStaticContainers() const override { return true; }
    QString displayName() const override;
    bool isActive() const override;
    void setActive(bool active);

    std::shared_ptr<HXNativeGroup> mainGroup() const;
    std::shared_ptr<HXNativeGroup> defaultGroup() const;
    std::shared_ptr<HXContainer> trash() const override;
    std::shared_ptr<HXContainer> defaultContainerForItemOfKind(HXStorageItemKind kind) override;

    void ensureIntrinsicContainers();
    void presentedItemDidMoveToURL(const QString &url) override;

protected:
    void didReadItem(const std::shared_ptr<HXStorageItem> &item) override;

private:
    HXLibrary() = default;
    void applyRole(const std::shared_ptr<HXStorageItem> &item);

    mutable std::mutex m_rolesMutex;
    std::weak_ptr<HXNativeGroup> m_mainGroup;
    std::weak_ptr<HXNativeGroup> m_defaultGroup;
    std::weak_ptr<HXContainer> m_trash;
};
