#include "TextSystem/Colors/HXColorPalette.h"

#include "TextSystem/Colors/HXMutableColor.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXNotificationCenter.h"
#include "Utilities/HXXMLReader.h"

#include <limits>

namespace {

const QString backgroundIdentifier = QStringLiteral("background");
const QString foregroundIdentifier = QStringLiteral("foreground");
const QString backgroundName = QStringLiteral("Background");
const QString foregroundName = QStringLiteral("Foreground");

// Component by component, including alpha, from one colour towards the other.
QColor blended(const QColor &from, const QColor &to, double fraction) {
    auto mix = [fraction](float a, float b) { return float(a + (b - a) * fraction); };
    return QColor::fromRgbF(mix(from.redF(), to.redF()), mix(from.greenF(), to.greenF()),
                            mix(from.blueF(), to.blueF()), mix(from.alphaF(), to.alphaF()));
}

// One colour of a "palette" element: an accent, or with its identifier the background or the
// foreground.
class HXColorPaletteItem : public HXXMLReading {
public:
    static QString XMLElementName() { return QStringLiteral("color"); }

    static HXXMLElement XMLElement(const QColor &color, const QString &identifier) {
        HXXMLElement element(XMLElementName());
        if (!identifier.isEmpty())
            element.setAttribute(QStringLiteral("identifier"), identifier);
        element.setAttribute(QStringLiteral("value"),
                             HXMutableColor::stringRepresentationOfColor(color));
        return element;
    }

    bool readerWillStartElement(const QString &, const HXXMLAttributes &attributes,
                                HXError *error) override {
        identifier = attributes.value(QStringLiteral("identifier"));
        const QString value = attributes.value(QStringLiteral("value"));
        color = HXMutableColor::colorFromStringRepresentation(value);
        if (!color.isValid()) {
            HXSetError(error, HXXMLReader::errorWithFailureReason(
                                  HXStringWithFormat(u"Invalid palette color \"%@\".", value)));
            return false;
        }
        return true;
    }

    QColor color;
    QString identifier;
};

} // namespace

HXColorPalette::HXColorPalette(quint64 mode)
    : m_mode(mode)
    , m_backgroundColor(mode == HXColorModeDark ? Qt::black : Qt::white)
    , m_foregroundColor(mode == HXColorModeDark ? Qt::white : Qt::black) {}

std::shared_ptr<HXColorPalette> HXColorPalette::copy() const {
    auto palette = create(m_mode);
    palette->m_backgroundColor = m_backgroundColor;
    palette->m_foregroundColor = m_foregroundColor;
    palette->m_accentColors = m_accentColors;
    return palette;
}

void HXColorPalette::postChange() {
    HXNotificationCenter::defaultCenter()->post(HXColorPaletteChanged, this);
}

void HXColorPalette::setBackgroundColor(const QColor &color) {
    HX_ASSERT(color.isValid(), u"color != nil");
    if (color == m_backgroundColor)
        return;
    m_backgroundColor = color;
    postChange();
}

void HXColorPalette::setForegroundColor(const QColor &color) {
    HX_ASSERT(color.isValid(), u"color != nil");
    if (color == m_foregroundColor)
        return;
    m_foregroundColor = color;
    postChange();
}

void HXColorPalette::setAccentColor(const QColor &color, quint64 index) {
    HX_ASSERT(index < HXColorIndex::maximumAccentCount, u"index < 20");
    HX_ASSERT(color.isValid(), u"color != nil");
    if (index < quint64(m_accentColors.size()) && m_accentColors.at(qsizetype(index)) == color)
        return;
    while (quint64(m_accentColors.size()) <= index)
        m_accentColors.append(m_foregroundColor);
    m_accentColors[qsizetype(index)] = color;
    postChange();
}

QList<quint64> HXColorPalette::allIndexes() const {
    QList<quint64> indexes;
    for (qsizetype i = 0; i < m_accentColors.size(); ++i)
        indexes.append(quint64(i));
    indexes << HXColorIndex::greyRampIndex << HXColorIndex::backgroundBlendIndex;
    return indexes;
}

bool HXColorPalette::hasColorForIndex(const HXColorIndex &index) const {
    return !index.isAccent() || index.index() < quint64(m_accentColors.size());
}

QColor HXColorPalette::colorWithIndex(const HXColorIndex &index) const {
    const qint64 offset = index.offset();
    if (index.index() == HXColorIndex::greyRampIndex) {
        const double level = 1.0 - double(offset) * 0.1;
        return QColor::fromRgbF(float(level), float(level), float(level));
    }
    if (index.index() == HXColorIndex::backgroundBlendIndex)
        return blended(m_backgroundColor, m_foregroundColor, double(offset) * 0.1);
    HX_ASSERT(index.index() < quint64(m_accentColors.size()), u"index < self.accentColors.count");
    const QColor &accent = m_accentColors.at(qsizetype(index.index()));
    // The two sides differ on purpose: the darkest step of one side is not the lightest of the
    // other.
    if (offset < 0)
        return blended(accent, m_backgroundColor, double(offset) / -5.0 * 0.9);
    if (offset > 0)
        return blended(accent, m_foregroundColor, double(offset) / 5.0 * 0.7);
    return accent;
}

