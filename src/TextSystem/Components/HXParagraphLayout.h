#pragma once

#include "TextSystem/Components/HXTypesetter.h"
#include "Utilities/HXRange.h"

#include <QList>
#include <QRectF>
#include <QTextBoundaryFinder>
#include <QTextLayout>

#include <memory>

class HXString;

// One line of a laid-out paragraph: its characters, relative to the paragraph, and its rectangle
// in the view: x from the container's left edge, y from the top of the text, the natural width of
// its text and its height with the line height and the paragraph spacing. The baseline lies
// `baselineOffset` below the rectangle's top.
struct HXLineFragment {
    HXRange range;
    QRectF rect;
    qreal baselineOffset = 0;
};

// The lines of one paragraph, laid out on a QTextLayout by the typesetter's rules: the first line
// starts at the paragraph's inset, the others at the line inset, the ends of tags and the tabs
// reach their stops, and lines break only where the typesetter allows, so that no inline tag is
// split or parted from its text. Laying out reads that paragraph alone, however long the text.
//
// The text layout holds the paragraph's characters without its line feed, tabs standing as
// blanks; its lines are positioned in the view's coordinates, ready to draw at the origin. Owned
// by the view that lays it out; one thread at a time.
class HXParagraphLayout {
public:
    HXParagraphLayout();
    ~HXParagraphLayout();
    HXParagraphLayout(HXParagraphLayout &&other) noexcept;
    HXParagraphLayout &operator=(HXParagraphLayout &&other) noexcept;

    // Lays out the paragraph that starts at `paragraphRange.location` in a container of the
    // width, from `top` down. The formats are the paragraph's styled runs, relative to it; the
    // measuring function gives the widths of its tags as styled (see HXTypesetter). The
    // typesetter is left set up for this paragraph.
    void layoutParagraph(HXTypesetter &typesetter, const HXString &content, HXRange paragraphRange,
                         qreal containerWidth, qreal top,
                         const QList<QTextLayout::FormatRange> &formats = {},
                         const HXTypesetter::TagMeasuringFunction &measure = {});

    // The paragraph as laid out, with its line feed if it has one.
    HXRange paragraphRange() const { return m_paragraphRange; }
    QTextLayout *textLayout() const { return m_textLayout.get(); }
    const QList<HXLineFragment> &lineFragments() const { return m_lineFragments; }
    qreal top() const { return m_top; }
    // The sum of the heights of the lines.
    qreal height() const { return m_height; }

private:
    struct LineInfo {
        int start = 0;
        int length = 0;
    };

    // Breaks the text layout into lines by the rules, with the character paddings given.
    QList<LineInfo> breakLines(HXTypesetter &typesetter, const HXString &content,
                               const QString &text, qreal containerWidth);
    // The places where a line from `start` whose natural end is forbidden may end instead: the
    // allowed break opportunities before that end, last first, then a few after it.
    QList<int> breaksAround(const HXString &content, QTextBoundaryFinder &finder, int start,
                            int end) const;
    // Lays out the line so that it ends at the first of the places that the layout can end it
    // at; at its natural end where it can end it at none.
    void breakLineAtAllowedPlace(QTextLine &line, const QList<int> &candidates, const QString &text,
                                 qreal lineWidth) const;

    HXRange m_paragraphRange;
    std::unique_ptr<QTextLayout> m_textLayout;
    QList<HXLineFragment> m_lineFragments;
    qreal m_top = 0;
    qreal m_height = 0;
};
