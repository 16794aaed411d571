#include "TextSystem/Themes/HXThemeContrast.h"

#include "TextSystem/Themes/HXTheme.h"
#include "Utilities/HXStringFormat.h"

namespace {

void checkItem(const HXThemeItem &item, const QString &name, quint64 mode,
               const HXColorPalette &palette, double minimumRatio, QStringList &problems) {
    const QString modeName =
        mode == HXColorModeDark ? QStringLiteral("dark") : QStringLiteral("light");
    auto check = [&](const QColor &color, const QColor &behind, const char *what) {
        const double ratio = HXContrastRatio(color, behind);
        if (ratio < minimumRatio)
            problems.append(HXStringWithFormat(u"%@ %@: %s %@ on %@ has a contrast of %.2f:1",
                                               modeName, name, what, color.name(), behind.name(),
                                               ratio));
    };
    const QColor text = item.colorForPart(HXThemeTextColorPart, mode);
    const QColor atom = item.colorForPart(HXThemeAtomColorPart, mode);
    const QColor highlight = item.colorForPart(HXThemeHighlightColorPart, mode);
    if (text.isValid())
        check(text, palette.backgroundColor(), "text");
    if (atom.isValid())
        check(atom, palette.backgroundColor(), "tags");
    if (highlight.isValid())
        check(text.isValid() ? text : palette.foregroundColor(), highlight, "text highlighted");
}

} // namespace

QStringList HXThemeContrastProblems(const HXTheme &theme, double minimumRatio) {
    QStringList problems;
    for (quint64 mode = 0; mode < HXNumberOfColorModes; ++mode) {
        const auto palette = theme.paletteForMode(mode);
        for (quint64 scope = 0; scope < HXNumberOfScopes; ++scope)
            checkItem(*theme.defaultItemForScope(scope),
                      QStringLiteral("scope:") + HXDefinition::nameForScope(scope), mode, *palette,
                      minimumRatio, problems);
        for (const HXDefinitionRef &definition :
             HXDefinition::availableDefinitionsForScopes(HXDefaultDefinitionSelector))
            checkItem(*theme.usedItemForDefinition(definition), definition->identifier(), mode,
                      *palette, minimumRatio, problems);
    }
    return problems;
}
