#include "Model/Persistence/HXStorage.h"

#include "Model/Sheets/HXSheet.h"
#include "Model/StorageTree/HXConditionFilter.h"
#include "Model/StorageTree/HXGroup.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Model/StorageTree/HXStaticContainer.h"
#include "Utilities/HXApplicationLog.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXFileCoordinator.h"
#include "Utilities/HXFilePresentationProxy.h"
#include "Utilities/HXFileSystem.h"
#include "Utilities/HXPropertyList.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <dirent.h>

QString HXTreeChange::kindName(Kind kind) {
    switch (kind) {
    case Inserted:
        return QStringLiteral("inserted");
    case Removed:
        return QStringLiteral("removed");
    case Moved:
        return QStringLiteral("moved");
    case Renamed:
        return QStringLiteral("renamed");
    case InfoChanged:
        return QStringLiteral("info");
    }
    return {};
}

HXStorage::~HXStorage() {
    if (m_presenter)
        m_presenter->endPresentation();
}

// --- Opening --------------------------------------------------------------------------------

bool HXStorage::open(const QString &url, const QString &identifier) {
    HX_ASSERT(!url.isEmpty(), u"url != nil");
    HX_ASSERT(!identifier.isEmpty(), u"identifier.length > 0");
    m_identifier = identifier;
    m_invalid = false;
    m_readingInfoFile = true;
    const QString path = HXFileCoordinator::standardizedPath(url);
    if (createRootFolderIfNeeded() && !isInSystemTrash(path)) {
        HXError error;
        HXFileSystem::makeFolder(path, &error);
    }
    const HXFileIdentity identity = HXFileIdentity::ofPath(path);
    if (!identity.exists || !identity.isDirectory || isInSystemTrash(path) ||
        !QFileInfo(path).isReadable()) {
        setBaseURL(path);
        invalidate();
        return false;
    }
    setBaseURL(HXFileSystem::exactPath(path));
    m_caseSensitive = HXFileSystem::isCaseSensitive(baseURL());
    HXFileCoordinator::addCoordinationRoot(baseURL());
    m_presenter = HXFilePresentationProxy::proxyWithOwner(
        std::static_pointer_cast<HXFilePresenter>(shared_from_this()), baseURL(),
        QStringLiteral("com.quaytor.velmora3.notification-processing"));
    HXFileCoordinator coordinator;
    coordinator.coordinateReadingItemAtURL(baseURL(), HXFileCoordinator::ReadingWithoutChanges,
                                           nullptr, [&](const QString &granted) {
                                               m_presenter->setPresentedItemURL(granted);
                                               m_presenter->beginPresentation();
                                           });
    setUp();
    readInfoFile();
    {
        std::lock_guard lock(m_monitor);
        const auto root = std::dynamic_pointer_cast<HXGroup>(
            newContainer(HXStorageItemKind::Group, QFileInfo(baseURL()).fileName()));
        HX_ASSERT(root != nullptr, u"The base folder must be read as a group.");
        root->setIntrinsic(true);
        m_rootGroup = root;
        root->setAlive(true);
        readFolder(root);
    }
    setUpStaticContainers();
    setUpSearchIndex();
    return true;
}

void HXStorage::setUpStaticContainers() {
    if (!providesStaticContainers())
        return;
    const auto self = shared_from_this();
    auto all = std::make_shared<HXStaticFilter>(QStringLiteral(":All"), self, m_rootGroup);
    all->setDisplayName(displayName());
    all->setIconName(QStringLiteral("All"));
    // Stands even without conditions: it holds every sheet.
    all->setOptions(1);
    all->setParent(m_rootGroup);
    all->setAlive(true);
    auto recent = std::make_shared<HXStaticFilter>(QStringLiteral(":Recent"), self, m_rootGroup);
    recent->setDisplayName(displayName());
    recent->setIconName(QStringLiteral("Recent"));
    // The sheets of the last seven days.
    recent->setQuery(
        {{QStringLiteral("conditions"),
          QVariantList{
              QVariantMap{{QStringLiteral("class"), QStringLiteral("HXDateSearchCondition")},
                          {QStringLiteral("type"), 0},
                          {QStringLiteral("comparison"), 1},
                          {QStringLiteral("difference"), 7 * 86400}}}}});
    recent->setParent(m_rootGroup);
    recent->setAlive(true);
    m_allFilter = std::move(all);
    m_recentFilter = std::move(recent);
}

