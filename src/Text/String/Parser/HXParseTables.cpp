#include "Text/String/Parser/HXParseTables.h"

#include "Text/Markup/HXMarkup.h"

std::vector<HXParseTables::Candidate>
HXParseTables::candidatesForTags(const QList<HXTextTagRef> &tags) {
    std::vector<Candidate> candidates;
    candidates.reserve(size_t(tags.size()) + 1);
    for (const HXTextTagRef &tag : tags) {
        if (!tag) {
            candidates.push_back(Candidate{nullptr, HXPatternMatcher::escape(), {}, 0});
            continue;
        }
        Candidate candidate{tag, {}, {}, tag->definition()->scope()};
        const QStringList patterns = tag->patterns();
        const HXDefinition *definition = tag->definition().get();
        if (!patterns.isEmpty())
            candidate.start = HXPatternMatcher::forPattern(patterns.at(0), definition,
                                                           tag->matchingExpression(0));
        if (patterns.size() > 1)
            candidate.end = HXPatternMatcher::forPattern(patterns.at(1), definition,
                                                         tag->matchingExpression(1));
        candidates.push_back(std::move(candidate));
    }
    return candidates;
}

std::shared_ptr<const HXParseTables> HXParseTables::make(const HXMarkup &markup,
                                                         HXDefinitionSelector selector) {
    auto tables = std::make_shared<HXParseTables>();
    tables->markup = &markup;
    QList<HXTextTagRef> line = markup.tagsForSelector(selector);
    line.append(nullptr);
    tables->lineCandidates = candidatesForTags(line);
    for (const Candidate &candidate : tables->lineCandidates) {
        for (char16_t unit = 0; unit <= 128; ++unit) {
            if (candidate.start.mayStartWith(unit))
                tables->lineCandidatesByFirstUnit[unit].push_back(&candidate);
        }
    }
    QList<HXTextTagRef> inlineTags = markup.tagsForSelector(56);
    inlineTags.append(nullptr);
    tables->inlineCandidates = candidatesForTags(inlineTags);
    for (const Candidate &candidate : tables->inlineCandidates) {
        for (char16_t unit = 0; unit < 128; ++unit) {
            if (candidate.start.mayStartWith(unit))
                tables->m_inlineAsciiStarts.set(unit);
        }
        if (const char16_t only = candidate.start.onlyNonAsciiStart()) {
            if (!tables->m_nonAsciiInlineStarts.contains(only))
                tables->m_nonAsciiInlineStarts.append(only);
        } else if (candidate.start.mayStartWith(0x80)) {
            tables->m_anyNonAsciiInlineStart = true;
        }
    }

    const QList<HXTextTagRef> selected = markup.tagsForSelector(selector);
    for (const HXTextTagRef &tag : markup.allTags()) {
        tables->forbiddenInCode.insert(tag.get());
        if (!selected.contains(tag))
            tables->forbidden.insert(tag.get());
    }
    tables->forbiddenInCode.insert(nullptr);
    return tables;
}

quint64 HXParseTables::firstPossibleInlineStart(QStringView text, quint64 from, quint64 end) const {
    const char16_t *units = text.utf16();
    for (; from < end; ++from) {
        const char16_t unit = units[from];
        if (unit < 128) {
            if (m_inlineAsciiStarts.test(unit))
                return from;
        } else if (m_anyNonAsciiInlineStart || m_nonAsciiInlineStarts.contains(unit)) {
            return from;
        }
    }
    return end;
}
