#include "Model/Sheets/HXDocument.h"

#include "Utilities/HXApplicationLog.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXDispatchQueue.h"
#include "Utilities/HXFileCoordinator.h"
#include "Utilities/HXFilePresentationProxy.h"
#include "Utilities/HXFileSystem.h"
#include "Utilities/HXUndoManager.h"

#include <QDir>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QThread>
#include <QTimeZone>

#include <semaphore>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::atomic<double> autosaveDelaySeconds = 30.0;
std::atomic<double> autoversioningIntervalSeconds = 900.0;

const QString deletionPendingText = QStringLiteral("Deletion pending.");

HXError genericError(const QString &description) {
    return HXError::withDescription(HXCocoaErrorDomain, 256, description);
}

QString addressText(const void *object) {
    return QString::number(quintptr(object), 16);
}

// Seconds since 2001-01-01 and the nanoseconds of the second, of a file's modification time.
struct FileTime {
    qint64 nanoseconds = 0; // since 1970
    bool valid = false;
};

FileTime modificationTimeOf(const QString &path) {
    struct stat info {};
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return {};
    return {qint64(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec, true};
}

// The second of 2001-01-01 in Unix time.
constexpr qint64 referenceDateSeconds = 978307200;

} // namespace

// --- Settings -------------------------------------------------------------------------------

void HXDocument::setAutosaveDelay(double seconds) {
    autosaveDelaySeconds = seconds;
}

double HXDocument::autosaveDelay() {
    return autosaveDelaySeconds;
}

void HXDocument::setAutoversioningInterval(double seconds) {
    autoversioningIntervalSeconds = seconds;
}

double HXDocument::autoversioningInterval() {
    return autoversioningIntervalSeconds;
}

// --- Life -----------------------------------------------------------------------------------

HXDocument::HXDocument()
    : m_interactionQueue(HXDispatchQueue::create(
          QStringLiteral("com.quaytor.velmora3.interaction.%1").arg(addressText(this))))
    , m_autosaveQueue(HXDispatchQueue::create(
          QStringLiteral("com.quaytor.velmora3.autosave.%1").arg(addressText(this)))) {}

HXDocument::~HXDocument() {
    if (m_presenter)
        m_presenter->endPresentation();
    if (m_undoManager)
        m_undoManager->removeChangeObserver(this);
}

// --- Subclass defaults ----------------------------------------------------------------------

bool HXDocument::readFromURL(const QString &url, HXError *error) {
    const HXFileWrapperRef wrapper = HXFileWrapper::fileWrapperWithPath(url, error);
    return wrapper && readFromFileWrapper(*wrapper, error);
}

bool HXDocument::readFromFileWrapper(const HXFileWrapper &, HXError *) {
    HX_ASSERT(false, u"A document must implement readFromURL:error: or "
                     u"readFromFileWrapper:error:.");
    return false;
}

HXFileWrapperRef HXDocument::fileWrapperWithError(HXError *) {
    HX_ASSERT(false, u"A document must implement writeToURL:forSaveOperation:originalContentsURL:"
                     u"error: or fileWrapperWithError:.");
    return nullptr;
}

bool HXDocument::writeToURL(const QString &url, int, const QString &, QString *backupPath,
                            HXError *error) {
    HXFileWrapperRef wrapper = fileWrapperToWrite(error);
    if (!wrapper)
        return false;
    if (wrapper->isDirectory()) {
        const bool written = wrapper->writeToPath(url, error, backupPath);
        // What the package was made from (a copy of a long text, say) is let go off the saving
        // thread, once the disk work is done.
        HXDispatchQueue::globalQueue(HXDispatchQueue::Priority::Background)
            ->async([held = std::move(wrapper)] {});
        return written;
    }
    // A file: the old one is kept by a hard link under a hidden name beside it.
    if (backupPath && HXFileIdentity::ofPath(url).exists) {
        const QString backup = HXFileSystem::hiddenSiblingPath(url, QStringLiteral("velmora-old"));
        if (::link(QFile::encodeName(url).constData(), QFile::encodeName(backup).constData()) == 0)
            *backupPath = backup;
    }
    if (!wrapper->writeToPath(url, error)) {
        if (backupPath && !backupPath->isEmpty()) {
            HXFileSystem::removeItem(*backupPath, nullptr);
            backupPath->clear();
        }
        return false;
    }
    return true;
}

// --- Names and state ------------------------------------------------------------------------

QString HXDocument::preferredFilename() const {
    return QFileInfo(fileURL()).fileName();
}

QString HXDocument::URLForSaveOperation(int, bool) const {
    const QString url = fileURL();
    if (url.isEmpty())
        return QString();
    return QFileInfo(url).absolutePath() + u'/' + preferredFilename();
}

