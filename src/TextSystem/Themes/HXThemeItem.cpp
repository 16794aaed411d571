#include "TextSystem/Themes/HXThemeItem.h"

#include "TextSystem/Themes/HXTheme.h"
#include "Utilities/HXApplicationLog.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXNotificationCenter.h"
#include "Utilities/HXXMLReader.h"

#include <QStringList>

namespace {

constexpr quint64 attributedTextAndObjectScopes =
    HXSelectorForScope(HXAttributedTextScope) | HXSelectorForScope(HXObjectScope);
constexpr quint64 partBit(quint64 part) {
    return quint64(1) << part;
}
const QString modeAttributes[HXNumberOfColorModes] = {QStringLiteral("colorsLight"),
                                                      QStringLiteral("colorsDark")};

} // namespace

HXThemeItem::HXThemeItem(HXDefinitionRef definition, quint64 scopeMask)
    : m_definition(std::move(definition))
    , m_scopeMask(scopeMask) {
    for (auto &modes : m_colorCache) {
        for (auto &color : modes)
            color = HXMutableColor::create();
    }
}

std::shared_ptr<HXThemeItem> HXThemeItem::defaultItemWithScope(quint64 scopeMask) {
    return std::make_shared<HXThemeItem>(nullptr, scopeMask);
}

std::shared_ptr<HXThemeItem> HXThemeItem::itemWithDefinition(const HXDefinitionRef &definition) {
    HX_ASSERT(definition != nullptr, u"definition != nil");
    return std::make_shared<HXThemeItem>(definition, 0);
}

std::shared_ptr<HXThemeItem> HXThemeItem::copy() const {
    auto item = std::make_shared<HXThemeItem>(m_definition, m_scopeMask);
    item->m_traits = m_traits;
    for (quint64 part = 0; part < HXNumberOfThemeColorParts; ++part) {
        for (quint64 mode = 0; mode < HXNumberOfColorModes; ++mode)
            item->m_colorIndexes[part][mode] = m_colorIndexes[part][mode];
    }
    return item;
}

void HXThemeItem::setUsingItem(const HXThemeItem &other) {
    bool colorsDiffer = false;
    for (quint64 part = 0; part < HXNumberOfThemeColorParts; ++part) {
        for (quint64 mode = 0; mode < HXNumberOfColorModes; ++mode) {
            colorsDiffer |= m_colorIndexes[part][mode] != other.m_colorIndexes[part][mode];
            m_colorIndexes[part][mode] = other.m_colorIndexes[part][mode];
        }
    }
    if (colorsDiffer)
        colorsChanged();
    setTraits(other.m_traits);
}

bool HXThemeItem::isEqualToItem(const HXThemeItem &other) const {
    if (m_scopeMask != other.m_scopeMask || m_traits != other.m_traits ||
        !HXDefinitionsEqual(m_definition, other.m_definition))
        return false;
    for (quint64 part = 0; part < HXNumberOfThemeColorParts; ++part) {
        for (quint64 mode = 0; mode < HXNumberOfColorModes; ++mode) {
            if (m_colorIndexes[part][mode] != other.m_colorIndexes[part][mode])
                return false;
        }
    }
    return true;
}

quint64 HXThemeItem::scope() const {
    return m_definition ? quint64(HXSelectorForScope(m_definition->scope())) : m_scopeMask;
}

// --- Derived from the scope
// ---------------------------------------------------------------------------------------

quint64 HXThemeItem::allowedColors() const {
    const quint64 mask = scope();
    const bool list = m_definition && m_definition->groupingType() == HXGroupingList;
    // An object's or a list's text is not its own: only its marker takes a colour.
    const bool markerOnly = (mask & HXSelectorForScope(HXObjectScope)) || list;
    const quint64 text = markerOnly ? 0 : partBit(HXThemeTextColorPart);
    const quint64 atom = partBit(HXThemeAtomColorPart);
    if ((mask & attributedTextAndObjectScopes) || list)
        return atom | text;
    return atom | partBit(HXThemeHighlightColorPart) | text;
}

quint64 HXThemeItem::hiddenColors() const {
    return scope() & attributedTextAndObjectScopes ? 4 : 0;
}

quint64 HXThemeItem::atomTraits() const {
    constexpr quint64 blockScopes = HXSelectorForScope(HXHeadingScope) |
                                    HXSelectorForScope(HXParagraphScope) |
                                    HXSelectorForScope(HXGroupingScope);
    return scope() & blockScopes ? m_traits & (HXThemeTraitBold | HXThemeTraitItalic) : 0;
}

quint64 HXThemeItem::hiddenTraits() const {
    return scope() & attributedTextAndObjectScopes
               ? HXThemeTraitUnderline | HXThemeTraitStrikethrough
               : 0;
}

// --- Traits and colours
// ---------------------------------------------------------------------------------------

void HXThemeItem::setTraits(quint64 traits) {
    if (traits == m_traits)
        return;
    m_traits = traits;
    if (m_theme)
        m_theme->noteItemAttributeChanged(*this);
    else
        HXNotificationCenter::defaultCenter()->post(HXThemeItemChangedAttribute, this);
}

void HXThemeItem::checkPartAndMode(quint64 part, quint64 mode) {
    HX_ASSERT(part < HXNumberOfThemeColorParts, u"Invalid part");
    HX_ASSERT(mode < HXNumberOfColorModes, u"Invalid mode");
}

std::optional<HXColorIndex> HXThemeItem::colorIndexForPart(quint64 part, quint64 mode) const {
    checkPartAndMode(part, mode);
    return m_colorIndexes[part][mode];
}

