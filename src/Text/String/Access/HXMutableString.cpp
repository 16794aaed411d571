#include "Text/String/Access/HXMutableString.h"

#include "Text/String/Access/HXAtomicString.h"
#include "Text/String/Parser/HXTextParser.h"
#include "Text/String/Undo/HXAttributeUndoOperation.h"
#include "Text/String/Undo/HXTextUndoOperation.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXLineEnds.h"
#include "Utilities/HXUndoManager.h"
#include "Utilities/HXXMLElement.h"

namespace {

bool endsInLineFeed(const HXChunk &string) {
    const quint64 length = string.length();
    return length > 0 && string.characterAtIndex(length - 1) == QLatin1Char('\n');
}

bool endsInLineFeed(const HXReplacement &string) {
    if (const HXString *text = string.string()) {
        const quint64 length = text->length();
        return length > 0 && text->characterAtIndex(length - 1) == QLatin1Char('\n');
    }
    return string.text().endsWith(QLatin1Char('\n'));
}

// The lines of a new text, each with its line feed, and an empty last line behind a final one:
// ranges of one buffer for plain text, the paragraphs of a string.
QList<HXChunk> linesOfString(const HXReplacement &string) {
    QList<HXChunk> lines;
    if (const HXString *text = string.string()) {
        for (const HXChunk &paragraph : text->allChunks())
            lines.append(paragraph);
        if (lines.isEmpty() || endsInLineFeed(lines.last()))
            lines.append(HXChunk(QStringLiteral("")));
        return lines;
    }
    const HXChunk whole(string.text());
    const QStringView text = whole.view();
    qsizetype start = 0;
    for (;;) {
        const qsizetype lineFeed = text.indexOf(QLatin1Char('\n'), start);
        if (lineFeed < 0) {
            lines.append(
                whole.substringWithRange(HXRange{quint64(start), quint64(text.size() - start)}));
            break;
        }
        lines.append(
            whole.substringWithRange(HXRange{quint64(start), quint64(lineFeed + 1 - start)}));
        start = lineFeed + 1;
    }
    return lines;
}

} // namespace

HXMutableString::~HXMutableString() {
    if (m_undoManager)
        m_undoManager->removeGroupOpenedObserver(this);
}

std::shared_ptr<HXMutableString>
HXMutableString::stringWithMarkup(const std::shared_ptr<HXMarkup> &markup,
                                  HXDefinitionSelector recognizedDefinitions) {
    auto string = std::make_shared<HXMutableString>();
    setUpString(string, markup, recognizedDefinitions);
    return string;
}

void HXMutableString::setUpString(const std::shared_ptr<HXMutableString> &string,
                                  const std::shared_ptr<HXMarkup> &markup,
                                  HXDefinitionSelector recognizedDefinitions) {
    string->m_recognizedDefinitions = recognizedDefinitions;
    string->setMarkupObserved(markup);
    string->setLockingContext(std::weak_ptr<HXLockingContext>(string));
}

void HXMutableString::setMarkupObserved(const std::shared_ptr<HXMarkup> &markup) {
    const auto self = std::dynamic_pointer_cast<HXMarkupObserver>(weak_from_this().lock());
    if (m_markup && self)
        m_markup->removeMarkupObserver(self);
    m_markup = markup;
    if (m_markup && self)
        m_markup->addMarkupObserver(self);
}

// --- The editing door -----------------------------------------------------------------------

void HXMutableString::replaceCharactersInRange(HXRange range, const HXReplacement &string,
                                               HXRange *editedRange, HXRange *affectedRange,
                                               HXRange *replacementRange) {
    writing([&] { replaceLocked(range, string, editedRange, affectedRange, replacementRange); });
}

HXReplacement HXMutableString::preparedString(const HXReplacement &string) const {
    if (const HXString *text = string.string()) {
        // Pasted paragraphs become paragraphs of this string: its markup and what it recognizes,
        // parsed anew where either differs.
        auto copy = text->mutableCopy();
        if (copy->markup() != m_markup)
            copy->setMarkup(m_markup);
        if (copy->recognizedDefinitions() != m_recognizedDefinitions)
            copy->setRecognizedDefinitions(m_recognizedDefinitions);
        return HXReplacement(std::shared_ptr<const HXString>(std::move(copy)));
    }
    return HXReplacement(
        HXXMLStringByRemovingForbiddenCharacters(HXStringByNormalizingLineEnds(string.text())));
}

