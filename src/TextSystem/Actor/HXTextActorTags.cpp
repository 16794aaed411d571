#include "Text/String/Parser/HXTextParser.h"
#include "TextSystem/Actor/HXTextActor.h"

#include <algorithm>
#include <optional>

// Setting and taking away tags over the selection: line-level tags and groupings per paragraph,
// inline tags per paragraph piece, entities and objects.

namespace {

bool sameDefinition(const HXTextTagRef &a, const HXDefinitionRef &definition) {
    return a && a->definition() && definition &&
           a->definition()->identifier() == definition->identifier() &&
           a->definition()->scope() == definition->scope();
}

QString tagText(const HXTextTagRef &tag, qsizetype part) {
    return HXTextParser::stringMatchingPart(part, tag.get(), QString(), [] { return quint64(1); });
}

// Where a position of the text stands once the replacements, sorted by location, are made: an
// insertion at the position itself comes before it when `before` says so.
quint64 mapPosition(quint64 position, const QList<std::pair<HXRange, QString>> &replacements,
                    bool before) {
    qint64 shift = 0;
    for (const auto &[range, string] : replacements) {
        if (range.max() < position || (range.max() == position && (range.length > 0 || before)))
            shift += qint64(string.size()) - qint64(range.length);
        else if (range.location < position && position < range.max())
            return quint64(qint64(range.location) + shift) + quint64(string.size());
    }
    return quint64(qint64(position) + shift);
}

// The part of the range in the paragraph's own text; nothing where the range only touches the
// paragraph's prefix or line feed.
std::optional<HXRange> pieceInParagraph(const HXParagraph &paragraph, HXRange paragraphRange,
                                        HXRange range) {
    const HXRange text = HXTextActor::textRangeOfParagraph(paragraph, paragraphRange);
    const quint64 start = std::max(range.location, text.location);
    const quint64 end = std::min(range.max(), text.max());
    if (start > end || (start == end && range.length > 0))
        return std::nullopt;
    return HXRange{start, end - start};
}

} // namespace

bool HXTextActor::applyTagToSelection(const HXTextTagRef &tag) {
    if (!tag || !tag->definition())
        return false;
    switch (tag->definition()->scope()) {
    case HXHeadingScope:
    case HXParagraphScope:
    case HXGroupingScope:
        return applyParagraphTag(tag);
    case HXTextScope:
        return applyInlineTextTag(tag);
    case HXAttributedTextScope:
        return applyAttributedTextTag(tag);
    case HXObjectScope:
        return applyObjectTag(tag);
    default:
        return false;
    }
}

// --- Line-level tags -------------------------------------------------------------------------

bool HXTextActor::performSetGroupings(const QList<HXTextTagRef> &groupings, const HXTextTagRef &tag,
                                      const HXParagraphRef &paragraph, HXRange paragraphRange,
                                      const HXIndexProvider &indexProvider) {
    QString replacement;
    HXRange range;
    paragraph->getReplacement(&replacement, &range, groupings, tag, indexProvider);
    range.location += paragraphRange.location;
    return performReplaceCharactersInRange(range, replacement);
}

