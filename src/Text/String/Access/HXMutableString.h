#pragma once

#include "Text/Markup/HXMarkup.h"
#include "Text/String/Access/HXString.h"
#include "Text/String/Access/HXStringObserver.h"
#include "Text/String/Implementation/HXLockingContext.h"

#include <memory>
#include <vector>

class HXAttributeUndoOperation;
class HXTextUndoOperation;
class HXUndoManager;

// A string that changes. All edits go through one door, `replaceCharactersInRange`, which keeps
// the paragraphs whole (merging and splitting them at line feeds), parses the paragraphs it
// touches and tells the observers. It observes its markup, and parses anew when the markup's
// tags change. It is the context of its own tree: a change made in place on the attributes of
// one of its elements reaches its observers and its undo as a change made through it. Not safe
// on several threads, as it locks nothing: HXAtomicString is. Made through its factories, as it
// registers itself with its markup and its nodes.
class HXMutableString : public HXString, public HXMarkupObserver, public HXLockingContext {
public:
    HXMutableString() = default;
    ~HXMutableString() override;

    static std::shared_ptr<HXMutableString>
    stringWithMarkup(const std::shared_ptr<HXMarkup> &markup,
                     HXDefinitionSelector recognizedDefinitions = HXDefaultDefinitionSelector);
    // What a factory does for a new string of this class or a subclass.
    static void setUpString(const std::shared_ptr<HXMutableString> &string,
                            const std::shared_ptr<HXMarkup> &markup,
                            HXDefinitionSelector recognizedDefinitions);

    bool isMutable() const override { return true; }

    // Replaces the characters of the range with plain text or with a string, which is brought
    // into this markup. The outputs: the edited range, in old coordinates, of the characters
    // really exchanged; the affected range, in old coordinates, of changed structure; the
    // replacement range, in new coordinates, of what stands there now.
    using HXString::replaceCharactersInRange;
    void replaceCharactersInRange(HXRange range, const HXReplacement &string,
                                  HXRange *editedRange = nullptr, HXRange *affectedRange = nullptr,
                                  HXRange *replacementRange = nullptr) override;
    // Takes markup, recognized definitions and a copy of the other's text.
    void setToString(const HXString &other);
    // Brings the text into another markup: each prefix rewritten for the new tags, lists
    // numbered across paragraphs, everything parsed anew.
    void setMarkup(const std::shared_ptr<HXMarkup> &markup);
    void setRecognizedDefinitions(HXDefinitionSelector recognizedDefinitions);
    void markupChangedStructure(HXMarkup &markup) override;
    // Appends a paragraph of the same markup behind a line feed.
    void appendParagraph(const HXParagraphRef &paragraph);
    void setBookmark(const HXBookmarkRef &bookmark, quint64 paragraphIndex);

    void addStringObserver(const std::shared_ptr<HXStringObserver> &observer);
    void removeStringObserver(const std::shared_ptr<HXStringObserver> &observer);

    // Undo: a string records its changes only with an undo manager.
    std::shared_ptr<HXUndoManager> undoManager() const;
    void setUndoManager(const std::shared_ptr<HXUndoManager> &undoManager);
    // The next change starts an undo step of its own.
    void breakUndoCoalescing();
    // Forgets every undo step; a change of markup does this, as old steps no longer fit.
    void clearUndoHistory();
    // Records the change of characters: the old text of the edited range and what replaced it.
    void trackUndoForChangeInRange(HXRange editedRange, const HXString &replacedText,
                                   HXRange replacementRange);
    void willChangeValueOfAttribute(const QString &attributeIdentifier,
                                    const HXTextElement &element);
    void trackUndoForChangeOfAttributes(const QStringList &attributeIdentifiers,
                                        const HXTextElement &element);
    // The door for attributes of the string's elements: sets a string or URL value, or removes
    // it for an invalid value, after telling undo and the observers.
    void setAttributeValue(const QVariant &value, const QString &attributeIdentifier,
                           const HXTextElement &element);

    // The context of the tree: no lock of its own, blocks run at once.
    void read(const std::function<void()> &block) override { block(); }
    void write(const std::function<void()> &block) override { block(); }
    // Finds the element that owns the attributes, here or in the nested strings of this
    // string's elements, and records the change for undo and the observers.
    void attributeWillChange(const HXAttributeDictionary &attributes, const QString &key) override;

    // Whether one of this string's own elements has the attributes.
    bool containsAttributes(const HXAttributeDictionary &attributes) const;

protected:
    // Swaps the markup and moves this string's observation to the new one.
    void setMarkupObserved(const std::shared_ptr<HXMarkup> &markup);

private:
    void notifyObservers(HXRange range, const HXReplacement &replacement, HXRange editedRange,
                         HXRange affectedRange, HXRange replacementRange);
    template<typename F>
    void forEachObserver(F &&function);
    // The editing door without the lock.
    void replaceLocked(HXRange range, const HXReplacement &string, HXRange *editedRange,
                       HXRange *affectedRange, HXRange *replacementRange);
    HXReplacement preparedString(const HXReplacement &string) const;

    void clearCurrentOperations();
    void undoGroupOpened();

    std::vector<std::weak_ptr<HXStringObserver>> m_observers;
    std::shared_ptr<HXUndoManager> m_undoManager;
    std::shared_ptr<HXTextUndoOperation> m_currentTextOperation;
    std::shared_ptr<HXAttributeUndoOperation> m_currentAttributeOperation;
};

using HXMutableStringRef = std::shared_ptr<HXMutableString>;
