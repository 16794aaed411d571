#include "Model/StorageTree/HXContainer.h"

#include "Model/Persistence/HXStorage.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Utilities/HXApplicationLog.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXDispatchQueue.h"
#include "Utilities/HXFileCoordinator.h"
#include "Utilities/HXFileSystem.h"
#include "Utilities/HXPropertyList.h"

#include <QFile>
#include <QFileInfo>

#include <limits>

namespace {

std::atomic<int> suggestedDelay = 300 * 1000;
std::atomic<int> writeDelay = 1000;

bool isAggregate(HXContainerKey key) {
    return key == HXContainerKey::AllSheetHandles || key == HXContainerKey::AllContainers ||
           key == HXContainerKey::AllLogicalSheetHandles;
}

} // namespace

HXContainer::HXContainer(const QString &filename, const std::shared_ptr<HXStorage> &storage)
    : HXStorageItem(filename, storage) {}

HXContainer::~HXContainer() = default;

// --- Contents -------------------------------------------------------------------------------

QList<std::shared_ptr<HXSheetHandle>> HXContainer::allSheetHandles() const {
    QList<std::shared_ptr<HXSheetHandle>> result = sheetHandles();
    for (const HXContainerRef &child : containers())
        result.append(child->allSheetHandles());
    return result;
}

QList<HXContainerRef> HXContainer::allContainers() const {
    // Every direct child comes before any grandchild.
    QList<HXContainerRef> result = containers();
    for (const HXContainerRef &child : containers())
        result.append(child->allContainers());
    return result;
}

QList<HXContainerRef> HXContainer::descendantContainers() const {
    QList<HXContainerRef> result = containers();
    for (const HXContainerRef &child : containers())
        result.append(child->descendantContainers());
    return result;
}

QSet<std::shared_ptr<HXSheetHandle>> HXContainer::allLogicalSheetHandles() const {
    const auto own = logicalSheetHandles();
    QSet<std::shared_ptr<HXSheetHandle>> result(own.begin(), own.end());
    for (const HXContainerRef &child : containers())
        result.unite(child->allLogicalSheetHandles());
    return result;
}

QString HXContainer::iconName() const {
    const QString user = userIconName();
    return user.isEmpty() ? defaultIconName() : user;
}

std::shared_ptr<HXSheetHandle> HXContainer::sheetHandleWithFilename(const QString &filename,
                                                                    bool recursive) const {
    for (const auto &handle : logicalSheetHandles()) {
        if (handle->filename() == filename)
            return handle;
    }
    if (recursive) {
        for (const HXContainerRef &child : containers()) {
            if (auto handle = child->sheetHandleWithFilename(filename, true))
                return handle;
        }
    }
    return nullptr;
}

HXRange HXContainer::clusterRangeForSheetHandleIndex(quint64 index) const {
    const quint64 count = quint64(sheetHandles().size());
    HX_ASSERT(index <= count, u"index <= count");
    return HXRange{index, index == count ? 0u : 1u};
}

bool HXContainer::canSetClustered(bool, HXRange) const {
    return false;
}

void HXContainer::setClustered(bool, HXRange) {}

// --- Masks ----------------------------------------------------------------------------------

quint64 HXContainer::operationForCreatingContainerOfKind(HXContainerKind) const {
    return 0;
}
quint64 HXContainer::operationForInsertingContainer(const HXContainerRef &) const {
    return 0;
}
quint64 HXContainer::operationForRemovingContainer(const HXContainerRef &) const {
    return 0;
}
quint64 HXContainer::operationForCreatingSheet() const {
    return 0;
}
quint64
HXContainer::operationForInsertingSheetHandle(const std::shared_ptr<HXSheetHandle> &) const {
    return 0;
}
quint64 HXContainer::operationForRemovingSheetHandle(const std::shared_ptr<HXSheetHandle> &) const {
    return 0;
}

