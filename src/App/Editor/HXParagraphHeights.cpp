#include "App/Editor/HXParagraphHeights.h"

#include "Utilities/HXAssert.h"

#include <algorithm>
#include <cmath>

HXParagraphHeights::HXParagraphHeights(qsizetype blockSize)
    : m_blockSize(std::max<qsizetype>(blockSize, 2)) {}

void HXParagraphHeights::sumBlock(Block &block) const {
    block.length = 0;
    block.height = 0;
    for (const Paragraph &paragraph : block.paragraphs) {
        block.length += paragraph.length;
        block.height += paragraph.height;
    }
}

void HXParagraphHeights::sumTotals() {
    m_count = 0;
    m_totalLength = 0;
    m_totalHeight = 0;
    for (const Block &block : m_blocks) {
        m_count += qsizetype(block.paragraphs.size());
        m_totalLength += block.length;
        m_totalHeight += block.height;
    }
    m_hintBlock = 0;
    m_hintFirst = 0;
}

void HXParagraphHeights::reset(const std::vector<Paragraph> &paragraphs) {
    m_blocks.clear();
    if (!paragraphs.empty()) {
        m_blocks.emplace_back();
        m_blocks.back().paragraphs = paragraphs;
        rebalance(0, 0);
    }
    sumTotals();
}

qsizetype HXParagraphHeights::blockOf(qsizetype index, qsizetype *firstIndex) const {
    HX_ASSERT(index >= 0 && index < m_count, u"Paragraph %ld out of %ld.", qint64(index),
              qint64(m_count));
    qsizetype block = 0, first = 0;
    if (m_hintBlock < qsizetype(m_blocks.size()) && index >= m_hintFirst) {
        block = m_hintBlock;
        first = m_hintFirst;
    }
    while (index >= first + qsizetype(m_blocks[size_t(block)].paragraphs.size())) {
        first += qsizetype(m_blocks[size_t(block)].paragraphs.size());
        ++block;
    }
    m_hintBlock = block;
    m_hintFirst = first;
    *firstIndex = first;
    return block;
}

const HXParagraphHeights::Paragraph &HXParagraphHeights::at(qsizetype index) const {
    qsizetype first = 0;
    const qsizetype block = blockOf(index, &first);
    return m_blocks[size_t(block)].paragraphs[size_t(index - first)];
}

quint64 HXParagraphHeights::locationOf(qsizetype index) const {
    HX_ASSERT(index >= 0 && index <= m_count, u"Paragraph %ld out of %ld.", qint64(index),
              qint64(m_count));
    quint64 location = 0;
    qsizetype first = 0;
    for (const Block &block : m_blocks) {
        const qsizetype size = qsizetype(block.paragraphs.size());
        if (index < first + size) {
            for (qsizetype k = 0; k < index - first; ++k)
                location += block.paragraphs[size_t(k)].length;
            return location;
        }
        location += block.length;
        first += size;
    }
    return location;
}

double HXParagraphHeights::topOf(qsizetype index) const {
    HX_ASSERT(index >= 0 && index <= m_count, u"Paragraph %ld out of %ld.", qint64(index),
              qint64(m_count));
    double top = 0;
    qsizetype first = 0;
    for (const Block &block : m_blocks) {
        const qsizetype size = qsizetype(block.paragraphs.size());
        if (index < first + size) {
            for (qsizetype k = 0; k < index - first; ++k)
                top += block.paragraphs[size_t(k)].height;
            return top;
        }
        top += block.height;
        first += size;
    }
    return top;
}

qsizetype HXParagraphHeights::indexForLocation(quint64 location, quint64 *paragraphLocation,
                                               double *top) const {
    if (m_count == 0)
        return -1;
    quint64 at = 0;
    double y = 0;
    qsizetype first = 0;
    size_t b = 0;
    // A block is passed when the next one starts at or before the location.
    while (b + 1 < m_blocks.size() && at + m_blocks[b].length <= location) {
        at += m_blocks[b].length;
        y += m_blocks[b].height;
        first += qsizetype(m_blocks[b].paragraphs.size());
        ++b;
    }
    const std::vector<Paragraph> &paragraphs = m_blocks[b].paragraphs;
    size_t k = 0;
    while (k + 1 < paragraphs.size() && at + paragraphs[k].length <= location) {
        at += paragraphs[k].length;
        y += paragraphs[k].height;
        ++k;
    }
    if (paragraphLocation)
        *paragraphLocation = at;
    if (top)
        *top = y;
    return first + qsizetype(k);
}

qsizetype HXParagraphHeights::indexForY(double y, double *top, quint64 *location) const {
    if (m_count == 0)
        return -1;
    quint64 at = 0;
    double height = 0;
    qsizetype first = 0;
    size_t b = 0;
    while (b + 1 < m_blocks.size() && height + m_blocks[b].height <= y) {
        at += m_blocks[b].length;
        height += m_blocks[b].height;
        first += qsizetype(m_blocks[b].paragraphs.size());
        ++b;
    }
    const std::vector<Paragraph> &paragraphs = m_blocks[b].paragraphs;
    size_t k = 0;
    while (k + 1 < paragraphs.size() && height + paragraphs[k].height <= y) {
        at += paragraphs[k].length;
        height += paragraphs[k].height;
        ++k;
    }
    if (top)
        *top = height;
    if (location)
        *location = at;
    return first + qsizetype(k);
}

