#pragma once

#include <QStyledItemDelegate>

// Draws a row of the library sidebar: the container's name without an icon and, when the
// container has a counting goal, a small ring at the right edge whose arc is the goal's progress,
// in the colour of its status. Editing is the default line edit.
//
// Owned by the sidebar; main thread. Stateless.
class HXLibraryItemDelegate : public QStyledItemDelegate {
    Q_OBJECT

public:
    using QStyledItemDelegate::QStyledItemDelegate;

    void paint(QPainter *painter, const QStyleOptionViewItem &option,
               const QModelIndex &index) const override;
    QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const override;

    // Where the ring of a row goes.
    static QRectF ringRect(const QRect &row);
    // A ring: the track all round, the arc from the top clockwise over `fraction` of it.
    static void paintRing(QPainter *painter, const QRectF &rect, double fraction,
                          const QColor &color, const QColor &track);
};
