#include "Text/String/Nodes/HXParagraph.h"

#include "Text/Markup/HXMarkup.h"
#include "Text/String/Parser/HXTextParser.h"
#include "Utilities/HXAssert.h"

#include <QHash>
#include <QRegularExpression>

#include <algorithm>
#include <array>

// --- Making paragraphs ----------------------------------------------------------------------

void HXParagraph::setExtras(const QList<HXTextTagRef> &groupings, const HXTextTagRef &tag,
                            const HXBookmarkRef &bookmark) {
    const HXNodeTraits::Fields &present = traits();
    if (present.tag == tag && present.bookmark == bookmark &&
        present.groupings.size() == groupings.size() &&
        std::equal(groupings.begin(), groupings.end(), present.groupings.begin()))
        return;
    HXNodeTraits::Fields fields;
    fields.markup = markup();
    fields.groupings = groupings;
    fields.tag = tag;
    fields.bookmark = bookmark;
    setTraits(std::move(fields));
}

void HXParagraph::setBookmark(const HXBookmarkRef &bookmark) {
    setExtras(groupings(), tag(), bookmark);
}

void HXParagraph::storeRecognizedDefinitions(HXDefinitionSelector recognizedDefinitions) {
    HX_ASSERT(recognizedDefinitions == HXDefinitionSelector(qint16(recognizedDefinitions)),
              u"The definition selector 0x%lx is out of the range of paragraphs.",
              recognizedDefinitions);
    m_small = qint16(recognizedDefinitions);
}

HXRef<HXParagraph> HXParagraph::paragraphWithString(const QString &string,
                                                    const std::shared_ptr<HXMarkup> &markup,
                                                    HXDefinitionSelector recognizedDefinitions,
                                                    const HXParagraph *bookmarkSource) {
    return paragraphWithText(string.isEmpty() ? HXChunk() : HXChunk(string), markup,
                             recognizedDefinitions, bookmarkSource);
}

HXRef<HXParagraph> HXParagraph::paragraphWithText(const HXChunk &text,
                                                  const std::shared_ptr<HXMarkup> &markup,
                                                  HXDefinitionSelector recognizedDefinitions,
                                                  const HXParagraph *bookmarkSource) {
    auto paragraph = HXRef<HXParagraph>::make();
    paragraph->setTraits(HXNodeTraits::traitsWithMarkup(markup));
    if (bookmarkSource)
        paragraph->setBookmark(bookmarkSource->bookmark());
    paragraph->storeRecognizedDefinitions(recognizedDefinitions);
    if (text.length() == 0)
        paragraph->updateAtoms(std::nullopt);
    else
        paragraph->setText(text);
    return paragraph;
}

HXRef<HXParagraph> HXParagraph::paragraphWithTag(const HXTextTagRef &tag,
                                                 const QList<HXTextTagRef> &groupings,
                                                 const QList<quint64> &indexes,
                                                 const QList<HXTextTagRef> &preferredTags,
                                                 const std::shared_ptr<HXMarkup> &markup) {
    auto paragraph = HXRef<HXParagraph>::make();
    HXNodeTraits::Fields fields;
    fields.markup = markup;
    paragraph->setTraits(std::move(fields));
    QList<HXTextTagRef> prefix = groupings;
    if (tag)
        prefix.append(tag);
    QStringList strings;
    for (qsizetype i = 0; i < prefix.size(); ++i) {
        const HXTextTagRef preferred = preferredTags.value(i);
        const quint64 index = indexes.value(i, 1);
        strings.append(
            HXTextParser::stringMatchingPart(0, preferred ? preferred.get() : prefix.at(i).get(),
                                             QString(), [index] { return index; }));
    }
    paragraph->setGroupings(groupings, tag, strings);
    return paragraph;
}

void HXParagraph::setString(const QString &string) {
    setText(string.isEmpty() ? HXChunk() : HXChunk(string));
}

void HXParagraph::setText(const HXChunk &text) {
    setExtras({}, nullptr, bookmark());
    HXChunk only = text;
    setAllChunks(&only, text.length() == 0 ? 0 : 1, false, false);
    HXTextParser::reparseParagraph(*this);
}

