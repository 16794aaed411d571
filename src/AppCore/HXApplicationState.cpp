#include "AppCore/HXApplicationState.h"

#include "AppCore/HXWindowController.h"

HXApplicationState &HXApplicationState::sharedInstance() {
    static HXApplicationState state;
    return state;
}

void HXApplicationState::setWindowFactory(Factory factory) {
    m_factory = std::move(factory);
}

std::shared_ptr<HXWindowController> HXApplicationState::mainWindow() const {
    return m_windows.isEmpty() ? nullptr : m_windows.last();
}

void HXApplicationState::setMainWindow(const std::shared_ptr<HXWindowController> &window) {
    m_windows.removeAll(window);
    m_windows.append(window);
}

std::shared_ptr<HXWindowController>
HXApplicationState::newWindowUsingBlock(const std::function<void(HXWindowController &)> &block) {
    auto window = m_factory ? m_factory() : std::make_shared<HXWindowController>();
    m_windows.append(window);
    if (block)
        block(*window);
    window->show();
    return window;
}

void HXApplicationState::removeWindow(const std::shared_ptr<HXWindowController> &window) {
    m_windows.removeAll(window);
}
