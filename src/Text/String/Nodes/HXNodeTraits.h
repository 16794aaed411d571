#pragma once

#include "Text/Markup/HXDefinition.h"
#include "Text/Markup/HXTextTag.h"
#include "Text/String/Atoms/HXTextAtom.h"
#include "Text/String/Meta/HXBookmark.h"
#include "Utilities/HXRef.h"

#include <QList>

#include <atomic>
#include <memory>

class HXMarkup;

// What a node is beyond its characters and flags, an entity's attributes apart: its markup and,
// for a paragraph, the tags of its prefix and its bookmark; for an element, its tag, definition
// and the atoms of its tags. Most nodes of a text are alike in these (every `**strong**` of it,
// every paragraph of a list), so they share one immutable set: a node changes its traits by
// taking another. The sets last made on a thread stand in a table of that thread, which finds the
// set for given fields; a set with a bookmark is the paragraph's own. Counts its references; any
// thread.
class HXNodeTraits {
public:
    struct Fields {
        std::shared_ptr<HXMarkup> markup;
        HXTextTagRef tag;
        QList<HXTextTagRef> groupings;
        HXBookmarkRef bookmark;
        HXDefinitionRef definition;
        HXTextAtomRef headAtom;
        HXTextAtomRef tailAtom;

        // The same objects in every field.
        bool isIdenticalTo(const Fields &other) const;
    };

    // The set of the fields: the one already made on this thread where there is one.
    static HXRef<HXNodeTraits> traitsWithFields(Fields fields);
    // The set of nothing but the markup, which every new node starts with.
    static HXRef<HXNodeTraits> traitsWithMarkup(const std::shared_ptr<HXMarkup> &markup);
    // The fields of a node without traits: all empty.
    static const Fields &noFields();

    const Fields &fields() const { return m_fields; }

    void retain() const noexcept { m_references.fetch_add(1, std::memory_order_relaxed); }
    void release() const noexcept {
        if (m_references.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }

    HXNodeTraits(const HXNodeTraits &) = delete;
    HXNodeTraits &operator=(const HXNodeTraits &) = delete;

private:
    explicit HXNodeTraits(Fields fields)
        : m_fields(std::move(fields)) {}

    Fields m_fields;
    mutable std::atomic<quint32> m_references{0};
};

using HXNodeTraitsRef = HXRef<HXNodeTraits>;