void HXStorage::readFolder(const std::shared_ptr<HXContainer> &container) {
    // Directory entries only: the kind of an item is in its name.
    const QString url = container->URL();
    DIR *folder = ::opendir(QFile::encodeName(url).constData());
    if (!folder)
        return;
    QStringList names;
    while (const dirent *entry = ::readdir(folder)) {
        if (entry->d_name[0] == '.')
            continue;
        names.append(QFile::decodeName(entry->d_name));
    }
    ::closedir(folder);
    const auto group = std::dynamic_pointer_cast<HXGroup>(container);
    for (const QString &name : names) {
        const QString path = url + u'/' + name;
        const HXStorageItemKind kind = classForFilename(path);
        if (kind == HXStorageItemKind::None)
            continue;
        // Looked up by name in the group's sets: a scan of the children per entry would make
        // opening a large group quadratic. A volume that ignores case needs the slower rule.
        const bool known = group && m_caseSensitive
                               ? group->containerSet().storageItemWithFilename(name) ||
                                     group->sheetHandleSet().storageItemWithFilename(name)
                               : itemAtURLLocked(path) != nullptr;
        if (known)
            continue;
        const auto item = readItemInContainer(container, path, kind);
        if (item && item->isContainer())
            readFolder(std::static_pointer_cast<HXContainer>(item));
    }
}

void HXStorage::readContentsAtURL(const QString &url) {
    std::lock_guard lock(m_monitor);
    if (m_invalid)
        return;
    const QString base = baseURL();
    if (url != base && classForReadingItemAtURL(url) == HXStorageItemKind::None)
        return;
    if (url != base && !isDescendantOfURL(url, base))
        return;
    // The nearest ancestor with a node; missing ones are read on the way down.
    QStringList missing;
    QString at = url;
    std::shared_ptr<HXStorageItem> known = itemAtURLLocked(at);
    while (!known && at != base && at.size() > base.size()) {
        missing.prepend(at);
        at = QFileInfo(at).path();
        known = itemAtURLLocked(at);
    }
    if (!known)
        return;
    for (const QString &path : missing) {
        known = readItemAtURL(path);
        if (!known)
            return;
    }
    if (known->isContainer())
        readFolder(std::static_pointer_cast<HXContainer>(known));
}

std::shared_ptr<HXStorageItem> HXStorage::readItemAtURL(const QString &url) {
    std::lock_guard lock(m_monitor);
    const auto parent =
        std::dynamic_pointer_cast<HXContainer>(itemAtURLLocked(QFileInfo(url).path()));
    return parent ? readItemInContainer(parent, url, classForReadingItemAtURL(url)) : nullptr;
}

std::shared_ptr<HXStorageItem> HXStorage::readItemInContainer(const HXContainerRef &parent,
                                                              const QString &url,
                                                              HXStorageItemKind kind) {
    if (kind == HXStorageItemKind::None)
        return nullptr;
    const QString filename = QFileInfo(url).fileName();
    std::shared_ptr<HXStorageItem> item;
    if (kind == HXStorageItemKind::Sheet)
        item = std::make_shared<HXSheetHandle>(filename, shared_from_this());
    else
        item = newContainer(kind, filename);
    if (!item)
        return nullptr;
    item->setParent(parent);
    item->setAlive(true);
    const bool entered =
        item->isContainer()
            ? parent->accommodateInsertionOfContainer(std::static_pointer_cast<HXContainer>(item),
                                                      nullptr, HXNotFound)
            : parent->accommodateInsertionOfSheetHandle(
                  std::static_pointer_cast<HXSheetHandle>(item), nullptr, HXNotFound);
    if (!entered) {
        // A second name for one item, as a volume that ignores case sees it: dropped.
        item->setAlive(false);
        item->setParent(nullptr);
        return nullptr;
    }
    didReadItem(item);
    return item;
}

// --- Finding nodes --------------------------------------------------------------------------

QString HXStorage::baseURL() const {
    std::lock_guard lock(m_baseMutex);
    return m_baseURL;
}

