#pragma once

#include "Text/Markup/HXDefinition.h"
#include "Text/String/Implementation/HXChunk.h"
#include "Utilities/HXRange.h"
#include "Utilities/HXRef.h"

#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>
#include <QVarLengthArray>

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <unicode/regex.h>
#include <utility>

class HXChunk;
class HXChunkString;
class HXDefinition;
class HXMarkup;
class HXParagraph;
class HXTextElement;
class HXTextTag;

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
    // The code units of an escape that stand before the escaped character.
    static constexpr quint64 escapingSequenceLength = 1;

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

    // The pattern of part 0 or 1 of a tag, null where it has none; a tab for the null marker,
    // which stands for one level of indentation.
    static QString patternForPart(qsizetype part, const HXTextTag *tag);
    // The text of a part of a tag. The present text (null for none) stays where it still fits
    // the pattern; otherwise text is made for the number the provider gives (1 without one),
    // keeping the lead blanks and the trailing blank of a line-level tag. Null when no text can be
    // made. The ranges of the numbers in the result go to `expressionRanges` if asked for.
    static QString stringMatchingPart(qsizetype part, const HXTextTag *tag, const QString &string,
                                      const std::function<quint64()> &indexProvider,
                                      QList<HXRange> *expressionRanges = nullptr);
    // The text of a pattern for a number; null if the pattern has a word in it.
    static QString stringMatchingPattern(const QString &pattern, quint64 index,
                                         QList<HXRange> *expressionRanges = nullptr);
    // The number written in a tag's text by a pattern: 0 when the pattern has no number or the
    // text doesn't fit it, -1 for a numeral that doesn't read back.
    static qint64 enumerationIndexForString(const QString &string, const QString &pattern);
    // Lowercase numerals; 0 is "0" in both. Letter numerals run a to y, az, aa, ab, and so on.
    static QString romanNumeral(quint64 number);
    static QString letterNumeral(quint64 number);
    // The pattern editor's form of a pattern: literals and expressions alternating, a literal
    // (empty if there is none) before each expression, and a last literal if it isn't empty.
    static QStringList stringsAndExpressionsFromPattern(const QString &pattern);
    // The reverse: even entries are literals, whose backslashes are doubled.
    static QString patternWithStringsAndExpressions(const QStringList &stringsAndExpressions);
    // The user's labels of the expressions `\d`, `\r` and `\a`.
    static QString displayStringForPatternExpression(const QString &expression);
    static QString shortDisplayStringForPatternExpression(const QString &expression);
    // Reading numerals back: -1 for anything that isn't one. A letter numeral reads its first
    // letter only, so it is no inverse beyond z.
    static qint64 numberForRomanNumeral(const QString &string);
    static qint64 numberForLetterNumeral(const QString &string);

    // --- Parsing -------------------------------------------------------------------------------
    // The null marker, a null tag, stands for the escape in a list or set of tags: a set with it
    // matches escapes, a forbidden set with it turns them off.
    using TagList = QList<std::shared_ptr<HXTextTag>>;
    // A set of tags as the parse needs it: a few, told apart by identity.
    class TagSet {
    public:
        bool contains(const HXTextTag *tag) const {
            return std::find(m_tags.cbegin(), m_tags.cend(), tag) != m_tags.cend();
        }
        void insert(const HXTextTag *tag) {
            if (!contains(tag))
                m_tags.append(tag);
        }

    private:
        QVarLengthArray<const HXTextTag *, 40> m_tags;
    };

    // Parses a paragraph anew after its characters changed, in place: the paragraph keeps its
    // identity, bookmark and place. The outputs are the ranges of changed characters and changed
    // structure, in the old paragraph; either may be left out, and what nobody asks for is not
    // worked out.
    static void reparseParagraph(HXParagraph &paragraph, HXRange *changedText = nullptr,
                                 HXRange *changedStructure = nullptr);
    // The line-level prefix of a paragraph: groupings outermost first (the null marker for a
    // level of indentation), the paragraph's tag, their texts, and the length they take.
    static void parseGroupings(TagList *groupings, std::shared_ptr<HXTextTag> *tag,
                               QStringList *strings, quint64 *consumedLength,
                               const HXParagraph &paragraph);
    // The range, in old coordinates, from the first to the last chunk whose structure differs.
    static HXRange compareString(const HXChunkString &oldString, const HXChunkString &newString);
    // The range, in old coordinates, of changed characters, widened to whole composed
    // characters; not-found when either is empty or one is a prefix of the other.
    static HXRange compareFlatString(const QString &oldString, const QString &newString);

    // Text that reads as itself under the tags: plain pieces, with an escape in front of each
    // character that would start a tag. Anchored, the text starts a paragraph, so line-level
    // tags count where only white space lies before them.
    static QList<HXChunk> escapedStringsForString(const QString &string, const TagList &tags,
                                                  bool anchored);
    // The candidates that are valid inside the tag, or below the groupings when no tag is given:
    // nothing inside a tag that allows no parsing, grouping tags only where another grouping may
    // follow, and the rest as the selector says. The null marker always stays.
    static TagList tagsByFilteringTags(const TagList &tags, const std::shared_ptr<HXTextTag> &tag,
                                       const TagList &groupingTags,
                                       HXDefinitionSelector scopeSelector);

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
