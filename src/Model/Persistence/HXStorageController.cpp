#include "Model/Persistence/HXStorageController.h"

#include "Model/Persistence/HXExternalSource.h"
#include "Model/Persistence/HXLibrary.h"
#include "Model/Sheets/HXSheet.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Utilities/HXApplicationLog.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXDispatchQueue.h"
#include "Utilities/HXFileCoordinator.h"
#include "Utilities/HXFileSystem.h"
#include "Utilities/HXFolderReference.h"
#include "Utilities/HXLocations.h"
#include "Utilities/HXPropertyList.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QUrl>

namespace {

const QString rootKey = QStringLiteral("root");
const QString containerKey = QStringLiteral("container");
const QString sheetKey = QStringLiteral("sheet");
const QString URLKey = QStringLiteral("URL");
const QString identifierKey = QStringLiteral("identifier");
const QString bookmarkKey = QStringLiteral("bookmark");

// The settings file names a folder by its file URL, as a folder's URL is written: with a slash.
QString fileURLString(const QString &path) {
    return QUrl::fromLocalFile(path.endsWith(u'/') ? path : path + u'/')
        .toString(QUrl::FullyEncoded);
}

QString pathFromFileURLString(const QString &string) {
    const QUrl url(string, QUrl::StrictMode);
    if (!url.isValid() || !url.isLocalFile())
        return {};
    QString path = url.toLocalFile();
    while (path.size() > 1 && path.endsWith(u'/'))
        path.chop(1);
    return path.startsWith(u'/') ? path : QString();
}

} // namespace

std::shared_ptr<HXStorageController> HXStorageController::sharedInstance() {
    // Kept to the very end: the libraries must not be torn down while static objects that
    // their teardown needs are already gone.
    static const auto *instance = new std::shared_ptr<HXStorageController>(create());
    return *instance;
}

std::shared_ptr<HXStorageController> HXStorageController::create() {
    std::shared_ptr<HXStorageController> controller(new HXStorageController);
    controller->start();
    return controller;
}

HXStorageController::~HXStorageController() {
    for (const auto &storage : allStorages())
        storage->invalidate();
}

void HXStorageController::start() {
    m_loadingSources = 1;
    // The local library is read completely before anyone can ask for it.
    m_localLibrary = HXLibrary::localLibrary();
    loadUbiquitousSources();
    loadExternalSources();

    if (QCoreApplication::instance()) {
        // There is no account service: the synced folder is looked at now and then.
        m_ubiquityIdentity = ubiquityIdentityToken();
        m_ubiquityTimer = std::make_unique<QTimer>();
        m_ubiquityTimer->setInterval(2000);
        QObject::connect(m_ubiquityTimer.get(), &QTimer::timeout,
                         [weak = weak_from_this()] {
                             if (const auto self = weak.lock())
                                 self->checkUbiquityIdentity();
                         });
        m_ubiquityTimer->start();
    }

    const auto center = HXNotificationCenter::defaultCenter();
    const std::weak_ptr<HXStorageController> weak = weak_from_this();
    m_terminationObservation =
        center->addObserver(HXApplicationWillTerminateNotification, [weak](const HXNotification &) {
            if (const auto self = weak.lock()) {
                for (const auto &storage : self->allStorages())
                    storage->writePendingInfoFiles();
                self->cleanupSearchIndices();
            }
        });
    m_writeErrorObservation = center->addObserver(
        HXDocument::unhandledSaveErrorNotification, [weak](const HXNotification &notification) {
            if (const auto self = weak.lock())
                self->handleErrorWritingDocument(notification);
        });
}

QList<std::shared_ptr<HXStorage>> HXStorageController::allStorages() const {
    QList<std::shared_ptr<HXStorage>> storages;
    if (m_ubiquitousLibrary)
        storages << m_ubiquitousLibrary;
    if (m_localLibrary)
        storages << m_localLibrary;
    for (const auto &source : m_externalSources)
        storages << source;
    return storages;
}

int HXStorageController::addObserver(Observer observer) {
    const int token = m_nextObserverToken++;
    m_observers.append({token, std::move(observer)});
    return token;
}

void HXStorageController::removeObserver(int token) {
    m_observers.removeIf([token](const auto &entry) { return entry.first == token; });
}

void HXStorageController::announce(HXStorageControllerKey key) {
    const auto observers = m_observers;
    for (const auto &entry : observers) {
        entry.second(key);
        if (key != HXStorageControllerKey::AllStorages)
            entry.second(HXStorageControllerKey::AllStorages);
    }
}

