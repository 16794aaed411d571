#pragma once

#include "Text/Markup/HXDefinition.h"
#include "Text/String/Atoms/HXTextAtom.h"
#include "Text/String/Meta/HXBookmark.h"
#include "Text/String/Nodes/HXTextNode.h"

#include <QStringList>

#include <optional>

// One line of text ending in a line feed (the last of a string may have none). Its head chunk
// gathers the atoms of its prefix: one for each grouping level (a list, a quote, or the null
// marker for a level of indentation), outermost first, then one for its own tag (a heading, a
// divider). Then come the inner chunks: plain runs, escapes and elements.
//
// Invariants (checkInvariants): the head chunk, when it stands, has one atom for each grouping and
// one for the tag, and is nothing rather than empty; a line feed stands only as the paragraph's
// last character, never inside an element; no chunk is empty.
class HXParagraph : public HXTextNode {
public:
    using KindOwner = HXParagraph;
    static constexpr bool matchesKind(HXStringObjectKind kind) {
        return kind == HXStringObjectKind::Paragraph;
    }

    // A paragraph of the text, parsed; it takes over the bookmark of `bookmarkSource` if given.
    static HXRef<HXParagraph>
    paragraphWithString(const QString &string, const std::shared_ptr<HXMarkup> &markup,
                        HXDefinitionSelector recognizedDefinitions = HXDefaultDefinitionSelector,
                        const HXParagraph *bookmarkSource = nullptr);
    // The same for a plain chunk, whose buffer the paragraph's plain text then shares.
    static HXRef<HXParagraph>
    paragraphWithText(const HXChunk &text, const std::shared_ptr<HXMarkup> &markup,
                      HXDefinitionSelector recognizedDefinitions = HXDefaultDefinitionSelector,
                      const HXParagraph *bookmarkSource = nullptr);
    // An empty paragraph with the prefix of the tags: each tag's text made from its pattern, or
    // from the preferred tag's where one is given for that place, with the given numbers.
    static HXRef<HXParagraph> paragraphWithTag(const HXTextTagRef &tag,
                                               const QList<HXTextTagRef> &groupings,
                                               const QList<quint64> &indexes,
                                               const QList<HXTextTagRef> &preferredTags,
                                               const std::shared_ptr<HXMarkup> &markup);

    HXParagraph()
        : HXTextNode(HXStringObjectKind::Paragraph) {
        m_small = qint16(HXDefaultDefinitionSelector);
    }

    HXDefinitionSelector recognizedDefinitions() const { return HXDefinitionSelector(m_small); }
    // Takes the selector and, on a change, parses the paragraph anew.
    void setRecognizedDefinitions(HXDefinitionSelector recognizedDefinitions);
    const QList<HXTextTagRef> &groupings() const { return traits().groupings; }
    qsizetype level() const { return groupings().size(); }
    const HXTextTagRef &tag() const { return traits().tag; }
    const HXBookmarkRef &bookmark() const { return traits().bookmark; }
    void setBookmark(const HXBookmarkRef &bookmark);

    // Replaces the prefix and rebuilds its atoms from the strings, one for each grouping and the
    // tag; without strings the atoms are made from the tags' patterns.
    void setGroupings(const QList<HXTextTagRef> &groupings, const HXTextTagRef &tag,
                      const QStringList &strings);
    // What a parse found: the prefix with the texts of its tags, and the inner chunks, which are
    // taken over.
    void setParsed(const QList<HXTextTagRef> &groupings, const HXTextTagRef &tag,
                   const QStringList &strings, std::vector<HXChunk> chunks);
    // Rebuilds the head chunk: with strings one atom for each; without, each atom is rewritten
    // for its present tag.
    void updateAtoms(const std::optional<QStringList> &strings,
                     const HXIndexProvider &indexProvider = {});
    // Takes the tags of another markup (same definition, matched by the atom's text; the old tag
    // where the markup has none), rewrites the prefix and parses anew.
    void setMarkup(const std::shared_ptr<HXMarkup> &markup, const HXIndexProvider &indexProvider);
    void setMarkup(const std::shared_ptr<HXMarkup> &markup) override {
        setMarkup(markup, HXIndexProvider());
    }
    void noteMarkupChanged() { setMarkup(markup(), HXIndexProvider()); }
    // Replaces all the text and parses it.
    void setString(const QString &string);
    void setText(const HXChunk &text);

    // The atoms of the prefix.
    HXTextAtomRef tagString() const;
    QList<HXTextAtomRef> groupTagStrings() const;
    // The atoms of the whole prefix as they stand: the groupings' and then the tag's.
    QList<HXTextAtomRef> prefixAtoms() const;
    // Whether the tag or the innermost grouping forbids parsing inside.
    bool noParsingInside() const;
    // The inner chunks.
    QList<HXChunk> children() const { return innerChunks(); }
    // The line feed at the end, if any.
    bool endsInLineFeed() const;

    // Appends the chunks and parses anew; the changed characters' range goes to `editedRange`.
    void appendChunkString(const HXChunkString &string, HXRange *editedRange = nullptr);
    // A structured copy of the range, parsed anew, since a cut may leave tags broken.
    HXRef<HXChunkString> substringWithRange(HXRange range) const override;

    using HXTextNode::replaceCharactersInRange;
    void replaceCharactersInRange(HXRange range, const HXChunk &string,
                                  HXRange *editedRange = nullptr, HXRange *affectedRange = nullptr,
                                  HXRange *replacementRange = nullptr) override;
    bool enumerateStringsAndAtomsInRange(HXRange range, const HXOpenTags &openTags, quint64 offset,
                                         const HXStringsAndAtomsBlock &block) const override;

    QString stringByRemovingObjectsAndTags() const override;
    bool isCountable() const override;
    // The new text of the head chunk for other groupings and tag, and the range it replaces:
    // texts of tags that stay are kept, new ones are made with the provider's numbers.
    void getReplacement(QString *replacement, HXRange *range, const QList<HXTextTagRef> &groupings,
                        const HXTextTagRef &tag, const HXIndexProvider &indexProvider) const;

    HXRef<HXChunkString> copyWithRange(HXRange range) const override;
    bool isEqualToChunkString(const HXChunkString &other) const override;
    bool isOfClassOf(const HXChunkString &other) const override;
    QString description() const override;
    void checkInvariants(bool deep = true) const override;

protected:
    void initWithChunkString(const HXChunkString &other, HXRange range) override;

private:
    // The head chunk as it stands in the map, or nothing when an edit has cut into it.
    const HXChunkString *headStringInPlace() const;
    // The head chunk of the prefix's atoms, as updateAtoms makes them; nothing for no text.
    HXChunk headOfPrefix(const std::optional<QStringList> &strings,
                         const HXIndexProvider &indexProvider) const;

    // Takes traits with the prefix's tags and the bookmark.
    void setExtras(const QList<HXTextTagRef> &groupings, const HXTextTagRef &tag,
                   const HXBookmarkRef &bookmark);
    // The selector is kept in the small number of the object: selectors fit in 16 bits.
    void storeRecognizedDefinitions(HXDefinitionSelector recognizedDefinitions);
};

using HXParagraphRef = HXRef<HXParagraph>;
