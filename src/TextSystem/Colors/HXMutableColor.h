#pragma once

#include <QColor>
#include <QString>

#include <memory>

class QPainter;

// A colour whose value can be swapped while others hold it: a theme hands these out, and a view
// that keeps one draws in the new colour after the theme changes, without asking again. It
// stands for "no colour" while it holds an invalid QColor. Shared through a shared pointer;
// main thread.
class HXMutableColor {
public:
    explicit HXMutableColor(const QColor &color = QColor())
        : m_color(color) {}
    static std::shared_ptr<HXMutableColor> create(const QColor &color = QColor()) {
        return std::make_shared<HXMutableColor>(color);
    }

    void setWithColor(const QColor &color) { m_color = color; }
    const QColor &currentColor() const { return m_color; }
    // No colour, or one that is fully transparent.
    bool isClear() const { return !m_color.isValid() || m_color.alpha() == 0; }
    QString stringRepresentation() const { return stringRepresentationOfColor(m_color); }

    // The painter's brush, or its pen's colour, becomes this colour.
    void setFill(QPainter &painter) const;
    void setStroke(QPainter &painter) const;
    // The sRGB components and alpha, 0 to 1; all 0 for no colour.
    void getComponents(float *red, float *green, float *blue, float *alpha) const;

    // "#rrggbb", or "#rrggbbaa" for a colour that isn't opaque, lowercase; empty for no colour.
    static QString stringRepresentationOfColor(const QColor &color);
    // Reads either form back; an invalid colour for any other text.
    static QColor colorFromStringRepresentation(const QString &string);

private:
    QColor m_color;
};

using HXMutableColorRef = std::shared_ptr<HXMutableColor>;
