#include "Text/String/Implementation/HXChunkString.h"

#include "Utilities/HXAssert.h"
#include "Utilities/HXDescription.h"

#include <QStringList>

#include <typeinfo>

HXChunkString::HXChunkString()
    : HXStringObject(HXStringObjectKind::ChunkString) {}

HXChunkString::HXChunkString(HXStringObjectKind kind)
    : HXStringObject(kind) {}

HXChunkString::~HXChunkString() = default;

// --- Reading --------------------------------------------------------------------------------

QChar HXChunkString::characterAtIndex(quint64 index) const {
    HX_ASSERT(index < length(), u"Range or index out of bounds %lu", index);
    quint64 key = 0;
    const HXChunkMap::Cursor cursor = m_map.floor(index, &key);
    return m_map.at(cursor).characterAtIndex(index - key);
}

void HXChunkString::getCharacters(QChar *buffer, HXRange range) const {
    if (range.length == 0)
        return;
    HX_ASSERT(range.max() <= length(), u"Range or index out of bounds %@", range.description());
    quint64 key = 0;
    const HXChunkMap::Cursor first = m_map.floor(range.location, &key);
    const quint64 end = range.max();
    m_map.walk(first, false, [&](HXChunkMap::Cursor, const HXChunk &entry, quint64 at) {
        const HXRange part = HXIntersectionRange(range, HXRange{at, entry.recordedLength()});
        entry.getCharacters(buffer + (part.location - range.location),
                            HXRange{part.location - at, part.length});
        return at + entry.recordedLength() < end;
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
    return m_map.at(cursor);
}

HXChunk HXChunkString::lastChunk() const {
    if (m_map.isEmpty())
        return HXChunk();
    HXChunkMap::Cursor cursor = m_map.end();
    m_map.previous(cursor);
    return m_map.at(cursor);
}

const HXStringObject *HXChunkString::firstObject() const {
    return m_map.isEmpty() ? nullptr : m_map.at(m_map.begin()).object();
}

const HXStringObject *HXChunkString::lastObject() const {
    if (m_map.isEmpty())
        return nullptr;
    HXChunkMap::Cursor cursor = m_map.end();
    m_map.previous(cursor);
    return m_map.at(cursor).object();
}

QList<HXChunk> HXChunkString::allChunks() const {
    QList<HXChunk> chunks;
    chunks.reserve(m_map.count());
    m_map.walk(m_map.begin(), false, [&](HXChunkMap::Cursor, const HXChunk &entry, quint64) {
        chunks.append(entry);
        return true;
    });
    return chunks;
}

QList<HXChunk> HXChunkString::innerChunks() const {
    QList<HXChunk> chunks = allChunks();
    if (!chunks.isEmpty() && hasHeadChunk())
        chunks.removeFirst();
    if (!chunks.isEmpty() && hasTailChunk())
        chunks.removeLast();
    return chunks;
}

HXRange HXChunkString::innerChunkRange() const {
    quint64 start = 0, end = length();
    if (hasHeadChunk())
        start = m_map.at(m_map.begin()).recordedLength();
    if (hasTailChunk()) {
        HXChunkMap::Cursor last = m_map.end();
        m_map.previous(last);
        end -= m_map.at(last).recordedLength();
    }
    return HXRange{start, end >= start ? end - start : 0};
}

HXRange HXChunkString::chunkRangeForRange(HXRange range) const {
    quint64 start = 0;
    const HXChunkMap::Cursor first = m_map.floor(range.location, &start);
    if (range.length == 0) {
        if (m_map.isEnd(first))
            return HXRange{start, 0};
        return HXRange{start, m_map.at(first).recordedLength()};
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
    return key + m_map.at(cursor).recordedLength();
}

quint64 HXChunkString::chunkIndexGreaterThanIndex(quint64 index) const {
    if (index >= length())
        return HXNotFound;
    return chunkIndexGreaterThanOrEqualToIndex(index + 1);
}

// --- Changing -------------------------------------------------------------------------------

std::vector<HXChunk> HXChunkString::entriesForChunks(const QList<HXChunk> &chunks) const {
    std::vector<HXChunk> entries;
    entries.reserve(size_t(chunks.size()));
    for (const HXChunk &chunk : chunks) {
        HX_ASSERT(!chunk.isNull(), u"Chunks must be kind of NSString (subclasses)!");
        const quint64 chunkLength = chunk.length();
        HX_ASSERT(chunkLength > 0, u"Chunks must be non-zero length!");
        adopt(chunk);
        entries.push_back(chunk);
        entries.back().setRecordedLength(chunkLength);
    }
    return entries;
}

void HXChunkString::replaceChunksInRange(HXRange range, const QList<HXChunk> &chunks) {
    std::vector<HXChunk> entries = entriesForChunks(chunks);
    const quint64 total = length();
    const HXChunkMap::Cursor from = cursorAtKey(range.location);
    const HXChunkMap::Cursor to = range.length == 0 ? from : cursorAtKey(range.max());
    // A splice that takes or covers the first or last chunk takes the head or tail with it.
    const bool touches = range.length > 0 || !entries.empty();
    if (touches && range.location == 0)
        setFlag(headFlag, false);
    if (touches && range.max() == total)
        setFlag(tailFlag, false);
    m_map.replace(from, to, std::move(entries));
}

void HXChunkString::setInnerChunks(const QList<HXChunk> &chunks) {
    QList<HXChunk> all;
    all.reserve(chunks.size() + 2);
    const HXChunk head = headChunk(), tail = tailChunk();
    if (head)
        all.append(head);
    all.append(chunks);
    if (tail)
        all.append(tail);
    m_map.assign(entriesForChunks(all));
}

void HXChunkString::takeInnerChunks(std::vector<HXChunk> chunks) {
    const bool head = hasHeadChunk(), tail = hasTailChunk();
    if (head)
        chunks.insert(chunks.begin(), firstChunk());
    if (tail)
        chunks.push_back(lastChunk());
    setAllChunks(chunks.data(), chunks.size(), head, tail);
}

void HXChunkString::setAllChunks(HXChunk *chunks, size_t count, bool head, bool tail) {
    for (size_t i = 0; i < count; ++i) {
        HXChunk &chunk = chunks[i];
        HX_ASSERT(!chunk.isNull(), u"Chunks must be kind of NSString (subclasses)!");
        const quint64 chunkLength = chunk.length();
        HX_ASSERT(chunkLength > 0, u"Chunks must be non-zero length!");
        adopt(chunk);
        chunk.setRecordedLength(chunkLength);
    }
    m_map.assign(chunks, count);
    setFlag(headFlag, head && count > 0);
    setFlag(tailFlag, tail && count > (head ? 1u : 0u));
}

void HXChunkString::setHeadChunk(const HXChunk &chunk) {
    const HXChunk replacement = chunk && chunk.length() > 0 ? chunk : HXChunk();
    if (hasHeadChunk()) {
        const HXChunk first = firstChunk();
        const quint64 oldLength = m_map.at(m_map.begin()).recordedLength();
        const bool tail = hasTailChunk();
        if (replacement.length() != oldLength) {
            replaceChunksInRange(HXRange{0, oldLength},
                                 replacement ? QList<HXChunk>{replacement} : QList<HXChunk>{});
            setFlag(tailFlag, tail && !m_map.isEmpty());
        } else if (!replacement.isIdenticalTo(first)) {
            adopt(replacement);
            m_map.setChunk(m_map.begin(), replacement);
        }
    } else if (replacement) {
        const bool tail = hasTailChunk();
        if (length() > 0)
            replaceChunksInRange(HXRange{0, 0}, {replacement});
        else
            appendChunk(replacement);
        setFlag(tailFlag, tail);
    }
    setFlag(headFlag, bool(replacement));
}

void HXChunkString::setTailChunk(const HXChunk &chunk) {
    const HXChunk replacement = chunk && chunk.length() > 0 ? chunk : HXChunk();
    const bool head = hasHeadChunk();
    if (hasTailChunk()) {
        HXChunkMap::Cursor cursor = m_map.end();
        m_map.previous(cursor);
        const quint64 oldLength = m_map.at(cursor).recordedLength();
        if (replacement.length() != oldLength) {
            replaceChunksInRange(HXRange{length() - oldLength, oldLength},
                                 replacement ? QList<HXChunk>{replacement} : QList<HXChunk>{});
        } else if (!replacement.isIdenticalTo(m_map.at(cursor))) {
            adopt(replacement);
            m_map.setChunk(cursor, replacement);
        }
    } else if (replacement) {
        // Behind the inner chunks: with no tail yet, that is the end.
        replaceChunksInRange(HXRange{length(), 0}, {replacement});
    }
    // A head that is the only chunk can't be the tail as well.
    setFlag(headFlag, head && !m_map.isEmpty());
    setFlag(tailFlag, bool(replacement) && !(head && m_map.count() == 1));
}

void HXChunkString::appendChunk(const HXChunk &chunk) {
    if (chunk.isNull() || chunk.length() == 0)
        return;
    const bool head = hasHeadChunk(), tail = hasTailChunk();
    const quint64 at = tail ? innerChunkRange().max() : length();
    replaceChunksInRange(HXRange{at, 0}, {chunk});
    setFlag(headFlag, head);
    setFlag(tailFlag, tail);
}

void HXChunkString::appendChunkString(const HXChunkString &other) {
    other.m_map.walk(other.m_map.begin(), false,
                     [&](HXChunkMap::Cursor, const HXChunk &entry, quint64) {
                         appendChunk(entry);
                         return true;
                     });
}

void HXChunkString::clear() {
    setInnerChunks({});
}

void HXChunkString::recomputeIndexes() {
    if (m_map.isEmpty())
        return;
    std::vector<HXChunk> entries;
    entries.reserve(size_t(m_map.count()));
    qsizetype ordinal = 0;
    const qsizetype count = m_map.count();
    bool head = hasHeadChunk(), tail = hasTailChunk();
    m_map.walk(m_map.begin(), false, [&](HXChunkMap::Cursor, const HXChunk &entry, quint64) {
        // A chunk that has become empty in place would share its key with the next one; like a
        // map entry overwritten under the same key, it goes, and a head or tail with it.
        const quint64 present = entry.length();
        if (present > 0) {
            entries.push_back(entry);
            entries.back().setRecordedLength(present);
        } else if (ordinal == 0) {
            head = false;
        } else if (ordinal == count - 1) {
            tail = false;
        }
        ++ordinal;
        return true;
    });
    m_map.assign(std::move(entries));
    setFlag(headFlag, head && !m_map.isEmpty());
    setFlag(tailFlag, tail && !m_map.isEmpty() && !(head && m_map.count() == 1));
}

void HXChunkString::copyChunksFromString(const HXChunkString &source) {
    std::vector<HXChunk> entries;
    entries.reserve(size_t(source.m_map.count()));
    source.m_map.walk(source.m_map.begin(), false,
                      [&](HXChunkMap::Cursor, const HXChunk &entry, quint64) {
                          HXChunk copied = entry.copy();
                          adopt(copied);
                          copied.setRecordedLength(entry.recordedLength());
                          entries.push_back(std::move(copied));
                          return true;
                      });
    m_map.assign(std::move(entries));
    setFlag(headFlag, source.hasHeadChunk());
    setFlag(tailFlag, source.hasTailChunk());
}

void HXChunkString::copyChunksFromString(const HXChunkString &source, HXRange range) {
    m_map.assign({});
    setFlag(headFlag, false);
    setFlag(tailFlag, false);
    source.enumerateChunksInRange(
        range, HXChunkEnumerationClippedToRange | HXChunkEnumerationCopyingChunks,
        [&](const HXChunk &chunk, HXRange, bool &) { appendChunk(chunk); });

    const HXRange sourceInner = source.innerChunkRange();
    const quint64 headLength = sourceInner.location;
    const quint64 tailLength = source.length() - sourceInner.max();
    const bool head = source.hasHeadChunk() && range.location == 0 && headLength > 0 &&
                      headLength <= range.length;
    const bool tail = source.hasTailChunk() && tailLength > 0 && range.max() == source.length() &&
                      range.location <= source.length() - tailLength &&
                      m_map.count() > (head ? 1 : 0);
    setFlag(headFlag, head);
    setFlag(tailFlag, tail);
}

void HXChunkString::setLockingContext(const std::weak_ptr<HXLockingContext> &context) {
    m_map.walk(m_map.begin(), false, [&](HXChunkMap::Cursor, const HXChunk &entry, quint64) {
        if (HXChunkString *nested = entry.chunkString())
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

HXRef<HXChunkString> HXChunkString::copyWithRange(HXRange range) const {
    auto copy = HXRef<HXChunkString>::make();
    copy->initWithChunkString(*this, range);
    return copy;
}

bool HXChunkString::isEqualToChunkString(const HXChunkString &other) const {
    if (!isOfClassOf(other) || m_map.count() != other.m_map.count() ||
        m_map.totalLength() != other.m_map.totalLength())
        return false;
    bool equal = true;
    HXChunkMap::Cursor theirs = other.m_map.begin();
    m_map.walk(m_map.begin(), false, [&](HXChunkMap::Cursor, const HXChunk &entry, quint64) {
        const HXChunk &otherEntry = other.m_map.at(theirs);
        other.m_map.next(theirs);
        equal = entry.recordedLength() == otherEntry.recordedLength() && entry.isEqual(otherEntry);
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
    const qsizetype count = m_map.count();
    qsizetype ordinal = 0;
    m_map.walk(m_map.begin(), false, [&](HXChunkMap::Cursor, const HXChunk &entry, quint64 key) {
        QString part = QString::number(key) + QStringLiteral(": ") + entry.description();
        if (ordinal == 0 && hasHeadChunk())
            part += QStringLiteral(" (head)");
        else if (ordinal == count - 1 && hasTailChunk())
            part += QStringLiteral(" (tail)");
        parts.append(part);
        ++ordinal;
        return true;
    });
    return QStringLiteral("<%1 {%2} %3>")
        .arg(HXClassName(typeid(*this)), parts.join(QStringLiteral(", ")))
        .arg(length());
}

void HXChunkString::checkInvariants(bool deep) const {
    checkMapInvariants(deep);
    if (hasHeadChunk())
        HX_ASSERT(!m_map.isEmpty(), u"A head chunk in an empty string.");
    if (hasTailChunk()) {
        HX_ASSERT(!m_map.isEmpty(), u"A tail chunk in an empty string.");
        HX_ASSERT(!hasHeadChunk() || m_map.count() >= 2, u"Head and tail chunk share one entry.");
    }
}

void HXChunkString::checkMapInvariants(bool deep) const {
    QString failure;
    HX_ASSERT(m_map.isConsistent(&failure), u"Chunk map inconsistent: %@", failure);
    m_map.walk(m_map.begin(), false, [&](HXChunkMap::Cursor, const HXChunk &entry, quint64 key) {
        HX_ASSERT(entry.length() == entry.recordedLength(),
                  u"The chunk at %lu has length %lu but is keyed for %lu: %@", key, entry.length(),
                  entry.recordedLength(), entry.description());
        if (deep) {
            if (const HXChunkString *nested = entry.chunkString())
                nested->checkInvariants(true);
        }
        return true;
    });
}