template<typename T>
void HXDocument::setField(T &field, const T &value, Property property) {
    {
        const std::lock_guard lock(m_mutex);
        if (field == value)
            return;
        field = value;
    }
    notifyObservers(property);
}

QString HXDocument::fileURL() const {
    const std::lock_guard lock(m_mutex);
    return m_fileURL;
}

void HXDocument::setFileURL(const QString &url) {
    const QString resolved = url.isEmpty() ? QString() : HXFileSystem::exactPath(url);
    setField(m_fileURL, resolved, Property::FileURL);
    const std::lock_guard lock(m_mutex);
    if (m_presenter)
        m_presenter->setPresentedItemURL(resolved);
}

std::shared_ptr<HXUndoManager> HXDocument::undoManager() const {
    const std::lock_guard lock(m_mutex);
    return m_undoManager;
}

void HXDocument::setUndoManager(const std::shared_ptr<HXUndoManager> &undoManager) {
    const std::lock_guard lock(m_mutex);
    if (m_undoManager)
        m_undoManager->removeChangeObserver(this);
    m_undoManager = undoManager;
    if (!m_undoManager)
        return;
    const std::weak_ptr<HXDocument> weak = weak_from_this();
    m_undoManager->addChangeObserver(this, [weak](HXUndoManager::Change change) {
        if (const auto self = weak.lock()) {
            self->updateChangeCount(change == HXUndoManager::Change::Undone   ? ChangeUndone
                                    : change == HXUndoManager::Change::Redone ? ChangeRedone
                                                                              : ChangeDone);
        }
    });
}

bool HXDocument::isReadOnly() const {
    const std::lock_guard lock(m_mutex);
    return m_readOnly;
}

void HXDocument::setReadOnly(bool readOnly) {
    const std::lock_guard lock(m_mutex);
    m_readOnly = readOnly;
}

bool HXDocument::documentIsOpen() const {
    const std::lock_guard lock(m_mutex);
    return m_documentIsOpen;
}

bool HXDocument::deletionPending() const {
    const std::lock_guard lock(m_mutex);
    return m_deletionPending;
}

QDateTime HXDocument::fileModificationDate() const {
    const std::lock_guard lock(m_mutex);
    return m_fileModificationDate;
}

QDateTime HXDocument::lastFileOpenDate() const {
    const std::lock_guard lock(m_mutex);
    return m_lastFileOpenDate;
}

QDateTime HXDocument::changeDate() const {
    const std::lock_guard lock(m_mutex);
    return m_changeDate;
}

QString HXDocument::changeToken() const {
    const std::lock_guard lock(m_mutex);
    return m_changeToken;
}

QString HXDocument::fileChangeToken() const {
    const std::lock_guard lock(m_mutex);
    return m_fileChangeToken;
}

std::optional<HXFileVersion> HXDocument::currentVersion() const {
    const std::lock_guard lock(m_mutex);
    return m_currentVersion;
}

std::optional<QList<HXFileVersion>> HXDocument::conflictVersions() const {
    const std::lock_guard lock(m_mutex);
    return m_conflictVersions;
}

qint64 HXDocument::changeCount() const {
    const std::lock_guard lock(m_mutex);
    return m_changeCount;
}

std::optional<HXError> HXDocument::lastReadError() const {
    const std::lock_guard lock(m_mutex);
    return m_lastReadError;
}

std::optional<HXError> HXDocument::lastWriteError() const {
    const std::lock_guard lock(m_mutex);
    return m_lastWriteError;
}

bool HXDocument::hasPresenter() const {
    const std::lock_guard lock(m_mutex);
    return m_presenter != nullptr;
}

void HXDocument::addPropertyObserver(const void *owner, std::function<void(Property)> observer) {
    const std::lock_guard lock(m_mutex);
    m_observers.emplace_back(owner, std::move(observer));
}

void HXDocument::removePropertyObserver(const void *owner) {
    const std::lock_guard lock(m_mutex);
    std::erase_if(m_observers, [owner](const auto &entry) { return entry.first == owner; });
}

void HXDocument::notifyObservers(Property property) {
    decltype(m_observers) observers;
    {
        const std::lock_guard lock(m_mutex);
        observers = m_observers;
    }
    for (const auto &[owner, observer] : observers)
        observer(property);
}

// --- Change tracking ------------------------------------------------------------------------

void HXDocument::updateChangeDate() {
    {
        const std::lock_guard lock(m_mutex);
        // Each change has a date of its own, later than the last, even within a millisecond.
        const QDateTime now = QDateTime::currentDateTimeUtc();
        m_changeDate =
            m_changeDate.isValid() && now <= m_changeDate ? m_changeDate.addMSecs(1) : now;
        m_changeToken = QStringLiteral("l:") +
                        QString::number(QRandomGenerator::global()->generate(), 16).toUpper();
    }
    notifyObservers(Property::ChangeDate);
    notifyObservers(Property::ChangeToken);
}

