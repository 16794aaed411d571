#include "Text/String/Access/HXString.h"

#include "Text/Markup/HXMarkup.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Text/String/Atoms/HXTextAtom.h"
#include "Text/String/Parser/HXTextParser.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXDescription.h"
#include "Utilities/HXLineEnds.h"
#include "Utilities/HXXMLElement.h"

namespace {

bool tagMatchesScopes(const HXTextTagRef &tag, HXDefinitionSelector scopes) {
    return tag && (scopes & HXSelectorForScope(tag->definition()->scope()));
}

} // namespace

HXString::HXString(std::shared_ptr<HXMarkup> markup, HXDefinitionSelector recognizedDefinitions)
    : HXChunkString(HXStringObjectKind::String)
    , m_markup(std::move(markup))
    , m_recognizedDefinitions(recognizedDefinitions) {}

HXString::~HXString() = default;

std::shared_ptr<HXString> HXString::stringWithString(const QString &text,
                                                     const std::shared_ptr<HXMarkup> &markup,
                                                     HXDefinitionSelector recognizedDefinitions) {
    // The text as the editing door would take it in, a paragraph made once for each line and
    // handed over: none behind a final line feed.
    // All lines are ranges of one buffer, which their plain text goes on sharing.
    const HXChunk prepared(
        HXXMLStringByRemovingForbiddenCharacters(HXStringByNormalizingLineEnds(text)));
    const QStringView characters = prepared.view();
    std::vector<HXChunk> paragraphs;
    qsizetype start = 0;
    while (start < characters.size()) {
        qsizetype end = characters.indexOf(QLatin1Char('\n'), start);
        end = end < 0 ? characters.size() : end + 1;
        paragraphs.emplace_back(HXParagraph::paragraphWithText(
            prepared.substringWithRange(HXRange{quint64(start), quint64(end - start)}), markup,
            recognizedDefinitions));
        start = end;
    }
    auto string = std::make_shared<HXString>(markup, recognizedDefinitions);
    string->setAllChunks(paragraphs.data(), paragraphs.size(), false, false);
    return string;
}

std::shared_ptr<HXString> HXString::stringWithTextElement(const HXTextElementRef &element) {
    auto string = std::make_shared<HXString>(element->markup());
    auto paragraph = HXParagraph::paragraphWithString(QString(), element->markup());
    paragraph->appendChunk(HXChunk(element));
    string->appendChunk(HXChunk(paragraph));
    return string;
}

std::shared_ptr<HXMarkup> HXString::markup() const {
    return reading([&] { return m_markup; });
}

HXDefinitionSelector HXString::recognizedDefinitions() const {
    return reading([&] { return m_recognizedDefinitions; });
}

quint64 HXReplacement::length() const {
    return m_string ? m_string->length() : quint64(m_text.size());
}

QString HXReplacement::characters() const {
    return m_string ? m_string->string() : m_text;
}

// --- Reading --------------------------------------------------------------------------------

quint64 HXString::length() const {
    return reading([&] { return HXChunkString::length(); });
}

QChar HXString::characterAtIndex(quint64 index) const {
    return reading([&] { return HXChunkString::characterAtIndex(index); });
}

void HXString::getCharacters(QChar *buffer, HXRange range) const {
    reading([&] { HXChunkString::getCharacters(buffer, range); });
}

QString HXString::string() const {
    return reading([&] { return HXChunkString::string(); });
}

std::shared_ptr<HXString> HXString::copy() const {
    return reading([&] { return stringWithRange(HXRange{0, HXChunkString::length()}); });
}

std::shared_ptr<HXMutableString> HXString::mutableCopy() const {
    auto copy = HXMutableString::stringWithMarkup(markup(), recognizedDefinitions());
    copy->setToString(*this);
    return copy;
}

HXRef<HXChunkString> HXString::copyWithRange(HXRange) const {
    HX_ASSERT(false, u"A string is copied with stringWithRange, never as a chunk.");
    return nullptr;
}

void HXString::initWithChunkString(const HXChunkString &other, HXRange range) {
    HXChunkString::initWithChunkString(other, range);
    const auto &source = static_cast<const HXString &>(other);
    m_markup = source.m_markup;
    m_recognizedDefinitions = source.m_recognizedDefinitions;
}

