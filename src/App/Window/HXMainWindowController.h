#pragma once

#include "AppCore/HXWindowController.h"

#include <QPointer>

#include <chrono>

class HXMainWindow;

// A main window as the application sees it: opens files and the built-in content as every window
// controller does, and shows the results in its `HXMainWindow`: revealed sheets selected and
// opened, write errors and a missing introduction as alerts. Closing the last window quits.
//
// Made by the application state's window factory; main thread.
class HXMainWindowController : public HXWindowController {
public:
    HXMainWindowController();
    ~HXMainWindowController() override;

    HXMainWindow *window() const { return m_window; }

    void show() override;
    void revealContainersAndSheetsHandles(const Items &items) override;
    void selectContainer(const std::shared_ptr<HXContainer> &container) override;
    void handleWriteError(const std::shared_ptr<HXSheet> &sheet, const HXError &error) override;
    void showIntroductionMissingAlert() override;
    void bundledContentDidSettle() override { ++m_settleCount; }

    // Whether the built-in content has been dealt with since the window was made (copied,
    // found copied before, or missing).
    bool hasSettledBundledContent() const { return m_settleCount > 0; }
    int bundledContentSettleCount() const { return m_settleCount; }

private:
    QPointer<HXMainWindow> m_window;
    std::shared_ptr<HXStorageItem> m_lastRevealed;
    std::chrono::steady_clock::time_point m_revealTime;
    int m_settleCount = 0;
    bool m_closing = false;
};
