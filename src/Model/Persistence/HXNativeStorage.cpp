#include "Model/Persistence/HXNativeStorage.h"

#include "Model/Persistence/HXNativeFilter.h"
#include "Model/Persistence/HXNativeGroup.h"
#include "Model/Persistence/HXNativeTrash.h"
#include "Model/Sheets/HXNativeSheet.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Model/Stores/HXMarkupStore.h"
#include "Text/Markup/HXMarkup.h"
#include "Utilities/HXFileCoordinator.h"
#include "Utilities/HXFileSystem.h"
#include "Utilities/HXPropertyList.h"

#include <QDir>
#include <QFileInfo>
#include <QUuid>

HXNativeStorage::HXNativeStorage() {
    // Sheets are packages: presenters above them see one item, whatever changes inside.
    HXNativeSheet::registerPackagePathExtension();
}

std::shared_ptr<HXNativeStorage> HXNativeStorage::storageAtURL(const QString &url,
                                                               const QString &identifier) {
    std::shared_ptr<HXNativeStorage> storage(new HXNativeStorage);
    storage->open(url, identifier.isEmpty() ? newUniqueIdentifier() : identifier);
    return storage;
}

QString HXNativeStorage::newUniqueIdentifier() {
    return QUuid::createUuid().toString(QUuid::Id128).toLower();
}

// --- Kinds of files -------------------------------------------------------------------------

HXStorageItemKind HXNativeStorage::classForReadingItemAtURL(const QString &url) const {
    if (!HXFileIdentity::ofPath(url).exists)
        return HXStorageItemKind::None;
    return classForFilename(url);
}

HXStorageItemKind HXNativeStorage::classForFilename(const QString &url) const {
    const QString base = baseURL();
    if (url.size() <= base.size() + 1 && isFileURL(url, base))
        return HXStorageItemKind::Group;
    const QString name = QFileInfo(url).fileName();
    if (name.endsWith(HXNativeGroup::suffix))
        return HXStorageItemKind::Group;
    if (name.endsWith(HXNativeFilter::suffix))
        return HXStorageItemKind::Filter;
    if (name.endsWith(HXNativeTrash::suffix))
        return HXStorageItemKind::Trash;
    if (name.endsWith(u'.' + HXNativeSheet::pathExtension))
        return HXStorageItemKind::Sheet;
    return HXStorageItemKind::None;
}

std::shared_ptr<HXContainer> HXNativeStorage::newContainer(HXStorageItemKind kind,
                                                           const QString &filename) {
    const auto self = shared_from_this();
    switch (kind) {
    case HXStorageItemKind::Group:
        return std::make_shared<HXNativeGroup>(filename, self);
    case HXStorageItemKind::Filter:
        return std::make_shared<HXNativeFilter>(filename, self);
    case HXStorageItemKind::Trash:
        return std::make_shared<HXNativeTrash>(filename, self);
    default:
        return nullptr;
    }
}

std::shared_ptr<HXSheet> HXNativeStorage::sheetForURL(const QString &url, bool readOnly,
                                                      HXError *error) {
    const HXFileIdentity identity = HXFileIdentity::ofPath(url);
    if (!identity.exists) {
        HXSetError(error, HXError::fileError(HXFileNoSuchFileError, url,
                                             QStringLiteral("The sheet “%1” couldn’t be opened "
                                                            "because there is no such file.")
                                                 .arg(QFileInfo(url).fileName())));
        return nullptr;
    }
    return HXNativeSheet::sheetWithURL(url, readOnly);
}

QString HXNativeStorage::changeTokenForItemAtURL(const QString &url) const {
    return HXDocument::changeTokenForItemAtURL(url, HXNativeSheet::contentFilename);
}

QString HXNativeStorage::preferredFilenameForSheet() const {
    return newUniqueIdentifier() + u'.' + HXNativeSheet::pathExtension;
}

QString HXNativeStorage::preferredFilenameForContainerOfKind(HXStorageItemKind kind) const {
    switch (kind) {
    case HXStorageItemKind::Filter:
        return newUniqueIdentifier() + HXNativeFilter::suffix;
    case HXStorageItemKind::Trash:
        return newUniqueIdentifier() + HXNativeTrash::suffix;
    case HXStorageItemKind::Sheet:
        return preferredFilenameForSheet();
    default:
        return newUniqueIdentifier() + HXNativeGroup::suffix;
    }
}