void HXMutableString::replaceLocked(HXRange range, const HXReplacement &string,
                                    HXRange *editedRange, HXRange *affectedRange,
                                    HXRange *replacementRange) {
    const quint64 total = HXChunkString::length();
    HX_ASSERT(range.max() <= total, u"Range %@ out of bounds of string of length %lu.",
              range.description(), total);

    // 3. The new text, in this markup and without characters the file format can't hold. It
    // comes first here so that the merge below knows whether it ends in a line feed.
    const HXReplacement prepared = preparedString(string);
    if (range.length == 0 && prepared.length() == 0) {
        // Nothing changes: no step for undo, nothing to tell.
        for (HXRange *output : {editedRange, affectedRange, replacementRange}) {
            if (output)
                *output = range;
        }
        return;
    }
    const bool newEndsInLineFeed = endsInLineFeed(prepared);

    // 1. The paragraphs touched; a range that takes a paragraph's line feed draws in the next.
    HXRange paragraphs = paragraphRangeForRange(range);
    if (range.max() == paragraphs.max() && paragraphs.max() < total && !newEndsInLineFeed)
        paragraphs = chunkRangeForRange(HXRange{paragraphs.location, paragraphs.length + 1});

    // 2. The old text, for undo.
    std::shared_ptr<HXString> oldText;
    if (m_undoManager)
        oldText = stringWithRange(paragraphs);

    HXRange edited = range, affected = range, replacement{range.location, prepared.length()};
    const HXChunk first = paragraphs.length > 0 ? chunkAtIndex(paragraphs.location) : HXChunk();
    const bool oneParagraph = first && first.length() == paragraphs.length;
    const bool newHasLineFeed =
        !prepared.string() ? prepared.text().contains(QLatin1Char('\n'))
                           : prepared.string()->allChunks().size() > 1 || newEndsInLineFeed;

    if (oneParagraph && !newHasLineFeed) {
        // 4. One paragraph takes the edit.
        const HXParagraphRef paragraph = first.pointerAs<HXParagraph>();
        HXChunk text = prepared.string() ? HXChunk() : HXChunk(prepared.text());
        if (const HXString *newText = prepared.string())
            text = newText->allChunks().isEmpty() ? HXChunk(QStringLiteral(""))
                                                  : newText->allChunks().first();
        paragraph->replaceCharactersInRange(
            HXRange{range.location - paragraphs.location, range.length}, text, &edited, &affected,
            &replacement);
        edited.location += paragraphs.location;
        affected.location += paragraphs.location;
        replacement.location += paragraphs.location;
        replaceChunksInRange(paragraphs,
                             paragraph->length() > 0 ? QList<HXChunk>{first} : QList<HXChunk>{});
    } else {
        // 5. The rest of the last paragraph behind the range, with its structure.
        HXRef<HXChunkString> rest;
        QList<HXParagraphRef> oldParagraphs;
        enumerateChunksInRange(paragraphs, 0, [&](const HXChunk &chunk, HXRange, bool &) {
            oldParagraphs.append(chunk.pointerAs<HXParagraph>());
        });
        if (!oldParagraphs.isEmpty() && range.max() < paragraphs.max()) {
            const HXParagraphRef &last = oldParagraphs.last();
            const quint64 lastKey = paragraphs.max() - last->length();
            rest =
                last->copyWithRange(HXRange{range.max() - lastKey, paragraphs.max() - range.max()});
        }

        // 6. The lines of the new text.
        const QList<HXChunk> lines = linesOfString(prepared);

        // 7. The first line goes into the first paragraph, the others make paragraphs.
        QList<HXParagraphRef> newParagraphs;
        auto paragraphOfLine = [&](const HXChunk &line) -> HXParagraphRef {
            if (auto paragraph = line.pointerAs<HXParagraph>())
                return paragraph;
            return HXParagraph::paragraphWithText(line, m_markup, m_recognizedDefinitions);
        };
        // A deletion from the start of a paragraph into the next takes the paragraph away: what
        // stays of the next one stands in a paragraph of its own.
        const bool firstGoes = !oldParagraphs.isEmpty() && range.location == paragraphs.location &&
                               lines.size() == 1 && lines.first().length() == 0 && rest &&
                               rest->length() > 0;
        if (firstGoes) {
            const HXParagraphRef &paragraph = oldParagraphs.first();
            paragraph->replaceCharactersInRange(HXRange{0, paragraph->length()},
                                                HXChunk(QString()));
            newParagraphs.append(paragraphOfLine(lines.first()));
        } else if (!oldParagraphs.isEmpty()) {
            const HXParagraphRef &paragraph = oldParagraphs.first();
            const quint64 start = range.location - paragraphs.location;
            HXRange firstEdited;
            paragraph->replaceCharactersInRange(HXRange{start, paragraph->length() - start},
                                                lines.first(), &firstEdited);
            edited = HXUnionRange(
                edited, HXRange{firstEdited.location + paragraphs.location, firstEdited.length});
            newParagraphs.append(paragraph);
        } else {
            newParagraphs.append(paragraphOfLine(lines.first()));
        }
        for (qsizetype i = 1; i < lines.size() - 1; ++i)
            newParagraphs.append(paragraphOfLine(lines.at(i)));
        if (lines.size() > 1 && (lines.last().length() > 0 || (rest && rest->length() > 0)))
            newParagraphs.append(paragraphOfLine(lines.last()));
        if (rest && rest->length() > 0)
            newParagraphs.last()->appendChunkString(*rest);

        // 8. The first bookmark of the replaced paragraphs goes to the first new one, unless
        // that has one.
        if (!newParagraphs.first()->bookmark()) {
            for (const HXParagraphRef &paragraph : oldParagraphs) {
                if (paragraph->bookmark()) {
                    newParagraphs.first()->setBookmark(paragraph->bookmark());
                    break;
                }
            }
        }
        QList<HXChunk> chunks;
        quint64 newLength = 0;
        for (const HXParagraphRef &paragraph : newParagraphs) {
            if (paragraph->length() > 0) {
                chunks.append(HXChunk(paragraph));
                newLength += paragraph->length();
            }
        }
        replaceChunksInRange(paragraphs, chunks);
        affected = HXRange{range.location, paragraphs.max() - range.location};
        replacement = HXRange{range.location, paragraphs.location + newLength - range.location};
    }

    // 9. Undo. What undo replaces is the new text of the edited range: the replacement range
    // may be wider where only structure changed around it.
    if (m_undoManager && oldText) {
        const auto replacedText =
            oldText->stringWithRange(HXRange{edited.location - paragraphs.location, edited.length});
        const quint64 newTotal = HXChunkString::length();
        trackUndoForChangeInRange(edited, *replacedText,
                                  HXRange{edited.location, edited.length + newTotal - total});
    }

    // 10. The observers, then the outputs.
    notifyObservers(range, prepared, edited, affected, replacement);
    if (editedRange)
        *editedRange = edited;
    if (affectedRange)
        *affectedRange = affected;
    if (replacementRange)
        *replacementRange = replacement;
}

