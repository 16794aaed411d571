// The parse of paragraphs: the line-level prefix, flattening, the inline parse with its one
// matcher, element and paragraph reparse, and the comparisons that report what changed.

#include "Text/Markup/HXMarkup.h"
#include "Text/String/Atoms/HXEscapeAtom.h"
#include "Text/String/Implementation/HXTextBuffer.h"
#include "Text/String/Nodes/HXParagraph.h"
#include "Text/String/Nodes/HXTextElement.h"
#include "Text/String/Parser/HXParseTables.h"
#include "Text/String/Parser/HXTextParser.h"
#include "Utilities/HXAssert.h"

#include <span>
#include <vector>

namespace {

using TagRef = std::shared_ptr<HXTextTag>;
using Candidate = HXParseTables::Candidate;
using Candidates = QVarLengthArray<const Candidate *, 16>;
using OpenTags = QVarLengthArray<const HXTextTag *, 8>;
using TextRanges = QVarLengthArray<HXRange, 8>;

// The next match of each candidate, by its place in the list; a stretch of text is searched for
// a tag once.
struct CachedMatch {
    bool known = false;
    HXRange range;
};
using MatchCache = QVarLengthArray<CachedMatch, 16>;

qsizetype indexOfOpen(const OpenTags &openTags, const HXTextTag *tag) {
    for (qsizetype i = 0; i < openTags.size(); ++i) {
        if (openTags.at(i) == tag)
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

// --- The one matcher --------------------------------------------------------------------------

// The candidate whose next match comes first, by the rules of which tag wins, and its matched
// range; -1 when none matches. An open tag looks only for its end. Matches lie in the text
// ranges and can't span an element.
qsizetype nextMatch(std::span<const Candidate *const> candidates, const HXPatternMatcher::Text &text,
                    const TextRanges &textRanges, bool anchored, HXRange range,
                    const OpenTags &openTags, MatchCache *cache, HXRange *matchedRange) {
    qsizetype best = -1;
    HXRange bestRange = HXNotFoundRange();
    for (qsizetype i = 0; i < qsizetype(candidates.size()); ++i) {
        const Candidate &candidate = *candidates[size_t(i)];
        const HXTextTag *tag = candidate.tag.get();
        HXRange found = HXNotFoundRange();
        CachedMatch *cached = cache ? &(*cache)[i] : nullptr;
        if (cached && cached->known &&
            (cached->range.isNotFound() || cached->range.location >= range.location)) {
            found = cached->range;
        } else {
            const HXPatternMatcher &matcher =
                tag && indexOfOpen(openTags, tag) >= 0 ? candidate.end : candidate.start;
            for (const HXRange &textRange : textRanges) {
                const HXRange part = HXIntersectionRange(textRange, range);
                if (part.length == 0)
                    continue;
                found = matcher.find(text, part, anchored);
                if (!found.isNotFound())
                    break;
            }
            if (cached)
                *cached = CachedMatch{true, found};
        }
        if (found.isNotFound() || found.length == 0)
            continue;
        if (best < 0 || found.location < bestRange.location) {
            best = i;
            bestRange = found;
            continue;
        }
        if (found.location > bestRange.location || !tag)
            continue;
        const Candidate &winner = *candidates[size_t(best)];
        if (!winner.tag) {
            // A real tag beats an escape at the same place.
            best = i;
            bestRange = found;
            continue;
        }
        const qsizetype openIndex = indexOfOpen(openTags, tag);
        const qsizetype bestOpenIndex = indexOfOpen(openTags, winner.tag.get());
        if (openIndex >= 0 && bestOpenIndex >= 0) {
            // The innermost closes first.
            if (openIndex > bestOpenIndex) {
                best = i;
                bestRange = found;
            }
            continue;
        }
        const bool replaces = found.length == bestRange.length ? candidate.scope < winner.scope
                                                               : found.length > bestRange.length;
        if (replaces) {
            best = i;
            bestRange = found;
        }
    }
    if (matchedRange)
        *matchedRange = best >= 0 ? bestRange : HXNotFoundRange();
    return best;
}

Candidates allOf(const std::vector<Candidate> &candidates) {
    Candidates result;
    for (const Candidate &candidate : candidates)
        result.append(&candidate);
    return result;
}

// --- The line-level prefix --------------------------------------------------------------------

// Four blanks, or up to three blanks and a tab: a level of indentation; one to three blanks
// alone: the lead of a tag. The length matched at the position, and whether it ends in a tab.
qsizetype matchIndentation(QStringView text, qsizetype position, bool *isLevel) {
    qsizetype blanks = 0;
    while (blanks < 4 && position + blanks < text.size() && text.at(position + blanks) == u' ')
        ++blanks;
    if (blanks == 4) {
        *isLevel = true;
        return 4;
    }
    if (position + blanks < text.size() && text.at(position + blanks) == u'\t') {
        *isLevel = true;
        return blanks + 1;
    }
    *isLevel = false;
    return blanks;
}

void parsePrefix(HXTextParser::TagList *groupings, TagRef *tag, QStringList *strings,
                 quint64 *consumedLength, QStringView text, HXDefinitionSelector selector,
                 const HXParseTables &tables) {
    groupings->clear();
    strings->clear();
    *tag = nullptr;
    *consumedLength = 0;
    if (!(selector & 0x7))
        return;
    const HXPatternMatcher::Text matchText(text);
    const quint64 length = quint64(text.size());
    const TextRanges whole{HXRange{0, length}};
    quint64 position = 0;
    for (;;) {
        QStringView lead;
        while (position < length) {
            bool isLevel = false;
            const qsizetype matched = matchIndentation(text, qsizetype(position), &isLevel);
            if (matched == 0)
                break;
            const QStringView indentation = text.sliced(qsizetype(position), matched);
            position += quint64(matched);
            if (!isLevel) {
                lead = indentation;
                break;
            }
            // A level of indentation; its text stays as it is written.
            groupings->append(nullptr);
            strings->append(indentation.toString());
            *consumedLength = position;
        }
        if (position >= length)
            return;
        // Only the tags that may begin with the character there are asked.
        const std::vector<const Candidate *> &candidates =
            tables.lineCandidatesAt(text.at(qsizetype(position)).unicode());
        HXRange matched;
        const qsizetype found =
            nextMatch(candidates, matchText, whole, true, HXRange{position, length - position}, {},
                      nullptr, &matched);
        if (found < 0)
            return;
        const TagRef &match = candidates[size_t(found)]->tag;
        if (!match || match->definition()->scope() > HXGroupingScope)
            return;
        const HXDefinitionRef definition = match->definition();
        if (definition->noGroupingAllowed() && !groupings->isEmpty())
            return;
        const QString tagString =
            lead.toString() +
            text.sliced(qsizetype(matched.location), qsizetype(matched.length)).toString();
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

// --- Flattening -------------------------------------------------------------------------------

// Characters as plain chunks hold them: a range of a shared buffer, which parts of it share.
struct Characters {
    HXRef<HXTextBuffer> buffer;
    quint32 offset = 0;
    quint32 length = 0;

    static Characters of(const QString &text) {
        return Characters{HXRef<HXTextBuffer>(HXTextBuffer::make(text)), 0, quint32(text.size())};
    }
    QStringView view() const { return buffer ? buffer->view(offset, length) : QStringView(); }
    HXChunk chunk(quint64 from, quint64 count) const {
        return HXChunk(buffer.get(), offset + quint32(from), quint32(count));
    }
};

// The characters of a node, without a copy when they are one plain chunk.
Characters charactersOf(const HXChunkString &node) {
    const HXChunk first = node.firstChunk();
    if (first.isPlain() && first.length() == node.length())
        return Characters{HXRef<HXTextBuffer>(first.buffer()), first.offset(),
                          quint32(first.length())};
    // Else gathered straight into a buffer of their own.
    const quint32 length = quint32(node.length());
    HXTextBuffer *buffer = HXTextBuffer::makeUninitialized(length);
    node.getCharacters(reinterpret_cast<QChar *>(buffer->mutableUnits()), HXRange{0, length});
    return Characters{HXRef<HXTextBuffer>(buffer), 0, length};
}

// Elements of the old tree by tag, for the new tree to take up again, in the order they were
// melted; the last of a tag is taken first. A paragraph has few, so they are looked for one by
// one.
class ReusableElements {
public:
    void append(const HXTextTag *tag, HXRef<HXTextElement> element) {
        m_entries.emplace_back(tag, std::move(element));
    }
    HXRef<HXTextElement> takeLast(const HXTextTag *tag) {
        for (auto entry = m_entries.rbegin(); entry != m_entries.rend(); ++entry) {
            if (entry->first == tag) {
                HXRef<HXTextElement> element = std::move(entry->second);
                m_entries.erase(std::next(entry).base());
                return element;
            }
        }
        return {};
    }

private:
    std::vector<std::pair<const HXTextTag *, HXRef<HXTextElement>>> m_entries;
};

// A node melted to its characters: the elements that stay whole stand in it at their places,
// their characters replaced by as many object replacement characters, and the elements melted
// on the way wait by tag for the new tree to take them up again.
struct FlatText {
    struct Kept {
        quint64 location;
        HXRef<HXTextElement> element;
    };
    Characters text;
    std::vector<Kept> kept;
    ReusableElements reusable;

    // The runs between the elements, in the range.
    TextRanges textRanges() const {
        TextRanges ranges;
        quint64 location = 0;
        for (const Kept &kept : this->kept) {
            if (kept.location > location)
                ranges.append(HXRange{location, kept.location - location});
            location = kept.location + kept.element->length();
        }
        if (quint64(text.length) > location)
            ranges.append(HXRange{location, quint64(text.length) - location});
        return ranges;
    }
};

// Walks the chunks of a node as flattening takes them: entities and closed code whole, elements
// of forbidden tags melted to the texts of their tags around their inner chunks, other elements
// melted with their atoms. The walk keeps its own stack, so deep trees can't exhaust the
// thread's. Counting, it only measures the text, which then is the node's own characters apart
// from the kept elements; it gives up (false) at a forbidden entity, whose tag texts aren't its
// characters.
template<bool Counting>
bool flattenInto(FlatText &flat, const HXChunkString &node, const HXTextParser::TagSet &forbidden,
                 quint64 definitionOptions) {
    QString text;
    quint64 counted = 0;
    if constexpr (!Counting)
        text.reserve(qsizetype(node.length()) + 16);
    auto location = [&]() -> quint64 {
        if constexpr (Counting)
            return counted;
        else
            return quint64(text.size());
    };
    struct Frame {
        QList<HXChunk> chunks;
        qsizetype next = 0;
        QString after; // the end tag text of a melted element of a forbidden tag
        HXRef<HXTextElement> melting = {}; // the element whose chunks these are, melted
    };
    std::vector<Frame> stack;
    stack.push_back(Frame{node.allChunks(), 0, QString()});
    while (!stack.empty()) {
        if (stack.back().next == stack.back().chunks.size()) {
            const QString after = std::move(stack.back().after);
            stack.pop_back();
            if constexpr (Counting)
                counted += quint64(after.size());
            else
                text += after;
            continue;
        }
        const HXChunk chunk = stack.back().chunks.at(stack.back().next++);
        const auto element = chunk.pointerAs<HXTextElement>();
        if (!element) {
            if (const HXChunkString *nested = chunk.chunkString()) {
                stack.push_back(Frame{nested->allChunks(), 0, QString()});
                continue;
            }
            if (const HXTextAtom *atom = chunk.as<HXTextAtom>()) {
                // The start tag of a melted element: the element may be taken up again.
                const Frame &frame = stack.back();
                if (frame.melting && frame.next == 1 && atom->part() == 0 && atom->tag())
                    flat.reusable.append(atom->tag().get(), frame.melting);
            }
            if constexpr (Counting)
                counted += chunk.length();
            else if (chunk.isPlain())
                text += chunk.view();
            else
                text += chunk.string();
            continue;
        }
        const bool forbiddenTag = element->tag() && forbidden.contains(element->tag().get());
        const bool intact = element->isIntact();
        if (!forbiddenTag && intact &&
            (element->isEntity() ||
             (element->isClosed() && element->tag() && element->definition()->noParsingInside()))) {
            if ((definitionOptions & HXSelectorNoMedia) && element->attributes())
                element->attributes()->removeFileWrappersQuietly();
            flat.kept.push_back(FlatText::Kept{location(), element});
            if constexpr (Counting)
                counted += element->length();
            else
                text.resize(text.size() + qsizetype(element->length()), QChar(0xfffc));
            continue;
        }
        if (forbiddenTag && intact) {
            // Not allowed here: its tags come back as their texts, an entity's too.
            if constexpr (Counting) {
                if (element->isEntity())
                    return false;
                counted += quint64(element->startTagString().size());
            } else {
                text += element->startTagString();
            }
            stack.push_back(Frame{
                element->innerChunks(), 0,
                element->isClosed() && !element->isObject() ? element->endTagString() : QString()});
            continue;
        }
        stack.push_back(Frame{element->allChunks(), 0, QString(), element});
    }
    if constexpr (!Counting)
        flat.text = Characters::of(text);
    return true;
}

// The flat text of a node; where its characters are given, they are the flat text if they can
// be, and the kept elements stand in them with their own characters, which the parse passes by.
FlatText flatten(const HXChunkString &node, const HXTextParser::TagSet &forbidden,
                 quint64 definitionOptions, const Characters *characters = nullptr) {
    if (characters) {
        FlatText flat;
        if (flattenInto<true>(flat, node, forbidden, definitionOptions)) {
            flat.text = *characters;
            return flat;
        }
    }
    FlatText flat;
    flattenInto<false>(flat, node, forbidden, definitionOptions);
    return flat;
}

// --- The inline parse -------------------------------------------------------------------------

class InlineParser {
public:
    InlineParser(const FlatText &flat, const HXParseTables &tables,
                 const std::shared_ptr<HXMarkup> &markup, const HXTextParser::TagSet &forbidden)
        : m_flat(flat)
        , m_tables(tables)
        , m_markup(markup)
        , m_forbidden(forbidden)
        , m_text(flat.text.view())
        , m_textRanges(flat.textRanges()) {}

    // The chunks of the range, with its elements; melted elements are taken up again from the
    // reusable ones.
    std::vector<HXChunk> parse(HXRange range, ReusableElements &reusable);

private:
    struct Open {
        qsizetype candidate;
        HXRef<HXTextElement> element;
        // The inner chunks found so far, behind a free place for the head atom.
        std::vector<HXChunk> children;
        bool oldTailInPlace;
    };

    std::vector<HXChunk> &target() { return m_open.empty() ? m_root : m_open.back().children; }
    // The text and the kept elements of a stretch without matches, each element parsed inside.
    void appendText(quint64 from, quint64 to);
    // Ends the innermost open element, closed by the matched text or left open.
    void closeInnermost(bool closing, const QString &matchedText, MatchCache &cache);

    const FlatText &m_flat;
    const HXParseTables &m_tables;
    const std::shared_ptr<HXMarkup> &m_markup;
    const HXTextParser::TagSet &m_forbidden;
    HXPatternMatcher::Text m_text;
    TextRanges m_textRanges;
    Candidates m_candidates;
    std::vector<HXChunk> m_root;
    std::vector<Open> m_open;
};

void reparseElement(HXTextElement &element, HXTextParser::TagSet forbidden,
                    const HXParseTables &tables);

void InlineParser::appendText(quint64 from, quint64 to) {
    quint64 position = from;
    auto plain = [&](quint64 end) {
        if (end > position)
            target().push_back(m_flat.text.chunk(position, end - position));
    };
    for (const FlatText::Kept &kept : m_flat.kept) {
        if (kept.location < from)
            continue;
        if (kept.location >= to)
            break;
        plain(kept.location);
        reparseElement(*kept.element, m_forbidden, m_tables);
        target().push_back(HXChunk(kept.element));
        position = kept.location + kept.element->length();
    }
    plain(to);
}

void InlineParser::closeInnermost(bool closing, const QString &matchedText, MatchCache &cache) {
    Open open = std::move(m_open.back());
    m_open.pop_back();
    HXTextElement &element = *open.element;
    element.finishParsed(open.children, closing, closing ? matchedText : QString(),
                         open.oldTailInPlace);
    if (element.isEntity() || (closing && element.definition()->noParsingInside()))
        reparseElement(element, m_forbidden, m_tables);
    cache[open.candidate].known = false;
    target().push_back(HXChunk(open.element));
}

std::vector<HXChunk> InlineParser::parse(HXRange range, ReusableElements &reusable) {
    quint64 position = range.location;
    const quint64 end = range.max();
    // Text where no tag can begin is plain, as it most often is; kept elements are passed by.
    const QStringView view = m_text.view();
    TextRanges parts;
    bool mayStart = false;
    for (const HXRange &textRange : m_textRanges) {
        const HXRange part = HXIntersectionRange(textRange, HXRange{position, end - position});
        if (part.length == 0)
            continue;
        parts.append(part);
        mayStart = mayStart ||
                   m_tables.firstPossibleInlineStart(view, part.location, part.max()) != part.max();
    }
    if (!mayStart) {
        appendText(position, end);
        return std::move(m_root);
    }
    // The candidates: those not forbidden that may begin with a unit of the text.
    std::bitset<128> ascii;
    bool nonAscii = false;
    for (const HXRange &part : parts) {
        for (const QChar character : view.sliced(qsizetype(part.location), qsizetype(part.length))) {
            const char16_t unit = character.unicode();
            if (unit < 128)
                ascii.set(unit);
            else
                nonAscii = true;
        }
    }
    for (const Candidate &candidate : m_tables.inlineCandidates) {
        if ((candidate.start.mayStartIn(ascii, nonAscii) ||
             candidate.end.mayStartIn(ascii, nonAscii)) &&
            !m_forbidden.contains(candidate.tag.get()))
            m_candidates.append(&candidate);
    }
    if (m_candidates.isEmpty()) {
        appendText(position, end);
        return std::move(m_root);
    }
    MatchCache cache(m_candidates.size());
    OpenTags openTags;
    while (position < end) {
        HXRange matched;
        const qsizetype found =
            nextMatch(m_candidates, m_text, m_textRanges, false, HXRange{position, end - position},
                      openTags, &cache, &matched);
        if (found < 0)
            matched = HXRange{end, 0};

        appendText(position, matched.location);

        const QString matchedText =
            found < 0 ? QString()
                      : m_flat.text.view()
                            .sliced(qsizetype(matched.location), qsizetype(matched.length))
                            .toString();
        static const TagRef noTag;
        const TagRef &tag = found >= 0 ? m_candidates.at(found)->tag : noTag;
        const bool wasOpen = tag && indexOfOpen(openTags, tag.get()) >= 0;
        if (found >= 0 && !tag) {
            target().push_back(HXChunk(HXRef<HXEscapeAtom>::make(matchedText)));
        } else if (found >= 0 && !wasOpen) {
            HXRef<HXTextElement> element;
            element = reusable.takeLast(tag.get());
            if (!element)
                element = HXTextElement::emptyElement(m_markup);
            const bool oldTailInPlace = element->beginParsed(tag, matchedText);
            if (element->isObject()) {
                element->finishParsedObject();
                target().push_back(HXChunk(element));
            } else {
                openTags.append(tag.get());
                std::vector<HXChunk> children;
                children.reserve(4);
                children.emplace_back();
                m_open.push_back(Open{found, std::move(element), std::move(children),
                                      oldTailInPlace});
            }
        }

        // A closing tag closes its element and leaves those opened inside it open; at the end
        // of the range all that is still open ends, not closed.
        const bool atEnd = matched.max() == end;
        if (wasOpen || (atEnd && !openTags.isEmpty())) {
            const qsizetype down = atEnd ? 0 : indexOfOpen(openTags, tag.get());
            while (openTags.size() > down) {
                const HXTextTag *openTag = openTags.back();
                openTags.removeLast();
                closeInnermost(wasOpen && openTag == tag.get(), matchedText, cache);
            }
        }
        if (found < 0)
            break;
        position = matched.max();
    }
    return std::move(m_root);
}

void reparseElement(HXTextElement &element, HXTextParser::TagSet forbidden,
                    const HXParseTables &tables) {
    HX_ASSERT(element.isIntact(), u"Broken elements cannot be reparsed \"%@\"",
              element.description());
    if (element.length() == 0)
        return;
    forbidden.insert(element.tag().get());
    const HXDefinitionRef definition = element.definition();
    if (definition && definition->noParsingInside() && element.isClosed()) {
        // Nothing is parsed in code, no escape either.
        if (element.markup().get() == tables.markup) {
            // Code of plain text already is what its parse would make.
            const HXRange inner = element.innerChunkRange();
            const HXChunk first = element.chunkAtIndex(inner.location);
            if (inner.length == 0 || (first.isPlain() && first.length() == inner.length))
                return;
            forbidden = tables.forbiddenInCode;
        } else {
            if (element.markup()) {
                for (const TagRef &tag : element.markup()->allTags())
                    forbidden.insert(tag.get());
            }
            forbidden.insert(nullptr);
        }
        forbidden.insert(element.tag().get());
    }
    FlatText flat = flatten(element, forbidden, 0);
    InlineParser parser(flat, tables, element.markup(), forbidden);
    element.takeInnerChunks(parser.parse(element.innerChunkRange(), flat.reusable));
}

// --- Comparing ------------------------------------------------------------------------------

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

// --- Reparsing --------------------------------------------------------------------------------

namespace {

bool holdsElements(const HXChunkString &node) {
    bool found = false;
    node.enumerateChunksInRange(HXRange{0, node.length()}, 0,
                                [&](const HXChunk &chunk, HXRange, bool &stop) {
                                    found = stop = chunk.as<HXTextElement>() != nullptr;
                                });
    return found;
}

} // namespace

void HXTextParser::parseGroupings(TagList *groupings, TagRef *tag, QStringList *strings,
                                  quint64 *consumedLength, const HXParagraph &paragraph) {
    const auto tables = paragraph.markup()
                            ? paragraph.markup()->parserTables(paragraph.recognizedDefinitions())
                            : nullptr;
    if (!tables) {
        groupings->clear();
        strings->clear();
        *tag = nullptr;
        *consumedLength = 0;
        return;
    }
    const Characters text = charactersOf(paragraph);
    parsePrefix(groupings, tag, strings, consumedLength, text.view(),
                paragraph.recognizedDefinitions(), *tables);
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
    const std::shared_ptr<HXMarkup> markup = paragraph.markup();
    // What the old tree was, for the reports: elements taken up again change on the way.
    std::vector<StructureToken> oldStructure;
    if (changedStructure)
        oldStructure = structureOf(paragraph);
    const Characters characters = charactersOf(paragraph);
    const quint64 oldLength = characters.length;

    TagList groupings;
    TagRef tag;
    QStringList strings;
    quint64 consumed = 0;
    HXDefinitionSelector selector = paragraph.recognizedDefinitions();
    std::shared_ptr<const HXParseTables> tables;
    if (markup) {
        tables = markup->parserTables(selector);
        parsePrefix(&groupings, &tag, &strings, &consumed, characters.view(), selector, *tables);
    } else {
        tables = std::make_shared<HXParseTables>();
    }

    const HXTextTag *grouping = lastRealGrouping(groupings);
    const bool noParsingInside = (tag && tag->definition()->noParsingInside()) ||
                                 (grouping && grouping->definition()->noParsingInside());
    if (noParsingInside)
        selector &= ~HXDefinitionSelector(0x3ff);
    const TagSet &forbidden = noParsingInside ? tables->forbiddenInCode : tables->forbidden;

    // Text without elements is its own flat form.
    FlatText flat;
    if (holdsElements(paragraph))
        flat = flatten(paragraph, forbidden, quint64(selector), &characters);
    else
        flat.text = characters;

    // The line feed stays outside all elements: it is parsed apart and goes last.
    const quint64 flatLength = flat.text.length;
    const bool lineFeed = paragraph.endsInLineFeed() && flatLength > consumed;
    InlineParser parser(flat, *tables, markup, forbidden);
    std::vector<HXChunk> chunks =
        parser.parse(HXRange{consumed, flatLength - consumed - (lineFeed ? 1 : 0)}, flat.reusable);
    if (lineFeed) {
        // It belongs to the plain text in front of it, where there is one.
        const HXChunk lineFeedChunk = flat.text.chunk(flatLength - 1, 1);
        HXChunk *last = chunks.empty() ? nullptr : &chunks.back();
        if (last && last->isPlain() && last->buffer() == lineFeedChunk.buffer() &&
            last->offset() + last->recordedLength() == lineFeedChunk.offset())
            *last = HXChunk(last->buffer(), last->offset(), last->recordedLength() + 1);
        else
            chunks.push_back(lineFeedChunk);
    }

    auto sameTag = [](const TagRef &a, const TagRef &b) { return a.get() == b.get(); };
    bool prefixChanged =
        !sameTag(paragraph.tag(), tag) || paragraph.groupings().size() != groupings.size();
    for (qsizetype i = 0; !prefixChanged && i < groupings.size(); ++i)
        prefixChanged = !sameTag(paragraph.groupings().at(i), groupings.at(i));

    paragraph.setParsed(groupings, tag, strings, std::move(chunks));

    if (changedText)
        *changedText = compareFlatString(characters.view().toString(),
                                         charactersOf(paragraph).view().toString());
    if (changedStructure) {
        HXRange structure =
            prefixChanged ? HXRange{0, oldLength}
                          : compareStructures(oldStructure, structureOf(paragraph), oldLength);
        *changedStructure = structure.length > 0 ? structure : HXNotFoundRange();
    }
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

Candidates inlineOf(const Candidates &candidates) {
    Candidates result;
    for (const Candidate *candidate : candidates) {
        if (!candidate->tag || candidate->tag->definition()->matchesSelector(HXSelectorInlineOnly))
            result.append(candidate);
    }
    return result;
}

// The next place that needs an escape: an escape itself or an inline tag; a line-level tag only
// while the text is anchored and nothing but white space lies before it.
qsizetype nextEscapeMatch(Candidates &candidates, const HXPatternMatcher::Text &text, HXRange range,
                          bool anchored, HXRange *matched) {
    const TextRanges whole{HXRange{0, quint64(text.view().size())}};
    while (range.length > 0) {
        const qsizetype found =
            nextMatch(candidates, text, whole, false, range, {}, nullptr, matched);
        if (found < 0)
            return -1;
        const Candidate *candidate = candidates.at(found);
        if (!candidate->tag || candidate->scope > HXGroupingScope)
            return found;
        if (anchored) {
            const QStringView before = text.view().sliced(
                qsizetype(range.location), qsizetype(matched->location - range.location));
            if (before.trimmed().isEmpty())
                return found;
            range = HXRange{matched->location, range.max() - matched->location};
            candidates = inlineOf(candidates);
        } else {
            range = HXRange{matched->location + 1, range.max() - matched->location - 1};
        }
    }
    return -1;
}

} // namespace

QList<HXChunk> HXTextParser::escapedStringsForString(const QString &string, const TagList &tags,
                                                     bool anchored) {
    const std::vector<Candidate> all = HXParseTables::candidatesForTags(tags);
    Candidates candidates = anchored ? allOf(all) : inlineOf(allOf(all));
    const HXPatternMatcher::Text text(string);
    QList<HXChunk> result;
    quint64 position = 0;
    const quint64 length = quint64(string.size());
    while (position < length) {
        HXRange matched;
        if (nextEscapeMatch(candidates, text, HXRange{position, length - position}, anchored,
                            &matched) < 0) {
            result.append(HXChunk(string.mid(qsizetype(position))));
            break;
        }
        if (matched.location > position)
            result.append(
                HXChunk(string.mid(qsizetype(position), qsizetype(matched.location - position))));
        const qsizetype characterLength =
            string.at(qsizetype(matched.location)).isHighSurrogate() ? 2 : 1;
        result.append(HXChunk(HXRef<HXEscapeAtom>::make(
            escapeCharacter() + string.mid(qsizetype(matched.location), characterLength))));
        position = matched.location + quint64(characterLength);
        if (anchored) {
            anchored = false;
            candidates = inlineOf(candidates);
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
