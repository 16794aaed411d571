#include "TextSystem/Actor/HXTextActor.h"

#include "Text/String/Parser/HXTextParser.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXUndoManager.h"

#include <algorithm>
#include <atomic>
#include <numeric>

namespace {

std::atomic<bool> verifiesCacheFully{false};

// The text of the next item of a list whose last item's marker is `atomText`: its lead blanks and
// trailing blank kept, the number made for `index` by the tag's pattern.
QString markerForNextItem(const HXTextTagRef &tag, const QString &atomText, quint64 index) {
    qsizetype blanks = 0;
    while (blanks < 3 && blanks < atomText.size() && atomText.at(blanks) == QLatin1Char(' '))
        ++blanks;
    const QString plain = tag->plainStrings().value(0);
    QString marker = !plain.isNull() ? plain
                                     : HXTextParser::stringMatchingPattern(
                                           HXTextParser::patternForPart(0, tag.get()), index);
    if (marker.isNull())
        return atomText;
    const bool trailing = atomText.isEmpty() || atomText.endsWith(QLatin1Char(' '));
    return atomText.left(blanks) + marker + (trailing ? QStringLiteral(" ") : QString());
}

} // namespace

const std::shared_ptr<HXString> &HXTextActor::content() const {
    return m_target.textStorage().cachedContent();
}

const std::shared_ptr<HXMutableString> &HXTextActor::mutableContent() const {
    return m_target.textStorage().content();
}

void HXTextActor::setVerifiesCacheFully(bool verifies) {
    verifiesCacheFully = verifies;
}

// --- The one door ----------------------------------------------------------------------------

bool HXTextActor::performReplaceCharactersInRange(HXRange range, const HXReplacement &string) {
    return performReplaceCharactersInRanges(QList<HXRange>{range}, QList<HXReplacement>{string});
}

bool HXTextActor::performReplaceCharactersInRanges(const QList<HXRange> &ranges,
                                                   const HXReplacement &string) {
    QList<HXReplacement> replacements;
    for (qsizetype i = 0; i < ranges.size(); ++i)
        replacements.append(i == 0 ? string : HXReplacement(QString()));
    return performReplaceCharactersInRanges(ranges, replacements);
}

bool HXTextActor::performReplaceCharactersInRanges(const QList<HXRange> &ranges,
                                                   const QList<HXReplacement> &replacements) {
    HX_ASSERT(ranges.size() == replacements.size(), u"Invalid parameter not satisfying: %s",
              "ranges.count == replacements.count");
    if (ranges.isEmpty())
        return true;
    if (!m_target.shouldChangeTextInRanges(ranges, replacements))
        return false;
    HXTextStorage &storage = m_target.textStorage();
    const std::shared_ptr<HXMutableString> &live = storage.content();
    // On the typing path only what costs nothing: the twin has taken in every change the string
    // made, and the lengths agree.
    bool inStep =
        storage.changeCount() == storage.contentChangeCount() && live->length() == storage.length();
    if (inStep && verifiesCacheFully)
        inStep = storage.cachedContent()->isEqualToChunkString(*live->copy());
    HX_ASSERT(inStep, u"Cache mismatch before user text change!");

    QList<qsizetype> order(ranges.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(), [&](qsizetype a, qsizetype b) {
        return ranges.at(a).location > ranges.at(b).location;
    });
    const std::shared_ptr<HXUndoManager> undo = live->undoManager();
    live->breakUndoCoalescing();
    if (undo)
        undo->beginUndoGrouping();
    storage.beginEditing();
    for (qsizetype index : std::as_const(order))
        storage.replaceCharactersInRange(ranges.at(index), replacements.at(index));
    storage.endEditing();
    if (undo)
        undo->endUndoGrouping();
    live->breakUndoCoalescing();
    m_target.didChangeText();
    return true;
}

bool HXTextActor::performReplacements(QList<Replacement> replacements) {
    std::stable_sort(replacements.begin(), replacements.end(),
                     [](const Replacement &a, const Replacement &b) {
                         return a.range.location < b.range.location;
                     });
    QList<HXRange> ranges;
    QList<HXReplacement> strings;
    for (const Replacement &replacement : std::as_const(replacements)) {
        if (!ranges.isEmpty() && ranges.last().max() >= replacement.range.location) {
            // Two changes that meet make one, so that their order at that point is kept.
            HXRange &last = ranges.last();
            const QString joined = strings.last().text() + replacement.string;
            last = HXUnionRange(last, replacement.range);
            strings.last() = HXReplacement(joined);
            continue;
        }
        ranges.append(replacement.range);
        strings.append(HXReplacement(replacement.string));
    }
    return performReplaceCharactersInRanges(ranges, strings);
}