bool HXContainer::validateOperationMask(quint64 mask,
                                        const std::shared_ptr<HXSheetHandle> &handle) const {
    switch (mask & 0xff) {
    case ValidateInsert:
        return operationForInsertingSheetHandle(handle) != 0;
    case ValidateCreate:
        return operationForCreatingSheet() != 0;
    case ValidateRemove:
        return operationForRemovingSheetHandle(handle) != 0;
    default:
        return false;
    }
}

bool HXContainer::validateOperationMask(quint64 mask, const HXContainerRef &container) const {
    switch (mask & 0xff) {
    case ValidateInsert:
        return operationForInsertingContainer(container) != 0;
    case ValidateCreate:
        return operationForCreatingContainerOfKind(container->kind()) != 0;
    case ValidateRemove:
        return operationForRemovingContainer(container) != 0;
    default:
        return false;
    }
}

// --- Entering and leaving -------------------------------------------------------------------

bool HXContainer::accommodateInsertionOfContainer(const HXContainerRef &, const HXContainerRef &,
                                                  quint64) {
    return false;
}
bool HXContainer::accommodateInsertionOfSheetHandle(const std::shared_ptr<HXSheetHandle> &,
                                                    const HXContainerRef &, quint64) {
    return false;
}
void HXContainer::accommodateDeletionOfContainer(const HXContainerRef &) {}
void HXContainer::accommodateDeletionOfSheetHandle(const std::shared_ptr<HXSheetHandle> &) {}
void HXContainer::storageItemFilenameDidChange(const std::shared_ptr<HXStorageItem> &) {}

void HXContainer::setAlive(bool alive) {
    m_lock.synchronizedWrite([&] { HXStorageItem::setAlive(alive); });
    if (alive)
        readInfoFile();
    for (const auto &handle : sheetHandles())
        handle->setAlive(alive);
    for (const HXContainerRef &child : containers())
        child->setAlive(alive);
}

void HXContainer::parentsDidChange() {
    updateURL();
    for (const auto &handle : sheetHandles())
        handle->parentsDidChange();
    for (const HXContainerRef &child : containers())
        child->parentsDidChange();
}

std::shared_ptr<HXStorageItem> HXContainer::storageItemForOpeningURL(const QString &url) {
    const auto storage = this->storage();
    if (!storage)
        return nullptr;
    const QString own = URL();
    const QString info = infoFileURL();
    if (!own.isEmpty() &&
        (storage->isFileURL(url, own) || (!info.isEmpty() && storage->isFileURL(url, info))))
        return shared_from_this();
    for (const auto &handle : sheetHandles()) {
        if (auto item = handle->storageItemForOpeningURL(url))
            return item;
    }
    for (const HXContainerRef &child : containers()) {
        if (auto item = child->storageItemForOpeningURL(url))
            return item;
    }
    return nullptr;
}

// --- The info file --------------------------------------------------------------------------

QString HXContainer::infoFileURL() const {
    const QString name = infoFilename();
    const QString url = URL();
    return name.isEmpty() || url.isEmpty() ? QString() : url + u'/' + name;
}

QVariantMap HXContainer::infoFileContents(bool) const {
    return {};
}

void HXContainer::setInfoFileContents(const QVariantMap &) {}

void HXContainer::readInfoFile() {
    const QString url = infoFileURL();
    if (url.isEmpty())
        return;
    HXFileCoordinator coordinator;
    bool changed = false;
    coordinator.coordinateReadingItemAtURL(
        url, HXFileCoordinator::ReadingWithoutChanges, nullptr, [&](const QString &path) {
            const HXFileIdentity identity = HXFileIdentity::ofPath(path);
            if (!identity.exists)
                return;
            // Until a read succeeds, the file is not written back: what could not be understood
            // is not replaced by what was not read.
            m_isReadingInfoFile = true;
            QFile file(path);
            if (!file.open(QIODevice::ReadOnly)) {
                HXApplicationLog::sharedInstance()->logError(u"Failed reading info file: %@", path);
                return;
            }
            const QByteArray data = file.readAll();
            HXError error;
            const QVariant contents = HXPropertyList::fromData(data, path, &error);
            if (!contents.isValid() || contents.typeId() != QMetaType::QVariantMap) {
                HXApplicationLog::sharedInstance()->logError(u"Info file corrupted: %@", path);
                return;
            }
            setInfoFileContents(contents.toMap());
            // The first read is part of the container's arrival, not a change of it.
            changed = m_infoModificationDate != 0;
            m_infoModificationDate = identity.modificationTime;
            m_isReadingInfoFile = false;
            m_shouldUpdateInfoFile = 0;
        });
    if (changed) {
        if (const auto storage = this->storage())
            storage->noteTreeChange(HXTreeChange::InfoChanged,
                                    std::static_pointer_cast<HXContainer>(shared_from_this()),
                                    parent(), {});
    }
}