// --- The loaded gate ------------------------------------------------------------------------

void HXStorageController::waitUntilLoaded(std::function<void()> handler) {
    HX_ASSERT(handler != nullptr, u"handler");
    if (m_loadingSources.load() == 0)
        handler();
    else
        m_loadHandlers.append(std::move(handler));
}

void HXStorageController::signalLoadHandlers() {
    const auto handlers = std::exchange(m_loadHandlers, {});
    for (const auto &handler : handlers)
        handler();
}

// --- The synced library ---------------------------------------------------------------------

QString HXStorageController::ubiquityIdentityToken() {
    const QString path = HXLibrary::ubiquitousLibraryPath();
    if (path.isEmpty())
        return {};
    const QString container = QFileInfo(QFileInfo(path).path()).path();
    return container + QLatin1String(HXFileIdentity::ofPath(container).isDirectory ? "\n1" : "\n0");
}

void HXStorageController::setUbiquityCheckInterval(int milliseconds) {
    if (m_ubiquityTimer)
        m_ubiquityTimer->setInterval(milliseconds);
}

void HXStorageController::checkUbiquityIdentity() {
    const QString token = ubiquityIdentityToken();
    if (token == m_ubiquityIdentity)
        return;
    m_ubiquityIdentity = token;
    ubiquityIdentityDidChange();
}

void HXStorageController::loadUbiquitousSources() {
    int idle = 0;
    m_loadingSources.compare_exchange_strong(idle, 1);
    const int search = ++m_ubiquitySearch;
    const std::weak_ptr<HXStorageController> weak = weak_from_this();
    // Reading a synced library can take long, and its folder may be slow to come: not here.
    HXDispatchQueue::globalQueue()->async([weak, search] {
        std::shared_ptr<HXLibrary> library = HXLibrary::ubiquitousLibrary();
        HXDispatchQueue::mainQueue()->async([weak, search, library] {
            const auto self = weak.lock();
            if (!self || search != self->m_ubiquitySearch.load()) {
                // A later search replaces this one, or nobody waits for it any more.
                if (library)
                    library->invalidate();
                return;
            }
            self->setUbiquitousLibrary(library);
            int loading = 1;
            self->m_loadingSources.compare_exchange_strong(loading, 0);
            self->signalLoadHandlers();
        });
    });
}

void HXStorageController::ubiquityIdentityDidChange() {
    setUbiquitousLibrary(nullptr);
    loadUbiquitousSources();
}

void HXStorageController::setUbiquitousLibrary(std::shared_ptr<HXLibrary> library) {
    if (library == m_ubiquitousLibrary)
        return;
    // The old library is torn down: its handles can no longer reach its files.
    if (const auto old = std::exchange(m_ubiquitousLibrary, std::move(library)))
        old->invalidate();
    announce(HXStorageControllerKey::UbiquitousLibrary);
}

// --- External sources -----------------------------------------------------------------------

QString HXStorageController::externalSourceSettingsURL() {
    const QString folder = HXLocations::applicationSupportPath();
    HXLocations::makeFolder(folder, nullptr);
    return folder + u'/' + settingsFilename;
}

std::shared_ptr<HXExternalSource>
HXStorageController::addExternalSourceWithBaseURL(const QString &url, int index) {
    const auto source =
        addExternalSourceWithBaseURL(url, HXNativeStorage::newUniqueIdentifier(), index);
    if (source)
        writeExternalSources();
    return source;
}

std::shared_ptr<HXExternalSource>
HXStorageController::addExternalSourceWithBaseURL(const QString &url, const QString &identifier,
                                                  int index) {
    const QString path = HXFileCoordinator::standardizedPath(url);
    if (HXStorage::isInSystemTrash(path))
        return nullptr;
    const qsizetype existing = indexOfExternalSource(path);
    if (existing >= 0)
        HX_ASSERT(m_externalSources[existing]->isInvalid(),
                  u"Attempt to override non-invalidate source");
    const auto source = HXExternalSource::sourceAtURL(path, identifier);
    if (existing >= 0)
        m_externalSources[existing] = source;
    else
        m_externalSources.insert(qBound(0, index, int(m_externalSources.size())), source);
    observeTrashing(source);
    announce(HXStorageControllerKey::ExternalSources);
    return source;
}

qsizetype HXStorageController::indexOfExternalSource(const QString &path) const {
    const QString standardized = HXFileCoordinator::standardizedPath(path);
    const QString exact = HXFileSystem::exactPath(standardized);
    for (qsizetype i = 0; i < m_externalSources.size(); ++i) {
        const QString base = m_externalSources[i]->baseURL();
        if (base == standardized || base == exact)
            return i;
    }
    return -1;
}

