#include "Text/String/Implementation/HXChunkMap.h"

#include <QStringList>

#include <bit>
#include <new>

HXChunkMap::~HXChunkMap() {
    clearStorage();
    m_storage.single.~HXChunk();
}

void HXChunkMap::clearStorage() {
    if (m_mode == singleMode) {
        m_storage.single.~HXChunk();
    } else if (isBlocks()) {
        delete m_storage.blocks;
    } else {
        for (quint32 i = 0; i < m_count; ++i)
            m_storage.array[i].~HXChunk();
        ::operator delete(m_storage.array);
    }
    new (&m_storage.single) HXChunk();
    m_mode = singleMode;
    m_count = 0;
}

void HXChunkMap::setSmall(HXChunk *entries, size_t count) {
    clearStorage();
    m_count = count;
    if (count <= 1) {
        if (count == 1)
            m_storage.single = std::move(entries[0]);
        return;
    }
    m_storage.single.~HXChunk();
    auto *array = static_cast<HXChunk *>(::operator new(count * sizeof(HXChunk)));
    for (size_t i = 0; i < count; ++i)
        new (&array[i]) HXChunk(std::move(entries[i]));
    m_storage.array = array;
    m_mode = arrayMode;
}

void HXChunkMap::setBlocks(std::vector<HXChunk> entries) {
    clearStorage();
    m_storage.single.~HXChunk();
    m_storage.blocks = new Blocks();
    m_mode = blocksMode;
    Block block;
    block.entries = std::move(entries);
    for (const HXChunk &entry : block.entries)
        block.total += entry.recordedLength();
    m_storage.blocks->blocks.push_back(std::move(block));
    rebuildTree();
    rebalance(0, 0);
}

qsizetype HXChunkMap::count() const {
    if (!isBlocks())
        return qsizetype(m_count);
    qsizetype count = 0;
    for (const Block &block : m_storage.blocks->blocks)
        count += qsizetype(block.entries.size());
    return count;
}

HXChunkMap::Cursor HXChunkMap::end() const {
    if (!isBlocks())
        return Cursor{0, qsizetype(m_count)};
    const auto &blocks = m_storage.blocks->blocks;
    return Cursor{qsizetype(blocks.size()) - 1, qsizetype(blocks.back().entries.size())};
}

bool HXChunkMap::isEnd(Cursor cursor) const {
    return cursor == end();
}

