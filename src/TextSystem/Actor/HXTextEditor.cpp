#include "TextSystem/Actor/HXTextEditor.h"

#include "Text/Markup/HXDefinition.h"
#include "Text/Markup/HXTextTag.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXUndoManager.h"

namespace {

// Groups what a key does into one undo step, apart from the typing before it.
class UndoStep {
public:
    explicit UndoStep(const std::shared_ptr<HXMutableString> &string)
        : m_string(string)
        , m_undo(string ? string->undoManager() : nullptr) {
        if (m_string)
            m_string->breakUndoCoalescing();
        if (m_undo)
            m_undo->beginUndoGrouping();
    }
    ~UndoStep() {
        if (m_undo)
            m_undo->endUndoGrouping();
        if (m_string)
            m_string->breakUndoCoalescing();
    }
    UndoStep(const UndoStep &) = delete;
    UndoStep &operator=(const UndoStep &) = delete;

private:
    std::shared_ptr<HXMutableString> m_string;
    std::shared_ptr<HXUndoManager> m_undo;
};

} // namespace

HXTextEditor::HXTextEditor(std::shared_ptr<HXTextStorage> storage)
    : m_storage(std::move(storage))
    , m_actor(*this) {}

void HXTextEditor::setSelectedRanges(const QList<HXRange> &ranges) {
    m_selectedRanges = ranges.isEmpty() ? QList<HXRange>{HXRange{0, 0}} : ranges;
}

void HXTextEditor::beginEditingAttributesOfElementAtIndex(quint64 index) {
    m_editedAttributesIndex = index;
}

// --- Typing --------------------------------------------------------------------------------

void HXTextEditor::followEdit(HXRange range, quint64 length) {
    const qint64 delta = qint64(length) - qint64(range.length);
    for (HXRange *tracked : {&m_autoInsertedRange, &m_autoMatchedRange, &m_userInsertedRange}) {
        if (tracked->isNotFound())
            continue;
        if (range.max() <= tracked->location &&
            !(range.length > 0 && tracked->length == 0 && range.max() == tracked->location))
            tracked->location = quint64(qint64(tracked->location) + delta);
        else if (range.location < tracked->max() ||
                 (range.location == tracked->location && tracked->length == 0))
            *tracked = HXNotFoundRange();
    }
    if (m_autoInsertedRange.isNotFound())
        m_autoMatchedRange = HXNotFoundRange();
}

void HXTextEditor::typeText(const QString &text, HXRange range) {
    HXTextStorage &storage = *m_storage;
    HX_ASSERT(storage.changeCount() == storage.contentChangeCount() &&
                  storage.content()->length() == storage.length(),
              u"Cache mismatch before user text change!");
    if (!shouldChangeTextInRanges({range}, {HXReplacement(text)}))
        return;
    storage.beginEditing();
    storage.replaceCharactersInRange(range, text);
    storage.endEditing();
    followEdit(range, quint64(text.size()));
    setSelectedRange(HXRange{range.location + quint64(text.size()), 0});
    didChangeText();
}

void HXTextEditor::insertText(const QString &text) {
    if (text.isEmpty())
        return;
    const HXRange selection = selectedRange();
    if (!m_autoInsertedRange.isNotFound()) {
        if (selection.length == 0 && selection.location == m_autoInsertedRange.location) {
            // Typing what was put in for the user steps over it.
            const QString pending =
                m_storage->cachedContent()->flatSubstringWithRange(m_autoInsertedRange);
            if (pending.startsWith(text)) {
                collapseAutomaticInsertionUpToIndex(selection.location + quint64(text.size()));
                m_userInsertedRange = HXRange{selection.location, quint64(text.size())};
                return;
            }
        } else {
            commitAutomaticInsertion();
        }
    }
    typeText(text, selection);
    m_userInsertedRange = HXRange{selection.location, quint64(text.size())};
    // What was typed may have made the opening tag something else ("*" and a blank start a
    // list): its end tag then goes again.
    if (!m_autoInsertedRange.isNotFound() && !automaticInsertionIsStillMatched())
        discardAutomaticInsertion();
    m_actor.didInsertText(text);
    processAutomaticMatchingTags();
}

bool HXTextEditor::automaticInsertionIsStillMatched() const {
    if (m_autoMatchedRange.isNotFound())
        return true;
    bool matched = false;
    m_storage->cachedContent()->enumerateElementsInRange(
        HXRange{m_autoMatchedRange.location, 1}, HXSelectorForScope(HXTextScope),
        [&](const HXTextElementRef &element, HXRange range, bool &stop) {
            const quint64 head = element->headAtom() ? element->headAtom()->length() : 0;
            if (range.location == m_autoMatchedRange.location && head == m_autoMatchedRange.length)
                matched = stop = true;
        });
    return matched;
}

void HXTextEditor::insertTab() {
    if (!indentListItems(true))
        insertText(QStringLiteral("\t"));
}

void HXTextEditor::insertBacktab() {
    if (!indentListItems(false))
        beep();
}

