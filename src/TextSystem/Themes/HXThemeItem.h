#pragma once

#include "Text/Markup/HXDefinition.h"
#include "TextSystem/Colors/HXColorIndex.h"
#include "TextSystem/Colors/HXColorPalette.h"
#include "TextSystem/Colors/HXMutableColor.h"
#include "Utilities/HXXMLElement.h"
#include "Utilities/HXXMLReading.h"

#include <QColor>
#include <QPointer>

#include <memory>
#include <optional>

class HXTheme;

// The colour parts of a theme item, in this order.
enum HXThemeColorPart : quint64 {
    HXThemeTextColorPart = 0,
    HXThemeAtomColorPart = 1, // the tag characters
    HXThemeHighlightColorPart = 2,
};
inline constexpr quint64 HXNumberOfThemeColorParts = 3;

// The bits of an item's font traits.
enum HXThemeTrait : quint64 {
    HXThemeTraitBold = 1,
    HXThemeTraitItalic = 2,
    HXThemeTraitUnderline = 4,
    HXThemeTraitStrikethrough = 8,
};
inline constexpr quint64 HXThemeAllTraits = 15;

// Posted by an item (the sender) after its colours, or its traits, changed.
inline const QString HXThemeItemChangedColor = QStringLiteral("HXThemeItemChangedColor");
inline const QString HXThemeItemChangedAttribute = QStringLiteral("HXThemeItemChangedAttribute");

// How one definition, or as a theme's default item a whole scope, looks in the editor: a colour
// index for each part (text, atom, highlight) in each mode, and font traits. An empty part takes
// what the default item of the scope says. Which parts and traits apply follows from the scope:
//
// - allowedColors (text 1, atom 2, highlight 4): 3 for attributed text (no highlight), 2 for
//   objects and lists (tags only), else 7;
// - hiddenColors: 4 (the highlight) for attributed text and objects, else 0;
// - atomTraits: the bold and italic of the traits for headings, paragraphs and groupings;
// - hiddenTraits: 12 (underline, strikethrough) for attributed text and objects, else 0.
//
// The resolved colours are cached as mutable colours that the theme updates on every change, so
// a holder of one follows the theme. An item belongs to at most one theme, which it tells of its
// changes; it never keeps the theme alive. Main thread.
class HXThemeItem : public HXXMLReading {
public:
    // The default item of the scopes of the mask (one bit in a theme).
    static std::shared_ptr<HXThemeItem> defaultItemWithScope(quint64 scopeMask);
    static std::shared_ptr<HXThemeItem> itemWithDefinition(const HXDefinitionRef &definition);
    // The same definition or scope, traits and colour indexes, in no theme.
    std::shared_ptr<HXThemeItem> copy() const;
    // Takes over the other's traits and colour indexes.
    void setUsingItem(const HXThemeItem &other);
    bool isEqualToItem(const HXThemeItem &other) const;

    HXDefinitionRef definition() const { return m_definition; }
    // The bit mask over the scopes: the definition's scope as a bit, or a default item's mask.
    quint64 scope() const;
    bool isDefaultItem() const { return !m_definition; }
    HXTheme *theme() const { return m_theme.data(); }

    quint64 traits() const { return m_traits; }
    void setTraits(quint64 traits);
    // The traits of the tag characters.
    quint64 atomTraits() const;
    quint64 allowedColors() const;
    quint64 hiddenColors() const;
    quint64 hiddenTraits() const;
    quint64 allowedTraits() const { return HXThemeAllTraits & ~hiddenTraits(); }

    // The stored place of a part, or nothing for an empty part. A part beyond 2 is the assertion
    // "Invalid part", a mode beyond 1 "Invalid mode".
    std::optional<HXColorIndex> colorIndexForPart(quint64 part, quint64 mode) const;
    void setColorIndex(const std::optional<HXColorIndex> &index, quint64 part, quint64 mode);
    // The colour the editor shows: the item's place, or for an empty part the place of the
    // scope's default item, in the theme's palette of the mode. Invalid when the part doesn't
    // apply to the item, is empty in both, or the item is in no theme.
    QColor colorForPart(quint64 part, quint64 mode) const;
    // The same colour as a holder that follows later changes.
    HXMutableColorRef mutableColorForPart(quint64 part, quint64 mode) const;
    void updateColorCacheForMode(quint64 mode);

    // Takes the literal colours of an old theme file, "text;atom;highlight" for the light mode
    // and optionally three more for the dark mode ("#rrggbb" each, empty parts allowed; without
    // dark ones the light colours serve both), as the nearest places of the theme's palettes.
    void migrateV1ColorsFromString(const QString &string);

    static QString XMLElementName() { return QStringLiteral("item"); }
    HXXMLElement XMLElement() const;
    bool readerWillStartElement(const QString &name, const HXXMLAttributes &attributes,
                                HXError *error) override;

    // Use the factories.
    HXThemeItem(HXDefinitionRef definition, quint64 scopeMask);

private:
    friend class HXTheme;
    void setTheme(HXTheme *theme) { m_theme = theme; }
    QColor resolvedColorForPart(quint64 part, quint64 mode) const;
    static void checkPartAndMode(quint64 part, quint64 mode);
    void colorsChanged();

    HXDefinitionRef m_definition;
    quint64 m_scopeMask = 0;
    quint64 m_traits = 0;
    std::optional<HXColorIndex> m_colorIndexes[HXNumberOfThemeColorParts][HXNumberOfColorModes];
    HXMutableColorRef m_colorCache[HXNumberOfThemeColorParts][HXNumberOfColorModes];
    QPointer<HXTheme> m_theme;
};

using HXThemeItemRef = std::shared_ptr<HXThemeItem>;