void HXDocument::updateChangeCount(int changeType) {
    if (changeType == ChangeCleared) {
        {
            const std::lock_guard lock(m_mutex);
            m_changeCount = 0;
        }
        const std::weak_ptr<HXDocument> weak = weak_from_this();
        m_autosaveQueue->async([weak] {
            if (const auto self = weak.lock())
                self->unsetAutosaveToken();
        });
        return;
    }
    HX_ASSERT(!isReadOnly(), u"Modification made to read-only document %@!", fileURL());
    updateChangeDate();
    scheduleAutosave();
    const std::lock_guard lock(m_mutex);
    constexpr qint64 maximum = std::numeric_limits<qint64>::max();
    if (m_changeCount == maximum)
        return;
    if (changeType & ChangeDiscardable) {
        m_changeCount = maximum;
    } else if (changeType == ChangeRedone) {
        ++m_changeCount;
    } else if (changeType == ChangeUndone) {
        --m_changeCount;
    } else if (m_changeCount < 0) {
        // An edit after undoing past the saved state: undo can't lead back to it.
        m_changeCount = maximum;
    } else {
        ++m_changeCount;
    }
}

void HXDocument::disableEditing() {
    ++m_editingDisabled;
}

void HXDocument::enableEditing() {
    if (m_editingDisabled.load() > 0)
        --m_editingDisabled;
}

// --- Autosave -------------------------------------------------------------------------------

void HXDocument::scheduleAutosave() {
    const std::weak_ptr<HXDocument> weak = weak_from_this();
    if (weak.expired())
        return;
    m_autosaveQueue->async([weak] {
        const auto self = weak.lock();
        if (!self || self->m_autosaveToken)
            return;
        self->setAutosaveToken();
        const quint64 generation = self->m_autosaveGeneration;
        const auto delay = std::chrono::milliseconds(qint64(autosaveDelay() * 1000));
        self->m_autosaveQueue->after(delay, [weak, generation] {
            const auto self = weak.lock();
            if (!self || !self->m_autosaveToken || self->m_autosaveGeneration != generation)
                return;
            // The token goes last, as it may hold the last reference.
            const auto token = self->m_autosaveToken;
            self->unsetAutosaveToken();
            if (self->hasUnsavedChanges())
                self->autosaveWithCompletionHandler(nullptr);
        });
    });
}

void HXDocument::setAutosaveToken() {
    m_autosaveToken = shared_from_this();
    ++m_autosaveGeneration;
    const std::weak_ptr<HXDocument> weak = weak_from_this();
    const auto center = HXNotificationCenter::defaultCenter();
    m_resignActiveObservation = center->addObserver(
        HXApplicationWillResignActiveNotification, [weak](const HXNotification &) {
            const auto self = weak.lock();
            if (self && self->hasUnsavedChanges() && !self->fileURL().isEmpty())
                self->autosaveWithCompletionHandler(nullptr);
        });
    m_terminateObservation =
        center->addObserver(HXApplicationWillTerminateNotification, [weak](const HXNotification &) {
            const auto self = weak.lock();
            if (!self || !self->hasUnsavedChanges())
                return;
            const QString url = self->URLForSaveOperation(SaveOperationAutosave, false);
            HXError error;
            if (!url.isEmpty() && !self->saveToURL(url, SaveOperationAutosave, &error)) {
                HXApplicationLog::sharedInstance()->logError(u"Error writing file: %@ Path: %@",
                                                             error.localizedDescription(), url);
            }
        });
}

void HXDocument::unsetAutosaveToken() {
    m_resignActiveObservation.reset();
    m_terminateObservation.reset();
    ++m_autosaveGeneration;
    const auto token = std::move(m_autosaveToken);
    m_autosaveToken = nullptr;
}

// --- Change tokens --------------------------------------------------------------------------

QString HXDocument::changeTokenForItemAtURL(const QString &url) const {
    return changeTokenForItemAtURL(url, changeTokenContentFilename());
}

