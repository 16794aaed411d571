#include "Text/String/Parser/HXPatternMatcher.h"

#include "Text/Markup/HXDefinition.h"
#include "Text/String/Parser/HXTextParser.h"

#include <unordered_map>

namespace {

// Matchers are costly to make and cheap to point at new text, so each thread keeps one for each
// expression it has used. The pool holds the expression too, so that its address isn't reused.
class MatcherPool {
public:
    struct Entry {
        std::shared_ptr<const icu::RegexPattern> expression;
        std::unique_ptr<icu::RegexMatcher> matcher;
        quint64 textSerial = 0; // the text the matcher was last pointed at
    };

    Entry *entry(const std::shared_ptr<const icu::RegexPattern> &expression) {
        auto found = m_entries.find(expression.get());
        if (found != m_entries.end())
            return &found->second;
        if (m_entries.size() > 512)
            m_entries.clear();
        UErrorCode status = U_ZERO_ERROR;
        std::unique_ptr<icu::RegexMatcher> matcher(expression->matcher(status));
        if (U_FAILURE(status))
            return nullptr;
        return &m_entries.emplace(expression.get(), Entry{expression, std::move(matcher), 0})
                    .first->second;
    }

private:
    std::unordered_map<const icu::RegexPattern *, Entry> m_entries;
};

MatcherPool &matcherPool() {
    thread_local MatcherPool pool;
    return pool;
}

quint64 &lastTextSerial() {
    thread_local quint64 serial = 0;
    return serial;
}

} // namespace

const icu::UnicodeString &HXPatternMatcher::Text::alias() const {
    if (!m_alias) {
        m_alias = std::make_unique<icu::UnicodeString>(
            false, reinterpret_cast<const UChar *>(m_text.utf16()), int32_t(m_text.size()));
        m_serial = ++lastTextSerial();
    }
    return *m_alias;
}

quint64 HXPatternMatcher::Text::serial() const {
    alias();
    return m_serial;
}

HXPatternMatcher HXPatternMatcher::forPattern(const QString &pattern,
                                              const HXDefinition *definition,
                                              std::shared_ptr<const icu::RegexPattern> expression) {
    HXPatternMatcher matcher;
    if (definition) {
        if (definition->groupingType() == HXGroupingList)
            matcher.m_blank = Blank::Required;
        else if (definition->scope() <= HXGroupingScope)
            matcher.m_blank = Blank::Optional;
    }
    const QString plain = HXTextParser::plainStringForPattern(pattern);
    if (!plain.isNull()) {
        matcher.m_kind = Kind::Literal;
        matcher.m_literal = plain;
        if (matcher.m_blank == Blank::Required)
            matcher.m_literal += QLatin1Char(' ');
        if (!matcher.m_literal.isEmpty()) {
            const char16_t first = matcher.m_literal.at(0).unicode();
            if (first < 128) {
                matcher.allowStart(first);
            } else {
                matcher.m_nonAsciiStarts = true;
                matcher.m_onlyNonAscii = first;
            }
        } else if (matcher.m_blank == Blank::Optional) {
            matcher.allowStart(u' ');
        }
        return matcher;
    }
    if (!expression)
        return matcher;
    matcher.m_kind = Kind::Expression;
    matcher.m_expression = std::move(expression);
    // What the first piece of the pattern lets a match begin with.
    HXTextParser::enumeratePattern(
        pattern, [&](const QString &literal, const QString &key, bool &stop) {
            stop = true;
            if (!literal.isEmpty()) {
                const char16_t first = literal.at(0).unicode();
                if (first < 128)
                    matcher.allowStart(first);
                else
                    matcher.m_nonAsciiStarts = true;
                return;
            }
            auto allowRange = [&](char16_t from, char16_t to) {
                for (char16_t unit = from; unit <= to; ++unit)
                    matcher.allowStart(unit);
            };
            if (key == u"\\d") {
                allowRange(u'0', u'9');
                matcher.m_nonAsciiStarts = true; // digits of other scripts
            } else if (key == u"\\r") {
                for (const char16_t unit : u"ivxlcdmIVXLCDM")
                    if (unit)
                        matcher.allowStart(unit);
            } else if (key == u"\\a") {
                allowRange(u'a', u'z');
                allowRange(u'A', u'Z');
            } else {
                // A word, or anything this walk doesn't know: any character may begin it.
                matcher.m_asciiStarts.set();
                matcher.m_nonAsciiStarts = true;
            }
        });
    return matcher;
}