void HXStorage::setBaseURL(const QString &url) {
    {
        std::lock_guard lock(m_baseMutex);
        m_baseURL = url;
    }
    if (m_rootGroup) {
        m_rootGroup->setFilename(QFileInfo(url).fileName());
        m_rootGroup->parentsDidChange();
    }
    if (m_presenter)
        m_presenter->setPresentedItemURL(url);
}

std::shared_ptr<HXGroup> HXStorage::rootGroup() const {
    return m_rootGroup;
}

bool HXStorage::isInvalid() const {
    std::lock_guard lock(m_monitor);
    return m_invalid;
}

void HXStorage::invalidate() {
    std::lock_guard lock(m_monitor);
    if (m_invalid)
        return;
    m_invalid = true;
    if (m_presenter)
        m_presenter->endPresentation();
    HXFileCoordinator::removeCoordinationRoot(baseURL());
    if (m_rootGroup)
        m_rootGroup->setAlive(false);
    didInvalidate();
}

bool HXStorage::isFilename(const QString &a, const QString &b) const {
    return HXFileSystem::filenamesEqual(a, b, m_caseSensitive);
}

bool HXStorage::isFileURL(const QString &a, const QString &b) const {
    if (a.isEmpty() || b.isEmpty())
        return false;
    const QString first = HXFileCoordinator::standardizedPath(a);
    const QString second = HXFileCoordinator::standardizedPath(b);
    return m_caseSensitive ? first == second : first.compare(second, Qt::CaseInsensitive) == 0;
}

bool HXStorage::isDescendantOfURL(const QString &url, const QString &ancestor) const {
    const QString path = HXFileCoordinator::standardizedPath(url);
    const QString above = HXFileCoordinator::standardizedPath(ancestor);
    const Qt::CaseSensitivity rule = m_caseSensitive ? Qt::CaseSensitive : Qt::CaseInsensitive;
    return path.size() > above.size() && path.startsWith(above, rule) &&
           path.at(above.size()) == u'/';
}

std::shared_ptr<HXStorageItem> HXStorage::itemAtURL(const QString &url) const {
    std::lock_guard lock(m_monitor);
    return itemAtURLLocked(url);
}

std::shared_ptr<HXStorageItem> HXStorage::itemAtURLLocked(const QString &url) const {
    if (!m_rootGroup)
        return nullptr;
    const QString base = baseURL();
    const QString path = HXFileCoordinator::standardizedPath(url);
    if (isFileURL(path, base))
        return m_rootGroup;
    if (!isDescendantOfURL(path, base))
        return nullptr;
    const QStringList components = path.mid(base.size() + 1).split(u'/', Qt::SkipEmptyParts);
    std::shared_ptr<HXContainer> container = m_rootGroup;
    for (qsizetype index = 0; index < components.size(); ++index) {
        const QString &component = components.at(index);
        std::shared_ptr<HXContainer> next;
        for (const HXContainerRef &child : container->containers()) {
            if (isFilename(component, child->filename())) {
                next = child;
                break;
            }
        }
        if (next) {
            container = next;
            continue;
        }
        // The last component may be a sheet.
        if (index + 1 == components.size()) {
            for (const auto &handle : container->sheetHandles()) {
                if (isFilename(component, handle->filename()))
                    return handle;
            }
        }
        return nullptr;
    }
    return container;
}

bool HXStorage::isValidItemAtURL(const QString &url) const {
    return isDescendantOfURL(url, baseURL()) && HXFileIdentity::ofPath(url).exists &&
           classForReadingItemAtURL(url) != HXStorageItemKind::None;
}

std::shared_ptr<HXStorageItem> HXStorage::storageItemForOpeningURL(const QString &url) const {
    return m_rootGroup ? m_rootGroup->storageItemForOpeningURL(url) : nullptr;
}

QVariant HXStorage::persistentObjectForItem(const std::shared_ptr<HXStorageItem> &item) const {
    if (item && (item == m_allFilter || item == m_recentFilter))
        return item->filename();
    return {};
}

std::shared_ptr<HXStorageItem> HXStorage::itemForPersistentObject(const QVariant &object) const {
    const QString name = object.toString();
    if (m_allFilter && name == m_allFilter->filename())
        return m_allFilter;
    if (m_recentFilter && name == m_recentFilter->filename())
        return m_recentFilter;
    return nullptr;
}

