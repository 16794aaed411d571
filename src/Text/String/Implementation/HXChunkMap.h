#pragma once

#include "Text/String/Implementation/HXChunk.h"

#include <QVarLengthArray>

#include <memory>
#include <vector>

// The ordered map under a chunk string: chunks in order, each with the length it had when it was
// put in (its recorded length), and the keys derived from them: a chunk's key is the sum of the
// recorded lengths before it, the end marker's key the sum of all.
//
// The chunks lie in blocks of up to 128; a Fenwick tree over the blocks' lengths finds the block
// of any index and the key of any block in logarithmic time. So a splice changes the lengths of
// its block and of the tree's log(n) sums, and re-keys nothing behind it. A small map is a single
// block and costs a flat list. Not thread-safe; its chunk string's lock guards it.
class HXChunkMap {
public:
    struct Entry {
        HXChunk chunk;
        quint64 length = 0;
    };

    // A place in the map: a chunk, or the end marker past the last chunk.
    struct Cursor {
        qsizetype block = 0;
        qsizetype index = 0;
        friend bool operator==(Cursor, Cursor) = default;
    };

    HXChunkMap();

    // The number of chunks: counted over the blocks, so ask `isEmpty` where that is the question.
    qsizetype count() const;
    bool isEmpty() const { return m_total == 0; }
    quint64 totalLength() const { return m_total; }

    Cursor begin() const;
    Cursor end() const;
    bool isEnd(Cursor cursor) const;
    void next(Cursor &cursor) const;
    void previous(Cursor &cursor) const;

    const Entry &at(Cursor cursor) const {
        return m_blocks[cursor.block].entries[size_t(cursor.index)];
    }
    quint64 keyOf(Cursor cursor) const;
    // The last chunk whose key is not greater than the index; the end marker for an index at or
    // behind the total length. The key of the result goes to `key`.
    Cursor floor(quint64 index, quint64 *key) const;
    // The chunk, or the end marker, whose key is exactly the given one.
    bool findKey(quint64 key, Cursor *cursor) const;

    // Replaces the chunks from `from` up to, not including, `to` with the given entries.
    void replace(Cursor from, Cursor to, std::vector<Entry> entries);
    void assign(std::vector<Entry> entries);
    // Puts another chunk of the same recorded length in place of the one at the cursor.
    void setChunk(Cursor cursor, HXChunk chunk);

    // Walks from `from` in order (or backward, from `from` down to the first chunk) while the
    // function returns true. It gets the cursor, the entry and the key.
    template<typename F>
    void walk(Cursor from, bool reverse, F &&function) const {
        if (isEnd(from) && !reverse)
            return;
        quint64 key = keyOf(from);
        Cursor cursor = from;
        if (!reverse) {
            while (!isEnd(cursor)) {
                const Entry &entry = at(cursor);
                if (!function(cursor, entry, key))
                    return;
                key += entry.length;
                next(cursor);
            }
        } else {
            if (isEnd(cursor)) {
                if (m_total == 0)
                    return;
                previous(cursor);
                key -= at(cursor).length;
            }
            for (;;) {
                const Entry &entry = at(cursor);
                if (!function(cursor, entry, key))
                    return;
                if (cursor.block == 0 && cursor.index == 0)
                    return;
                previous(cursor);
                key -= at(cursor).length;
            }
        }
    }

    // Verifies the block lengths, the tree of sums and the count.
    bool isConsistent(QString *failure) const;

private:
    struct Block {
        std::vector<Entry> entries;
        quint64 total = 0;
    };

    static constexpr size_t targetBlockSize = 64;
    static constexpr size_t maximumBlockSize = 128;
    static constexpr size_t minimumBlockSize = 16;

    quint64 blockStart(qsizetype block) const;
    void addToTree(qsizetype block, qint64 delta);
    void rebuildTree();
    // Splits blocks that grew too large, drops empty ones and merges small neighbours.
    void rebalance(qsizetype firstBlock, qsizetype lastBlock);

    // The first block stands inline: most maps have one, and there are very many of them.
    QVarLengthArray<Block, 1> m_blocks;
    // Fenwick tree over the block totals, 1-based, of as many entries as there are blocks; none
    // for a single block.
    std::unique_ptr<quint64[]> m_tree;
    quint64 m_total = 0;
};
