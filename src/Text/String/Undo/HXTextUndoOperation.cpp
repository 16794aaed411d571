#include "Text/String/Undo/HXTextUndoOperation.h"

#include "Text/String/Access/HXMutableString.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXLocalizedString.h"
#include "Utilities/HXUndoManager.h"

std::shared_ptr<HXTextUndoOperation>
HXTextUndoOperation::commitEditInString(HXMutableString &string, HXRange editedRange,
                                        const HXString &replacedText, HXRange replacementRange) {
    auto operation = std::make_shared<HXTextUndoOperation>();
    operation->m_string =
        std::dynamic_pointer_cast<HXMutableString>(string.weak_from_this().lock());
    operation->m_editedRange = editedRange;
    operation->m_oldText = replacedText.mutableCopy();
    operation->m_replacementRange = replacementRange;
    if (const auto manager = string.undoManager()) {
        manager->registerUndo([operation] { operation->performUndo(); });
        manager->setActionName(
            HXLocalizedString(QStringLiteral("Typing"), QStringLiteral("HXTextUndoOperation")));
    }
    return operation;
}

bool HXTextUndoOperation::coalesceEditedRange(HXRange editedRange, const HXString &replacedText,
                                              HXRange replacementRange) {
    if (editedRange.max() != m_replacementRange.max())
        return false;
    // Only typing at the end of the step and deletion backward from it join the step. A
    // selection replaced from before the step starts a new one, whatever its length: its old
    // text lies outside what this step would put back.
    const bool typing = editedRange.length == 0;
    const bool deleting = replacementRange.length == 0;
    if (!typing && !deleting && editedRange.location < m_replacementRange.location)
        return false;
    if (replacementRange.length >= editedRange.length) {
        m_replacementRange.length += replacementRange.length - editedRange.length;
        return true;
    }
    // A deletion: first it takes back new text, then old text in front of the operation.
    const quint64 within = HXIntersectionRange(editedRange, m_replacementRange).length;
    m_replacementRange.length -= within;
    const quint64 before = editedRange.length - within;
    if (before > 0) {
        const auto front = replacedText.stringWithRange(HXRange{0, before});
        m_oldText->replaceCharactersInRange(HXRange{0, 0}, HXReplacement(front));
        m_editedRange.location -= before;
        m_editedRange.length += before;
        m_replacementRange.location -= before;
    }
    HX_ASSERT(m_replacementRange.max() == replacementRange.location,
              u"Replacement range location mismatch");
    m_replacementRange.length += replacementRange.length;
    return true;
}

void HXTextUndoOperation::performUndo() {
    const auto string = m_string.lock();
    HX_ASSERT(string, u"Undo performed on a no longer present string!");
    string->replaceCharactersInRange(m_replacementRange, HXReplacement(m_oldText->copy()));
}