void HXParagraph::setRecognizedDefinitions(HXDefinitionSelector recognizedDefinitions) {
    if (recognizedDefinitions == this->recognizedDefinitions())
        return;
    storeRecognizedDefinitions(recognizedDefinitions);
    HXTextParser::reparseParagraph(*this);
}

// --- The prefix -----------------------------------------------------------------------------

const HXChunkString *HXParagraph::headStringInPlace() const {
    return hasHeadChunk() ? firstChunk().chunkString() : nullptr;
}

QList<HXTextAtomRef> HXParagraph::prefixAtoms() const {
    QList<HXTextAtomRef> atoms;
    if (const HXChunkString *head = headStringInPlace()) {
        for (const HXChunk &chunk : head->allChunks())
            atoms.append(chunk.pointerAs<HXTextAtom>());
    }
    return atoms;
}

HXTextAtomRef HXParagraph::tagString() const {
    const QList<HXTextAtomRef> atoms = prefixAtoms();
    return tag() && !atoms.isEmpty() ? atoms.last() : nullptr;
}

QList<HXTextAtomRef> HXParagraph::groupTagStrings() const {
    return prefixAtoms().mid(0, groupings().size());
}

void HXParagraph::setGroupings(const QList<HXTextTagRef> &groupings, const HXTextTagRef &tag,
                               const QStringList &strings) {
    HX_ASSERT(strings.size() == groupings.size() + (tag ? 1 : 0), u"Mismatching number of strings");
    setExtras(groupings, tag, bookmark());
    updateAtoms(strings);
}

namespace {

// Heads are immutable once made, and paragraphs with the same prefix share one: the heads last
// made on this thread, by their atoms, which are shared themselves.
struct HeadKey {
    std::array<const HXTextAtom *, 4> atoms{};
    friend bool operator==(const HeadKey &, const HeadKey &) = default;
};

size_t qHash(const HeadKey &key, size_t seed = 0) {
    return qHashRange(key.atoms.begin(), key.atoms.end(), seed);
}

HXChunk sharedHead(const QList<HXChunk> &atoms) {
    auto make = [&] {
        auto head = HXRef<HXChunkString>::make();
        head->setInnerChunks(atoms);
        return head;
    };
    if (atoms.size() > qsizetype(std::tuple_size_v<decltype(HeadKey::atoms)>))
        return HXChunk(make());
    thread_local QHash<HeadKey, HXRef<HXChunkString>> heads;
    HeadKey key;
    for (qsizetype i = 0; i < atoms.size(); ++i)
        key.atoms[size_t(i)] = atoms.at(i).as<HXTextAtom>();
    auto found = heads.constFind(key);
    if (found != heads.constEnd())
        return HXChunk(*found);
    if (heads.size() > 4096)
        heads.clear();
    const HXRef<HXChunkString> head = make();
    heads.insert(key, head);
    return HXChunk(head);
}

} // namespace

HXChunk HXParagraph::headOfPrefix(const std::optional<QStringList> &strings,
                                  const HXIndexProvider &indexProvider) const {
    const QList<HXTextTagRef> &groupings = this->groupings();
    const qsizetype count = groupings.size() + (tag() ? 1 : 0);
    if (count == 0)
        return HXChunk();
    auto tagAt = [&](qsizetype level) -> const HXTextTagRef & {
        return level < groupings.size() ? groupings.at(level) : tag();
    };
    const QList<HXTextAtomRef> present = strings ? QList<HXTextAtomRef>() : prefixAtoms();
    QList<HXChunk> atoms;
    atoms.reserve(count);
    for (qsizetype level = 0; level < count; ++level) {
        HXTextAtomRef atom;
        if (strings)
            atom = HXTextAtom::atomWithParagraph(tagAt(level), strings->at(level), indexProvider,
                                                 level);
        else if (level < present.size() && present.at(level))
            atom = HXTextAtom::copyOfAtom(*present.at(level), tagAt(level), indexProvider, level);
        else
            atom = HXTextAtom::atomWithParagraph(tagAt(level), QString(), indexProvider, level);
        if (atom->length() > 0)
            atoms.append(HXChunk(atom));
    }
    return atoms.isEmpty() ? HXChunk() : sharedHead(atoms);
}

