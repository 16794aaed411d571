#include "Cli/HXCommandLineTool.h"
#include "Text/Markup/HXMarkup.h"
#include "Text/String/Access/HXMutableString.h"
#include "TextSystem/Components/HXParagraphLayout.h"
#include "TextSystem/Components/HXTextStorage.h"
#include "TextSystem/Components/HXTypesetter.h"
#include "TextSystem/Themes/HXThemeStore.h"
#include "Utilities/HXLineEnds.h"

#include <QFontDatabase>
#include <QFontMetricsF>
#include <QStringDecoder>

#include <cmath>

namespace {

// A number above 0 of the option; nothing after a line on standard error.
std::optional<qreal> positiveNumber(const QString &name, const QString &value, const QString &unit,
                                    int *status) {
    bool ok = false;
    const qreal number = value.toDouble(&ok);
    if (!ok || !std::isfinite(number) || number <= 0) {
        *status = HXCommandLineTool::fail(
            QStringLiteral("%1: expected a number of %2 above 0, not '%3'").arg(name, unit, value));
        return std::nullopt;
    }
    return number;
}

// At most two decimals, and no negative zero.
QString jsonNumber(qreal value) {
    const double rounded = std::round(value * 100) / 100;
    return QString::number(rounded == 0 ? 0.0 : rounded, 'g', 15);
}

} // namespace

// velmora-cli layout --width PIXELS [--font FAMILY --size POINTS] [--markup M] [FILE]
int HXLayoutCommand(const QStringList &arguments) {
    const QString usage =
        QStringLiteral("layout --width PIXELS [--font FAMILY --size POINTS] [--markup M] [FILE]");
    QStringList rest = arguments;
    QString widthText, family, sizeText, markupName = QStringLiteral("markdownqr");
    int status = 0;
    if (!HXCommandLineTool::takeOption(rest, QStringLiteral("--width"), &widthText, &status) ||
        !HXCommandLineTool::takeOption(rest, QStringLiteral("--font"), &family, &status) ||
        !HXCommandLineTool::takeOption(rest, QStringLiteral("--size"), &sizeText, &status) ||
        !HXCommandLineTool::takeOption(rest, QStringLiteral("--markup"), &markupName, &status))
        return status;
    for (const QString &argument : std::as_const(rest)) {
        if (argument.startsWith(u'-') && argument != u"-")
            return HXCommandLineTool::fail(
                QStringLiteral("unknown option '%1'; expected %2").arg(argument, usage));
    }
    if (rest.size() > 1)
        return HXCommandLineTool::fail(QStringLiteral("expected at most one file; %1").arg(usage));
    if (widthText.isNull())
        return HXCommandLineTool::fail(QStringLiteral("expected %1").arg(usage));
    const std::optional<qreal> width =
        positiveNumber(QStringLiteral("--width"), widthText, QStringLiteral("pixels"), &status);
    if (!width)
        return status;
    if (!family.isNull() && sizeText.isNull())
        return HXCommandLineTool::fail(QStringLiteral("--font needs --size"));
    std::optional<qreal> size = 12;
    if (!sizeText.isNull()) {
        size =
            positiveNumber(QStringLiteral("--size"), sizeText, QStringLiteral("points"), &status);
        if (!size)
            return status;
    }
    if (family.isNull())
        family = QStringLiteral("DejaVu Sans");
    // Asked before a font is made: a missing family would be replaced without a word.
    if (!QFontDatabase::families().contains(family, Qt::CaseInsensitive))
        return HXCommandLineTool::fail(QStringLiteral("--font: no font family '%1'").arg(family));

    QString failure;
    const auto markup = HXCommandLineTool::markupNamed(markupName, &failure);
    if (!markup)
        return HXCommandLineTool::fail(failure);
    const QString path = rest.isEmpty() ? QStringLiteral("-") : rest.first();
    QByteArray bytes;
    if (!HXCommandLineTool::readInput(path, &bytes, &failure))
        return HXCommandLineTool::fail(failure);
    QStringDecoder decoder(QStringConverter::Utf8, QStringConverter::Flag::Stateless);
    const QString decoded = decoder.decode(bytes);
    if (decoder.hasError())
        return HXCommandLineTool::fail(
            QStringLiteral("%1: not UTF-8 text")
                .arg(path == u"-" ? QStringLiteral("standard input") : path));
    const auto content = HXMutableString::stringWithMarkup(markup);
    content->setString(HXStringByNormalizingLineEnds(decoded));

    QFont font(family);
    font.setPointSizeF(*size);
    HXTypesetter typesetter;
    typesetter.setBaseFont(font);
    typesetter.setOutdentTags(true);
    typesetter.setLineHeightMultiple(1);
    typesetter.setParagraphSpacing(0);
    typesetter.setFirstLineIndent(0);
    typesetter.updateMetrics();
    // The text is styled as the editor styles it, under the current theme: strong text is bold,
    // and a tag is as wide as its styled characters.
    auto storage = std::make_shared<HXTextStorage>();
    storage->setFont(font);
    storage->setTheme(HXThemeStore::sharedStore()->currentTheme());
    storage->setContent(content);
    const HXString &string = *storage->cachedContent();
    const HXTypesetter::TagMeasuringFunction measure = [&](const QString &tagText, quint64 index) {
        return QFontMetricsF(storage->attributesAtIndex(index).font()).horizontalAdvance(tagText);
    };

    QByteArray output;
    quint64 location = 0;
    qreal top = 0;
    qsizetype number = 0;
    const QList<HXParagraphRef> paragraphs = string.paragraphs();
    for (const HXParagraphRef &paragraph : paragraphs) {
        HXParagraphLayout layout;
        const HXRange range{location, paragraph->length()};
        layout.layoutParagraph(typesetter, string, range, *width, top,
                               storage->formatRangesForParagraphAtIndex(location), measure);
        for (const HXLineFragment &fragment : layout.lineFragments()) {
            output +=
                QStringLiteral("{\"paragraph\":%1,\"location\":%2,\"length\":%3,\"x\":%4,"
                               "\"y\":%5,\"width\":%6,\"height\":%7}\n")
                    .arg(number)
                    .arg(location + fragment.range.location)
                    .arg(fragment.range.length)
                    .arg(jsonNumber(fragment.rect.x()), jsonNumber(fragment.rect.y()),
                         jsonNumber(fragment.rect.width()), jsonNumber(fragment.rect.height()))
                    .toUtf8();
        }
        top += layout.height();
        location += paragraph->length();
        ++number;
    }
    HXCommandLineTool::writeOutput(output);
    return 0;
}
