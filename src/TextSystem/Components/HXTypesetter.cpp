#include "TextSystem/Components/HXTypesetter.h"

#include "Text/String/Access/HXString.h"
#include "Text/String/Nodes/HXParagraph.h"
#include "Text/String/Nodes/HXTextElement.h"

#include <QFontMetricsF>

#include <algorithm>
#include <cmath>
#include <optional>

namespace {

// Inline text and attributed text: the elements whose tags stay with their text on a line.
constexpr HXDefinitionSelector unbreakableScopes =
    HXSelectorForScope(HXTextScope) | HXSelectorForScope(HXAttributedTextScope);

} // namespace

HXTypesetter::HXTypesetter() {
    updateMetrics();
}

void HXTypesetter::updateMetrics() {
    const QFontMetricsF metrics(m_baseFont);
    m_nWidth = metrics.horizontalAdvance(u'n');
    m_sideInset = m_outdentTags ? 7 * m_nWidth : 0;
    m_indentWidth = 5 * m_nWidth;
    m_spaceWidth = metrics.horizontalAdvance(u' ');
    m_firstLineInset = qreal(m_firstLineIndent) * m_nWidth;
}

void HXTypesetter::takeMetricsFromTypesetter(const HXTypesetter &other) {
    m_nWidth = other.m_nWidth;
    m_sideInset = other.m_sideInset;
    m_indentWidth = other.m_indentWidth;
    m_spaceWidth = other.m_spaceWidth;
    m_firstLineInset = other.m_firstLineInset;
}

qreal HXTypesetter::effectiveLineHeightMultiple() const {
    return std::max<qreal>(m_lineHeightMultiple, 1);
}

void HXTypesetter::updateSpacing(const HXString &content, HXRange paragraphRange,
                                 qreal containerWidth, const TagMeasuringFunction &measure) {
    m_paragraphLocation = paragraphRange.location;
    m_paragraphInset = 0;
    m_lineInset = 0;
    m_currentInset = 0;
    m_tagLocations.clear();

    HXRange range;
    const HXParagraphRef paragraph = paragraphRange.location < content.length()
                                         ? content.paragraphAtIndex(paragraphRange.location, &range)
                                         : HXParagraphRef();
    if (!paragraph || (paragraph->groupings().isEmpty() && !paragraph->tag())) {
        m_paragraphInset = m_firstLineInset;
        return;
    }

    std::optional<QFontMetricsF> baseMetrics;
    const auto widthOfTag = [&](const QString &text, quint64 index) -> qreal {
        if (measure)
            return measure(text, index);
        if (!baseMetrics)
            baseMetrics.emplace(m_baseFont);
        return baseMetrics->horizontalAdvance(text);
    };

    // Stops and insets never push text out of the room a narrow container leaves.
    const qreal widthLeft = std::max<qreal>(containerWidth - 4 * m_sideInset, 0);
    const QList<HXTextAtomRef> groupAtoms = paragraph->groupTagStrings();
    QList<HXTextAtomRef> atoms = groupAtoms;
    if (const HXTextAtomRef own = paragraph->tagString())
        atoms.append(own);

    qreal inset = 0;
    quint64 atomStart = range.location;
    for (qsizetype k = 0; k < atoms.size(); ++k) {
        const HXTextAtomRef &atom = atoms.at(k);
        const QString text = atom->string();
        const quint64 atomLength = quint64(text.size());
        const HXTextTagRef &tag = atom->tag();
        qreal stop = 0;
        quint64 last = 0;
        if (!tag) {
            // A level of indentation: its blanks or tab reach the next indentation stop.
            if (text.isEmpty())
                continue;
            inset += m_indentWidth;
            stop = inset;
            last = atomStart + atomLength - 1;
        } else {
            qsizetype visible = 0;
            while (visible < text.size() && text.at(visible).isSpace())
                ++visible;
            if (visible == text.size()) {
                atomStart += atomLength;
                continue;
            }
            const QString tagText = text.mid(visible);
            const quint64 location = atomStart + quint64(visible);
            qreal w = widthOfTag(tagText, location);
            if (!tagText.back().isSpace())
                w += m_spaceWidth;
            const bool isOwnTag = k >= groupAtoms.size();
            const quint64 groupingType = tag->definition() ? tag->definition()->groupingType() : 0;
            if (inset == 0 && (isOwnTag || groupingType == HXGroupingTerminal)) {
                // Hangs in the side margin, as far as the margin and one indentation allow.
                m_paragraphInset = -std::min({w, m_indentWidth, m_sideInset});
                atomStart += atomLength;
                continue;
            }
            if (groupingType == HXGroupingList) {
                // The marker takes at least one indentation; the text behind it lines up with
                // the continuation lines unless the marker is wider.
                stop = inset + std::max(w, m_indentWidth);
                inset += m_indentWidth;
            } else {
                inset += w;
                stop = inset;
            }
            last = atomStart + atomLength - 1;
        }
        stop = std::min(stop, widthLeft);
        inset = std::min(inset, widthLeft);
        m_tagLocations.insert(last, stop);
        atomStart += atomLength;
    }
    m_lineInset = inset;
}