void HXStorageController::observeTrashing(const std::shared_ptr<HXExternalSource> &source) {
    const std::weak_ptr<HXStorageController> weakSelf = weak_from_this();
    const std::weak_ptr<HXExternalSource> weakSource = source;
    source->setTrashedHandler([weakSelf, weakSource] {
        HXDispatchQueue::mainQueue()->async([weakSelf, weakSource] {
            const auto self = weakSelf.lock();
            const auto trashed = weakSource.lock();
            if (self && trashed)
                self->removeExternalSources({trashed});
        });
    });
}

void HXStorageController::moveExternalSource(const std::shared_ptr<HXExternalSource> &source,
                                             int index) {
    const qsizetype old = m_externalSources.indexOf(source);
    if (old < 0)
        return;
    m_externalSources.removeAt(old);
    const int target = old < index ? index - 1 : index;
    m_externalSources.insert(qBound(0, target, int(m_externalSources.size())), source);
    announce(HXStorageControllerKey::ExternalSources);
    writeExternalSources();
}

void HXStorageController::removeExternalSources(
    const QList<std::shared_ptr<HXExternalSource>> &sources) {
    bool removed = false;
    for (const auto &source : sources) {
        if (m_externalSources.removeOne(source)) {
            removed = true;
            m_bookmarksForExternalSources.remove(source->identifier());
            source->setTrashedHandler(nullptr);
            source->invalidate();
        }
    }
    if (!removed)
        return;
    announce(HXStorageControllerKey::ExternalSources);
    writeExternalSources();
}

void HXStorageController::loadExternalSources() {
    const QString settings = externalSourceSettingsURL();
    for (const auto &source : std::exchange(m_externalSources, {}))
        source->invalidate();
    m_bookmarksForExternalSources.clear();
    if (!QFileInfo::exists(settings)) {
        announce(HXStorageControllerKey::ExternalSources);
        return;
    }
    HXError error;
    const QVariant list = HXPropertyList::readFile(settings, &error);
    if (list.typeId() != QMetaType::QVariantList) {
        // Never written over: the file may be fine for a later version, or be mended by hand.
        HXApplicationLog::sharedInstance()->logError(
            u"Cannot read external sources %@: %@", settings,
            error.isNull() ? QStringLiteral("not a list") : error.localizedDescription());
        announce(HXStorageControllerKey::ExternalSources);
        return;
    }
    int index = 0;
    for (const QVariant &value : list.toList()) {
        const QVariantMap entry = value.toMap();
        const QString url = entry.value(URLKey).toString();
        const QByteArray bookmark = entry.value(bookmarkKey).toByteArray();
        HXError resolveError;
        QString path = HXFolderReference::resolveData(bookmark, &resolveError);
        if (path.isEmpty()) {
            HXApplicationLog::sharedInstance()->logError(u"Lost external source: %@ - %@", url,
                                                         resolveError.localizedDescription());
            path = pathFromFileURLString(url);
            if (path.isEmpty())
                continue;
        }
        if (const qsizetype twin = indexOfExternalSource(path);
            twin >= 0 && !m_externalSources[twin]->isInvalid()) {
            // A list edited by hand may name a folder twice: the first entry stands.
            HXApplicationLog::sharedInstance()->logError(u"Duplicate external source: %@", url);
            continue;
        }
        QString identifier = entry.value(identifierKey).toString();
        if (identifier.isEmpty())
            identifier = HXNativeStorage::newUniqueIdentifier();
        if (addExternalSourceWithBaseURL(path, identifier, index)) {
            ++index;
            if (!bookmark.isEmpty())
                m_bookmarksForExternalSources.insert(identifier, bookmark);
        }
    }
    writeExternalSources();
}

bool HXStorageController::writeExternalSources() {
    const QString settings = externalSourceSettingsURL();
    if (QFileInfo::exists(settings) &&
        HXPropertyList::readFile(settings, nullptr).typeId() != QMetaType::QVariantList) {
        // Kept beside the new list, so that no source the user had is lost for good.
        HXFileSystem::moveItem(settings, settings + QStringLiteral(".damaged"), true, nullptr);
    }
    QVariantList list;
    for (const auto &source : m_externalSources) {
        const QString path = source->baseURL();
        QVariantMap entry{{URLKey, fileURLString(path)}, {identifierKey, source->identifier()}};
        HXError error;
        QByteArray bookmark = HXFolderReference::dataForPath(path, &error);
        if (bookmark.isEmpty())
            bookmark = m_bookmarksForExternalSources.value(source->identifier());
        if (bookmark.isEmpty())
            HXApplicationLog::sharedInstance()->logError(
                u"Could not create bookmark for external source: %@ - %@", entry.value(URLKey),
                error.localizedDescription());
        else
            entry.insert(bookmarkKey, bookmark);
        list << entry;
    }
    HXError error;
    if (!HXPropertyList::writeFile(list, settings, &error)) {
        HXApplicationLog::sharedInstance()->logError(u"Could not write %@: %@", settings,
                                                     error.localizedDescription());
        return false;
    }
    return true;
}

