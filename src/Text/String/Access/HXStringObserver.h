#pragma once

#include "Text/String/Access/HXReplacement.h"
#include "Utilities/HXRange.h"

class HXString;

// Told of every change of a mutable string, inside the write of the change: an observer must not
// wait there for another thread that reads the string. Held weakly by the string.
class HXStringObserver {
public:
    virtual ~HXStringObserver() = default;

    // Characters of `range` were replaced by `replacement`; the three ranges as the one editing
    // operation gives them. After a whole new text the range is not-found.
    virtual void stringChangedCharactersInRange(HXString &string, HXRange range,
                                                const HXReplacement &replacement,
                                                HXRange editedRange, HXRange affectedRange,
                                                HXRange replacementRange) {
        Q_UNUSED(string);
        Q_UNUSED(range);
        Q_UNUSED(replacement);
        Q_UNUSED(editedRange);
        Q_UNUSED(affectedRange);
        Q_UNUSED(replacementRange);
    }
    // The attributes of the element starting at the index are about to change.
    virtual void stringWillChangeAttributesOfElementAtIndex(HXString &string, quint64 index) {
        Q_UNUSED(string);
        Q_UNUSED(index);
    }
    // The bookmark of the paragraph starting at the index is about to change.
    virtual void stringWillChangeAttributesOfParagraphAtIndex(HXString &string, quint64 index) {
        Q_UNUSED(string);
        Q_UNUSED(index);
    }
};
