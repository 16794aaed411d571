#include "TextSystem/Colors/HXColorIndex.h"

#include "Utilities/HXAssert.h"

#include <QStringList>

qint64 HXColorIndex::minimumOffsetForIndex(quint64 index) {
    return index < maximumAccentCount ? -5 : 0;
}

qint64 HXColorIndex::maximumOffsetForIndex(quint64 index) {
    return index < maximumAccentCount ? 5 : 10;
}

HXColorIndex HXColorIndex::colorIndexWithIndex(quint64 index, qint64 offset) {
    const bool known =
        index < maximumAccentCount || index == greyRampIndex || index == backgroundBlendIndex;
    HX_ASSERT(known && offset >= minimumOffsetForIndex(index) &&
                  offset <= maximumOffsetForIndex(index),
              u"Invalid offset %ld for index %lu", offset, index);
    return HXColorIndex(index, offset);
}

std::optional<HXColorIndex>
HXColorIndex::colorIndexFromStringRepresentation(const QString &string) {
    const QStringList parts = string.split(u',');
    if (parts.size() != 2)
        return std::nullopt;
    bool indexRead = false;
    bool offsetRead = false;
    const quint64 index = parts.at(0).trimmed().toULongLong(&indexRead);
    const qint64 offset = parts.at(1).trimmed().toLongLong(&offsetRead);
    if (!indexRead || !offsetRead)
        return std::nullopt;
    return colorIndexWithIndex(index, offset);
}

QString HXColorIndex::stringRepresentation() const {
    return QString::number(m_index) + u',' + QString::number(m_offset);
}
