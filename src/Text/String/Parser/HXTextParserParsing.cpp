// The parse of paragraphs: the line-level prefix, flattening, the inline parse with its one
// matcher, element and paragraph reparse, and the comparisons that report what changed.

#include "Text/Markup/HXMarkup.h"
#include "Text/String/Atoms/HXEscapeAtom.h"
#include "Text/String/Nodes/HXParagraph.h"
#include "Text/String/Nodes/HXTextElement.h"
#include "Text/String/Parser/HXTextParser.h"
#include "Utilities/HXAssert.h"

#include <unicode/unistr.h>
#include <unordered_map>

namespace {

using TagRef = std::shared_ptr<HXTextTag>;

// Matchers are costly to make and cheap to point at new text, so each thread keeps one for each
// expression it has used. The pool holds the expression too, so that its address isn't reused.
class MatcherPool {
public:
    struct Entry {
        std::shared_ptr<const icu::RegexPattern> expression;
        std::unique_ptr<icu::RegexMatcher> matcher;
        quint64 textSerial = 0; // the text the matcher was last pointed at
    };

    Entry *entry(const std::shared_ptr<const icu::RegexPattern> &expression) {
        auto found = m_entries.find(expression.get());
        if (found != m_entries.end())
            return &found->second;
        if (m_entries.size() > 512)
            m_entries.clear();
        UErrorCode status = U_ZERO_ERROR;
        std::unique_ptr<icu::RegexMatcher> matcher(expression->matcher(status));
        if (U_FAILURE(status))
            return nullptr;
        return &m_entries.emplace(expression.get(), Entry{expression, std::move(matcher), 0})
                    .first->second;
    }

private:
    std::unordered_map<const icu::RegexPattern *, Entry> m_entries;
};

MatcherPool &matcherPool() {
    thread_local MatcherPool pool;
    return pool;
}

// The text that the matchers of one parse run over, with a number of its own so that a matcher
// is pointed at it once.
struct MatchText {
    explicit MatchText(const QString &string)
        : text(string)
        , alias(false, reinterpret_cast<const UChar *>(string.utf16()), int32_t(string.size()))
        , serial(++lastSerial()) {}
    static quint64 &lastSerial() {
        thread_local quint64 serial = 0;
        return serial;
    }
    const QString &text;
    icu::UnicodeString alias;
    quint64 serial;
};

// The first non-empty match of the expression in the range, or not-found.
HXRange search(const std::shared_ptr<const icu::RegexPattern> &expression, MatchText &text,
               HXRange range, bool anchored) {
    MatcherPool::Entry *entry = matcherPool().entry(expression);
    if (!entry)
        return HXNotFoundRange();
    icu::RegexMatcher *matcher = entry->matcher.get();
    UErrorCode status = U_ZERO_ERROR;
    if (entry->textSerial != text.serial) {
        matcher->reset(text.alias);
        entry->textSerial = text.serial;
    }
    matcher->region(int64_t(range.location), int64_t(range.max()), status);
    if (U_FAILURE(status))
        return HXNotFoundRange();
    if (anchored) {
        if (matcher->lookingAt(status) && U_SUCCESS(status)) {
            const int32_t start = matcher->start(status), end = matcher->end(status);
            if (end > start)
                return HXRange{quint64(start), quint64(end - start)};
        }
        return HXNotFoundRange();
    }
    while (matcher->find(status) && U_SUCCESS(status)) {
        const int32_t start = matcher->start(status), end = matcher->end(status);
        if (end > start)
            return HXRange{quint64(start), quint64(end - start)};
    }
    return HXNotFoundRange();
}

bool isOpen(const HXTextParser::TagList &openTags, const HXTextTag *tag) {
    for (const TagRef &open : openTags) {
        if (open.get() == tag)
            return true;
    }
    return false;
}

qsizetype indexOfOpen(const HXTextParser::TagList &openTags, const HXTextTag *tag) {
    for (qsizetype i = 0; i < openTags.size(); ++i) {
        if (openTags.at(i).get() == tag)
            return i;
    }
    return -1;
}

const HXTextTag *lastRealGrouping(const HXTextParser::TagList &groupings) {
    for (qsizetype i = groupings.size() - 1; i >= 0; --i) {
        if (groupings.at(i))
            return groupings.at(i).get();
    }
    return nullptr;
}

// The text of a chunk as the flat string takes it.
QString flatText(const HXChunk &chunk) {
    return chunk.string();
}

} // namespace

