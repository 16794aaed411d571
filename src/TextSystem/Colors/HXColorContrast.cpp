#include "TextSystem/Colors/HXColorContrast.h"

#include <algorithm>
#include <cmath>

namespace {

double linearComponent(double value) {
    return value <= 0.04045 ? value / 12.92 : std::pow((value + 0.055) / 1.055, 2.4);
}

} // namespace

double HXRelativeLuminance(const QColor &color) {
    const QColor rgb = color.toRgb();
    return 0.2126 * linearComponent(rgb.redF()) + 0.7152 * linearComponent(rgb.greenF()) +
           0.0722 * linearComponent(rgb.blueF());
}

double HXContrastRatio(const QColor &first, const QColor &second) {
    const double a = HXRelativeLuminance(first);
    const double b = HXRelativeLuminance(second);
    return (std::max(a, b) + 0.05) / (std::min(a, b) + 0.05);
}
