#pragma once

#include "TextSystem/Actor/HXTextActor.h"

// The editing half of a text view, without drawing: the storage, the selection, the keys and the
// automatic insertions (a list's next marker, the end tag of a tag just opened) that the view
// shows tinted until the user types past them. The widget forwards its key events here; the
// command-line tool and the tests drive it directly.
//
// Typing goes straight to the storage, so that consecutive keystrokes make one undo step; every
// other change goes through the actor's door. Main thread.
class HXTextEditor : public HXTextActorTarget {
public:
    explicit HXTextEditor(std::shared_ptr<HXTextStorage> storage);

    HXTextActor &actor() { return m_actor; }
    const std::shared_ptr<HXTextStorage> &storage() const { return m_storage; }

    HXTextStorage &textStorage() override { return *m_storage; }
    HXRange selectedRange() const override { return m_selectedRanges.value(0); }
    void setSelectedRange(HXRange range) override { setSelectedRanges({range}); }
    QList<HXRange> selectedRanges() const override { return m_selectedRanges; }
    void setSelectedRanges(const QList<HXRange> &ranges) override;
    void beginEditingAttributesOfElementAtIndex(quint64 index) override;
    void beep() override { ++m_beeps; }

    // Settings of the view, on by default.
    bool isAutomaticListContinuationEnabled() const { return m_listContinuation; }
    void setAutomaticListContinuationEnabled(bool enabled) { m_listContinuation = enabled; }
    bool isAutomaticTagPairingEnabled() const { return m_tagPairing; }
    void setAutomaticTagPairingEnabled(bool enabled) { m_tagPairing = enabled; }

    // --- Keys ------------------------------------------------------------------------------
    // Typed text in place of the selection.
    void insertText(const QString &text);
    void insertNewline();
    void deleteBackward();
    void deleteForward();
    // Tab takes a list item one level in when the caret stands right behind its tags (or list
    // items are selected); elsewhere it is a tab. Shift-Tab takes list items one level out.
    void insertTab();
    void insertBacktab();
    // Sets or takes away the tag over the selection.
    bool toggleTag(const HXTextTagRef &tag);

    // --- Automatic insertion -----------------------------------------------------------------
    HXRange autoInsertedRange() const { return m_autoInsertedRange; }
    HXRange autoMatchedRange() const { return m_autoMatchedRange; }
    HXRange userInsertedRange() const { return m_userInsertedRange; }
    void performAutomaticInsertion(const QString &insertion, quint64 index, HXRange matchedRange);
    void collapseAutomaticInsertionUpToIndex(quint64 index);
    // The automatic text goes again.
    void discardAutomaticInsertion();
    // The automatic text stays as if typed.
    void commitAutomaticInsertion();

    // What the user was told: beeps, and the entity whose attributes were opened.
    int numberOfBeeps() const { return m_beeps; }
    quint64 editedAttributesIndex() const { return m_editedAttributesIndex; }

private:
    // The typing path: the storage takes the text directly, after the door's cheap check.
    void typeText(const QString &text, HXRange range);
    void processAutomaticMatchingTags();
    // One level in or out for the selected list items; false where that doesn't apply.
    bool indentListItems(bool in);
    // Whether the opening tag that an automatic end tag answers still opens an element.
    bool automaticInsertionIsStillMatched() const;
    // Moves the remembered ranges over an edit of `range` into `length` characters.
    void followEdit(HXRange range, quint64 length);
    void deleteSelectionOrCharacter(bool backward);

    std::shared_ptr<HXTextStorage> m_storage;
    HXTextActor m_actor;
    QList<HXRange> m_selectedRanges{HXRange{0, 0}};
    HXRange m_autoInsertedRange = HXNotFoundRange();
    HXRange m_autoMatchedRange = HXNotFoundRange();
    HXRange m_userInsertedRange = HXNotFoundRange();
    bool m_listContinuation = true;
    bool m_tagPairing = true;
    int m_beeps = 0;
    quint64 m_editedAttributesIndex = HXNotFound;
};
