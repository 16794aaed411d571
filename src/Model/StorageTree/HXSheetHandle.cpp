#include "Model/StorageTree/HXSheetHandle.h"

#include "Model/Persistence/HXStorage.h"
#include "Model/Sheets/HXSheet.h"
#include "Model/StorageTree/HXContainer.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXDispatchQueue.h"
#include "Utilities/HXFileSystem.h"

HXSheetHandle::HXSheetHandle(const QString &filename, const std::shared_ptr<HXStorage> &storage)
    : HXStorageItem(filename, storage) {}

HXSheetHandle::~HXSheetHandle() = default;

std::shared_ptr<HXSheet> HXSheetHandle::sheet() const {
    if (!isAlive())
        return nullptr;
    std::lock_guard lock(m_handleMutex);
    const auto sheet = m_sheet.lock();
    return sheet && sheet->documentIsOpen() ? sheet : nullptr;
}

// --- Loading --------------------------------------------------------------------------------

std::shared_ptr<HXSheet> HXSheetHandle::loadSheetIfNeeded() {
    return loadSheetIfNeededReadOnly(false);
}

std::shared_ptr<HXSheet> HXSheetHandle::loadSheetForReading() {
    return loadSheetIfNeededReadOnly(true);
}

std::shared_ptr<HXSheet> HXSheetHandle::loadSheetIfNeededReadOnly(bool readOnly) {
    if (auto open = sheet())
        return open;
    std::binary_semaphore done{0};
    std::shared_ptr<HXSheet> result;
    loadSheet(readOnly, [&](const std::shared_ptr<HXSheet> &sheet) {
        result = sheet;
        done.release();
    });
    // The open runs on the pool too: a pool thread waiting for it must not hold its place.
    HXDispatchQueue::waitReleasingPoolThread([&] { done.acquire(); });
    return result;
}

void HXSheetHandle::loadSheetWithCompletionHandler(LoadHandler handler) {
    loadSheetReadOnly(false, std::move(handler));
}

void HXSheetHandle::loadSheetReadOnly(bool readOnly, LoadHandler handler) {
    HX_ASSERT(handler != nullptr, u"completionHandler != nil");
    const auto self = std::static_pointer_cast<HXSheetHandle>(shared_from_this());
    HXDispatchQueue::globalQueue()->async(
        [self, readOnly, handler = std::move(handler)] { self->loadSheet(readOnly, handler); });
}

void HXSheetHandle::loadSheet(bool readOnly, const LoadHandler &handler) {
    // One writable load at a time per handle, so that all of them end with one sheet.
    if (!readOnly)
        m_openSemaphore.acquire();
    const auto release = [&] {
        if (!readOnly)
            m_openSemaphore.release();
    };
    std::shared_ptr<HXSheet> sheet;
    {
        std::lock_guard lock(m_handleMutex);
        if (!readOnly)
            sheet = m_sheet.lock();
    }
    if (!sheet) {
        const auto storage = this->storage();
        HXError error;
        const QString url = URL();
        if (storage && !url.isEmpty())
            sheet = storage->sheetForURL(url, readOnly, &error);
        else
            error = HXError::fileError(HXFileNoSuchFileError, url,
                                       QStringLiteral("The sheet “%1” is gone.").arg(filename()));
        if (!sheet) {
            {
                std::lock_guard lock(m_handleMutex);
                m_lastReadError = error;
            }
            release();
            handler(nullptr);
            return;
        }
        if (readOnly)
            sheet->setHandle(std::static_pointer_cast<HXSheetHandle>(shared_from_this()));
        else
            associateSheet(sheet);
    }
    HX_ASSERT(sheet != nullptr, u"Sheet not present!");
    HX_ASSERT(!sheet->fileURL().isEmpty(), u"Sheet has not a valid fileURL.");
    const auto self = std::static_pointer_cast<HXSheetHandle>(shared_from_this());
    sheet->openWithCompletionHandler([self, sheet, readOnly, handler](bool success) {
        {
            std::lock_guard lock(self->m_handleMutex);
            if (!success && !readOnly && self->m_sheet.lock() == sheet)
                self->m_sheet.reset();
            self->m_lastReadError = success ? std::nullopt : sheet->lastReadError();
        }
        if (!readOnly)
            self->m_openSemaphore.release();
        handler(success ? sheet : nullptr);
    });
}

std::optional<HXError> HXSheetHandle::lastReadError() const {
    std::lock_guard lock(m_handleMutex);
    return m_lastReadError;
}

std::optional<HXError> HXSheetHandle::lastWriteError() const {
    std::shared_ptr<HXSheet> sheet;
    {
        std::lock_guard lock(m_handleMutex);
        sheet = m_sheet.lock();
    }
    return sheet ? sheet->lastWriteError() : std::nullopt;
}