bool HXTextActor::applyParagraphTag(const HXTextTagRef &tag) {
    if (!tag || !tag->definition())
        return false;
    const HXDefinitionRef definition = tag->definition();
    const HXRange selection = m_target.selectedRanges().value(0, m_target.selectedRange());
    const auto paragraphs = paragraphsInRange(selection);
    if (paragraphs.isEmpty()) {
        // Behind the last line feed: the tag starts a new paragraph.
        const QString text = tagText(tag, 0);
        if (text.isEmpty() || !performReplaceCharactersInRange(selection, text))
            return false;
        m_target.setSelectedRange(HXRange{selection.location + quint64(text.size()), 0});
        return true;
    }
    const bool grouping = definition->groupingType() != HXGroupingNone;
    const HXParagraphRef &first = paragraphs.first().first;
    const bool remove = grouping ? (!first->groupings().isEmpty() &&
                                    sameDefinition(first->groupings().last(), definition))
                                 : sameDefinition(first->tag(), definition);
    QList<std::pair<HXRange, QString>> replacements;
    quint64 ordinal = 0;
    for (const auto &[paragraph, paragraphRange] : paragraphs) {
        QList<HXTextTagRef> groupings = paragraph->groupings();
        HXTextTagRef paragraphTag = paragraph->tag();
        if (grouping) {
            if (remove && !groupings.isEmpty() && sameDefinition(groupings.last(), definition))
                groupings.removeLast();
            else if (!remove)
                groupings.append(tag);
        } else {
            paragraphTag =
                remove ? (sameDefinition(paragraphTag, definition) ? nullptr : paragraphTag) : tag;
        }
        ++ordinal;
        const qsizetype newLevel = groupings.size() - 1;
        QString text;
        HXRange range;
        paragraph->getReplacement(
            &text, &range, groupings, paragraphTag,
            [&](qsizetype level) -> quint64 { return level == newLevel ? ordinal : 0; });
        range.location += paragraphRange.location;
        replacements.append({range, text});
    }
    const QList<HXRange> selections = m_target.selectedRanges();
    QList<Replacement> list;
    for (const auto &[range, text] : std::as_const(replacements))
        list.append(Replacement{range, text});
    if (!performReplacements(list))
        return false;
    QList<HXRange> moved;
    for (const HXRange &range : selections) {
        const quint64 start = mapPosition(range.location, replacements, true);
        const quint64 end = std::max(start, mapPosition(range.max(), replacements, true));
        moved.append(HXRange{start, end - start});
    }
    m_target.setSelectedRanges(moved);
    return true;
}

bool HXTextActor::addGroupingToSelection(const HXTextTagRef &tag) {
    const auto paragraphs = paragraphsInRange(m_target.selectedRange());
    if (!paragraphs.isEmpty() && !paragraphs.first().first->groupings().isEmpty() &&
        sameDefinition(paragraphs.first().first->groupings().last(), tag->definition()))
        return false;
    return applyParagraphTag(tag);
}

bool HXTextActor::removeGroupingFromSelection(const HXTextTagRef &tag) {
    const auto paragraphs = paragraphsInRange(m_target.selectedRange());
    if (paragraphs.isEmpty() || paragraphs.first().first->groupings().isEmpty() ||
        !sameDefinition(paragraphs.first().first->groupings().last(), tag->definition()))
        return false;
    return applyParagraphTag(tag);
}

bool HXTextActor::applyTextIndentationOnParagraph(const HXParagraphRef &paragraph,
                                                  HXRange paragraphRange, HXRange selectionRange,
                                                  bool shouldAdd) {
    Q_UNUSED(selectionRange);
    QList<HXTextTagRef> groupings = paragraph->groupings();
    if (shouldAdd)
        groupings.prepend(nullptr);
    else if (!groupings.isEmpty() && !groupings.first())
        groupings.removeFirst();
    else
        return false;
    return performSetGroupings(groupings, paragraph->tag(), paragraph, paragraphRange, {});
}

// --- Inline tags -----------------------------------------------------------------------------

HXRange HXTextActor::rangeForApplyingTag(const HXTextTagRef &tag, HXRange range,
                                         bool *shouldAdd) const {
    const HXString &text = *content();
    const HXDefinitionRef definition = tag->definition();
    if (shouldAdd)
        *shouldAdd = true;
    if (text.length() == 0)
        return range;
    if (range.length > 0 && text.characterAtIndex(range.max() - 1) == u'\n')
        --range.length;
    const auto paragraphs = paragraphsInRange(range);
    if (!paragraphs.isEmpty() && paragraphs.first().first->noParsingInside())
        return HXNotFoundRange();
    // Taken away where every paragraph's piece of the range lies in an element of the
    // definition; elements that touch the range join it.
    QList<HXRange> elements;
    HXRange grown = range;
    text.enumerateElementsInRange(
        range, HXSelectorForScope(definition->scope()),
        [&](const HXTextElementRef &element, HXRange elementRange, bool &) {
            if (!element->definition() ||
                element->definition()->identifier() != definition->identifier())
                return;
            elements.append(elementRange);
            grown = HXUnionRange(grown, elementRange);
        });
    bool covered = !elements.isEmpty();
    for (const auto &[paragraph, paragraphRange] : paragraphs) {
        const std::optional<HXRange> found = pieceInParagraph(*paragraph, paragraphRange, range);
        if (!found)
            continue;
        const HXRange piece = *found;
        covered = covered && std::any_of(elements.cbegin(), elements.cend(), [&](HXRange element) {
                      return element.containsRange(piece);
                  });
    }
    if (shouldAdd)
        *shouldAdd = !covered;
    return grown;
}