// --- Names across storages ------------------------------------------------------------------

QVariant HXStorageController::persistentObjectForStorage(const HXStorageRef &storage) const {
    return storage ? QVariant(storage->identifier()) : QVariant();
}

HXStorageRef HXStorageController::storageForPersistentObject(const QVariant &object) const {
    const QString identifier = object.toString();
    for (const auto &storage : allStorages()) {
        if (storage->identifier() == identifier)
            return storage;
    }
    return nullptr;
}

namespace {

QVariant persistentObject(const std::shared_ptr<HXStorageItem> &item, const QString &key) {
    const auto storage = item ? item->storage() : nullptr;
    if (!storage)
        return {};
    const QVariant object = storage->persistentObjectForItem(item);
    if (!object.isValid())
        return {};
    return QVariantMap{{rootKey, storage->identifier()}, {key, object}};
}

} // namespace

QVariant
HXStorageController::persistentObjectForContainer(const std::shared_ptr<HXContainer> &c) const {
    return persistentObject(c, containerKey);
}

std::shared_ptr<HXContainer>
HXStorageController::containerForPersistentObject(const QVariant &object) const {
    const QVariantMap map = object.toMap();
    const auto storage = storageForPersistentObject(map.value(rootKey));
    if (!storage || !map.contains(containerKey))
        return nullptr;
    return std::dynamic_pointer_cast<HXContainer>(
        storage->itemForPersistentObject(map.value(containerKey)));
}

QVariant HXStorageController::persistentObjectForSheetHandle(
    const std::shared_ptr<HXSheetHandle> &handle) const {
    return persistentObject(handle, sheetKey);
}

std::shared_ptr<HXSheetHandle>
HXStorageController::sheetHandleForPersistentObject(const QVariant &object) const {
    const QVariantMap map = object.toMap();
    const auto storage = storageForPersistentObject(map.value(rootKey));
    if (!storage || !map.contains(sheetKey))
        return nullptr;
    return std::dynamic_pointer_cast<HXSheetHandle>(
        storage->itemForPersistentObject(map.value(sheetKey)));
}

bool HXStorageController::persistentObjectIsUbiquitousForSheetHandle(
    const std::shared_ptr<HXSheetHandle> &handle) const {
    const auto storage = handle ? handle->storage() : nullptr;
    return storage && storage->arePersistentObjectsUbiquitous();
}

std::shared_ptr<HXStorageItem>
HXStorageController::storageItemForOpeningURL(const QString &url) const {
    const QString path = HXFileCoordinator::standardizedPath(url);
    for (const auto &storage : allStorages()) {
        if (auto item = storage->storageItemForOpeningURL(path))
            return item;
    }
    return nullptr;
}

void HXStorageController::cleanupSearchIndices() {
    // No storage keeps a search index yet, so there is nothing to clean up.
}

// --- Write errors ---------------------------------------------------------------------------

void HXStorageController::handleErrorWritingDocument(const HXNotification &notification) {
    const auto *document = static_cast<const HXDocument *>(notification.sender);
    const auto *sheet = dynamic_cast<const HXSheet *>(document);
    HX_ASSERT(sheet != nullptr, u"Write error handled for unknown HXDocument subclass.");
    const QVariant error = notification.userInfo.value(QStringLiteral("error"));
    HX_ASSERT(error.canConvert<HXError>() && !error.value<HXError>().isNull(),
              u"Missing error message.");
    const auto shared = std::static_pointer_cast<HXSheet>(
        const_cast<HXSheet *>(sheet)->shared_from_this());
    const std::weak_ptr<HXStorageController> weak = weak_from_this();
    HXDispatchQueue::mainQueue()->async([weak, shared, error] {
        const auto self = weak.lock();
        if (self && self->m_delegate)
            self->m_delegate->storageControllerDidReceiveWriteError(shared, error.value<HXError>());
    });
}
