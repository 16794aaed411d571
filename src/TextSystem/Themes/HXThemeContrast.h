#pragma once

#include "TextSystem/Colors/HXColorContrast.h"

#include <QStringList>

class HXTheme;

// Where a theme is hard to read: in each mode, for each scope's default item and each built-in
// definition as the editor shows it (usedItemForDefinition), the text and tag colours against the
// background, and the text (or, without a colour of its own, the foreground) against the
// highlight. One line per shortfall, naming mode, item, colours and ratio; empty when all reach
// the ratio. Main thread.
QStringList HXThemeContrastProblems(const HXTheme &theme,
                                    double minimumRatio = HXMinimumTextContrastRatio);