QString
HXNativeStorage::filenameForPreferredFilename(const QString &preferred, const QString &current,
                                              const std::shared_ptr<HXContainer> &container) {
    if (!current.isEmpty())
        return current;
    const QString folder = container ? container->URL() : baseURL();
    // One look at the name, not a listing of the folder: the caller checks again under
    // coordination and comes back when another writer took the name meanwhile.
    if (!HXFileIdentity::ofPath(folder + u'/' + preferred).exists)
        return preferred;
    // Taken: a new identifier, with the kind the preferred name has.
    const HXStorageItemKind kind = classForFilename(folder + u'/' + preferred);
    if (kind != HXStorageItemKind::None)
        return preferredFilenameForContainerOfKind(kind);
    const QString extension = QFileInfo(preferred).suffix();
    return extension.isEmpty() ? newUniqueIdentifier() : newUniqueIdentifier() + u'.' + extension;
}

// --- Markups --------------------------------------------------------------------------------

QString HXNativeStorage::defaultMarkupIdentifier() const {
    std::lock_guard lock(m_settingsMutex);
    return m_defaultMarkupIdentifier;
}

std::shared_ptr<HXMarkup> HXNativeStorage::defaultMarkup() const {
    const auto store = HXMarkupStore::globalStore();
    if (const QString identifier = defaultMarkupIdentifier(); !identifier.isEmpty()) {
        if (auto markup = store->markupWithIdentifier(identifier))
            return markup;
    }
    return store->defaultIntrinsicMarkup();
}

std::shared_ptr<HXSheet>
HXNativeStorage::newSheetMatchingMarkup(const std::shared_ptr<HXMarkup> &markup) {
    std::shared_ptr<HXMarkup> chosen = markup;
    if (chosen && HXMarkupStore::isIntrinsicIdentifier(chosen->identifier()) &&
        !HXMarkupStore::globalStore()->availableMarkups().contains(chosen))
        chosen = nullptr;
    return HXNativeSheet::sheetWithMarkup(chosen ? chosen : defaultMarkup());
}

void HXNativeStorage::noteUseOfMarkup(const std::shared_ptr<HXMarkup> &markup) {
    if (!markup)
        return;
    {
        std::lock_guard lock(m_settingsMutex);
        if (m_defaultMarkupIdentifier == markup->identifier())
            return;
        m_defaultMarkupIdentifier = markup->identifier();
    }
    writeInfoFile();
}

// --- Identity -------------------------------------------------------------------------------

QVariant
HXNativeStorage::persistentObjectForItem(const std::shared_ptr<HXStorageItem> &item) const {
    const QVariant base = HXStorage::persistentObjectForItem(item);
    if (base.isValid() || !item)
        return base;
    return item->filename();
}

std::shared_ptr<HXStorageItem>
HXNativeStorage::itemForPersistentObject(const QVariant &object) const {
    if (auto item = HXStorage::itemForPersistentObject(object))
        return item;
    const QString name = object.toString();
    const auto root = rootGroup();
    if (!root || name.isEmpty())
        return nullptr;
    if (root->filename() == name)
        return root;
    for (const HXContainerRef &container : root->allContainers()) {
        if (container->filename() == name)
            return container;
    }
    for (const auto &handle : root->allSheetHandles()) {
        if (handle->filename() == name)
            return handle;
    }
    return nullptr;
}

// --- Root.plist -----------------------------------------------------------------------------

QString HXNativeStorage::infoFileURL() const {
    const QString base = baseURL();
    return base.isEmpty() ? QString() : base + u'/' + rootInfoName;
}

QVariantMap HXNativeStorage::infoDictionary() const {
    std::lock_guard lock(m_settingsMutex);
    QVariantMap dictionary;
    if (!m_defaultMarkupIdentifier.isEmpty())
        dictionary.insert(QStringLiteral("defaultMarkup"), m_defaultMarkupIdentifier);
    return dictionary;
}

void HXNativeStorage::setInfoDictionary(const QVariantMap &dictionary) {
    std::lock_guard lock(m_settingsMutex);
    m_defaultMarkupIdentifier = dictionary.value(QStringLiteral("defaultMarkup")).toString();
}

bool HXNativeStorage::createContainerAtURL(const QString &url,
                                           const std::shared_ptr<HXContainer> &prototype,
                                           HXError *error) {
    if (!QDir().mkdir(url) && !HXFileIdentity::ofPath(url).isDirectory) {
        HXSetError(error,
                   HXFileSystem::posixError(errno, url,
                                            QStringLiteral("The folder “%1” couldn’t be made.")
                                                .arg(QFileInfo(url).fileName())));
        return false;
    }
    HXFileSystem::syncParentFolder(url);
    const QVariant contents = prototype->infoFileContents(true);
    const QString info = url + u'/' + prototype->infoFilename();
    return HXPropertyList::writeFile(contents, info, error);
}