void HXChunkMap::next(Cursor &cursor) const {
    ++cursor.index;
    if (!isBlocks())
        return;
    const auto &blocks = m_storage.blocks->blocks;
    if (cursor.index == qsizetype(blocks[size_t(cursor.block)].entries.size()) &&
        cursor.block + 1 < qsizetype(blocks.size())) {
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
    cursor.index = qsizetype(m_storage.blocks->blocks[size_t(cursor.block)].entries.size()) - 1;
}

const HXChunk &HXChunkMap::at(Cursor cursor) const {
    if (!isBlocks())
        return smallEntries()[cursor.index];
    return m_storage.blocks->blocks[size_t(cursor.block)].entries[size_t(cursor.index)];
}

quint64 HXChunkMap::blockStart(qsizetype block) const {
    const auto &tree = m_storage.blocks->tree;
    quint64 sum = 0;
    for (qsizetype i = block; i > 0; i -= i & -i)
        sum += tree[size_t(i - 1)];
    return sum;
}

void HXChunkMap::addToTree(qsizetype block, qint64 delta) {
    auto &tree = m_storage.blocks->tree;
    const qsizetype n = qsizetype(tree.size());
    for (qsizetype i = block + 1; i <= n; i += i & -i)
        tree[size_t(i - 1)] += quint64(delta);
}

void HXChunkMap::rebuildTree() {
    const auto &blocks = m_storage.blocks->blocks;
    auto &tree = m_storage.blocks->tree;
    const size_t n = blocks.size();
    tree.assign(n > 1 ? n : 0, 0);
    if (n <= 1)
        return;
    for (size_t i = 1; i <= n; ++i) {
        tree[i - 1] += blocks[i - 1].total;
        const size_t parent = i + (i & -i);
        if (parent <= n)
            tree[parent - 1] += tree[i - 1];
    }
}

quint64 HXChunkMap::keyOf(Cursor cursor) const {
    if (isEnd(cursor))
        return m_total;
    const HXChunk *entries;
    quint64 key = 0;
    if (isBlocks()) {
        key = blockStart(cursor.block);
        entries = m_storage.blocks->blocks[size_t(cursor.block)].entries.data();
    } else {
        entries = smallEntries();
    }
    for (qsizetype i = 0; i < cursor.index; ++i)
        key += entries[i].recordedLength();
    return key;
}

HXChunkMap::Cursor HXChunkMap::floor(quint64 index, quint64 *key) const {
    if (index >= m_total) {
        *key = m_total;
        return end();
    }
    qsizetype block = 0;
    quint64 remaining = index;
    const HXChunk *entries = smallEntries();
    if (isBlocks()) {
        // Descend the Fenwick tree to the block that holds the index.
        const auto &tree = m_storage.blocks->tree;
        const qsizetype n = qsizetype(tree.size());
        for (qsizetype step = qsizetype(std::bit_floor(size_t(n))); step > 0; step >>= 1) {
            if (block + step <= n && tree[size_t(block + step - 1)] <= remaining) {
                block += step;
                remaining -= tree[size_t(block - 1)];
            }
        }
        entries = m_storage.blocks->blocks[size_t(block)].entries.data();
    }
    quint64 start = index - remaining;
    qsizetype i = 0;
    while (remaining >= entries[i].recordedLength()) {
        remaining -= entries[i].recordedLength();
        start += entries[i].recordedLength();
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
    HXChunk &place = const_cast<HXChunk &>(at(cursor));
    chunk.setRecordedLength(place.recordedLength());
    place = std::move(chunk);
}

void HXChunkMap::replace(Cursor from, Cursor to, std::vector<HXChunk> entries) {
    quint64 added = 0;
    for (const HXChunk &entry : entries)
        added += entry.recordedLength();

    if (!isBlocks()) {
        HXChunk *present = const_cast<HXChunk *>(smallEntries());
        quint64 removed = 0;
        for (qsizetype i = from.index; i < to.index; ++i)
            removed += present[i].recordedLength();
        m_total = m_total - removed + added;
        // The same number of chunks in their place: typing changes one chunk of a paragraph.
        if (qsizetype(entries.size()) == to.index - from.index) {
            for (size_t i = 0; i < entries.size(); ++i)
                present[from.index + qsizetype(i)] = std::move(entries[i]);
            return;
        }
        std::vector<HXChunk> all;
        all.reserve(m_count - quint32(to.index - from.index) + entries.size());
        for (qsizetype i = 0; i < from.index; ++i)
            all.push_back(std::move(present[i]));
        for (HXChunk &entry : entries)
            all.push_back(std::move(entry));
        for (qsizetype i = to.index; i < qsizetype(m_count); ++i)
            all.push_back(std::move(present[i]));
        if (all.size() <= maximumBlockSize)
            setSmall(all.data(), all.size());
        else
            setBlocks(std::move(all));
        return;
    }

    auto &blocks = m_storage.blocks->blocks;
    // An end at the start of a block is the end of the block before it, so that a splice
    // within one block stays there.
    if (to.index == 0 && to.block > from.block) {
        --to.block;
        to.index = qsizetype(blocks[size_t(to.block)].entries.size());
    }
    if (from.block == to.block) {
        Block &block = blocks[size_t(from.block)];
        quint64 removed = 0;
        for (qsizetype i = from.index; i < to.index; ++i)
            removed += block.entries[size_t(i)].recordedLength();
        block.entries.erase(block.entries.begin() + from.index, block.entries.begin() + to.index);
        block.entries.insert(block.entries.begin() + from.index,
                             std::make_move_iterator(entries.begin()),
                             std::make_move_iterator(entries.end()));
        const qint64 delta = qint64(added) - qint64(removed);
        block.total += quint64(delta);
        m_total += quint64(delta);
        if (delta != 0)
            addToTree(from.block, delta);
        rebalance(from.block, from.block);
        return;
    }

    // Across blocks: the tail of the first, the blocks between and the head of the last go.
    Block &first = blocks[size_t(from.block)];
    Block &last = blocks[size_t(to.block)];
    quint64 removed = 0;
    for (size_t i = size_t(from.index); i < first.entries.size(); ++i)
        removed += first.entries[i].recordedLength();
    first.entries.erase(first.entries.begin() + from.index, first.entries.end());
    for (qsizetype i = 0; i < to.index; ++i)
        removed += last.entries[size_t(i)].recordedLength();
    last.entries.erase(last.entries.begin(), last.entries.begin() + to.index);
    for (qsizetype b = from.block + 1; b < to.block; ++b)
        removed += blocks[size_t(b)].total;
    first.entries.insert(first.entries.end(), std::make_move_iterator(entries.begin()),
                         std::make_move_iterator(entries.end()));
    first.total = 0;
    for (const HXChunk &entry : first.entries)
        first.total += entry.recordedLength();
    last.total = 0;
    for (const HXChunk &entry : last.entries)
        last.total += entry.recordedLength();
    blocks.erase(blocks.begin() + from.block + 1, blocks.begin() + to.block);
    m_total = m_total - removed + added;
    rebuildTree();
    rebalance(from.block, from.block + 1);
}

void HXChunkMap::assign(std::vector<HXChunk> entries) {
    if (entries.size() <= maximumBlockSize) {
        assign(entries.data(), entries.size());
        return;
    }
    m_total = 0;
    for (const HXChunk &entry : entries)
        m_total += entry.recordedLength();
    setBlocks(std::move(entries));
}

void HXChunkMap::assign(HXChunk *entries, size_t count) {
    if (count > maximumBlockSize) {
        assign(std::vector<HXChunk>(std::make_move_iterator(entries),
                                    std::make_move_iterator(entries + count)));
        return;
    }
    m_total = 0;
    for (size_t i = 0; i < count; ++i)
        m_total += entries[i].recordedLength();
    setSmall(entries, count);
}

void HXChunkMap::rebalance(qsizetype firstBlock, qsizetype lastBlock) {
    auto &blocks = m_storage.blocks->blocks;
    const qsizetype blockCount = qsizetype(blocks.size());
    lastBlock = std::min(lastBlock, blockCount - 1);
    bool outOfShape = false;
    for (qsizetype b = firstBlock; b <= lastBlock; ++b) {
        const size_t size = blocks[size_t(b)].entries.size();
        if (size > maximumBlockSize || (blockCount > 1 && size < minimumBlockSize))
            outOfShape = true;
    }
    if (!outOfShape)
        return;

    // Deal the entries of the blocks in question and their neighbours out anew.
    const qsizetype low = std::max<qsizetype>(0, firstBlock - 1);
    const qsizetype high = std::min(blockCount - 1, lastBlock + 1);
    std::vector<HXChunk> gathered;
    for (qsizetype b = low; b <= high; ++b) {
        auto &entries = blocks[size_t(b)].entries;
        gathered.insert(gathered.end(), std::make_move_iterator(entries.begin()),
                        std::make_move_iterator(entries.end()));
    }
    std::vector<Block> dealt;
    const size_t n = gathered.size();
    const size_t pieces = std::max<size_t>(1, (n + targetBlockSize - 1) / targetBlockSize);
    for (size_t p = 0; p < pieces; ++p) {
        Block block;
        const size_t begin = n * p / pieces, end = n * (p + 1) / pieces;
        block.entries.reserve(end - begin);
        for (size_t i = begin; i < end; ++i) {
            block.total += gathered[i].recordedLength();
            block.entries.push_back(std::move(gathered[i]));
        }
        dealt.push_back(std::move(block));
    }
    blocks.erase(blocks.begin() + low, blocks.begin() + high + 1);
    blocks.insert(blocks.begin() + low, std::make_move_iterator(dealt.begin()),
                  std::make_move_iterator(dealt.end()));
    rebuildTree();
}

bool HXChunkMap::isConsistent(QString *failure) const {
    auto fail = [&](const QString &text) {
        *failure = text;
        return false;
    };
    if (!isBlocks()) {
        if (m_count > maximumBlockSize || (m_mode == singleMode) != (m_count <= 1))
            return fail(QStringLiteral("%1 chunks stand in mode %2")
                            .arg(quint32(m_count))
                            .arg(quint32(m_mode)));
        quint64 total = 0;
        for (quint32 i = 0; i < m_count; ++i) {
            const HXChunk &entry = smallEntries()[i];
            if (entry.recordedLength() == 0 || entry.isNull())
                return fail(QStringLiteral("an empty chunk at %1").arg(i));
            total += entry.recordedLength();
        }
        if (m_count == 0 && !m_storage.single.isNull())
            return fail(QStringLiteral("a chunk stands in an empty map"));
        if (total != m_total)
            return fail(QStringLiteral("length %1 is recorded as %2").arg(total).arg(quint64(m_total)));
        return true;
    }
    const auto &blocks = m_storage.blocks->blocks;
    if (blocks.empty() || (blocks.size() > 1) != !m_storage.blocks->tree.empty())
        return fail(QStringLiteral("the block list and the tree differ in size"));
    quint64 total = 0;
    qsizetype count = 0;
    for (size_t b = 0; b < blocks.size(); ++b) {
        const Block &block = blocks[b];
        if (block.entries.empty() && blocks.size() > 1)
            return fail(QStringLiteral("block %1 is empty").arg(b));
        if (block.entries.size() > maximumBlockSize)
            return fail(
                QStringLiteral("block %1 holds %2 chunks").arg(b).arg(block.entries.size()));
        quint64 sum = 0;
        for (const HXChunk &entry : block.entries) {
            if (entry.recordedLength() == 0 || entry.isNull())
                return fail(QStringLiteral("an empty chunk in block %1").arg(b));
            sum += entry.recordedLength();
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
                        .arg(quint64(m_total))
                        .arg(count));
    return true;
}