// --- Whole changes --------------------------------------------------------------------------

void HXMutableString::setToString(const HXString &other) {
    const std::shared_ptr<HXString> source = other.copy();
    writing([&] {
        const quint64 oldLength = HXChunkString::length();
        setMarkupObserved(source->markup());
        m_recognizedDefinitions = source->recognizedDefinitions();
        copyChunksFromString(*source);
        clearUndoHistory();
        notifyObservers(HXNotFoundRange(), HXReplacement(), HXNotFoundRange(),
                        HXRange{0, oldLength}, HXRange{0, HXChunkString::length()});
    });
}

void HXMutableString::setMarkup(const std::shared_ptr<HXMarkup> &markup) {
    writing([&] {
        const quint64 oldLength = HXChunkString::length();
        setMarkupObserved(markup);
        // Lists are numbered across paragraphs: a numbered grouping follows the last one of its
        // tag at its level.
        const QList<HXChunk> all = allChunks();
        for (qsizetype ordinal = 0; ordinal < all.size(); ++ordinal) {
            auto *paragraph = all.at(ordinal).as<HXParagraph>();
            const HXIndexProvider provider = [&](qsizetype level) -> quint64 {
                HXTextTagRef tag = paragraph->groupings().value(level);
                if (level >= paragraph->groupings().size() || !tag)
                    return 1;
                return lastEnumerationIndexOfGrouping(all, ordinal, &tag, level) + 1;
            };
            paragraph->setMarkup(markup, provider);
        }
        recomputeIndexes();
        clearUndoHistory();
        notifyObservers(HXRange{0, oldLength}, HXReplacement(), HXRange{0, oldLength},
                        HXRange{0, oldLength}, HXRange{0, HXChunkString::length()});
    });
}

