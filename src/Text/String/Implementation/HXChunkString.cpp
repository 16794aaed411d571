#include "Text/String/Implementation/HXChunkString.h"

#include "Utilities/HXAssert.h"
#include "Utilities/HXDescription.h"

#include <QStringList>

#include <typeinfo>

HXChunkString::HXChunkString() = default;

HXChunkString::~HXChunkString() = default;

// --- Reading --------------------------------------------------------------------------------

QChar HXChunkString::characterAtIndex(quint64 index) const {
    HX_ASSERT(index < length(), u"Range or index out of bounds %lu", index);
    quint64 key = 0;
    const HXChunkMap::Cursor cursor = m_map.floor(index, &key);
    return m_map.at(cursor).chunk.characterAtIndex(index - key);
}

void HXChunkString::getCharacters(QChar *buffer, HXRange range) const {
    if (range.length == 0)
        return;
    HX_ASSERT(range.max() <= length(), u"Range or index out of bounds %@", range.description());
    quint64 key = 0;
    const HXChunkMap::Cursor first = m_map.floor(range.location, &key);
    const quint64 end = range.max();
    m_map.walk(first, false, [&](HXChunkMap::Cursor, const HXChunkMap::Entry &entry, quint64 at) {
        const HXRange part = HXIntersectionRange(range, HXRange{at, entry.length});
        entry.chunk.getCharacters(buffer + (part.location - range.location),
                                  HXRange{part.location - at, part.length});
        return at + entry.length < end;
    });
}

QString HXChunkString::string() const {
    return flatSubstringWithRange(HXRange{0, length()});
}

QString HXChunkString::flatSubstringWithRange(HXRange range) const {
    QString result(qsizetype(range.length), Qt::Uninitialized);
    getCharacters(result.data(), range);
    return result;
}

HXChunkMap::Cursor HXChunkString::cursorAtKey(quint64 key) const {
    HXChunkMap::Cursor cursor;
    HX_ASSERT(m_map.findKey(key, &cursor), u"No chunk starts at index %lu.", key);
    return cursor;
}

HXChunk HXChunkString::chunkAtIndex(quint64 index) const {
    HXChunkMap::Cursor cursor;
    if (!m_map.findKey(index, &cursor) || m_map.isEnd(cursor))
        return HXChunk();
    return m_map.at(cursor).chunk;
}

HXChunk HXChunkString::lastChunk() const {
    if (m_map.isEmpty())
        return HXChunk();
    HXChunkMap::Cursor cursor = m_map.end();
    m_map.previous(cursor);
    return m_map.at(cursor).chunk;
}

QList<HXChunk> HXChunkString::allChunks() const {
    QList<HXChunk> chunks;
    chunks.reserve(m_map.count());
    m_map.walk(m_map.begin(), false, [&](HXChunkMap::Cursor, const HXChunkMap::Entry &e, quint64) {
        chunks.append(e.chunk);
        return true;
    });
    return chunks;
}

QList<HXChunk> HXChunkString::innerChunks() const {
    QList<HXChunk> chunks = allChunks();
    if (!chunks.isEmpty() && m_headChunk && chunks.first().isIdenticalTo(m_headChunk))
        chunks.removeFirst();
    if (!chunks.isEmpty() && m_tailChunk && chunks.last().isIdenticalTo(m_tailChunk))
        chunks.removeLast();
    return chunks;
}

HXRange HXChunkString::innerChunkRange() const {
    quint64 start = 0, end = length();
    if (!m_map.isEmpty() && m_headChunk && m_map.at(m_map.begin()).chunk.isIdenticalTo(m_headChunk))
        start = m_map.at(m_map.begin()).length;
    if (!m_map.isEmpty() && m_tailChunk) {
        HXChunkMap::Cursor last = m_map.end();
        m_map.previous(last);
        if (m_map.at(last).chunk.isIdenticalTo(m_tailChunk) &&
            (last != m_map.begin() || !m_headChunk))
            end -= m_map.at(last).length;
    }
    return HXRange{start, end >= start ? end - start : 0};
}

HXRange HXChunkString::chunkRangeForRange(HXRange range) const {
    quint64 start = 0;
    const HXChunkMap::Cursor first = m_map.floor(range.location, &start);
    if (range.length == 0) {
        if (m_map.isEnd(first))
            return HXRange{start, 0};
        return HXRange{start, m_map.at(first).length};
    }
    const quint64 end = chunkIndexGreaterThanOrEqualToIndex(range.max());
    HX_ASSERT(end != HXNotFound, u"Range %@ out of bounds of chunk string of length %lu.",
              range.description(), length());
    return HXRange{start, end - start};
}