const std::shared_ptr<const icu::RegexPattern> &HXTextParser::escapeExpression() {
    static const std::shared_ptr<const icu::RegexPattern> expression = [] {
        UErrorCode status = U_ZERO_ERROR;
        UParseError error;
        return std::shared_ptr<const icu::RegexPattern>(
            icu::RegexPattern::compile(icu::UnicodeString(u"\\\\([^\\n]{1})"), 0, error, status));
    }();
    return expression;
}

// --- The one matcher ------------------------------------------------------------------------

namespace {

std::optional<TagRef> nextMatch(const HXTextParser::TagList &tags, MatchText &matchText,
                                const QList<HXRange> &textRanges, quint64 options, HXRange range,
                                const HXTextParser::TagList &openTags,
                                HXTextParser::MatchCache *cache, HXRange *matchedRange);

} // namespace

std::optional<TagRef> HXTextParser::nextMatchOfTags(const TagList &tags, const QString &text,
                                                    const QList<HXRange> &textRanges,
                                                    quint64 options, HXRange range,
                                                    const TagList &openTags, MatchCache *cache,
                                                    HXRange *matchedRange) {
    MatchText matchText(text);
    return nextMatch(tags, matchText, textRanges, options, range, openTags, cache, matchedRange);
}

namespace {

std::optional<TagRef> nextMatch(const HXTextParser::TagList &tags, MatchText &matchText,
                                const QList<HXRange> &textRanges, quint64 options, HXRange range,
                                const HXTextParser::TagList &openTags,
                                HXTextParser::MatchCache *cache, HXRange *matchedRange) {
    using MatchCache = HXTextParser::MatchCache;
    const bool anchored = options & HXTextParser::matchingAnchored;
    std::optional<TagRef> best;
    HXRange bestRange = HXNotFoundRange();
    for (const TagRef &tag : tags) {
        HXRange found = HXNotFoundRange();
        const auto cached = cache ? cache->constFind(tag.get()) : MatchCache::const_iterator();
        if (cache && cached != cache->constEnd() &&
            (cached->isNotFound() || cached->location >= range.location)) {
            found = *cached;
        } else {
            const auto expression =
                tag ? tag->matchingExpression(isOpen(openTags, tag.get()) ? 1 : 0)
                    : HXTextParser::escapeExpression();
            if (expression) {
                for (const HXRange &textRange : textRanges) {
                    const HXRange part = HXIntersectionRange(textRange, range);
                    if (part.length == 0)
                        continue;
                    found = search(expression, matchText, part, anchored);
                    if (!found.isNotFound())
                        break;
                }
            }
            if (cache)
                cache->insert(tag.get(), found);
        }
        if (found.isNotFound() || found.length == 0)
            continue;
        if (!best || found.location < bestRange.location) {
            best = tag;
            bestRange = found;
            continue;
        }
        if (found.location > bestRange.location || !tag)
            continue;
        if (!*best) {
            best = tag;
            bestRange = found;
            continue;
        }
        const qsizetype openIndex = indexOfOpen(openTags, tag.get());
        const qsizetype bestOpenIndex = indexOfOpen(openTags, best->get());
        if (openIndex >= 0 && bestOpenIndex >= 0) {
            if (openIndex > bestOpenIndex) {
                best = tag;
                bestRange = found;
            }
            continue;
        }
        const bool replaces = found.length == bestRange.length
                                  ? tag->definition()->scope() < (*best)->definition()->scope()
                                  : found.length > bestRange.length;
        if (replaces) {
            best = tag;
            bestRange = found;
        }
    }
    if (matchedRange)
        *matchedRange = best ? bestRange : HXNotFoundRange();
    return best;
}

} // namespace

