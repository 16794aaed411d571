#include "AppCore/HXWindowController.h"

#include "Model/Operations/HXImportOperation.h"
#include "Model/Operations/HXMoveOperation.h"
#include "Model/Operations/HXStorageOperationQueue.h"
#include "Model/Persistence/HXLibrary.h"
#include "Model/Persistence/HXNativeGroup.h"
#include "Model/Persistence/HXStorageController.h"
#include "Model/Sheets/HXSheet.h"
#include "Model/StorageTree/HXGroup.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Model/Stores/HXPreferenceStore.h"
#include "Utilities/HXApplicationLog.h"
#include "Utilities/HXDispatchQueue.h"
#include "Utilities/HXLocalizedString.h"
#include "Utilities/HXStringFormat.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QMutex>
#include <QUuid>

#include <semaphore>

namespace {

const QString introductionLoadedKey = QStringLiteral("global.introductionLoaded");
const QString releaseNotesVersionKey = QStringLiteral("global.loadedReleaseNotesVersion");

QString localized(const QString &key) {
    return HXLocalizedString(key, QStringLiteral("HXApplicationDelegate"));
}

QMutex folderMutex;
QString bundledFolder = QStringLiteral(":");

// The folder's files copied into a fresh folder of its own; null when it can't be read. Works
// for the application's resources as for folders on disk.
QString temporaryCopyOfFolder(const QString &url) {
    if (!QDir(url).exists())
        return {};
    const QString copy = QDir::tempPath() + QStringLiteral("/velmora-bundled-") +
                         QUuid::createUuid().toString(QUuid::WithoutBraces) + u'/' +
                         QDir(url).dirName();
    if (!QDir().mkpath(copy))
        return {};
    QDirIterator iterator(url, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden,
                          QDirIterator::Subdirectories);
    while (iterator.hasNext()) {
        const QString from = iterator.next();
        const QString to = copy + from.mid(url.size());
        const bool copied = iterator.fileInfo().isDir() ? QDir().mkpath(to) : QFile::copy(from, to);
        if (!copied) {
            QDir(copy).removeRecursively();
            return {};
        }
        // Files out of the resources are read-only.
        if (!iterator.fileInfo().isDir())
            QFile::setPermissions(to, QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup |
                                          QFile::ReadOther);
    }
    return copy;
}

// Runs the operation and waits for it, and for what it left for the main queue. Not on the main
// thread.
void runAndWait(const std::shared_ptr<HXContainerOperation> &operation, std::atomic<int> &counter) {
    std::binary_semaphore done{0};
    ++counter;
    operation->setCompletionBlock(
        [&done] { HXDispatchQueue::mainQueue()->async([&done] { done.release(); }); });
    if (!HXStorageOperationQueue::sharedInstance()->addOperation(operation)) {
        operation->cancel();
        --counter;
        return;
    }
    done.acquire();
    --counter;
}

} // namespace

QString HXWindowController::bundledContentFolder() {
    const QMutexLocker lock(&folderMutex);
    return bundledFolder;
}

void HXWindowController::setBundledContentFolder(const QString &folder) {
    const QMutexLocker lock(&folderMutex);
    bundledFolder = folder;
}

// --- Opening files ------------------------------------------------------------------------------

void HXWindowController::openFileURLs(const QStringList &urls,
                                      std::function<void(const Items &)> completion) {
    const auto self = shared_from_this();
    const auto controller = HXStorageController::sharedInstance();
    controller->waitUntilLoaded([self, controller, urls, completion] {
        auto items = std::make_shared<Items>();
        QStringList imports;
        for (const QString &url : urls) {
            if (auto item = controller->storageItemForOpeningURL(url))
                items->append(item);
            else
                imports.append(url);
        }
        if (imports.isEmpty()) {
            completion(*items);
            return;
        }
        std::shared_ptr<HXLibrary> library = controller->ubiquitousLibrary();
        if (!library || !library->isActive()) {
            library = controller->localLibrary();
            if (library && !library->isActive())
                library->setActive(true);
        }
        if (!library) {
            completion(*items);
            return;
        }
        const auto operation = HXImportOperation::importOperationForSheetURLs(
            imports, library->defaultContainerForItemOfKind(HXStorageItemKind::Sheet), HXNotFound);
        operation->setInsertionHandler([items, imports](const std::shared_ptr<HXStorageItem> &item,
                                                        const std::shared_ptr<HXStorageItem> &,
                                                        const QString &source) {
            if (imports.contains(source))
                items->append(item);
        });
        operation->setDelegate(self);
        ++self->m_containerOperationsCount;
        operation->setCompletionBlock([self, items, completion] {
            HXDispatchQueue::mainQueue()->async([self, items, completion] {
                --self->m_containerOperationsCount;
                completion(*items);
            });
        });
        if (!HXStorageOperationQueue::sharedInstance()->addOperation(operation)) {
            --self->m_containerOperationsCount;
            completion(*items);
        }
    });
}

