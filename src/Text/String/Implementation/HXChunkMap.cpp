#include "Text/String/Implementation/HXChunkMap.h"

#include <QStringList>

#include <bit>

// A map of one block needs no tree: the block starts at 0. Most maps, those of elements and
// paragraphs, stay that small.
HXChunkMap::HXChunkMap()
    : m_blocks(1) {}

qsizetype HXChunkMap::count() const {
    qsizetype count = 0;
    for (const Block &block : m_blocks)
        count += qsizetype(block.entries.size());
    return count;
}

HXChunkMap::Cursor HXChunkMap::begin() const {
    return Cursor{0, 0};
}

HXChunkMap::Cursor HXChunkMap::end() const {
    const qsizetype last = qsizetype(m_blocks.size()) - 1;
    return Cursor{last, qsizetype(m_blocks.back().entries.size())};
}

bool HXChunkMap::isEnd(Cursor cursor) const {
    return cursor.block == qsizetype(m_blocks.size()) - 1 &&
           cursor.index == qsizetype(m_blocks.back().entries.size());
}

void HXChunkMap::next(Cursor &cursor) const {
    ++cursor.index;
    if (cursor.index == qsizetype(m_blocks[qsizetype(cursor.block)].entries.size()) &&
        cursor.block + 1 < qsizetype(m_blocks.size())) {
        ++cursor.block;
        cursor.index = 0;
    }
}

void HXChunkMap::previous(Cursor &cursor) const {
    if (cursor.index > 0) {
        --cursor.index;
        return;
    }
    --cursor.block;
    cursor.index = qsizetype(m_blocks[qsizetype(cursor.block)].entries.size()) - 1;
}

quint64 HXChunkMap::blockStart(qsizetype block) const {
    quint64 sum = 0;
    for (qsizetype i = block; i > 0; i -= i & -i)
        sum += m_tree[size_t(i - 1)];
    return sum;
}

void HXChunkMap::addToTree(qsizetype block, qint64 delta) {
    const qsizetype n = m_tree ? m_blocks.size() : 0;
    for (qsizetype i = block + 1; i <= n; i += i & -i)
        m_tree[size_t(i - 1)] += quint64(delta);
}

void HXChunkMap::rebuildTree() {
    const qsizetype n = qsizetype(m_blocks.size());
    if (n <= 1) {
        m_tree.reset();
        return;
    }
    m_tree = std::make_unique<quint64[]>(size_t(n));
    for (qsizetype i = 1; i <= n; ++i) {
        m_tree[size_t(i - 1)] += m_blocks[qsizetype(i - 1)].total;
        const qsizetype parent = i + (i & -i);
        if (parent <= n)
            m_tree[size_t(parent - 1)] += m_tree[size_t(i - 1)];
    }
}

quint64 HXChunkMap::keyOf(Cursor cursor) const {
    if (isEnd(cursor))
        return m_total;
    quint64 key = blockStart(cursor.block);
    const auto &entries = m_blocks[qsizetype(cursor.block)].entries;
    for (qsizetype i = 0; i < cursor.index; ++i)
        key += entries[size_t(i)].length;
    return key;
}

HXChunkMap::Cursor HXChunkMap::floor(quint64 index, quint64 *key) const {
    if (index >= m_total) {
        *key = m_total;
        return end();
    }
    // Descend the Fenwick tree to the block that holds the index.
    const qsizetype n = m_tree ? m_blocks.size() : 0;
    qsizetype block = 0;
    quint64 remaining = index;
    for (qsizetype step = qsizetype(std::bit_floor(size_t(n))); step > 0; step >>= 1) {
        if (block + step <= n && m_tree[size_t(block + step - 1)] <= remaining) {
            block += step;
            remaining -= m_tree[size_t(block - 1)];
        }
    }
    quint64 start = index - remaining;
    const auto &entries = m_blocks[qsizetype(block)].entries;
    qsizetype i = 0;
    while (remaining >= entries[size_t(i)].length) {
        remaining -= entries[size_t(i)].length;
        start += entries[size_t(i)].length;
        ++i;
    }
    *key = start;
    return Cursor{block, i};
}

bool HXChunkMap::findKey(quint64 key, Cursor *cursor) const {
    quint64 found = 0;
    *cursor = floor(key, &found);
    return found == key;
}

void HXChunkMap::setChunk(Cursor cursor, HXChunk chunk) {
    m_blocks[qsizetype(cursor.block)].entries[size_t(cursor.index)].chunk = std::move(chunk);
}