QString HXDocument::changeTokenForItemAtURL(const QString &url, const QString &content) {
    FileTime time = modificationTimeOf(url);
    if (time.valid && !content.isEmpty()) {
        const FileTime inner = modificationTimeOf(url + u'/' + content);
        if (inner.valid && inner.nanoseconds > time.nanoseconds)
            time = inner;
    }
    if (!time.valid) {
        HXApplicationLog::sharedInstance()->logError(
            u"Cannot request change token attributes from '%@' for '%@': %@", url,
            QStringLiteral("contentModificationDate"), QString::fromLocal8Bit(strerror(errno)));
        return QStringLiteral("e:") +
               QString::number(QRandomGenerator::global()->generate(), 16).toUpper();
    }
    const qint64 seconds = time.nanoseconds / 1000000000 - referenceDateSeconds;
    const qint64 nanoseconds = time.nanoseconds % 1000000000;
    return QStringLiteral("1|%1.%2")
        .arg(quint64(seconds), 0, 16)
        .arg(nanoseconds, 9, 10, QLatin1Char('0'))
        .toUpper();
}

// --- Opening --------------------------------------------------------------------------------

void HXDocument::complete(const CompletionHandler &handler, bool success) {
    if (handler)
        HXDispatchQueue::globalQueue()->async([handler, success] { handler(success); });
}

void HXDocument::openWithCompletionHandler(CompletionHandler handler) {
    const auto self = shared_from_this();
    m_interactionQueue->async([self, handler] { self->performOpen(handler); });
}

void HXDocument::performOpen(CompletionHandler handler) {
    if (documentIsOpen()) {
        complete(handler, true);
        return;
    }
    const QString url = fileURL();
    if (url.isEmpty()) {
        complete(handler, false);
        return;
    }
    HXError error;
    bool success = false;
    HXFileCoordinator coordinator(presenter());
    const bool coordinated = coordinator.coordinateReadingItemAtURL(
        url, HXFileCoordinator::ReadingWithoutChanges, &error, [&](const QString &path) {
            if (!documentIsOpen())
                success = coordinatedOpenFromURL(path, &error);
            else
                success = true;
        });
    success = coordinated && success;
    {
        const std::lock_guard lock(m_mutex);
        m_lastReadError = success ? std::nullopt : std::optional<HXError>(error);
    }
    if (!success) {
        HXApplicationLog::sharedInstance()->logError(u"Error opening file %@: %@", url,
                                                     error.localizedDescription());
    }
    complete(handler, success);
}

bool HXDocument::coordinatedOpenFromURL(const QString &url, HXError *error) {
    if (!readFromURL(url, error))
        return false;
    if (const auto undo = undoManager())
        undo->removeAllActions();
    updateChangeCount(ChangeCleared);
    const QString token = changeTokenForItemAtURL(url);
    {
        const std::lock_guard lock(m_mutex);
        m_fileModificationDate = HXFileSystem::modificationDate(url);
        m_fileChangeToken = token;
        m_changeToken = token;
    }
    notifyObservers(Property::FileModificationDate);
    notifyObservers(Property::ChangeToken);
    updateCurrentVersion();
    const std::weak_ptr<HXDocument> weak = weak_from_this();
    HXDispatchQueue::globalQueue(HXDispatchQueue::Priority::Background)->async([weak] {
        if (const auto self = weak.lock())
            self->updateConflictVersions();
    });
    {
        const std::lock_guard lock(m_mutex);
        m_documentIsOpen = true;
        m_lastFileOpenDate = QDateTime::currentDateTimeUtc();
        m_deletionPending = false;
    }
    notifyObservers(Property::DocumentIsOpen);
    if (!isReadOnly())
        startPresenting();
    return true;
}

void HXDocument::startPresenting() {
    std::shared_ptr<HXFilePresentationProxy> presenter;
    {
        const std::lock_guard lock(m_mutex);
        if (m_presenter)
            return;
        m_presenter = HXFilePresentationProxy::proxyWithOwner(
            std::static_pointer_cast<HXFilePresenter>(shared_from_this()), m_fileURL,
            QStringLiteral("com.quaytor.velmora3.presenter.%1").arg(addressText(this)));
        presenter = m_presenter;
    }
    presenter->beginPresentation();
}

void HXDocument::stopPresenting() {
    std::shared_ptr<HXFilePresentationProxy> presenter;
    {
        const std::lock_guard lock(m_mutex);
        presenter = std::move(m_presenter);
        m_presenter = nullptr;
    }
    if (presenter)
        presenter->endPresentation();
}

HXFilePresenterRef HXDocument::presenter() const {
    const std::lock_guard lock(m_mutex);
    return m_presenter;
}

std::shared_ptr<HXDispatchQueue> HXDocument::presentedItemOperationQueue() const {
    const std::lock_guard lock(m_mutex);
    return m_presenter ? m_presenter->presentedItemOperationQueue() : m_interactionQueue;
}

