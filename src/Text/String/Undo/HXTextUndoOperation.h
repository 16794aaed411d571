#pragma once

#include "Utilities/HXRange.h"

#include <memory>

class HXMutableString;
class HXString;

// What undoes one change of characters: the old text, with its structure, of the edited range,
// and the range of the new text that replaced it. Typing forward and deleting backward extend
// the operation, so that each is one step. Lives in the undo manager's action and, while it can
// still grow, as its string's current operation; knows its string weakly.
class HXTextUndoOperation : public std::enable_shared_from_this<HXTextUndoOperation> {
public:
    // Makes the operation and registers its undo, named "Typing", with the string's manager.
    static std::shared_ptr<HXTextUndoOperation> commitEditInString(HXMutableString &string,
                                                                   HXRange editedRange,
                                                                   const HXString &replacedText,
                                                                   HXRange replacementRange);
    // Takes in a following edit that ends where this operation's new text ends; false when the
    // edit is not one that continues it.
    bool coalesceEditedRange(HXRange editedRange, const HXString &replacedText,
                             HXRange replacementRange);
    // Puts the old text back in place of the new.
    void performUndo();

    HXRange editedRange() const { return m_editedRange; }
    HXRange replacementRange() const { return m_replacementRange; }

private:
    std::weak_ptr<HXMutableString> m_string;
    HXRange m_editedRange;
    std::shared_ptr<HXMutableString> m_oldText;
    HXRange m_replacementRange;
};
