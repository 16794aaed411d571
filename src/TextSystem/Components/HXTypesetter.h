#pragma once

#include "Utilities/HXRange.h"

#include <QChar>
#include <QFont>
#include <QMap>
#include <QRectF>
#include <QString>

#include <functional>

class HXString;

// The measurements that make the structure of a sheet visible without hiding a character: the
// tags of a paragraph hang in the side margin, list text lines up behind its marker, and tabs and
// tag ends reach stops measured in the base font. A view keeps one typesetter and asks it, in
// turn, at each paragraph (updateSpacing), at each line (beginLineWithGlyphAtIndex), for each
// control character and for each line's rectangles; the answers hold until the next paragraph.
//
// Horizontal positions named "stops" are measured from the text column, which starts sideInset
// right of the container's edge; a line starts currentInset right of the column. Indexes are the
// whole text's UTF-16 indexes. A plain value, used by one thread at a time.
class HXTypesetter {
public:
    // The width of a tag's text as the view draws it; `index` is the location of that text.
    using TagMeasuringFunction = std::function<qreal(const QString &tagText, quint64 index)>;

    // What the layout should do with a control character: the typesetter's width for a whitespace.
    enum ControlCharacterAction : int {
        DefaultAction = 0,
        WhitespaceAction = 2,
    };

    HXTypesetter();

    const QFont &baseFont() const { return m_baseFont; }
    void setBaseFont(const QFont &font) { m_baseFont = font; }
    bool outdentTags() const { return m_outdentTags; }
    void setOutdentTags(bool outdent) { m_outdentTags = outdent; }
    qreal lineHeightMultiple() const { return m_lineHeightMultiple; }
    void setLineHeightMultiple(qreal multiple) { m_lineHeightMultiple = multiple; }
    qreal paragraphSpacing() const { return m_paragraphSpacing; }
    void setParagraphSpacing(qreal spacing) { m_paragraphSpacing = spacing; }
    // In widths of the letter n.
    qint64 firstLineIndent() const { return m_firstLineIndent; }
    void setFirstLineIndent(qint64 indent) { m_firstLineIndent = indent; }

    // Derives the widths below from the fields; call after changing any of them.
    void updateMetrics();
    void takeMetricsFromTypesetter(const HXTypesetter &other);

    qreal nWidth() const { return m_nWidth; }
    qreal sideInset() const { return m_sideInset; }
    qreal indentWidth() const { return m_indentWidth; }
    qreal spaceWidth() const { return m_spaceWidth; }
    qreal firstLineInset() const { return m_firstLineInset; }

    // Starts the paragraph of the range (with its line feed, if it has one): works out the inset
    // of its first line, that of its other lines and the stops of its tags. Reads only that
    // paragraph. Without a measuring function tags are measured in the base font.
    void updateSpacing(const HXString &content, HXRange paragraphRange, qreal containerWidth,
                       const TagMeasuringFunction &measure = {});
    qreal paragraphInset() const { return m_paragraphInset; }
    qreal lineInset() const { return m_lineInset; }
    // The stop that the character at each index reaches.
    const QMap<quint64, qreal> &tagLocations() const { return m_tagLocations; }

    // Starts a line of the present paragraph at the index.
    void beginLineWithGlyphAtIndex(quint64 index);
    qreal currentInset() const { return m_currentInset; }

    ControlCharacterAction actionForControlCharacterAtIndex(quint64 index, QChar character) const;
    // The box of a control character whose action is the whitespace: from the glyph's position
    // in the line (its x measured from the line's start) to its stop, at least empty; the line
    // fragment gives its top and height.
    QRectF boundingBoxForControlGlyphAtIndex(quint64 index, QChar character,
                                             const QRectF &proposedLineFragment,
                                             QPointF glyphPosition) const;

    // Adjusts a line of the present paragraph, whose rectangles have the height of its text:
    // the line height multiple, the baseline, the paragraph spacing for a line that ends its
    // paragraph with a line feed, and the insets.
    void willSetLineFragmentRect(QRectF *lineRect, QRectF *usedRect, qreal *baselineOffset,
                                 bool endsParagraphWithLineFeed) const;
    // The empty line behind a text's final line feed.
    void getLineFragmentRectForParagraphSeparator(QRectF *lineRect, QRectF *usedRect) const;

    // Whether a line may break before the character at the index: not where it would split the
    // text of an inline tag, or part a tag from the text it encloses.
    static bool shouldBreakLineByWordBeforeCharacterAtIndex(const HXString &content, quint64 index);

private:
    // The line height multiple as it applies: never below 1.
    qreal effectiveLineHeightMultiple() const;

    QFont m_baseFont;
    bool m_outdentTags = true;
    qreal m_lineHeightMultiple = 1;
    qreal m_paragraphSpacing = 0;
    qint64 m_firstLineIndent = 0;

    qreal m_nWidth = 0;
    qreal m_sideInset = 0;
    qreal m_indentWidth = 0;
    qreal m_spaceWidth = 0;
    qreal m_firstLineInset = 0;

    quint64 m_paragraphLocation = 0;
    qreal m_paragraphInset = 0;
    qreal m_lineInset = 0;
    qreal m_currentInset = 0;
    QMap<quint64, qreal> m_tagLocations;
};
