// The drawing side of HXTextView: paragraphs from their layouts, with the selection, the
// automatic insertions, entities, the caret and the input method's text over them.

#include "App/Editor/HXTextView.h"
#include "App/Editor/HXTextViewPrivate.h"
#include "Text/Markup/HXTextTag.h"

#include <QFontMetricsF>
#include <QPaintEvent>
#include <QPainter>

#include <cmath>

namespace {

QColor blend(const QColor &from, const QColor &to, qreal fraction) {
    return QColor::fromRgbF(float(from.redF() + (to.redF() - from.redF()) * fraction),
                            float(from.greenF() + (to.greenF() - from.greenF()) * fraction),
                            float(from.blueF() + (to.blueF() - from.blueF()) * fraction));
}

} // namespace

// --- Painting ------------------------------------------------------------------------------------

QColor HXTextView::Private::textColor() const {
    return storage->textColor().colorForMode(dark ? 1 : 0);
}

QColor HXTextView::Private::backgroundColor() const {
    return storage->backgroundColor().colorForMode(dark ? 1 : 0);
}

QColor HXTextView::Private::selectionColor() const {
    return blend(backgroundColor(), dark ? QColor(0x4f, 0x8c, 0xd6) : QColor(0x7a, 0xb2, 0xf0),
                 dark ? 0.55 : 0.45);
}

void HXTextView::Private::paintParagraph(QPainter &painter, qsizetype index, quint64 location,
                                         double top) {
    const HXParagraphLayout &layout = *layouts.at(index);
    QTextLayout *textLayout = layout.textLayout();
    const quint64 textLength = quint64(textLayout->text().size());
    const HXRange text{location, textLength};
    QList<QTextLayout::FormatRange> overlays;
    const auto overlay = [&](HXRange range, const QTextCharFormat &format) {
        const HXRange part = HXIntersectionRange(range, text);
        if (part.length > 0)
            overlays.append({int(part.location - location), int(part.length), format});
    };
    // What was put in for the writer shows faded until it is typed over or kept.
    const HXRange automatic = editor->autoInsertedRange();
    if (!automatic.isNotFound()) {
        QTextCharFormat faded;
        faded.setForeground(blend(textColor(), backgroundColor(), 0.55));
        overlay(automatic, faded);
    }
    const HXRange selection = editor->selectedRange();
    if (selection.length > 0) {
        QTextCharFormat selected;
        selected.setBackground(selectionColor());
        overlay(selection, selected);
    }
    const QPointF origin(containerLeft, top - layout.top());
    textLayout->draw(&painter, origin, overlays);

    const int lineCount = textLayout->lineCount();
    if (lineCount == 0)
        return;
    // A selected line feed: a blank's width behind the paragraph's last line.
    if (selection.length > 0 && heights.at(index).length > textLength &&
        selection.contains(location + textLength)) {
        const QTextLine line = textLayout->lineAt(lineCount - 1);
        painter.fillRect(QRectF(origin.x() + line.cursorToX(int(textLength)), origin.y() + line.y(),
                                typesetter.spaceWidth(), line.ascent() + line.descent()),
                         selectionColor());
    }
    // Entities: a rounded box in place of the object character, with the first letter of
    // what it is.
    for (const HXStyleRun &run : storage->styleRunsForParagraphAtIndex(location)) {
        if (!run.attachment || run.location >= textLength)
            continue;
        const QTextLine line = textLayout->lineForTextPosition(int(run.location));
        if (!line.isValid())
            continue;
        const qreal left = line.cursorToX(int(run.location));
        const qreal right = line.cursorToX(int(run.location) + 1);
        QRectF box(origin.x() + std::min(left, right), origin.y() + line.y(),
                   std::abs(right - left), line.ascent() + line.descent());
        if (box.width() < 6)
            continue;
        box.adjust(0.5, 1.5, -0.5, -1.5);
        const HXTextAttachment &attachment = *run.attachment;
        const bool isSelected = selection.contains(location + run.location);
        painter.save();
        painter.setRenderHint(QPainter::Antialiasing);
        painter.fillRect(box, isSelected ? selectionColor() : backgroundColor());
        QColor fill = attachment.fillColor.isValid() ? attachment.fillColor : textColor();
        fill.setAlphaF(0.18f);
        painter.setBrush(fill);
        painter.setPen(
            QPen(attachment.strokeColor.isValid() ? attachment.strokeColor : textColor(), 1));
        painter.drawRoundedRect(box, 3, 3);
        QString label;
        if (const HXTextAtomRef &atom = attachment.atom(); atom && atom->tag())
            label = atom->tag()->displayName().left(1).toUpper();
        if (!label.isEmpty()) {
            QFont font = attachment.font;
            font.setPointSizeF(std::max<qreal>(font.pointSizeF() * 0.6, 6));
            painter.setFont(font);
            painter.setPen(attachment.labelColor.isValid() ? attachment.labelColor : textColor());
            painter.drawText(box, Qt::AlignCenter, label);
        }
        painter.restore();
    }
}

void HXTextView::paintEvent(QPaintEvent *event) {
    ++d->paints;
    QPainter painter(viewport());
    const QRect clip = event->rect();
    painter.fillRect(clip, d->backgroundColor());
    const HXParagraphHeights &heights = d->heights;
    if (heights.count() == 0)
        return;
    const std::size_t laidOut = d->layouts.size();
    qsizetype index = d->anchor;
    quint64 location = heights.locationOf(index);
    double top = -d->anchorOffset;
    for (; index < heights.count() && top <= clip.bottom(); ++index) {
        const double height = d->ensureLayout(index, location).height();
        if (top + height >= clip.top())
            d->paintParagraph(painter, index, location, top);
        top += height;
        location += heights.at(index).length;
    }
    if (d->layouts.size() != laidOut || d->scrollBarIsStale) {
        // Laid out while painting: the heights changed under the scroll bar.
        QMetaObject::invokeMethod(
            this, [this] { d->syncScrollBar(); }, Qt::QueuedConnection);
    }

    const HXRange selection = d->editor->selectedRange();
    d->paintedCaretRect = QRect();
    if (selection.length == 0 && hasFocus()) {
        const Private::Position position = d->positionForIndex(selection.location);
        QRectF caret = position.caret;
        if (!d->preedit.isEmpty()) {
            const QFontMetricsF metrics(d->storage->font());
            const qreal width = metrics.horizontalAdvance(d->preedit);
            const QRectF box(caret.x(), caret.y(), width, caret.height());
            painter.fillRect(box, d->backgroundColor());
            painter.setFont(d->storage->font());
            painter.setPen(d->textColor());
            const qreal baseline =
                caret.y() + (caret.height() - metrics.height()) / 2 + metrics.ascent();
            painter.drawText(QPointF(caret.x(), baseline), d->preedit);
            painter.drawLine(QPointF(caret.x(), baseline + 2),
                             QPointF(caret.x() + width, baseline + 2));
            caret.translate(width, 0);
        }
        d->paintedCaretRect = caret.toAlignedRect();
        if (d->caretVisible)
            painter.fillRect(caret, d->textColor());
    }
    d->paintedSelection = selection;
    d->paintedAutoInsertion = d->editor->autoInsertedRange();
}
