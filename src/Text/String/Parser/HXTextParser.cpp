#include "Text/String/Parser/HXTextParser.h"

#include "Text/Markup/HXDefinition.h"

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
    static const QStringList expressions{QStringLiteral("\\d"), QStringLiteral("\\r"),
                                         QStringLiteral("\\a")};
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
