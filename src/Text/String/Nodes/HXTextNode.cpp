#include "Text/String/Nodes/HXTextNode.h"

#include "Text/String/Atoms/HXTextAtom.h"
#include "Text/String/Nodes/HXTextElement.h"
#include "Utilities/HXAssert.h"

QList<HXChunk> HXChunksOfString(const HXChunk &string) {
    if (const HXTextNode *node = string.as<HXTextNode>())
        return node->allChunks();
    if (string.length() == 0)
        return {};
    return {string};
}

namespace {

HXRange shifted(HXRange range, quint64 by) {
    return HXRange{range.location + by, range.length};
}

} // namespace

HXTextNode::~HXTextNode() = default;

void HXTextNode::setTraits(HXNodeTraits::Fields fields) {
    if (!m_traits || !m_traits->fields().isIdenticalTo(fields))
        m_traits = HXNodeTraits::traitsWithFields(std::move(fields));
}

void HXTextNode::setMarkup(const std::shared_ptr<HXMarkup> &given) {
    const std::shared_ptr<HXMarkup> markup = given;
    HXNodeTraits::Fields fields = traits();
    fields.markup = markup;
    setTraits(std::move(fields));
    for (const HXChunk &chunk : innerChunks()) {
        if (HXTextNode *node = chunk.as<HXTextNode>())
            node->setMarkup(markup);
    }
    recomputeIndexes();
}

void HXTextNode::initWithChunkString(const HXChunkString &other, HXRange range) {
    HXChunkString::initWithChunkString(other, range);
    m_traits = static_cast<const HXTextNode &>(other).m_traits;
}

bool HXTextNode::isOfClassOf(const HXChunkString &other) const {
    return dynamic_cast<const HXTextNode *>(&other) != nullptr;
}

// --- Replacing characters -------------------------------------------------------------------

void HXTextNode::replaceCharactersInRange(HXRange range, const HXChunk &string,
                                          HXRange *editedRange, HXRange *affectedRange,
                                          HXRange *replacementRange) {
    HX_ASSERT(range.max() <= length(), u"Range %@ out of bounds of text node of length %lu.",
              range.description(), length());
    HXRange edited = range, affected = range, replacement{range.location, string.length()};
    if (range.length > 0 || string.length() > 0) {
        const HXRange chunkRange = chunkRangeForRange(range);
        if (chunkRange.length == 0) {
            // An empty node, or the very end.
            replaceChunksInRange(HXRange{chunkRange.location, 0}, HXChunksOfString(string));
        } else if (chunkRange.length > range.length &&
                   chunkAtIndex(chunkRange.location).length() == chunkRange.length) {
            replaceInSingleChunk(range, string, chunkRange, &edited, &affected, &replacement);
        } else {
            replaceInMultipleChunks(range, string, chunkRange, &edited, &affected, &replacement);
        }
    }
    if (editedRange)
        *editedRange = edited;
    if (affectedRange)
        *affectedRange = affected;
    if (replacementRange)
        *replacementRange = replacement;
}

void HXTextNode::replaceInSingleChunk(HXRange range, const HXChunk &string, HXRange chunkRange,
                                      HXRange *editedRange, HXRange *affectedRange,
                                      HXRange *replacementRange) {
    const HXChunk chunk = chunkAtIndex(chunkRange.location);
    const HXRange relative{range.location - chunkRange.location, range.length};
    if (HXTextNode *node = chunk.as<HXTextNode>()) {
        const auto *element = dynamic_cast<HXTextElement *>(node);
        if (element && element->isObject()) {
            // An object can't take text: what is typed at its place goes in front of it.
            replaceChunksInRange(HXRange{chunkRange.location, 0}, HXChunksOfString(string));
            return;
        }
        node->replaceCharactersInRange(relative, string, editedRange, affectedRange,
                                       replacementRange);
        replaceChunksInRange(chunkRange,
                             node->length() > 0 ? QList<HXChunk>{chunk} : QList<HXChunk>{});
        *editedRange = shifted(*editedRange, chunkRange.location);
        *affectedRange = shifted(*affectedRange, chunkRange.location);
        *replacementRange = shifted(*replacementRange, chunkRange.location);
    } else if (chunk.isPlain() && string.as<HXTextNode>()) {
        QList<HXChunk> pieces;
        if (relative.location > 0)
            pieces.append(chunk.substringWithRange(HXRange{0, relative.location}));
        pieces.append(HXChunksOfString(string));
        if (relative.max() < chunk.length())
            pieces.append(
                chunk.substringWithRange(HXRange{relative.max(), chunk.length() - relative.max()}));
        replaceChunksInRange(chunkRange, pieces);
    } else {
        // Plain text, or the text of an atom that the edit cuts into: it becomes plain text.
        QString text = chunk.string();
        text.replace(qsizetype(relative.location), qsizetype(relative.length), string.string());
        replaceChunksInRange(chunkRange, {HXChunk(std::move(text))});
    }
}