bool HXTextActor::applyInlineTextTag(const HXTextTagRef &tag) {
    if (!tag || !tag->definition())
        return false;
    const HXDefinitionRef definition = tag->definition();
    const QList<HXRange> selections = m_target.selectedRanges();
    bool shouldAdd = true;
    const HXRange first = rangeForApplyingTag(tag, selections.value(0), &shouldAdd);
    if (first.isNotFound())
        return false;
    const QString startText = tagText(tag, 0), endText = tagText(tag, 1);
    const HXString &text = *content();

    QList<std::pair<HXRange, QString>> replacements;
    auto replace = [&](HXRange range, const QString &string) {
        replacements.append({range, string});
    };
    HXRange inside = HXNotFoundRange(); // where the selection goes: the first piece's text
    for (qsizetype s = 0; s < selections.size(); ++s) {
        const HXRange range = s == 0 ? first : rangeForApplyingTag(tag, selections.at(s), nullptr);
        if (range.isNotFound())
            continue;
        for (const auto &[paragraph, paragraphRange] : paragraphsInRange(range)) {
            if (paragraph->noParsingInside())
                continue;
            const std::optional<HXRange> piece =
                pieceInParagraph(*paragraph, paragraphRange, range);
            if (!piece)
                continue;
            const quint64 start = piece->location, end = piece->max();
            // The elements of the definition in this piece, with their ranges.
            QList<QPair<HXTextElementRef, HXRange>> elements;
            text.enumerateElementsInRange(
                HXRange{start, end - start}, HXSelectorForScope(definition->scope()),
                [&](const HXTextElementRef &element, HXRange elementRange, bool &) {
                    if (element->definition() &&
                        element->definition()->identifier() == definition->identifier())
                        elements.append({element, elementRange});
                });
            auto headRange = [](const HXTextElement &element, HXRange range) {
                return HXRange{range.location,
                               element.headAtom() ? element.headAtom()->length() : 0};
            };
            auto tailRange = [](const HXTextElement &element, HXRange range) {
                const quint64 length =
                    element.isClosed() && element.tailAtom() ? element.tailAtom()->length() : 0;
                return HXRange{range.max() - length, length};
            };
            if (shouldAdd) {
                if (start == end && elements.isEmpty()) {
                    // A collapsed selection gets both tags and the cursor between them.
                    replace(HXRange{start, 0}, startText + endText);
                    if (inside.isNotFound())
                        inside = HXRange{start + quint64(startText.size()), 0};
                    continue;
                }
                HXRange united{start, end - start};
                for (const auto &[element, elementRange] : std::as_const(elements))
                    united = HXUnionRange(united, elementRange);
                bool keepsHead = false, keepsTail = false;
                for (const auto &[element, elementRange] : std::as_const(elements)) {
                    const HXRange head = headRange(*element, elementRange);
                    const HXRange tail = tailRange(*element, elementRange);
                    if (elementRange.location == united.location && !keepsHead)
                        keepsHead = true;
                    else if (head.length > 0)
                        replace(head, QString());
                    if (tail.length > 0 && elementRange.max() == united.max() && !keepsTail)
                        keepsTail = true;
                    else if (tail.length > 0)
                        replace(tail, QString());
                }
                if (!keepsHead)
                    replace(HXRange{united.location, 0}, startText);
                if (!keepsTail)
                    replace(HXRange{united.max(), 0}, endText);
                if (inside.isNotFound())
                    inside = united;
            } else {
                for (const auto &[element, elementRange] : std::as_const(elements)) {
                    const HXRange inner = innerRangeOfElement(*element, elementRange);
                    const quint64 from = std::max(start, inner.location);
                    const quint64 to = std::min(std::max(end, from), inner.max());
                    // What lies outside the piece keeps the tag.
                    if (from > inner.location)
                        replace(HXRange{from, 0}, endText);
                    else
                        replace(headRange(*element, elementRange), QString());
                    if (to < inner.max())
                        replace(HXRange{to, 0}, startText);
                    else if (tailRange(*element, elementRange).length > 0)
                        replace(tailRange(*element, elementRange), QString());
                    if (inside.isNotFound())
                        inside = HXRange{from, to - from};
                }
            }
        }
    }
    if (replacements.isEmpty())
        return false;
    std::stable_sort(replacements.begin(), replacements.end(), [](const auto &a, const auto &b) {
        return a.first.location < b.first.location;
    });
    QList<Replacement> list;
    for (const auto &[range, string] : std::as_const(replacements))
        list.append(Replacement{range, string});
    if (!performReplacements(list))
        return false;
    if (inside.isNotFound())
        return true;
    if (inside.length == 0 && shouldAdd) {
        m_target.setSelectedRange(inside);
        return true;
    }
    const quint64 from = mapPosition(inside.location, replacements, !shouldAdd);
    const quint64 to = std::max(from, mapPosition(inside.max(), replacements, false));
    HXRange selected{from, to - from};
    if (shouldAdd) {
        // The text of the element the first piece became.
        content()->enumerateElementsInRange(
            HXRange{from + 1, 0}, HXSelectorForScope(definition->scope()),
            [&](const HXTextElementRef &element, HXRange range, bool &) {
                if (element->definition() &&
                    element->definition()->identifier() == definition->identifier())
                    selected = innerRangeOfElement(*element, range);
            });
    }
    m_target.setSelectedRange(selected);
    return true;
}