qint64 HXContainer::readInfoModificationDate() const {
    const QString url = infoFileURL();
    return url.isEmpty() ? 0 : HXFileIdentity::ofPath(url).modificationTime;
}

void HXContainer::suggestInfoFileUpdate() {
    // What is being read from the file is what the file says already.
    if (m_isReadingInfoFile)
        return;
    int expected = 0;
    if (!m_shouldUpdateInfoFile.compare_exchange_strong(expected, 1))
        return;
    const std::weak_ptr<HXStorageItem> weak = weak_from_this();
    HXDispatchQueue::mainQueue()->after(std::chrono::milliseconds(suggestedDelay.load()), [weak] {
        if (const auto self = std::static_pointer_cast<HXContainer>(weak.lock())) {
            int set = 1;
            if (self->m_shouldUpdateInfoFile.compare_exchange_strong(set, 0))
                self->writeInfoFile();
        }
    });
}

void HXContainer::saveMetadataIfNeeded() {
    if (m_shouldUpdateInfoFile.load())
        writeInfoFile();
}

void HXContainer::writeInfoFile() {
    if (infoFileURL().isEmpty() || m_isReadingInfoFile)
        return;
    int expected = 0;
    if (!m_writeScheduled.compare_exchange_strong(expected, 1))
        return;
    const std::weak_ptr<HXStorageItem> weak = weak_from_this();
    HXDispatchQueue::globalQueue(HXDispatchQueue::Priority::High)
        ->after(std::chrono::milliseconds(writeDelay.load()), [weak] {
            if (const auto self = std::static_pointer_cast<HXContainer>(weak.lock()))
                self->writeInfoFileImmediately();
        });
}

bool HXContainer::hasPendingInfoFileWrite() const {
    return m_writeScheduled.load() || m_shouldUpdateInfoFile.load();
}

void HXContainer::writeInfoFileImmediately() {
    QString url;
    QVariantMap contents;
    const bool alive = m_lock.synchronizedRead([&] {
        if (!isAlive())
            return false;
        url = infoFileURL();
        contents = infoFileContents(false);
        return true;
    });
    if (!alive || url.isEmpty() || m_isReadingInfoFile) {
        m_shouldUpdateInfoFile = 0;
        m_writeScheduled = 0;
        return;
    }
    HXFileCoordinator coordinator;
    HXError failure;
    const bool coordinated =
        coordinator.coordinateWritingItemAtURL(url, 0, &failure, [&](const QString &path) {
            m_shouldUpdateInfoFile = 0;
            m_writeScheduled = 0;
            if (!isAlive() || !HXFileIdentity::ofPath(QFileInfo(path).path()).isDirectory)
                return;
            HXError error;
            const QByteArray data = HXPropertyList::xmlData(contents, &error);
            HX_ASSERT(!data.isEmpty(), u"Could not serialize info file: %@",
                      error.localizedDescription());
            // A file that already says this is left alone: a rewrite would only make every
            // sync client carry it to every other device.
            QFile current(path);
            if (current.size() == data.size() && current.open(QIODevice::ReadOnly) &&
                current.readAll() == data) {
                m_infoModificationDate = HXFileIdentity::ofPath(path).modificationTime;
                return;
            }
            // Replaced whole, so that a crash never leaves a torn file that would then be
            // refused, and with it the names and order it keeps.
            if (!HXFileSystem::writeFileAtomically(data, path, &error)) {
                HXApplicationLog::sharedInstance()->logError(u"Failed writing info file: %@",
                                                             error.localizedDescription());
                return;
            }
            m_infoModificationDate = HXFileIdentity::ofPath(path).modificationTime;
        });
    if (!coordinated) {
        m_shouldUpdateInfoFile = 0;
        m_writeScheduled = 0;
        HXApplicationLog::sharedInstance()->logError(u"Failed writing info file: %@",
                                                     failure.localizedDescription());
    }
    writeAdditionalFiles();
}