void HXTypesetter::beginLineWithGlyphAtIndex(quint64 index) {
    m_currentInset = index == m_paragraphLocation ? m_paragraphInset : m_lineInset;
}

HXTypesetter::ControlCharacterAction
HXTypesetter::actionForControlCharacterAtIndex(quint64 index, QChar character) const {
    if (character == u'\t' || m_tagLocations.contains(index))
        return WhitespaceAction;
    return DefaultAction;
}

QRectF HXTypesetter::boundingBoxForControlGlyphAtIndex(quint64 index, QChar character,
                                                       const QRectF &proposedLineFragment,
                                                       QPointF glyphPosition) const {
    const qreal position = m_currentInset + glyphPosition.x();
    qreal stop = position;
    const auto found = m_tagLocations.constFind(index);
    if (found != m_tagLocations.constEnd()) {
        stop = *found;
    } else if (character == u'\t' && m_indentWidth > 0) {
        // A tab leaves at least half a blank before the next indentation stop.
        stop = (std::floor((position + m_spaceWidth / 2) / m_indentWidth) + 1) * m_indentWidth;
    }
    return QRectF(glyphPosition.x(), proposedLineFragment.y(), std::max<qreal>(stop - position, 0),
                  proposedLineFragment.height());
}

void HXTypesetter::willSetLineFragmentRect(QRectF *lineRect, QRectF *usedRect,
                                           qreal *baselineOffset,
                                           bool endsParagraphWithLineFeed) const {
    const qreal multiple = effectiveLineHeightMultiple();
    const qreal height = lineRect->height();
    const qreal multiplied = std::round(height * multiple);
    lineRect->setHeight(multiplied);
    usedRect->setHeight(multiplied);
    // The extra height is shared above and below the text.
    *baselineOffset += std::ceil((multiple - 1) * height * 0.5);
    if (endsParagraphWithLineFeed)
        lineRect->setHeight(multiplied + std::max<qreal>(m_paragraphSpacing, 0) * multiplied);
    const qreal shift = m_sideInset + m_currentInset;
    lineRect->translate(shift, 0);
    usedRect->translate(shift, 0);
}

void HXTypesetter::getLineFragmentRectForParagraphSeparator(QRectF *lineRect,
                                                            QRectF *usedRect) const {
    const qreal multiple = effectiveLineHeightMultiple();
    lineRect->setHeight(lineRect->height() * multiple);
    usedRect->setHeight(usedRect->height() * multiple);
    lineRect->translate(m_sideInset, 0);
    usedRect->translate(m_sideInset, 0);
}

bool HXTypesetter::shouldBreakLineByWordBeforeCharacterAtIndex(const HXString &content,
                                                               quint64 index) {
    if (index == 0 || index > content.length())
        return true;
    bool allowed = true;
    content.enumerateElementsInRange(
        HXRange{index - 1, 1}, unbreakableScopes,
        [&](const HXTextElementRef &element, HXRange range, bool &stop) {
            if (index <= range.location || index > range.max() || !element->isIntact())
                return;
            quint64 innerStart = range.location;
            quint64 innerEnd = range.max();
            if (element->headAtom())
                innerStart += element->headAtom()->length();
            if (element->isClosed() && !element->isObject() && element->tailAtom())
                innerEnd -= std::min(element->tailAtom()->length(), innerEnd - innerStart);
            // The start tag stays with the first character it opens, the end tag with the last.
            if (index <= innerStart || (index > innerEnd && index < range.max()))
                allowed = false;
            else if (index == innerEnd && !content.characterAtIndex(innerEnd - 1).isSpace())
                allowed = false;
            stop = !allowed;
        });
    return allowed;
}
