#pragma once

#include "Text/Markup/HXTagAttribute.h"

#include <QList>
#include <QString>
#include <QVariantMap>

#include <atomic>
#include <memory>

class HXDefinition;
class HXMarkup;
class HXString;
using HXDefinitionRef = std::shared_ptr<const HXDefinition>;

// Where a definition's tags stand: before a paragraph, as a block tag of a paragraph, nesting
// paragraphs, or inline.
enum HXDefinitionScope : quint64 {
    HXHeadingScope = 0,
    HXParagraphScope = 1,
    HXGroupingScope = 2,
    HXTextScope = 3,
    HXAttributedTextScope = 4,
    HXObjectScope = 5,
};
inline constexpr quint64 HXNumberOfScopes = 6;

// How a line-level tag takes part in the groupings of a paragraph.
enum HXGroupingType : quint64 {
    HXGroupingNone = 0,     // the tag is the paragraph's tag
    HXGroupingTerminal = 1, // ends the search for more prefix tags: code blocks, comments
    HXGroupingNesting = 2,  // more prefix tags may follow: block quotes
    HXGroupingList = 3,     // nesting, and the marker must be followed by a blank
};

// Bits of a definition's counting options.
enum HXCountingOption : quint64 {
    HXCountingExcludedFromNumbering = 1, // left out of the running numbering of paragraphs
    HXCountingNotCountable = 2,          // the text isn't counted
    HXCountingAttributesNotCounted = 4,  // the element's attributes aren't counted
};

// A definition selector: the bits of the scopes it selects, and options.
using HXDefinitionSelector = qint64;
constexpr HXDefinitionSelector HXSelectorForScope(quint64 scope) {
    return qint64(1) << scope;
}
inline constexpr HXDefinitionSelector HXDefaultDefinitionSelector = 63;
inline constexpr HXDefinitionSelector HXSelectorAllScopes = 0x3ff;
// All but the three paragraph-level scopes.
inline constexpr HXDefinitionSelector HXSelectorInlineOnly = -8;
// Inline definitions whose elements carry a nested string don't match: no footnote in a footnote.
inline constexpr HXDefinitionSelector HXSelectorNoNestedStrings = 0x400;
inline constexpr HXDefinitionSelector HXSelectorAllowsFilename = 0x800;
inline constexpr HXDefinitionSelector HXSelectorNoBookmarks = 0x1000;
inline constexpr HXDefinitionSelector HXSelectorNoMedia = 0x2000;
// What the nested strings of attributes recognize.
inline constexpr HXDefinitionSelector HXNestedStringDefinitionSelector = 1080;

// What a piece of text means, apart from how a markup writes it: a heading of level 2, strong
// text, an image. Abstract: the built-in definitions and those that markup files bring are its
// kinds. Everything but identifier, scope and intrinsic is read from the properties. Immutable
// once made and shared; any thread.
class HXDefinition {
public:
    virtual ~HXDefinition() = default;

    virtual QString identifier() const = 0;
    virtual quint64 scope() const = 0;
    virtual QVariantMap properties() const = 0;
    // The attributes that elements of the definition carry, in order; the key `attributes`.
    virtual QList<HXTagAttributeRef> attributes() const = 0;
    virtual bool isIntrinsic() const = 0;

    quint64 headingLevel() const;
    quint64 groupingType() const;
    bool noGroupingAllowed() const;
    bool overrideColors() const;
    bool noParsingInside() const;
    quint64 countingOptions() const;
    // The name exporters use: the stored one, else the identifier with its camel case turned into
    // dashes ("inlineNative" gives "inline-native").
    QString userCodeName() const;
    virtual QString displayName() const;
    QString shortName() const;
    // The place in the list of its scope; that list's length for a definition that isn't listed.
    qsizetype ordering() const;
    // The text that explains the definition to the user, as it is written in the description
    // table, and that text parsed under the markup the descriptions are written in.
    QString userDescriptionText() const;
    std::shared_ptr<HXString> userDescription() const;
    static std::shared_ptr<HXMarkup> userDescriptionMarkup();

    // Whether the definition is one the selector selects; see the selector constants.
    bool matchesSelector(HXDefinitionSelector selector) const;

    // Same scope, identifier, properties and attributes.
    bool isEqual(const HXDefinition &other) const;
    size_t hash() const;
    QString description() const;

    // The built-in definition of that identifier, or nothing.
    static HXDefinitionRef definitionWithIdentifier(const QString &identifier);
    // The built-in definitions of the scopes whose bits are set, by scope, then in table order.
    static QList<HXDefinitionRef> availableDefinitionsForScopes(HXDefinitionSelector scopes);
    static QString displayNameForScope(quint64 scope);
    // The names of scopes in files: "heading", "paragraph", "grouping", "text", "attributedText",
    // "object".
    static QString nameForScope(quint64 scope);
    // The scope of a name; false in `ok` for a name that is none.
    static quint64 scopeForName(const QString &name, bool *ok);
    static QString userCodeNameForIdentifier(const QString &identifier);

protected:
    HXDefinition() = default;
    // Kinds whose properties change while they are made say so, before anyone reads them.
    void propertiesChanged() { m_cacheReady.store(false, std::memory_order_relaxed); }

private:
    // The properties the parser asks for at every tag, read from the map once.
    struct CachedProperties {
        quint64 headingLevel = 0;
        quint64 groupingType = 0;
        quint64 countingOptions = 0;
        bool noGroupingAllowed = false;
        bool overrideColors = false;
        bool noParsingInside = false;
    };
    const CachedProperties &cachedProperties() const;

    mutable std::atomic<bool> m_cacheReady{false};
    mutable CachedProperties m_cache;
};

// Equality of definitions that may be missing.
bool HXDefinitionsEqual(const HXDefinitionRef &a, const HXDefinitionRef &b);