quint64 HXChunkString::chunkIndexLessThanOrEqualToIndex(quint64 index) const {
    quint64 key = 0;
    m_map.floor(index, &key);
    return key;
}

quint64 HXChunkString::chunkIndexLessThanIndex(quint64 index) const {
    return index == 0 ? HXNotFound : chunkIndexLessThanOrEqualToIndex(index - 1);
}

quint64 HXChunkString::chunkIndexGreaterThanOrEqualToIndex(quint64 index) const {
    if (index > length())
        return HXNotFound;
    quint64 key = 0;
    const HXChunkMap::Cursor cursor = m_map.floor(index, &key);
    if (key == index)
        return key;
    return key + m_map.at(cursor).length;
}

quint64 HXChunkString::chunkIndexGreaterThanIndex(quint64 index) const {
    if (index >= length())
        return HXNotFound;
    return chunkIndexGreaterThanOrEqualToIndex(index + 1);
}

// --- Changing -------------------------------------------------------------------------------

void HXChunkString::adopt(const HXChunk &chunk) const {
    if (HXChunkString *nested = chunk.chunkString())
        nested->setLockingContext(m_lockingContext);
}

std::vector<HXChunkMap::Entry> HXChunkString::entriesForChunks(const QList<HXChunk> &chunks) const {
    std::vector<HXChunkMap::Entry> entries;
    entries.reserve(size_t(chunks.size()));
    for (const HXChunk &chunk : chunks) {
        HX_ASSERT(!chunk.isNull(), u"Chunks must be kind of NSString (subclasses)!");
        const quint64 chunkLength = chunk.length();
        HX_ASSERT(chunkLength > 0, u"Chunks must be non-zero length!");
        adopt(chunk);
        entries.push_back(HXChunkMap::Entry{chunk, chunkLength});
    }
    return entries;
}

void HXChunkString::replaceChunksInRange(HXRange range, const QList<HXChunk> &chunks) {
    std::vector<HXChunkMap::Entry> entries = entriesForChunks(chunks);
    const HXChunkMap::Cursor from = cursorAtKey(range.location);
    const HXChunkMap::Cursor to = range.length == 0 ? from : cursorAtKey(range.max());
    m_map.replace(from, to, std::move(entries));
}

void HXChunkString::setInnerChunks(const QList<HXChunk> &chunks) {
    QList<HXChunk> all;
    all.reserve(chunks.size() + 2);
    if (m_headChunk)
        all.append(m_headChunk);
    all.append(chunks);
    if (m_tailChunk)
        all.append(m_tailChunk);
    m_map.assign(entriesForChunks(all));
}

void HXChunkString::setHeadChunk(const HXChunk &chunk) {
    const HXChunk replacement = chunk && chunk.length() > 0 ? chunk : HXChunk();
    const HXChunk first = firstChunk();
    if (m_headChunk && first.isIdenticalTo(m_headChunk)) {
        const quint64 oldLength = m_map.at(m_map.begin()).length;
        if (replacement.length() != oldLength) {
            replaceChunksInRange(HXRange{0, oldLength},
                                 replacement ? QList<HXChunk>{replacement} : QList<HXChunk>{});
        } else if (!replacement.isIdenticalTo(first)) {
            adopt(replacement);
            m_map.setChunk(m_map.begin(), replacement);
        }
    } else if (replacement) {
        if (length() > 0)
            replaceChunksInRange(HXRange{0, 0}, {replacement});
        else
            appendChunk(replacement);
    }
    m_headChunk = replacement;
}

void HXChunkString::setTailChunk(const HXChunk &chunk) {
    const HXChunk replacement = chunk && chunk.length() > 0 ? chunk : HXChunk();
    const HXChunk last = lastChunk();
    const bool tailInPlace =
        m_tailChunk && last.isIdenticalTo(m_tailChunk) && !(m_map.count() == 1 && m_headChunk);
    if (tailInPlace) {
        HXChunkMap::Cursor cursor = m_map.end();
        m_map.previous(cursor);
        const quint64 oldLength = m_map.at(cursor).length;
        if (replacement.length() != oldLength) {
            replaceChunksInRange(HXRange{length() - oldLength, oldLength},
                                 replacement ? QList<HXChunk>{replacement} : QList<HXChunk>{});
        } else if (!replacement.isIdenticalTo(last)) {
            adopt(replacement);
            m_map.setChunk(cursor, replacement);
        }
    } else if (replacement) {
        m_tailChunk = HXChunk(); // so that the new chunk goes behind the inner ones
        appendChunk(replacement);
    }
    m_tailChunk = replacement;
}

