#include "Text/String/Access/HXStringSnapshot.h"

#include "Text/String/Access/HXMutableString.h"
#include "Text/String/Access/HXStringObserver.h"

#include <algorithm>
#include <vector>

namespace {

// The paragraphs copied so far, from the start of the text. The observer calls come inside the
// string's write and the copying runs inside its read, so the lock keeps the two apart.
class SliceTracker : public HXStringObserver {
public:
    std::vector<HXChunk> paragraphs;
    // The end of each copied paragraph in the text, ascending.
    std::vector<quint64> ends;

    quint64 copiedLength() const { return ends.empty() ? 0 : ends.back(); }

    // Drops every copied paragraph that an edit at the index could have reached: those that
    // end at or after it. A paragraph that ends right there goes too, so that a change at the
    // start of the next one, which the parser may carry back over the line feed, is safe.
    void forgetFrom(quint64 index) {
        const auto kept = std::lower_bound(ends.begin(), ends.end(), index);
        const auto count = size_t(kept - ends.begin());
        ends.resize(count);
        paragraphs.resize(count);
    }

    void stringChangedCharactersInRange(HXString &, HXRange range, const HXReplacement &,
                                        HXRange editedRange, HXRange affectedRange,
                                        HXRange) override {
        quint64 from = range.location;
        for (const HXRange &other : {editedRange, affectedRange}) {
            if (other.location != HXNotFound)
                from = std::min(from, other.location);
        }
        // A whole new text has no range.
        forgetFrom(range.location == HXNotFound ? 0 : from);
    }
    void stringWillChangeAttributesOfElementAtIndex(HXString &, quint64 index) override {
        forgetFrom(index);
    }
    void stringWillChangeAttributesOfParagraphAtIndex(HXString &, quint64 index) override {
        forgetFrom(index);
    }
};

} // namespace

std::shared_ptr<HXString>
HXStringSnapshot::copyInSlices(HXMutableString &string, qsizetype paragraphsPerSlice,
                               const std::function<void()> &betweenSlices) {
    const auto tracker = std::make_shared<SliceTracker>();
    string.addStringObserver(tracker);
    std::shared_ptr<HXMarkup> markup;
    HXDefinitionSelector definitions = HXDefaultDefinitionSelector;
    for (bool done = false; !done;) {
        string.read([&] {
            const quint64 length = string.length();
            const quint64 from = tracker->copiedLength();
            qsizetype copied = 0;
            string.enumerateChunksInRange(HXRange{from, length - from}, 0,
                                          [&](const HXChunk &chunk, HXRange range, bool &stop) {
                                              tracker->paragraphs.push_back(chunk.copy());
                                              tracker->ends.push_back(range.max());
                                              stop = ++copied >= paragraphsPerSlice ||
                                                     range.max() - from >= charactersPerSlice;
                                          });
            done = tracker->copiedLength() == length;
            if (done) {
                markup = string.markup();
                definitions = string.recognizedDefinitions();
            }
        });
        if (!done && betweenSlices)
            betweenSlices();
    }
    string.removeStringObserver(tracker);
    auto result = std::make_shared<HXString>(markup, definitions);
    result->setAllChunks(tracker->paragraphs.data(), tracker->paragraphs.size(), false, false);
    return result;
}