void HXParagraphHeights::setHeight(qsizetype index, double height, bool isExact) {
    qsizetype first = 0;
    const qsizetype b = blockOf(index, &first);
    Block &block = m_blocks[size_t(b)];
    Paragraph &paragraph = block.paragraphs[size_t(index - first)];
    if (paragraph.height == height && paragraph.isExact == isExact)
        return;
    paragraph.height = height;
    paragraph.isExact = isExact;
    // Summed again rather than adjusted, so that no rounding builds up over many changes.
    sumBlock(block);
    m_totalHeight = 0;
    for (const Block &each : m_blocks)
        m_totalHeight += each.height;
}

void HXParagraphHeights::replace(qsizetype index, qsizetype removed,
                                 const std::vector<Paragraph> &inserted) {
    HX_ASSERT(index >= 0 && removed >= 0 && index + removed <= m_count,
              u"Replacing %ld paragraphs at %ld of %ld.", qint64(removed), qint64(index),
              qint64(m_count));
    if (removed == 0 && inserted.empty())
        return;
    if (m_blocks.empty()) {
        reset(inserted);
        return;
    }
    qsizetype first = 0;
    size_t b = 0;
    if (index == m_count) {
        b = m_blocks.size() - 1;
        first = m_count - qsizetype(m_blocks[b].paragraphs.size());
    } else {
        b = size_t(blockOf(index, &first));
    }
    // Takes the removed paragraphs out of as many blocks as they span.
    size_t last = b;
    qsizetype offset = index - first;
    for (qsizetype left = removed; left > 0;) {
        std::vector<Paragraph> &paragraphs = m_blocks[last].paragraphs;
        const qsizetype taken = std::min(left, qsizetype(paragraphs.size()) - offset);
        paragraphs.erase(paragraphs.begin() + offset, paragraphs.begin() + offset + taken);
        left -= taken;
        if (left > 0) {
            ++last;
            offset = 0;
        }
    }
    std::vector<Paragraph> &target = m_blocks[b].paragraphs;
    target.insert(target.begin() + (index - first), inserted.begin(), inserted.end());
    bool balanced = true;
    for (size_t k = b; k <= last; ++k) {
        sumBlock(m_blocks[k]);
        const qsizetype size = qsizetype(m_blocks[k].paragraphs.size());
        if (size == 0 || size > 2 * m_blockSize || (size < m_blockSize / 2 && m_blocks.size() > 1))
            balanced = false;
    }
    if (!balanced)
        rebalance(qsizetype(b), qsizetype(last));
    sumTotals();
}

void HXParagraphHeights::rebalance(qsizetype first, qsizetype last) {
    // The blocks of the range and one neighbour on each side are dealt out again evenly.
    const size_t from = size_t(std::max<qsizetype>(first - 1, 0));
    const size_t to = std::min(size_t(last + 1), m_blocks.size() - 1);
    std::vector<Paragraph> paragraphs;
    for (size_t k = from; k <= to; ++k)
        paragraphs.insert(paragraphs.end(), m_blocks[k].paragraphs.begin(),
                          m_blocks[k].paragraphs.end());
    std::vector<Block> blocks;
    const size_t total = paragraphs.size();
    if (total > 0) {
        const size_t pieces =
            std::max<size_t>(1, size_t(std::llround(double(total) / double(m_blockSize))));
        for (size_t k = 0; k < pieces; ++k) {
            const size_t begin = total * k / pieces;
            const size_t end = total * (k + 1) / pieces;
            Block block;
            block.paragraphs.assign(paragraphs.begin() + qsizetype(begin),
                                    paragraphs.begin() + qsizetype(end));
            sumBlock(block);
            blocks.push_back(std::move(block));
        }
    }
    m_blocks.erase(m_blocks.begin() + qsizetype(from), m_blocks.begin() + qsizetype(to) + 1);
    m_blocks.insert(m_blocks.begin() + qsizetype(from), std::make_move_iterator(blocks.begin()),
                    std::make_move_iterator(blocks.end()));
}

void HXParagraphHeights::checkInvariants() const {
    qsizetype count = 0;
    quint64 length = 0;
    double height = 0;
    for (const Block &block : m_blocks) {
        const qsizetype size = qsizetype(block.paragraphs.size());
        HX_ASSERT(size > 0, u"Empty block of paragraph heights.");
        HX_ASSERT(size <= 2 * m_blockSize, u"Block of %ld paragraphs.", qint64(size));
        Block summed;
        summed.paragraphs = block.paragraphs;
        sumBlock(summed);
        HX_ASSERT(summed.length == block.length && summed.height == block.height,
                  u"Block sums %lu/%f differ from their paragraphs' %lu/%f.", block.length,
                  block.height, summed.length, summed.height);
        count += size;
        length += block.length;
        height += block.height;
    }
    HX_ASSERT(count == m_count && length == m_totalLength && height == m_totalHeight,
              u"Totals differ from the blocks'.");
}
