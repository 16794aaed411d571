#pragma once

#include "Text/String/Implementation/HXChunk.h"

#include <memory>
#include <vector>

// The ordered map under a chunk string: chunks in order, each with the length it had when it was
// put in (its recorded length, kept in the chunk), and the keys derived from them: a chunk's key
// is the sum of the recorded lengths before it, the end marker's key the sum of all.
//
// The map of an element or a paragraph holds a few chunks: one stands inline, more in one array
// of their number. A large map, a string's of its paragraphs, keeps its chunks in blocks of up to
// 128 under a Fenwick tree over the blocks' lengths, which finds the block of any index and the
// key of any block in logarithmic time, so that a splice changes its block and the tree's log(n)
// sums and re-keys nothing behind it. Not thread-safe; its chunk string's lock guards it.
class HXChunkMap {
public:
    using Entry = HXChunk;

    // A place in the map: a chunk, or the end marker past the last chunk.
    struct Cursor {
        qsizetype block = 0;
        qsizetype index = 0;
        friend bool operator==(Cursor, Cursor) = default;
    };

    HXChunkMap() { new (&m_storage.single) HXChunk(); }
    ~HXChunkMap();
    HXChunkMap(const HXChunkMap &) = delete;
    HXChunkMap &operator=(const HXChunkMap &) = delete;

    qsizetype count() const;
    bool isEmpty() const { return m_total == 0; }
    quint64 totalLength() const { return m_total; }

    Cursor begin() const { return Cursor{0, 0}; }
    Cursor end() const;
    bool isEnd(Cursor cursor) const;
    void next(Cursor &cursor) const;
    void previous(Cursor &cursor) const;

    const HXChunk &at(Cursor cursor) const;
    quint64 keyOf(Cursor cursor) const;
    // The last chunk whose key is not greater than the index; the end marker for an index at or
    // behind the total length. The key of the result goes to `key`.
    Cursor floor(quint64 index, quint64 *key) const;
    // The chunk, or the end marker, whose key is exactly the given one.
    bool findKey(quint64 key, Cursor *cursor) const;

    // Replaces the chunks from `from` up to, not including, `to` with the given ones, which
    // carry their recorded lengths.
    void replace(Cursor from, Cursor to, std::vector<HXChunk> entries);
    void assign(std::vector<HXChunk> entries);
    // The same for the chunks of an array, which are moved out of it.
    void assign(HXChunk *entries, size_t count);
    // Puts another chunk of the same recorded length in place of the one at the cursor.
    void setChunk(Cursor cursor, HXChunk chunk);

    // Walks from `from` in order (or backward, from `from` down to the first chunk) while the
    // function returns true. It gets the cursor, the entry and the key.
    template<typename F>
    void walk(Cursor from, bool reverse, F &&function) const;

    // Verifies the block lengths, the tree of sums and the count.
    bool isConsistent(QString *failure) const;

private:
    struct Block {
        std::vector<HXChunk> entries;
        quint64 total = 0;
    };
    struct Blocks {
        std::vector<Block> blocks;
        // Fenwick tree over the block totals, 1-based, of as many entries as there are blocks.
        std::vector<quint64> tree;
    };
    // Where the chunks stand: none or one inline, several in an array of their number, blocks.
    enum : quint8 { singleMode = 0, arrayMode = 1, blocksMode = 2 };

    static constexpr size_t targetBlockSize = 64;
    static constexpr size_t maximumBlockSize = 128;
    static constexpr size_t minimumBlockSize = 16;

    bool isBlocks() const { return m_mode == blocksMode; }
    // The chunks of a map that is no larger than one block.
    const HXChunk *smallEntries() const {
        return m_mode == singleMode ? &m_storage.single : m_storage.array;
    }
    void clearStorage();
    void setSmall(HXChunk *entries, size_t count);
    void setBlocks(std::vector<HXChunk> entries);

    quint64 blockStart(qsizetype block) const;
    void addToTree(qsizetype block, qint64 delta);
    void rebuildTree();
    // Splits blocks that grew too large, drops empty ones and merges small neighbours.
    void rebalance(qsizetype firstBlock, qsizetype lastBlock);

    union Storage {
        Storage() {}
        ~Storage() {}
        HXChunk single; // no chunk, or one
        HXChunk *array; // several, as many as the capacity
        Blocks *blocks; // blocks mode
    } m_storage;
    // One word beside the storage: the map of every paragraph and element has them.
    quint64 m_total : 48 = 0;
    quint64 m_count : 8 = 0; // in single and array mode, at most a block
    quint64 m_mode : 2 = singleMode;
};

template<typename F>
void HXChunkMap::walk(Cursor from, bool reverse, F &&function) const {
    if (!isBlocks()) {
        const HXChunk *entries = smallEntries();
        const qsizetype count = qsizetype(m_count);
        qsizetype i = from.index;
        quint64 key = keyOf(from);
        if (!reverse) {
            for (; i < count; ++i) {
                if (!function(Cursor{0, i}, entries[i], key))
                    return;
                key += entries[i].recordedLength();
            }
            return;
        }
        if (i == count) {
            if (count == 0)
                return;
            --i;
            key -= entries[i].recordedLength();
        }
        for (;; --i) {
            if (!function(Cursor{0, i}, entries[i], key) || i == 0)
                return;
            key -= entries[i - 1].recordedLength();
        }
    }
    if (isEnd(from) && !reverse)
        return;
    quint64 key = keyOf(from);
    Cursor cursor = from;
    if (!reverse) {
        while (!isEnd(cursor)) {
            const HXChunk &entry = at(cursor);
            if (!function(cursor, entry, key))
                return;
            key += entry.recordedLength();
            next(cursor);
        }
        return;
    }
    if (isEnd(cursor)) {
        if (m_total == 0)
            return;
        previous(cursor);
        key -= at(cursor).recordedLength();
    }
    for (;;) {
        const HXChunk &entry = at(cursor);
        if (!function(cursor, entry, key))
            return;
        if (cursor.block == 0 && cursor.index == 0)
            return;
        previous(cursor);
        key -= at(cursor).recordedLength();
    }
}
