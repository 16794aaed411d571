#include "Text/String/Parser/HXTextParser.h"

#include "Text/Markup/HXDefinition.h"
#include "Text/Markup/HXTextTag.h"
#include "Text/String/Nodes/HXParagraph.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXLocalizedString.h"

#include <unicode/unistr.h>

const QList<std::pair<QString, QString>> &HXTextParser::patternReplacements() {
    static const QList<std::pair<QString, QString>> replacements{
        {QStringLiteral("\\d"), QStringLiteral("\\d{1,50}")},
        {QStringLiteral("\\r"), QStringLiteral("[ivxlcdmIVXLCDM]{1,50}")},
        {QStringLiteral("\\a"), QStringLiteral("[a-zA-Z]{1,50}")},
        {QStringLiteral("\\w"), QStringLiteral("\\w{1,50}")},
    };
    return replacements;
}

const QStringList &HXTextParser::userPatternExpressions() {
    static const QStringList expressions = [] {
        const QStringList offered{QStringLiteral("\\d"), QStringLiteral("\\r"),
                                  QStringLiteral("\\a")};
        for (const QString &expression : offered) {
            const bool known = std::any_of(
                patternReplacements().begin(), patternReplacements().end(),
                [&](const auto &replacement) { return replacement.first == expression; });
            HX_ASSERT(known, u"Expression \"%@\" seems to be gone!", expression);
        }
        return offered;
    }();
    return expressions;
}

// Expressions found one after another at a backslash are delivered in turn, each with the literal
// gathered before it (empty for all but the first). A backslash that starts no expression is
// dropped, except that two of them stand for one.
bool HXTextParser::Walker::next(QString *literal, QString *expression) {
    if (finished)
        return false;
    const QChar backslash = HXTextParser::escapeCharacter();
    for (;;) {
        const qsizetype found = pattern.indexOf(backslash, position);
        const qsizetype end = found < 0 ? pattern.size() : found;
        buffer += QStringView(pattern).mid(position, end - position);
        position = end;
        if (found < 0) {
            *literal = buffer;
            *expression = QString();
            buffer.clear();
            finished = true;
            return true;
        }
        for (const auto &[key, replacement] : HXTextParser::patternReplacements()) {
            Q_UNUSED(replacement);
            if (QStringView(pattern).mid(position).startsWith(key)) {
                position += key.size();
                *literal = buffer;
                *expression = key;
                buffer.clear();
                return true;
            }
        }
        if (QStringView(pattern).mid(position).startsWith(QStringLiteral("\\\\"))) {
            buffer += backslash;
            position += 2;
        } else {
            position += 1;
        }
    }
}

QString HXTextParser::escapedRegularExpressionString(const QString &literal) {
    static const QString special = QStringLiteral("\\*?+[](){}^$|./");
    QString escaped;
    escaped.reserve(literal.size() * 2);
    for (const QChar c : literal) {
        if (special.contains(c))
            escaped += QLatin1Char('\\');
        escaped += c;
    }
    return escaped;
}

QString HXTextParser::regularExpressionStringForPattern(const QString &pattern,
                                                        const HXDefinition *definition) {
    QString expression;
    enumeratePattern(pattern, [&](const QString &literal, const QString &key, bool &) {
        expression += escapedRegularExpressionString(literal);
        if (key.isNull())
            return;
        for (const auto &[name, replacement] : patternReplacements()) {
            if (name == key)
                expression += QLatin1Char('(') + replacement + QLatin1Char(')');
        }
    });
    if (definition) {
        if (definition->groupingType() == HXGroupingList)
            expression += QLatin1Char(' ');
        else if (definition->scope() <= HXGroupingScope)
            expression += QStringLiteral(" ?");
    }
    return expression;
}

std::shared_ptr<const icu::RegexPattern>
HXTextParser::regularExpressionForPattern(const QString &pattern, const HXDefinition *definition) {
    const QString source = regularExpressionStringForPattern(pattern, definition);
    UErrorCode status = U_ZERO_ERROR;
    UParseError parseError;
    const icu::UnicodeString text(reinterpret_cast<const UChar *>(source.utf16()),
                                  int32_t(source.size()));
    std::shared_ptr<const icu::RegexPattern> compiled(
        icu::RegexPattern::compile(text, 0, parseError, status));
    if (U_FAILURE(status))
        return nullptr;
    return compiled;
}

QString HXTextParser::plainStringForPattern(const QString &pattern) {
    QString plain;
    enumeratePattern(pattern, [&](const QString &literal, const QString &expression, bool &stop) {
        if (expression.isNull())
            plain = literal.isNull() ? QStringLiteral("") : literal;
        stop = true;
    });
    return plain;
}