void HXContainer::itemDidChangeAtURL(const QString &url) {
    const auto storage = this->storage();
    if (!storage)
        return;
    const QString info = infoFileURL();
    if (!info.isEmpty() && storage->isFileURL(url, info)) {
        // Our own writes leave the date we noted; a file no later than that is not news.
        const qint64 date = HXFileIdentity::ofPath(info).modificationTime;
        if (m_infoModificationDate == 0 || date > m_infoModificationDate) {
            const std::weak_ptr<HXStorageItem> weak = weak_from_this();
            HXDispatchQueue::globalQueue(HXDispatchQueue::Priority::Background)->async([weak] {
                if (const auto self = std::static_pointer_cast<HXContainer>(weak.lock()))
                    self->readInfoFile();
            });
        }
    }
    const QString own = URL();
    if (own.isEmpty() || !url.startsWith(own + u'/'))
        return;
    const QString first = url.mid(own.size() + 1).section(u'/', 0, 0);
    for (const auto &handle : sheetHandles()) {
        if (storage->isFilename(first, handle->filename())) {
            handle->itemDidChangeAtURL(url);
            return;
        }
    }
    for (const HXContainerRef &child : containers()) {
        if (storage->isFilename(first, child->filename())) {
            child->itemDidChangeAtURL(url);
            return;
        }
    }
}

void HXContainer::setInfoFileDelaysForTesting(int suggestedMilliseconds, int writeMilliseconds) {
    suggestedDelay = suggestedMilliseconds;
    writeDelay = writeMilliseconds;
}

// --- Observers ------------------------------------------------------------------------------

void HXContainer::addObserver(const std::weak_ptr<HXContainerObserver> &observer,
                              HXContainerKey key) {
    if (isAggregate(key))
        startObservingChildrenIfNeeded();
    std::lock_guard lock(m_observerMutex);
    m_observers.append({observer, key});
}

void HXContainer::removeObserver(const HXContainerObserver *observer, HXContainerKey key) {
    std::lock_guard lock(m_observerMutex);
    m_observers.removeIf([&](const auto &entry) {
        const auto held = entry.first.lock();
        return !held || (held.get() == observer && entry.second == key);
    });
}

void HXContainer::startObservingChildrenIfNeeded() {
    {
        std::lock_guard lock(m_observerMutex);
        if (m_observesChildren)
            return;
        m_observesChildren = true;
    }
    for (const HXContainerRef &child : containers())
        addObservationToChild(child);
}

void HXContainer::addObservationToChild(const HXContainerRef &child) {
    {
        std::lock_guard lock(m_observerMutex);
        HX_ASSERT(!m_observedContainers.contains(child.get()),
                  u"Child already observed. Observation not properly set up.");
        m_observedContainers.insert(child.get());
    }
    {
        std::lock_guard lock(child->m_observerMutex);
        child->m_aggregateObservers.append(
            std::static_pointer_cast<HXContainer>(shared_from_this()));
    }
    child->startObservingChildrenIfNeeded();
}

void HXContainer::removeObservationFromChild(HXContainer *child) {
    {
        std::lock_guard lock(m_observerMutex);
        HX_ASSERT(m_observedContainers.contains(child),
                  u"Child not observed. Observation not properly set up.");
        m_observedContainers.remove(child);
    }
    std::lock_guard lock(child->m_observerMutex);
    child->m_aggregateObservers.removeIf([&](const std::weak_ptr<HXContainer> &parent) {
        const auto held = parent.lock();
        return !held || held.get() == this;
    });
}

