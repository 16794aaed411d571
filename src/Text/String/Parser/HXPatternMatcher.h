#pragma once

#include "Utilities/HXRange.h"

#include <QString>
#include <QStringView>

#include <bitset>
#include <memory>
#include <unicode/regex.h>
#include <unicode/unistr.h>

class HXDefinition;

// Finds the matches of one pattern of a tag, exactly as its regular expression would, but
// without asking the expression where it can't match: a pattern of literal text is searched as
// text, and an expression runs only from a place where a character it can start with stands.
// Most text holds few such places, so most searches never reach the expression engine. Also the
// matcher of the escape, a backslash with one character but a line feed. A value; copies share
// the compiled expression. Any thread.
class HXPatternMatcher {
public:
    // The text searched, with the form the expression engine reads, made when first needed.
    // It refers to the string, which must outlive it.
    class Text {
    public:
        explicit Text(QStringView text)
            : m_text(text) {}
        QStringView view() const { return m_text; }
        const icu::UnicodeString &alias() const;
        quint64 serial() const;

    private:
        QStringView m_text;
        mutable std::unique_ptr<icu::UnicodeString> m_alias;
        mutable quint64 m_serial = 0;
    };

    // Matches nothing.
    HXPatternMatcher() = default;
    // The matcher of a tag's pattern, whose expression is given compiled (nothing if it didn't
    // compile); the definition decides the blank behind line-level tags.
    static HXPatternMatcher forPattern(const QString &pattern, const HXDefinition *definition,
                                       std::shared_ptr<const icu::RegexPattern> expression);
    static HXPatternMatcher escape();

    // The first match of at least one character that lies in the range, or, anchored, the one
    // at its start; not-found otherwise.
    HXRange find(const Text &text, HXRange range, bool anchored) const;
    // Whether a match may begin with the code unit.
    bool mayStartWith(char16_t unit) const {
        return unit < 128 ? m_asciiStarts.test(unit)
                          : m_nonAsciiStarts && (!m_onlyNonAscii || unit == m_onlyNonAscii);
    }
    // Whether a match may begin with one of the units a text holds: the ASCII ones in the set,
    // and some beyond ASCII where `nonAscii` says so.
    bool mayStartIn(const std::bitset<128> &ascii, bool nonAscii) const {
        return (m_asciiStarts & ascii).any() || (nonAscii && m_nonAsciiStarts);
    }
    // The one code unit beyond ASCII a match may begin with, when there is only one; 0 when a
    // match can begin with any such unit or none.
    char16_t onlyNonAsciiStart() const { return m_nonAsciiStarts ? m_onlyNonAscii : 0; }

private:
    enum class Kind : quint8 { Nothing, Literal, Expression, Escape };
    // The blank behind the literal of a line-level tag.
    enum class Blank : quint8 { None, Optional, Required };

    HXRange findLiteral(QStringView text, HXRange range, bool anchored) const;
    HXRange findEscape(QStringView text, HXRange range, bool anchored) const;
    HXRange findExpression(const Text &text, HXRange range, bool anchored) const;
    // The first place in the range where a match may begin, or the range's end.
    quint64 nextPossibleStart(QStringView text, quint64 from, quint64 end) const;
    void allowStart(char16_t unit) { m_asciiStarts.set(unit); }

    Kind m_kind = Kind::Nothing;
    Blank m_blank = Blank::None;
    bool m_nonAsciiStarts = false;
    char16_t m_onlyNonAscii = 0; // the one unit beyond ASCII, for a literal
    std::bitset<128> m_asciiStarts;
    QString m_literal;
    std::shared_ptr<const icu::RegexPattern> m_expression;
};