void HXThemeItem::setColorIndex(const std::optional<HXColorIndex> &index, quint64 part,
                                quint64 mode) {
    checkPartAndMode(part, mode);
    if (m_colorIndexes[part][mode] == index)
        return;
    m_colorIndexes[part][mode] = index;
    colorsChanged();
}

void HXThemeItem::colorsChanged() {
    if (m_theme) {
        m_theme->noteItemColorChanged(*this);
        return;
    }
    for (quint64 mode = 0; mode < HXNumberOfColorModes; ++mode)
        updateColorCacheForMode(mode);
    HXNotificationCenter::defaultCenter()->post(HXThemeItemChangedColor, this);
}

QColor HXThemeItem::colorForPart(quint64 part, quint64 mode) const {
    checkPartAndMode(part, mode);
    return m_colorCache[part][mode]->currentColor();
}

HXMutableColorRef HXThemeItem::mutableColorForPart(quint64 part, quint64 mode) const {
    checkPartAndMode(part, mode);
    return m_colorCache[part][mode];
}

void HXThemeItem::updateColorCacheForMode(quint64 mode) {
    for (quint64 part = 0; part < HXNumberOfThemeColorParts; ++part)
        m_colorCache[part][mode]->setWithColor(resolvedColorForPart(part, mode));
}

QColor HXThemeItem::resolvedColorForPart(quint64 part, quint64 mode) const {
    if (!(allowedColors() & partBit(part)) || !m_theme)
        return QColor();
    std::optional<HXColorIndex> index = m_colorIndexes[part][mode];
    if (!index && m_definition) {
        if (const auto fallback = m_theme->defaultItemForScope(m_definition->scope()))
            index = fallback->m_colorIndexes[part][mode];
    }
    const auto palette = m_theme->paletteForMode(mode);
    // A place beyond the palette's accents (a palette cut short by hand) shows nothing rather
    // than failing the drawing.
    if (!index || !palette->hasColorForIndex(*index))
        return QColor();
    return palette->colorWithIndex(*index);
}

void HXThemeItem::migrateV1ColorsFromString(const QString &string) {
    const QStringList colors = string.split(u';');
    for (quint64 mode = 0; mode < HXNumberOfColorModes; ++mode) {
        const auto palette = m_theme ? m_theme->paletteForMode(mode) : HXColorPalette::create(mode);
        for (quint64 part = 0; part < HXNumberOfThemeColorParts; ++part) {
            // Without colours of its own the dark mode takes the light ones.
            const qsizetype at = qsizetype(colors.size() > 3 ? mode * 3 + part : part);
            const QString text = colors.value(at).trimmed();
            if (text.isEmpty()) {
                m_colorIndexes[part][mode].reset();
                continue;
            }
            const QColor color = HXMutableColor::colorFromStringRepresentation(text);
            if (!color.isValid()) {
                HXApplicationLog::sharedInstance()->logError(
                    u"No matching palette color found for color '%@'.", text);
                m_colorIndexes[part][mode].reset();
                continue;
            }
            m_colorIndexes[part][mode] = palette->matchingColorIndexForColor(color);
        }
    }
}

// --- XML
// ------------------------------------------------------------------------------------------

HXXMLElement HXThemeItem::XMLElement() const {
    HXXMLElement element(XMLElementName());
    if (m_definition)
        element.setAttribute(QStringLiteral("definition"), m_definition->identifier());
    else
        element.setAttribute(QStringLiteral("scope"), QString::number(m_scopeMask));
    for (quint64 mode = 0; mode < HXNumberOfColorModes; ++mode) {
        QStringList parts;
        for (quint64 part = 0; part < HXNumberOfThemeColorParts; ++part) {
            const auto &index = m_colorIndexes[part][mode];
            parts.append(index ? index->stringRepresentation() : QString());
        }
        element.setAttribute(modeAttributes[mode], parts.join(u';'));
    }
    element.setAttribute(QStringLiteral("traits"), QString::number(m_traits));
    return element;
}

bool HXThemeItem::readerWillStartElement(const QString &, const HXXMLAttributes &attributes,
                                         HXError *error) {
    if (attributes.contains(QStringLiteral("definition")))
        m_definition =
            HXDefinition::definitionWithIdentifier(attributes.value(QStringLiteral("definition")));
    else
        m_scopeMask = attributes.value(QStringLiteral("scope")).toULongLong();
    m_traits = attributes.value(QStringLiteral("traits")).toULongLong() & HXThemeAllTraits;

    if (attributes.contains(QStringLiteral("colors")))
        migrateV1ColorsFromString(attributes.value(QStringLiteral("colors")));
    for (quint64 mode = 0; mode < HXNumberOfColorModes; ++mode) {
        if (!attributes.contains(modeAttributes[mode]))
            continue;
        const QString value = attributes.value(modeAttributes[mode]);
        const QStringList parts = value.split(u';');
        if (parts.size() > qsizetype(HXNumberOfThemeColorParts)) {
            HXSetError(error, HXXMLReader::errorWithFailureReason(HXStringWithFormat(
                                  u"Too many colors in %@=\"%@\".", modeAttributes[mode], value)));
            return false;
        }
        for (quint64 part = 0; part < HXNumberOfThemeColorParts; ++part) {
            const QString text = parts.value(qsizetype(part));
            if (text.isEmpty()) {
                m_colorIndexes[part][mode].reset();
                continue;
            }
            m_colorIndexes[part][mode] = HXColorIndex::colorIndexFromStringRepresentation(text);
            if (!m_colorIndexes[part][mode]) {
                HXSetError(error, HXXMLReader::errorWithFailureReason(HXStringWithFormat(
                                      u"Invalid color index \"%@\" in %@=\"%@\".", text,
                                      modeAttributes[mode], value)));
                return false;
            }
        }
    }
    return true;
}