std::shared_ptr<HXString> HXString::stringWithRange(HXRange range) const {
    return reading([&] {
        auto copy = std::make_shared<HXString>();
        copy->initWithChunkString(*this, range);
        return copy;
    });
}

void HXString::setLockingContext(const std::weak_ptr<HXLockingContext> &context) {
    m_lockingContext = context;
    HXChunkString::setLockingContext(context);
}

void HXString::adopt(const HXChunk &chunk) const {
    // Only attributes keep the context, and only a string that has one passes it on.
    if (HXChunkString *nested = chunk.chunkString(); nested && !m_lockingContext.expired())
        nested->setLockingContext(m_lockingContext);
}

std::shared_ptr<HXString> HXString::substringWithRanges(const QList<HXRange> &ranges) const {
    return reading([&] {
        auto result = std::make_shared<HXString>(m_markup, m_recognizedDefinitions);
        for (qsizetype i = 0; i < ranges.size(); ++i) {
            QList<HXParagraphRef> pieces;
            enumerateChunksInRange(
                ranges.at(i), HXChunkEnumerationClippedToRange | HXChunkEnumerationCopyingChunks,
                [&](const HXChunk &chunk, HXRange, bool &) {
                    if (auto paragraph = chunk.pointerAs<HXParagraph>())
                        pieces.append(paragraph);
                });
            for (qsizetype p = 0; p < pieces.size(); ++p) {
                const HXParagraphRef &piece = pieces.at(p);
                piece->setBookmark(nullptr);
                if (p == pieces.size() - 1 && i < ranges.size() - 1 && !piece->endsInLineFeed())
                    piece->appendChunk(HXChunk(QStringLiteral("\n")));
                result->appendChunk(HXChunk(piece));
            }
        }
        return result;
    });
}

// --- Structure ------------------------------------------------------------------------------

QList<HXParagraphRef> HXString::paragraphs() const {
    return reading([&] {
        QList<HXParagraphRef> result;
        for (const HXChunk &chunk : allChunks())
            result.append(chunk.pointerAs<HXParagraph>());
        return result;
    });
}

HXParagraphRef HXString::paragraphAtIndex(quint64 index, HXRange *paragraphRange) const {
    return reading([&]() -> HXParagraphRef {
        const quint64 key = chunkIndexLessThanOrEqualToIndex(index);
        const HXParagraphRef paragraph =
            key == HXNotFound ? nullptr : chunkAtIndex(key).pointerAs<HXParagraph>();
        if (paragraphRange)
            *paragraphRange =
                paragraph ? HXRange{key, paragraph->length()} : HXRange{HXChunkString::length(), 0};
        return paragraph;
    });
}

HXRange HXString::paragraphRangeForRange(HXRange range) const {
    return reading([&] {
        const quint64 total = HXChunkString::length();
        if (range.length == 0 && range.location >= total) {
            if (total == 0 || HXChunkString::characterAtIndex(total - 1) == QLatin1Char('\n'))
                return HXRange{total, 0};
            return chunkRangeForRange(HXRange{total - 1, 0});
        }
        return chunkRangeForRange(range);
    });
}

HXRange HXString::enumerateParagraphsInRange(HXRange range, const ParagraphBlock &block) const {
    return const_cast<HXString *>(this)->enumerateParagraphsInRange(range, 0, block);
}