std::shared_ptr<HXContainer> HXStorage::defaultContainerForItemOfKind(HXStorageItemKind) {
    return m_rootGroup;
}

std::shared_ptr<HXSheet> HXStorage::sheetForHandle(const std::shared_ptr<HXSheetHandle> &handle,
                                                   bool readOnly, HXError *error) {
    HX_ASSERT(handle->isAlive(), u"handle.isAlive");
    HX_ASSERT(handle->storage().get() == this, u"handle.storage == self");
    return sheetForURL(handle->URL(), readOnly, error);
}

// --- Following the disk ---------------------------------------------------------------------

void HXStorage::accommodateStorageItem(const std::shared_ptr<HXStorageItem> &item,
                                       const QString &filename) {
    std::shared_ptr<HXContainer> parent;
    {
        std::lock_guard lock(m_monitor);
        item->setFilename(filename);
        parent = item->parent();
        if (parent)
            parent->storageItemFilenameDidChange(item);
    }
    if (parent)
        parent->saveMetadataIfNeeded();
}

void HXStorage::storageItemDidAppearAtURL(const QString &url) {
    const QString exact = HXFileSystem::exactPath(url);
    if (!itemAtURL(exact))
        readContentsAtURL(exact);
}

void HXStorage::storageItemWasDeletedAtURL(const QString &url) {
    std::lock_guard lock(m_monitor);
    const auto item = itemAtURLLocked(url);
    if (!item || item == m_rootGroup)
        return;
    const auto parent = item->parent();
    item->setAlive(false);
    item->setParent(nullptr);
    if (!parent)
        return;
    if (item->isContainer())
        parent->accommodateDeletionOfContainer(std::static_pointer_cast<HXContainer>(item));
    else
        parent->accommodateDeletionOfSheetHandle(std::static_pointer_cast<HXSheetHandle>(item));
}

void HXStorage::storageItemAtURL(const QString &oldURL, const QString &newURL) {
    std::unique_lock lock(m_monitor);
    const auto item = itemAtURLLocked(oldURL);
    if (!item)
        return;
    const auto oldParent = item->parent();
    const auto newParent =
        std::dynamic_pointer_cast<HXContainer>(itemAtURLLocked(QFileInfo(newURL).path()));
    if (const auto there = itemAtURLLocked(newURL); there && there != item) {
        lock.unlock();
        storageItemDidChangeAtURL(oldURL);
        storageItemDidChangeAtURL(newURL);
        return;
    }
    if (!isValidItemAtURL(newURL) || !newParent) {
        lock.unlock();
        storageItemWasDeletedAtURL(oldURL);
        return;
    }
    const QString filename = QFileInfo(newURL).fileName();
    if (oldParent == newParent) {
        // A rename.
        item->setFilename(filename);
        newParent->storageItemFilenameDidChange(item);
        return;
    }
    quint64 index = HXNotFound;
    if (oldParent) {
        const qsizetype at =
            item->isContainer()
                ? oldParent->containers().indexOf(std::static_pointer_cast<HXContainer>(item))
                : oldParent->sheetHandles().indexOf(std::static_pointer_cast<HXSheetHandle>(item));
        if (at >= 0)
            index = quint64(at);
    }
    item->setParent(newParent);
    if (item->filename() != filename)
        item->setFilename(filename);
    // The insertion goes first, so that a trash sees the old parent and index.
    if (item->isContainer()) {
        const auto container = std::static_pointer_cast<HXContainer>(item);
        newParent->accommodateInsertionOfContainer(container, oldParent, index);
        if (oldParent)
            oldParent->accommodateDeletionOfContainer(container);
    } else {
        const auto handle = std::static_pointer_cast<HXSheetHandle>(item);
        newParent->accommodateInsertionOfSheetHandle(handle, oldParent, index);
        if (oldParent)
            oldParent->accommodateDeletionOfSheetHandle(handle);
    }
}