bool HXTextEditor::indentListItems(bool in) {
    const HXRange selection = selectedRange();
    const HXString &text = *m_storage->cachedContent();
    // A caret at the very end stands in the last paragraph, unless a line feed ends the text.
    HXRange probe = selection;
    if (probe.length == 0 && probe.location > 0 && probe.location == text.length() &&
        text.characterAtIndex(probe.location - 1) != u'\n')
        probe = HXRange{probe.location - 1, 1};
    // Every paragraph of the selection must be a list item; a caret must stand right behind
    // the item's tags, where a tab would otherwise go, or anywhere for going out.
    QList<QPair<HXParagraphRef, HXRange>> items;
    bool eligible = true;
    text.enumerateParagraphsInRange(probe, [&](const HXParagraphRef &paragraph, quint64 location,
                                               quint64 length, bool &stop) {
        bool list = false;
        for (const HXTextTagRef &grouping : paragraph->groupings())
            list = list || (grouping && grouping->definition()->groupingType() == HXGroupingList);
        const HXRange range{location, length};
        const HXRange own = HXTextActor::textRangeOfParagraph(*paragraph, range);
        if (!list || (in && selection.length == 0 && selection.location != own.location)) {
            eligible = false;
            stop = true;
        }
        items.append({paragraph, range});
    });
    if (items.isEmpty() || !eligible)
        return false;
    commitAutomaticInsertion();
    // Last first, so that the ranges of the paragraphs before stay true; the selection moves by
    // what changed before each of its ends.
    qint64 startShift = 0, endShift = 0;
    bool changed = false;
    for (qsizetype i = items.size() - 1; i >= 0; --i) {
        const auto &[paragraph, range] = items.at(i);
        const quint64 before = m_storage->length();
        if (!m_actor.applyTextIndentationOnParagraph(paragraph, range, selection, in))
            continue;
        changed = true;
        const qint64 delta = qint64(m_storage->length()) - qint64(before);
        if (range.location < selection.location ||
            (selection.length == 0 && range.location == selection.location))
            startShift += delta;
        if (range.location < selection.max())
            endShift += delta;
    }
    if (changed) {
        const quint64 start = quint64(std::max<qint64>(0, qint64(selection.location) + startShift));
        const quint64 end =
            quint64(std::max<qint64>(qint64(start), qint64(selection.max()) + endShift));
        setSelectedRange(HXRange{start, selection.length == 0 ? 0 : end - start});
    }
    return changed;
}

void HXTextEditor::processAutomaticMatchingTags() {
    const HXRange selection = selectedRange();
    if (!m_tagPairing || selection.length > 0 || m_userInsertedRange.isNotFound() ||
        selection.location != m_userInsertedRange.max())
        return;
    const quint64 cursor = selection.location;
    HXTextElementRef candidate;
    HXRange candidateRange;
    m_storage->cachedContent()->enumerateElementsInRange(
        HXRange{cursor, 0}, HXSelectorForScope(HXTextScope),
        [&](const HXTextElementRef &element, HXRange range, bool &) {
            const quint64 head = element->headAtom() ? element->headAtom()->length() : 0;
            if (!element->isClosed() && range.location + head == cursor &&
                range.location >= m_userInsertedRange.location && range.location < cursor) {
                candidate = element;
                candidateRange = HXRange{range.location, head};
            }
        });
    if (!candidate || !candidate->tag() || !candidate->tag()->patternIsSimple(1) ||
        m_autoMatchedRange == candidateRange)
        return;
    const QString end = candidate->tag()->plainStrings().value(1);
    if (!end.isEmpty())
        performAutomaticInsertion(end, cursor, candidateRange);
}

// --- Automatic insertion ---------------------------------------------------------------------

void HXTextEditor::performAutomaticInsertion(const QString &insertion, quint64 index,
                                             HXRange matchedRange) {
    HX_ASSERT(insertion.size() > 0, u"Invalid parameter not satisfying: %s",
              "insertion.length > 0");
    HX_ASSERT(matchedRange.max() <= index, u"Invalid parameter not satisfying: %s",
              "NSMaxRange(matchedRange) <= index");
    const QList<HXRange> selections = selectedRanges();
    m_storage->content()->breakUndoCoalescing();
    if (!m_actor.performReplaceCharactersInRange(HXRange{index, 0}, insertion))
        return;
    followEdit(HXRange{index, 0}, quint64(insertion.size()));
    m_autoInsertedRange = HXRange{index, quint64(insertion.size())};
    m_autoMatchedRange = matchedRange;
    setSelectedRanges(selections); // the cursor stays in front of what was put in
}

void HXTextEditor::collapseAutomaticInsertionUpToIndex(quint64 index) {
    if (m_autoInsertedRange.isNotFound())
        return;
    if (index >= m_autoInsertedRange.max()) {
        m_autoInsertedRange = HXNotFoundRange();
        m_autoMatchedRange = HXNotFoundRange();
    } else if (index > m_autoInsertedRange.location) {
        m_autoInsertedRange = HXRange{index, m_autoInsertedRange.max() - index};
    }
    setSelectedRange(HXRange{index, 0});
}

