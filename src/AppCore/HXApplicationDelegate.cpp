#include "AppCore/HXApplicationDelegate.h"

#include "AppCore/HXAppleEventManager.h"
#include "AppCore/HXApplicationState.h"
#include "AppCore/HXSingleInstance.h"
#include "AppCore/HXWindowController.h"
#include "Model/Operations/HXStorageOperationQueue.h"
#include "Utilities/HXApplicationLog.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXDispatchQueue.h"
#include "Utilities/HXLocalizedString.h"
#include "Utilities/HXNotificationCenter.h"
#include "Utilities/HXUserDefaults.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QSocketNotifier>
#include <QTimer>

#include <csignal>
#include <unistd.h>

namespace {

HXApplicationDelegate *sharedDelegate = nullptr;

QList<HXApplicationDelegate::FileOpenHandler> &fileOpenHandlers() {
    static QList<HXApplicationDelegate::FileOpenHandler> handlers;
    return handlers;
}

QString localized(const QString &key) {
    return HXLocalizedString(key, QStringLiteral("HXApplicationDelegate"));
}

std::shared_ptr<HXWindowController> mainOrNewWindow() {
    HXApplicationState &state = HXApplicationState::sharedInstance();
    if (auto window = state.mainWindow())
        return window;
    return state.newWindowUsingBlock(nullptr);
}

// The commands that work before the launch is through.
const QStringList helpCommands{QStringLiteral("openFAQPage"), QStringLiteral("sendFeedback"),
                               QStringLiteral("contactSupport")};

} // namespace

HXApplicationDelegate::HXApplicationDelegate(QObject *parent)
    : QObject(parent) {
    sharedDelegate = this;
}

HXApplicationDelegate::~HXApplicationDelegate() {
    stopObservingOperations();
    if (sharedDelegate == this)
        sharedDelegate = nullptr;
}

HXApplicationDelegate *HXApplicationDelegate::sharedInstance() {
    return sharedDelegate;
}

void HXApplicationDelegate::registerFileOpenHandler(FileOpenHandler handler) {
    fileOpenHandlers().append(std::move(handler));
}

void HXApplicationDelegate::removeAllFileOpenHandlers() {
    fileOpenHandlers().clear();
}

// --- Gates ------------------------------------------------------------------------------------

void HXApplicationDelegate::waitUntilLaunched(Handler handler) {
    HX_ASSERT(handler != nullptr, u"handler != nil");
    if (m_finishedLaunching)
        handler();
    else
        m_launchHandlers.append(std::move(handler));
}

void HXApplicationDelegate::signalLaunchHandlers() {
    // Set first, so that a handler that waits again runs at once instead of joining the list.
    m_finishedLaunching = true;
    emit finishedLaunchingChanged();
    for (const Handler &handler : std::exchange(m_launchHandlers, {}))
        handler();
}

void HXApplicationDelegate::waitUntilRestored(Handler handler) {
    HX_ASSERT(handler != nullptr, u"handler != nil");
    if (m_finishedRestoring)
        handler();
    else
        m_restoreHandlers.append(std::move(handler));
}

void HXApplicationDelegate::signalRestoreHandlers() {
    m_finishedRestoring = true;
    emit finishedRestoringChanged();
    for (const Handler &handler : std::exchange(m_restoreHandlers, {}))
        handler();
}

// --- The start --------------------------------------------------------------------------------

HXApplicationDelegate::StartResult
HXApplicationDelegate::startWithFiles(const QStringList &files, const QString &instanceFolder) {
    m_instance = std::make_unique<HXSingleInstance>(instanceFolder);
    if (!m_instance->claim()) {
        const bool handed = m_instance->handOver(files);
        m_instance.reset();
        return handed ? StartResult::HandedOver : StartResult::HandOverFailed;
    }
    HXAppleEventManager &events = HXAppleEventManager::sharedAppleEventManager();
    events.setEventHandler(
        [this](const QVariantMap &event, QVariantMap &) {
            openFiles(event.value(HXAppleEventManager::directObjectKey).toStringList());
        },
        HXAppleEventManager::coreEventClass, HXAppleEventManager::openDocumentsEventID);
    events.setEventHandler([this](const QVariantMap &, QVariantMap &) { applicationOpenUntitledFile(); },
                           HXAppleEventManager::coreEventClass,
                           HXAppleEventManager::reopenApplicationEventID);
    const auto deliver = [](const QStringList &paths) {
        QVariantMap reply;
        const quint32 id = paths.isEmpty() ? HXAppleEventManager::reopenApplicationEventID
                                           : HXAppleEventManager::openDocumentsEventID;
        HXAppleEventManager::sharedAppleEventManager().handleAppleEvent(
            HXAppleEventManager::eventWithClass(
                HXAppleEventManager::coreEventClass, id,
                {{HXAppleEventManager::directObjectKey, paths}}),
            reply);
    };
    connect(m_instance.get(), &HXSingleInstance::filesReceived, this, deliver);
    applicationWillFinishLaunching();
    if (!files.isEmpty()) {
        QStringList absolute;
        for (const QString &file : files)
            absolute.append(QFileInfo(file).absoluteFilePath());
        deliver(absolute);
    }
    restoreWindows();
    return StartResult::Launched;
}

