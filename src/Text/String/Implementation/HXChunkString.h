#pragma once

#include "Text/String/Implementation/HXChunk.h"
#include "Text/String/Implementation/HXChunkMap.h"
#include "Text/String/Implementation/HXLockingContext.h"
#include "Utilities/HXRange.h"
#include "Utilities/HXRef.h"

#include <QList>
#include <QString>

#include <memory>

// Options of chunk enumeration.
enum HXChunkEnumerationOptions : quint64 {
    HXChunkEnumerationReverse = 0x100,
    // A chunk that lies only partly in the range is delivered as its part in the range.
    HXChunkEnumerationClippedToRange = 0x100000,
    // A chunk delivered whole is delivered as its copy.
    HXChunkEnumerationCopyingChunks = 0x200000,
};

// The storage under every text: a string of UTF-16 code units kept as a sequence of chunks, each
// itself a string, indexed by an ordered map from start index to chunk. A chunk may again be a
// chunk string, so text forms a tree: a string of paragraphs, a paragraph of plain runs and
// elements, an element of runs, elements and tag atoms.
//
// Invariant (checkInvariants): the map holds the chunks in order, none empty, under keys that are
// the sums of the lengths before them, and ends in the end marker whose key is the length. The
// head and tail chunks, when there are any, are the first and last chunk; the chunks between are
// the inner ones. A splice that takes the first or last chunk away takes the head or tail with
// it. This class changes chunks only; replacing characters is the business of its subclasses.
//
// Owned by whatever holds it, through HXRef. No lock of its own: the locking context of the tree,
// which its string keeps, guards it, and nothing may read it while another thread changes it
// unguarded.
class HXChunkString : public HXStringObject {
public:
    using KindOwner = HXChunkString;
    static constexpr bool matchesKind(HXStringObjectKind kind) {
        return kind == HXStringObjectKind::ChunkString || kind == HXStringObjectKind::Paragraph ||
               kind == HXStringObjectKind::TextElement || kind == HXStringObjectKind::String;
    }

    HXChunkString();
    ~HXChunkString() override;

    // --- Reading ---------------------------------------------------------------------------
    quint64 length() const override { return m_map.totalLength(); }
    QChar characterAtIndex(quint64 index) const override;
    void getCharacters(QChar *buffer, HXRange range) const override;
    QString string() const override;
    // The code units of the range as a plain text, without structure.
    QString flatSubstringWithRange(HXRange range) const;

    // The chunk whose key is exactly the index; nothing inside a chunk or at the end marker.
    HXChunk chunkAtIndex(quint64 index) const;
    HXChunk firstChunk() const { return chunkAtIndex(0); }
    HXChunk lastChunk() const;
    // The objects of the first and the last chunk where they stand, without copies; nothing for
    // plain texts or no chunks.
    const HXStringObject *firstObject() const;
    const HXStringObject *lastObject() const;
    // The head and tail chunks, or nothing.
    HXChunk headChunk() const { return hasHeadChunk() ? firstChunk() : HXChunk(); }
    HXChunk tailChunk() const { return hasTailChunk() ? lastChunk() : HXChunk(); }
    bool hasHeadChunk() const { return m_flags & headFlag; }
    bool hasTailChunk() const { return m_flags & tailFlag; }
    QList<HXChunk> innerChunks() const;
    QList<HXChunk> allChunks() const;
    HXRange innerChunkRange() const;
    // The smallest range of whole chunks that covers the range. An empty range gives the chunk
    // that holds its location, or the empty range at the end.
    HXRange chunkRangeForRange(HXRange range) const;
    // Keys near an index, the end marker's included; HXNotFound when there is none.
    quint64 chunkIndexLessThanIndex(quint64 index) const;
    quint64 chunkIndexLessThanOrEqualToIndex(quint64 index) const;
    quint64 chunkIndexGreaterThanIndex(quint64 index) const;
    quint64 chunkIndexGreaterThanOrEqualToIndex(quint64 index) const;
    // The number of map entries, the end marker included.
    qsizetype numberOfMapEntries() const { return m_map.count() + 1; }

    // --- Changing --------------------------------------------------------------------------
    void setInnerChunks(const QList<HXChunk> &chunks);
    void takeInnerChunks(std::vector<HXChunk> chunks);
    // Puts the chunks, moved out of the array, in place of all; `head` and `tail` say whether
    // the first and the last of them are the head and the tail chunk.
    void setAllChunks(HXChunk *chunks, size_t count, bool head, bool tail);
    void setHeadChunk(const HXChunk &chunk);
    void setTailChunk(const HXChunk &chunk);
    // Splices whole chunks: the range must begin and end on keys.
    void replaceChunksInRange(HXRange range, const QList<HXChunk> &chunks);
    // Adds a chunk at the end of the inner part; an empty chunk is ignored.
    void appendChunk(const HXChunk &chunk);
    // Appends every chunk of the other string in order; its head and tail become inner chunks.
    void appendChunkString(const HXChunkString &other);
    void clear();
    // Rebuilds the keys from the chunks' present lengths, after nested chunks changed in place.
    void recomputeIndexes();
    // Deep copies: chunk strings are copied, other chunks shared.
    void copyChunksFromString(const HXChunkString &source);
    void copyChunksFromString(const HXChunkString &source, HXRange range);