void HXChunkString::appendChunk(const HXChunk &chunk) {
    if (chunk.isNull() || chunk.length() == 0)
        return;
    const HXRange inner = innerChunkRange();
    const bool hasTail = m_tailChunk && inner.max() < length();
    const quint64 at = hasTail ? inner.max() : length();
    replaceChunksInRange(HXRange{at, 0}, {chunk});
}

void HXChunkString::appendChunkString(const HXChunkString &other) {
    other.m_map.walk(other.m_map.begin(), false,
                     [&](HXChunkMap::Cursor, const HXChunkMap::Entry &entry, quint64) {
                         appendChunk(entry.chunk);
                         return true;
                     });
}

void HXChunkString::clear() {
    setInnerChunks({});
}

void HXChunkString::recomputeIndexes() {
    if (m_map.isEmpty())
        return;
    std::vector<HXChunkMap::Entry> entries;
    entries.reserve(size_t(m_map.count()));
    m_map.walk(m_map.begin(), false, [&](HXChunkMap::Cursor, const HXChunkMap::Entry &e, quint64) {
        // A chunk that has become empty in place would share its key with the next one; like a
        // map entry overwritten under the same key, it goes.
        const quint64 present = e.chunk.length();
        if (present > 0)
            entries.push_back(HXChunkMap::Entry{e.chunk, present});
        return true;
    });
    m_map.assign(std::move(entries));
}

void HXChunkString::copyChunksFromString(const HXChunkString &source) {
    std::vector<HXChunkMap::Entry> entries;
    entries.reserve(size_t(source.m_map.count()));
    HXChunk head, tail;
    const qsizetype count = source.m_map.count();
    qsizetype ordinal = 0;
    source.m_map.walk(source.m_map.begin(), false,
                      [&](HXChunkMap::Cursor, const HXChunkMap::Entry &entry, quint64) {
                          HXChunk copied = entry.chunk.copy();
                          if (ordinal == 0 && source.m_headChunk &&
                              entry.chunk.isIdenticalTo(source.m_headChunk))
                              head = copied;
                          else if (ordinal == count - 1 && source.m_tailChunk &&
                                   entry.chunk.isIdenticalTo(source.m_tailChunk))
                              tail = copied;
                          adopt(copied);
                          entries.push_back(HXChunkMap::Entry{std::move(copied), entry.length});
                          ++ordinal;
                          return true;
                      });
    m_map.assign(std::move(entries));
    m_headChunk = head;
    m_tailChunk = tail;
}

void HXChunkString::copyChunksFromString(const HXChunkString &source, HXRange range) {
    m_map.assign({});
    m_headChunk = HXChunk();
    m_tailChunk = HXChunk();
    source.enumerateChunksInRange(
        range, HXChunkEnumerationClippedToRange | HXChunkEnumerationCopyingChunks,
        [&](const HXChunk &chunk, HXRange, bool &) { appendChunk(chunk); });

    const HXRange sourceInner = source.innerChunkRange();
    const bool sourceHasHead = source.m_headChunk && sourceInner.location > 0;
    const bool sourceHasTail = source.m_tailChunk && sourceInner.max() < source.length();
    const quint64 headLength = sourceInner.location;
    const quint64 tailLength = source.length() - sourceInner.max();
    if (sourceHasHead && range.location == 0 && headLength <= range.length)
        m_headChunk = firstChunk();
    if (sourceHasTail && range.max() == source.length() &&
        range.location <= source.length() - tailLength && m_map.count() > (m_headChunk ? 1 : 0))
        m_tailChunk = lastChunk();
}

void HXChunkString::setLockingContext(const std::weak_ptr<HXLockingContext> &context) {
    if (!m_lockingContext.owner_before(context) && !context.owner_before(m_lockingContext))
        return;
    m_lockingContext = context;
    m_map.walk(m_map.begin(), false, [&](HXChunkMap::Cursor, const HXChunkMap::Entry &e, quint64) {
        if (HXChunkString *nested = e.chunk.chunkString())
            nested->setLockingContext(context);
        return true;
    });
}