void HXDocument::updateCurrentVersion() {
    const QString url = fileURL();
    HXFileVersion version{url, {}};
    // The current state dates from the last version kept, so autosaves keep one version for
    // each interval of editing; a file without versions counts from its creation.
    const QList<HXFileVersion> kept = HXVersionStore::versionsOfItem(url);
    version.modificationDate =
        kept.isEmpty() ? HXFileSystem::creationDate(url) : kept.first().modificationDate;
    const std::lock_guard lock(m_mutex);
    m_currentVersion = version;
}

void HXDocument::updateConflictVersions() {
    const QList<HXFileVersion> found = HXVersionStore::unresolvedConflictVersionsOfItem(fileURL());
    const std::optional<QList<HXFileVersion>> value =
        found.isEmpty() ? std::nullopt : std::optional<QList<HXFileVersion>>(found);
    setField(m_conflictVersions, value, Property::ConflictVersions);
}

// --- Saving ---------------------------------------------------------------------------------

void HXDocument::saveWithCompletionHandler(CompletionHandler handler) {
    const QString url = URLForSaveOperation(SaveOperationSave, false);
    HX_ASSERT(!url.isEmpty(), u"Explicit save without valid URL forbidden.");
    saveToURL(url, SaveOperationSave, std::move(handler));
}

void HXDocument::autosaveWithCompletionHandler(CompletionHandler handler) {
    const QString url = URLForSaveOperation(SaveOperationAutosave, false);
    if (url.isEmpty()) {
        complete(handler, false);
        return;
    }
    saveToURL(url, SaveOperationAutosave, std::move(handler));
}

void HXDocument::saveToURL(const QString &url, int saveOperation, CompletionHandler handler) {
    const auto self = shared_from_this();
    m_interactionQueue->async([self, url, saveOperation, handler] {
        HXError error;
        const bool success = self->performSave(url, saveOperation, &error);
        if (!success) {
            self->notifyError(error, saveOperation);
            HXApplicationLog::sharedInstance()->logError(u"Error writing file: %@ Path: %@",
                                                         error.localizedDescription(), url);
        }
        complete(handler, success);
    });
}

bool HXDocument::saveToURL(const QString &url, int saveOperation, HXError *error) {
    HXError failure;
    bool success = false;
    if (HXDispatchQueue::current() == m_interactionQueue.get())
        success = performSave(url, saveOperation, &failure);
    else
        m_interactionQueue->sync([&] { success = performSave(url, saveOperation, &failure); });
    if (!success) {
        if (error)
            *error = failure;
        else
            notifyError(failure, saveOperation);
    }
    return success;
}

bool HXDocument::performSave(const QString &target, int saveOperation, HXError *error) {
    const QString url = HXFileCoordinator::standardizedPath(target);
    const QString current = fileURL();
    HXFileCoordinator coordinator(presenter());
    bool success = false;
    bool coordinated = false;
    const bool moves =
        (saveOperation == SaveOperationSave || saveOperation == SaveOperationAutosave) &&
        !current.isEmpty() && url != HXFileCoordinator::standardizedPath(current) &&
        HXFileIdentity::ofPath(current).exists;
    if (moves) {
        // The file takes the name it should have now.
        coordinated = coordinator.coordinateWritingItemAtURL(
            current, HXFileCoordinator::WritingForMoving, url,
            HXFileCoordinator::WritingForReplacing, error,
            [&](const QString &from, const QString &to) {
                if (deletionPending()) {
                    HXSetError(error, genericError(deletionPendingText));
                    return;
                }
                // A plain rename, so that a change of case alone works.
                if (!HXFileSystem::moveItem(from, to, false, error))
                    return;
                HXFileSystem::syncParentFolder(to);
                coordinator.itemAtURL(from, to);
                setFileURL(to);
                if (deletionPending()) {
                    HXSetError(error, genericError(deletionPendingText));
                    return;
                }
                success = coordinatedSaveToURL(to, saveOperation, error);
                if (success)
                    didChangeFileURLBySaving();
            });
    } else {
        coordinated = coordinator.coordinateWritingItemAtURL(
            url, saveOperation == SaveOperationSaveTo ? 0 : HXFileCoordinator::WritingForReplacing,
            error, [&](const QString &path) {
                if (deletionPending()) {
                    HXSetError(error, genericError(deletionPendingText));
                    return;
                }
                success = coordinatedSaveToURL(path, saveOperation, error);
            });
    }
    success = coordinated && success;
    {
        const std::lock_guard lock(m_mutex);
        m_lastWriteError =
            success ? std::nullopt : std::optional<HXError>(error ? *error : HXError());
    }
    return success;
}

