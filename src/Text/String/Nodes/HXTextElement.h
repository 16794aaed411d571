#pragma once

#include "Text/String/Atoms/HXTextAtom.h"
#include "Text/String/Meta/HXAttributeDictionary.h"
#include "Text/String/Nodes/HXTextNode.h"

#include <QVariantMap>

class HXFileWrapper;

// An inline run of text between a start and an end tag: `**strong**`, a link, an image. Its
// chunks are the start tag's atom, the inner chunks and, once closed, the end tag's atom; an
// element without its end tag runs to the end of its paragraph's text. An entity (a closed link
// or annotation, any object) is an opaque unit: its atoms are each one U+FFFC, its meaning lies
// in its attributes, and editing can't cut into its atoms. An object has no inner text at all.
// The element keeps its definition when a change of markup takes its tag away.
//
// Invariants (checkInvariants): object exactly when the definition has the object scope; entity
// for every object; when intact, the head atom is the first chunk and the tail atom the last
// exactly when closed and no object; no line feed inside.
class HXTextElement : public HXTextNode {
public:
    using KindOwner = HXTextElement;
    static constexpr bool matchesKind(HXStringObjectKind kind) {
        return kind == HXStringObjectKind::TextElement;
    }

    // A new element of the tag, not closed; its start tag text is made from the pattern.
    static HXRef<HXTextElement> elementWithTag(const HXTextTagRef &tag,
                                               const std::shared_ptr<HXMarkup> &markup,
                                               bool closed = true);
    // A closed entity of a tag of the attributed text or object scope, with attributes.
    static HXRef<HXTextElement> elementWithAttributes(const QVariantMap &attributes,
                                                      const HXTextTagRef &tag,
                                                      const std::shared_ptr<HXMarkup> &markup);
    // A closed entity of the attributed text or object scope holding the file in its first
    // attribute that takes it.
    static HXRef<HXTextElement> elementWithFile(const std::shared_ptr<HXFileWrapper> &file,
                                                const HXTextTagRef &tag,
                                                const std::shared_ptr<HXMarkup> &markup);
    // A closed entity of the attributed text scope whose URL attribute and text are given.
    static HXRef<HXTextElement> elementWithURLString(const QString &urlString, const QString &title,
                                                     const HXTextTagRef &tag,
                                                     const std::shared_ptr<HXMarkup> &markup);

    HXTextElement()
        : HXTextNode(HXStringObjectKind::TextElement) {}
    // An element as a stored form describes it: its tag (none where the markup has lost it),
    // definition, whether closed, and the texts of its tags, null where not stored.
    void initWithStoredForm(const HXTextTagRef &tag, const HXDefinitionRef &definition,
                            const std::shared_ptr<HXMarkup> &markup, bool closed,
                            const QString &startTag, const QString &endTag);
    // The same for a new element, with its inner chunks (none empty), in one step.
    void initWithStoredForm(const HXTextTagRef &tag, const HXDefinitionRef &definition,
                            const std::shared_ptr<HXMarkup> &markup, bool closed,
                            const QString &startTag, const QString &endTag,
                            std::vector<HXChunk> inner);

    const HXTextTagRef &tag() const { return traits().tag; }
    const HXDefinitionRef &definition() const { return traits().definition; }
    // Gives the element a tag of its own definition (or its first) and rebuilds its atoms, with
    // the start tag's text when one is given.
    void setTag(const HXTextTagRef &tag, const QString &string = QString());
    bool isClosed() const { return m_flags & closedFlag; }
    // Sets whether the end tag was found, and its text.
    void setClosed(bool closed, const QString &string = QString());
    bool isEntity() const { return m_flags & entityFlag; }
    bool isObject() const { return m_flags & objectFlag; }
    // The first chunk is the head atom and, for a closed element that is no object, the last is
    // the tail atom. An edit that cut into a tag leaves the element broken until reparsed.
    bool isIntact() const;
    const HXTextAtomRef &headAtom() const { return traits().headAtom; }
    const HXTextAtomRef &tailAtom() const { return traits().tailAtom; }
    const HXAttributeDictionaryRef &attributes() const {
        static const HXAttributeDictionaryRef none;
        return m_attributes ? *m_attributes : none;
    }

