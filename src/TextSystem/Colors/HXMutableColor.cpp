#include "TextSystem/Colors/HXMutableColor.h"

#include <QPainter>

void HXMutableColor::setFill(QPainter &painter) const {
    painter.setBrush(isClear() ? QBrush(Qt::NoBrush) : QBrush(m_color));
}

void HXMutableColor::setStroke(QPainter &painter) const {
    QPen pen = painter.pen();
    if (isClear()) {
        pen.setStyle(Qt::NoPen);
    } else {
        if (pen.style() == Qt::NoPen)
            pen.setStyle(Qt::SolidLine);
        pen.setColor(m_color);
    }
    painter.setPen(pen);
}

void HXMutableColor::getComponents(float *red, float *green, float *blue, float *alpha) const {
    const bool valid = m_color.isValid();
    *red = valid ? m_color.redF() : 0;
    *green = valid ? m_color.greenF() : 0;
    *blue = valid ? m_color.blueF() : 0;
    *alpha = valid ? m_color.alphaF() : 0;
}

QString HXMutableColor::stringRepresentationOfColor(const QColor &color) {
    if (!color.isValid())
        return QString();
    const QColor rgb = color.toRgb();
    QString text = rgb.name(QColor::HexRgb);
    if (rgb.alpha() != 255)
        text += QStringLiteral("%1").arg(rgb.alpha(), 2, 16, QLatin1Char('0'));
    return text;
}

QColor HXMutableColor::colorFromStringRepresentation(const QString &string) {
    if (!string.startsWith(u'#') || (string.size() != 7 && string.size() != 9))
        return QColor();
    bool read = false;
    const uint value = string.mid(1).toUInt(&read, 16);
    if (!read)
        return QColor();
    if (string.size() == 7)
        return QColor::fromRgb(int((value >> 16) & 0xff), int((value >> 8) & 0xff),
                               int(value & 0xff));
    return QColor::fromRgb(int((value >> 24) & 0xff), int((value >> 16) & 0xff),
                           int((value >> 8) & 0xff), int(value & 0xff));
}