void HXContainer::updateObservedChildren() {
    QSet<HXContainer *> observed;
    {
        std::lock_guard lock(m_observerMutex);
        if (!m_observesChildren)
            return;
        observed = m_observedContainers;
    }
    const auto children = containers();
    QSet<HXContainer *> current;
    for (const HXContainerRef &child : children) {
        current.insert(child.get());
        if (!observed.contains(child.get()))
            addObservationToChild(child);
    }
    for (HXContainer *gone : observed) {
        if (!current.contains(gone))
            removeObservationFromChild(gone);
    }
}

void HXContainer::notify(HXContainerKey key, bool prior) {
    QList<std::shared_ptr<HXContainerObserver>> observers;
    QList<HXContainerRef> above;
    {
        std::lock_guard lock(m_observerMutex);
        for (const auto &entry : m_observers) {
            if (entry.second == key) {
                if (auto observer = entry.first.lock())
                    observers.append(observer);
            }
        }
        if (isAggregate(key)) {
            for (const auto &parent : m_aggregateObservers) {
                if (auto held = parent.lock())
                    above.append(held);
            }
        }
    }
    for (const auto &observer : observers) {
        if (prior)
            observer->containerWillChange(*this, key);
        else
            observer->containerDidChange(*this, key);
    }
    for (const HXContainerRef &parent : above)
        parent->notify(key, prior);
}

void HXContainer::announce(HXContainerKey key, bool prior) {
    if (!prior && key == HXContainerKey::Containers)
        updateObservedChildren();
    notify(key, prior);
    // The aggregates follow the lists they are made of.
    if (key == HXContainerKey::Containers)
        notify(HXContainerKey::AllContainers, prior);
    if (key == HXContainerKey::Containers || key == HXContainerKey::SheetHandles) {
        notify(HXContainerKey::AllSheetHandles, prior);
        notify(HXContainerKey::AllLogicalSheetHandles, prior);
    }
}

void HXContainer::willChange(HXContainerKey key) {
    announce(key, true);
}

void HXContainer::didChange(HXContainerKey key) {
    announce(key, false);
}

// --- Operations putting items here ------------------------------------------------------------

namespace {

void assertMainQueue() {
    HX_ASSERT(HXDispatchQueue::isMainThread(), u"Setter may be only called from main queue.");
}

} // namespace

void HXContainer::registerInsertingOperation(const std::shared_ptr<HXOperation> &operation,
                                             quint64 workload) {
    assertMainQueue();
    const std::lock_guard lock(m_observerMutex);
    m_insertingOperations.append(operation);
    m_maximumInsertionWorkload += workload;
}

void HXContainer::insertingOperationDidProgress(const std::shared_ptr<HXOperation> &,
                                                quint64 workload) {
    assertMainQueue();
    const std::lock_guard lock(m_observerMutex);
    m_processedInsertionWorkload += workload;
}

void HXContainer::unregisterInsertingOperation(const std::shared_ptr<HXOperation> &operation) {
    assertMainQueue();
    const std::lock_guard lock(m_observerMutex);
    m_insertingOperations.removeAll(operation);
    if (m_insertingOperations.isEmpty()) {
        m_maximumInsertionWorkload = 0;
        m_processedInsertionWorkload = 0;
    }
}

QList<std::shared_ptr<HXOperation>> HXContainer::insertingOperations() const {
    const std::lock_guard lock(m_observerMutex);
    return m_insertingOperations;
}

quint64 HXContainer::maximumInsertionWorkload() const {
    const std::lock_guard lock(m_observerMutex);
    return m_maximumInsertionWorkload;
}

quint64 HXContainer::processedInsertionWorkload() const {
    const std::lock_guard lock(m_observerMutex);
    return m_processedInsertionWorkload;
}

double HXContainer::insertingOperationsProgress() const {
    const std::lock_guard lock(m_observerMutex);
    return m_maximumInsertionWorkload == 0
               ? std::numeric_limits<double>::quiet_NaN()
               : double(m_processedInsertionWorkload) / double(m_maximumInsertionWorkload);
}