void HXStorage::storageItemDidChangeAtURL(const QString &url) {
    if (isFileURL(url, infoFileURL())) {
        readInfoFile();
        return;
    }
    {
        std::unique_lock lock(m_monitor);
        const bool valid = isValidItemAtURL(url);
        const auto item = itemAtURLLocked(url);
        if (valid && !item) {
            lock.unlock();
            storageItemDidAppearAtURL(url);
        } else if (item && !valid && item != m_rootGroup) {
            lock.unlock();
            storageItemWasDeletedAtURL(url);
        } else if (item && item != m_rootGroup) {
            const QString exact = QFileInfo(HXFileSystem::exactPath(url)).fileName();
            if (exact != item->filename()) {
                item->setFilename(exact);
                if (const auto parent = item->parent())
                    parent->storageItemFilenameDidChange(item);
            }
        }
    }
    if (m_rootGroup)
        m_rootGroup->itemDidChangeAtURL(HXFileCoordinator::standardizedPath(url));
}

// --- The storage's own file -----------------------------------------------------------------

void HXStorage::readInfoFile() {
    const QString url = infoFileURL();
    if (url.isEmpty()) {
        m_readingInfoFile = false;
        return;
    }
    HXFileCoordinator coordinator;
    coordinator.coordinateReadingItemAtURL(
        url, HXFileCoordinator::ReadingWithoutChanges, nullptr, [&](const QString &path) {
            const HXFileIdentity identity = HXFileIdentity::ofPath(path);
            if (!identity.exists) {
                m_readingInfoFile = false;
                return;
            }
            HXError error;
            const QVariant contents = HXPropertyList::readFile(path, &error);
            if (contents.typeId() != QMetaType::QVariantMap) {
                // Not understood: not written back either.
                HXApplicationLog::sharedInstance()->logError(u"Info file corrupted: %@", path);
                return;
            }
            setInfoDictionary(contents.toMap());
            m_infoModificationDate = identity.modificationTime;
            m_readingInfoFile = false;
        });
}

void HXStorage::writeInfoFile() {
    const QString url = infoFileURL();
    if (url.isEmpty() || m_readingInfoFile)
        return;
    HXFileCoordinator coordinator;
    coordinator.coordinateWritingItemAtURL(url, 0, nullptr, [&](const QString &path) {
        HXError error;
        if (!HXPropertyList::writeFile(infoDictionary(), path, &error)) {
            HXApplicationLog::sharedInstance()->logError(u"Failed writing info file: %@",
                                                         error.localizedDescription());
            return;
        }
        m_infoModificationDate = HXFileIdentity::ofPath(path).modificationTime;
    });
}

void HXStorage::writePendingInfoFiles() {
    const auto root = rootGroup();
    if (!root)
        return;
    QList<HXContainerRef> containers{root};
    containers.append(root->descendantContainers());
    for (const HXContainerRef &container : containers) {
        if (container->hasPendingInfoFileWrite())
            container->writeInfoFileImmediately();
    }
}

// --- Observers ------------------------------------------------------------------------------

int HXStorage::addTreeObserver(TreeObserver observer) {
    std::lock_guard lock(m_observerMutex);
    const int token = m_nextObserverToken++;
    m_treeObservers.append({token, std::move(observer)});
    return token;
}

void HXStorage::removeTreeObserver(int token) {
    std::lock_guard lock(m_observerMutex);
    m_treeObservers.removeIf([&](const auto &entry) { return entry.first == token; });
}

void HXStorage::noteTreeChange(HXTreeChange::Kind kind, const std::shared_ptr<HXStorageItem> &item,
                               const std::shared_ptr<HXContainer> &parent,
                               const QString &oldFilename) {
    QList<TreeObserver> observers;
    {
        std::lock_guard lock(m_observerMutex);
        for (const auto &entry : m_treeObservers)
            observers.append(entry.second);
    }
    const HXTreeChange change{kind, item, parent, oldFilename};
    for (const TreeObserver &observer : observers)
        observer(change);
}

// --- Presenting -----------------------------------------------------------------------------

std::shared_ptr<HXFilePresenter> HXStorage::filePresenter() const {
    return m_presenter;
}

QString HXStorage::presentedItemURL() const {
    HXRaiseAssertion(QStringLiteral("Should not be called. Use -filePresenter instead. "
                                    "Implemented for conformance to <NSFilePresenter> protocol "
                                    "only."));
}

