#pragma once

#include "Model/Persistence/HXVersionStore.h"
#include "Utilities/HXDispatchQueue.h"
#include "Utilities/HXError.h"
#include "Utilities/HXFilePresenter.h"
#include "Utilities/HXFileWrapper.h"
#include "Utilities/HXNotificationCenter.h"

#include <QDateTime>
#include <QString>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

class HXFilePresentationProxy;
class HXUndoManager;

// A document kept in a file or package that saves itself: edits are counted, and 30 seconds after
// the first unsaved one an autosave writes the file in the background while typing goes on. Every
// access to the file runs on the document's interaction queue, one at a time, under file
// coordination, and a presenter on the file hears what others do to it: a change by another
// writer reverts the document to the disk (what was not saved is kept as a version first), a move
// is followed, a deletion closes it. A save replaces the file in one step and keeps the state it
// replaced as a version now and then.
//
// Threads: edits and their counting on the main thread (or the one thread that edits); file work
// on the interaction queue; the autosave timer on the autosave queue; completion handlers on a
// global queue. The fields are guarded by the object's mutex; observers are called outside it.
// Held by shared pointer; a pending autosave keeps the document alive until it has run.
class HXDocument : public HXFilePresenter, public std::enable_shared_from_this<HXDocument> {
public:
    enum SaveOperation : int {
        SaveOperationSave = 0,
        SaveOperationAutosave = 1,
        SaveOperationSaveAs = 2,
        // Writes a copy elsewhere; the document keeps its file, state and change count.
        SaveOperationSaveTo = 3,
    };
    enum ChangeType : int {
        ChangeDone = 0,
        ChangeUndone = 1,
        ChangeRedone = 2,
        ChangeCleared = 3,
        // A change that undo can't take back: the document stays dirty until saved.
        ChangeDiscardable = 256,
    };
    // The observable properties.
    enum class Property {
        FileURL,
        ChangeDate,
        ChangeToken,
        FileModificationDate,
        ConflictVersions,
        DocumentIsOpen
    };
    using CompletionHandler = std::function<void(bool success)>;

    static inline const QString unhandledSaveErrorNotification =
        QStringLiteral("HXDocumentUnhandeledSaveErrorNotification");

    static void setAutosaveDelay(double seconds);
    static double autosaveDelay();
    static void setAutoversioningInterval(double seconds);
    static double autoversioningInterval();

    ~HXDocument() override;
    HXDocument(const HXDocument &) = delete;
    HXDocument &operator=(const HXDocument &) = delete;

    // --- What a subclass supplies -----------------------------------------------------------
    virtual QString defaultFileType() const = 0;
    virtual QString defaultPathExtension() const = 0;
    // One of each pair: reading a URL or its file, writing a URL or giving the file.
    virtual bool readFromURL(const QString &url, HXError *error);
    virtual bool readFromFileWrapper(const HXFileWrapper &fileWrapper, HXError *error);
    // Writes the document to the URL in one step. The state it replaced, if it leaves that
    // behind, goes to `backupPath`, for the caller to keep as a version or remove.
    virtual bool writeToURL(const QString &url, int saveOperation,
                            const QString &originalContentsURL, QString *backupPath,
                            HXError *error);
    virtual HXFileWrapperRef fileWrapperWithError(HXError *error);
    // What a save writes: the file wrapper, whose parts may still be being made (pending
    // wrappers) while the others are written.
    virtual HXFileWrapperRef fileWrapperToWrite(HXError *error) {
        return fileWrapperWithError(error);
    }
    // A file inside the package whose date is part of the change token: one that others
    // rewrite in place.
    virtual QString changeTokenContentFilename() const { return QString(); }

    // --- Names ------------------------------------------------------------------------------
    QString preferredFilename() const;
    QString sanitizedPathExtension() const { return defaultPathExtension(); }
    QString preferredURL() const { return fileURL(); }
    virtual QString URLForSaveOperation(int saveOperation, bool ignoreCurrentName) const;

    // --- State ------------------------------------------------------------------------------
    QString fileURL() const;
    void setFileURL(const QString &url);
    std::shared_ptr<HXUndoManager> undoManager() const;
    void setUndoManager(const std::shared_ptr<HXUndoManager> &undoManager);
    bool isReadOnly() const;
    void setReadOnly(bool readOnly);
    bool documentIsOpen() const;
    bool deletionPending() const;
    bool isEditingDisabled() const { return m_editingDisabled.load() > 0; }
    QDateTime fileModificationDate() const;
    QDateTime lastFileOpenDate() const;
    QDateTime changeDate() const;
    QString changeToken() const;
    QString fileChangeToken() const;
    std::optional<HXFileVersion> currentVersion() const;
    std::optional<QList<HXFileVersion>> conflictVersions() const;
    qint64 changeCount() const;
    bool hasUnsavedChanges() const { return changeCount() != 0; }
    std::optional<HXError> lastReadError() const;
    std::optional<HXError> lastWriteError() const;
    bool hasPresenter() const;

    // Called on the thread of the change, outside the document's mutex, until removed.
    void addPropertyObserver(const void *owner, std::function<void(Property)> observer);
    void removePropertyObserver(const void *owner);

    // --- Change tracking --------------------------------------------------------------------
    void updateChangeCount(int changeType);
    // The content changed here: a new change date and a token that names no file state.
    void updateChangeDate();
    virtual void breakUndoCoalescing() {}
    void disableEditing();
    void enableEditing();