void HXMutableString::setRecognizedDefinitions(HXDefinitionSelector recognizedDefinitions) {
    writing([&] {
        const quint64 oldLength = HXChunkString::length();
        m_recognizedDefinitions = recognizedDefinitions;
        for (const HXChunk &chunk : allChunks())
            chunk.as<HXParagraph>()->setRecognizedDefinitions(recognizedDefinitions);
        recomputeIndexes();
        clearUndoHistory();
        notifyObservers(HXRange{0, oldLength}, HXReplacement(), HXRange{0, oldLength},
                        HXRange{0, oldLength}, HXRange{0, HXChunkString::length()});
    });
}

void HXMutableString::markupChangedStructure(HXMarkup &markup) {
    HX_ASSERT(&markup == m_markup.get(), u"Invalid parameter not satisfying: %s",
              "markup == self.markup");
    setMarkup(m_markup);
}

void HXMutableString::appendParagraph(const HXParagraphRef &paragraph) {
    writing([&] {
        HX_ASSERT(paragraph->markup() == m_markup, u"Invalid markup");
        const quint64 start = HXChunkString::length();
        quint64 added = paragraph->length();
        if (start > 0 && HXChunkString::characterAtIndex(start - 1) != QLatin1Char('\n')) {
            const quint64 lastKey = chunkIndexLessThanIndex(start);
            const HXChunk last = chunkAtIndex(lastKey);
            last.as<HXParagraph>()->appendChunk(HXChunk(QStringLiteral("\n")));
            replaceChunksInRange(HXRange{lastKey, start - lastKey}, {last});
            added += 1;
        }
        appendChunk(HXChunk(paragraph));
        notifyObservers(HXRange{start, 0}, HXReplacement(paragraph->string()), HXRange{start, 0},
                        HXRange{start, 0}, HXRange{start, added});
    });
}

void HXMutableString::setBookmark(const HXBookmarkRef &bookmark, quint64 paragraphIndex) {
    writing([&] {
        forEachObserver([&](HXStringObserver &observer) {
            observer.stringWillChangeAttributesOfParagraphAtIndex(*this, paragraphIndex);
        });
        auto *paragraph = chunkAtIndex(paragraphIndex).as<HXParagraph>();
        HX_ASSERT(paragraph, u"No paragraph at index %lu.", paragraphIndex);
        paragraph->setBookmark(bookmark);
    });
}

// --- Observers ------------------------------------------------------------------------------

void HXMutableString::addStringObserver(const std::shared_ptr<HXStringObserver> &observer) {
    writing([&] { m_observers.push_back(observer); });
}

void HXMutableString::removeStringObserver(const std::shared_ptr<HXStringObserver> &observer) {
    writing([&] {
        std::erase_if(m_observers, [&](const std::weak_ptr<HXStringObserver> &entry) {
            const auto present = entry.lock();
            return !present || present == observer;
        });
    });
}

template<typename F>
void HXMutableString::forEachObserver(F &&function) {
    std::erase_if(m_observers,
                  [](const std::weak_ptr<HXStringObserver> &entry) { return entry.expired(); });
    // A copy, so that an observer may add or remove observers.
    const auto observers = m_observers;
    for (const auto &entry : observers) {
        if (const auto observer = entry.lock())
            function(*observer);
    }
}

void HXMutableString::notifyObservers(HXRange range, const HXReplacement &replacement,
                                      HXRange editedRange, HXRange affectedRange,
                                      HXRange replacementRange) {
    forEachObserver([&](HXStringObserver &observer) {
        observer.stringChangedCharactersInRange(*this, range, replacement, editedRange,
                                                affectedRange, replacementRange);
    });
}

// --- Undo ---------------------------------------------------------------------------------

std::shared_ptr<HXUndoManager> HXMutableString::undoManager() const {
    return reading([&] { return m_undoManager; });
}

void HXMutableString::setUndoManager(const std::shared_ptr<HXUndoManager> &undoManager) {
    writing([&] {
        if (m_undoManager)
            m_undoManager->removeGroupOpenedObserver(this);
        m_undoManager = undoManager;
        if (m_undoManager)
            m_undoManager->addGroupOpenedObserver(this, [this] { undoGroupOpened(); });
        clearCurrentOperations();
    });
}

void HXMutableString::clearCurrentOperations() {
    m_currentTextOperation.reset();
    m_currentAttributeOperation.reset();
}

void HXMutableString::undoGroupOpened() {
    clearCurrentOperations();
}

void HXMutableString::breakUndoCoalescing() {
    writing([&] { clearCurrentOperations(); });
}

void HXMutableString::clearUndoHistory() {
    clearCurrentOperations();
    if (m_undoManager)
        m_undoManager->removeAllActions();
}