bool HXDocument::coordinatedSaveToURL(const QString &url, int saveOperation, HXError *error) {
    const QString notedToken = changeToken();
    const QString previous = fileURL();
    // A package saved in place keeps its creation date by itself; one saved elsewhere takes it.
    const QDateTime created =
        previous.isEmpty() || HXFileCoordinator::standardizedPath(previous) == url
            ? QDateTime()
            : HXFileSystem::creationDate(previous);
    if (!writeSafelyToURL(url, saveOperation, error)) {
        breakUndoCoalescing();
        return false;
    }
    if (created.isValid())
        HXFileSystem::setCreationDate(url, created);
    if (saveOperation == SaveOperationSaveTo)
        return true;

    {
        const std::lock_guard lock(m_mutex);
        m_documentIsOpen = true;
    }
    setFileURL(url);
    updateChangeCount(ChangeCleared);
    breakUndoCoalescing();
    stampFileDate(url);
    const QString token = changeTokenForItemAtURL(url);
    bool changedMeanwhile = false;
    {
        const std::lock_guard lock(m_mutex);
        m_fileModificationDate = HXFileSystem::modificationDate(url);
        m_fileChangeToken = token;
        if (m_changeDate.isNull() || m_changeToken == notedToken)
            m_changeToken = token; // memory and file agree
        else
            changedMeanwhile = true;
    }
    notifyObservers(Property::FileModificationDate);
    notifyObservers(Property::ChangeToken);
    // An edit came in while the file was written: the document stays dirty.
    if (changedMeanwhile)
        updateChangeCount(ChangeDiscardable);
    updateCurrentVersion();
    if (!isReadOnly())
        startPresenting();
    return true;
}

void HXDocument::stampFileDate(const QString &url) {
    // The token is built from the file's date: two saves must leave two dates. Where the file
    // system keeps whole seconds only, that takes a wait for the next second.
    const QDateTime before = fileModificationDate();
    const FileTime old = modificationTimeOf(url);
    HXFileSystem::setModificationDate(url, QDateTime::currentDateTimeUtc());
    FileTime stamped = modificationTimeOf(url);
    const qint64 previous = before.isValid() ? before.toMSecsSinceEpoch() * 1000000 : -1;
    if (stamped.valid && (stamped.nanoseconds / 1000000 <= previous / 1000000 ||
                          (old.valid && stamped.nanoseconds == old.nanoseconds &&
                           stamped.nanoseconds % 1000000000 == 0))) {
        const qint64 now = QDateTime::currentMSecsSinceEpoch();
        QThread::msleep(quint64(1000 - now % 1000));
        HXFileSystem::setModificationDate(url, QDateTime::currentDateTimeUtc());
    }
}

bool HXDocument::writeSafelyToURL(const QString &url, int saveOperation, HXError *error) {
    QString backup;
    const QString original = fileURL();
    if (!writeToURL(url, saveOperation, original, &backup, error)) {
        if (!backup.isEmpty())
            HXFileSystem::removeItem(backup, nullptr);
        return false;
    }
    if (backup.isEmpty())
        return true;
    const double interval = autoversioningInterval();
    QDateTime changed;
    QDateTime fileDate;
    std::optional<HXFileVersion> version;
    {
        const std::lock_guard lock(m_mutex);
        changed = m_changeDate;
        fileDate = m_fileModificationDate;
        version = m_currentVersion;
    }
    bool keep = false;
    switch (saveOperation) {
    case SaveOperationSave:
        keep = changed.isValid() &&
               (!fileDate.isValid() || changed.toSecsSinceEpoch() > fileDate.toSecsSinceEpoch());
        break;
    case SaveOperationAutosave:
        keep = interval > 0 && changed.isValid() && version &&
               version->modificationDate.isValid() &&
               version->modificationDate.msecsTo(changed) > qint64(interval * 1000);
        break;
    default:
        keep = interval > 0;
        break;
    }
    if (keep) {
        HXFileSystem::syncParentFolder(url);
        HXError failure;
        const QDateTime date = fileDate.isValid() ? fileDate : QDateTime::currentDateTimeUtc();
        if (!HXVersionStore::addVersionByMovingItem(url, backup, date, &failure)) {
            HXApplicationLog::sharedInstance()->logNotice(
                u"Can't store version of item '%@' using temporary URL %@: %@", url, backup,
                failure.localizedDescription());
        }
    }
    // The exchange is made durable and the old state let go after the save has answered: until
    // the folder is synced, the old package stays whole under its hidden name, and a crash
    // before leaves it for the next save to clear.
    if (HXFileIdentity::ofPath(backup).exists) {
        HXDispatchQueue::globalQueue(HXDispatchQueue::Priority::Background)->async([url, backup] {
            HXFileSystem::syncParentFolder(url);
            HXFileSystem::removeItem(backup, nullptr);
        });
    }
    return true;
}

// --- Errors ---------------------------------------------------------------------------------