    // Derives the flags and the atoms: the start and end tag texts given, or the present ones.
    void updateAtomsWithHead(const QString &head, const QString &tail);

    // The parser's way of making an element, with one change of chunks where setting the tag,
    // the inner chunks and the end tag in turn would make three. A new element (of the markup,
    // without a tag) or one taken up again after melting is given its tag and start tag text;
    // the result says whether its old end tag would have stayed in place, which the end needs.
    static HXRef<HXTextElement> emptyElement(const std::shared_ptr<HXMarkup> &markup);
    bool beginParsed(const HXTextTagRef &tag, const QString &startTag);
    // An object ends at once: it has no inner chunks.
    void finishParsedObject();
    // The inner chunks stand in `chunks` behind a free first place; the end tag text is given
    // when the element is closed.
    void finishParsed(std::vector<HXChunk> &chunks, bool closed, const QString &endTag,
                      bool oldTailInPlace);

    // The tag texts; for an entity the tag's literal text of that part, if it has one.
    QString startTagString() const;
    QString endTagString() const;

    void setMarkup(const std::shared_ptr<HXMarkup> &markup) override;
    // Objects can't be edited; an entity's edits are held to its inner text.
    using HXTextNode::replaceCharactersInRange;
    void replaceCharactersInRange(HXRange range, const HXChunk &string,
                                  HXRange *editedRange = nullptr, HXRange *affectedRange = nullptr,
                                  HXRange *replacementRange = nullptr) override;

    QString stringByRemovingObjects() const override;
    QString stringByRemovingObjectsAndTags() const override;
    bool isCountable() const override;
    // Each attribute that counts as text: those that hold a string of their own (a footnote's
    // text), unless the definition says its attributes don't count.
    void enumerateCountedAttributes(const std::function<void(const QString &, const QVariant &,
                                                             const HXTagAttribute &)> &block) const;

    HXRef<HXChunkString> copyWithRange(HXRange range) const override;
    bool isEqualToChunkString(const HXChunkString &other) const override;
    bool isOfClassOf(const HXChunkString &other) const override;
    void setLockingContext(const std::weak_ptr<HXLockingContext> &context) override;
    QString description() const override;
    void checkInvariants(bool deep = true) const override;

protected:
    void initWithChunkString(const HXChunkString &other, HXRange range) override;

private:
    static constexpr quint8 closedFlag = 4, entityFlag = 8, objectFlag = 16;

    void initWithTag(const HXTextTagRef &tag, const std::shared_ptr<HXMarkup> &markup);
    // The tag, and with it the definition where there was none; a different definition is the
    // assertion.
    static void takeTag(HXNodeTraits::Fields &fields, const HXTextTagRef &tag);
    // The flags, the attributes and the atoms for the tag texts, without placing the atoms: into
    // the fields given, or into the element's traits.
    void deriveAtoms(HXNodeTraits::Fields &fields, const QString &head, const QString &tail);
    void deriveAtoms(const QString &head, const QString &tail);
    // Takes the tag, when one is given, and derives flags and atoms for the tag texts: what
    // deriving made last from the same traits, flags, tag and texts, where it is known.
    void deriveTraits(const HXTextTagRef *tag, const QString &head, const QString &tail);
    // The flags and attributes that the definition of the fields implies.
    void deriveFlags(const HXNodeTraits::Fields &fields);
    // Whether the atoms of the fields already say the tag texts.
    bool atomsStand(const HXNodeTraits::Fields &fields, const QString &head,
                    const QString &tail) const;
    bool headAtomInPlace() const { return headAtom() && headAtom()->length() > 0; }
    bool tailAtomInPlace() const {
        return isClosed() && !isObject() && tailAtom() && tailAtom()->length() > 0;
    }
    void setAttributes(HXAttributeDictionaryRef attributes);

    // Only entities have attributes: a word for the others, not two.
    std::unique_ptr<HXAttributeDictionaryRef> m_attributes;
};

using HXTextElementRef = HXRef<HXTextElement>;
