#include "Model/Stores/HXUbiquitousStore.h"

#include "Utilities/HXApplicationLog.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXFileCoordinator.h"
#include "Utilities/HXFileSystem.h"
#include "Utilities/HXLocations.h"
#include "Utilities/HXUserDefaults.h"

#include <QDir>
#include <QFileInfo>

HXUbiquitousStore::~HXUbiquitousStore() {
    if (m_write && m_write->isWritePending())
        HXApplicationLog::sharedInstance()->logError(
            u"WARNING: %@ deallocated with changes not written to disk!",
            QString::fromLatin1(metaObject()->className()));
    if (m_presenter)
        m_presenter->endPresentation();
    if (m_localPresenter)
        m_localPresenter->endPresentation();
}

void HXUbiquitousStore::initWithOptions(const HXStoreOptions &options) {
    m_options = options;
    HX_ASSERT(!allowedItemPathExtensions().isEmpty(),
              u"No allowed item path extensions registered.");
    m_write = std::make_unique<HXBatchedWrite>(options.writeDelay, [this] { write(); });
    initDefaultStateWithOptions(options);
    const QString local = localDirectory();
    loadFromDirectory(local);
    presentFolder(m_localPresenter, local);
    // What reading did to the items is no change to write back.
    m_write = std::make_unique<HXBatchedWrite>(options.writeDelay, [this] { write(); });
    ubiquityIdentityChanged();
    m_terminationObservation = HXNotificationCenter::defaultCenter()->addObserver(
        HXApplicationWillTerminateNotification,
        [this](const HXNotification &) { writeIfNeeded(false); });
}

QString HXUbiquitousStore::preferredItemPathExtension() const {
    const QStringList extensions = allowedItemPathExtensions();
    HX_ASSERT(!extensions.isEmpty(), u"No allowed item path extensions registered.");
    return extensions.first();
}

bool HXUbiquitousStore::hasAllowedExtension(const QString &path) const {
    const QString name = QFileInfo(path).fileName();
    if (name.startsWith(u'.'))
        return false;
    return allowedItemPathExtensions().contains(QFileInfo(path).suffix(), Qt::CaseInsensitive);
}

QString HXUbiquitousStore::localDirectory() const {
    const QString support = m_options.applicationSupportPath.isEmpty()
                                ? HXLocations::applicationSupportPath()
                                : m_options.applicationSupportPath;
    const QString path = HXFileCoordinator::standardizedPath(support + u'/' + directoryName());
    HXFileSystem::makeFolder(path, nullptr);
    return path;
}

// --- Reading
// --------------------------------------------------------------------------------------

void HXUbiquitousStore::loadFromDirectory(const QString &directory) {
    HX_ASSERT(!directory.isEmpty(), u"directory");
    const QDir folder(directory);
    for (const QString &name :
         folder.entryList(QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name)) {
        const QString url = HXFileCoordinator::standardizedPath(folder.filePath(name));
        if (!hasAllowedExtension(url))
            continue;
        performReadFromURL(url, nullptr);
    }
}

bool HXUbiquitousStore::performReadFromURL(const QString &url, HXError *error, bool *read) {
    bool succeeded = false;
    if (read)
        *read = false;
    HXFileCoordinator coordinator(m_presenter);
    coordinator.coordinateReadingItemAtURL(url, 0, error, [&](const QString &path) {
        const HXFileIdentity identity = HXFileIdentity::ofPath(path);
        {
            std::lock_guard lock(m_modificationDatesMutex);
            const auto known = m_modificationDates.constFind(path);
            if (known != m_modificationDates.cend() && *known == identity.modificationTime) {
                succeeded = !m_ignoredFileURLs.contains(path);
                return;
            }
        }
        succeeded = readItemFromURL(path, error);
        if (read)
            *read = true;
        {
            std::lock_guard lock(m_modificationDatesMutex);
            m_modificationDates.insert(path, identity.modificationTime);
        }
        if (succeeded)
            m_ignoredFileURLs.remove(path);
        else
            m_ignoredFileURLs.insert(path);
    });
    return succeeded;
}

// --- Writing
// --------------------------------------------------------------------------------------

void HXUbiquitousStore::noteStoreChanged() {
    if (m_write)
        m_write->noteChanged();
}

