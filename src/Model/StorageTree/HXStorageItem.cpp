#include "Model/StorageTree/HXStorageItem.h"

#include "Model/Persistence/HXStorage.h"
#include "Model/StorageTree/HXContainer.h"
#include "Model/StorageTree/HXGroup.h"
#include "Utilities/HXAssert.h"

HXStorageItem::HXStorageItem(const QString &filename, const std::shared_ptr<HXStorage> &storage)
    : m_filename(filename)
    , m_storage(storage) {
    // Only containers that stand for several storages at once have none.
    HX_ASSERT(!filename.isEmpty(), u"filename");
}

HXStorageItem::~HXStorageItem() = default;

bool HXStorageItem::isAlive() const {
    std::lock_guard lock(m_itemMutex);
    return m_alive;
}

void HXStorageItem::setAlive(bool alive) {
    {
        std::lock_guard lock(m_itemMutex);
        m_alive = alive;
    }
    parentsDidChange();
}

QString HXStorageItem::filename() const {
    std::lock_guard lock(m_itemMutex);
    return m_filename;
}

void HXStorageItem::setFilename(const QString &filename) {
    HX_ASSERT(!filename.isEmpty(), u"filename");
    {
        std::lock_guard lock(m_itemMutex);
        m_filename = filename;
    }
    parentsDidChange();
}

std::shared_ptr<HXContainer> HXStorageItem::parent() const {
    std::lock_guard lock(m_itemMutex);
    return m_parent.lock();
}

void HXStorageItem::setParent(const std::shared_ptr<HXContainer> &parent) {
    {
        std::lock_guard lock(m_itemMutex);
        m_parent = parent;
    }
    parentsDidChange();
}

std::shared_ptr<HXStorage> HXStorageItem::storage() const {
    return m_storage.lock();
}

QString HXStorageItem::URL() const {
    std::lock_guard lock(m_itemMutex);
    return m_URL;
}

void HXStorageItem::parentsDidChange() {
    updateURL();
}

void HXStorageItem::updateURL() {
    bool alive;
    QString filename;
    std::shared_ptr<HXContainer> parent;
    {
        std::lock_guard lock(m_itemMutex);
        alive = m_alive;
        filename = m_filename;
        parent = m_parent.lock();
    }
    QString url;
    if (alive && parent) {
        const QString parentURL = parent->URL();
        if (!parentURL.isEmpty())
            url = parentURL + u'/' + filename;
    } else if (alive) {
        const auto storage = m_storage.lock();
        if (storage && static_cast<const HXStorageItem *>(storage->rootGroup().get()) == this)
            url = storage->baseURL();
    }
    std::lock_guard lock(m_itemMutex);
    m_URL = url;
}

bool HXStorageItem::isDescendantOfContainer(const HXContainer *container) const {
    if (!container)
        return false;
    if (this == container)
        return true;
    for (auto parent = this->parent(); parent; parent = parent->parent()) {
        if (parent.get() == container)
            return true;
    }
    return false;
}

std::shared_ptr<HXContainer> HXStorageItem::trashParent() const {
    for (auto parent = this->parent(); parent; parent = parent->parent()) {
        if (parent->isTrash())
            return parent;
    }
    return nullptr;
}

bool HXStorageItem::isDescendantOfTrash() const {
    if (isContainer() && static_cast<const HXContainer *>(this)->isTrash())
        return true;
    return trashParent() != nullptr;
}

std::shared_ptr<HXStorageItem> HXStorageItem::storageItemForOpeningURL(const QString &url) {
    const auto storage = this->storage();
    const QString own = URL();
    if (!own.isEmpty() && storage && storage->isFileURL(url, own))
        return shared_from_this();
    return nullptr;
}

void HXStorageItem::addPendingMove() {
    std::lock_guard lock(m_itemMutex);
    ++m_pendingMoves;
}

void HXStorageItem::removePendingMove() {
    std::lock_guard lock(m_itemMutex);
    HX_ASSERT(m_pendingMoves > 0, u"No move pending.");
    --m_pendingMoves;
}

bool HXStorageItem::isPendingForMove() const {
    {
        std::lock_guard lock(m_itemMutex);
        if (m_pendingMoves > 0)
            return true;
    }
    const auto parent = this->parent();
    return parent && parent->isPendingForMove();
}