    // Passes the locking context of the tree on to every nested chunk string, whose attributes
    // keep it; only a string keeps it itself.
    virtual void setLockingContext(const std::weak_ptr<HXLockingContext> &context);

    // Characters are replaced by subclasses; here it is an assertion.
    virtual void replaceCharactersInRange(HXRange range, const QString &string);

    // --- Copying and comparing -------------------------------------------------------------
    // A new object of the receiver's class with a deep copy of the range.
    HXRef<HXChunkString> copy() const { return copyWithRange(HXRange{0, length()}); }
    virtual HXRef<HXChunkString> copyWithRange(HXRange range) const;
    virtual HXRef<HXChunkString> substringWithRange(HXRange range) const {
        return copyWithRange(range);
    }
    // Same class (or a subclass), same keys, equal chunks: structure counts, not only characters.
    virtual bool isEqualToChunkString(const HXChunkString &other) const;
    bool isEqualToString(const QString &other) const;
    bool isEqual(const HXChunk &other) const override;
    HXChunk substringChunkWithRange(HXRange range) const override;
    HXChunk copyChunk() const override;
    QString description() const override;
    // Whether the other string is of this string's class or a subclass of it.
    virtual bool isOfClassOf(const HXChunkString &other) const;

    // --- Enumerating -----------------------------------------------------------------------
    // Calls block(chunk, range, stop) for each chunk from the one holding the range's first code
    // unit to the one holding its last. A chunk's range runs from its key to the next key.
    template<typename F>
    void enumerateChunksInRange(HXRange range, quint64 options, F &&block) const;

    // Throws an assertion naming the fault when the map or the head and tail are inconsistent.
    // With `deep`, nested chunk strings are checked too.
    virtual void checkInvariants(bool deep = true) const;

protected:
    explicit HXChunkString(HXStringObjectKind kind);
    // What `copyWithRange` does for a new object of a subclass; subclasses copy their fields.
    virtual void initWithChunkString(const HXChunkString &other, HXRange range);
    // The map's part of checkInvariants: keys, lengths and, with `deep`, nested strings.
    void checkMapInvariants(bool deep) const;
    // Prepares a chunk for the map; a string gives it its locking context.
    virtual void adopt(const HXChunk &chunk) const { Q_UNUSED(chunk); }
    const HXChunkMap &map() const { return m_map; }
    // The flags of the subclasses begin above these.
    static constexpr quint8 headFlag = 1, tailFlag = 2;
    void setFlag(quint8 flag, bool on) { m_flags = on ? (m_flags | flag) : (m_flags & ~flag); }

private:
    std::vector<HXChunk> entriesForChunks(const QList<HXChunk> &chunks) const;
    HXChunkMap::Cursor cursorAtKey(quint64 key) const;

    HXChunkMap m_map;
};

template<typename F>
void HXChunkString::enumerateChunksInRange(HXRange range, quint64 options, F &&block) const {
    if (range.length == 0)
        return;
    const bool reverse = options & HXChunkEnumerationReverse;
    const bool clipped = options & HXChunkEnumerationClippedToRange;
    const bool copying = options & HXChunkEnumerationCopyingChunks;
    quint64 firstKey = 0, lastKey = 0;
    const HXChunkMap::Cursor first = m_map.floor(range.location, &firstKey);
    const HXChunkMap::Cursor last = m_map.floor(range.max() - 1, &lastKey);
    if (m_map.isEnd(first))
        return;
    bool stop = false;
    auto deliver = [&](const HXChunk &entry, quint64 key) {
        const HXRange chunkRange{key, entry.recordedLength()};
        if (clipped && !range.containsRange(chunkRange)) {
            const HXRange part = HXIntersectionRange(range, chunkRange);
            block(entry.substringWithRange(HXRange{part.location - key, part.length}), part, stop);
        } else {
            block(copying ? entry.copy() : entry, chunkRange, stop);
        }
    };
    m_map.walk(reverse ? last : first, reverse,
               [&](HXChunkMap::Cursor cursor, const HXChunk &entry, quint64 key) {
                   deliver(entry, key);
                   return !stop && cursor != (reverse ? first : last);
               });
}