// --- The line-level prefix ------------------------------------------------------------------

void HXTextParser::parseGroupings(TagList *groupings, TagRef *tag, QStringList *strings,
                                  quint64 *consumedLength, const HXParagraph &paragraph) {
    groupings->clear();
    strings->clear();
    *tag = nullptr;
    *consumedLength = 0;
    const HXDefinitionSelector selector = paragraph.recognizedDefinitions();
    if (!(selector & 0x7) || !paragraph.markup())
        return;
    TagList candidates = paragraph.markup()->tagsForSelector(selector);
    candidates.append(nullptr);

    static const std::shared_ptr<const icu::RegexPattern> indentation = [] {
        UErrorCode status = U_ZERO_ERROR;
        UParseError error;
        const QString source = QStringLiteral(" {%1}| {0,%2}\\t| {1,%3}").arg(4).arg(3).arg(3);
        return std::shared_ptr<const icu::RegexPattern>(icu::RegexPattern::compile(
            icu::UnicodeString(false, reinterpret_cast<const UChar *>(source.utf16()),
                               int32_t(source.size())),
            0, error, status));
    }();

    const QString text = paragraph.string();
    MatchText matchText(text);
    const quint64 length = quint64(text.size());
    const QList<HXRange> whole{HXRange{0, length}};
    quint64 position = 0;
    for (;;) {
        QString lead;
        while (position < length) {
            const HXRange match =
                search(indentation, matchText, HXRange{position, length - position}, true);
            if (match.isNotFound())
                break;
            const QString matched = text.mid(qsizetype(match.location), qsizetype(match.length));
            if (matched.endsWith(QLatin1Char('\t')) || match.length == 4) {
                // A level of indentation; its text stays as it is written.
                groupings->append(nullptr);
                strings->append(matched);
                position = match.max();
                *consumedLength = position;
            } else {
                lead = matched;
                position = match.max();
                break;
            }
        }
        HXRange matched;
        const auto found = nextMatch(candidates, matchText, whole, matchingAnchored,
                                     HXRange{position, length - position}, {}, nullptr, &matched);
        if (!found || !*found || (*found)->definition()->scope() > HXGroupingScope)
            return;
        const TagRef &match = *found;
        const HXDefinitionRef definition = match->definition();
        if (definition->noGroupingAllowed() && !groupings->isEmpty())
            return;
        const QString tagString =
            lead + text.mid(qsizetype(matched.location), qsizetype(matched.length));
        position = matched.max();
        *consumedLength = position;
        if (definition->groupingType() == HXGroupingNone) {
            *tag = match;
            strings->append(tagString);
            return;
        }
        groupings->append(match);
        strings->append(tagString);
        if (definition->noParsingInside() || definition->groupingType() == HXGroupingTerminal)
            return;
    }
}

// --- Flattening -----------------------------------------------------------------------------

