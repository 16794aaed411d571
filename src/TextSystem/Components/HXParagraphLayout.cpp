#include "TextSystem/Components/HXParagraphLayout.h"

#include "Text/String/Access/HXString.h"
#include "Text/String/Nodes/HXParagraph.h"

#include <QTextBoundaryFinder>

#include <algorithm>
#include <cmath>
#include <optional>

namespace {

// A padding applied differs from the one asked for by the layout's fixed-point rounding.
constexpr qreal paddingTolerance = 1.0 / 32;
// Paddings that move line breaks can move them back; after this many layouts the last stands.
constexpr int maximumPasses = 4;
// Wider than any paragraph's text: the widest line laid out to measure one.
constexpr qreal measuringWidth = 1e7;
// Less than any character with a width, more than the layout's rounding.
constexpr qreal widthMargin = 1.0 / 16;
// How many places behind the natural break a line that can't break before it may run on to.
constexpr qsizetype maximumLaterBreaks = 4;

} // namespace

HXParagraphLayout::HXParagraphLayout() = default;
HXParagraphLayout::~HXParagraphLayout() = default;
HXParagraphLayout::HXParagraphLayout(HXParagraphLayout &&other) noexcept = default;
HXParagraphLayout &HXParagraphLayout::operator=(HXParagraphLayout &&other) noexcept = default;

QList<int> HXParagraphLayout::breaksAround(const HXString &content, QTextBoundaryFinder &finder,
                                           int start, int end) const {
    const quint64 location = m_paragraphRange.location;
    const auto allowed = [&](qsizetype position) {
        return HXTypesetter::shouldBreakLineByWordBeforeCharacterAtIndex(
            content, location + quint64(position));
    };
    const qsizetype length = finder.string().size();
    QList<int> candidates;
    finder.setPosition(end);
    for (qsizetype position = finder.toPreviousBoundary(); position > start;
         position = finder.toPreviousBoundary()) {
        if (allowed(position))
            candidates.append(int(position));
    }
    finder.setPosition(end);
    qsizetype later = 0;
    for (qsizetype position = finder.toNextBoundary(); position > 0 && later < maximumLaterBreaks;
         position = finder.toNextBoundary()) {
        if (position >= length) {
            candidates.append(int(length));
            break;
        }
        if (allowed(position)) {
            candidates.append(int(position));
            ++later;
        }
    }
    return candidates;
}

void HXParagraphLayout::breakLineAtAllowedPlace(QTextLine &line, const QList<int> &candidates,
                                                const QString &text, qreal lineWidth) const {
    // The line takes the text up to a place when it is exactly as wide as what stands before it,
    // blanks at its end left out, as the layout leaves them out too. The widths come from the
    // line laid out wide enough to reach every place.
    const int start = line.textStart();
    const int farthest = *std::max_element(candidates.begin(), candidates.end());
    qreal measuring = 2 * lineWidth + 200;
    line.setLineWidth(measuring);
    while (start + line.textLength() < farthest && measuring < measuringWidth) {
        measuring *= 4;
        line.setLineWidth(measuring);
    }
    QList<qreal> widths;
    for (const int position : candidates) {
        int visibleEnd = position;
        while (visibleEnd > start && text.at(visibleEnd - 1).isSpace())
            --visibleEnd;
        widths.append(line.cursorToX(visibleEnd) - line.cursorToX(start));
    }
    // A place that only characters without width part from a forbidden one can't be reached by
    // width: the layout goes on to that one, and the next place is tried.
    for (qsizetype k = 0; k < candidates.size(); ++k) {
        line.setLineWidth(widths.at(k) + widthMargin);
        if (start + line.textLength() == candidates.at(k))
            return;
    }
    line.setLineWidth(lineWidth);
}

QList<HXParagraphLayout::LineInfo> HXParagraphLayout::breakLines(HXTypesetter &typesetter,
                                                                 const HXString &content,
                                                                 const QString &text,
                                                                 qreal containerWidth) {
    const quint64 location = m_paragraphRange.location;
    QList<LineInfo> lines;
    std::optional<QTextBoundaryFinder> finder;
    m_textLayout->beginLayout();
    for (;;) {
        QTextLine line = m_textLayout->createLine();
        if (!line.isValid())
            break;
        const int start = line.textStart();
        typesetter.beginLineWithGlyphAtIndex(location + quint64(start));
        const qreal width = std::max<qreal>(
            containerWidth - 2 * typesetter.sideInset() - typesetter.currentInset(), 0);
        line.setLineWidth(width);
        const int end = start + line.textLength();
        if (end < text.size() && !HXTypesetter::shouldBreakLineByWordBeforeCharacterAtIndex(
                                     content, location + quint64(end))) {
            // Back to the last place before the natural break where the line may end; where
            // there is none, the line runs on to the first place after it rather than split a
            // tag.
            if (!finder)
                finder.emplace(QTextBoundaryFinder::Line, text);
            const QList<int> candidates = breaksAround(content, *finder, start, end);
            if (!candidates.isEmpty())
                breakLineAtAllowedPlace(line, candidates, text, width);
        }
        lines.append({start, line.textLength()});
    }
    m_textLayout->endLayout();
    return lines;
}