void HXParagraph::updateAtoms(const std::optional<QStringList> &strings,
                              const HXIndexProvider &indexProvider) {
    setHeadChunk(headOfPrefix(strings, indexProvider));
}

void HXParagraph::setParsed(const QList<HXTextTagRef> &groupings, const HXTextTagRef &tag,
                            const QStringList &strings, std::vector<HXChunk> chunks) {
    HX_ASSERT(strings.size() == groupings.size() + (tag ? 1 : 0), u"Mismatching number of strings");
    setExtras(groupings, tag, bookmark());
    HXChunk head = headOfPrefix(strings, {});
    const bool hasHead = bool(head);
    if (hasHead)
        chunks.insert(chunks.begin(), std::move(head));
    setAllChunks(chunks.data(), chunks.size(), hasHead, false);
}

void HXParagraph::setMarkup(const std::shared_ptr<HXMarkup> &given,
                            const HXIndexProvider &indexProvider) {
    // The markup given may be the present one, whose fields go with the traits changed here.
    const std::shared_ptr<HXMarkup> markup = given;
    const QList<HXTextAtomRef> atoms = prefixAtoms();
    auto convert = [&](const HXTextTagRef &tag, qsizetype level) -> HXTextTagRef {
        if (!tag || !markup)
            return tag;
        const QString text = level < atoms.size() && atoms.at(level)
                                 ? atoms.at(level)->stringRepresentation()
                                 : QString();
        const HXTextTagRef found = markup->tagWithIdentifier(tag->definition()->identifier(), text);
        return found ? found : tag;
    };
    QList<HXTextTagRef> groupings = this->groupings();
    for (qsizetype level = 0; level < groupings.size(); ++level)
        groupings[level] = convert(groupings.at(level), level);
    setExtras(groupings, convert(tag(), groupings.size()), bookmark());
    updateAtoms(std::nullopt, indexProvider);
    HXTextNode::setMarkup(markup);
    HXTextParser::reparseParagraph(*this);
}

bool HXParagraph::noParsingInside() const {
    if (tag() && tag()->definition()->noParsingInside())
        return true;
    return !groupings().isEmpty() && groupings().last() &&
           groupings().last()->definition()->noParsingInside();
}

bool HXParagraph::endsInLineFeed() const {
    const quint64 total = length();
    return total > 0 && characterAtIndex(total - 1) == QLatin1Char('\n');
}

void HXParagraph::getReplacement(QString *replacement, HXRange *range,
                                 const QList<HXTextTagRef> &groupings, const HXTextTagRef &tag,
                                 const HXIndexProvider &indexProvider) const {
    QList<HXTextTagRef> oldTags = this->groupings();
    if (this->tag())
        oldTags.append(this->tag());
    QStringList oldStrings;
    for (const HXTextAtomRef &atom : prefixAtoms())
        oldStrings.append(atom ? atom->stringRepresentation() : QString());
    QList<HXTextTagRef> newTags = groupings;
    if (tag)
        newTags.append(tag);

    QString text;
    for (qsizetype level = 0; level < newTags.size(); ++level) {
        const HXTextTagRef &newTag = newTags.at(level);
        const qsizetype old = oldTags.indexOf(newTag);
        if (old >= 0 && old < oldStrings.size()) {
            text += oldStrings.takeAt(old);
            oldTags.removeAt(old);
            continue;
        }
        text += HXTextParser::stringMatchingPart(0, newTag.get(), QString(), [&]() -> quint64 {
            const quint64 index = indexProvider ? indexProvider(level) : 0;
            return index > 0 ? index : 1;
        });
    }
    if (replacement)
        *replacement = text;
    if (range) {
        const HXChunkString *head = headStringInPlace();
        *range = HXRange{0, head ? head->length() : 0};
    }
}

// --- Editing --------------------------------------------------------------------------------

