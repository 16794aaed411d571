#include "Utilities/HXUndoManager.h"

#include "Utilities/HXAssert.h"

#include <utility>

void HXUndoManager::openGroup() {
    m_open = Group();
    const auto observers = m_groupObservers;
    for (const auto &[owner, function] : observers)
        function();
}

void HXUndoManager::registerUndo(std::function<void()> action) {
    if (m_collecting) {
        m_collecting->actions.push_back(std::move(action));
        return;
    }
    m_redoStack.clear();
    if (m_groupingLevel > 0) {
        m_open.actions.push_back(std::move(action));
        return;
    }
    openGroup();
    m_open.actions.push_back(std::move(action));
    closeGroup(std::exchange(m_open, Group()));
}

void HXUndoManager::closeGroup(Group group) {
    m_undoStack.push_back(std::move(group));
    announce(Change::Done);
}

void HXUndoManager::announce(Change change) {
    const auto observers = m_changeObservers;
    for (const auto &[owner, function] : observers)
        function(change);
}

void HXUndoManager::setActionName(const QString &name) {
    if (m_collecting)
        m_collecting->name = name;
    else if (m_groupingLevel > 0)
        m_open.name = name;
    else if (!m_undoStack.empty())
        m_undoStack.back().name = name;
}

QString HXUndoManager::undoActionName() const {
    return m_undoStack.empty() ? QString() : m_undoStack.back().name;
}

QString HXUndoManager::redoActionName() const {
    return m_redoStack.empty() ? QString() : m_redoStack.back().name;
}

void HXUndoManager::beginUndoGrouping() {
    if (m_groupingLevel++ == 0 && !m_collecting)
        openGroup();
}

void HXUndoManager::endUndoGrouping() {
    HX_ASSERT(m_groupingLevel > 0, u"endUndoGrouping called with no matching begin");
    if (--m_groupingLevel > 0 || m_collecting)
        return;
    Group group = std::exchange(m_open, Group());
    if (!group.actions.empty())
        closeGroup(std::move(group));
}

void HXUndoManager::runGroup(Group group, bool undoing) {
    // Undo and redo collect their opposite actions in a group of their own: what coalesces with
    // the last change must not coalesce across them, even when they change nothing.
    const auto observers = m_groupObservers;
    for (const auto &[owner, function] : observers)
        function();
    Group opposite;
    opposite.name = group.name;
    m_collecting = &opposite;
    (undoing ? m_undoing : m_redoing) = true;
    try {
        for (auto action = group.actions.rbegin(); action != group.actions.rend(); ++action)
            (*action)();
    } catch (...) {
        m_collecting = nullptr;
        m_undoing = m_redoing = false;
        throw;
    }
    m_collecting = nullptr;
    (undoing ? m_undoing : m_redoing) = false;
    if (!opposite.actions.empty())
        (undoing ? m_redoStack : m_undoStack).push_back(std::move(opposite));
}

void HXUndoManager::undo() {
    HX_ASSERT(m_groupingLevel == 0, u"undo is only possible outside a group");
    if (m_undoStack.empty())
        return;
    Group group = std::move(m_undoStack.back());
    m_undoStack.pop_back();
    runGroup(std::move(group), true);
    announce(Change::Undone);
}

void HXUndoManager::redo() {
    HX_ASSERT(m_groupingLevel == 0, u"redo is only possible outside a group");
    if (m_redoStack.empty())
        return;
    Group group = std::move(m_redoStack.back());
    m_redoStack.pop_back();
    runGroup(std::move(group), false);
    announce(Change::Redone);
}

void HXUndoManager::removeAllActions() {
    m_undoStack.clear();
    m_redoStack.clear();
    m_open = Group();
    m_groupingLevel = 0;
}

void HXUndoManager::addGroupOpenedObserver(const void *owner, std::function<void()> function) {
    m_groupObservers.emplace_back(owner, std::move(function));
}

void HXUndoManager::removeGroupOpenedObserver(const void *owner) {
    std::erase_if(m_groupObservers, [owner](const auto &entry) { return entry.first == owner; });
}

void HXUndoManager::addChangeObserver(const void *owner, std::function<void(Change)> function) {
    m_changeObservers.emplace_back(owner, std::move(function));
}

void HXUndoManager::removeChangeObserver(const void *owner) {
    std::erase_if(m_changeObservers, [owner](const auto &entry) { return entry.first == owner; });
}
