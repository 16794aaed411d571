#pragma once

#include "TextSystem/Colors/HXColorIndex.h"
#include "Utilities/HXXMLElement.h"
#include "Utilities/HXXMLReading.h"

#include <QColor>
#include <QList>
#include <QString>

#include <memory>
#include <utility>

// The modes a palette serves.
enum HXColorMode : quint64 {
    HXColorModeLight = 0,
    HXColorModeDark = 1,
};
inline constexpr quint64 HXNumberOfColorModes = 2;

// Posted by a palette after any of its colours changed; the sender is the palette.
inline const QString HXColorPaletteChanged = QStringLiteral("HXColorPaletteChanged");

// Named colours in order, the form in which palettes are exchanged and offered for picking.
struct HXColorList {
    QString name;
    QList<std::pair<QString, QColor>> colors;
};

// The actual colours behind colour indexes for one mode: a background, a foreground and up to
// 20 accents. A colour index resolves against it (colorWithIndex), and any colour finds its
// nearest index (matchingColorIndexForColor). Kept in a theme's file as a "palette" element.
// Each change posts HXColorPaletteChanged. Shared by its theme; main thread.
class HXColorPalette : public HXXMLReading {
public:
    // White on black for the dark mode, black on white otherwise; no accents.
    explicit HXColorPalette(quint64 mode = HXColorModeLight);
    static std::shared_ptr<HXColorPalette> create(quint64 mode = HXColorModeLight) {
        return std::make_shared<HXColorPalette>(mode);
    }
    std::shared_ptr<HXColorPalette> copy() const;

    quint64 mode() const { return m_mode; }
    void setMode(quint64 mode) { m_mode = mode; }
    QColor backgroundColor() const { return m_backgroundColor; }
    void setBackgroundColor(const QColor &color);
    QColor foregroundColor() const { return m_foregroundColor; }
    void setForegroundColor(const QColor &color);
    const QList<QColor> &accentColors() const { return m_accentColors; }
    // Replaces the accent at the index, or adds it at the end; the positions between the end
    // and the index take the foreground colour. Asserts "index < 20" and "color != nil".
    void setAccentColor(const QColor &color, quint64 index);
    // The positions of the accents, then 4096 and 4097.
    QList<quint64> allIndexes() const;

    // The colour of a place. An accent beyond the list is the assertion
    // "index < self.accentColors.count".
    QColor colorWithIndex(const HXColorIndex &index) const;
    // Whether the place has a colour here: a ramp, or an accent the palette has.
    bool hasColorForIndex(const HXColorIndex &index) const;
    // The place nearest to the colour by the squared distance of the RGB components; of equal
    // distances the first in the order of allIndexes and offsets wins.
    HXColorIndex matchingColorIndexForColor(const QColor &color) const;

    // Takes over the other's colours; the palette keeps serving its mode.
    void setUsingColorPalette(const HXColorPalette &other);
    bool isEqual(const HXColorPalette &other) const;

    // "Background", "Foreground", then the accents as "Accent #0", "Accent #1", ...
    HXColorList colorListRepresentationWithName(const QString &name) const;
    // Entries named "Background" and "Foreground" set those; the others in order are the
    // accents, the first 20 of them.
    static std::shared_ptr<HXColorPalette> colorPaletteFromColorList(const HXColorList &list,
                                                                     quint64 mode);

    static QString XMLElementName() { return QStringLiteral("palette"); }
    HXXMLElement XMLElement() const;
    static constexpr qint64 currentVersion = 1;

    bool readerWillStartElement(const QString &name, const HXXMLAttributes &attributes,
                                HXError *error) override;
    std::shared_ptr<HXXMLReading> readerDidFindChildElement(const QString &name,
                                                            HXXMLReaderContext *context,
                                                            HXError *error) override;
    bool readerDidEndChildElement(const std::shared_ptr<HXXMLReading> &child,
                                  HXXMLReaderContext *context, HXError *error) override;

private:
    void postChange();

    quint64 m_mode;
    QColor m_backgroundColor;
    QColor m_foregroundColor;
    QList<QColor> m_accentColors;
};

using HXColorPaletteRef = std::shared_ptr<HXColorPalette>;