HXRange HXString::enumerateParagraphsInRange(HXRange range, quint64 options,
                                             const ParagraphBlock &block) {
    const bool modifying = options & HXStringEnumerationWithModificationOption;
    HX_ASSERT(!modifying || isMutable(),
              u"HXStringEnumerationWithModificationOption passed to an enumeration of an "
              u"immutable string!");
    auto walk = [&] {
        const HXRange visited = range.length == 0 && range.location >= HXChunkString::length()
                                    ? HXRange{range.location, 0}
                                    : chunkRangeForRange(range);
        quint64 position = visited.location;
        qint64 end = qint64(visited.max());
        while (qint64(position) < end) {
            const HXParagraphRef paragraph = chunkAtIndex(position).pointerAs<HXParagraph>();
            if (!paragraph)
                break;
            const quint64 oldLength = paragraph->length();
            bool stop = false;
            block(paragraph, position, oldLength, stop);
            const quint64 newLength = paragraph->length();
            if (newLength != oldLength) {
                HX_ASSERT(modifying,
                          u"Supply HXStringEnumerationWithModificationOption as option to "
                          u"-enumerateParagraphsInRange:options:usingBlock: in order to allow "
                          u"modifications.");
                const HXChunk standing = chunkAtIndex(position);
                const quint64 next = chunkIndexGreaterThanIndex(position);
                const bool consistent = newLength == 0
                                            ? !standing.isIdenticalTo(HXChunk(paragraph))
                                            : next != HXNotFound && next - position == newLength;
                HX_ASSERT(consistent,
                          u"Modification to paragraph not performed through string API!");
            }
            position += newLength;
            end += qint64(newLength) - qint64(oldLength);
            if (stop)
                break;
        }
        return HXRange{visited.location, position - visited.location};
    };
    return modifying ? writing(walk) : reading(walk);
}

void HXString::enumerateParagraphsInScopes(HXDefinitionSelector scopes, HXRange range,
                                           const ParagraphBlock &block) const {
    enumerateParagraphsInRange(
        range, [&](const HXParagraphRef &paragraph, quint64 location, quint64 length, bool &stop) {
            if (tagMatchesScopes(paragraph->tag(), scopes))
                block(paragraph, location, length, stop);
        });
}

HXRange HXString::rangeOfFirstParagraphMatchingMask(HXDefinitionSelector mask,
                                                    bool anchored) const {
    return reading([&] {
        HXRange found = HXNotFoundRange();
        enumerateParagraphsInRange(
            HXRange{0, HXChunkString::length()},
            [&](const HXParagraphRef &paragraph, quint64 location, quint64 length, bool &stop) {
                if (tagMatchesScopes(paragraph->tag(), mask)) {
                    found = HXRange{location, length};
                    stop = true;
                } else if (anchored && length >= 2) {
                    stop = true;
                }
            });
        return found;
    });
}

quint64 HXString::numberForParagraphAtIndex(quint64 index, HXRange *paragraphRange,
                                            QVariantMap *state) const {
    return reading([&]() -> quint64 {
        const quint64 total = HXChunkString::length();
        const HXRange target = paragraphRangeForRange(HXRange{index, 0});
        if (paragraphRange)
            *paragraphRange = target;
        auto counts = [&](const HXParagraph &paragraph, quint64 location) {
            const quint64 length = paragraph.length();
            if (paragraph.tag() && (paragraph.tag()->definition()->countingOptions() &
                                    HXCountingExcludedFromNumbering))
                return false;
            if (length >= 2)
                return true;
            return length == 1 && location + length == total &&
                   paragraph.characterAtIndex(0) != QLatin1Char('\n');
        };
        quint64 start = 0, number = 0;
        if (state && state->contains(QStringLiteral("start"))) {
            const quint64 stateStart = state->value(QStringLiteral("start")).toULongLong();
            if (stateStart <= target.location) {
                start = stateStart;
                number = state->value(QStringLiteral("number")).toULongLong();
            }
        }
        if (target.location > start) {
            enumerateChunksInRange(HXRange{start, target.location - start}, 0,
                                   [&](const HXChunk &chunk, HXRange chunkRange, bool &) {
                                       if (const auto *paragraph = chunk.as<HXParagraph>())
                                           number += counts(*paragraph, chunkRange.location);
                                   });
        }
        if (state) {
            state->insert(QStringLiteral("start"), target.location);
            state->insert(QStringLiteral("number"), number);
        }
        const HXParagraph *paragraph = chunkAtIndex(target.location).as<HXParagraph>();
        if (!paragraph || target.length == 0 || !counts(*paragraph, target.location))
            return HXNotFound;
        return number + 1;
    });
}

