#pragma once

#include <QtGlobal>

#include <vector>

// The lengths and heights of a text's paragraphs, in order, for the editor view: which paragraph
// holds a character or a vertical position, and where a paragraph starts and how far down it
// lies. The paragraphs stand in blocks of about `blockSize`, each knowing the sums of its
// lengths and heights, so that a lookup walks the blocks and then one block, and a change
// touches one block (or the few a long splice spans), never the whole text.
//
// A height is either an estimate or, once the paragraph has been laid out, exact; the view
// replaces estimates as it lays out. Owned by the view; main thread.
//
// Invariant (checkInvariants): no block is empty, none holds more than twice the block size,
// and the sums of every block, and the totals, are those of its paragraphs.
class HXParagraphHeights {
public:
    struct Paragraph {
        quint64 length = 0;
        double height = 0;
        bool isExact = false;

        friend bool operator==(const Paragraph &, const Paragraph &) = default;
    };

    explicit HXParagraphHeights(qsizetype blockSize = 256);

    // Puts the paragraphs in place of all.
    void reset(const std::vector<Paragraph> &paragraphs);
    qsizetype count() const { return m_count; }
    quint64 totalLength() const { return m_totalLength; }
    double totalHeight() const { return m_totalHeight; }

    const Paragraph &at(qsizetype index) const;
    // Where the paragraph starts, in characters and from the top.
    quint64 locationOf(qsizetype index) const;
    double topOf(qsizetype index) const;
    // The last paragraph that starts at or before the location; -1 when there are none.
    qsizetype indexForLocation(quint64 location, quint64 *paragraphLocation = nullptr,
                               double *top = nullptr) const;
    // The paragraph whose height covers y, the first or last one for a y above or below them
    // all; -1 when there are none.
    qsizetype indexForY(double y, double *top = nullptr, quint64 *location = nullptr) const;

    void setHeight(qsizetype index, double height, bool isExact);
    // Gives every paragraph the height the function makes of its length, as an estimate.
    template<typename F>
    void reestimate(F &&estimate);
    // Puts the paragraphs in place of `removed` ones from the index on.
    void replace(qsizetype index, qsizetype removed, const std::vector<Paragraph> &inserted);

    void checkInvariants() const;

private:
    struct Block {
        std::vector<Paragraph> paragraphs;
        quint64 length = 0;
        double height = 0;
    };
    // The block that holds the index, and the index of its first paragraph.
    qsizetype blockOf(qsizetype index, qsizetype *firstIndex) const;
    void sumBlock(Block &block) const;
    void sumTotals();
    // Splits the overfull blocks from `first` to `last` and merges underfull ones with a
    // neighbour; the blocks between keep their sums.
    void rebalance(qsizetype first, qsizetype last);

    qsizetype m_blockSize;
    std::vector<Block> m_blocks;
    qsizetype m_count = 0;
    quint64 m_totalLength = 0;
    double m_totalHeight = 0;
    // Where the last lookup by index found its block: sequential reads stay in one block.
    mutable qsizetype m_hintBlock = 0;
    mutable qsizetype m_hintFirst = 0;
};

template<typename F>
void HXParagraphHeights::reestimate(F &&estimate) {
    for (Block &block : m_blocks) {
        for (Paragraph &paragraph : block.paragraphs) {
            paragraph.height = estimate(paragraph.length);
            paragraph.isExact = false;
        }
        sumBlock(block);
    }
    sumTotals();
}
