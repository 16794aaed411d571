#pragma once

#include <QStyledItemDelegate>

// Draws a row of the sheet list: the title in bold and below it one or two lines of the preview
// in grey, about three lines of text in all. Rows of one cluster are drawn joined: no separator
// between them, and a bar down their left side that runs from the first to the last.
//
// Owned by the sheet list; main thread. Stateless.
class HXSheetItemDelegate : public QStyledItemDelegate {
    Q_OBJECT

public:
    using QStyledItemDelegate::QStyledItemDelegate;

    static constexpr int padding = 6;
    static constexpr int barInset = 5;
    static constexpr int barWidth = 3;
    static constexpr int textInset = 16;

    void paint(QPainter *painter, const QStyleOptionViewItem &option,
               const QModelIndex &index) const override;
    QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const override;
};