    // The token of a file's state: "1|" and its modification time, the later of the package's
    // and its content file's; "e:..." when that can't be read, equal to nothing.
    QString changeTokenForItemAtURL(const QString &url) const;
    // The same for any package or file, with the name of the file inside that dates the content.
    static QString changeTokenForItemAtURL(const QString &url, const QString &contentFilename);

    // --- File work, on the interaction queue; handlers on a global queue --------------------
    void openWithCompletionHandler(CompletionHandler handler);
    void saveWithCompletionHandler(CompletionHandler handler);
    void autosaveWithCompletionHandler(CompletionHandler handler);
    void saveToURL(const QString &url, int saveOperation, CompletionHandler handler);
    // The same, waiting: for background threads and termination. A failure with no error to
    // fill is announced as the asynchronous form does.
    bool saveToURL(const QString &url, int saveOperation, HXError *error);
    void closeWithCompletionHandler(CompletionHandler handler);
    void deleteWithCompletionHandler(CompletionHandler handler);
    void revertToContentsOfURL(const QString &url, CompletionHandler handler);
    // Waits for the work queued so far.
    void waitForInteractionQueue();
    // Runs one of the asynchronous steps above and waits for its answer, for programs without
    // an event loop (the handler comes on a global queue, so this thread is free to wait).
    static bool waitForCompletion(const std::function<void(CompletionHandler)> &step);

    // A save that failed and that no caller took the error of: shown at most once a minute
    // for the same unchanged state of an autosave.
    void notifyError(const HXError &error, int saveOperation);

    // --- Hooks ------------------------------------------------------------------------------
    virtual void didChangeFileURLBySaving() {}
    virtual void didMoveToURL(const QString &) {}

    // --- The presenter's callbacks ----------------------------------------------------------
    QString presentedItemURL() const override { return fileURL(); }
    std::shared_ptr<HXDispatchQueue> presentedItemOperationQueue() const override;
    void relinquishPresentedItemToReader(Relinquisher reader) override;
    void relinquishPresentedItemToWriter(Relinquisher writer) override;
    void savePresentedItemChangesWithCompletionHandler(
        HXFilePresenter::CompletionHandler handler) override;
    void accommodatePresentedItemDeletionWithCompletionHandler(
        HXFilePresenter::CompletionHandler handler) override;
    void presentedItemDidMoveToURL(const QString &url) override;
    void presentedItemDidChange() override;

    // The save proper, for a caller that holds the coordinated write of the URL already.
    bool coordinatedSaveToURL(const QString &url, int saveOperation, HXError *error);

protected:
    HXDocument();

    // The file read under coordination: the subclass's reading and the state of an open file.
    bool coordinatedOpenFromURL(const QString &url, HXError *error);
    bool writeSafelyToURL(const QString &url, int saveOperation, HXError *error);
    // Drops the presenter and a pending autosave; the document is closed and clean.
    void close();
    void notifyObservers(Property property);

    // Guards the fields of this class and of subclasses; never held while waiting for a string.
    mutable std::recursive_mutex m_mutex;

private:
    bool performSave(const QString &url, int saveOperation, HXError *error);
    void performOpen(CompletionHandler handler);
    void reactToChange();
    void accommodateDeletion();
    void keepUnsavedStateAsVersion();
    HXFilePresenterRef presenter() const;
    void startPresenting();
    void stopPresenting();
    void scheduleAutosave();
    void setAutosaveToken();
    void unsetAutosaveToken();
    void clearFileState();
    void stampFileDate(const QString &url);
    void updateCurrentVersion();
    void updateConflictVersions();
    static void complete(const CompletionHandler &handler, bool success);
    template<typename T>
    void setField(T &field, const T &value, Property property);

    std::shared_ptr<HXDispatchQueue> m_interactionQueue;
    std::shared_ptr<HXDispatchQueue> m_autosaveQueue;
    std::shared_ptr<HXFilePresentationProxy> m_presenter;
    std::shared_ptr<HXUndoManager> m_undoManager;
    std::vector<std::pair<const void *, std::function<void(Property)>>> m_observers;

    // The autosave queue's: the token that keeps the document alive while an autosave waits,
    // the generation of its timer, and the notifications it listens to meanwhile.
    std::shared_ptr<HXDocument> m_autosaveToken;
    quint64 m_autosaveGeneration = 0;
    HXNotificationObservation m_terminateObservation;
    HXNotificationObservation m_resignActiveObservation;

    QString m_fileURL;
    QString m_revertURL;
    bool m_deletionPending = false;
    bool m_readOnly = false;
    bool m_documentIsOpen = false;
    std::atomic<int> m_editingDisabled = 0;
    QDateTime m_fileModificationDate;
    QDateTime m_lastFileOpenDate;
    QDateTime m_changeDate;
    QString m_changeToken;
    QString m_fileChangeToken;
    std::optional<HXFileVersion> m_currentVersion;
    std::optional<QList<HXFileVersion>> m_conflictVersions;
    qint64 m_changeCount = 0;
    std::optional<HXError> m_lastReadError;
    std::optional<HXError> m_lastWriteError;
    QDateTime m_lastWriteErrorDate;
    QDateTime m_lastVisibleErrorNotificationDate;
};

using HXDocumentRef = std::shared_ptr<HXDocument>;