std::shared_ptr<HXDispatchQueue> HXStorage::presentedItemOperationQueue() const {
    HXRaiseAssertion(QStringLiteral("Should not be called. Use -filePresenter instead. "
                                    "Implemented for conformance to <NSFilePresenter> protocol "
                                    "only."));
}

void HXStorage::presentedItemDidChange() {
    const QString base = baseURL();
    if (!HXFileIdentity::ofPath(base).exists) {
        invalidate();
        return;
    }
    const QString exact = HXFileSystem::exactPath(base);
    if (QFileInfo(exact).fileName() != QFileInfo(base).fileName())
        setBaseURL(exact);
}

void HXStorage::presentedItemDidMoveToURL(const QString &url) {
    if (isInSystemTrash(url)) {
        setBaseURL(url);
        invalidate();
        return;
    }
    setBaseURL(url);
}

void HXStorage::accommodatePresentedItemDeletionWithCompletionHandler(CompletionHandler handler) {
    handler(nullptr);
    invalidate();
}

void HXStorage::presentedSubitemDidAppearAtURL(const QString &url) {
    storageItemDidAppearAtURL(url);
}

void HXStorage::accommodatePresentedSubitemDeletionAtURL(const QString &url,
                                                         CompletionHandler handler) {
    handler(nullptr);
    storageItemWasDeletedAtURL(url);
}

void HXStorage::presentedSubitemAtURL(const QString &oldURL, const QString &newURL) {
    storageItemAtURL(oldURL, newURL);
}

void HXStorage::presentedSubitemDidChangeAtURL(const QString &url) {
    storageItemDidChangeAtURL(url);
}

QString HXStorage::systemTrashPath() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
           QStringLiteral("/Trash");
}

bool HXStorage::isInSystemTrash(const QString &url) {
    return HXFileCoordinator::isAncestorOrSelf(systemTrashPath(),
                                               HXFileCoordinator::standardizedPath(url));
}

// --- Changing the tree ------------------------------------------------------------------------

namespace {

HXStorageItemKind itemKindOf(HXContainerKind kind) {
    switch (kind) {
    case HXContainerKind::Filter:
        return HXStorageItemKind::Filter;
    case HXContainerKind::Trash:
        return HXStorageItemKind::Trash;
    case HXContainerKind::Group:
        break;
    }
    return HXStorageItemKind::Group;
}

// The reserved place takes the name, before the file arrives, so that the order is ready when
// the tree hears of it.
void substituteSentinel(const HXContainerRef &container, bool isContainer, quint64 sentinel,
                        const QString &filename) {
    const auto group = std::dynamic_pointer_cast<HXGroup>(container);
    if (!group || sentinel == HXNotFound)
        return;
    if (isContainer)
        group->substituteContainerSentinel(sentinel, filename);
    else
        group->substituteSheetHandleSentinel(sentinel, filename);
}

void assertSupported(bool supported, const HXContainerRef &container) {
    HX_ASSERT(supported, u"Operation not supported by container: %@", container->URL());
}

} // namespace

bool HXStorage::writeNewContainerAtURL(const QString &, const HXContainerRef &, HXError *error) {
    HXSetError(error, HXError::fileError(HXFileWriteUnknownError, baseURL(),
                                         QStringLiteral("This library can't make groups.")));
    return false;
}

std::shared_ptr<HXSheetHandle> HXStorage::createSheetInContainer(const HXContainerRef &container,
                                                                 quint64 sentinel,
                                                                 HXError *error) {
    assertSupported(container->operationForCreatingSheet() & 3, container);
    const auto sheet = newSheetMatchingMarkup(nullptr);
    if (!sheet) {
        HXSetError(error, HXError::fileError(HXFileWriteUnknownError, container->URL(),
                                             QStringLiteral("This library can't make sheets.")));
        return nullptr;
    }
    return createSheet(sheet, sentinel, container, {}, error);
}

