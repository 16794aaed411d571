#pragma once

#include "Text/Markup/HXDefinition.h"
#include "Text/Markup/HXTextTag.h"
#include "Text/String/Parser/HXPatternMatcher.h"
#include "Text/String/Parser/HXTextParser.h"

#include <array>
#include <bitset>

#include <QVarLengthArray>
#include <memory>
#include <vector>

class HXMarkup;

// What the parser derives from a markup's tags for one definition selector, so that a paragraph
// costs no more than its own text: the candidates of the line-level prefix and of the inline
// parse, each with the matchers of its patterns, and the tags that may not be matched in parsed
// text and in text inside a tag that allows no parsing. Made on first use; the markup keeps it
// until its tags change, and a parse holds it while it runs. Immutable; any thread.
class HXParseTables {
public:
    // A tag that may match, or the escape when it has no tag.
    struct Candidate {
        HXTextTagRef tag;
        HXPatternMatcher start; // the first pattern, or the escape's
        HXPatternMatcher end;   // the second pattern, for tags of an inline span
        quint64 scope = 0;
    };

    static std::shared_ptr<const HXParseTables> make(const HXMarkup &markup,
                                                     HXDefinitionSelector selector);
    // The candidates of the tags, in order, and then the escape.
    static std::vector<Candidate> candidatesForTags(const QList<HXTextTagRef> &tags);

    // The tags of the selector's definitions, then the escape: what may begin a paragraph.
    std::vector<Candidate> lineCandidates;
    // The line candidates that may match where the code unit stands (any beyond ASCII under
    // 128), in their order.
    std::array<std::vector<const Candidate *>, 129> lineCandidatesByFirstUnit;
    const std::vector<const Candidate *> &lineCandidatesAt(char16_t unit) const {
        return lineCandidatesByFirstUnit[unit < 128 ? unit : 128];
    }
    // Where in a text an inline candidate may begin to match: the first place at or behind
    // `from` whose code unit one of them may begin with, or `end`.
    quint64 firstPossibleInlineStart(QStringView text, quint64 from, quint64 end) const;
    // The tags of the inline scopes, then the escape; a parse leaves out those forbidden.
    std::vector<Candidate> inlineCandidates;
    // The tags of the markup that the selector doesn't select.
    HXTextParser::TagSet forbidden;
    // Every tag of the markup and the escape: what text that allows no parsing forbids.
    HXTextParser::TagSet forbiddenInCode;
    // The markup these tables are for, to tell whether an element shares it.
    const HXMarkup *markup = nullptr;

private:
    // The code units inline candidates may begin with: ASCII ones, and beyond it either any or
    // the few literals begin with.
    std::bitset<128> m_inlineAsciiStarts;
    bool m_anyNonAsciiInlineStart = false;
    QVarLengthArray<char16_t, 4> m_nonAsciiInlineStarts;
};