// --- Text of tags ---------------------------------------------------------------------------

namespace {

icu::UnicodeString aliasOf(const QString &string) {
    return icu::UnicodeString(false, reinterpret_cast<const UChar *>(string.utf16()),
                              int32_t(string.size()));
}

// Matches the expression at the start of the text; the matched length, or -1. The capture groups'
// ranges go to `groups`, shifted by `offset`.
qsizetype matchAnchored(const icu::RegexPattern &expression, const QString &text, quint64 offset,
                        QList<HXRange> *groups) {
    UErrorCode status = U_ZERO_ERROR;
    const icu::UnicodeString alias = aliasOf(text);
    std::unique_ptr<icu::RegexMatcher> matcher(expression.matcher(alias, status));
    if (U_FAILURE(status) || !matcher->lookingAt(status) || U_FAILURE(status))
        return -1;
    if (groups) {
        groups->clear();
        for (int32_t group = 1; group <= matcher->groupCount(); ++group) {
            const int32_t start = matcher->start(group, status);
            const int32_t end = matcher->end(group, status);
            if (start >= 0)
                groups->append(HXRange{quint64(start) + offset, quint64(end - start)});
        }
    }
    return matcher->end(status);
}

} // namespace

QString HXTextParser::patternForPart(qsizetype part, const HXTextTag *tag) {
    if (!tag)
        return QStringLiteral("\t");
    const QStringList patterns = tag->patterns();
    return part >= 0 && part < patterns.size() ? patterns.at(part) : QString();
}

QString HXTextParser::stringMatchingPart(qsizetype part, const HXTextTag *tag,
                                         const QString &string,
                                         const std::function<quint64()> &indexProvider,
                                         QList<HXRange> *expressionRanges) {
    if (expressionRanges)
        expressionRanges->clear();
    if (!tag)
        return string.isNull() ? QStringLiteral("\t") : string;

    QString lead;
    bool trailing = false;
    if (tag->definition()->scope() <= HXGroupingScope) {
        qsizetype blanks = 0;
        while (blanks < 3 && blanks < string.size() && string.at(blanks) == QLatin1Char(' '))
            ++blanks;
        lead = string.left(blanks);
        trailing = string.isNull() || string.endsWith(QLatin1Char(' '));
    }
    const QString pattern = patternForPart(part, tag);
    if (pattern.isNull())
        return QString();
    const QString tail = trailing ? QStringLiteral(" ") : QString();
    const QString plain = tag->plainStrings().value(part);
    if (!plain.isNull())
        return lead.isEmpty() && tail.isEmpty() ? plain : lead + plain + tail; // shares the text

    if (!string.isNull()) {
        const QString behindLead = string.mid(lead.size());
        if (const auto expression = tag->matchingExpression(part)) {
            if (matchAnchored(*expression, behindLead, quint64(lead.size()), expressionRanges) ==
                behindLead.size())
                return string;
        }
        if (expressionRanges)
            expressionRanges->clear();
    }
    const quint64 index = indexProvider ? indexProvider() : 1;
    const QString generated = stringMatchingPattern(pattern, index, expressionRanges);
    if (generated.isNull())
        return QString();
    if (expressionRanges) {
        for (HXRange &range : *expressionRanges)
            range.location += quint64(lead.size());
    }
    return lead + generated + tail;
}

QString HXTextParser::stringMatchingPattern(const QString &pattern, quint64 index,
                                            QList<HXRange> *expressionRanges) {
    QString result = QStringLiteral("");
    QList<HXRange> ranges;
    bool possible = true;
    enumeratePattern(pattern, [&](const QString &literal, const QString &expression, bool &stop) {
        result += literal;
        if (expression.isNull())
            return;
        QString number;
        if (expression == QLatin1String("\\d"))
            number = QString::number(index);
        else if (expression == QLatin1String("\\r"))
            number = romanNumeral(index);
        else if (expression == QLatin1String("\\a"))
            number = letterNumeral(index);
        else {
            possible = false;
            stop = true;
            return;
        }
        ranges.append(HXRange{quint64(result.size()), quint64(number.size())});
        result += number;
    });
    if (!possible)
        return QString();
    if (expressionRanges)
        *expressionRanges = ranges;
    return result;
}

QString HXTextParser::romanNumeral(quint64 number) {
    if (number == 0)
        return QStringLiteral("0");
    static const std::pair<quint64, const char *> table[] = {
        {1000, "m"}, {900, "cm"}, {500, "d"}, {400, "cd"}, {100, "c"}, {90, "xc"}, {50, "l"},
        {40, "xl"},  {10, "x"},   {9, "ix"},  {5, "v"},    {4, "iv"},  {1, "i"}};
    QString result;
    for (const auto &[value, letters] : table) {
        while (number >= value) {
            result += QLatin1String(letters);
            number -= value;
        }
    }
    return result;
}