std::shared_ptr<HXSheetHandle> HXStorage::createSheet(const std::shared_ptr<HXSheet> &sheet,
                                                      quint64 sentinel,
                                                      const HXContainerRef &container,
                                                      const QDateTime &creationDate,
                                                      HXError *error) {
    HXFileCoordinator coordinator;
    for (;;) {
        const QString filename =
            filenameForPreferredFilename(preferredFilenameForSheet(), {}, container);
        const QString url = container->URL() + u'/' + filename;
        bool taken = false;
        bool saved = false;
        const bool coordinated =
            coordinator.coordinateWritingItemAtURL(url, 0, error, [&](const QString &path) {
                if (HXFileIdentity::ofPath(path).exists) {
                    taken = true;
                    return;
                }
                substituteSentinel(container, false, sentinel, filename);
                saved = sheet->coordinatedSaveToURL(path, HXDocument::SaveOperationSave, error);
                if (saved && creationDate.isValid())
                    HXFileSystem::setCreationDate(path, creationDate);
            });
        if (taken)
            continue;
        if (!coordinated || !saved)
            return nullptr;
        storageItemDidAppearAtURL(url);
        container->saveMetadataIfNeeded();
        return std::dynamic_pointer_cast<HXSheetHandle>(itemAtURL(url));
    }
}

HXContainerRef HXStorage::createContainerOfKind(HXContainerKind kind,
                                                const HXContainerRef &container,
                                                const QString &displayName, quint64 sentinel,
                                                HXError *error) {
    assertSupported(container->operationForCreatingContainerOfKind(kind) & 3, container);
    return createContainer(kind, container, sentinel, error, [&](const HXContainerRef &made) {
        made->setDisplayName(displayName);
    });
}

HXContainerRef HXStorage::createContainer(HXContainerKind kind, const HXContainerRef &container,
                                          quint64 sentinel, HXError *error,
                                          const std::function<void(const HXContainerRef &)> &prepare) {
    const HXStorageItemKind itemKind = itemKindOf(kind);
    HXFileCoordinator coordinator;
    for (;;) {
        const QString filename = filenameForPreferredFilename(
            preferredFilenameForContainerOfKind(itemKind), {}, container);
        const auto prototype = newContainer(itemKind, filename);
        if (!prototype) {
            HXSetError(error, HXError::fileError(HXFileWriteUnknownError, container->URL(),
                                                 QStringLiteral("This library can't make it.")));
            return nullptr;
        }
        prepare(prototype);
        const QString url = container->URL() + u'/' + filename;
        bool taken = false;
        bool made = false;
        const bool coordinated =
            coordinator.coordinateWritingItemAtURL(url, 0, error, [&](const QString &path) {
                if (HXFileIdentity::ofPath(path).exists) {
                    taken = true;
                    return;
                }
                substituteSentinel(container, true, sentinel, filename);
                made = writeNewContainerAtURL(path, prototype, error);
            });
        if (taken)
            continue;
        if (!coordinated || !made)
            return nullptr;
        storageItemDidAppearAtURL(url);
        container->saveMetadataIfNeeded();
        return std::dynamic_pointer_cast<HXContainer>(itemAtURL(url));
    }
}

std::shared_ptr<HXSheetHandle> HXStorage::copySheet(const std::shared_ptr<HXSheet> &sheet,
                                                    const HXContainerRef &container,
                                                    quint64 sentinel, HXError *error) {
    const auto copy = newSheetMatchingMarkup(sheet->markup());
    if (!copy) {
        HXSetError(error, HXError::fileError(HXFileWriteUnknownError, container->URL(),
                                             QStringLiteral("This library can't make sheets.")));
        return nullptr;
    }
    sheet->copyToSheet(*copy);
    const QDateTime created =
        sheet->fileURL().isEmpty() ? QDateTime() : HXFileSystem::creationDate(sheet->fileURL());
    // The copy is let go closed; a source loaded for reading holds no presenter, and goes with
    // its last user.
    auto handle = createSheet(copy, sentinel, container, created, error);
    copy->closeWithCompletionHandler(nullptr);
    return handle;
}

HXContainerRef HXStorage::copyContainer(const HXContainerRef &source,
                                        const HXContainerRef &container, quint64 sentinel,
                                        HXError *error) {
    assertSupported(container->operationForCreatingContainerOfKind(source->kind()) & 3,
                    container);
    const QVariantMap contents = source->infoFileContents(true);
    return createContainer(source->kind(), container, sentinel, error,
                           [&](const HXContainerRef &made) { made->setInfoFileContents(contents); });
}

