#include "App/Library/HXSheetItemDelegate.h"

#include "App/Library/HXSheetListModel.h"

#include <QApplication>
#include <QPainter>
#include <QTextLayout>

namespace {

QFont titleFont(const QFont &font) {
    QFont bold = font;
    bold.setBold(true);
    return bold;
}

// Up to two lines of the text, broken at words, the second one elided.
void drawPreview(QPainter *painter, const QString &text, const QFont &font, const QRect &rect) {
    const QFontMetrics metrics(font);
    QTextLayout layout(text, font);
    QTextOption option;
    option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
    layout.setTextOption(option);
    layout.beginLayout();
    QTextLine first = layout.createLine();
    QTextLine second;
    if (first.isValid()) {
        first.setLineWidth(rect.width());
        first.setPosition(QPointF(0, 0));
        second = layout.createLine();
        if (second.isValid())
            second.setLineWidth(rect.width());
    }
    layout.endLayout();
    if (!first.isValid())
        return;
    first.draw(painter, rect.topLeft());
    if (second.isValid()) {
        const QString rest =
            metrics.elidedText(text.mid(second.textStart()), Qt::ElideRight, rect.width());
        painter->drawText(
            QPointF(rect.left(), rect.top() + metrics.lineSpacing() + metrics.ascent()), rest);
    }
}

} // namespace

void HXSheetItemDelegate::paint(QPainter *painter, const QStyleOptionViewItem &option,
                                const QModelIndex &index) const {
    QStyleOptionViewItem opt(option);
    initStyleOption(&opt, index);
    opt.text.clear();
    opt.icon = QIcon();
    const QWidget *widget = option.widget;
    QStyle *style = widget ? widget->style() : QApplication::style();
    style->drawPrimitive(QStyle::PE_PanelItemViewItem, &opt, painter, widget);

    const bool selected = opt.state & QStyle::State_Selected;
    const QPalette::ColorGroup group =
        opt.state & QStyle::State_Active ? QPalette::Active : QPalette::Inactive;
    const QColor textColor =
        opt.palette.color(group, selected ? QPalette::HighlightedText : QPalette::Text);
    QColor grey = textColor;
    grey.setAlphaF(selected ? 0.8f : 0.55f);
    const auto position = HXSheetListModel::ClusterPosition(
        index.data(HXSheetListModel::ClusterPositionRole).toInt());
    const QRect rect = option.rect;
    painter->save();

    if (position != HXSheetListModel::Single) {
        // One bar down the cluster: rounded at its ends, running on into the next row between.
        const int overrun = barWidth;
        const int top =
            position == HXSheetListModel::First ? rect.top() + padding : rect.top() - overrun;
        const int bottom = position == HXSheetListModel::Last ? rect.bottom() + 1 - padding
                                                              : rect.bottom() + 1 + overrun;
        painter->setClipRect(rect);
        painter->setRenderHint(QPainter::Antialiasing);
        painter->setPen(Qt::NoPen);
        painter->setBrush(selected ? textColor : opt.palette.color(group, QPalette::Highlight));
        painter->drawRoundedRect(QRectF(rect.left() + barInset, top, barWidth, bottom - top),
                                 barWidth / 2.0, barWidth / 2.0);
        painter->setRenderHint(QPainter::Antialiasing, false);
        painter->setClipping(false);
    }

    const QRect content = rect.adjusted(textInset, padding, -padding - 2, -padding);
    const QFont bold = titleFont(opt.font);
    const QFontMetrics boldMetrics(bold);
    painter->setFont(bold);
    painter->setPen(textColor);
    const QString title = index.data(HXSheetListModel::TitleRole).toString();
    painter->drawText(QPoint(content.left(), content.top() + boldMetrics.ascent()),
                      boldMetrics.elidedText(title, Qt::ElideRight, content.width()));

    const QString preview = index.data(HXSheetListModel::PreviewRole).toString();
    if (!preview.isEmpty()) {
        painter->setFont(opt.font);
        painter->setPen(grey);
        drawPreview(painter, preview, opt.font,
                    content.adjusted(0, boldMetrics.lineSpacing() + 1, 0, 0));
    }

    // The separator, but not inside a cluster.
    if (position == HXSheetListModel::Single || position == HXSheetListModel::Last) {
        QColor line = opt.palette.color(group, QPalette::Text);
        line.setAlphaF(0.12f);
        painter->setPen(line);
        painter->drawLine(rect.left() + textInset, rect.bottom(), rect.right(), rect.bottom());
    }
    painter->restore();
}

QSize HXSheetItemDelegate::sizeHint(const QStyleOptionViewItem &option, const QModelIndex &) const {
    const QFontMetrics bold(titleFont(option.font));
    const int height = 2 * padding + bold.lineSpacing() + 1 + 2 * option.fontMetrics.lineSpacing();
    return QSize(std::max(option.rect.width(), 120), height);
}