// --- Entities ----------------------------------------------------------------------------------

HXRange HXTextActor::innerRangeOfElement(const HXTextElement &element, HXRange range) const {
    const quint64 head = element.headAtom() ? element.headAtom()->length() : 0;
    const quint64 tail = element.isClosed() && !element.isObject() && element.tailAtom()
                             ? element.tailAtom()->length()
                             : 0;
    if (head + tail > range.length)
        return HXRange{range.max(), 0};
    return HXRange{range.location + head, range.length - head - tail};
}

bool HXTextActor::findTextEntityInRange(HXRange range, const EntityBlock &block) const {
    QList<QPair<HXTextElementRef, HXRange>> entities;
    content()->enumerateElementsInRange(
        range, HXSelectorForScope(HXAttributedTextScope) | HXSelectorForScope(HXObjectScope),
        [&](const HXTextElementRef &element, HXRange elementRange, bool &) {
            if (element->isEntity())
                entities.append({element, elementRange});
        });
    for (const auto &[element, elementRange] : std::as_const(entities)) {
        if (block(element, elementRange, innerRangeOfElement(*element, elementRange)))
            return true;
    }
    return false;
}

bool HXTextActor::destroyEntityInRange(HXRange range, bool select) {
    bool destroyed = false;
    findTextEntityInRange(range, [&](const HXTextElementRef &, HXRange entity, HXRange inner) {
        if (entity != range)
            return false;
        const HXReplacement text = inner.length > 0
                                       ? HXReplacement(content()->stringWithRange(inner))
                                       : HXReplacement(QString());
        destroyed = performReplaceCharactersInRange(entity, text);
        if (destroyed && select)
            m_target.setSelectedRange(m_target.textStorage().userEditedRange());
        return true;
    });
    return destroyed;
}

bool HXTextActor::performDeleteBackward() {
    const HXRange selection = m_target.selectedRange();
    if (selection.length > 0)
        return destroyEntityInRange(selection, true);
    if (selection.location == 0)
        return false;
    const quint64 cursor = selection.location;
    bool handled = false;
    findTextEntityInRange(HXRange{cursor - 1, 1},
                          [&](const HXTextElementRef &element, HXRange entity, HXRange inner) {
                              if (entity.max() == cursor) {
                                  m_target.setSelectedRange(entity);
                                  return handled = true;
                              }
                              // The end tag can't go by itself.
                              if (!element->isObject() && inner.max() == cursor)
                                  return handled = true;
                              return false;
                          });
    return handled;
}

bool HXTextActor::performDeleteForward() {
    const HXRange selection = m_target.selectedRange();
    if (selection.length > 0)
        return destroyEntityInRange(selection, true);
    const quint64 cursor = selection.location;
    if (cursor + 1 >= content()->length())
        return false;
    bool handled = false;
    findTextEntityInRange(HXRange{cursor, 1},
                          [&](const HXTextElementRef &element, HXRange entity, HXRange inner) {
                              if (entity.location == cursor) {
                                  m_target.setSelectedRange(entity);
                                  return handled = true;
                              }
                              if (!element->isObject() && inner.location == cursor)
                                  return handled = true;
                              return false;
                          });
    return handled;
}

bool HXTextActor::performInsertNewline() {
    const HXRange selection = m_target.selectedRange();
    bool handled = false;
    findTextEntityInRange(selection, [&](const HXTextElementRef &element, HXRange entity, HXRange) {
        if (entity == selection) {
            if (!element->definition()->attributes().isEmpty())
                m_target.beginEditingAttributesOfElementAtIndex(entity.location);
            else
                m_target.beep();
            return handled = true;
        }
        // A line break can't split an entity: Return inside one selects it.
        if (selection.location > entity.location && selection.max() < entity.max()) {
            m_target.setSelectedRange(entity);
            return handled = true;
        }
        return false;
    });
    return handled;
}

