#pragma once

#include "Model/Stores/HXPresetObject.h"
#include "Text/Markup/HXDefinition.h"
#include "TextSystem/Colors/HXColorPalette.h"
#include "TextSystem/Themes/HXThemeItem.h"
#include "Utilities/HXNotificationCenter.h"
#include "Utilities/HXXMLReading.h"

#include <QColor>
#include <QMap>

#include <memory>

// Posted by a theme (the sender) after colours, or traits, of it changed; once at the end of a
// batch of changes between beginEditing and endEditing.
inline const QString HXThemeChangedColor = QStringLiteral("HXThemeChangedColor");
inline const QString HXThemeChangedAttribute = QStringLiteral("HXThemeChangedAttribute");

// Errors of reading a theme.
inline const QString HXThemeErrorDomain = QStringLiteral("HXThemeErrorDomain");
enum HXThemeErrorCode : qint64 {
    HXThemeFileCorruptedError = 1,        // the package holds no "Theme.xml"
    HXThemeInvalidFormatVersionError = 2, // written by a newer version
    HXThemeLoadingError = 3,              // "Theme.xml" can't be read
};

// How each definition looks in the editor: a palette for each mode, a default item for each
// scope and items for the definitions that differ from their scope's default. A preset object:
// the package "<identifier>.velmoratheme" is a folder holding "Theme.xml" (an old theme is that
// file alone, "<identifier>.xml"). Built-in themes come from the resources and are never
// changed; the user's are kept by the theme store.
//
// Every change of colours or traits raises `change` at once and posts HXThemeChangedColor or
// HXThemeChangedAttribute (with the item's own notification), held back while editing and
// posted once at its end. Owned through a shared pointer; main thread.
class HXTheme : public HXPresetObject, public HXXMLReading {
    Q_OBJECT
public:
    // Default palettes and default items: foreground text, a grey between background and
    // foreground for tags.
    HXTheme();
    ~HXTheme() override;

    // Reads a package, a ZIP archive of one, or an old single "<identifier>.xml" file; the
    // identifier is the file name less its extension. Nothing with the error when it can't.
    static std::shared_ptr<HXTheme> themeWithContentsOfURL(const QString &url, bool isBuiltin,
                                                           HXError *error);
    // The themes of the resources by identifier, read once.
    static const QMap<QString, std::shared_ptr<HXTheme>> &builtinThemes();
    // A theme of the user's with the same look, a display name and a new identifier.
    std::shared_ptr<HXTheme> duplicate() const;

    // The definition's own item, else the default item of its scope; never null (the paragraph
    // scope's for no definition).
    std::shared_ptr<HXThemeItem> usedItemForDefinition(const HXDefinitionRef &definition) const;
    // The default item of a scope index, 0 to 5; null beyond.
    std::shared_ptr<HXThemeItem> defaultItemForScope(quint64 scope) const;
    // The definition's own item; with `createIfNeeded` an empty one is made for it.
    std::shared_ptr<HXThemeItem> itemForDefinition(const HXDefinitionRef &definition,
                                                   bool createIfNeeded = false);
    void removeItemForDefinition(const HXDefinitionRef &definition);
    // The definitions' items by scope, then identifier: the order of the file.
    QList<std::shared_ptr<HXThemeItem>> definitionItems() const;

    // A mode beyond 1 is the assertion "Invalid mode".
    std::shared_ptr<HXColorPalette> paletteForMode(quint64 mode) const;
    // Takes the palette for the mode (setting its mode to match).
    void setPalette(const std::shared_ptr<HXColorPalette> &palette, quint64 mode);
    // The theme's own colour of a part: that of the paragraph scope, for text the foreground
    // when it has none, for tags the text colour.
    QColor colorForPart(quint64 part, quint64 mode) const;

    // Changes between these post their notifications once, at the end. They nest.
    void beginEditing();
    void endEditing();
    bool isEditing() const { return m_editing > 0; }
    // Grows with every change of colours or traits.
    quint64 change() const { return m_change; }
    // Called by the theme's items after they changed.
    void noteItemColorChanged(HXThemeItem &item);
    void noteItemAttributeChanged(HXThemeItem &item);

    // Sets the palettes from an old theme's names, "name;name" for the light and the dark mode.
    // Old themes named the palettes the application brought, which are now those of the
    // built-in themes: "<theme identifier>.light" or ".dark". An unknown name keeps the default.
    void migrateV1PalettesFromNames(const QString &names);

    // "Theme.xml" and its reading. The file name in errors is `name`.
    QByteArray XMLData() const;
    HXXMLElement XMLElement() const;
    bool readFromData(const QByteArray &data, const QString &name, HXError *error);
    static QString XMLElementName() { return QStringLiteral("theme"); }
    static constexpr qint64 currentVersion = 2;
    static inline const QString themeFilename = QStringLiteral("Theme.xml");
    static inline const QString itemPathExtension = QStringLiteral("velmoratheme");
    static inline const QString v1ThemePathExtension = QStringLiteral("xml");
    static inline const QString fileType = QStringLiteral("com.quaytor.velmora3.theme");

    // Preset object.
    std::shared_ptr<HXPresetObject> copy() const override;
    void setUsingObject(const HXPresetObject &other) override;
    bool isEqualToObject(const HXPresetObject &other) const override;
    QString pathExtension() const override { return itemPathExtension; }
    HXFileWrapperRef rawFileWrapper(HXError *error) const override;

    bool readerWillStartElement(const QString &name, const HXXMLAttributes &attributes,
                                HXError *error) override;
    std::shared_ptr<HXXMLReading> readerDidFindChildElement(const QString &name,
                                                            HXXMLReaderContext *context,
                                                            HXError *error) override;
    bool readerDidEndChildElement(const std::shared_ptr<HXXMLReading> &child,
                                  HXXMLReaderContext *context, HXError *error) override;
    bool readerWillEndElement(HXXMLReaderContext *context, HXError *error) override;

Q_SIGNALS:
    // After each change of colours or traits, at the end of a batch; the store writes then.
    void contentsChanged();

protected:
    bool readContentsOfFileWrapper(const HXFileWrapper &wrapper, HXError *error) override;

private:
    void resetContents();
    void installPalette(const std::shared_ptr<HXColorPalette> &palette, quint64 mode);
    void installDefaultItem(const std::shared_ptr<HXThemeItem> &item, quint64 scope);
    void noteColorsChanged();
    void updateColorCaches();
    // Posts now, or at the end of the batch.
    void post(const QString &name, const void *sender);
    HXError loadingError(const QString &name, const QString &reason) const;

    std::shared_ptr<HXColorPalette> m_palettes[HXNumberOfColorModes];
    HXNotificationObservation m_paletteObservations[HXNumberOfColorModes];
    std::shared_ptr<HXThemeItem> m_defaultItems[HXNumberOfScopes];
    QMap<QString, std::shared_ptr<HXThemeItem>> m_items;
    int m_editing = 0;
    quint64 m_change = 0;
    QList<std::pair<QString, const void *>> m_pendingNotifications;
    bool m_pendingContentsChange = false;
    // The theme's own colours, for the change they were made at.
    mutable QColor m_primaryColorCache[HXNumberOfThemeColorParts][HXNumberOfColorModes];
    mutable quint64 m_primaryColorChange = ~quint64(0);

    // While reading: the file named in errors, whether the theme is built in, whether the file
    // has a display name.
    QString m_readingName;
    bool m_loadingBuiltin = false;
    // A built-in theme's name from the string table: not written into its file.
    bool m_localizedDisplayName = false;
};

using HXThemeRef = std::shared_ptr<HXTheme>;