void HXChunkMap::replace(Cursor from, Cursor to, std::vector<Entry> entries) {
    // An end at the start of a block is the end of the block before it, so that a splice
    // within one block stays there.
    if (to.index == 0 && to.block > from.block) {
        --to.block;
        to.index = qsizetype(m_blocks[qsizetype(to.block)].entries.size());
    }
    quint64 added = 0;
    for (const Entry &entry : entries)
        added += entry.length;

    if (from.block == to.block) {
        Block &block = m_blocks[qsizetype(from.block)];
        quint64 removed = 0;
        for (qsizetype i = from.index; i < to.index; ++i)
            removed += block.entries[size_t(i)].length;
        const auto first = block.entries.begin() + from.index;
        block.entries.erase(first, block.entries.begin() + to.index);
        block.entries.insert(block.entries.begin() + from.index,
                             std::make_move_iterator(entries.begin()),
                             std::make_move_iterator(entries.end()));
        // Maps of elements and paragraphs hold a few chunks, and there are very many of them.
        if (block.entries.size() <= 8 && block.entries.capacity() > block.entries.size())
            block.entries.shrink_to_fit();
        const qint64 delta = qint64(added) - qint64(removed);
        block.total += quint64(delta);
        m_total += quint64(delta);
        if (delta != 0)
            addToTree(from.block, delta);
        rebalance(from.block, from.block);
        return;
    }

    // Across blocks: the tail of the first, the blocks between and the head of the last go.
    Block &first = m_blocks[qsizetype(from.block)];
    Block &last = m_blocks[qsizetype(to.block)];
    quint64 removed = 0;
    for (size_t i = size_t(from.index); i < first.entries.size(); ++i)
        removed += first.entries[i].length;
    first.entries.erase(first.entries.begin() + from.index, first.entries.end());
    for (qsizetype i = 0; i < to.index; ++i)
        removed += last.entries[size_t(i)].length;
    last.entries.erase(last.entries.begin(), last.entries.begin() + to.index);
    for (qsizetype b = from.block + 1; b < to.block; ++b) {
        removed += m_blocks[qsizetype(b)].total;
    }
    first.entries.insert(first.entries.end(), std::make_move_iterator(entries.begin()),
                         std::make_move_iterator(entries.end()));
    first.total = 0;
    for (const Entry &entry : first.entries)
        first.total += entry.length;
    last.total = 0;
    for (const Entry &entry : last.entries)
        last.total += entry.length;
    m_blocks.erase(m_blocks.begin() + from.block + 1, m_blocks.begin() + to.block);
    m_total = m_total - removed + added;
    rebuildTree();
    rebalance(from.block, from.block + 1);
}

void HXChunkMap::assign(std::vector<Entry> entries) {
    m_blocks.clear();
    m_blocks.append(Block());
    m_blocks.front().entries = std::move(entries);
    m_total = 0;
    for (const Entry &entry : m_blocks.front().entries)
        m_total += entry.length;
    m_blocks.front().total = m_total;
    rebuildTree();
    rebalance(0, 0);
}

void HXChunkMap::rebalance(qsizetype firstBlock, qsizetype lastBlock) {
    const qsizetype blockCount = qsizetype(m_blocks.size());
    lastBlock = std::min(lastBlock, blockCount - 1);
    bool outOfShape = false;
    for (qsizetype b = firstBlock; b <= lastBlock; ++b) {
        const size_t size = m_blocks[qsizetype(b)].entries.size();
        if (size > maximumBlockSize || (blockCount > 1 && size < minimumBlockSize))
            outOfShape = true;
    }
    if (!outOfShape)
        return;

    // Deal the entries of the blocks in question and their neighbours out anew.
    const qsizetype low = std::max<qsizetype>(0, firstBlock - 1);
    const qsizetype high = std::min(blockCount - 1, lastBlock + 1);
    std::vector<Entry> gathered;
    for (qsizetype b = low; b <= high; ++b) {
        auto &entries = m_blocks[qsizetype(b)].entries;
        gathered.insert(gathered.end(), std::make_move_iterator(entries.begin()),
                        std::make_move_iterator(entries.end()));
    }
    std::vector<Block> dealt;
    const size_t n = gathered.size();
    size_t pieces = std::max<size_t>(1, (n + targetBlockSize - 1) / targetBlockSize);
    for (size_t p = 0; p < pieces; ++p) {
        Block block;
        const size_t begin = n * p / pieces, end = n * (p + 1) / pieces;
        block.entries.reserve(end - begin);
        for (size_t i = begin; i < end; ++i) {
            block.total += gathered[i].length;
            block.entries.push_back(std::move(gathered[i]));
        }
        dealt.push_back(std::move(block));
    }
    m_blocks.erase(m_blocks.begin() + low, m_blocks.begin() + high + 1);
    for (size_t i = 0; i < dealt.size(); ++i)
        m_blocks.insert(m_blocks.begin() + low + qsizetype(i), std::move(dealt[i]));
    rebuildTree();
}

bool HXChunkMap::isConsistent(QString *failure) const {
    auto fail = [&](const QString &text) {
        *failure = text;
        return false;
    };
    if (m_blocks.empty() || (m_blocks.size() > 1) != bool(m_tree))
        return fail(QStringLiteral("the block list and the tree differ in size"));
    quint64 total = 0;
    qsizetype count = 0;
    for (qsizetype b = 0; b < m_blocks.size(); ++b) {
        const Block &block = m_blocks[qsizetype(b)];
        if (block.entries.empty() && m_blocks.size() > 1)
            return fail(QStringLiteral("block %1 is empty").arg(b));
        if (block.entries.size() > maximumBlockSize)
            return fail(
                QStringLiteral("block %1 holds %2 chunks").arg(b).arg(block.entries.size()));
        quint64 sum = 0;
        for (const Entry &entry : block.entries) {
            if (entry.length == 0 || entry.chunk.isNull())
                return fail(QStringLiteral("an empty chunk in block %1").arg(b));
            sum += entry.length;
        }
        if (sum != block.total)
            return fail(QStringLiteral("block %1 has total %2, its chunks %3")
                            .arg(b)
                            .arg(block.total)
                            .arg(sum));
        if (blockStart(qsizetype(b)) != total)
            return fail(QStringLiteral("the tree puts block %1 at %2, not %3")
                            .arg(b)
                            .arg(blockStart(qsizetype(b)))
                            .arg(total));
        total += sum;
        count += qsizetype(block.entries.size());
    }
    if (total != m_total)
        return fail(QStringLiteral("length %1 is recorded as %2 (%3 chunks)")
                        .arg(total)
                        .arg(m_total)
                        .arg(count));
    return true;
}