quint64 HXString::lastEnumerationIndexOfGrouping(const QList<HXChunk> &paragraphs,
                                                 qsizetype ordinal, HXTextTagRef *tag,
                                                 qsizetype level) const {
    for (qsizetype i = ordinal - 1; i >= 0; --i) {
        const HXParagraph *paragraph = paragraphs.at(i).as<HXParagraph>();
        if (!paragraph || paragraph->groupings().size() < level + 1)
            return 0;
        const HXTextTagRef &grouping = paragraph->groupings().at(level);
        if (!grouping)
            continue;
        if (tag && *tag && *tag != grouping)
            return 0;
        if (tag)
            *tag = grouping;
        const QList<HXTextAtomRef> atoms = paragraph->groupTagStrings();
        if (level >= atoms.size() || !atoms.at(level))
            return 0;
        const qint64 index = HXTextParser::enumerationIndexForString(
            atoms.at(level)->stringRepresentation(),
            HXTextParser::patternForPart(0, grouping.get()));
        return index > 0 ? quint64(index) : 0;
    }
    return 0;
}

quint64 HXString::lastEnumerationIndexOfGrouping(HXTextTagRef *tag, qsizetype level,
                                                 quint64 paragraphIndex) const {
    return reading([&] {
        const QList<HXChunk> all = allChunks();
        const HXRange target = paragraphRangeForRange(HXRange{paragraphIndex, 0});
        qsizetype ordinal = 0;
        enumerateChunksInRange(HXRange{0, target.location}, 0,
                               [&](const HXChunk &, HXRange, bool &) { ++ordinal; });
        return lastEnumerationIndexOfGrouping(all, ordinal, tag, level);
    });
}

QString HXString::stringWithTitleFromRange(HXRange range, HXRange *titleRange) const {
    QString title;
    HXRange found = HXNotFoundRange();
    enumerateParagraphsInRange(
        range, [&](const HXParagraphRef &paragraph, quint64 location, quint64 length, bool &stop) {
            const QString text = paragraph->stringByRemovingObjectsAndTags().trimmed();
            if (!text.isEmpty()) {
                title = text;
                found = HXRange{location, length};
                stop = true;
            }
        });
    if (titleRange)
        *titleRange = found;
    return title;
}

quint64 HXString::highestHeadingLevel() const {
    return reading([&] {
        quint64 highest = HXNotFound;
        enumerateParagraphsInScopes(
            HXSelectorForScope(HXHeadingScope), HXRange{0, HXChunkString::length()},
            [&](const HXParagraphRef &paragraph, quint64, quint64, bool &) {
                highest = std::min(highest, paragraph->tag()->definition()->headingLevel());
            });
        return highest;
    });
}

void HXString::enumerateAllElements(HXDefinitionSelector scopes,
                                    const HXElementsBlock &block) const {
    reading([&] { enumerateElementsInRange(HXRange{0, HXChunkString::length()}, scopes, block); });
}

bool HXString::containsFileWrapper() const {
    bool found = false;
    enumerateAllElements(
        HXSelectorForScope(HXAttributedTextScope) | HXSelectorForScope(HXObjectScope),
        [&](const HXTextElementRef &element, HXRange, bool &stop) {
            if (!element->attributes())
                return;
            element->attributes()->enumerateAttributes(
                [&](const QString &, const QVariant &value, const HXTagAttribute &attribute) {
                    if (attribute.isFile() && value.isValid())
                        found = true;
                });
            stop = found;
        });
    return found;
}

QMap<quint64, HXBookmarkRef> HXString::bookmarksInRange(HXRange range) const {
    QMap<quint64, HXBookmarkRef> bookmarks;
    enumerateParagraphsInRange(
        range, [&](const HXParagraphRef &paragraph, quint64 location, quint64, bool &) {
            if (paragraph->bookmark() && location >= range.location &&
                (location < range.max() || (range.length == 0 && location == range.location)))
                bookmarks.insert(location, paragraph->bookmark());
        });
    return bookmarks;
}

HXDefinitionSelector HXString::definitionSelectorForInsertingInRange(HXRange) const {
    return recognizedDefinitions();
}

QString HXString::stringByRemovingObjects() const {
    return reading([&] {
        QString result;
        for (const HXChunk &chunk : allChunks())
            result += chunk.as<HXParagraph>()->stringByRemovingObjects();
        return result;
    });
}

