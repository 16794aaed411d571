#pragma once

#include "Text/Markup/HXTextTag.h"
#include "Text/String/Implementation/HXStringObject.h"
#include "Utilities/HXRef.h"

#include <QString>

#include <functional>

// Gives the number that a numbered tag at a level of a paragraph's prefix should show; 0 when it
// has none to give.
using HXIndexProvider = std::function<quint64(qsizetype level)>;

// The text of one tag as it stands in a node: a paragraph's `## ` or a list marker, an element's
// opening or closing `**`. The atom of an entity has no text: it stands as one object replacement
// character, U+FFFC. Immutable once made, it knows nothing of the nodes it stands in, and so one
// atom serves every node that has the same tag text: atoms are made once for each thread and
// shared, even between trees and threads. Read under the lock of a string that holds it.
class HXTextAtom : public HXStringObject {
public:
    using KindOwner = HXTextAtom;
    static constexpr bool matchesKind(HXStringObjectKind kind) {
        return kind == HXStringObjectKind::TextAtom;
    }

    static constexpr char16_t objectReplacementCharacter = 0xfffc;

    // The atom of part 0 or 1 of an element of the tag, none for an element without one; an
    // entity's atom has no text. No string means the text is made from the tag's pattern.
    static HXRef<HXTextAtom> atomWithTextElement(const HXTextTagRef &tag, quint64 part, bool entity,
                                                 const QString &string);
    // An atom of a paragraph's prefix: one grouping level or the paragraph's tag. The null
    // marker, a null tag, stands for one level of indentation. `level` is its place in the
    // prefix, for numbering.
    static HXRef<HXTextAtom> atomWithParagraph(const HXTextTagRef &tag, const QString &string,
                                               const HXIndexProvider &indexProvider = {},
                                               qsizetype level = 0);
    // The atom rewritten for another tag, numbers kept where the old text has them: "3." becomes
    // "iii." under a roman pattern. `string`, when given, stands for the atom's present text;
    // `entity` says whether an element's atom is now an entity's.
    static HXRef<HXTextAtom> copyOfAtom(const HXTextAtom &atom, const HXTextTagRef &tag,
                                        const HXIndexProvider &indexProvider, qsizetype level = 0,
                                        const QString &string = QString(), bool entity = false);

    quint64 length() const override { return m_string.isNull() ? 1 : quint64(m_string.size()); }
    QChar characterAtIndex(quint64 index) const override;
    void getCharacters(QChar *buffer, HXRange range) const override;
    QString string() const override;
    bool isEqual(const HXChunk &other) const override;
    QString description() const override;

    // The text; null for the atom of an entity.
    const QString &stringRepresentation() const { return m_string; }
    const QString &pattern() const { return m_pattern; }
    quint64 part() const { return m_part; }
    // The tag, or nothing for the null marker.
    const HXTextTagRef &tag() const { return m_tag; }
    bool isEntityAtom() const { return m_string.isNull(); }
    // Whether it stands in a paragraph's prefix rather than in an element.
    bool isParagraphAtom() const { return m_paragraph; }

private:
    HXTextAtom(HXTextTagRef tag, quint8 part, bool paragraph, QString pattern, QString string);
    // The one atom of these fields on this thread.
    static HXRef<HXTextAtom> shared(const HXTextTagRef &tag, quint8 part, bool paragraph,
                                    const QString &pattern, const QString &string);
    // The atom for a given text: the tag's text for it, or the given text as it is where the tag
    // can't make one. Entities get no text.
    static HXRef<HXTextAtom> atomForString(const HXTextTagRef &tag, quint8 part, bool paragraph,
                                           bool entity, const QString &string,
                                           const std::function<quint64()> &indexer);
    // The same without numbers to give, through a table of the atoms last asked for.
    static HXRef<HXTextAtom> recentAtomForString(const HXTextTagRef &tag, quint8 part,
                                                 bool paragraph, bool entity,
                                                 const QString &string);

    QString m_pattern;
    QString m_string;
    HXTextTagRef m_tag;
    quint8 m_part = 0;
    bool m_paragraph = false;
};

using HXTextAtomRef = HXRef<HXTextAtom>;