HXColorIndex HXColorPalette::matchingColorIndexForColor(const QColor &color) const {
    const QColor target = color.toRgb();
    std::optional<HXColorIndex> best;
    double bestDistance = std::numeric_limits<double>::infinity();
    for (const quint64 index : allIndexes()) {
        // Offsets -5 to 5; the ramps count from 0.
        const qint64 shift = index < HXColorIndex::maximumAccentCount ? 0 : 5;
        for (qint64 offset = -5; offset <= 5; ++offset) {
            const HXColorIndex place = HXColorIndex::colorIndexWithIndex(index, offset + shift);
            const QColor candidate = colorWithIndex(place);
            const double red = candidate.redF() - target.redF();
            const double green = candidate.greenF() - target.greenF();
            const double blue = candidate.blueF() - target.blueF();
            const double distance = red * red + green * green + blue * blue;
            if (distance < bestDistance) {
                bestDistance = distance;
                best = place;
            }
        }
    }
    return *best;
}

void HXColorPalette::setUsingColorPalette(const HXColorPalette &other) {
    if (m_backgroundColor == other.m_backgroundColor &&
        m_foregroundColor == other.m_foregroundColor && m_accentColors == other.m_accentColors)
        return;
    m_backgroundColor = other.m_backgroundColor;
    m_foregroundColor = other.m_foregroundColor;
    m_accentColors = other.m_accentColors;
    postChange();
}

bool HXColorPalette::isEqual(const HXColorPalette &other) const {
    return m_mode == other.m_mode && m_backgroundColor == other.m_backgroundColor &&
           m_foregroundColor == other.m_foregroundColor && m_accentColors == other.m_accentColors;
}

HXColorList HXColorPalette::colorListRepresentationWithName(const QString &name) const {
    HXColorList list{name,
                     {{backgroundName, m_backgroundColor}, {foregroundName, m_foregroundColor}}};
    for (qsizetype i = 0; i < m_accentColors.size(); ++i)
        list.colors.append({HXStringWithFormat(u"Accent #%ld", i), m_accentColors.at(i)});
    return list;
}

std::shared_ptr<HXColorPalette> HXColorPalette::colorPaletteFromColorList(const HXColorList &list,
                                                                          quint64 mode) {
    auto palette = create(mode);
    for (const auto &[name, color] : list.colors) {
        if (!color.isValid())
            continue;
        if (name == backgroundName)
            palette->m_backgroundColor = color;
        else if (name == foregroundName)
            palette->m_foregroundColor = color;
        else if (quint64(palette->m_accentColors.size()) < HXColorIndex::maximumAccentCount)
            palette->m_accentColors.append(color);
    }
    return palette;
}

// --- XML
// ------------------------------------------------------------------------------------------

HXXMLElement HXColorPalette::XMLElement() const {
    HXXMLElement element(XMLElementName());
    element.setAttribute(QStringLiteral("version"), QString::number(currentVersion));
    element.setAttribute(QStringLiteral("mode"), m_mode == HXColorModeDark
                                                     ? QStringLiteral("dark")
                                                     : QStringLiteral("light"));
    QList<HXXMLElement> children{
        HXColorPaletteItem::XMLElement(m_backgroundColor, backgroundIdentifier),
        HXColorPaletteItem::XMLElement(m_foregroundColor, foregroundIdentifier)};
    for (const QColor &accent : m_accentColors)
        children.append(HXColorPaletteItem::XMLElement(accent, QString()));
    for (HXXMLElement &child : children) {
        element.addText(QStringLiteral("\n\t\t"));
        element.addChild(std::move(child));
    }
    element.addText(QStringLiteral("\n\t"));
    return element;
}

bool HXColorPalette::readerWillStartElement(const QString &, const HXXMLAttributes &attributes,
                                            HXError *error) {
    const qint64 version = attributes.value(QStringLiteral("version")).toLongLong();
    if (version > currentVersion) {
        HXSetError(error, HXXMLReader::errorWithFailureReason(HXStringWithFormat(
                              u"Incompatible theme format version: %li.", version)));
        return false;
    }
    m_mode =
        attributes.value(QStringLiteral("mode")) == u"dark" ? HXColorModeDark : HXColorModeLight;
    m_accentColors.clear();
    return true;
}

std::shared_ptr<HXXMLReading>
HXColorPalette::readerDidFindChildElement(const QString &name, HXXMLReaderContext *, HXError *) {
    if (name == HXColorPaletteItem::XMLElementName())
        return std::make_shared<HXColorPaletteItem>();
    return nullptr;
}

bool HXColorPalette::readerDidEndChildElement(const std::shared_ptr<HXXMLReading> &child,
                                              HXXMLReaderContext *, HXError *) {
    const auto item = std::dynamic_pointer_cast<HXColorPaletteItem>(child);
    if (!item)
        return true;
    if (item->identifier == backgroundIdentifier) {
        m_backgroundColor = item->color;
    } else if (item->identifier == foregroundIdentifier) {
        m_foregroundColor = item->color;
    } else {
        HX_ASSERT(quint64(m_accentColors.size()) < HXColorIndex::maximumAccentCount, u"index < 20");
        m_accentColors.append(item->color);
    }
    return true;
}