void HXApplicationDelegate::applicationWillFinishLaunching() {
    HXApplicationLog::sharedInstance()->setExtensiveLogging(extensiveLoggingRequested());
    // From here on, requests to open files collect until the library is loaded.
    HXAppleEventManager::sharedAppleEventManager().suspend();
    // No crash reporter: what its callback starts follows at once.
    showMainApplicationWindow();
}

void HXApplicationDelegate::showMainApplicationWindow() {
    const auto controller = HXStorageController::sharedInstance();
    controller->setDelegate(this);
    runFirstLaunchAssistantIfNeeded([this, controller] {
        controller->waitUntilLoaded([this] {
            HXAppleEventManager::sharedAppleEventManager().resume();
            waitUntilRestored([this] { signalLaunchHandlers(); });
        });
    });
}

void HXApplicationDelegate::restoreWindows() {
    QMetaObject::invokeMethod(this, &HXApplicationDelegate::applicationDidFinishRestoringWindows,
                              Qt::QueuedConnection);
}

void HXApplicationDelegate::runFirstLaunchAssistantIfNeeded(Handler completion) {
    HX_ASSERT(completion != nullptr, u"completionHandler != nil");
    if (HXUserDefaults::standardUserDefaults().integerForKey(firstLaunchSetupVersionKey) != 0) {
        completion();
        return;
    }
    HXStorageController::sharedInstance()->waitUntilLoaded(
        [this, completion] { runFirstLaunchAssistant(completion); });
}

void HXApplicationDelegate::runFirstLaunchAssistant(Handler completion) {
    // The window is made behind the assistant, and the introduction copied into the library
    // while the user reads it.
    const auto prepared = HXApplicationState::sharedInstance().newWindowUsingBlock(nullptr);
    prepared->restoreIntroductionIfNeeded(false);
    finishFirstLaunch(prepared, std::move(completion));
}

void HXApplicationDelegate::finishFirstLaunch(const std::shared_ptr<HXWindowController> &prepared,
                                              Handler completion) {
    if (prepared)
        HXApplicationState::sharedInstance().setMainWindow(prepared);
    HXUserDefaults &defaults = HXUserDefaults::standardUserDefaults();
    defaults.setObject(1, firstLaunchSetupVersionKey);
    defaults.synchronize();
    HXDispatchQueue::mainQueue()->async(std::move(completion));
}

void HXApplicationDelegate::applicationDidFinishRestoringWindows() {
    signalRestoreHandlers();
    waitUntilLaunched([] {
        HXApplicationState &state = HXApplicationState::sharedInstance();
        if (state.windows().isEmpty())
            state.newWindowUsingBlock(nullptr);
        state.mainWindow()->restoreIntroductionIfNeeded(false);
    });
}

void HXApplicationDelegate::openFiles(const QStringList &paths) {
    waitUntilLaunched([paths] {
        QStringList urls;
        for (const QString &path : paths)
            urls.append(QFileInfo(path).absoluteFilePath());
        for (const FileOpenHandler &handler : fileOpenHandlers()) {
            if (urls.isEmpty())
                break;
            urls = handler(urls);
        }
        if (urls.isEmpty())
            return;
        mainOrNewWindow()->openFileURLs(urls, [](const HXWindowController::Items &items) {
            if (const auto window = HXApplicationState::sharedInstance().mainWindow())
                window->revealContainersAndSheetsHandles(items);
        });
    });
}