QString HXTextParser::letterNumeral(quint64 number) {
    if (number == 0)
        return QStringLiteral("0");
    QString result;
    quint64 previous;
    do {
        result.prepend(QChar(u'a' + char16_t((number - 1) % 26)));
        previous = number;
        number /= 26;
    } while (previous > 25);
    return result;
}

qint64 HXTextParser::numberForRomanNumeral(const QString &string) {
    const QString numeral = string.trimmed().toLower();
    qint64 total = 0, group = 0, previous = 0;
    for (const QChar c : numeral) {
        qint64 value;
        switch (c.unicode()) {
        case u'i':
            value = 1;
            break;
        case u'v':
            value = 5;
            break;
        case u'x':
            value = 10;
            break;
        case u'l':
            value = 50;
            break;
        case u'c':
            value = 100;
            break;
        case u'd':
            value = 500;
            break;
        case u'm':
            value = 1000;
            break;
        default:
            return -1;
        }
        if (value > previous) {
            group = value - group;
        } else if (value == previous) {
            group += value;
        } else {
            total += group;
            group = value;
        }
        previous = value;
    }
    total += group;
    return total > 0 ? total : -1;
}

qint64 HXTextParser::numberForLetterNumeral(const QString &string) {
    const QString numeral = string.trimmed();
    if (numeral.isEmpty())
        return -1;
    const char16_t first = numeral.at(0).unicode();
    return first >= u'a' && first <= u'z' ? qint64(first - u'a') + 1 : -1;
}

qint64 HXTextParser::enumerationIndexForString(const QString &string, const QString &pattern) {
    if (string.isNull() || pattern.isNull())
        return 0;
    QString source = QStringLiteral(".*?");
    QString first;
    enumeratePattern(pattern, [&](const QString &, const QString &expression, bool &) {
        if (expression.isNull())
            return;
        if (first.isNull())
            first = expression;
        for (const auto &[name, replacement] : patternReplacements()) {
            if (name == expression)
                source += QLatin1Char('(') + replacement + QStringLiteral(").*?");
        }
    });
    if (first.isNull() || first == QLatin1String("\\w"))
        return 0;
    UErrorCode status = U_ZERO_ERROR;
    UParseError parseError;
    std::unique_ptr<icu::RegexPattern> expression(
        icu::RegexPattern::compile(aliasOf(source), 0, parseError, status));
    if (U_FAILURE(status))
        return 0;
    QList<HXRange> groups;
    if (matchAnchored(*expression, string, 0, &groups) < 0 || groups.isEmpty())
        return 0;
    const QString number =
        string.mid(qsizetype(groups.first().location), qsizetype(groups.first().length));
    if (first == QLatin1String("\\d"))
        return number.toLongLong();
    if (first == QLatin1String("\\r"))
        return numberForRomanNumeral(number);
    if (first == QLatin1String("\\a"))
        return numberForLetterNumeral(number);
    HX_ASSERT(false, u"Reverse-coding numerals not yet supported.");
    return 0;
}

// --- The pattern editor ---------------------------------------------------------------------

QStringList HXTextParser::stringsAndExpressionsFromPattern(const QString &pattern) {
    QStringList result;
    enumeratePattern(pattern, [&](const QString &literal, const QString &expression, bool &) {
        if (!expression.isNull()) {
            result.append(literal.isNull() ? QStringLiteral("") : literal);
            result.append(expression);
        } else if (!literal.isEmpty()) {
            result.append(literal);
        }
    });
    return result;
}

QString HXTextParser::patternWithStringsAndExpressions(const QStringList &stringsAndExpressions) {
    QString pattern = QStringLiteral("");
    for (qsizetype i = 0; i < stringsAndExpressions.size(); ++i) {
        if (i % 2 == 0)
            pattern += QString(stringsAndExpressions.at(i))
                           .replace(escapeCharacter(), QStringLiteral("\\\\"));
        else
            pattern += stringsAndExpressions.at(i);
    }
    return pattern;
}

QString HXTextParser::displayStringForPatternExpression(const QString &expression) {
    return HXLocalizedString(expression, QStringLiteral("HXTextParser"));
}

QString HXTextParser::shortDisplayStringForPatternExpression(const QString &expression) {
    return HXLocalizedString(expression + QStringLiteral("_short"), QStringLiteral("HXTextParser"));
}