// --- Built-in content ---------------------------------------------------------------------------

std::shared_ptr<HXContainer> HXWindowController::targetContainerForBundledDocuments() {
    const auto controller = HXStorageController::sharedInstance();
    const auto library = controller->localLibrary();
    if (!library)
        return nullptr;
    if (!library->isActive()) {
        if (HXDispatchQueue::isMainThread())
            library->setActive(true);
        else
            HXDispatchQueue::mainQueue()->sync([&] { library->setActive(true); });
    }
    return library->defaultContainerForItemOfKind(HXStorageItemKind::Group);
}

void HXWindowController::restoreIntroductionIfNeeded(bool force) {
    const std::weak_ptr<HXWindowController> weak = weak_from_this();
    restoreBundledDocumentsIfNeeded(force, [weak](bool success,
                                                  const std::shared_ptr<HXStorageItem> &selection,
                                                  const std::shared_ptr<HXContainer> &) {
        HXDispatchQueue::mainQueue()->async([weak, success, selection] {
            const auto self = weak.lock();
            if (!self)
                return;
            // A window brought back as it was left keeps its container when nothing new came.
            if (selection) {
                self->revealContainersAndSheetsHandles({selection});
                self->selectContainer(targetContainerForBundledDocuments());
            }
            if (!success)
                self->showIntroductionMissingAlert();
            self->bundledContentDidSettle();
        });
    });
}

void HXWindowController::restoreBundledDocumentsIfNeeded(bool force,
                                                         FirstSelectionHandler handler) {
    // One restoration at a time, each deciding what is due when its turn comes: a window that
    // asks while another copies the introduction finds it copied, and copies nothing twice.
    static const auto queue = HXDispatchQueue::create(QStringLiteral("velmora.bundled-content"),
                                                      HXDispatchQueue::Kind::Serial,
                                                      HXDispatchQueue::Priority::Background);
    const auto self = shared_from_this();
    queue->async([self, force, handler] {
        const auto preferences = HXPreferenceStore::sharedInstance();
        const bool loadIntroduction =
            force || !preferences->valueForKeyPath(introductionLoadedKey).toBool();
        const quint64 startVersion =
            force ? 0 : preferences->valueForKeyPath(releaseNotesVersionKey).toULongLong();
        self->restoreReleaseNotesStartingWithVersion(
            startVersion,
            [&](bool success, const std::shared_ptr<HXStorageItem> &selection, quint64 version) {
                // The introduction, when it comes, chooses the first selection.
                if (!(loadIntroduction && success))
                    handler(success, selection, nullptr);
                if (selection)
                    preferences->setValue(version, releaseNotesVersionKey);
            });
        if (loadIntroduction)
            self->restoreIntroductionWithFirstSelectionHandler(handler);
    });
}

void HXWindowController::restoreReleaseNotesStartingWithVersion(
    quint64 version,
    const std::function<void(bool, const std::shared_ptr<HXStorageItem> &, quint64)> &handler) {
    const QString folder = bundledContentFolder() + QStringLiteral("/Release Notes");
    QList<quint64> versions;
    for (const QString &name : QDir(folder).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        bool valid = false;
        const quint64 number = name.toULongLong(&valid);
        // "012" is no version: the name must be the number as it is written.
        if (valid && QString::number(number) == name && number > version)
            versions.append(number);
    }
    if (versions.isEmpty()) {
        handler(true, nullptr, 0);
        return;
    }
    std::sort(versions.begin(), versions.end());
    const auto target = targetContainerForBundledDocuments();
    if (!target) {
        handler(false, nullptr, 0);
        return;
    }
    std::shared_ptr<HXContainer> group;
    if (versions.size() >= 2) {
        const auto parent = std::dynamic_pointer_cast<HXGroup>(target);
        const quint64 sentinel =
            parent ? parent->sentinelsForInsertingContainers(1, 0).first() : HXNotFound;
        HXError error;
        group = target->storage()->createContainerOfKind(
            HXContainerKind::Group, target, localized(QStringLiteral("ReleaseNotesGroup")),
            sentinel, &error);
        if (!group) {
            HXApplicationLog::sharedInstance()->logError(u"%@", error.localizedDescription());
            handler(false, nullptr, 0);
            return;
        }
    }
    bool success = true;
    std::shared_ptr<HXStorageItem> selection;
    quint64 last = 0;
    for (const quint64 number : std::as_const(versions)) {
        std::shared_ptr<HXStorageItem> first;
        std::shared_ptr<HXContainer> container;
        success = restoreFilesFromURL(folder + u'/' + QString::number(number),
                                      group ? group : target, &first, &container) &&
                  success;
        if (!first) {
            success = false;
            break;
        }
        selection = first;
        last = number;
        if (!group && container)
            container->setDisplayName(HXStringWithFormat(
                localized(QStringLiteral("ReleaseNotesFormat")), container->displayName()));
    }
    handler(success, selection, last);
}

