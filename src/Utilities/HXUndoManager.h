#pragma once

#include <QString>

#include <functional>
#include <vector>

// Records what undoes a change, in groups that are undone and redone as one step. Actions
// registered while undoing go to the redo stack, those registered while redoing back to the undo
// stack. A registration outside an explicit group makes a group of its own, and every new group is
// announced to the group observers, so that an editor can stop coalescing its operations. A new
// change after undoing drops what could be redone. Main thread; owned by the document or view.
class HXUndoManager {
public:
    HXUndoManager() = default;
    HXUndoManager(const HXUndoManager &) = delete;
    HXUndoManager &operator=(const HXUndoManager &) = delete;

    void registerUndo(std::function<void()> action);
    void setActionName(const QString &name);
    QString undoActionName() const;
    QString redoActionName() const;

    // Explicit groups may nest; the outermost one makes the step.
    void beginUndoGrouping();
    void endUndoGrouping();
    int groupingLevel() const { return m_groupingLevel; }

    bool canUndo() const { return !m_undoStack.empty(); }
    bool canRedo() const { return !m_redoStack.empty(); }
    void undo();
    void redo();
    bool isUndoing() const { return m_undoing; }
    bool isRedoing() const { return m_redoing; }
    void removeAllActions();

    // Called each time a group opens, until removed by the same owner.
    void addGroupOpenedObserver(const void *owner, std::function<void()> function);
    void removeGroupOpenedObserver(const void *owner);

    // What a document counts its changes by: a step that closed, one undone, one redone.
    enum class Change { Done, Undone, Redone };
    void addChangeObserver(const void *owner, std::function<void(Change)> function);
    void removeChangeObserver(const void *owner);

private:
    struct Group {
        std::vector<std::function<void()>> actions;
        QString name;
    };
    void openGroup();
    void runGroup(Group group, bool undoing);
    void closeGroup(Group group);
    void announce(Change change);

    std::vector<Group> m_undoStack;
    std::vector<Group> m_redoStack;
    Group m_open;
    int m_groupingLevel = 0;
    bool m_undoing = false;
    bool m_redoing = false;
    Group *m_collecting = nullptr; // the group that undo or redo is building
    std::vector<std::pair<const void *, std::function<void()>>> m_groupObservers;
    std::vector<std::pair<const void *, std::function<void(Change)>>> m_changeObservers;
};
