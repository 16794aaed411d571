#pragma once

#include <QColor>

// Legibility of colours by the WCAG 2 measures: relative luminance of an sRGB colour, and the
// contrast ratio of two colours, from 1:1 to 21:1. Alpha is not taken into account. Any thread.

// The least ratio of text against what is behind it (WCAG AA for body text).
inline constexpr double HXMinimumTextContrastRatio = 4.5;

// 0 for black to 1 for white.
double HXRelativeLuminance(const QColor &color);
// (lighter + 0.05) / (darker + 0.05), whichever order the colours come in.
double HXContrastRatio(const QColor &first, const QColor &second);
