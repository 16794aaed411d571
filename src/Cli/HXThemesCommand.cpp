#include "Cli/HXCommandLineTool.h"
#include "TextSystem/Themes/HXThemeStore.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

// "#rrggbb", or "-" for no colour.
QString colorText(const QColor &color) {
    return color.isValid() ? color.name(QColor::HexRgb) : QStringLiteral("-");
}

QString traitsText(quint64 traits) {
    static const std::pair<quint64, const char *> names[] = {
        {HXThemeTraitBold, "bold"},
        {HXThemeTraitItalic, "italic"},
        {HXThemeTraitUnderline, "underline"},
        {HXThemeTraitStrikethrough, "strikethrough"}};
    QStringList list;
    for (const auto &[bit, name] : names) {
        if (traits & bit)
            list.append(QString::fromLatin1(name));
    }
    return list.isEmpty() ? QStringLiteral("-") : list.join(u',');
}

QByteArray itemLine(const QString &name, const HXThemeItem &item, quint64 mode) {
    return QStringLiteral("%1\t%2\t%3\t%4\t%5\n")
        .arg(name, colorText(item.colorForPart(HXThemeTextColorPart, mode)),
             colorText(item.colorForPart(HXThemeAtomColorPart, mode)),
             colorText(item.colorForPart(HXThemeHighlightColorPart, mode)),
             traitsText(item.traits()))
        .toUtf8();
}

} // namespace

// velmora-cli themes list [--json]: the theme store's themes.
int HXThemesCommand(const QStringList &arguments) {
    const QStringList rest = arguments.mid(1);
    if (arguments.value(0) != u"list" || !(rest.isEmpty() || rest == QStringList{"--json"}))
        return HXCommandLineTool::fail(QStringLiteral("themes: expected list [--json]"));
    const auto store = HXThemeStore::create();
    QJsonArray array;
    QByteArray text;
    for (const HXPresetObjectRef &theme : store->allObjects()) {
        array.append(QJsonObject{{QStringLiteral("identifier"), theme->identifier()},
                                 {QStringLiteral("displayName"), theme->displayName()},
                                 {QStringLiteral("builtin"), theme->isBuiltin()},
                                 {QStringLiteral("enabled"), theme->isEnabled()}});
        text +=
            QStringLiteral("%1\t%2\t%3\t%4\n")
                .arg(theme->identifier(), theme->displayName(),
                     theme->isBuiltin() ? QStringLiteral("built-in") : QStringLiteral("user"),
                     theme->isEnabled() ? QStringLiteral("enabled") : QStringLiteral("disabled"))
                .toUtf8();
    }
    HXCommandLineTool::writeOutput(
        rest.isEmpty() ? text : QJsonDocument(array).toJson(QJsonDocument::Indented));
    return 0;
}

// velmora-cli theme show ID [--dark]: the resolved look of one theme in one mode.
int HXThemeCommand(const QStringList &arguments) {
    static const QString usage = QStringLiteral("theme show ID [--dark]");
    if (arguments.value(0) != u"show")
        return HXCommandLineTool::fail(QStringLiteral("theme: expected %1").arg(usage));
    QStringList rest = arguments.mid(1);
    const bool dark = rest.removeAll(QStringLiteral("--dark")) > 0;
    for (const QString &argument : std::as_const(rest)) {
        if (argument.startsWith(u'-'))
            return HXCommandLineTool::fail(
                QStringLiteral("theme show: unknown option '%1'; expected %2")
                    .arg(argument, usage));
    }
    if (rest.size() != 1)
        return HXCommandLineTool::fail(QStringLiteral("theme show: expected %1").arg(usage));

    const auto store = HXThemeStore::create();
    const auto theme = store->themeWithIdentifier(rest.first());
    if (!theme)
        return HXCommandLineTool::fail(
            QStringLiteral("theme show: no theme '%1'; see velmora-cli themes list")
                .arg(rest.first()));
    const quint64 mode = dark ? HXColorModeDark : HXColorModeLight;
    const auto palette = theme->paletteForMode(mode);
    QByteArray text =
        QStringLiteral("background\t%1\nforeground\t%2\n")
            .arg(colorText(palette->backgroundColor()), colorText(palette->foregroundColor()))
            .toUtf8();
    for (quint64 scope = 0; scope < HXNumberOfScopes; ++scope)
        text += itemLine(QStringLiteral("scope:") + HXDefinition::nameForScope(scope),
                         *theme->defaultItemForScope(scope), mode);
    for (const HXDefinitionRef &definition :
         HXDefinition::availableDefinitionsForScopes(HXDefaultDefinitionSelector))
        text += itemLine(definition->identifier(), *theme->usedItemForDefinition(definition), mode);
    HXCommandLineTool::writeOutput(text);
    return 0;
}
