#include "App/Library/HXLibraryItemDelegate.h"

#include "App/Library/HXLibraryModel.h"
#include "Search/Aggregation/HXGoalController.h"

#include <QApplication>
#include <QPainter>

#include <algorithm>

namespace {

constexpr int ringMargin = 6;

} // namespace

QRectF HXLibraryItemDelegate::ringRect(const QRect &row) {
    const qreal diameter = std::clamp(row.height() - 6, 8, 16);
    return QRectF(row.right() - ringMargin - diameter + 1, row.center().y() - diameter / 2 + 0.5,
                  diameter, diameter);
}

void HXLibraryItemDelegate::paintRing(QPainter *painter, const QRectF &rect, double fraction,
                                      const QColor &color, const QColor &track) {
    painter->save();
    painter->setRenderHint(QPainter::Antialiasing);
    const qreal width = std::max<qreal>(2, rect.width() / 6);
    const QRectF ring = rect.adjusted(width / 2, width / 2, -width / 2, -width / 2);
    painter->setBrush(Qt::NoBrush);
    painter->setPen(QPen(track, width));
    painter->drawEllipse(ring);
    QPen arc(color, width);
    arc.setCapStyle(Qt::RoundCap);
    painter->setPen(arc);
    painter->drawArc(ring, 90 * 16, -int(std::clamp(fraction, 0.0, 1.0) * 360 * 16));
    painter->restore();
}

void HXLibraryItemDelegate::paint(QPainter *painter, const QStyleOptionViewItem &option,
                                  const QModelIndex &index) const {
    QStyleOptionViewItem opt(option);
    initStyleOption(&opt, index);
    opt.icon = QIcon();
    opt.features &= ~QStyleOptionViewItem::HasDecoration;
    const QString name = opt.text;
    opt.text.clear();
    const QWidget *widget = option.widget;
    QStyle *style = widget ? widget->style() : QApplication::style();
    // The panel (selection, focus) over the whole row; the name beside the ring.
    style->drawControl(QStyle::CE_ItemViewItem, &opt, painter, widget);

    const QVariant progress = index.data(HXLibraryModel::GoalProgressRole);
    QRect textRect = style->subElementRect(QStyle::SE_ItemViewItemText, &opt, widget);
    if (progress.isValid())
        textRect.setRight(int(ringRect(option.rect).left()) - ringMargin);
    const bool selected = opt.state & QStyle::State_Selected;
    const QPalette::ColorGroup group =
        opt.state & QStyle::State_Active ? QPalette::Active : QPalette::Inactive;
    painter->save();
    painter->setFont(opt.font);
    painter->setPen(
        opt.palette.color(group, selected ? QPalette::HighlightedText : QPalette::Text));
    painter->drawText(textRect, Qt::AlignVCenter | Qt::AlignLeft | Qt::TextSingleLine,
                      opt.fontMetrics.elidedText(name, Qt::ElideRight, textRect.width()));
    painter->restore();

    if (progress.isValid()) {
        const auto status =
            HXGoalProgressStatus(index.data(HXLibraryModel::GoalStatusRole).toULongLong());
        const auto [r, g, b] = HXGoalController::colorForStatus(status);
        const QRectF ring = ringRect(option.rect);
        if (selected) {
            // On the selection the ring sits on a disc of the base colour, so that the status
            // colour reads.
            painter->save();
            painter->setRenderHint(QPainter::Antialiasing);
            painter->setPen(Qt::NoPen);
            painter->setBrush(opt.palette.color(group, QPalette::Base));
            painter->drawEllipse(ring.adjusted(-1.5, -1.5, 1.5, 1.5));
            painter->restore();
        }
        QColor track = opt.palette.color(group, QPalette::Text);
        track.setAlphaF(0.18f);
        paintRing(painter, ring, progress.toDouble(), QColor::fromRgbF(r, g, b), track);
    }
}

QSize HXLibraryItemDelegate::sizeHint(const QStyleOptionViewItem &option,
                                      const QModelIndex &index) const {
    QSize size = QStyledItemDelegate::sizeHint(option, index);
    size.setHeight(std::max(size.height(), option.fontMetrics.height() + 8));
    if (index.data(HXLibraryModel::GoalProgressRole).isValid())
        size.rwidth() += 16 + 2 * ringMargin;
    return size;
}