void HXSheetHandle::associateSheet(const std::shared_ptr<HXSheet> &sheet) {
    {
        std::lock_guard lock(m_handleMutex);
        HX_ASSERT(!m_sheet.lock() && !sheet->handle(), u"!_sheet && !sheet.handle");
        m_sheet = sheet;
    }
    sheet->setHandle(std::static_pointer_cast<HXSheetHandle>(shared_from_this()));
    const std::weak_ptr<HXStorageItem> weak = weak_from_this();
    const HXSheet *observed = sheet.get();
    sheet->addPropertyObserver(this, [weak, observed](HXDocument::Property property) {
        if (property != HXDocument::Property::ChangeDate &&
            property != HXDocument::Property::ChangeToken &&
            property != HXDocument::Property::FileModificationDate)
            return;
        if (const auto self = std::static_pointer_cast<HXSheetHandle>(weak.lock()))
            self->sheetPropertyDidChange(*observed);
    });
    sheetPropertyDidChange(*sheet);
}

void HXSheetHandle::sheetPropertyDidChange(const HXSheet &sheet) {
    const QDateTime fileDate = sheet.fileModificationDate();
    const QDateTime changeDate = sheet.changeDate();
    const QString token = sheet.changeToken();
    std::lock_guard lock(m_handleMutex);
    if (fileDate.isValid())
        m_fileModificationDate = fileDate;
    if (changeDate.isValid())
        m_changeDate = changeDate;
    else if (m_fileModificationDate.isValid())
        m_changeDate = m_fileModificationDate;
    if (!token.isEmpty())
        m_changeToken = token;
}

void HXSheetHandle::sheetWillDeallocate(const HXSheet *sheet) {
    {
        std::lock_guard lock(m_handleMutex);
        // A sheet on its way out no longer locks; one that does is another, newer sheet.
        if (m_sheet.lock())
            return;
        m_sheet.reset();
    }
    Q_UNUSED(sheet);
    updateChangeDatesIfNeeded();
}

// --- Dates ----------------------------------------------------------------------------------

QDateTime HXSheetHandle::creationDate() const {
    loadDatesIfNeeded();
    std::lock_guard lock(m_handleMutex);
    return m_creationDate;
}

QDateTime HXSheetHandle::fileModificationDate() const {
    loadDatesIfNeeded();
    std::lock_guard lock(m_handleMutex);
    return m_fileModificationDate;
}

QDateTime HXSheetHandle::changeDate() const {
    loadDatesIfNeeded();
    std::lock_guard lock(m_handleMutex);
    return m_changeDate;
}

QString HXSheetHandle::changeToken() const {
    loadDatesIfNeeded();
    std::lock_guard lock(m_handleMutex);
    return m_changeToken;
}

// A library of thousands of sheets opens from directory entries alone: a handle reads its dates
// from the file the first time someone asks for them.
void HXSheetHandle::loadDatesIfNeeded() const {
    {
        std::lock_guard lock(m_handleMutex);
        if (m_datesLoaded)
            return;
    }
    const_cast<HXSheetHandle *>(this)->readDates(true);
}

void HXSheetHandle::updateChangeDatesIfNeeded() {
    {
        std::lock_guard lock(m_handleMutex);
        // Dates nobody has read yet are read fresh when they are first asked for.
        if (!m_datesLoaded)
            return;
    }
    readDates(false);
}

void HXSheetHandle::readDates(bool withCreationDate) {
    const QString url = URL();
    if (!isAlive() || url.isEmpty())
        return;
    const QDateTime created =
        withCreationDate ? HXFileSystem::creationDate(url) : QDateTime();
    bool sheetLoaded = false;
    {
        std::lock_guard lock(m_handleMutex);
        if (withCreationDate && !m_datesLoaded)
            m_creationDate = created;
        // A loaded sheet tells the other dates itself.
        sheetLoaded = m_sheet.lock() != nullptr;
        if (sheetLoaded)
            m_datesLoaded = true;
    }
    if (sheetLoaded)
        return;
    const auto storage = this->storage();
    const QDateTime modified = HXFileSystem::modificationDate(url);
    const QString token = storage ? storage->changeTokenForItemAtURL(url) : QString();
    std::lock_guard lock(m_handleMutex);
    m_datesLoaded = true;
    if (modified.isValid() && modified != m_fileModificationDate)
        m_fileModificationDate = modified;
    if (modified.isValid() && modified != m_changeDate)
        m_changeDate = modified;
    if (!token.isEmpty() && token != m_changeToken)
        m_changeToken = token;
}

void HXSheetHandle::itemDidChangeAtURL(const QString &url) {
    const auto storage = this->storage();
    if (storage && storage->isFileURL(url, URL()))
        updateChangeDatesIfNeeded();
}

void HXSheetHandle::setAlive(bool alive) {
    HXStorageItem::setAlive(alive);
    std::lock_guard lock(m_handleMutex);
    if (alive) {
        // Read anew, from wherever the handle lives now, when asked.
        if (!m_sheet.lock())
            m_datesLoaded = false;
    } else {
        m_sheet.reset();
    }
}

QString HXSheetHandle::cachedContentPrefix() const {
    std::lock_guard lock(m_handleMutex);
    return m_cachedContentPrefix;
}

void HXSheetHandle::setCachedContentPrefix(const QString &prefix) {
    std::lock_guard lock(m_handleMutex);
    m_cachedContentPrefix = prefix;
}