void HXTextEditor::discardAutomaticInsertion() {
    const HXRange range = m_autoInsertedRange;
    m_autoInsertedRange = HXNotFoundRange();
    m_autoMatchedRange = HXNotFoundRange();
    if (range.isNotFound())
        return;
    if (m_actor.performReplaceCharactersInRange(range, QString())) {
        followEdit(range, 0);
        setSelectedRange(HXRange{range.location, 0});
    }
}

void HXTextEditor::commitAutomaticInsertion() {
    m_autoInsertedRange = HXNotFoundRange();
    m_autoMatchedRange = HXNotFoundRange();
}

// --- Keys ------------------------------------------------------------------------------------

void HXTextEditor::insertNewline() {
    const HXRange selection = selectedRange();
    if (m_actor.performInsertNewline())
        return;
    // 1. Return just in front of an automatic insertion steps over it.
    if (!m_autoInsertedRange.isNotFound() && selection.length == 0 &&
        selection.location == m_autoInsertedRange.location) {
        setSelectedRange(HXRange{m_autoInsertedRange.max(), 0});
        commitAutomaticInsertion();
        return;
    }
    UndoStep step(m_storage->content());
    if (!m_listContinuation) {
        typeText(QStringLiteral("\n"), selection);
        m_userInsertedRange = HXRange{selection.location, 1};
        return;
    }
    // 2. Return on the empty item that the last Return made ends the list.
    const HXString &text = *m_storage->cachedContent();
    const bool lastWasReturn = !m_userInsertedRange.isNotFound() &&
                               m_userInsertedRange.length == 1 &&
                               text.characterAtIndex(m_userInsertedRange.location) == u'\n';
    if (lastWasReturn && !m_autoInsertedRange.isNotFound() && selection.length == 0 &&
        m_autoInsertedRange.location == m_userInsertedRange.max() &&
        selection.location == m_autoInsertedRange.max()) {
        discardAutomaticInsertion();
        typeText(QStringLiteral("\n"), selectedRange());
        m_userInsertedRange = HXRange{selectedRange().location - 1, 1};
        return;
    }
    commitAutomaticInsertion();
    // The same for an item that holds nothing but its marker, however it came to be.
    const QString prefix = m_actor.continuationForGroupAtIndex(selection.location, true);
    if (!prefix.isEmpty() && selection.length == 0 && text.length() > 0) {
        HXRange paragraphRange;
        const HXParagraphRef paragraph =
            text.paragraphAtIndex(std::min(selection.location, text.length() - 1), &paragraphRange);
        const HXRange own = HXTextActor::textRangeOfParagraph(*paragraph, paragraphRange);
        const bool onlyGroupings = !paragraph->tag();
        if (onlyGroupings && own.location > paragraphRange.location && own.length == 0 &&
            selection.location == own.location) {
            const HXRange marker{paragraphRange.location, own.location - paragraphRange.location};
            if (m_actor.performReplaceCharactersInRange(marker, QString())) {
                followEdit(marker, 0);
                typeText(QStringLiteral("\n"), HXRange{marker.location, 0});
                m_userInsertedRange = HXRange{marker.location, 1};
            }
            return;
        }
    }
    // 3. The line feed, and the next line's prefix as an automatic insertion.
    typeText(QStringLiteral("\n"), selection);
    m_userInsertedRange = HXRange{selection.location, 1};
    if (!prefix.isEmpty()) {
        const quint64 at = selection.location + 1;
        performAutomaticInsertion(prefix, at, HXRange{at, 0});
        setSelectedRange(HXRange{m_autoInsertedRange.max(), 0});
    }
}

void HXTextEditor::deleteSelectionOrCharacter(bool backward) {
    const HXRange selection = selectedRange();
    HXRange range = selection;
    const HXString &text = *m_storage->cachedContent();
    if (range.length == 0) {
        if (backward) {
            if (range.location == 0)
                return;
            range = HXRange{range.location - 1, 1};
            if (range.location > 0 && text.characterAtIndex(range.location).isLowSurrogate() &&
                text.characterAtIndex(range.location - 1).isHighSurrogate())
                range = HXRange{range.location - 1, 2};
        } else {
            if (range.location >= text.length())
                return;
            range.length = range.location + 1 < text.length() &&
                                   text.characterAtIndex(range.location).isHighSurrogate()
                               ? 2
                               : 1;
        }
    }
    typeText(QString(), range);
}

void HXTextEditor::deleteBackward() {
    const HXRange selection = selectedRange();
    if (!m_autoInsertedRange.isNotFound() && selection.length == 0 &&
        selection.location == m_autoInsertedRange.max()) {
        discardAutomaticInsertion();
        return;
    }
    if (m_actor.performDeleteBackward())
        return;
    commitAutomaticInsertion();
    deleteSelectionOrCharacter(true);
}

void HXTextEditor::deleteForward() {
    if (m_actor.performDeleteForward())
        return;
    commitAutomaticInsertion();
    deleteSelectionOrCharacter(false);
}

bool HXTextEditor::toggleTag(const HXTextTagRef &tag) {
    commitAutomaticInsertion();
    return m_actor.applyTagToSelection(tag);
}
