#pragma once

#include <QList>

#include <functional>
#include <memory>

class HXWindowController;

// The main windows of the application. The application sets how a window is made; without
// that, windows are plain controllers that show nothing. Main thread.
class HXApplicationState {
public:
    using Factory = std::function<std::shared_ptr<HXWindowController>()>;

    static HXApplicationState &sharedInstance();

    void setWindowFactory(Factory factory);
    QList<std::shared_ptr<HXWindowController>> windows() const { return m_windows; }
    // The window in front: the last one made or brought forward.
    std::shared_ptr<HXWindowController> mainWindow() const;
    void setMainWindow(const std::shared_ptr<HXWindowController> &window);
    // Makes a window, lets the block prepare it, and shows it.
    std::shared_ptr<HXWindowController>
    newWindowUsingBlock(const std::function<void(HXWindowController &)> &block);
    void removeWindow(const std::shared_ptr<HXWindowController> &window);

private:
    Factory m_factory;
    QList<std::shared_ptr<HXWindowController>> m_windows;
};