bool HXStorage::moveSheetHandle(const std::shared_ptr<HXSheetHandle> &handle,
                                const HXContainerRef &container, quint64 sentinel,
                                HXError *error) {
    HX_ASSERT((container->operationForInsertingSheetHandle(handle) & 3) == HXContainer::OperationMove,
              u"Operation not supported by container: %@", container->URL());
    if (handle->parent() == container) {
        substituteSentinel(container, false, sentinel, handle->filename());
        container->saveMetadataIfNeeded();
        return true;
    }
    return moveStorageItem(handle, container, sentinel, error);
}

bool HXStorage::moveContainer(const HXContainerRef &source, const HXContainerRef &container,
                              quint64 sentinel, HXError *error) {
    HX_ASSERT((container->operationForInsertingContainer(source) & 3) == HXContainer::OperationMove,
              u"Operation not supported by container: %@", container->URL());
    if (source->parent() == container) {
        substituteSentinel(container, true, sentinel, source->filename());
        container->saveMetadataIfNeeded();
        return true;
    }
    return moveStorageItem(source, container, sentinel, error);
}

bool HXStorage::moveStorageItem(const HXStorageItemRef &item, const HXContainerRef &container,
                                quint64 sentinel, HXError *error) {
    HX_ASSERT(item->storage().get() == this && container->storage().get() == this,
              u"item.storage == container.storage");
    HXFileCoordinator coordinator;
    const QString from = item->URL();
    bool moved = false;
    for (;;) {
        const QString filename = filenameForPreferredFilename(item->filename(), {}, container);
        const QString to = container->URL() + u'/' + filename;
        bool taken = false;
        const bool coordinated = coordinator.coordinateWritingItemAtURL(
            from, HXFileCoordinator::WritingForMoving, to, HXFileCoordinator::WritingForReplacing,
            error, [&](const QString &source, const QString &target) {
                if (HXFileIdentity::ofPath(target).exists) {
                    taken = true;
                    return;
                }
                substituteSentinel(container, item->isContainer(), sentinel, filename);
                // Never over a name that appeared since the check.
                if (!HXFileSystem::moveItem(source, target, false, error)) {
                    taken = HXFileIdentity::ofPath(target).exists &&
                            HXFileIdentity::ofPath(source).exists;
                    return;
                }
                HXFileSystem::syncParentFolder(target);
                HXFileSystem::syncParentFolder(source);
                coordinator.itemAtURL(source, target);
                storageItemAtURL(source, target);
                moved = true;
            });
        if (taken)
            continue;
        if (!coordinated)
            return false;
        break;
    }
    if (moved)
        container->saveMetadataIfNeeded();
    return moved;
}

bool HXStorage::removeSheetHandle(const std::shared_ptr<HXSheetHandle> &handle, HXError *error) {
    const auto parent = handle->parent();
    HX_ASSERT(parent && parent->operationForRemovingSheetHandle(handle),
              u"Operation not allowed by container: %@", parent ? parent->URL() : QString());
    return removeItem(handle, error);
}

bool HXStorage::removeContainer(const HXContainerRef &container, HXError *error) {
    const auto parent = container->parent();
    HX_ASSERT(parent && parent->operationForRemovingContainer(container),
              u"Operation not allowed by container: %@", parent ? parent->URL() : QString());
    return removeItem(container, error);
}

bool HXStorage::removeItem(const HXStorageItemRef &item, HXError *error) {
    const QString url = item->URL();
    const auto parent = item->parent();
    bool removed = false;
    HXFileCoordinator coordinator;
    const bool coordinated = coordinator.coordinateWritingItemAtURL(
        url, HXFileCoordinator::WritingForDeleting, error, [&](const QString &path) {
            removed = HXFileSystem::removeItem(path, error);
            if (removed)
                HXFileSystem::syncParentFolder(path);
        });
    if (coordinated && removed)
        storageItemWasDeletedAtURL(url);
    if (parent)
        parent->saveMetadataIfNeeded();
    return coordinated && removed;
}

QSet<QString> HXStorage::lossDescriptionsForCopyingSheet(const HXSheet &sheet) {
    const auto target = newSheetMatchingMarkup(sheet.markup());
    return target ? sheet.lossDescriptionsForCopyingToSheet(*target) : QSet<QString>();
}