// --- Entities and objects ----------------------------------------------------------------------

bool HXTextActor::performInsertAndEditElement(const HXTextElementRef &element) {
    const HXRange selection = m_target.selectedRange();
    const std::shared_ptr<HXString> string = HXString::stringWithTextElement(element);
    if (!performReplaceCharactersInRange(selection, HXReplacement(string)))
        return false;
    const HXRange inserted{selection.location, string->length()};
    m_target.setSelectedRange(inserted);
    m_target.beginEditingAttributesOfElementAtIndex(inserted.location);
    return true;
}

bool HXTextActor::applyAttributedTextTag(const HXTextTagRef &tag) {
    const HXRange selection = m_target.selectedRange();
    const HXString &text = *content();
    if (selection.length == 0 || text.flatSubstringWithRange(selection).contains(u'\n'))
        return false;
    if (destroyEntityInRange(selection, true))
        return true;
    const QString title = text.flatSubstringWithRange(selection);
    return performInsertAndEditElement(
        HXTextElement::elementWithURLString(QString(), title, tag, text.markup()));
}

bool HXTextActor::applyObjectTag(const HXTextTagRef &tag) {
    return performInsertAndEditElement(
        HXTextElement::elementWithAttributes({}, tag, content()->markup()));
}

bool HXTextActor::removeAllTagsInSelection() {
    const HXRange selection = m_target.selectedRange();
    const HXString &text = *content();
    QList<Replacement> replacements;
    for (const auto &[paragraph, range] : paragraphsInRange(selection)) {
        if (paragraph->headChunk())
            replacements.append(
                Replacement{HXRange{range.location, paragraph->headChunk().length()}, QString()});
    }
    HXRange covered = HXNotFoundRange();
    text.enumerateElementsInRange(
        selection,
        HXSelectorForScope(HXTextScope) | HXSelectorForScope(HXAttributedTextScope) |
            HXSelectorForScope(HXObjectScope),
        [&](const HXTextElementRef &element, HXRange range, bool &) {
            if (!covered.isNotFound() && covered.containsRange(range))
                return; // inside an entity that goes whole
            const HXRange inner = innerRangeOfElement(*element, range);
            if (element->isEntity()) {
                replacements.append(Replacement{
                    range, element->isObject() ? QString() : text.flatSubstringWithRange(inner)});
                covered = range;
                return;
            }
            if (inner.location > range.location)
                replacements.append(
                    Replacement{HXRange{range.location, inner.location - range.location}, {}});
            if (range.max() > inner.max())
                replacements.append(
                    Replacement{HXRange{inner.max(), range.max() - inner.max()}, {}});
        });
    if (replacements.isEmpty())
        return false;
    return performReplacements(replacements);
}
