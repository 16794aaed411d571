#pragma once

#include "Text/Markup/HXTextTag.h"
#include "Text/String/Implementation/HXStringObject.h"

#include <QString>

#include <functional>
#include <memory>

class HXTextNode;

// Gives the number that a numbered tag at a level of a paragraph's prefix should show; 0 when it
// has none to give.
using HXIndexProvider = std::function<quint64(qsizetype level)>;

// The text of one tag as it stands in a node: a paragraph's `## ` or a list marker, an element's
// opening or closing `**`. The atom of an entity has no text: it stands as one object replacement
// character, U+FFFC. Immutable once made, and so shared freely between copies of a tree; it knows
// its node only weakly, since the node owns it. Read under the lock of the owning string.
class HXTextAtom : public HXStringObject {
public:
    using KindOwner = HXTextAtom;
    static constexpr bool matchesKind(HXStringObjectKind kind) {
        return kind == HXStringObjectKind::TextAtom;
    }
    HXStringObjectKind objectKind() const override { return HXStringObjectKind::TextAtom; }

    static constexpr char16_t objectReplacementCharacter = 0xfffc;

    // The atom of part 0 or 1 of an element, for its present tag. No string means the text is
    // made from the tag's pattern.
    static std::shared_ptr<HXTextAtom> atomWithTextElement(HXTextNode &element, quint64 part,
                                                           const QString &string);
    // An atom of a paragraph's prefix: one grouping level or the paragraph's tag. The null
    // marker, a null tag, stands for one level of indentation. `level` is its place in the
    // prefix, for numbering.
    static std::shared_ptr<HXTextAtom>
    atomWithParagraph(HXTextNode &paragraph, const HXTextTagRef &tag, const QString &string,
                      const HXIndexProvider &indexProvider = {}, qsizetype level = 0);
    // The same atom for a copy of its node.
    static std::shared_ptr<HXTextAtom> copyOfAtom(const HXTextAtom &atom, HXTextNode &node);
    // The atom rewritten for another tag, numbers kept where the old text has them: "3." becomes
    // "iii." under a roman pattern. `string`, when given, stands for the atom's present text.
    static std::shared_ptr<HXTextAtom> copyOfAtom(const HXTextAtom &atom, const HXTextTagRef &tag,
                                                  const HXIndexProvider &indexProvider,
                                                  qsizetype level = 0,
                                                  const QString &string = QString());

    quint64 length() const override { return m_string.isNull() ? 1 : quint64(m_string.size()); }
    QChar characterAtIndex(quint64 index) const override;
    void getCharacters(QChar *buffer, HXRange range) const override;
    QString string() const override;
    bool isEqual(const HXChunk &other) const override;
    QString description() const override;

    // The text; null for the atom of an entity.
    const QString &stringRepresentation() const { return m_string; }
    const QString &pattern() const { return m_pattern; }
    std::shared_ptr<HXTextNode> node() const;
    quint64 part() const { return m_part; }
    // The tag, or nothing for the null marker.
    const HXTextTagRef &tag() const { return m_tag; }
    bool isEntityAtom() const { return m_string.isNull(); }

    HXTextAtom(const HXTextAtom &) = default;
    HXTextAtom(HXTextNode *node, quint64 part, HXTextTagRef tag);

private:
    // Sets the text from a given one: the tag's text for it, or the given text as it is where the
    // tag can't make one. Entities get no text.
    void initRepresentationsWithString(const QString &string,
                                       const std::function<quint64()> &indexer);

    QString m_pattern;
    QString m_string;
    std::weak_ptr<HXStringObject> m_node;
    HXTextTagRef m_tag;
    quint8 m_part = 0;
    bool m_nodeIsParagraph = false;
};

using HXTextAtomRef = std::shared_ptr<HXTextAtom>;