HXPatternMatcher HXPatternMatcher::escape() {
    HXPatternMatcher matcher;
    matcher.m_kind = Kind::Escape;
    matcher.allowStart(u'\\');
    return matcher;
}

HXRange HXPatternMatcher::find(const Text &text, HXRange range, bool anchored) const {
    if (range.length == 0)
        return HXNotFoundRange();
    switch (m_kind) {
    case Kind::Literal:
        return findLiteral(text.view(), range, anchored);
    case Kind::Escape:
        return findEscape(text.view(), range, anchored);
    case Kind::Expression:
        return findExpression(text, range, anchored);
    case Kind::Nothing:
        break;
    }
    return HXNotFoundRange();
}

HXRange HXPatternMatcher::findLiteral(QStringView text, HXRange range, bool anchored) const {
    const QStringView searched = text.sliced(qsizetype(range.location), qsizetype(range.length));
    qsizetype at;
    if (m_literal.isEmpty()) {
        // Only the optional blank can match.
        if (m_blank != Blank::Optional)
            return HXNotFoundRange();
        at = anchored ? (searched.front() == u' ' ? 0 : -1) : searched.indexOf(u' ');
        return at < 0 ? HXNotFoundRange() : HXRange{range.location + quint64(at), 1};
    }
    if (anchored)
        at = searched.startsWith(m_literal) ? 0 : -1;
    else
        at = searched.indexOf(m_literal);
    if (at < 0)
        return HXNotFoundRange();
    qsizetype length = m_literal.size();
    if (m_blank == Blank::Optional && at + length < searched.size() &&
        searched.at(at + length) == u' ')
        ++length;
    return HXRange{range.location + quint64(at), quint64(length)};
}

HXRange HXPatternMatcher::findEscape(QStringView text, HXRange range, bool anchored) const {
    const quint64 end = range.max();
    quint64 at = range.location;
    for (;;) {
        if (!anchored) {
            const qsizetype found = text.sliced(qsizetype(at), qsizetype(end - at)).indexOf(u'\\');
            if (found < 0)
                return HXNotFoundRange();
            at += quint64(found);
        } else if (text.at(qsizetype(at)) != u'\\') {
            return HXNotFoundRange();
        }
        if (at + 1 >= end)
            return HXNotFoundRange();
        const QChar next = text.at(qsizetype(at + 1));
        if (next != u'\n') {
            // One character: a surrogate pair is one.
            const bool pair = next.isHighSurrogate() && at + 2 < end &&
                              text.at(qsizetype(at + 2)).isLowSurrogate();
            return HXRange{at, pair ? 3u : 2u};
        }
        if (anchored)
            return HXNotFoundRange();
        at += 1;
    }
}

quint64 HXPatternMatcher::nextPossibleStart(QStringView text, quint64 from, quint64 end) const {
    const char16_t *units = text.utf16();
    while (from < end && !mayStartWith(units[from]))
        ++from;
    return from;
}

HXRange HXPatternMatcher::findExpression(const Text &text, HXRange range, bool anchored) const {
    const quint64 end = range.max();
    const quint64 start =
        anchored ? range.location : nextPossibleStart(text.view(), range.location, end);
    if (start >= end || !mayStartWith(text.view().at(qsizetype(start)).unicode()))
        return HXNotFoundRange();
    MatcherPool::Entry *entry = matcherPool().entry(m_expression);
    if (!entry)
        return HXNotFoundRange();
    icu::RegexMatcher *matcher = entry->matcher.get();
    UErrorCode status = U_ZERO_ERROR;
    if (entry->textSerial != text.serial()) {
        matcher->reset(text.alias());
        entry->textSerial = text.serial();
    }
    matcher->region(int64_t(start), int64_t(end), status);
    if (U_FAILURE(status))
        return HXNotFoundRange();
    if (anchored) {
        if (matcher->lookingAt(status) && U_SUCCESS(status)) {
            const int32_t from = matcher->start(status), to = matcher->end(status);
            if (to > from)
                return HXRange{quint64(from), quint64(to - from)};
        }
        return HXNotFoundRange();
    }
    while (matcher->find(status) && U_SUCCESS(status)) {
        const int32_t from = matcher->start(status), to = matcher->end(status);
        if (to > from)
            return HXRange{quint64(from), quint64(to - from)};
    }
    return HXNotFoundRange();
}