bool HXApplicationDelegate::applicationOpenUntitledFile() {
    waitUntilLaunched([] {
        if (HXApplicationState::sharedInstance().windows().isEmpty())
            HXApplicationState::sharedInstance().newWindowUsingBlock(nullptr);
    });
    return true;
}

// --- The end ------------------------------------------------------------------------------------

HXApplicationDelegate::TerminateReply HXApplicationDelegate::applicationShouldTerminate() {
    if (HXStorageOperationQueue::sharedInstance()->operations().isEmpty())
        return TerminateReply::Now;
    QTimer::singleShot(1000, this, &HXApplicationDelegate::checkPendingOperations);
    return TerminateReply::Later;
}

void HXApplicationDelegate::checkPendingOperations() {
    HXStorageOperationQueue *queue = HXStorageOperationQueue::sharedInstance();
    if (queue->operations().isEmpty()) {
        replyToApplicationShouldTerminate(true);
        return;
    }
    stopObservingOperations();
    // The queue tells of changes on the thread that made them; the check runs here.
    m_operationsObservation = connect(
        queue, &HXStorageOperationQueue::operationsChanged, this,
        [this, queue] {
            if (!queue->operations().isEmpty())
                return;
            stopObservingOperations();
            dismissPendingOperationsAlert();
            replyToApplicationShouldTerminate(true);
        },
        Qt::QueuedConnection);
    presentPendingOperationsAlert(localized(QStringLiteral("pendingOperationsAlertTitle")),
                                  localized(QStringLiteral("pendingOperationsAlertText")));
    // Emptied before the observation began.
    if (queue->operations().isEmpty() && m_operationsObservation) {
        stopObservingOperations();
        dismissPendingOperationsAlert();
        replyToApplicationShouldTerminate(true);
    }
}

void HXApplicationDelegate::stopObservingOperations() {
    if (m_operationsObservation)
        disconnect(m_operationsObservation);
    m_operationsObservation = {};
}

void HXApplicationDelegate::presentPendingOperationsAlert(const QString &title,
                                                          const QString &text) {
    HXApplicationLog::sharedInstance()->logError(u"%@ %@", title, text);
}

void HXApplicationDelegate::pendingOperationsAlertDismissed() {
    if (!m_operationsObservation)
        return;
    stopObservingOperations();
    replyToApplicationShouldTerminate(false);
}

void HXApplicationDelegate::replyToApplicationShouldTerminate(bool terminate) {
    emit terminationReplied(terminate);
    if (terminate)
        this->terminate();
}

void HXApplicationDelegate::requestTermination() {
    if (m_terminating || m_operationsObservation)
        return;
    if (applicationShouldTerminate() == TerminateReply::Now)
        terminate();
}

void HXApplicationDelegate::terminate() {
    if (m_terminating)
        return;
    m_terminating = true;
    HXNotificationCenter::defaultCenter()->post(HXApplicationWillTerminateNotification);
    emit willTerminate();
    QCoreApplication::quit();
}

void HXApplicationDelegate::installTerminationSignalHandlers() {
    static int pipe[2] = {-1, -1};
    if (pipe[0] >= 0 || ::pipe(pipe) != 0)
        return;
    std::signal(SIGINT, [](int) { (void)!::write(pipe[1], "x", 1); });
    std::signal(SIGTERM, [](int) { (void)!::write(pipe[1], "x", 1); });
    auto *notifier = new QSocketNotifier(pipe[0], QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, [this] {
        char byte;
        (void)!::read(pipe[0], &byte, 1);
        requestTermination();
    });
}

// --- Commands -----------------------------------------------------------------------------------

bool HXApplicationDelegate::validateCommand(const QString &command) const {
    return m_finishedLaunching || helpCommands.contains(command);
}

void HXApplicationDelegate::restoreIntroduction() {
    waitUntilLaunched([] { mainOrNewWindow()->restoreIntroduction(); });
}

void HXApplicationDelegate::storageControllerDidReceiveWriteError(
    const std::shared_ptr<HXSheet> &sheet, const HXError &error) {
    const auto handle = [sheet, error] { mainOrNewWindow()->handleWriteError(sheet, error); };
    if (HXDispatchQueue::isMainThread())
        handle();
    else
        HXDispatchQueue::mainQueue()->async(handle);
}