bool HXWindowController::restoreIntroductionWithFirstSelectionHandler(
    const FirstSelectionHandler &handler) {
    const auto target = targetContainerForBundledDocuments();
    std::shared_ptr<HXStorageItem> selection;
    std::shared_ptr<HXContainer> container;
    const bool success =
        target && restoreFilesFromURL(bundledContentFolder() + QStringLiteral("/Introduction"),
                                      target, &selection, &container);
    if (success)
        HXPreferenceStore::sharedInstance()->setValue(true, introductionLoadedKey);
    handler(success, selection, container);
    return success;
}

bool HXWindowController::restoreFilesFromURL(const QString &url,
                                             const std::shared_ptr<HXContainer> &target,
                                             std::shared_ptr<HXStorageItem> *selection,
                                             std::shared_ptr<HXContainer> *container) {
    const QString copyPath = temporaryCopyOfFolder(url);
    if (copyPath.isEmpty())
        return false;
    const auto copy =
        HXLibrary::libraryAtURL(copyPath, QUuid::createUuid().toString(QUuid::WithoutBraces));
    const auto cleanUp = qScopeGuard([&] {
        copy->invalidate();
        QDir(copyPath.section(u'/', 0, -2)).removeRecursively();
    });
    if (copy->isInvalid())
        return false;
    // The groups of the small library go to the target, its loose sheets to the default group
    // of the target's library.
    const QList<std::shared_ptr<HXContainer>> containers = copy->mainGroup()->containers();
    const QList<std::shared_ptr<HXSheetHandle>> sheets = copy->defaultGroup()->sheetHandles();
    QList<std::shared_ptr<HXSheetHandle>> all = copy->mainGroup()->allSheetHandles();
    all += sheets;
    const std::shared_ptr<HXSheetHandle> firstSheet = all.value(0);
    const std::shared_ptr<HXContainer> firstContainer = containers.value(0);
    QMutex mutex;
    const auto noteInsertion = [&](const std::shared_ptr<HXStorageItem> &item,
                                   const std::shared_ptr<HXStorageItem> &source, const QString &) {
        const QMutexLocker lock(&mutex);
        if (source && source == firstSheet)
            *selection = item;
        if (source && source == firstContainer)
            *container = std::dynamic_pointer_cast<HXContainer>(item);
    };
    QList<std::shared_ptr<HXContainerOperation>> operations;
    if (!containers.isEmpty())
        operations.append(HXMoveOperation::copyOperationForContainers(containers, target, 0));
    if (!sheets.isEmpty())
        operations.append(HXMoveOperation::copyOperationForSheetHandles(
            sheets, target->storage()->defaultContainerForItemOfKind(HXStorageItemKind::Sheet), 0));
    bool success = true;
    for (const auto &operation : std::as_const(operations)) {
        std::static_pointer_cast<HXInsertingContainerOperation>(operation)->setInsertionHandler(
            noteInsertion);
        operation->setDelegate(shared_from_this());
        runAndWait(operation, m_containerOperationsCount);
        success = success && !operation->isCancelled() && operation->failures().isEmpty() &&
                  operation->isFinished();
    }
    // The copies of inner sheets are announced too; only the first one of all is the selection.
    return success;
}

// --- What the window shows ----------------------------------------------------------------------

void HXWindowController::handleWriteError(const std::shared_ptr<HXSheet> &, const HXError &error) {
    HXApplicationLog::sharedInstance()->logError(u"%@", error.localizedDescription());
}

void HXWindowController::showIntroductionMissingAlert() {
    HXApplicationLog::sharedInstance()->logError(u"%@",
                                                 localized(QStringLiteral("introductionMissing")));
}

void HXWindowController::containerOperationFailedOnError(HXContainerOperation &,
                                                         const HXError &error) {
    HXApplicationLog::sharedInstance()->logError(u"%@", error.localizedDescription());
}