void HXParagraph::replaceCharactersInRange(HXRange range, const HXChunk &string,
                                           HXRange *editedRange, HXRange *affectedRange,
                                           HXRange *replacementRange) {
    const quint64 stringLength = string.length();
    const bool endsInLineFeed =
        stringLength > 0 && string.characterAtIndex(stringLength - 1) == QLatin1Char('\n');
    if (endsInLineFeed)
        HX_ASSERT(range.max() == length(), u"Inserting newlines must happen at paragraoh end.");

    // A line feed never goes into an element: it is cut off and put behind all.
    HXChunk inserted = string;
    bool lineFeedCut = false;
    if (endsInLineFeed && range.location < length()) {
        const quint64 key = chunkIndexLessThanOrEqualToIndex(range.location);
        if (chunkAtIndex(key).as<HXTextNode>()) {
            inserted = HXChunk(string.string().chopped(1));
            lineFeedCut = true;
        }
    }

    HXRange edited, affected, replacement;
    HXTextNode::replaceCharactersInRange(range, inserted, &edited, &affected, &replacement);
    if (lineFeedCut) {
        appendChunk(HXChunk(QStringLiteral("\n")));
        replacement.length += 1;
    }

    const quint64 lengthBeforeParse = length();
    HXRange changedText, changedStructure;
    HXTextParser::reparseParagraph(*this, &changedText, &changedStructure);
    if (!changedText.isNotFound()) {
        if (changedText.location < edited.location) {
            edited.length += edited.location - changedText.location;
            edited.location = changedText.location;
        }
        const quint64 end = edited.location + stringLength;
        if (changedText.max() > end)
            edited.length += changedText.max() - end;
    }
    if (!changedStructure.isNotFound()) {
        if (changedStructure.location < affected.location) {
            affected.length += affected.location - changedStructure.location;
            affected.location = changedStructure.location;
        }
        if (changedStructure.max() > replacement.max())
            affected.length += changedStructure.max() - replacement.max();
        replacement = HXUnionRange(replacement, changedStructure);
        replacement.length += length() - lengthBeforeParse;
    }
    if (editedRange)
        *editedRange = edited;
    if (affectedRange)
        *affectedRange = affected;
    if (replacementRange)
        *replacementRange = replacement;
}

void HXParagraph::appendChunkString(const HXChunkString &string, HXRange *editedRange) {
    const quint64 start = length();
    HXChunkString::appendChunkString(string);
    HXRange changedText;
    HXTextParser::reparseParagraph(*this, &changedText, nullptr);
    HXRange edited{start, string.length()};
    if (!changedText.isNotFound())
        edited = HXUnionRange(edited, changedText);
    if (editedRange)
        *editedRange = edited;
}

HXRef<HXChunkString> HXParagraph::substringWithRange(HXRange range) const {
    auto copy = HXStaticCast<HXParagraph>(copyWithRange(range));
    HXTextParser::reparseParagraph(*copy);
    return copy;
}

// --- Walking --------------------------------------------------------------------------------

bool HXParagraph::enumerateStringsAndAtomsInRange(HXRange range, const HXOpenTags &openTags,
                                                  quint64 offset,
                                                  const HXStringsAndAtomsBlock &block) const {
    HXOpenTags tags = openTags;
    if (const HXChunkString *head = headStringInPlace()) {
        quint64 location = 0;
        bool stop = false;
        for (const HXChunk &chunk : head->allChunks()) {
            const HXTextAtom *atom = chunk.as<HXTextAtom>();
            const HXTextTagRef tag = atom ? atom->tag() : nullptr;
            if (tag)
                tags.append(tag);
            const HXRange atomRange{location, chunk.length()};
            const HXRange part = HXIntersectionRange(range, atomRange);
            if (part.length > 0) {
                const HXChunk piece =
                    part == atomRange
                        ? chunk
                        : chunk.substringWithRange(HXRange{part.location - location, part.length});
                block(piece, tag != nullptr, part.location + offset, part.length, tags, stop);
                if (stop)
                    return false;
            }
            location += chunk.length();
        }
    }
    const HXRange inner = HXIntersectionRange(range, innerChunkRange());
    if (inner.length == 0)
        return true;
    return enumerateChunksAsStringsAndAtoms(inner, tags, offset, block);
}

// --- Text without structure -----------------------------------------------------------------

