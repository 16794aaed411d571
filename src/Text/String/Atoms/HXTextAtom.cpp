#include "Text/String/Atoms/HXTextAtom.h"

#include "Text/String/Implementation/HXChunk.h"
#include "Text/String/Parser/HXTextParser.h"
#include "Utilities/HXAssert.h"

#include <QHash>

#include <algorithm>
#include <array>
#include <tuple>

namespace {

// The atoms made on this thread, by their fields; a tag's atoms are few, and the table is
// emptied when it grows large all the same.
struct AtomKey {
    const HXTextTag *tag;
    quint8 part;
    bool paragraph;
    QString pattern;
    QString string;
    friend bool operator==(const AtomKey &a, const AtomKey &b) {
        return a.tag == b.tag && a.part == b.part && a.paragraph == b.paragraph &&
               a.string.isNull() == b.string.isNull() && a.string == b.string &&
               a.pattern == b.pattern;
    }
};

size_t qHash(const AtomKey &key, size_t seed = 0) {
    return ::qHash(key.string, seed) ^ std::hash<const void *>()(key.tag) ^ (key.part << 1) ^
           size_t(key.paragraph);
}

// The atoms last asked for by tag and given text, in front of the derivation of their text from
// the tag's pattern: most tag texts of a sheet are the same few. A slot holds the atom, and so
// its tag, which keeps the tag's address from being reused while the slot names it.
class RecentAtoms {
public:
    HXRef<HXTextAtom> find(const HXTextTag *tag, quint8 part, bool paragraph, bool entity,
                           const QString &string) const {
        const Slot &slot = m_slots[index(tag, part, string)];
        if (slot.atom && slot.tag == tag && slot.part == part && slot.paragraph == paragraph &&
            slot.entity == entity && slot.string.isNull() == string.isNull() &&
            slot.string == string)
            return slot.atom;
        return nullptr;
    }
    void insert(const HXTextTag *tag, quint8 part, bool paragraph, bool entity,
                const QString &string, const HXRef<HXTextAtom> &atom) {
        m_slots[index(tag, part, string)] = Slot{tag, part, paragraph, entity, string, atom};
    }

private:
    struct Slot {
        const HXTextTag *tag = nullptr;
        quint8 part = 0;
        bool paragraph = false;
        bool entity = false;
        QString string;
        HXRef<HXTextAtom> atom;
    };
    static constexpr size_t size = 512;
    static size_t index(const HXTextTag *tag, quint8 part, const QString &string) {
        return (::qHash(string, size_t(part)) ^ std::hash<const void *>()(tag)) & (size - 1);
    }
    std::array<Slot, size> m_slots;
};

RecentAtoms &recentAtoms() {
    thread_local RecentAtoms recent;
    return recent;
}

} // namespace

HXTextAtom::HXTextAtom(HXTextTagRef tag, quint8 part, bool paragraph, QString pattern,
                       QString string)
    : HXStringObject(HXStringObjectKind::TextAtom)
    , m_pattern(std::move(pattern))
    , m_string(std::move(string))
    , m_tag(std::move(tag))
    , m_part(part)
    , m_paragraph(paragraph) {}

HXRef<HXTextAtom> HXTextAtom::shared(const HXTextTagRef &tag, quint8 part, bool paragraph,
                                     const QString &pattern, const QString &string) {
    thread_local QHash<AtomKey, HXRef<HXTextAtom>> atoms;
    AtomKey key{tag.get(), part, paragraph, pattern, string};
    const auto found = atoms.constFind(key);
    // The tag is compared by address: an atom of a tag that went away can't stand for a new
    // tag at the same address.
    if (found != atoms.constEnd() && (*found)->m_tag == tag)
        return *found;
    if (atoms.size() > 4096)
        atoms.clear();
    HXRef<HXTextAtom> atom(new HXTextAtom(tag, part, paragraph, pattern, string));
    atoms.insert(std::move(key), atom);
    return atom;
}

HXRef<HXTextAtom> HXTextAtom::atomForString(const HXTextTagRef &tag, quint8 part, bool paragraph,
                                            bool entity, const QString &string,
                                            const std::function<quint64()> &indexer) {
    if (!paragraph && entity)
        return shared(tag, part, paragraph, QString(), QString());
    const bool isIndentation = paragraph && !tag;
    const QString matching =
        tag || isIndentation
            ? HXTextParser::stringMatchingPart(qsizetype(part), tag.get(), string, indexer)
            : QString();
    QString text = string, pattern;
    if (!matching.isNull()) {
        text = matching;
        pattern = HXTextParser::patternForPart(qsizetype(part), tag.get());
    }
    // Only an entity's atom is without text; an element that has lost its tag keeps the text it
    // had, or none.
    if (!paragraph && text.isNull())
        text = QStringLiteral("");
    HX_ASSERT(!paragraph || !text.isNull(), u"Nil string disallowed for paragraphs");
    return shared(tag, part, paragraph, pattern, text);
}