void HXDocument::notifyError(const HXError &error, int saveOperation) {
    {
        const std::lock_guard lock(m_mutex);
        const QDateTime now = QDateTime::currentDateTimeUtc();
        if (m_lastWriteErrorDate == m_changeDate && m_lastWriteError &&
            *m_lastWriteError == error && m_lastVisibleErrorNotificationDate.isValid() &&
            m_lastVisibleErrorNotificationDate.msecsTo(now) < 60000 &&
            saveOperation == SaveOperationAutosave)
            return;
        m_lastVisibleErrorNotificationDate = now;
        m_lastWriteErrorDate = m_changeDate;
        m_lastWriteError = error;
    }
    const std::weak_ptr<HXDocument> weak = weak_from_this();
    HXDispatchQueue::globalQueue()->async([weak, error] {
        if (const auto self = weak.lock()) {
            HXNotificationCenter::defaultCenter()->post(
                unhandledSaveErrorNotification, self.get(),
                {{QStringLiteral("error"), QVariant::fromValue(error)}});
        }
    });
}

// --- Closing, deleting, reverting ------------------------------------------------------------

void HXDocument::close() {
    stopPresenting();
    const std::weak_ptr<HXDocument> weak = weak_from_this();
    m_autosaveQueue->async([weak] {
        if (const auto self = weak.lock())
            self->unsetAutosaveToken();
    });
    {
        const std::lock_guard lock(m_mutex);
        m_documentIsOpen = false;
        m_changeCount = 0;
    }
    notifyObservers(Property::DocumentIsOpen);
}

void HXDocument::closeWithCompletionHandler(CompletionHandler handler) {
    const auto self = shared_from_this();
    m_interactionQueue->async([self, handler] {
        if (!self->documentIsOpen()) {
            complete(handler, true);
            return;
        }
        bool success = true;
        if (self->hasUnsavedChanges()) {
            const QString url = self->URLForSaveOperation(SaveOperationAutosave, false);
            HXError error;
            success = !url.isEmpty() && self->performSave(url, SaveOperationAutosave, &error);
            if (!success)
                self->notifyError(error, SaveOperationAutosave);
        }
        self->close();
        complete(handler, success);
    });
}

void HXDocument::clearFileState() {
    {
        const std::lock_guard lock(m_mutex);
        m_fileModificationDate = QDateTime();
        m_changeDate = QDateTime();
        m_changeToken.clear();
        m_fileChangeToken.clear();
    }
    notifyObservers(Property::FileModificationDate);
    notifyObservers(Property::ChangeDate);
    notifyObservers(Property::ChangeToken);
}

void HXDocument::deleteWithCompletionHandler(CompletionHandler handler) {
    const auto self = shared_from_this();
    m_interactionQueue->async([self, handler] {
        HXError error;
        bool success = false;
        HXFileCoordinator coordinator(self->presenter());
        const bool coordinated = coordinator.coordinateWritingItemAtURL(
            self->fileURL(), HXFileCoordinator::WritingForDeleting, &error,
            [&](const QString &path) {
                if (self->deletionPending()) {
                    error = genericError(deletionPendingText);
                    return;
                }
                success =
                    HXFileSystem::removeItem(path, &error) || !HXFileIdentity::ofPath(path).exists;
                if (success)
                    HXFileSystem::syncParentFolder(path);
            });
        success = coordinated && success;
        if (success) {
            self->close();
            self->clearFileState();
        } else {
            HXApplicationLog::sharedInstance()->logError(u"Error deleting file: %@",
                                                         error.localizedDescription());
        }
        complete(handler, success);
    });
}

void HXDocument::revertToContentsOfURL(const QString &url, CompletionHandler handler) {
    {
        const std::lock_guard lock(m_mutex);
        if (!m_revertURL.isEmpty()) {
            if (m_revertURL == url)
                return;
            HX_ASSERT(false,
                      u"Document is currently being reverted to URL %@, but second request to "
                      u"revert to %@ was issued!",
                      m_revertURL, url);
        }
        m_revertURL = url;
    }
    disableEditing();
    const auto self = shared_from_this();
    m_interactionQueue->async([self, url, handler] {
        HXError error;
        bool success = false;
        HXFileCoordinator coordinator(self->presenter());
        const bool coordinated =
            coordinator.coordinateReadingItemAtURL(url, 0, &error, [&](const QString &path) {
                self->setFileURL(path);
                success = self->coordinatedOpenFromURL(path, &error);
            });
        success = coordinated && success;
        if (success) {
            self->enableEditing();
        } else {
            HXApplicationLog::sharedInstance()->logError(u"Error reverting to file %@: %@", url,
                                                         error.localizedDescription());
        }
        {
            const std::lock_guard lock(self->m_mutex);
            self->m_revertURL.clear();
            self->m_changeDate = self->m_fileModificationDate;
        }
        self->notifyObservers(Property::ChangeDate);
        complete(handler, success);
    });
}