void HXTextActor::didInsertText(const QString &text) {
    const HXRange selection = m_target.selectedRange();
    if (text.isEmpty() || selection.location == 0)
        return;
    const quint64 last = selection.location - 1;
    findTextEntityInRange(HXRange{last, 1},
                          [&](const HXTextElementRef &element, HXRange entity, HXRange) {
                              if (element->definition()->attributes().isEmpty())
                                  return false;
                              if (entity.location != last && entity.max() - 1 != last)
                                  return false;
                              m_target.setSelectedRange(entity);
                              if (!element->definition()->noParsingInside())
                                  m_target.beginEditingAttributesOfElementAtIndex(entity.location);
                              return true;
                          });
}

HXRange HXTextActor::selectionRangeForProposedRange(HXRange proposed, HXRange previous) const {
    const bool forward = proposed.max() > previous.max() || proposed.location > previous.location;
    auto snap = [&](quint64 index) {
        quint64 result = index;
        const HXRange paragraph = content()->paragraphRangeForRange(HXRange{index, 0});
        content()->enumerateStringsAndAtomsInRange(paragraph, [&](const HXChunk &, bool isAtom,
                                                                  quint64 location, quint64 length,
                                                                  const HXOpenTags &, bool &stop) {
            if (location >= index)
                stop = true;
            else if (isAtom && index < location + length)
                result = forward ? location + length : location;
        });
        return result;
    };
    if (proposed.isNotFound() || content()->length() == 0)
        return proposed;
    const quint64 start = snap(proposed.location);
    const quint64 end = proposed.length > 0 ? std::max(start, snap(proposed.max())) : start;
    return HXRange{start, end - start};
}

// --- Lists ---------------------------------------------------------------------------------

quint64 HXTextActor::lastEnumerationIndex(quint64 paragraphLocation, qsizetype level,
                                          HXTextTagRef *tag, QString *atomText) const {
    const HXString &text = *content();
    const HXRange through = text.chunkRangeForRange(HXRange{paragraphLocation, 0});
    quint64 number = 0;
    text.enumerateChunksInRange(HXRange{0, through.max()}, HXChunkEnumerationReverse,
                                [&](const HXChunk &chunk, HXRange, bool &stop) {
                                    const auto *paragraph = chunk.as<HXParagraph>();
                                    if (!paragraph || paragraph->groupings().size() < level + 1) {
                                        stop = true;
                                        return;
                                    }
                                    const HXTextTagRef &grouping = paragraph->groupings().at(level);
                                    if (!grouping)
                                        return; // a continuation line of the item above
                                    stop = true;
                                    *tag = grouping;
                                    const QList<HXTextAtomRef> atoms = paragraph->groupTagStrings();
                                    *atomText = level < atoms.size() && atoms.at(level)
                                                    ? atoms.at(level)->string()
                                                    : QString();
                                    const qint64 index = HXTextParser::enumerationIndexForString(
                                        *atomText, HXTextParser::patternForPart(0, grouping.get()));
                                    number = index > 0 ? quint64(index) : 0;
                                });
    return number;
}

QString HXTextActor::continuationForGroupAtIndex(quint64 index, bool createItemIfPossible) const {
    const HXString &text = *content();
    const quint64 length = text.length();
    if (length == 0 || (index >= length && text.characterAtIndex(length - 1) == u'\n'))
        return QString();
    HXRange paragraphRange;
    const HXParagraphRef paragraph =
        text.paragraphAtIndex(std::min(index, length - 1), &paragraphRange);
    if (!paragraph)
        return QString();
    const quint64 offset = index - paragraphRange.location;
    const QList<HXTextAtomRef> atoms = paragraph->groupTagStrings();
    const QList<HXTextTagRef> &groupings = paragraph->groupings();
    QStringList entries;
    QList<HXTextTagRef> tags;
    quint64 at = 0;
    for (qsizetype level = 0; level < atoms.size() && level < groupings.size(); ++level) {
        const quint64 atomLength = atoms.at(level) ? atoms.at(level)->length() : 0;
        if (at + atomLength <= offset) {
            entries.append(atoms.at(level) ? atoms.at(level)->string() : QString());
            tags.append(groupings.at(level));
        }
        at += atomLength;
    }
    if (entries.isEmpty())
        return QString();
    const QString indentation = HXTextParser::patternForPart(0, nullptr);
    auto isList = [](const HXTextTagRef &tag) {
        return tag && tag->definition()->groupingType() == HXGroupingList;
    };
    for (qsizetype i = 0; i < entries.size() - 1; ++i) {
        if (isList(tags.at(i)))
            entries[i] = indentation;
    }
    const qsizetype last = entries.size() - 1;
    if (!tags.at(last) || isList(tags.at(last))) {
        if (!createItemIfPossible) {
            entries[last] = indentation;
        } else {
            HXTextTagRef tag;
            QString atomText;
            const quint64 number =
                lastEnumerationIndex(paragraphRange.location, last, &tag, &atomText);
            if (tag)
                entries[last] = markerForNextItem(tag, atomText, number + 1);
        }
    }
    return entries.join(QString());
}