namespace {

// Walks the chunks of a node as flattening takes them: entities and closed code whole, elements
// of forbidden tags melted to the texts of their tags around their inner chunks, other elements
// melted with their atoms. The walk keeps its own stack, so deep trees can't exhaust the
// thread's.
template<typename F>
void walkFlatChunks(const HXChunkString &node, const HXTextParser::TagSet &forbidden, F &&block) {
    struct Frame {
        QList<HXChunk> chunks;
        qsizetype next = 0;
        QString after; // the end tag text of a melted element of a forbidden tag
    };
    std::vector<Frame> stack;
    stack.push_back(Frame{node.allChunks(), 0, QString()});
    while (!stack.empty()) {
        if (stack.back().next == stack.back().chunks.size()) {
            const QString after = std::move(stack.back().after);
            stack.pop_back();
            if (!after.isEmpty())
                block(HXChunk(after));
            continue;
        }
        const HXChunk chunk = stack.back().chunks.at(stack.back().next++);
        const auto *element = chunk.as<HXTextElement>();
        if (!element) {
            if (const HXChunkString *nested = chunk.chunkString())
                stack.push_back(Frame{nested->allChunks(), 0, QString()});
            else
                block(chunk);
            continue;
        }
        const bool forbiddenTag = element->tag() && forbidden.contains(element->tag().get());
        const bool intact = element->isIntact();
        if (!forbiddenTag && intact &&
            (element->isEntity() ||
             (element->isClosed() && element->tag() && element->definition()->noParsingInside()))) {
            block(chunk);
            continue;
        }
        if (forbiddenTag && intact) {
            // Not allowed here: its tags come back as their texts, an entity's too.
            const QString start = element->startTagString();
            if (!start.isEmpty())
                block(HXChunk(start));
            stack.push_back(Frame{
                element->innerChunks(), 0,
                element->isClosed() && !element->isObject() ? element->endTagString() : QString()});
            continue;
        }
        stack.push_back(Frame{element->allChunks(), 0, QString()});
    }
}

} // namespace

void HXTextParser::flattenString(const HXChunkString &node, HXChunkString &flatString,
                                 const TagSet &forbiddenTags, quint64 definitionOptions,
                                 ReusableElements *reusableElements) {
    QString buffer;
    auto flush = [&] {
        if (!buffer.isEmpty()) {
            // Chunks of the flat string may pass into the tree as they are: no spare room.
            buffer.squeeze();
            flatString.appendChunk(HXChunk(std::exchange(buffer, QString())));
        }
    };
    walkFlatChunks(node, forbiddenTags, [&](const HXChunk &chunk) {
        if (const auto element = chunk.pointerAs<HXTextElement>()) {
            HX_ASSERT(element->isEntity() || element->definition()->noParsingInside(),
                      u"Only object-elements and code should be left");
            if ((definitionOptions & HXSelectorNoMedia) && element->attributes())
                element->attributes()->removeFileWrappersQuietly();
            flush();
            flatString.appendChunk(chunk);
            return;
        }
        if (const HXTextAtom *atom = chunk.as<HXTextAtom>()) {
            if (reusableElements && atom->part() == 0 && atom->tag()) {
                if (auto owner = std::dynamic_pointer_cast<HXTextElement>(atom->node()))
                    (*reusableElements)[atom->tag().get()].append(owner);
            }
        }
        buffer += flatText(chunk);
    });
    flush();
}

QList<HXRange> HXTextParser::textRangesOfString(const HXChunkString &flatString) {
    QList<HXRange> ranges;
    ranges.reserve(10);
    quint64 location = 0;
    for (const HXChunk &chunk : flatString.allChunks()) {
        const quint64 length = chunk.length();
        if (!chunk.as<HXTextElement>()) {
            if (!ranges.isEmpty() && ranges.last().max() == location)
                ranges.last().length += length;
            else
                ranges.append(HXRange{location, length});
        }
        location += length;
    }
    return ranges;
}

// --- The inline parse -----------------------------------------------------------------------