QString HXString::stringByRemovingObjectsAndTags() const {
    return reading([&] {
        QString result;
        for (const HXChunk &chunk : allChunks())
            result += chunk.as<HXParagraph>()->stringByRemovingObjectsAndTags();
        return result;
    });
}

// --- Elements and text ----------------------------------------------------------------------

void HXString::enumerateStringsAndAtomsInRange(HXRange range,
                                               const HXStringsAndAtomsBlock &block) const {
    reading([&] {
        bool stopped = false;
        enumerateChunksInRange(range, 0, [&](const HXChunk &chunk, HXRange chunkRange, bool &stop) {
            const HXRange part = HXIntersectionRange(range, chunkRange);
            const auto *paragraph = chunk.as<HXParagraph>();
            stopped = !paragraph->enumerateStringsAndAtomsInRange(
                HXRange{part.location - chunkRange.location, part.length}, {}, chunkRange.location,
                block);
            stop = stopped;
        });
    });
}

void HXString::enumerateElementsInRange(HXRange range, HXDefinitionSelector scopes,
                                        const HXElementsBlock &block) const {
    reading([&] {
        const HXRange paragraphs = paragraphRangeForRange(range);
        if (paragraphs.length == 0)
            return;
        const HXElementsBlock filtered = [&](const HXTextElementRef &element, HXRange elementRange,
                                             bool &stop) {
            if (element->definition() &&
                (scopes & HXSelectorForScope(element->definition()->scope())))
                block(element, elementRange, stop);
        };
        enumerateChunksInRange(
            paragraphs, 0, [&](const HXChunk &chunk, HXRange chunkRange, bool &stop) {
                HXRange part = HXIntersectionRange(range, chunkRange);
                if (range.length == 0)
                    part = HXRange{
                        std::clamp(range.location, chunkRange.location, chunkRange.max()), 0};
                stop = !chunk.as<HXParagraph>()->enumerateElementsInRange(
                    HXRange{part.location - chunkRange.location, part.length}, chunkRange.location,
                    filtered);
            });
    });
}

void HXString::enumerateVisibleTagsInRange(
    HXRange range,
    const std::function<void(const HXTextTagRef &, quint64, quint64, bool &)> &block) const {
    reading([&] {
        enumerateParagraphsInRange(
            paragraphRangeForRange(range),
            [&](const HXParagraphRef &paragraph, quint64 location, quint64, bool &stop) {
                quint64 atomStart = location;
                for (const HXTextAtomRef &atom :
                     paragraph->groupTagStrings() +
                         (paragraph->tagString() ? QList<HXTextAtomRef>{paragraph->tagString()}
                                                 : QList<HXTextAtomRef>{})) {
                    const QString text = atom->string();
                    qsizetype visible = 0;
                    while (visible < text.size() && text.at(visible).isSpace())
                        ++visible;
                    const quint64 start = atomStart + quint64(visible);
                    const bool inRange =
                        range.length == 0 ? start == range.location : range.contains(start);
                    if (visible < text.size() && inRange) {
                        block(atom->tag(), start, quint64(text.size() - visible), stop);
                        if (stop)
                            return;
                    }
                    atomStart += quint64(text.size());
                }
            });
    });
}

HXRange HXString::rangeOfTextElement(const HXTextElement &element) const {
    HXRange found = HXNotFoundRange();
    enumerateAllElements(HXSelectorAllScopes,
                         [&](const HXTextElementRef &candidate, HXRange range, bool &stop) {
                             if (candidate.get() == &element) {
                                 found = range;
                                 stop = true;
                             }
                         });
    return found;
}

HXTextElementRef HXString::textElementStartingAtIndex(quint64 index,
                                                      HXRange *effectiveRange) const {
    return reading([&]() -> HXTextElementRef {
        HXRange paragraphRange;
        const HXParagraphRef paragraph = paragraphAtIndex(index, &paragraphRange);
        const HXChunkString *node = paragraph.get();
        quint64 offset = paragraphRange.location;
        while (node) {
            const quint64 relative = index - offset;
            const quint64 key = node->chunkIndexLessThanOrEqualToIndex(relative);
            if (key == HXNotFound)
                break;
            const auto element = node->chunkAtIndex(key).pointerAs<HXTextElement>();
            if (!element || relative >= key + element->length())
                break;
            if (key == relative) {
                if (effectiveRange)
                    *effectiveRange = HXRange{offset + key, element->length()};
                return element;
            }
            node = element.get();
            offset += key;
        }
        if (effectiveRange)
            *effectiveRange = HXNotFoundRange();
        return nullptr;
    });
}

