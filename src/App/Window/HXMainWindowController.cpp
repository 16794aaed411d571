#include "App/Window/HXMainWindowController.h"

#include "App/Window/HXMainWindow.h"
#include "AppCore/HXApplicationDelegate.h"
#include "AppCore/HXApplicationState.h"
#include "Model/Persistence/HXStorageController.h"
#include "Model/StorageTree/HXContainer.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Utilities/HXError.h"
#include "Utilities/HXLocalizedString.h"

#include <QMessageBox>

namespace {

QString text(const char *key) {
    return HXLocalizedString(QString::fromLatin1(key), QStringLiteral("HXMainWindow"));
}

} // namespace

HXMainWindowController::HXMainWindowController()
    : m_window(new HXMainWindow(HXStorageController::sharedInstance())) {
    QObject::connect(m_window, &HXMainWindow::closing, m_window, [this] {
        // The window may go with its controller while it is still closing.
        m_closing = true;
        const auto self = std::static_pointer_cast<HXMainWindowController>(shared_from_this());
        HXApplicationState &state = HXApplicationState::sharedInstance();
        if (auto *delegate = HXApplicationDelegate::sharedInstance();
            delegate && state.windows().size() == 1)
            delegate->requestTermination();
        else
            state.removeWindow(self);
    });
}

HXMainWindowController::~HXMainWindowController() {
    if (m_closing && m_window)
        m_window->deleteLater();
    else
        delete m_window.data();
}

void HXMainWindowController::show() {
    if (m_window)
        m_window->show();
}

void HXMainWindowController::revealContainersAndSheetsHandles(const Items &items) {
    HXWindowController::revealContainersAndSheetsHandles(items);
    if (!m_window || items.isEmpty())
        return;
    // The sheet first, so that its container shows; else the first container.
    for (const auto &item : items) {
        if (const auto handle = std::dynamic_pointer_cast<HXSheetHandle>(item)) {
            m_window->revealSheet(handle);
            m_lastRevealed = item;
            m_revealTime = std::chrono::steady_clock::now();
            return;
        }
    }
    if (const auto container = std::dynamic_pointer_cast<HXContainer>(items.first()))
        m_window->selectContainer(container);
}

void HXMainWindowController::selectContainer(const std::shared_ptr<HXContainer> &container) {
    if (!m_window || !container)
        return;
    // The built-in content reveals its first sheet and then asks for the group it went into:
    // the sheet just revealed stays chosen when it lies in that group.
    const bool justRevealed =
        m_lastRevealed && std::chrono::steady_clock::now() - m_revealTime < std::chrono::seconds(2);
    if (justRevealed && m_lastRevealed->isDescendantOfContainer(container.get()))
        return;
    m_window->selectContainer(container);
}

void HXMainWindowController::handleWriteError(const std::shared_ptr<HXSheet> &sheet,
                                              const HXError &error) {
    HXWindowController::handleWriteError(sheet, error);
    if (!m_window)
        return;
    auto *box = new QMessageBox(QMessageBox::Warning, text("WriteFailedTitle"),
                                error.localizedDescription(), QMessageBox::Ok, m_window);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}

void HXMainWindowController::showIntroductionMissingAlert() {
    HXWindowController::showIntroductionMissingAlert();
    if (!m_window)
        return;
    auto *box = new QMessageBox(QMessageBox::Information, QStringLiteral("Velmora"),
                                HXLocalizedString(QStringLiteral("introductionMissing"),
                                                  QStringLiteral("HXApplicationDelegate")),
                                QMessageBox::Ok, m_window);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}