HXRef<HXTextAtom> HXTextAtom::recentAtomForString(const HXTextTagRef &tag, quint8 part,
                                                  bool paragraph, bool entity,
                                                  const QString &string) {
    RecentAtoms &recent = recentAtoms();
    if (HXRef<HXTextAtom> atom = recent.find(tag.get(), part, paragraph, entity, string))
        return atom;
    HXRef<HXTextAtom> atom = atomForString(tag, part, paragraph, entity, string, {});
    recent.insert(tag.get(), part, paragraph, entity, string, atom);
    return atom;
}

HXRef<HXTextAtom> HXTextAtom::atomWithTextElement(const HXTextTagRef &tag, quint64 part,
                                                  bool entity, const QString &string) {
    return recentAtomForString(tag, quint8(part), false, entity, string);
}

HXRef<HXTextAtom> HXTextAtom::atomWithParagraph(const HXTextTagRef &tag, const QString &string,
                                                const HXIndexProvider &indexProvider,
                                                qsizetype level) {
    if (!indexProvider)
        return recentAtomForString(tag, 0, true, false, string);
    std::function<quint64()> indexer;
    if (indexProvider) {
        indexer = [&] {
            const quint64 index = indexProvider(level);
            return index > 0 ? index : 1;
        };
    }
    return atomForString(tag, 0, true, false, string, indexer);
}

HXRef<HXTextAtom> HXTextAtom::copyOfAtom(const HXTextAtom &atom, const HXTextTagRef &tag,
                                         const HXIndexProvider &indexProvider, qsizetype level,
                                         const QString &string, bool entity) {
    const QString present = string.isNull() ? atom.m_string : string;
    // The number is read from the present text by the pattern it was made from; without one
    // there the provider gives it, and 1 is the last resort.
    auto indexer = [&]() -> quint64 {
        const qint64 index = HXTextParser::enumerationIndexForString(present, atom.m_pattern);
        if (index > 0)
            return quint64(index);
        const quint64 provided = indexProvider ? indexProvider(level) : 0;
        return provided > 0 ? provided : 1;
    };
    HXRef<HXTextAtom> copy =
        atomForString(tag, atom.m_part, atom.m_paragraph, entity, present, indexer);
    // A text the old pattern made that the new tag can't make: the copy has no tag.
    if (!atom.m_pattern.isNull() && copy->m_pattern.isNull())
        copy = shared(nullptr, copy->m_part, copy->m_paragraph, copy->m_pattern, copy->m_string);
    return copy;
}

QChar HXTextAtom::characterAtIndex(quint64 index) const {
    HX_ASSERT(index < length(), u"Range or index out of bounds %@", QString::number(index));
    return m_string.isNull() ? QChar(objectReplacementCharacter) : m_string.at(qsizetype(index));
}

void HXTextAtom::getCharacters(QChar *buffer, HXRange range) const {
    HX_ASSERT(range.max() <= length(), u"Range or index out of bounds %@", range.description());
    if (m_string.isNull()) {
        if (range.length == 1)
            *buffer = QChar(objectReplacementCharacter);
        return;
    }
    std::copy_n(m_string.constData() + range.location, range.length, buffer);
}

QString HXTextAtom::string() const {
    return m_string.isNull() ? QString(QChar(objectReplacementCharacter)) : m_string;
}

bool HXTextAtom::isEqual(const HXChunk &other) const {
    const HXTextAtom *atom = other.as<HXTextAtom>();
    if (!atom)
        return false;
    if (atom == this)
        return true;
    const bool sameTag =
        atom->m_tag == m_tag || (atom->m_tag && m_tag && atom->m_tag->isEqual(*m_tag));
    return sameTag && atom->m_part == m_part && atom->m_string == m_string;
}

QString HXTextAtom::description() const {
    return QStringLiteral("<HXTextAtom %1 part:%2 \"%3\">")
        .arg(m_tag ? m_tag->definition()->identifier() : QStringLiteral("(indentation)"))
        .arg(m_part)
        .arg(string());
}
