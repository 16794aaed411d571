#pragma once

#include "Text/String/Access/HXMutableString.h"
#include "TextSystem/Components/HXTextStorage.h"

#include <QList>
#include <QStringList>

#include <functional>

// What an actor edits through: a text view, or anything that keeps a storage and a selection.
// Operations with a body are optional and answer as a view that doesn't care would.
class HXTextActorTarget {
public:
    virtual ~HXTextActorTarget() = default;

    virtual HXTextStorage &textStorage() = 0;
    virtual HXRange selectedRange() const = 0;
    virtual void setSelectedRange(HXRange range) = 0;
    virtual QList<HXRange> selectedRanges() const { return {selectedRange()}; }
    virtual void setSelectedRanges(const QList<HXRange> &ranges) {
        setSelectedRange(ranges.isEmpty() ? HXRange{0, 0} : ranges.first());
    }
    virtual bool shouldChangeTextInRanges(const QList<HXRange> &ranges,
                                          const QList<HXReplacement> &replacements) {
        Q_UNUSED(ranges);
        Q_UNUSED(replacements);
        return true;
    }
    virtual void didChangeText() {}
    // Opens the editor of the attributes of the entity starting at the index.
    virtual void beginEditingAttributesOfElementAtIndex(quint64 index) { Q_UNUSED(index); }
    // The user asked for something that can't be done here.
    virtual void beep() {}
};

// The meaning of editing: the layer between the keys and menu commands of a text view and the
// text model. It knows what a tag, an entity and a list are: what Return, Delete and Backspace do
// next to them, how a list goes on, and how a tag is set or taken away over a selection. Every
// change goes through one door, which checks that the view's twin of the text is in step (cheaply:
// lengths and change counts), applies the replacements from the last range to the first and makes
// them one undo step. It reads the text from the storage's twin, never from the live string.
//
// Made for one target and used on the main thread. A command the text refuses returns false and
// leaves the text as it was.
class HXTextActor {
public:
    explicit HXTextActor(HXTextActorTarget &target)
        : m_target(target) {}

    HXTextActorTarget &target() const { return m_target; }
    // The twin of the text, as the view sees it.
    const std::shared_ptr<HXString> &content() const;
    // The live string.
    const std::shared_ptr<HXMutableString> &mutableContent() const;

    // Whether the door compares the whole twin with the content, not only lengths and change
    // counts; for tests.
    static void setVerifiesCacheFully(bool verifies);

    // --- The one door ----------------------------------------------------------------------
    bool performReplaceCharactersInRange(HXRange range, const HXReplacement &string);
    // The string goes to the first range, empty strings to the others.
    bool performReplaceCharactersInRanges(const QList<HXRange> &ranges,
                                          const HXReplacement &string);
    bool performReplaceCharactersInRanges(const QList<HXRange> &ranges,
                                          const QList<HXReplacement> &replacements);

    // --- Entities and keys -----------------------------------------------------------------
    // Calls the block with (element, range, inner range) for each entity of the range, the
    // innermost last, until it returns true; the result says whether one did.
    using EntityBlock =
        std::function<bool(const HXTextElementRef &element, HXRange range, HXRange innerRange)>;
    bool findTextEntityInRange(HXRange range, const EntityBlock &block) const;
    // Replaces an entity whose whole range the range is by its inner text.
    bool destroyEntityInRange(HXRange range, bool select);
    // True when the key was handled.
    bool performDeleteBackward();
    bool performDeleteForward();
    bool performInsertNewline();
    // After typing: the closing characters of an entity with attributes select it and open them.
    void didInsertText(const QString &text);
    // Keeps the ends of a selection out of the inside of tag text.
    HXRange selectionRangeForProposedRange(HXRange proposed, HXRange previous) const;
    // The prefix of the next line of a list or quote that the paragraph at the index is in: the
    // levels left of the index repeated, lists as indentation but the innermost, which with
    // `createItemIfPossible` gets the next item's marker.
    QString continuationForGroupAtIndex(quint64 index, bool createItemIfPossible) const;
    quint64 currentHeadingLevelForSelection() const;

    // --- Tags ------------------------------------------------------------------------------
    // Dispatches on the tag's scope.
    bool applyTagToSelection(const HXTextTagRef &tag);
    // Sets or takes away a line-level tag or grouping on the selected paragraphs, as the first
    // paragraph decides.
    bool applyParagraphTag(const HXTextTagRef &tag);
    bool addGroupingToSelection(const HXTextTagRef &tag);
    bool removeGroupingFromSelection(const HXTextTagRef &tag);
    // Adds or removes one level of indentation on the paragraph.
    bool applyTextIndentationOnParagraph(const HXParagraphRef &paragraph, HXRange paragraphRange,
                                         HXRange selectionRange, bool shouldAdd);
    // Sets an inline tag over the selection, or takes it away where it already covers it; each
    // paragraph of the selection gets an element of its own.
    bool applyInlineTextTag(const HXTextTagRef &tag);
    // Makes the selected text an entity of the tag, without attributes yet, and opens them.
    bool applyAttributedTextTag(const HXTextTagRef &tag);
    // Puts an object of the tag in place of the selection and opens its attributes.
    bool applyObjectTag(const HXTextTagRef &tag);
    bool performInsertAndEditElement(const HXTextElementRef &element);
    // The tags of the elements and paragraph prefixes the selection touches go.
    bool removeAllTagsInSelection();
    bool clearMarkupForSelection() { return removeAllTagsInSelection(); }
    // Rebuilds the paragraph's prefix for the groupings and tag, through the door.
    bool performSetGroupings(const QList<HXTextTagRef> &groupings, const HXTextTagRef &tag,
                             const HXParagraphRef &paragraph, HXRange paragraphRange,
                             const HXIndexProvider &indexProvider);
    // The range an inline tag applies to: grown over the elements of its definition that touch
    // the range, without a trailing line feed; whether it adds goes to `shouldAdd`. Not-found
    // where the tag can't be applied.
    HXRange rangeForApplyingTag(const HXTextTagRef &tag, HXRange range, bool *shouldAdd) const;

    // The paragraph's own text: behind its prefix of tags, before its line feed.
    static HXRange textRangeOfParagraph(const HXParagraph &paragraph, HXRange paragraphRange);

    // Runs the block on each selected paragraph: (paragraph, location, length, selection as it
    // stands). The block may edit through the actor; the selection follows.
    using ParagraphBlock = std::function<void(const HXParagraphRef &paragraph, quint64 location,
                                              quint64 length, HXRange selection)>;
    void modifySelectedParagraphsUsingBlock(const ParagraphBlock &block);

private:
    struct Replacement {
        HXRange range;
        QString string;
    };
    // Sorts, merges replacements that meet at one point and sends them through the door.
    bool performReplacements(QList<Replacement> replacements);
    HXRange innerRangeOfElement(const HXTextElement &element, HXRange range) const;
    // The paragraphs the range touches, with their ranges.
    QList<QPair<HXParagraphRef, HXRange>> paragraphsInRange(HXRange range) const;
    // The number a list grouping at the level shows at or above the paragraph starting at the
    // index, with its tag; walks back only as far as the list goes.
    quint64 lastEnumerationIndex(quint64 paragraphLocation, qsizetype level, HXTextTagRef *tag,
                                 QString *atomText) const;

    HXTextActorTarget &m_target;
};