QString HXParagraph::stringByRemovingObjectsAndTags() const {
    QString text;
    for (const HXChunk &chunk : innerChunks()) {
        if (const HXTextNode *node = chunk.as<HXTextNode>())
            text += node->stringByRemovingObjectsAndTags();
        else if (const HXTextAtom *atom = chunk.as<HXTextAtom>())
            text += atom->stringRepresentation();
        else
            text += chunk.string();
    }
    static const QRegularExpression whitespace(QStringLiteral("\\s+"));
    const bool hadLineFeed = text.endsWith(QLatin1Char('\n'));
    text.replace(whitespace, QStringLiteral(" "));
    text = text.trimmed();
    text.remove(QLatin1Char('\\'));
    if (hadLineFeed)
        text += QLatin1Char('\n');
    return text;
}

bool HXParagraph::isCountable() const {
    auto countable = [](const HXTextTagRef &tag) {
        return !tag || !(tag->definition()->countingOptions() & HXCountingNotCountable);
    };
    return countable(tag()) && std::all_of(groupings().begin(), groupings().end(), countable);
}

// --- Copying and comparing ------------------------------------------------------------------

HXRef<HXChunkString> HXParagraph::copyWithRange(HXRange range) const {
    auto copy = HXRef<HXParagraph>::make();
    copy->initWithChunkString(*this, range);
    return copy;
}

void HXParagraph::initWithChunkString(const HXChunkString &other, HXRange range) {
    HXTextNode::initWithChunkString(other, range);
    const auto &source = static_cast<const HXParagraph &>(other);
    storeRecognizedDefinitions(source.recognizedDefinitions());
    setExtras({}, nullptr, source.bookmark());
    const HXChunkString *head = headStringInPlace();
    if (!head) {
        // The prefix stayed behind; so do its tags.
        setHeadChunk(HXChunk());
        return;
    }
    setExtras(source.groupings(), source.tag(), bookmark());
}

bool HXParagraph::isOfClassOf(const HXChunkString &other) const {
    return dynamic_cast<const HXParagraph *>(&other) != nullptr;
}

bool HXParagraph::isEqualToChunkString(const HXChunkString &other) const {
    const auto *paragraph = dynamic_cast<const HXParagraph *>(&other);
    if (!paragraph || !HXTextNode::isEqualToChunkString(other))
        return false;
    auto sameTag = [](const HXTextTagRef &a, const HXTextTagRef &b) {
        return a == b || (a && b && a->isEqual(*b));
    };
    if (!sameTag(tag(), paragraph->tag()) || groupings().size() != paragraph->groupings().size())
        return false;
    for (qsizetype i = 0; i < groupings().size(); ++i) {
        if (!sameTag(groupings().at(i), paragraph->groupings().at(i)))
            return false;
    }
    return true;
}

QString HXParagraph::description() const {
    QStringList prefix;
    for (const HXTextTagRef &grouping : groupings())
        prefix.append(grouping ? grouping->definition()->identifier() : QStringLiteral("indent"));
    if (tag())
        prefix.append(tag()->definition()->identifier());
    return QStringLiteral("<HXParagraph [%1]%2 %3>")
        .arg(prefix.join(QStringLiteral(", ")),
             bookmark() ? QStringLiteral(" bookmarked") : QString(), HXTextNode::description());
}

void HXParagraph::checkInvariants(bool deep) const {
    HXTextNode::checkInvariants(deep);
    const HXNodeTraits::Fields &fields = traits();
    HX_ASSERT(!fields.definition && !fields.headAtom && !fields.tailAtom,
              u"Paragraph %@ has the traits of an element.", description());
    if (const HXChunkString *head = headStringInPlace()) {
        HX_ASSERT(head->numberOfMapEntries() - 1 == groupings().size() + (tag() ? 1 : 0),
                  u"Mismatching number of strings");
        for (const HXChunk &chunk : head->allChunks())
            HX_ASSERT(chunk.as<HXTextAtom>(), u"Head chunk of %@ holds no atom.", description());
    } else if (!headChunk()) {
        HX_ASSERT(groupings().isEmpty() && !tag(), u"Mismatching number of strings");
    }
    const qsizetype lineFeed = string().indexOf(QLatin1Char('\n'));
    HX_ASSERT(lineFeed < 0 || quint64(lineFeed) == length() - 1, u"Line feed inside paragraph %@.",
              description());
}