void HXTextParser::reparseString(const HXChunkString &flatString,
                                 const std::shared_ptr<HXMarkup> &markup,
                                 const TagSet &forbiddenTags, HXRange range,
                                 ReusableElements &reusableElements, HXChunkString &target) {
    TagList candidates;
    if (markup) {
        for (const TagRef &tag : markup->tagsForSelector(56)) {
            if (!forbiddenTags.contains(tag.get()))
                candidates.append(tag);
        }
    }
    if (!forbiddenTags.contains(nullptr))
        candidates.append(nullptr);

    const QString text = flatString.string();
    MatchText matchText(text);
    const QList<HXRange> textRanges = textRangesOfString(flatString);
    TagList openTags;
    QList<std::shared_ptr<HXTextElement>> openElements;
    MatchCache cache;
    auto currentTarget = [&]() -> HXChunkString & {
        return openElements.isEmpty() ? target : *openElements.last();
    };

    quint64 position = range.location;
    const quint64 end = range.max();
    while (position < end) {
        HXRange matched;
        const auto found = nextMatch(candidates, matchText, textRanges, 0,
                                     HXRange{position, end - position}, openTags, &cache, &matched);
        if (!found)
            matched = HXRange{end, 0};

        // The text before the match, elements parsed inside.
        if (matched.location > position) {
            flatString.enumerateChunksInRange(
                HXRange{position, matched.location - position}, HXChunkEnumerationClippedToRange,
                [&](const HXChunk &chunk, HXRange, bool &) {
                    if (auto element = chunk.pointerAs<HXTextElement>())
                        reparseElement(*element, forbiddenTags);
                    currentTarget().appendChunk(chunk);
                });
        }

        const QString matchedText =
            text.mid(qsizetype(matched.location), qsizetype(matched.length));
        const TagRef tag = found ? *found : nullptr;
        const bool wasOpen = found && tag && isOpen(openTags, tag.get());
        if (found && !tag) {
            currentTarget().appendChunk(HXChunk(std::make_shared<HXEscapeAtom>(matchedText)));
        } else if (found && !wasOpen) {
            std::shared_ptr<HXTextElement> element;
            auto reusable = reusableElements.find(tag.get());
            if (reusable != reusableElements.end() && !reusable->isEmpty()) {
                element = reusable->takeLast();
                element->clear();
            } else {
                element = HXTextElement::elementWithTag(nullptr, markup, false);
            }
            element->setTag(tag, matchedText);
            if (element->isObject()) {
                currentTarget().appendChunk(HXChunk(element));
            } else {
                openTags.append(tag);
                openElements.append(element);
            }
        }

        // A closing tag closes its element and leaves those opened inside it open; at the end
        // of the range all that is still open ends, not closed.
        const bool atEnd = matched.max() == end;
        if (wasOpen || (atEnd && !openTags.isEmpty())) {
            const qsizetype down = atEnd ? 0 : indexOfOpen(openTags, tag.get());
            while (openTags.size() > down) {
                const TagRef open = openTags.takeLast();
                const std::shared_ptr<HXTextElement> element = openElements.takeLast();
                const bool closing = wasOpen && open == tag;
                element->setClosed(closing, closing ? matchedText : QString());
                if (element->isEntity() || (closing && element->definition()->noParsingInside()))
                    reparseElement(*element, forbiddenTags);
                cache.remove(open.get());
                currentTarget().appendChunk(HXChunk(element));
            }
        }
        if (!found)
            break;
        position = matched.max();
    }
}

// --- Comparing ------------------------------------------------------------------------------

namespace {

// One chunk of a tree, in the order of a walk that visits a chunk before what it holds: enough
// to tell whether two trees have the same structure, whatever their characters.
struct StructureToken {
    quint64 location;
    quint64 length;
    const HXTextTag *tag;
    quint16 depth;
    quint8 kind;
    quint8 flags;