void HXString::enumerateRange(HXRange range, const QList<HXRange> &splittingRanges,
                              const std::function<void(HXRange, bool, bool &)> &block) const {
    QList<HXRange> sorted = splittingRanges;
    std::sort(sorted.begin(), sorted.end(),
              [](HXRange a, HXRange b) { return a.location < b.location; });
    quint64 position = range.location;
    bool stop = false;
    for (const HXRange &split : sorted) {
        const HXRange part = HXIntersectionRange(range, split);
        if (part.length == 0 || part.max() <= position)
            continue;
        const quint64 start = std::max(part.location, position);
        if (start > position)
            block(HXRange{position, start - position}, false, stop);
        if (stop)
            return;
        block(HXRange{start, part.max() - start}, true, stop);
        if (stop)
            return;
        position = part.max();
    }
    if (position < range.max())
        block(HXRange{position, range.max() - position}, false, stop);
}

QString HXString::previewStringFromRange(HXRange range, quint64 maximumLength) const {
    QString preview = stringWithRange(range)->stringByRemovingObjectsAndTags().simplified();
    if (quint64(preview.size()) > maximumLength)
        preview = preview.left(qsizetype(maximumLength)) + QChar(0x2026);
    return preview;
}

// --- Copying into another string ------------------------------------------------------------

HXRange HXString::sourceRangeForCopyingToString(const HXString &, bool) const {
    return HXRange{0, length()};
}

QString HXString::separatorForAppendingToString(const HXString &target) const {
    const bool targetEndsInLineFeed = target.reading([&] {
        const quint64 end = target.HXChunkString::length();
        return end > 0 && target.HXChunkString::characterAtIndex(end - 1) == QLatin1Char('\n');
    });
    const bool sourceStartsWithLineFeed = reading([&] {
        const HXRange source = sourceRangeForCopyingToString(target, true);
        return source.length > 0 &&
               HXChunkString::characterAtIndex(source.location) == QLatin1Char('\n');
    });
    return targetEndsInLineFeed || sourceStartsWithLineFeed ? QString() : QStringLiteral("\n");
}

void HXString::copyToString(HXMutableString &target, int options) const {
    const bool appending = options & HXStringCopyAppending;
    // The text is taken under this string's lock and put in under the target's, one after the
    // other: two strings copying into each other on two threads can't wait for each other.
    const std::shared_ptr<HXString> source =
        reading([&] { return stringWithRange(sourceRangeForCopyingToString(target, appending)); });
    target.writing([&] {
        const quint64 end = target.HXChunkString::length();
        if (!appending || end == 0) {
            target.replaceCharactersInRange(HXRange{0, end}, HXReplacement(source));
            return;
        }
        if (options & HXStringCopyInsertSeparator) {
            if (const QString separator = source->separatorForAppendingToString(target);
                !separator.isEmpty())
                target.replaceCharactersInRange(HXRange{end, 0}, HXReplacement(separator));
        }
        target.replaceCharactersInRange(HXRange{target.HXChunkString::length(), 0},
                                        HXReplacement(source));
    });
}

void HXString::appendToString(HXMutableString &target, bool insertSeparator) const {
    copyToString(target,
                 HXStringCopyAppending | (insertSeparator ? HXStringCopyInsertSeparator : 0));
}

