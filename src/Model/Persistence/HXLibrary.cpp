#include "Model/Persistence/HXLibrary.h"

#include "Model/Persistence/HXNativeGroup.h"
#include "Model/Persistence/HXNativeTrash.h"
#include "Utilities/HXFileCoordinator.h"
#include "Utilities/HXFileSystem.h"
#include "Utilities/HXLocalizedString.h"
#include "Utilities/HXLocations.h"
#include "Utilities/HXUserDefaults.h"

#include <QFileInfo>

namespace {

QString text(const char *key) {
    return HXLocalizedString(QString::fromLatin1(key), QStringLiteral("HXStorage"));
}

// The folder opened as the local library in place of the default, for this run.
QString localLibraryPathOverride;

} // namespace

QString HXLibrary::localLibraryPath() {
    if (!localLibraryPathOverride.isEmpty())
        return localLibraryPathOverride;
    return HXLocations::documentsPath() + QStringLiteral("/Velmora/Library");
}

void HXLibrary::setLocalLibraryPath(const QString &path) {
    localLibraryPathOverride = path;
}

QString HXLibrary::ubiquitousLibraryPath() {
    const QString container =
        HXUserDefaults::standardUserDefaults().objectForKeyPath(ubiquityContainerKey).toString();
    return container.isEmpty() ? QString() : container + QStringLiteral("/Documents/Library");
}

std::shared_ptr<HXLibrary> HXLibrary::localLibrary() {
    return libraryAtURL(localLibraryPath(), localIdentifier);
}

std::shared_ptr<HXLibrary> HXLibrary::ubiquitousLibrary() {
    const QString path = ubiquitousLibraryPath();
    // The chosen folder must be there; what the library needs inside it is made.
    if (path.isEmpty() ||
        !HXFileIdentity::ofPath(QFileInfo(QFileInfo(path).path()).path()).isDirectory)
        return nullptr;
    return libraryAtURL(path, ubiquitousIdentifier);
}

std::shared_ptr<HXLibrary> HXLibrary::libraryAtURL(const QString &url, const QString &identifier) {
    std::shared_ptr<HXLibrary> library(new HXLibrary);
    if (library->open(url, identifier))
        library->ensureIntrinsicContainers();
    return library;
}

QString HXLibrary::displayName() const {
    return text(isUbiquitous() ? "UbiquitousLibrary" : "LocalLibrary");
}

bool HXLibrary::isActive() const {
    const QVariant value = HXUserDefaults::standardUserDefaults().objectForKeyPath(
        isUbiquitous() ? QStringLiteral("sections.ubiquitousLibrary")
                       : QStringLiteral("sections.localLibrary"));
    return !value.isValid() || value.toBool();
}

void HXLibrary::setActive(bool active) {
    HXUserDefaults::standardUserDefaults().setBoolForKeyPath(
        active, isUbiquitous() ? QStringLiteral("sections.ubiquitousLibrary")
                               : QStringLiteral("sections.localLibrary"));
}

std::shared_ptr<HXNativeGroup> HXLibrary::mainGroup() const {
    std::lock_guard lock(m_rolesMutex);
    return m_mainGroup.lock();
}

std::shared_ptr<HXNativeGroup> HXLibrary::defaultGroup() const {
    std::lock_guard lock(m_rolesMutex);
    return m_defaultGroup.lock();
}

std::shared_ptr<HXContainer> HXLibrary::trash() const {
    std::lock_guard lock(m_rolesMutex);
    return m_trash.lock();
}

std::shared_ptr<HXContainer> HXLibrary::defaultContainerForItemOfKind(HXStorageItemKind kind) {
    switch (kind) {
    case HXStorageItemKind::Sheet:
        return defaultGroup();
    case HXStorageItemKind::Group:
    case HXStorageItemKind::Filter:
        return mainGroup();
    default:
        return nullptr;
    }
}

void HXLibrary::ensureIntrinsicContainers() {
    const struct {
        QString name;
        QString displayName;
        HXStorageItemKind kind;
    } intrinsic[] = {
        {defaultGroupName, text("UnfiledName"), HXStorageItemKind::Group},
        {mainGroupName, displayName(), HXStorageItemKind::Group},
        {trashName, text("TrashName"), HXStorageItemKind::Trash},
    };
    for (const auto &entry : intrinsic) {
        const QString url = baseURL() + u'/' + entry.name;
        auto item = itemAtURL(url);
        if (!item) {
            const auto prototype = newContainer(entry.kind, entry.name);
            prototype->setDisplayName(entry.displayName);
            HXFileCoordinator coordinator;
            coordinator.coordinateWritingItemAtURL(url, 0, nullptr, [&](const QString &path) {
                HXError error;
                createContainerAtURL(path, prototype, &error);
            });
            storageItemDidAppearAtURL(url);
            item = itemAtURL(url);
        }
        applyRole(item);
    }
}

void HXLibrary::didReadItem(const std::shared_ptr<HXStorageItem> &item) {
    applyRole(item);
}

void HXLibrary::applyRole(const std::shared_ptr<HXStorageItem> &item) {
    if (!item || !item->parent() || item->parent() != rootGroup())
        return;
    const QString name = item->filename();
    if (name == defaultGroupName) {
        if (const auto group = std::dynamic_pointer_cast<HXNativeGroup>(item)) {
            group->setDefaultName(text("UnfiledName"));
            group->setIntrinsic(true);
            group->setOptions(HXNativeGroup::OptionNoSubgroups | HXNativeGroup::OptionNoFilters);
            if (group->userIconName().isEmpty())
                group->setUserIconName(QStringLiteral("Inbox"));
            std::lock_guard lock(m_rolesMutex);
            m_defaultGroup = group;
        }
    } else if (name == mainGroupName) {
        if (const auto group = std::dynamic_pointer_cast<HXNativeGroup>(item)) {
            group->setStaticName(displayName());
            group->setIntrinsic(true);
            group->setOptions(HXNativeGroup::OptionNoSheets);
            std::lock_guard lock(m_rolesMutex);
            m_mainGroup = group;
        }
    } else if (name == trashName) {
        if (const auto container = std::dynamic_pointer_cast<HXContainer>(item);
            container && container->isTrash()) {
            container->setIntrinsic(true);
            std::lock_guard lock(m_rolesMutex);
            m_trash = container;
        }
    }
}

void HXLibrary::presentedItemDidMoveToURL(const QString &url) {
    // A library that moved is not followed: it is read anew at the next launch.
    setBaseURL(url);
    invalidate();
}
