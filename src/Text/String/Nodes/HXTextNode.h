#pragma once

#include "Text/Markup/HXTextTag.h"
#include "Text/String/Implementation/HXChunkString.h"
#include "Text/String/Nodes/HXNodeTraits.h"

#include <QList>

#include <functional>
#include <memory>

class HXMarkup;
class HXTextElement;

// The open tags of a walk over text, outermost first; nothing stands for an element or a level
// of indentation without a tag.
using HXOpenTags = QList<HXTextTagRef>;

// What a walk over strings and atoms is told: the piece (a plain text or an atom, clipped to the
// range), whether it is tag text, its location and length, the tags open around it, and a flag
// that ends the walk.
using HXStringsAndAtomsBlock =
    std::function<void(const HXChunk &piece, bool isAtom, quint64 location, quint64 length,
                       const HXOpenTags &openTags, bool &stop)>;
// What a walk over elements is told: the element, its range, and a flag that ends the walk.
using HXElementsBlock =
    std::function<void(const HXRef<HXTextElement> &element, HXRange range, bool &stop)>;

// A node of parsed text: a paragraph or an inline element. Its characters are its chunks' own,
// tag text included: the node adds structure over them, saying which runs are tag text and which
// tag they belong to, and nothing the characters don't say apart from an entity's attributes and
// a paragraph's bookmark. Abstract. Nodes are made through the factories of their kinds and held
// by HXRef; they live inside their string and are guarded by its lock.
class HXTextNode : public HXChunkString {
public:
    using KindOwner = HXTextNode;
    static constexpr bool matchesKind(HXStringObjectKind kind) {
        return kind == HXStringObjectKind::Paragraph || kind == HXStringObjectKind::TextElement;
    }

    ~HXTextNode() override;

    // The markup, like the other traits a subclass shows, stands in the node's shared traits: the
    // reference lasts until they change, so a caller that changes the node keeps a copy.
    const std::shared_ptr<HXMarkup> &markup() const { return traits().markup; }
    // Takes the markup, passes it on to inner nodes and re-keys.
    virtual void setMarkup(const std::shared_ptr<HXMarkup> &markup);

    // Replaces characters with plain text or with the chunks of a node. The outputs: the edited
    // range, in old coordinates, of the characters really exchanged; the affected range, in old
    // coordinates, of changed structure; the replacement range, in new coordinates, of what stands
    // there now. Each may be left out.
    virtual void replaceCharactersInRange(HXRange range, const HXChunk &string,
                                          HXRange *editedRange = nullptr,
                                          HXRange *affectedRange = nullptr,
                                          HXRange *replacementRange = nullptr);
    void replaceCharactersInRange(HXRange range, const QString &string) override {
        replaceCharactersInRange(range, HXChunk(string));
    }

    // Walks the text of the range in character order; locations are shifted by `offset`.
    // Returns false when the block stopped the walk.
    virtual bool enumerateStringsAndAtomsInRange(HXRange range, const HXOpenTags &openTags,
                                                 quint64 offset,
                                                 const HXStringsAndAtomsBlock &block) const;
    // Walks the elements that the range touches, outer ones first, each with its range shifted by
    // `offset`. An empty range is a cursor: it is inside an element that holds it, and behind the
    // text of an element that isn't closed; not at an element's start, nor behind a closed one.
    bool enumerateElementsInRange(HXRange range, quint64 offset,
                                  const HXElementsBlock &block) const;

    // Tag text and text without entities, as plain text.
    virtual QString stringByRemovingObjects() const;
    // Text without tags or entities.
    virtual QString stringByRemovingObjectsAndTags() const = 0;
    virtual bool isCountable() const = 0;

    bool isOfClassOf(const HXChunkString &other) const override;
    void checkInvariants(bool deep = true) const override;

protected:
    explicit HXTextNode(HXStringObjectKind kind)
        : HXChunkString(kind) {}
    void initWithChunkString(const HXChunkString &other, HXRange range) override;
    // Walks the chunks of the range: elements recursing, others delivered.
    bool enumerateChunksAsStringsAndAtoms(HXRange range, const HXOpenTags &openTags, quint64 offset,
                                          const HXStringsAndAtomsBlock &block) const;

    const HXNodeTraits::Fields &traits() const {
        return m_traits ? m_traits->fields() : HXNodeTraits::noFields();
    }
    // Takes the shared set of the fields. References to the old fields die with it: arguments
    // that may be such references are read into the fields first.
    void setTraits(HXNodeTraits::Fields fields);
    void setTraits(HXNodeTraitsRef traits) { m_traits = std::move(traits); }
    const HXNodeTraitsRef &traitsReference() const { return m_traits; }

private:
    void replaceInSingleChunk(HXRange range, const HXChunk &string, HXRange chunkRange,
                              HXRange *editedRange, HXRange *affectedRange,
                              HXRange *replacementRange);
    void replaceInMultipleChunks(HXRange range, const HXChunk &string, HXRange chunkRange,
                                 HXRange *editedRange, HXRange *affectedRange,
                                 HXRange *replacementRange);

    HXNodeTraitsRef m_traits;
};

// The chunks a new text brings into a node: its chunks if it is a node, else itself.
QList<HXChunk> HXChunksOfString(const HXChunk &string);