    bool sameAs(const StructureToken &other) const {
        return length == other.length && tag == other.tag && depth == other.depth &&
               kind == other.kind && flags == other.flags;
    }
};

// The tokens of a whole tree, parents before what they hold; the walk keeps its own stack.
std::vector<StructureToken> structureOf(const HXChunkString &root) {
    struct Frame {
        QList<HXChunk> chunks;
        qsizetype next = 0;
        quint64 location = 0;
        quint16 depth = 0;
    };
    std::vector<StructureToken> tokens;
    tokens.reserve(32);
    std::vector<Frame> stack;
    stack.push_back(Frame{root.allChunks(), 0, 0, 0});
    while (!stack.empty()) {
        Frame &frame = stack.back();
        if (frame.next == frame.chunks.size()) {
            stack.pop_back();
            continue;
        }
        const HXChunk chunk = frame.chunks.at(frame.next++);
        StructureToken token{frame.location, chunk.length(), nullptr, frame.depth, 0, 0};
        frame.location += token.length;
        const HXStringObject *object = chunk.object();
        const HXStringObjectKind kind = object ? object->objectKind() : HXStringObjectKind::Other;
        token.kind = quint8(chunk.isPlain() ? 0 : 1 + int(kind));
        if (const auto *element = chunk.as<HXTextElement>()) {
            token.tag = element->tag().get();
            token.flags = quint8((element->isClosed() ? 1 : 0) | (element->isEntity() ? 2 : 0));
        } else if (const auto *atom = chunk.as<HXTextAtom>()) {
            token.tag = atom->tag().get();
            token.flags = quint8(atom->part());
        }
        tokens.push_back(token);
        if (const HXChunkString *nested = chunk.chunkString())
            stack.push_back(
                Frame{nested->allChunks(), 0, token.location, quint16(token.depth + 1)});
    }
    return tokens;
}

// From the first token that differs to the end of the last, in old coordinates.
HXRange compareStructures(const std::vector<StructureToken> &before,
                          const std::vector<StructureToken> &after, quint64 oldLength) {
    size_t front = 0;
    while (front < before.size() && front < after.size() && before[front].sameAs(after[front]))
        ++front;
    if (front == before.size() && front == after.size())
        return HXRange{0, 0};
    const quint64 start = front < before.size() ? before[front].location : oldLength;
    size_t back = 0;
    while (back < before.size() - front && back < after.size() - front &&
           before[before.size() - 1 - back].sameAs(after[after.size() - 1 - back]))
        ++back;
    const quint64 end = back < before.size() - front ? before[before.size() - 1 - back].location +
                                                           before[before.size() - 1 - back].length
                                                     : start;
    return HXRange{start, end > start ? end - start : 0};
}

} // namespace

// --- Reparsing ------------------------------------------------------------------------------

void HXTextParser::reparseElement(HXTextElement &element, TagSet forbiddenTags) {
    HX_ASSERT(element.isIntact(), u"Broken elements cannot be reparsed \"%@\"",
              element.description());
    if (element.length() == 0)
        return;
    forbiddenTags.insert(element.tag().get());
    const HXDefinitionRef definition = element.definition();
    if (definition && definition->noParsingInside() && element.isClosed()) {
        if (element.markup()) {
            for (const TagRef &tag : element.markup()->allTags())
                forbiddenTags.insert(tag.get());
        }
        forbiddenTags.insert(nullptr);
    }
    HXChunkString flat;
    ReusableElements reusable;
    flattenString(element, flat, forbiddenTags, 0, &reusable);
    const HXRange inner = element.innerChunkRange();
    HXChunkString parsed;
    reparseString(flat, element.markup(), forbiddenTags, inner, reusable, parsed);
    element.setInnerChunks(parsed.allChunks());
}

