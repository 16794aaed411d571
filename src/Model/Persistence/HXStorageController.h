#pragma once

#include "Utilities/HXError.h"
#include "Utilities/HXNotificationCenter.h"

#include <QHash>
#include <QList>
#include <QTimer>
#include <QVariant>

#include <atomic>
#include <functional>
#include <memory>

class HXContainer;
class HXExternalSource;
class HXLibrary;
class HXSheet;
class HXSheetHandle;
class HXStorage;
class HXStorageItem;

class HXStorageControllerDelegate {
public:
    virtual ~HXStorageControllerDelegate() = default;
    // A sheet could not be saved and nobody else dealt with it.
    virtual void storageControllerDidReceiveWriteError(const std::shared_ptr<HXSheet> &sheet,
                                                       const HXError &error) = 0;
};

// The keys of the controller that observers hear about.
enum class HXStorageControllerKey { UbiquitousLibrary, LocalLibrary, ExternalSources, AllStorages };

// Owns every storage of the running application: the local library, read completely before the
// controller exists; the synced library, looked for in the background, so that a slow or absent
// sync folder never holds up the start; and the folders the user added, kept in
// "External Sources.plist" in application support. Until the search for the synced library is
// over, the controller is loading; `waitUntilLoaded` runs work after that. A change of the synced
// folder (the setting, or the folder appearing or vanishing) tears the synced library down and
// looks for it again.
//
// One per application (`sharedInstance`); tests make their own. Main thread, apart from the
// background search, whose result comes back to the main queue.
class HXStorageController : public std::enable_shared_from_this<HXStorageController> {
public:
    static inline const QString settingsFilename = QStringLiteral("External Sources.plist");

    static std::shared_ptr<HXStorageController> sharedInstance();
    // Reads the local library now, starts looking for the synced one, reads the external sources.
    static std::shared_ptr<HXStorageController> create();
    ~HXStorageController();

    std::shared_ptr<HXLibrary> localLibrary() const { return m_localLibrary; }
    std::shared_ptr<HXLibrary> ubiquitousLibrary() const { return m_ubiquitousLibrary; }
    QList<std::shared_ptr<HXExternalSource>> externalSources() const { return m_externalSources; }
    // Synced library, local library, external sources; absent ones left out.
    QList<std::shared_ptr<HXStorage>> allStorages() const;

    HXStorageControllerDelegate *delegate() const { return m_delegate; }
    void setDelegate(HXStorageControllerDelegate *delegate) { m_delegate = delegate; }

    using Observer = std::function<void(HXStorageControllerKey)>;
    int addObserver(Observer observer);
    void removeObserver(int token);

    // --- The loaded gate ---------------------------------------------------------------------
    bool isLoadingSources() const { return m_loadingSources.load() != 0; }
    // Runs the handler now when loading is over, else when it is.
    void waitUntilLoaded(std::function<void()> handler);
    void signalLoadHandlers();

    // --- The synced library ------------------------------------------------------------------
    void loadUbiquitousSources();
    void ubiquityIdentityDidChange();
    // What decides whether the synced library exists: the chosen folder and whether it is there.
    static QString ubiquityIdentityToken();
    // How often the synced folder is looked at for a change of account (2 s by default).
    void setUbiquityCheckInterval(int milliseconds);

    // --- External sources --------------------------------------------------------------------
    std::shared_ptr<HXExternalSource> addExternalSourceWithBaseURL(const QString &url, int index);
    std::shared_ptr<HXExternalSource>
    addExternalSourceWithBaseURL(const QString &url, const QString &identifier, int index);
    void moveExternalSource(const std::shared_ptr<HXExternalSource> &source, int index);
    void removeExternalSources(const QList<std::shared_ptr<HXExternalSource>> &sources);
    void loadExternalSources();
    bool writeExternalSources();
    static QString externalSourceSettingsURL();

    // --- Names across storages ---------------------------------------------------------------
    QVariant persistentObjectForStorage(const std::shared_ptr<HXStorage> &storage) const;
    std::shared_ptr<HXStorage> storageForPersistentObject(const QVariant &object) const;
    QVariant persistentObjectForContainer(const std::shared_ptr<HXContainer> &container) const;
    std::shared_ptr<HXContainer> containerForPersistentObject(const QVariant &object) const;
    QVariant persistentObjectForSheetHandle(const std::shared_ptr<HXSheetHandle> &handle) const;
    std::shared_ptr<HXSheetHandle> sheetHandleForPersistentObject(const QVariant &object) const;
    bool persistentObjectIsUbiquitousForSheetHandle(
        const std::shared_ptr<HXSheetHandle> &handle) const;
    // The node that stands for a path, asked of each storage in the order of `allStorages`.
    std::shared_ptr<HXStorageItem> storageItemForOpeningURL(const QString &url) const;

    // Keeps the search indexes of the current storages and deletes the others.
    void cleanupSearchIndices();

private:
    HXStorageController() = default;
    void start();
    void announce(HXStorageControllerKey key);
    void setUbiquitousLibrary(std::shared_ptr<HXLibrary> library);
    void handleErrorWritingDocument(const HXNotification &notification);
    void checkUbiquityIdentity();
    qsizetype indexOfExternalSource(const QString &path) const;
    void observeTrashing(const std::shared_ptr<HXExternalSource> &source);

    std::atomic<int> m_loadingSources = 1;
    QList<std::function<void()>> m_loadHandlers;
    HXStorageControllerDelegate *m_delegate = nullptr;
    std::shared_ptr<HXLibrary> m_localLibrary;
    std::shared_ptr<HXLibrary> m_ubiquitousLibrary;
    QList<std::shared_ptr<HXExternalSource>> m_externalSources;
    QHash<QString, QByteArray> m_bookmarksForExternalSources;
    QList<QPair<int, Observer>> m_observers;
    int m_nextObserverToken = 1;
    QString m_ubiquityIdentity;
    // Bumped by every account change, so that an older search's result is dropped.
    std::atomic<int> m_ubiquitySearch = 0;
    std::unique_ptr<QTimer> m_ubiquityTimer;
    HXNotificationObservation m_terminationObservation;
    HXNotificationObservation m_writeErrorObservation;
};
