#pragma once

#include "Model/StorageTree/HXStorageItem.h"
#include "Utilities/HXError.h"

#include <QDateTime>

#include <functional>
#include <optional>
#include <semaphore>

class HXSheet;

// The light, always present stand-in of a sheet in the tree: its name, its dates and change
// token, and a weak reference to the loaded sheet, which lives only while someone holds it.
// Loading asks the storage for the sheet; writable loads of one handle run one at a time, so
// that several of them end with one shared sheet, while a read-only load makes a private copy.
//
// Owned by its container's set. Any thread: the reference to the sheet and the dates are guarded
// by the handle's mutex, which is taken before any lock of the sheet, never after.
class HXSheetHandle : public HXStorageItem {
public:
    using LoadHandler = std::function<void(const std::shared_ptr<HXSheet> &sheet)>;

    HXSheetHandle(const QString &filename, const std::shared_ptr<HXStorage> &storage);
    ~HXSheetHandle() override;

    // The sheet if the handle is alive and the sheet is loaded and open; else null.
    std::shared_ptr<HXSheet> sheet() const;
    // Synchronous loads; they block, so not on the main thread in bulk.
    std::shared_ptr<HXSheet> loadSheetIfNeeded();
    std::shared_ptr<HXSheet> loadSheetForReading();
    std::shared_ptr<HXSheet> loadSheetIfNeededReadOnly(bool readOnly);
    // Asynchronous loads; the handler comes on a background queue, with null on failure.
    void loadSheetWithCompletionHandler(LoadHandler handler);
    void loadSheetReadOnly(bool readOnly, LoadHandler handler);

    std::optional<HXError> lastReadError() const;
    std::optional<HXError> lastWriteError() const;
    // Joins a writable sheet to the handle: the handle follows its dates from now on.
    void associateSheet(const std::shared_ptr<HXSheet> &sheet);
    // The sheet is going away: its dates are the file's again.
    void sheetWillDeallocate(const HXSheet *sheet);

    // Read from the file on first use, then kept up to date.
    QDateTime creationDate() const;
    QDateTime fileModificationDate() const;
    QDateTime changeDate() const;
    QString changeToken() const;
    // Refreshes the dates from the file while no sheet is loaded.
    void updateChangeDatesIfNeeded();
    void itemDidChangeAtURL(const QString &url) override;

    bool isEditable() const { return !isDescendantOfTrash(); }
    void setAlive(bool alive) override;

    // A short text for lists, kept by whoever reads the sheet's metadata.
    QString cachedContentPrefix() const;
    void setCachedContentPrefix(const QString &prefix);

private:
    void loadSheet(bool readOnly, const LoadHandler &handler);
    void sheetPropertyDidChange(const HXSheet &sheet);
    void loadDatesIfNeeded() const;
    void readDates(bool withCreationDate);

    mutable std::mutex m_handleMutex;
    std::weak_ptr<HXSheet> m_sheet;
    std::binary_semaphore m_openSemaphore{1};
    std::optional<HXError> m_lastReadError;
    QDateTime m_creationDate;
    QDateTime m_fileModificationDate;
    QDateTime m_changeDate;
    QString m_changeToken;
    QString m_cachedContentPrefix;
    bool m_datesLoaded = false;
};

using HXSheetHandleRef = std::shared_ptr<HXSheetHandle>;