void HXUbiquitousStore::writeIfNeeded(bool asynchronously) {
    if (!m_write || !m_write->isWritePending())
        return;
    if (!asynchronously) {
        m_write->writeIfNeeded();
        return;
    }
    std::weak_ptr<HXUbiquitousStore> weak = weak_from_this();
    HXDispatchQueue::mainQueue()->async([weak] {
        if (const auto store = weak.lock())
            store->m_write->writeIfNeeded();
    });
}

void HXUbiquitousStore::write() {
    writeToDirectory(localDirectory());
    if (!m_ubiquitousDirectory.isEmpty())
        writeToDirectory(m_ubiquitousDirectory);
    emit storeWritten();
}

void HXUbiquitousStore::writeToDirectory(const QString &directory) {
    const QDir folder(directory);
    QSet<QString> present;
    for (const QString &name : folder.entryList(QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot)) {
        const QString url = HXFileCoordinator::standardizedPath(folder.filePath(name));
        if (hasAllowedExtension(url))
            present.insert(url);
    }
    const auto presenter = directory == m_ubiquitousDirectory ? m_presenter : m_localPresenter;
    const QString extension = preferredItemPathExtension();
    for (const QString &identifier : writableItems()) {
        const QString url = folder.filePath(identifier + u'.' + extension);
        HXFileCoordinator coordinator(presenter);
        coordinator.coordinateWritingItemAtURL(url, 0, nullptr, [&](const QString &path) {
            HXError error;
            if (!writeItem(identifier, path, &error))
                return;
            // What we wrote needs no reading back.
            std::lock_guard lock(m_modificationDatesMutex);
            m_modificationDates.insert(path, HXFileIdentity::ofPath(path).modificationTime);
        });
        present.remove(HXFileCoordinator::standardizedPath(url));
    }
    for (const QString &url : std::as_const(present)) {
        if (m_ignoredFileURLs.contains(url))
            continue;
        // Only a file this store knows, as it read or wrote it, is one of its items that went.
        // One that came or changed since (another process may have just written it) is read
        // instead, so that no writer removes what it never saw.
        {
            std::unique_lock lock(m_modificationDatesMutex);
            const auto known = m_modificationDates.constFind(url);
            if (known == m_modificationDates.cend() ||
                *known != HXFileIdentity::ofPath(url).modificationTime) {
                lock.unlock();
                performReadFromURL(url, nullptr);
                continue;
            }
        }
        HXFileCoordinator coordinator(presenter);
        coordinator.coordinateWritingItemAtURL(
            url, HXFileCoordinator::WritingForDeleting, nullptr, [&](const QString &path) {
                HXError error;
                if (!HXFileSystem::removeItem(path, &error))
                    HXApplicationLog::sharedInstance()->logError(u"Failed removing %@: %@", path,
                                                                 error.localizedFailureReason());
            });
        std::lock_guard lock(m_modificationDatesMutex);
        m_modificationDates.remove(url);
    }
}

// --- The cloud folder
// -----------------------------------------------------------------------------

void HXUbiquitousStore::ubiquityIdentityChanged() {
    QString container = m_options.ubiquityContainerPath
                            ? *m_options.ubiquityContainerPath
                            : HXUserDefaults::standardUserDefaults()
                                  .objectForKeyPath(QStringLiteral("storage.ubiquityContainer"))
                                  .toString();
    QString directory;
    if (!container.isEmpty() && QFileInfo(container).isDir())
        directory = HXFileCoordinator::standardizedPath(
            container + u'/' + ubiquitousSettingsDirectoryName() + u'/' + directoryName());
    if (HXDispatchQueue::isMainThread()) {
        setUbiquitousDirectory(directory);
        return;
    }
    std::weak_ptr<HXUbiquitousStore> weak = weak_from_this();
    HXDispatchQueue::mainQueue()->async([weak, directory] {
        if (const auto store = weak.lock())
            store->setUbiquitousDirectory(directory);
    });
}