void HXParagraphLayout::layoutParagraph(HXTypesetter &typesetter, const HXString &content,
                                        HXRange paragraphRange, qreal containerWidth, qreal top,
                                        const QList<QTextLayout::FormatRange> &formats,
                                        const HXTypesetter::TagMeasuringFunction &measure) {
    m_top = top;
    m_height = 0;
    m_lineFragments.clear();
    m_paragraphRange = HXRange{paragraphRange.location, 0};
    QString text;
    if (paragraphRange.location < content.length()) {
        const HXParagraphRef paragraph =
            content.paragraphAtIndex(paragraphRange.location, &m_paragraphRange);
        text = paragraph->string();
    }
    const bool endsWithLineFeed = text.endsWith(u'\n');
    if (endsWithLineFeed)
        text.chop(1);
    const quint64 location = m_paragraphRange.location;
    typesetter.updateSpacing(content, m_paragraphRange, containerWidth, measure);

    // The characters that reach a stop: the ends of tags and the tabs. Tabs stand as blanks in
    // the layout, so that they take their width from the padding like the others.
    QString layoutText = text;
    QList<int> padded;
    for (int i = 0; i < int(text.size()); ++i) {
        const QChar character = text.at(i);
        if (typesetter.actionForControlCharacterAtIndex(location + quint64(i), character) !=
            HXTypesetter::WhitespaceAction)
            continue;
        padded.append(i);
        if (character == u'\t')
            layoutText[i] = u' ';
    }

    // A padding is letter spacing on its one character. The natural widths come from the layout
    // itself, so the first pass lays out with no padding, each later one with the paddings that
    // the line positions of the one before ask for, until those stand.
    QList<qreal> paddings(padded.size(), 0);
    QList<LineInfo> lines;
    for (int pass = 0;; ++pass) {
        m_textLayout = std::make_unique<QTextLayout>(layoutText, typesetter.baseFont());
        QTextOption option;
        option.setWrapMode(QTextOption::WordWrap);
        m_textLayout->setTextOption(option);
        QList<QTextLayout::FormatRange> allFormats = formats;
        for (qsizetype k = 0; k < padded.size(); ++k) {
            QTextLayout::FormatRange range;
            range.start = padded.at(k);
            range.length = 1;
            range.format.setFontLetterSpacingType(QFont::AbsoluteSpacing);
            range.format.setFontLetterSpacing(paddings.at(k));
            allFormats.append(range);
        }
        m_textLayout->setFormats(allFormats);
        lines = breakLines(typesetter, content, text, containerWidth);
        if (padded.isEmpty() || pass + 1 >= maximumPasses)
            break;

        bool changed = false;
        qsizetype k = 0;
        for (qsizetype l = 0; l < lines.size(); ++l) {
            const QTextLine line = m_textLayout->lineAt(int(l));
            const LineInfo &info = lines.at(l);
            const qreal lineStart = line.cursorToX(info.start);
            // How far the paddings found so far on this line move the characters behind them.
            qreal shift = 0;
            typesetter.beginLineWithGlyphAtIndex(location + quint64(info.start));
            for (; k < padded.size() && padded.at(k) < info.start + info.length; ++k) {
                const int index = padded.at(k);
                const qreal x = line.cursorToX(index) - lineStart + shift;
                const qreal natural =
                    line.cursorToX(index + 1) - line.cursorToX(index) - paddings.at(k);
                const qreal wanted =
                    typesetter
                        .boundingBoxForControlGlyphAtIndex(location + quint64(index),
                                                           text.at(index), QRectF(), QPointF(x, 0))
                        .width();
                const qreal padding = wanted - natural;
                if (std::abs(padding - paddings.at(k)) > paddingTolerance)
                    changed = true;
                shift += padding - paddings.at(k);
                paddings[k] = padding;
            }
        }
        if (!changed)
            break;
    }

    qreal y = top;
    for (qsizetype l = 0; l < lines.size(); ++l) {
        QTextLine line = m_textLayout->lineAt(int(l));
        const LineInfo &info = lines.at(l);
        typesetter.beginLineWithGlyphAtIndex(location + quint64(info.start));
        // The text's own height, before the layout rounds it up.
        const qreal height =
            line.ascent() + line.descent() + (line.leadingIncluded() ? line.leading() : 0);
        QRectF lineRect(0, y, line.width(), height);
        QRectF usedRect(0, y, line.naturalTextWidth(), height);
        qreal baselineShift = 0;
        typesetter.willSetLineFragmentRect(&lineRect, &usedRect, &baselineShift,
                                           endsWithLineFeed && l + 1 == lines.size());
        line.setPosition(QPointF(lineRect.x(), y + baselineShift));
        m_lineFragments.append({HXRange{quint64(info.start), quint64(info.length)},
                                QRectF(lineRect.x(), y, line.naturalTextWidth(), lineRect.height()),
                                baselineShift + line.ascent()});
        y += lineRect.height();
    }
    m_height = y - top;
}
