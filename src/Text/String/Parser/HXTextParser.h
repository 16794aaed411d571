#pragma once

#include <QList>
#include <QString>
#include <QStringList>

#include <memory>
#include <unicode/regex.h>
#include <utility>

class HXDefinition;

// The parser of text under a markup. It holds no state: all its operations are static, and every
// input is an argument. Here stands the pattern language in which tags are written: a pattern is
// literal text in which `\d`, `\r`, `\a` and `\w` stand for a decimal number, a roman numeral, a
// letter numeral and a word, `\\` for one backslash, and a backslash before any other character
// for that character. Reentrant; any thread.
class HXTextParser {
public:
    HXTextParser() = delete;

    // The expressions of the pattern language and the regular expressions they become, in the
    // order in which a pattern is scanned for them.
    static const QList<std::pair<QString, QString>> &patternReplacements();
    // The expressions offered to the user.
    static const QStringList &userPatternExpressions();
    static QChar escapeCharacter() { return QLatin1Char('\\'); }

    // Walks a pattern: calls block(literal, expression, stop) with the literal text before each
    // expression and the expression, and a last time with the rest and a null expression. No
    // pattern, no calls.
    template<typename F>
    static void enumeratePattern(const QString &pattern, F &&block);

    // The source of the regular expression of a pattern: literals escaped, each expression a
    // capture group, and behind it a blank after list markers, an optional blank after other
    // line-level markers.
    static QString regularExpressionStringForPattern(const QString &pattern,
                                                     const HXDefinition *definition);
    // The compiled expression, or nothing if it doesn't compile.
    static std::shared_ptr<const icu::RegexPattern>
    regularExpressionForPattern(const QString &pattern, const HXDefinition *definition);
    // The literal text of a pattern without expressions; a null string otherwise.
    static QString plainStringForPattern(const QString &pattern);
    // Backslash escaping of a literal for a regular expression.
    static QString escapedRegularExpressionString(const QString &literal);

private:
    // One step of the walk: the literal scanned up to the next expression and that expression
    // (null at the end). Returns false when the pattern is done.
    struct Walker;
};

struct HXTextParser::Walker {
    explicit Walker(const QString &walkedPattern)
        : pattern(walkedPattern) {}
    const QString &pattern;
    qsizetype position = 0;
    QString buffer;
    bool finished = false;
    // The next (literal, expression) pair; expression null for the last.
    bool next(QString *literal, QString *expression);
};

template<typename F>
void HXTextParser::enumeratePattern(const QString &pattern, F &&block) {
    if (pattern.isNull())
        return;
    Walker walker(pattern);
    QString literal, expression;
    while (walker.next(&literal, &expression)) {
        bool stop = false;
        block(literal, expression, stop);
        if (stop)
            return;
    }
}