void HXTextParser::reparseParagraph(HXParagraph &paragraph, HXRange *changedText,
                                    HXRange *changedStructure) {
    if (paragraph.length() == 0) {
        if (changedText)
            *changedText = HXNotFoundRange();
        if (changedStructure)
            *changedStructure = HXNotFoundRange();
        return;
    }
    // What the old tree was, for the reports: elements taken up again change on the way.
    const std::vector<StructureToken> oldStructure = structureOf(paragraph);
    const QString oldText = paragraph.string();
    const quint64 oldLength = quint64(oldText.size());
    const std::shared_ptr<HXMarkup> markup = paragraph.markup();

    TagList groupings;
    TagRef tag;
    QStringList strings;
    quint64 consumed = 0;
    parseGroupings(&groupings, &tag, &strings, &consumed, paragraph);

    HXDefinitionSelector selector = paragraph.recognizedDefinitions();
    const HXTextTag *grouping = lastRealGrouping(groupings);
    const bool noParsingInside = (tag && tag->definition()->noParsingInside()) ||
                                 (grouping && grouping->definition()->noParsingInside());
    if (noParsingInside)
        selector &= ~HXDefinitionSelector(0x3ff);

    TagSet forbidden;
    if (markup) {
        for (const TagRef &each : markup->allTags())
            forbidden.insert(each.get());
        for (const TagRef &allowed : markup->tagsForSelector(selector))
            forbidden.remove(allowed.get());
    }
    if (noParsingInside)
        forbidden.insert(nullptr);

    HXChunkString flat;
    ReusableElements reusable;
    flattenString(paragraph, flat, forbidden, quint64(selector), &reusable);

    auto parsed =
        HXParagraph::paragraphWithString(QString(), markup, paragraph.recognizedDefinitions());
    parsed->setGroupings(groupings, tag, strings);
    // The line feed stays outside all elements: it is parsed apart and goes last.
    const quint64 flatLength = flat.length();
    const bool lineFeed = paragraph.endsInLineFeed() && flatLength > consumed;
    reparseString(flat, markup, forbidden,
                  HXRange{consumed, flatLength - consumed - (lineFeed ? 1 : 0)}, reusable, *parsed);
    if (lineFeed)
        parsed->appendChunk(HXChunk(QStringLiteral("\n")));

    HXRange structure = compareStructures(oldStructure, structureOf(*parsed), oldLength);
    const HXRange text = compareFlatString(oldText, parsed->string());

    auto sameTag = [](const TagRef &a, const TagRef &b) { return a.get() == b.get(); };
    bool prefixChanged =
        !sameTag(paragraph.tag(), tag) || paragraph.groupings().size() != groupings.size();
    for (qsizetype i = 0; !prefixChanged && i < groupings.size(); ++i)
        prefixChanged = !sameTag(paragraph.groupings().at(i), groupings.at(i));
    if (prefixChanged)
        structure = HXRange{0, oldLength};

    paragraph.setHeadChunk(HXChunk());
    paragraph.setInnerChunks(parsed->children());
    paragraph.setGroupings(groupings, tag, strings);
    if (changedText)
        *changedText = text;
    if (changedStructure)
        *changedStructure = structure.length > 0 ? structure : HXNotFoundRange();
}

HXRange HXTextParser::compareString(const HXChunkString &oldString,
                                    const HXChunkString &newString) {
    const auto *elementA = dynamic_cast<const HXTextElement *>(&oldString);
    const auto *elementB = dynamic_cast<const HXTextElement *>(&newString);
    if (elementA && elementB &&
        (elementA->tag() != elementB->tag() || elementA->isEntity() != elementB->isEntity()))
        return HXRange{0, oldString.length()};
    return compareStructures(structureOf(oldString), structureOf(newString), oldString.length());
}

HXRange HXTextParser::compareFlatString(const QString &oldString, const QString &newString) {
    if (oldString.isEmpty() || newString.isEmpty() || oldString.startsWith(newString) ||
        newString.startsWith(oldString))
        return HXNotFoundRange();
    const qsizetype shorter = std::min(oldString.size(), newString.size());
    qsizetype prefix = 0;
    while (prefix + 128 <= shorter &&
           QStringView(oldString).mid(prefix, 128) == QStringView(newString).mid(prefix, 128))
        prefix += 128;
    while (prefix < shorter && oldString.at(prefix) == newString.at(prefix))
        ++prefix;
    // The composed character that the first difference falls in.
    auto composedStart = [](const QString &string, qsizetype index) {
        while (index > 0 && (string.at(index).isLowSurrogate() || string.at(index).isMark()))
            --index;
        return index;
    };
    auto composedEnd = [](const QString &string, qsizetype index) {
        if (index < string.size() && string.at(index).isHighSurrogate())
            ++index;
        ++index;
        while (index < string.size() && string.at(index).isMark())
            ++index;
        return std::min(index, string.size());
    };
    const qsizetype start = composedStart(oldString, prefix);
    const qsizetype sequenceEnd = composedEnd(oldString, start);
    qsizetype suffix = 0;
    while (suffix < oldString.size() - sequenceEnd && suffix < newString.size() - prefix &&
           oldString.at(oldString.size() - 1 - suffix) ==
               newString.at(newString.size() - 1 - suffix))
        ++suffix;
    qsizetype end = oldString.size() - suffix;
    if (end < sequenceEnd)
        end = sequenceEnd;
    else if (end > sequenceEnd)
        end = composedEnd(oldString, composedStart(oldString, end - 1));
    return HXRange{quint64(start), quint64(end - start)};
}

