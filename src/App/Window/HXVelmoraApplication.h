#pragma once

#include "AppCore/HXApplicationDelegate.h"

#include <QPointer>
#include <QSize>

class QMessageBox;

// The window application's start and end: windows are main windows; the windows of the last run
// come back where they were, with their container, sheet, selection and scroll position; the
// alert about running operations is a real dialog; Alt held at the start asks for the extensive
// log. For a screenshot run it opens a chosen (or the introduction's first) sheet, saves a picture
// of the window and quits.
//
// One per process, made by the main function; main thread.
class HXVelmoraApplication : public HXApplicationDelegate {
    Q_OBJECT

public:
    // A picture of the main window instead of a working session.
    struct Screenshot {
        QString file;
        // The sheet's package, absolute or inside the library; empty for the first sheet.
        QString sheet;
        QSize size{1280, 800};
    };

    explicit HXVelmoraApplication(QObject *parent = nullptr);
    ~HXVelmoraApplication() override;

    void setScreenshot(const Screenshot &screenshot);
    // The exit status of a screenshot run, once it is over.
    int screenshotStatus() const { return m_screenshotStatus; }

    // The user default that keeps the windows of the last run.
    static inline const QString windowsKey = QStringLiteral("windows.main");
    void saveWindowStates();

protected:
    void presentPendingOperationsAlert(const QString &title, const QString &text) override;
    void dismissPendingOperationsAlert() override;
    bool extensiveLoggingRequested() const override;
    void terminate() override;
    void restoreWindows() override;

private:
    void takeScreenshotWhenReady(int attemptsLeft);
    bool takeScreenshot();

    std::optional<Screenshot> m_screenshot;
    int m_screenshotStatus = 0;
    QPointer<QMessageBox> m_pendingOperationsAlert;
};