QSet<QString> HXString::lossDescriptionsForCopyingToString(const HXString &target) const {
    const std::shared_ptr<HXMarkup> targetMarkup = target.markup();
    const HXDefinitionSelector selector =
        target.definitionSelectorForInsertingInRange(HXRange{0, 0});
    QSet<QString> allowed;
    if (targetMarkup) {
        for (const HXTextTagRef &tag : targetMarkup->tagsForSelector(selector))
            allowed.insert(tag->definition()->identifier());
    }
    // Nested strings go where nested strings of the target's elements would.
    std::shared_ptr<HXString> nestedTarget;
    QSet<QString> losses;
    auto isLost = [&](const HXDefinitionRef &definition) {
        if (!definition || allowed.contains(definition->identifier()))
            return false;
        losses.insert(definition->identifier());
        return true;
    };
    reading([&] {
        const HXRange range = sourceRangeForCopyingToString(target, false);
        // The tags of paragraph prefixes and of elements, as their atoms show them.
        enumerateStringsAndAtomsInRange(
            range, [&](const HXChunk &piece, bool, quint64, quint64, const HXOpenTags &, bool &) {
                if (const HXTextAtom *atom = piece.as<HXTextAtom>(); atom && atom->tag())
                    isLost(atom->tag()->definition());
            });
        // Every element, with a tag or without, and the values of those that stay.
        enumerateElementsInRange(
            range, HXSelectorAllScopes, [&](const HXTextElementRef &element, HXRange, bool &) {
                if (isLost(element->definition()) || !element->attributes())
                    return;
                const HXAttributeDictionary &attributes = *element->attributes();
                for (const QString &key : attributes.sortedKeys()) {
                    const HXTagAttributeRef attribute = attributes.attributeForKey(key);
                    if (attribute->isFile()) {
                        if ((selector & HXSelectorNoMedia) && attributes.fileWrapperForKey(key))
                            losses.insert(element->definition()->identifier());
                    } else if (const auto nested = attributes.existingNestedStringForKey(key)) {
                        if (!nestedTarget)
                            nestedTarget = std::make_shared<HXString>(
                                targetMarkup, target.recognizedDefinitions());
                        losses.unite(nested->lossDescriptionsForCopyingToString(*nestedTarget));
                    }
                }
            });
    });
    return losses;
}

// --- Editing --------------------------------------------------------------------------------

void HXString::replaceCharactersInRange(HXRange, const HXReplacement &, HXRange *, HXRange *,
                                        HXRange *) {
    HX_ASSERT(false, u"Attempt to mutate immutable string!");
}

void HXString::insertString(const QString &string, quint64 index) {
    replaceCharactersInRange(HXRange{index, 0}, HXReplacement(string));
}

void HXString::deleteCharactersInRange(HXRange range) {
    replaceCharactersInRange(range, HXReplacement(QString()));
}

// Length and edit under one write, so that a change between them can't leave the range stale.
void HXString::appendString(const HXReplacement &string) {
    writing([&] { replaceCharactersInRange(HXRange{HXChunkString::length(), 0}, string); });
}

void HXString::setString(const QString &string) {
    writing([&] {
        replaceCharactersInRange(HXRange{0, HXChunkString::length()}, HXReplacement(string));
    });
}

// --- Comparing and checking -----------------------------------------------------------------

bool HXString::isOfClassOf(const HXChunkString &other) const {
    return dynamic_cast<const HXString *>(&other) != nullptr;
}

bool HXString::isEqualToChunkString(const HXChunkString &other) const {
    return reading([&] { return HXChunkString::isEqualToChunkString(other); });
}

QString HXString::description() const {
    return reading([&] {
        return QStringLiteral("<%1 %2>").arg(HXClassName(typeid(*this)),
                                             HXChunkString::description());
    });
}

void HXString::checkInvariants(bool deep) const {
    reading([&] {
        HXChunkString::checkInvariants(deep);
        HX_ASSERT(headChunk().isNull() && tailChunk().isNull(),
                  u"A string has no head or tail chunk.");
        const QList<HXChunk> all = allChunks();
        for (qsizetype i = 0; i < all.size(); ++i) {
            const auto *paragraph = all.at(i).as<HXParagraph>();
            HX_ASSERT(paragraph, u"Chunk %li of the string is no paragraph: %@", i,
                      all.at(i).description());
            if (i < all.size() - 1)
                HX_ASSERT(paragraph->endsInLineFeed(),
                          u"Paragraph %li of %li does not end in a line feed: %@", i, all.size(),
                          paragraph->description());
        }
    });
}
