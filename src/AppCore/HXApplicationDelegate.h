#pragma once

#include "Model/Persistence/HXStorageController.h"

#include <QObject>
#include <QStringList>

#include <functional>
#include <memory>

class HXSingleInstance;
class HXWindowController;

// The spine of the process: what happens between the start and a library open in a window, how
// late arrivals (files to open, menu commands) wait for that moment, and how the process ends.
//
// Two one-shot gates, launched and restored, and the storage controller's loaded gate join the
// parts that run at their own pace. The launch gate opens once the library is loaded, the
// windows are restored and, on a first launch, the assistant is through; files given before
// then wait for it. Quitting waits while storage operations run: after a second it asks the
// user, who may let them finish or stay.
//
// One per process, made by the application (`sharedInstance` never makes one); the window
// application derives from it to show the assistant and the alerts. Main thread.
class HXApplicationDelegate : public QObject, public HXStorageControllerDelegate {
    Q_OBJECT
    Q_PROPERTY(bool finishedLaunching READ finishedLaunching NOTIFY finishedLaunchingChanged)
    Q_PROPERTY(bool finishedRestoring READ finishedRestoring NOTIFY finishedRestoringChanged)

public:
    using Handler = std::function<void()>;
    // Gets file URLs and answers those it did not take.
    using FileOpenHandler = std::function<QStringList(const QStringList &urls)>;
    enum class TerminateReply { Cancel, Now, Later };

    static inline const QString firstLaunchSetupVersionKey =
        QStringLiteral("firstLaunchSetupVersion");

    explicit HXApplicationDelegate(QObject *parent = nullptr);
    ~HXApplicationDelegate() override;
    static HXApplicationDelegate *sharedInstance();

    static void registerFileOpenHandler(FileOpenHandler handler);
    // For tests: the list as it was at the start.
    static void removeAllFileOpenHandlers();

    // --- Gates --------------------------------------------------------------------------------
    bool finishedLaunching() const { return m_finishedLaunching; }
    bool finishedRestoring() const { return m_finishedRestoring; }
    void waitUntilLaunched(Handler handler);
    void signalLaunchHandlers();
    void waitUntilRestored(Handler handler);
    void signalRestoreHandlers();

    // --- The start ----------------------------------------------------------------------------
    enum class StartResult { Launched, HandedOver, HandOverFailed };
    // The process's own start: takes the single-instance lock, or hands the files to the process
    // that holds it (this one then ends). Otherwise launches, with the files queued to be opened
    // once the launch is through.
    StartResult startWithFiles(const QStringList &files, const QString &instanceFolder = QString());
    void applicationWillFinishLaunching();
    // What the crash reporter's callback would start: the storage controller, then the
    // first-launch assistant, then the gates.
    void showMainApplicationWindow();
    void applicationDidFinishRestoringWindows();
    void openFiles(const QStringList &paths);
    bool applicationOpenUntitledFile();

    // --- The end ------------------------------------------------------------------------------
    TerminateReply applicationShouldTerminate();
    // The answer to a later reply: true ends the process.
    void replyToApplicationShouldTerminate(bool terminate);
    // Asks to quit (the Quit command, SIGTERM): ends now, or when the operations are through.
    void requestTermination();
    // The user dismissed the alert about running operations: the process stays.
    void pendingOperationsAlertDismissed();
    // Listens for SIGTERM and SIGINT and turns them into a request to quit.
    void installTerminationSignalHandlers();

    // --- Commands -----------------------------------------------------------------------------
    // Whether a command of the application menu can run now; before the launch only the help
    // commands can.
    bool validateCommand(const QString &command) const;
    void restoreIntroduction();

    void storageControllerDidReceiveWriteError(const std::shared_ptr<HXSheet> &sheet,
                                               const HXError &error) override;

signals:
    void finishedLaunchingChanged();
    void finishedRestoringChanged();
    // A later reply to a request to quit: whether the process ends.
    void terminationReplied(bool terminate);
    // The process is about to end; the platform's will-terminate observers have run.
    void willTerminate();

protected:
    // The first-launch assistant. This one prepares the main window (copying the introduction
    // meanwhile) and finishes at once; the window application shows its pages first. Either way
    // `finishFirstLaunch` ends it.
    virtual void runFirstLaunchAssistant(Handler completion);
    void finishFirstLaunch(const std::shared_ptr<HXWindowController> &prepared, Handler completion);
    // The alert about running operations, and its closing when they end first.
    virtual void presentPendingOperationsAlert(const QString &title, const QString &text);
    virtual void dismissPendingOperationsAlert() {}
    // Whether the key that asks for the extensive log (Alt) is down at the start.
    virtual bool extensiveLoggingRequested() const { return false; }
    // Ends the process: the will-terminate observers run, then the event loop ends.
    virtual void terminate();
    // Restores the windows of the last run; then `applicationDidFinishRestoringWindows` follows.
    // Here there are none, so it follows at once, from the event loop.
    virtual void restoreWindows();

private:
    void runFirstLaunchAssistantIfNeeded(Handler completion);
    void checkPendingOperations();
    void stopObservingOperations();

    QList<Handler> m_launchHandlers;
    QList<Handler> m_restoreHandlers;
    bool m_finishedLaunching = false;
    bool m_finishedRestoring = false;
    bool m_terminating = false;
    QMetaObject::Connection m_operationsObservation;
    std::unique_ptr<HXSingleInstance> m_instance;
};