quint64 HXTextActor::currentHeadingLevelForSelection() const {
    const HXString &text = *content();
    if (text.length() == 0)
        return 0;
    const HXParagraphRef paragraph =
        text.paragraphAtIndex(std::min(m_target.selectedRange().location, text.length() - 1));
    return paragraph && paragraph->tag() ? paragraph->tag()->definition()->headingLevel() : 0;
}

QList<QPair<HXParagraphRef, HXRange>> HXTextActor::paragraphsInRange(HXRange range) const {
    QList<QPair<HXParagraphRef, HXRange>> result;
    const HXString &text = *content();
    const quint64 length = text.length();
    if (length == 0)
        return result;
    if (range.location >= length) {
        if (text.characterAtIndex(length - 1) == u'\n')
            return result;
        range = HXRange{length - 1, 0};
    }
    const HXRange whole =
        text.chunkRangeForRange(HXRange{range.location, std::max<quint64>(range.length, 1)});
    text.enumerateChunksInRange(whole, 0, [&](const HXChunk &chunk, HXRange chunkRange, bool &) {
        result.append({chunk.pointerAs<HXParagraph>(), chunkRange});
    });
    return result;
}

HXRange HXTextActor::textRangeOfParagraph(const HXParagraph &paragraph, HXRange paragraphRange) {
    const quint64 prefix = paragraph.headChunk() ? paragraph.headChunk().length() : 0;
    const quint64 end = paragraphRange.max() - (paragraph.endsInLineFeed() ? 1 : 0);
    return HXRange{paragraphRange.location + prefix, end - paragraphRange.location - prefix};
}

void HXTextActor::modifySelectedParagraphsUsingBlock(const ParagraphBlock &block) {
    QList<HXRange> selections = m_target.selectedRanges();
    qint64 carried = 0;
    for (HXRange &selection : selections) {
        selection.location = quint64(qint64(selection.location) + carried);
        const auto paragraphs = paragraphsInRange(selection);
        if (paragraphs.isEmpty() && selection.location >= content()->length()) {
            // Behind a final line feed: a new empty paragraph takes the block.
            const quint64 before = content()->length();
            block(HXParagraph::paragraphWithString(QString(), content()->markup()), before, 0,
                  selection);
            const qint64 change = qint64(content()->length()) - qint64(before);
            carried += change;
            selection = HXRange{content()->length(), 0};
            continue;
        }
        qint64 shift = 0;
        bool first = true;
        for (const auto &[paragraph, range] : paragraphs) {
            const quint64 before = content()->length();
            const quint64 location = quint64(qint64(range.location) + shift);
            block(paragraph, location, range.length, selection);
            const qint64 change = qint64(content()->length()) - qint64(before);
            if (first) {
                // The selection's start moves by at most its distance to the paragraph.
                const qint64 distance = qint64(selection.location) - qint64(location);
                const qint64 move = change < 0 ? std::max(change, -distance) : change;
                selection.location = quint64(qint64(selection.location) + move);
                selection.length =
                    quint64(std::max<qint64>(0, qint64(selection.length) + change - move));
                first = false;
            } else {
                selection.length = quint64(std::max<qint64>(0, qint64(selection.length) + change));
            }
            shift += change;
        }
        carried += shift;
    }
    if (selections.size() >= 2)
        selections.removeIf([](const HXRange &range) { return range.length == 0; });
    m_target.setSelectedRanges(selections);
    m_target.didChangeText();
}
