#pragma once

#include "Text/String/Access/HXString.h"

#include <functional>
#include <memory>

class HXMutableString;

// An immutable copy of a string that others edit meanwhile, taken in slices: each slice copies a
// run of paragraphs under the string's read lock, so that a writer never waits for more than one
// slice, however long the text. Edits between slices are heard as the string's observer, and the
// paragraphs they reach are copied again, so the result is the whole text as it stood at the
// last slice. Any thread but the one that edits, which would wait on itself.
class HXStringSnapshot {
public:
    HXStringSnapshot() = delete;

    // A slice ends after so many paragraphs, or sooner, once it holds so many characters: a
    // slice of 8,192 characters takes some 50 µs to copy.
    static constexpr qsizetype defaultParagraphsPerSlice = 256;
    static constexpr quint64 charactersPerSlice = 8192;

    // `betweenSlices`, when given, runs outside the lock after each slice but the last: tests
    // edit the string there.
    static std::shared_ptr<HXString>
    copyInSlices(HXMutableString &string, qsizetype paragraphsPerSlice = defaultParagraphsPerSlice,
                 const std::function<void()> &betweenSlices = {});
};
