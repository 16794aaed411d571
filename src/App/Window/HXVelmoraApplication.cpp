#include "App/Window/HXVelmoraApplication.h"

#include "App/Editor/HXTextView.h"
#include "App/Window/HXMainWindow.h"
#include "App/Window/HXMainWindowController.h"
#include "AppCore/HXApplicationState.h"
#include "Model/Persistence/HXLibrary.h"
#include "Model/Persistence/HXStorageController.h"
#include "Model/StorageTree/HXContainer.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Utilities/HXUserDefaults.h"

#include <QApplication>
#include <QDir>
#include <QFileInfo>
#include <QMessageBox>
#include <QTimer>

#include <cstdio>

namespace {

HXMainWindowController *mainWindowController() {
    return dynamic_cast<HXMainWindowController *>(
        HXApplicationState::sharedInstance().mainWindow().get());
}

// How often, and how many times, a screenshot run looks whether the window is ready.
constexpr int screenshotPoll = 50;
constexpr int screenshotAttempts = 600;

} // namespace

HXVelmoraApplication::HXVelmoraApplication(QObject *parent)
    : HXApplicationDelegate(parent) {
    HXApplicationState::sharedInstance().setWindowFactory(
        [] { return std::make_shared<HXMainWindowController>(); });
}

HXVelmoraApplication::~HXVelmoraApplication() {
    // The windows go while the application object, which widgets need, is still there.
    HXApplicationState &state = HXApplicationState::sharedInstance();
    for (const auto &window : state.windows())
        state.removeWindow(window);
    state.setWindowFactory(nullptr);
}

void HXVelmoraApplication::setScreenshot(const Screenshot &screenshot) {
    m_screenshot = screenshot;
}

// --- Windows of the last run ------------------------------------------------------------------

void HXVelmoraApplication::restoreWindows() {
    // A screenshot shows what it was asked for, not the last session.
    const QVariantList states =
        m_screenshot ? QVariantList()
                     : HXUserDefaults::standardUserDefaults().objectForKey(windowsKey).toList();
    HXStorageController::sharedInstance()->waitUntilLoaded([this, states] {
        for (const QVariant &state : states) {
            HXApplicationState::sharedInstance().newWindowUsingBlock(
                [state](HXWindowController &window) {
                    if (auto *main = dynamic_cast<HXMainWindowController *>(&window))
                        main->window()->restoreWindowState(state.toMap());
                });
        }
        applicationDidFinishRestoringWindows();
        if (m_screenshot)
            waitUntilLaunched([this] { takeScreenshotWhenReady(screenshotAttempts); });
    });
}

void HXVelmoraApplication::saveWindowStates() {
    if (m_screenshot)
        return;
    QVariantList states;
    for (const auto &window : HXApplicationState::sharedInstance().windows())
        if (const auto main = std::dynamic_pointer_cast<HXMainWindowController>(window);
            main && main->window())
            states.append(main->window()->windowState());
    HXUserDefaults &defaults = HXUserDefaults::standardUserDefaults();
    defaults.setObject(states, windowsKey);
    defaults.synchronize();
}

// --- The end ------------------------------------------------------------------------------------

void HXVelmoraApplication::terminate() {
    saveWindowStates();
    HXApplicationDelegate::terminate();
}

void HXVelmoraApplication::presentPendingOperationsAlert(const QString &title,
                                                         const QString &text) {
    HXApplicationDelegate::presentPendingOperationsAlert(title, text);
    if (m_screenshot)
        return;
    auto *box = new QMessageBox(QMessageBox::Information, title, text, QMessageBox::Cancel);
    box->setAttribute(Qt::WA_DeleteOnClose);
    m_pendingOperationsAlert = box;
    connect(box, &QMessageBox::rejected, this, [this] { pendingOperationsAlertDismissed(); });
    box->open();
}

void HXVelmoraApplication::dismissPendingOperationsAlert() {
    if (!m_pendingOperationsAlert)
        return;
    // Closed by the operations ending, not by the user.
    disconnect(m_pendingOperationsAlert, nullptr, this, nullptr);
    m_pendingOperationsAlert->close();
}

bool HXVelmoraApplication::extensiveLoggingRequested() const {
    return QGuiApplication::queryKeyboardModifiers() & Qt::AltModifier;
}

// --- Screenshots --------------------------------------------------------------------------------

void HXVelmoraApplication::takeScreenshotWhenReady(int attemptsLeft) {
    HXMainWindowController *controller = mainWindowController();
    // The built-in content is copied on a first launch before its first sheet is shown.
    const bool ready =
        controller && controller->window() &&
        (controller->hasSettledBundledContent() || attemptsLeft < screenshotAttempts / 2) &&
        controller->containerOperationsCount() == 0;
    if (!ready && attemptsLeft > 0) {
        QTimer::singleShot(screenshotPoll, this,
                           [this, attemptsLeft] { takeScreenshotWhenReady(attemptsLeft - 1); });
        return;
    }
    m_screenshotStatus = takeScreenshot() ? 0 : 1;
    requestTermination();
}

bool HXVelmoraApplication::takeScreenshot() {
    HXMainWindowController *controller = mainWindowController();
    if (!controller || !controller->window()) {
        std::fprintf(stderr, "velmora: no window to take a screenshot of\n");
        return false;
    }
    HXMainWindow *window = controller->window();
    const auto storageController = HXStorageController::sharedInstance();
    std::shared_ptr<HXSheetHandle> handle;
    if (!m_screenshot->sheet.isEmpty()) {
        QString path = m_screenshot->sheet;
        if (QFileInfo(path).isRelative() && !QFileInfo::exists(path))
            path = HXLibrary::localLibraryPath() + u'/' + path;
        handle = std::dynamic_pointer_cast<HXSheetHandle>(
            storageController->storageItemForOpeningURL(QFileInfo(path).absoluteFilePath()));
        if (!handle) {
            std::fprintf(stderr, "velmora: %s: no sheet of the library\n",
                         qPrintable(m_screenshot->sheet));
            return false;
        }
    } else if (!window->openSheetHandle()) {
        // The first sheet of the library as the sidebar orders it.
        if (const auto library = storageController->localLibrary()) {
            const auto main = library->defaultContainerForItemOfKind(HXStorageItemKind::Group);
            const auto sheets =
                main ? main->allSheetHandles() : QList<std::shared_ptr<HXSheetHandle>>();
            if (!sheets.isEmpty())
                handle = sheets.first();
        }
    }
    if (handle)
        window->revealSheet(handle);
    else
        handle = window->openSheetHandle();
    window->resize(m_screenshot->size);
    window->show();
    window->textView()->setFocus();
    // Two rounds: the layouts settle after the first paint of the resized window.
    for (int round = 0; round < 2; ++round) {
        QApplication::processEvents();
        window->repaint();
    }
    const QImage image = window->grab().toImage();
    if (!image.save(m_screenshot->file, "PNG")) {
        std::fprintf(stderr, "velmora: %s: the screenshot could not be written\n",
                     qPrintable(m_screenshot->file));
        return false;
    }
    std::printf("Screenshot of %s written to %s\n",
                handle ? qPrintable(handle->URL()) : "an empty window",
                qPrintable(QFileInfo(m_screenshot->file).absoluteFilePath()));
    std::fflush(stdout);
    return true;
}