bool HXDocument::waitForCompletion(const std::function<void(CompletionHandler)> &step) {
    std::binary_semaphore done(0);
    bool result = false;
    step([&](bool success) {
        result = success;
        done.release();
    });
    // The open runs on the pool too: a pool thread waiting for it must not hold its place.
    HXDispatchQueue::waitReleasingPoolThread([&] { done.acquire(); });
    return result;
}

void HXDocument::waitForInteractionQueue() {
    if (HXDispatchQueue::current() != m_interactionQueue.get())
        m_interactionQueue->sync([] {});
}

// --- The presenter's callbacks ----------------------------------------------------------------

void HXDocument::relinquishPresentedItemToReader(Relinquisher reader) {
    disableEditing();
    const std::weak_ptr<HXDocument> weak = weak_from_this();
    reader([weak] {
        if (const auto self = weak.lock())
            self->enableEditing();
    });
}

void HXDocument::relinquishPresentedItemToWriter(Relinquisher writer) {
    disableEditing();
    const std::weak_ptr<HXDocument> weak = weak_from_this();
    writer([weak] {
        if (const auto self = weak.lock())
            self->enableEditing();
    });
}

void HXDocument::savePresentedItemChangesWithCompletionHandler(
    HXFilePresenter::CompletionHandler handler) {
    if (!hasUnsavedChanges()) {
        handler(nullptr);
        return;
    }
    autosaveWithCompletionHandler([handler](bool success) {
        if (success) {
            handler(nullptr);
        } else {
            const HXError error = genericError(QStringLiteral("The document could not be saved."));
            handler(&error);
        }
    });
}

void HXDocument::accommodatePresentedItemDeletionWithCompletionHandler(
    HXFilePresenter::CompletionHandler handler) {
    {
        const std::lock_guard lock(m_mutex);
        m_deletionPending = true;
    }
    handler(nullptr);
    const std::weak_ptr<HXDocument> weak = weak_from_this();
    m_interactionQueue->async([weak] {
        if (const auto self = weak.lock())
            self->accommodateDeletion();
    });
}

void HXDocument::accommodateDeletion() {
    {
        const std::lock_guard lock(m_mutex);
        m_deletionPending = true;
    }
    close();
    clearFileState();
}

void HXDocument::presentedItemDidMoveToURL(const QString &url) {
    setFileURL(HXFileSystem::exactPath(url));
    if (changeToken() != changeTokenForItemAtURL(url))
        presentedItemDidChange();
    didMoveToURL(url);
}

void HXDocument::presentedItemDidChange() {
    const std::weak_ptr<HXDocument> weak = weak_from_this();
    m_interactionQueue->async([weak] {
        if (const auto self = weak.lock())
            self->reactToChange();
    });
}

void HXDocument::reactToChange() {
    const QString url = fileURL();
    if (url.isEmpty())
        return;
    HXFileCoordinator coordinator(presenter());
    HXError error;
    coordinator.coordinateReadingItemAtURL(url, 0, &error, [&](const QString &path) {
        if (!HXFileIdentity::ofPath(path).exists) {
            accommodateDeletion();
            return;
        }
        if (!documentIsOpen())
            return;
        const QString token = changeTokenForItemAtURL(path);
        if (fileChangeToken() == token &&
            HXFileCoordinator::standardizedPath(fileURL()) == HXFileSystem::exactPath(path))
            return; // our own write
        // The disk wins; what was typed and not saved is kept as a version first.
        if (hasUnsavedChanges())
            keepUnsavedStateAsVersion();
        disableEditing();
        HXError failure;
        if (!coordinatedOpenFromURL(path, &failure)) {
            HXApplicationLog::sharedInstance()->logError(u"Error reverting to file %@: %@", path,
                                                         failure.localizedDescription());
        }
        enableEditing();
        {
            const std::lock_guard lock(m_mutex);
            m_changeDate = m_fileModificationDate;
        }
        notifyObservers(Property::ChangeDate);
    });
}

void HXDocument::keepUnsavedStateAsVersion() {
    HXError error;
    const HXFileWrapperRef content = fileWrapperWithError(&error);
    const QDateTime date = changeDate().isValid() ? changeDate() : QDateTime::currentDateTimeUtc();
    if (!content || !HXVersionStore::addVersionWithFileWrapper(fileURL(), *content, date, &error)) {
        HXApplicationLog::sharedInstance()->logError(
            u"Can't keep the unsaved state of '%@' as a version: %@", fileURL(),
            error.localizedDescription());
    }
}