// --- Escaping and filtering -----------------------------------------------------------------

namespace {

HXTextParser::TagList inlineTagsOf(const HXTextParser::TagList &tags) {
    HXTextParser::TagList result;
    for (const TagRef &tag : tags) {
        if (!tag || tag->definition()->matchesSelector(HXSelectorInlineOnly))
            result.append(tag);
    }
    return result;
}

// The next place that needs an escape: an escape itself or an inline tag; a line-level tag only
// while the text is anchored and nothing but white space lies before it.
std::optional<TagRef> nextEscapeMatch(HXTextParser::TagList &tags, MatchText &text, HXRange range,
                                      bool anchored, HXRange *matched) {
    const QList<HXRange> whole{HXRange{0, quint64(text.text.size())}};
    while (range.length > 0) {
        const auto found = nextMatch(tags, text, whole, 0, range, {}, nullptr, matched);
        if (!found)
            return std::nullopt;
        if (!*found || (*found)->definition()->scope() > HXGroupingScope)
            return found;
        if (anchored) {
            const QStringView before = QStringView(text.text).mid(
                qsizetype(range.location), qsizetype(matched->location - range.location));
            if (before.trimmed().isEmpty())
                return found;
            range = HXRange{matched->location, range.max() - matched->location};
            tags = inlineTagsOf(tags);
        } else {
            range = HXRange{matched->location + 1, range.max() - matched->location - 1};
        }
    }
    return std::nullopt;
}

} // namespace

QList<HXChunk> HXTextParser::escapedStringsForString(const QString &string, const TagList &tags,
                                                     bool anchored) {
    TagList candidates = anchored ? tags : inlineTagsOf(tags);
    MatchText text(string);
    QList<HXChunk> result;
    quint64 position = 0;
    const quint64 length = quint64(string.size());
    while (position < length) {
        HXRange matched;
        if (!nextEscapeMatch(candidates, text, HXRange{position, length - position}, anchored,
                             &matched)) {
            result.append(HXChunk(string.mid(qsizetype(position))));
            break;
        }
        if (matched.location > position)
            result.append(
                HXChunk(string.mid(qsizetype(position), qsizetype(matched.location - position))));
        const qsizetype characterLength =
            string.at(qsizetype(matched.location)).isHighSurrogate() ? 2 : 1;
        result.append(HXChunk(std::make_shared<HXEscapeAtom>(
            escapeCharacter() + string.mid(qsizetype(matched.location), characterLength))));
        position = matched.location + quint64(characterLength);
        if (anchored) {
            anchored = false;
            candidates = inlineTagsOf(candidates);
        }
    }
    return result;
}

HXTextParser::TagList HXTextParser::tagsByFilteringTags(const TagList &tags, const TagRef &tag,
                                                        const TagList &groupingTags,
                                                        HXDefinitionSelector scopeSelector) {
    const HXTextTag *lastGrouping = lastRealGrouping(groupingTags);
    const HXTextTag *inside = tag ? tag.get() : lastGrouping;
    if (inside && inside->definition()->noParsingInside())
        return {};
    const bool groupingsAdmitted =
        !tag && !(lastGrouping && lastGrouping->definition()->groupingType() == HXGroupingTerminal);
    TagList result;
    for (const TagRef &candidate : tags) {
        if (!candidate) {
            result.append(candidate);
            continue;
        }
        const HXDefinitionRef definition = candidate->definition();
        if (candidate == tag || (definition->noGroupingAllowed() && !groupingTags.isEmpty()) ||
            (definition->groupingType() != HXGroupingNone && !groupingsAdmitted))
            continue;
        if (definition->matchesSelector(scopeSelector))
            result.append(candidate);
    }
    return result;
}