void HXMutableString::trackUndoForChangeInRange(HXRange editedRange, const HXString &replacedText,
                                                HXRange replacementRange) {
    if (!m_undoManager)
        return;
    if (m_undoManager->isUndoing() || m_undoManager->isRedoing()) {
        clearCurrentOperations();
        HXTextUndoOperation::commitEditInString(*this, editedRange, replacedText, replacementRange);
        return;
    }
    if (m_currentTextOperation &&
        m_currentTextOperation->coalesceEditedRange(editedRange, replacedText, replacementRange))
        return;
    // Committing registers the undo, which opens a group and so clears the current operation;
    // the new one becomes current after that.
    auto operation =
        HXTextUndoOperation::commitEditInString(*this, editedRange, replacedText, replacementRange);
    m_currentTextOperation = std::move(operation);
}

void HXMutableString::willChangeValueOfAttribute(const QString &attributeIdentifier,
                                                 const HXTextElement &element) {
    HX_ASSERT(!attributeIdentifier.isNull(), u"Invalid parameter not satisfying: %s",
              "attributeIdentifier != nil");
    if (m_undoManager) {
        trackUndoForChangeOfAttributes({attributeIdentifier}, element);
        return;
    }
    // Without undo the observers still hear of it.
    const quint64 location = rangeOfTextElement(element).location;
    forEachObserver([&](HXStringObserver &observer) {
        observer.stringWillChangeAttributesOfElementAtIndex(*this, location);
    });
}

void HXMutableString::trackUndoForChangeOfAttributes(const QStringList &attributeIdentifiers,
                                                     const HXTextElement &element) {
    const HXRange range = rangeOfTextElement(element);
    if (m_undoManager->isUndoing() || m_undoManager->isRedoing()) {
        clearCurrentOperations();
        HXAttributeUndoOperation::commitEditInString(*this, element, attributeIdentifiers);
        notifyObservers(range, HXReplacement(), range, range, range);
        return;
    }
    forEachObserver([&](HXStringObserver &observer) {
        observer.stringWillChangeAttributesOfElementAtIndex(*this, range.location);
    });
    if (m_currentAttributeOperation && m_currentAttributeOperation->coalesceChangeOfAttributes(
                                           attributeIdentifiers, element, range.location))
        return;
    auto operation =
        HXAttributeUndoOperation::commitEditInString(*this, element, attributeIdentifiers);
    m_currentAttributeOperation = std::move(operation);
}

void HXMutableString::setAttributeValue(const QVariant &value, const QString &attributeIdentifier,
                                        const HXTextElement &element) {
    // The dictionary announces the change, which comes back here for undo and the observers.
    writing([&] {
        HX_ASSERT(element.attributes(), u"Element %@ has no attributes.", element.description());
        if (value.isValid())
            element.attributes()->setObject(value, attributeIdentifier);
        else
            element.attributes()->removeObjectForKey(attributeIdentifier);
    });
}

void HXMutableString::attributeWillChange(const HXAttributeDictionary &attributes,
                                          const QString &key) {
    HXTextElementRef owner;
    std::shared_ptr<HXMutableString> nestedOwner;
    enumerateAllElements(
        HXSelectorForScope(HXAttributedTextScope) | HXSelectorForScope(HXObjectScope),
        [&](const HXTextElementRef &element, HXRange, bool &stop) {
            const HXAttributeDictionaryRef &own = element->attributes();
            if (!own)
                return;
            if (own.get() == &attributes) {
                owner = element;
                stop = true;
                return;
            }
            // Nested strings share this string's lock, and so its announcements.
            for (const QString &identifier : own->sortedKeys()) {
                const auto nested = own->existingNestedStringForKey(identifier);
                if (nested && !nestedOwner && nested->containsAttributes(attributes))
                    nestedOwner = nested;
            }
            stop = bool(nestedOwner);
        });
    if (owner)
        willChangeValueOfAttribute(key, *owner);
    else if (nestedOwner)
        nestedOwner->attributeWillChange(attributes, key);
}

bool HXMutableString::containsAttributes(const HXAttributeDictionary &attributes) const {
    bool found = false;
    enumerateAllElements(HXSelectorForScope(HXAttributedTextScope) |
                             HXSelectorForScope(HXObjectScope),
                         [&](const HXTextElementRef &element, HXRange, bool &stop) {
                             found = stop = element->attributes().get() == &attributes;
                         });
    return found;
}