void HXTextNode::replaceInMultipleChunks(HXRange range, const HXChunk &string, HXRange chunkRange,
                                         HXRange *editedRange, HXRange *affectedRange,
                                         HXRange *replacementRange) {
    QList<HXChunk> chunks;
    HXRange &replacement = *replacementRange;
    auto merge = [&](HXRange edited, HXRange affected, HXRange nestedReplacement,
                     quint64 oldLocation, quint64 newLocation) {
        *editedRange = HXUnionRange(*editedRange, shifted(edited, oldLocation));
        *affectedRange = HXUnionRange(*affectedRange, shifted(affected, oldLocation));
        replacement = HXUnionRange(replacement, shifted(nestedReplacement, newLocation));
    };

    // What stays of the first chunk: the part in front of the range.
    const quint64 firstKey = chunkRange.location;
    const HXChunk first = chunkAtIndex(firstKey);
    if (range.location > firstKey) {
        const quint64 firstEnd = firstKey + first.length();
        if (HXTextNode *node = first.as<HXTextNode>()) {
            HXRange edited, affected, nested;
            const quint64 overlapEnd = std::min(range.max(), firstEnd);
            node->replaceCharactersInRange(
                HXRange{range.location - firstKey, overlapEnd - range.location}, HXChunk(QString()),
                &edited, &affected, &nested);
            merge(edited, affected, nested, firstKey, firstKey);
            if (node->length() > 0)
                chunks.append(first);
        } else {
            chunks.append(first.substringWithRange(HXRange{0, range.location - firstKey}));
        }
    }

    chunks.append(HXChunksOfString(string));

    // What stays of the last chunk: the part behind the range.
    const quint64 lastKey = chunkIndexLessThanIndex(chunkRange.max());
    const HXChunk last = chunkAtIndex(lastKey);
    const quint64 lastEnd = chunkRange.max();
    if (range.max() < lastEnd && !(lastKey == firstKey && range.location > firstKey)) {
        if (HXTextNode *node = last.as<HXTextNode>()) {
            HXRange edited, affected, nested;
            const quint64 overlapStart = std::max(range.location, lastKey);
            node->replaceCharactersInRange(
                HXRange{overlapStart - lastKey, range.max() - overlapStart}, HXChunk(QString()),
                &edited, &affected, &nested);
            merge(edited, affected, nested, lastKey, range.location + string.length());
            if (node->length() > 0)
                chunks.append(last);
        } else {
            chunks.append(
                last.substringWithRange(HXRange{range.max() - lastKey, lastEnd - range.max()}));
        }
    }

    QList<HXChunk> nonEmpty;
    nonEmpty.reserve(chunks.size());
    for (const HXChunk &chunk : chunks) {
        if (chunk.length() > 0)
            nonEmpty.append(chunk);
    }
    replaceChunksInRange(chunkRange, nonEmpty);
}

// --- Enumerating ----------------------------------------------------------------------------

bool HXTextNode::enumerateStringsAndAtomsInRange(HXRange range, const HXOpenTags &openTags,
                                                 quint64 offset,
                                                 const HXStringsAndAtomsBlock &block) const {
    return enumerateChunksAsStringsAndAtoms(range, openTags, offset, block);
}

bool HXTextNode::enumerateChunksAsStringsAndAtoms(HXRange range, const HXOpenTags &openTags,
                                                  quint64 offset,
                                                  const HXStringsAndAtomsBlock &block) const {
    bool stop = false;
    enumerateChunksInRange(range, 0, [&](const HXChunk &chunk, HXRange chunkRange, bool &done) {
        const HXRange part = HXIntersectionRange(range, chunkRange);
        if (const auto *element = chunk.as<HXTextElement>()) {
            HXOpenTags inner = openTags;
            inner.append(element->tag());
            if (!element->enumerateStringsAndAtomsInRange(
                    HXRange{part.location - chunkRange.location, part.length}, inner,
                    offset + chunkRange.location, block))
                stop = true;
        } else {
            const bool isAtom = (headChunk() && chunk.isIdenticalTo(headChunk())) ||
                                (tailChunk() && chunk.isIdenticalTo(tailChunk()));
            const HXChunk piece =
                part == chunkRange ? chunk
                                   : chunk.substringWithRange(
                                         HXRange{part.location - chunkRange.location, part.length});
            block(piece, isAtom, part.location + offset, part.length, openTags, stop);
        }
        done = stop;
    });
    return !stop;
}

bool HXTextNode::enumerateElementsInRange(HXRange range, quint64 offset,
                                          const HXElementsBlock &block) const {
    const quint64 total = length();
    if (total == 0)
        return true;
    if (range.length == 0 && range.location > total)
        range.location = total;
    HXRange look = range;
    if (range.length == 0) {
        // A cursor: the chunk before it and the one at it.
        const quint64 from = range.location > 0 ? std::min(range.location, total) - 1 : 0;
        const quint64 to = std::min(range.location + 1, total);
        look = HXRange{from, to - from};
    }
    bool stop = false;
    enumerateChunksInRange(look, 0, [&](const HXChunk &chunk, HXRange chunkRange, bool &done) {
        const auto element = chunk.pointerAs<HXTextElement>();
        if (!element)
            return;
        const HXRange intersection = HXIntersectionRange(range, chunkRange);
        if (intersection.length == 0) {
            if (chunkRange.location == range.max())
                return;
            if (chunkRange.max() == range.location && element->isClosed())
                return;
            if (chunkRange.max() < range.location || chunkRange.location > range.max())
                return;
        }
        block(element, shifted(chunkRange, offset), stop);
        if (!stop) {
            const quint64 inner = std::max(intersection.location, chunkRange.location);
            if (!element->enumerateElementsInRange(
                    HXRange{inner - chunkRange.location, intersection.length},
                    offset + chunkRange.location, block))
                stop = true;
        }
        done = stop;
    });
    return !stop;
}

// --- Text without structure -----------------------------------------------------------------

QString HXTextNode::stringByRemovingObjects() const {
    QString result;
    for (const HXChunk &chunk : allChunks()) {
        if (const HXTextNode *node = chunk.as<HXTextNode>())
            result += node->stringByRemovingObjects();
        else if (const HXTextAtom *atom = chunk.as<HXTextAtom>())
            result += atom->stringRepresentation();
        else
            result += chunk.string();
    }
    return result;
}

// --- Comparing and checking -----------------------------------------------------------------

void HXTextNode::checkInvariants(bool deep) const {
    checkMapInvariants(deep);
}