void HXChunkString::replaceCharactersInRange(HXRange, const QString &) {
    HX_ASSERT(false, u"-replaceCharactersInRange:withString: not implemented!");
}

// --- Copying and comparing ------------------------------------------------------------------

bool HXChunkString::isOfClassOf(const HXChunkString &) const {
    return true;
}

void HXChunkString::initWithChunkString(const HXChunkString &other, HXRange range) {
    HX_ASSERT(isOfClassOf(other),
              u"Deep copy requires other string to be of the same or a subclass!");
    if (range.location == 0 && range.length == other.length())
        copyChunksFromString(other);
    else
        copyChunksFromString(other, range);
}

std::shared_ptr<HXChunkString> HXChunkString::copyWithRange(HXRange range) const {
    auto copy = std::make_shared<HXChunkString>();
    copy->initWithChunkString(*this, range);
    return copy;
}

bool HXChunkString::isEqualToChunkString(const HXChunkString &other) const {
    if (!isOfClassOf(other) || m_map.count() != other.m_map.count() ||
        m_map.totalLength() != other.m_map.totalLength())
        return false;
    bool equal = true;
    HXChunkMap::Cursor theirs = other.m_map.begin();
    m_map.walk(m_map.begin(), false, [&](HXChunkMap::Cursor, const HXChunkMap::Entry &e, quint64) {
        const HXChunkMap::Entry &o = other.m_map.at(theirs);
        other.m_map.next(theirs);
        equal = e.length == o.length && e.chunk.isEqual(o.chunk);
        return equal;
    });
    return equal;
}

bool HXChunkString::isEqualToString(const QString &other) const {
    return quint64(other.size()) == length() && string() == other;
}

bool HXChunkString::isEqual(const HXChunk &other) const {
    if (const HXChunkString *chunkString = other.chunkString())
        return isEqualToChunkString(*chunkString);
    if (other.isNull())
        return false;
    return isEqualToString(other.string());
}

HXChunk HXChunkString::substringChunkWithRange(HXRange range) const {
    return HXChunk(substringWithRange(range));
}

HXChunk HXChunkString::copyChunk() const {
    return HXChunk(copy());
}

QString HXChunkString::description() const {
    QStringList parts;
    m_map.walk(
        m_map.begin(), false, [&](HXChunkMap::Cursor, const HXChunkMap::Entry &e, quint64 key) {
            QString part = QString::number(key) + QStringLiteral(": ") + e.chunk.description();
            if (key == 0 && m_headChunk && e.chunk.isIdenticalTo(m_headChunk))
                part += QStringLiteral(" (head)");
            else if (m_tailChunk && e.chunk.isIdenticalTo(m_tailChunk) &&
                     key + e.length == length())
                part += QStringLiteral(" (tail)");
            parts.append(part);
            return true;
        });
    return QStringLiteral("<%1 {%2} %3>")
        .arg(HXClassName(typeid(*this)), parts.join(QStringLiteral(", ")))
        .arg(length());
}

void HXChunkString::checkInvariants(bool deep) const {
    checkMapInvariants(deep);
    if (m_headChunk) {
        HX_ASSERT(firstChunk().isIdenticalTo(m_headChunk),
                  u"The head chunk is not the first chunk.");
    }
    if (m_tailChunk) {
        HX_ASSERT(lastChunk().isIdenticalTo(m_tailChunk), u"The tail chunk is not the last chunk.");
        HX_ASSERT(!m_headChunk || m_map.count() >= 2, u"Head and tail chunk share one entry.");
    }
}

void HXChunkString::checkMapInvariants(bool deep) const {
    QString failure;
    HX_ASSERT(m_map.isConsistent(&failure), u"Chunk map inconsistent: %@", failure);
    m_map.walk(m_map.begin(), false,
               [&](HXChunkMap::Cursor, const HXChunkMap::Entry &e, quint64 key) {
                   HX_ASSERT(e.chunk.length() == e.length,
                             u"The chunk at %lu has length %lu but is keyed for %lu: %@", key,
                             e.chunk.length(), e.length, e.chunk.description());
                   if (deep) {
                       if (const HXChunkString *nested = e.chunk.chunkString())
                           nested->checkInvariants(true);
                   }
                   return true;
               });
}