void HXUbiquitousStore::setUbiquitousDirectory(const QString &directory) {
    if (directory == m_ubiquitousDirectory && (directory.isEmpty() || m_presenter))
        return;
    if (m_presenter) {
        m_presenter->endPresentation();
        m_presenter.reset();
    }
    m_ubiquitousDirectory = directory;
    if (directory.isEmpty())
        return;
    HXError error;
    if (!HXFileSystem::makeFolder(directory, &error)) {
        HXApplicationLog::sharedInstance()->logError(
            u"Failed creating ubiquitous markups directory at %@. Reason:%@", directory,
            error.localizedFailureReason());
        m_ubiquitousDirectory.clear();
        return;
    }
    presentFolder(m_presenter, directory);
    HXFileCoordinator coordinator(m_presenter);
    coordinator.coordinateReadingItemAtURL(directory, 0, nullptr,
                                           [&](const QString &path) { loadFromDirectory(path); });
    // The items of this machine that the cloud lacks go there with the next write.
    noteStoreChanged();
}

void HXUbiquitousStore::presentFolder(std::shared_ptr<HXFilePresentationProxy> &proxy,
                                      const QString &folder) {
    HXFileCoordinator::addPackagePathExtensions(allowedItemPathExtensions());
    // Two processes writing this store take turns.
    HXFileCoordinator::addCoordinationRoot(folder);
    std::weak_ptr<HXFilePresenter> owner = std::static_pointer_cast<HXFilePresenter>(
        std::shared_ptr<HXUbiquitousStore>(shared_from_this()));
    proxy =
        HXFilePresentationProxy::proxyWithOwner(owner, folder, QStringLiteral("store presenter"));
    proxy->beginPresentation();
}

// Presenter callbacks arrive on the proxy's queue and go on to the main queue.
void HXUbiquitousStore::readChangedItem(const QString &url) {
    if (!hasAllowedExtension(url))
        return;
    std::weak_ptr<HXUbiquitousStore> weak = weak_from_this();
    HXDispatchQueue::mainQueue()->async([weak, url] {
        const auto store = weak.lock();
        // What one folder brought goes to the other with the next write (only what differs is
        // written), so that the local folder keeps what came from the cloud and the reverse.
        bool read = false;
        if (store && store->performReadFromURL(url, nullptr, &read) && read)
            store->noteStoreChanged();
    });
}

void HXUbiquitousStore::followDeletion(const QString &url) {
    const QFileInfo info(url);
    if (info.fileName().startsWith(u'.') ||
        info.suffix().compare(preferredItemPathExtension(), Qt::CaseInsensitive) != 0)
        return;
    std::weak_ptr<HXUbiquitousStore> weak = weak_from_this();
    const QString identifier = info.completeBaseName();
    const QString path = HXFileCoordinator::standardizedPath(url);
    HXDispatchQueue::mainQueue()->async([weak, identifier, path] {
        const auto store = weak.lock();
        if (!store)
            return;
        {
            std::lock_guard lock(store->m_modificationDatesMutex);
            store->m_modificationDates.remove(path);
        }
        store->m_ignoredFileURLs.remove(path);
        store->accomodateDeletionOfItemWithIdentifier(identifier);
    });
}

void HXUbiquitousStore::presentedSubitemDidAppearAtURL(const QString &url) {
    readChangedItem(url);
}

void HXUbiquitousStore::presentedSubitemDidChangeAtURL(const QString &url) {
    readChangedItem(url);
}

void HXUbiquitousStore::presentedSubitemAtURL(const QString &oldURL, const QString &newURL) {
    followDeletion(oldURL);
    readChangedItem(newURL);
}

void HXUbiquitousStore::accommodatePresentedSubitemDeletionAtURL(const QString &url,
                                                                 CompletionHandler handler) {
    handler(nullptr);
    followDeletion(url);
}

void HXUbiquitousStore::accommodatePresentedItemDeletionWithCompletionHandler(
    CompletionHandler handler) {
    handler(nullptr);
    // The cloud folder went (the account changed, or the container was removed).
    std::weak_ptr<HXUbiquitousStore> weak = weak_from_this();
    HXDispatchQueue::mainQueue()->async([weak] {
        const auto store = weak.lock();
        // Both folders' presenters come here: only the cloud folder's going changes the mirror.
        if (!store || store->m_ubiquitousDirectory.isEmpty() ||
            QFileInfo(store->m_ubiquitousDirectory).isDir())
            return;
        if (store->m_presenter)
            store->m_presenter->endPresentation();
        store->m_presenter.reset();
        store->m_ubiquitousDirectory.clear();
        store->ubiquityIdentityChanged();
    });
}
