#include "TextSystem/Themes/HXTheme.h"

#include "Utilities/HXApplicationLog.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXLocalizedString.h"
#include "Utilities/HXLocations.h"
#include "Utilities/HXUniqueIdentifier.h"
#include "Utilities/HXXMLReader.h"

#include <QDir>
#include <QFileInfo>

#include <bit>

namespace {

const QString stringTable = QStringLiteral("HXTheme");
const QString namesTable = QStringLiteral("HXThemeNames");

// Set while the built-in themes are read, so that nothing read then asks for them.
thread_local bool readingBuiltinThemes = false;

void checkMode(quint64 mode) {
    HX_ASSERT(mode < HXNumberOfColorModes, u"Invalid mode");
}

HXError themeError(qint64 code, const QString &name, const QString &description,
                   const QString &reason) {
    return HXError::withDescription(HXThemeErrorDomain, code, description, reason)
        .withUserInfoValue(HXFilePathErrorKey, name);
}

} // namespace

HXTheme::HXTheme() {
    resetContents();
}

HXTheme::~HXTheme() {
    for (const auto &item : std::as_const(m_defaultItems))
        item->setTheme(nullptr);
    for (const auto &item : std::as_const(m_items))
        item->setTheme(nullptr);
}

void HXTheme::resetContents() {
    for (quint64 mode = 0; mode < HXNumberOfColorModes; ++mode)
        installPalette(HXColorPalette::create(mode), mode);
    for (quint64 scope = 0; scope < HXNumberOfScopes; ++scope) {
        const auto item = HXThemeItem::defaultItemWithScope(quint64(HXSelectorForScope(scope)));
        for (quint64 mode = 0; mode < HXNumberOfColorModes; ++mode) {
            if (scope == HXHeadingScope || scope == HXParagraphScope)
                item->m_colorIndexes[HXThemeTextColorPart][mode] =
                    HXColorIndex::colorIndexWithIndex(HXColorIndex::backgroundBlendIndex, 10);
            item->m_colorIndexes[HXThemeAtomColorPart][mode] =
                HXColorIndex::colorIndexWithIndex(HXColorIndex::backgroundBlendIndex, 6);
        }
        if (scope == HXHeadingScope)
            item->m_traits = HXThemeTraitBold;
        installDefaultItem(item, scope);
    }
    for (const auto &item : std::as_const(m_items))
        item->setTheme(nullptr);
    m_items.clear();
    updateColorCaches();
}

void HXTheme::installPalette(const std::shared_ptr<HXColorPalette> &palette, quint64 mode) {
    palette->setMode(mode);
    m_palettes[mode] = palette;
    m_paletteObservations[mode] = HXNotificationCenter::defaultCenter()->addObserver(
        HXColorPaletteChanged, [this](const HXNotification &) { noteColorsChanged(); },
        palette.get());
}

void HXTheme::installDefaultItem(const std::shared_ptr<HXThemeItem> &item, quint64 scope) {
    if (m_defaultItems[scope])
        m_defaultItems[scope]->setTheme(nullptr);
    item->setTheme(this);
    m_defaultItems[scope] = item;
}

// --- Built-in themes and copies
// ---------------------------------------------------------------------------------------

std::shared_ptr<HXTheme> HXTheme::themeWithContentsOfURL(const QString &url, bool isBuiltin,
                                                         HXError *error) {
    auto theme = std::make_shared<HXTheme>();
    theme->m_loadingBuiltin = isBuiltin;
    theme->m_readingName = url;
    const QFileInfo info(url);
    bool read = false;
    if (info.isFile() && info.suffix() == v1ThemePathExtension) {
        // An old theme: the file alone, taken as the package's "Theme.xml".
        if (const HXFileWrapperRef file = HXFileWrapper::fileWrapperWithPath(url, error)) {
            const auto package =
                HXFileWrapper::directoryWithFileWrappers({{themeFilename, file}}, info.fileName());
            read = theme->setUpUsingFileWrapper(*package, isBuiltin, error);
        }
    } else {
        read = theme->initWithContentsOfURL(url, isBuiltin, error);
    }
    theme->m_loadingBuiltin = false;
    theme->m_readingName.clear();
    if (!read)
        return nullptr;
    theme->setIdentifier(info.completeBaseName());
    return theme;
}

const QMap<QString, std::shared_ptr<HXTheme>> &HXTheme::builtinThemes() {
    static const QMap<QString, std::shared_ptr<HXTheme>> themes = [] {
        readingBuiltinThemes = true;
        QMap<QString, std::shared_ptr<HXTheme>> result;
        const QDir folder(QStringLiteral(":/Themes"));
        for (const QFileInfo &info : folder.entryInfoList(
                 {QStringLiteral("*.") + itemPathExtension}, QDir::Dirs, QDir::Name)) {
            HXError error;
            if (const auto theme = themeWithContentsOfURL(info.filePath(), true, &error))
                result.insert(theme->identifier(), theme);
            else
                HXApplicationLog::sharedInstance()->logError(
                    u"Unable to read built-in theme %@. Error: %@.", info.fileName(),
                    error.localizedFailureReason());
        }
        readingBuiltinThemes = false;
        return result;
    }();
    return themes;
}

std::shared_ptr<HXPresetObject> HXTheme::copy() const {
    auto theme = std::make_shared<HXTheme>();
    theme->m_localizedDisplayName = m_localizedDisplayName;
    theme->m_loadingBuiltin = isBuiltin();
    const bool copied =
        theme->setUpUsingFileWrapper(*rawFileWrapper(nullptr), isBuiltin(), nullptr);
    HX_ASSERT(copied, u"Theme '%@' can't be copied.", identifier());
    theme->m_loadingBuiltin = false;
    return theme;
}

std::shared_ptr<HXTheme> HXTheme::duplicate() const {
    auto theme = std::make_shared<HXTheme>();
    const bool copied = theme->setUpUsingFileWrapper(*rawFileWrapper(nullptr), false, nullptr);
    HX_ASSERT(copied, u"Theme '%@' can't be copied.", identifier());
    theme->setIdentifier(HXNewUniqueIdentifier());
    return theme;
}

void HXTheme::setUsingObject(const HXPresetObject &other) {
    HXPresetObject::setUsingObject(other);
    if (isBuiltin() || isEqualToObject(other))
        return;
    const auto &theme = static_cast<const HXTheme &>(other);
    beginEditing();
    for (quint64 mode = 0; mode < HXNumberOfColorModes; ++mode)
        m_palettes[mode]->setUsingColorPalette(*theme.m_palettes[mode]);
    for (quint64 scope = 0; scope < HXNumberOfScopes; ++scope)
        m_defaultItems[scope]->setUsingItem(*theme.m_defaultItems[scope]);
    const auto items = m_items;
    for (const auto &item : items) {
        if (!theme.m_items.contains(item->definition()->identifier()))
            removeItemForDefinition(item->definition());
    }
    for (const auto &item : theme.m_items)
        itemForDefinition(item->definition(), true)->setUsingItem(*item);
    endEditing();
}

bool HXTheme::isEqualToObject(const HXPresetObject &other) const {
    if (!HXPresetObject::isEqualToObject(other))
        return false;
    const auto &theme = static_cast<const HXTheme &>(other);
    for (quint64 mode = 0; mode < HXNumberOfColorModes; ++mode) {
        if (!m_palettes[mode]->isEqual(*theme.m_palettes[mode]))
            return false;
    }
    for (quint64 scope = 0; scope < HXNumberOfScopes; ++scope) {
        if (!m_defaultItems[scope]->isEqualToItem(*theme.m_defaultItems[scope]))
            return false;
    }
    if (m_items.keys() != theme.m_items.keys())
        return false;
    for (auto it = m_items.cbegin(); it != m_items.cend(); ++it) {
        if (!it.value()->isEqualToItem(*theme.m_items.value(it.key())))
            return false;
    }
    return true;
}

HXFileWrapperRef HXTheme::rawFileWrapper(HXError *) const {
    QMap<QString, HXFileWrapperRef> files = commonFileWrappers();
    files.insert(themeFilename, HXFileWrapper::regularFileWithContents(XMLData(), themeFilename));
    return HXFileWrapper::directoryWithFileWrappers(files, preferredFilename());
}

// --- Items and palettes
// ---------------------------------------------------------------------------------------

std::shared_ptr<HXThemeItem>
HXTheme::usedItemForDefinition(const HXDefinitionRef &definition) const {
    if (!definition)
        return m_defaultItems[HXParagraphScope];
    if (const auto item = m_items.value(definition->identifier()))
        return item;
    const auto fallback = defaultItemForScope(definition->scope());
    return fallback ? fallback : m_defaultItems[HXParagraphScope];
}

std::shared_ptr<HXThemeItem> HXTheme::defaultItemForScope(quint64 scope) const {
    return scope < HXNumberOfScopes ? m_defaultItems[scope] : nullptr;
}

std::shared_ptr<HXThemeItem> HXTheme::itemForDefinition(const HXDefinitionRef &definition,
                                                        bool createIfNeeded) {
    if (!definition)
        return nullptr;
    auto item = m_items.value(definition->identifier());
    if (item || !createIfNeeded)
        return item;
    // An empty item looks like the scope's default: nothing to tell but the file's change.
    item = HXThemeItem::itemWithDefinition(definition);
    item->setTheme(this);
    m_items.insert(definition->identifier(), item);
    for (quint64 mode = 0; mode < HXNumberOfColorModes; ++mode)
        item->updateColorCacheForMode(mode);
    if (isEditing())
        m_pendingContentsChange = true;
    else
        emit contentsChanged();
    return item;
}

void HXTheme::removeItemForDefinition(const HXDefinitionRef &definition) {
    const auto item = definition ? m_items.take(definition->identifier()) : nullptr;
    if (!item)
        return;
    item->setTheme(nullptr);
    for (quint64 mode = 0; mode < HXNumberOfColorModes; ++mode)
        item->updateColorCacheForMode(mode);
    ++m_change;
    post(HXThemeChangedColor, this);
    post(HXThemeChangedAttribute, this);
}

QList<std::shared_ptr<HXThemeItem>> HXTheme::definitionItems() const {
    QList<std::shared_ptr<HXThemeItem>> items = m_items.values();
    std::stable_sort(items.begin(), items.end(), [](const auto &a, const auto &b) {
        return a->definition()->scope() < b->definition()->scope();
    });
    return items;
}

std::shared_ptr<HXColorPalette> HXTheme::paletteForMode(quint64 mode) const {
    checkMode(mode);
    return m_palettes[mode];
}

void HXTheme::setPalette(const std::shared_ptr<HXColorPalette> &palette, quint64 mode) {
    checkMode(mode);
    HX_ASSERT(palette != nullptr, u"palette != nil");
    if (palette == m_palettes[mode])
        return;
    installPalette(palette, mode);
    noteColorsChanged();
}

QColor HXTheme::colorForPart(quint64 part, quint64 mode) const {
    HX_ASSERT(part < HXNumberOfThemeColorParts, u"Invalid part");
    checkMode(mode);
    if (m_primaryColorChange != m_change) {
        const auto &item = m_defaultItems[HXParagraphScope];
        for (quint64 each = 0; each < HXNumberOfColorModes; ++each) {
            QColor text = item->colorForPart(HXThemeTextColorPart, each);
            if (!text.isValid())
                text = m_palettes[each]->foregroundColor();
            const QColor atom = item->colorForPart(HXThemeAtomColorPart, each);
            m_primaryColorCache[HXThemeTextColorPart][each] = text;
            m_primaryColorCache[HXThemeAtomColorPart][each] = atom.isValid() ? atom : text;
            m_primaryColorCache[HXThemeHighlightColorPart][each] =
                item->colorForPart(HXThemeHighlightColorPart, each);
        }
        m_primaryColorChange = m_change;
    }
    return m_primaryColorCache[part][mode];
}

// --- Changes
// ---------------------------------------------------------------------------------------

void HXTheme::beginEditing() {
    ++m_editing;
}

void HXTheme::endEditing() {
    HX_ASSERT(m_editing > 0, u"endEditing without beginEditing");
    if (--m_editing > 0)
        return;
    const auto pending = std::exchange(m_pendingNotifications, {});
    for (const auto &[name, sender] : pending)
        HXNotificationCenter::defaultCenter()->post(name, sender);
    if (std::exchange(m_pendingContentsChange, false))
        emit contentsChanged();
}

void HXTheme::post(const QString &name, const void *sender) {
    if (isEditing()) {
        if (!m_pendingNotifications.contains(std::pair(name, sender)))
            m_pendingNotifications.append({name, sender});
        m_pendingContentsChange = true;
        return;
    }
    HXNotificationCenter::defaultCenter()->post(name, sender);
    if (sender == this)
        emit contentsChanged();
}

void HXTheme::noteItemColorChanged(HXThemeItem &item) {
    ++m_change;
    // Every item of the scope may fall back on a default item.
    if (item.isDefaultItem()) {
        updateColorCaches();
    } else {
        for (quint64 mode = 0; mode < HXNumberOfColorModes; ++mode)
            item.updateColorCacheForMode(mode);
    }
    post(HXThemeItemChangedColor, &item);
    post(HXThemeChangedColor, this);
}

void HXTheme::noteItemAttributeChanged(HXThemeItem &item) {
    ++m_change;
    post(HXThemeItemChangedAttribute, &item);
    post(HXThemeChangedAttribute, this);
}

void HXTheme::noteColorsChanged() {
    ++m_change;
    updateColorCaches();
    post(HXThemeChangedColor, this);
}

void HXTheme::updateColorCaches() {
    for (quint64 mode = 0; mode < HXNumberOfColorModes; ++mode) {
        for (const auto &item : std::as_const(m_defaultItems)) {
            if (item)
                item->updateColorCacheForMode(mode);
        }
        for (const auto &item : std::as_const(m_items))
            item->updateColorCacheForMode(mode);
    }
}

void HXTheme::migrateV1PalettesFromNames(const QString &names) {
    const QStringList list = names.split(u';');
    for (quint64 mode = 0; mode < HXNumberOfColorModes && mode < quint64(list.size()); ++mode) {
        const QString name = list.at(qsizetype(mode)).trimmed();
        if (name.isEmpty())
            continue;
        const qsizetype dot = name.lastIndexOf(u'.');
        const QString modeName = name.mid(dot + 1);
        const auto theme =
            dot > 0 && !readingBuiltinThemes ? builtinThemes().value(name.left(dot)) : nullptr;
        if (!theme || (modeName != u"light" && modeName != u"dark")) {
            HXApplicationLog::sharedInstance()->logError(u"No palette named '%@' found.", name);
            continue;
        }
        const auto palette =
            theme->paletteForMode(modeName == u"dark" ? HXColorModeDark : HXColorModeLight);
        setPalette(HXColorPalette::colorPaletteFromColorList(
                       palette->colorListRepresentationWithName(name), mode),
                   mode);
    }
}

// --- Theme.xml
// ---------------------------------------------------------------------------------------

bool HXTheme::readContentsOfFileWrapper(const HXFileWrapper &wrapper, HXError *error) {
    const QString name = m_readingName.isEmpty() ? wrapper.preferredFilename() : m_readingName;
    const HXFileWrapperRef file = wrapper.fileWrappers().value(themeFilename);
    if (!file || !file->isRegularFile()) {
        const QString text = HXStringWithFormat(
            HXLocalizedString(QStringLiteral("ThemeFileCorruptedDescription"), stringTable), name);
        HXSetError(error, themeError(HXThemeFileCorruptedError, name, text, text));
        return false;
    }
    if (!readFromData(file->regularFileContents(), name, error))
        return false;
    if (m_loadingBuiltin && displayName().isEmpty()) {
        const QString key = identifier().isEmpty()
                                ? QFileInfo(wrapper.preferredFilename()).completeBaseName()
                                : identifier();
        setDisplayName(HXLocalizedString(key, namesTable));
        m_localizedDisplayName = true;
    }
    return true;
}

HXError HXTheme::loadingError(const QString &name, const QString &reason) const {
    const QString text = HXStringWithFormat(
        HXLocalizedString(QStringLiteral("LoadingExceptionDescription"), stringTable), name,
        reason);
    return themeError(HXThemeLoadingError, name, text, reason);
}

bool HXTheme::readFromData(const QByteArray &data, const QString &name, HXError *error) {
    resetContents();
    const QString previousName = std::exchange(m_readingName, name);
    HXError failure;
    bool read = false;
    try {
        read = HXXMLReader::readFromData(data, *this, nullptr, &failure);
    } catch (const HXAssertionFailure &exception) {
        failure = HXXMLReader::errorWithFailureReason(exception.text());
    } catch (const std::exception &exception) {
        failure = HXXMLReader::errorWithFailureReason(QString::fromUtf8(exception.what()));
    }
    m_readingName = previousName;
    if (read)
        return true;
    if (failure.domain() == HXThemeErrorDomain) {
        HXSetError(error, failure);
        return false;
    }
    const QString reason = failure.localizedFailureReason().isEmpty()
                               ? failure.localizedDescription()
                               : failure.localizedFailureReason();
    HXApplicationLog::sharedInstance()->logError(u"Unable to read theme '%@'. Error: %@.", name,
                                                 reason);
    HXSetError(error, loadingError(name, reason));
    return false;
}

QByteArray HXTheme::XMLData() const {
    return XMLElement().xmlDocumentData();
}

HXXMLElement HXTheme::XMLElement() const {
    HXXMLElement element(XMLElementName());
    element.setAttribute(QStringLiteral("version"), QString::number(currentVersion));
    if (!displayName().isEmpty() && !m_localizedDisplayName)
        element.setAttribute(QStringLiteral("displayName"), displayName());
    if (!author().isEmpty())
        element.setAttribute(QStringLiteral("author"), author());
    QList<HXXMLElement> children;
    for (const auto &palette : m_palettes)
        children.append(palette->XMLElement());
    for (const auto &item : m_defaultItems)
        children.append(item->XMLElement());
    for (const auto &item : definitionItems())
        children.append(item->XMLElement());
    for (HXXMLElement &child : children) {
        element.addText(QStringLiteral("\n\t"));
        element.addChild(std::move(child));
    }
    element.addText(QStringLiteral("\n"));
    return element;
}

bool HXTheme::readerWillStartElement(const QString &name, const HXXMLAttributes &attributes,
                                     HXError *error) {
    if (name != XMLElementName()) {
        HXSetError(error, HXXMLReader::errorWithFailureReason(HXStringWithFormat(
                              u"The document is no theme: its root element is \"%@\".", name)));
        return false;
    }
    const qint64 version =
        attributes.value(QStringLiteral("version"), QStringLiteral("1")).toLongLong();
    if (version > currentVersion) {
        const QString text = HXStringWithFormat(
            HXLocalizedString(QStringLiteral("InvalidThemeFormatVersionDescription"), stringTable),
            m_readingName, HXLocations::applicationName);
        HXSetError(error, themeError(HXThemeInvalidFormatVersionError, m_readingName, text, text));
        return false;
    }
    if (attributes.contains(QStringLiteral("displayName")))
        setDisplayName(attributes.value(QStringLiteral("displayName")));
    if (attributes.contains(QStringLiteral("author")))
        setAuthor(attributes.value(QStringLiteral("author")));
    if (attributes.contains(QStringLiteral("palettes")))
        migrateV1PalettesFromNames(attributes.value(QStringLiteral("palettes")));
    return true;
}

std::shared_ptr<HXXMLReading> HXTheme::readerDidFindChildElement(const QString &name,
                                                                 HXXMLReaderContext *, HXError *) {
    if (name == HXColorPalette::XMLElementName())
        return HXColorPalette::create();
    if (name == HXThemeItem::XMLElementName()) {
        // In the theme from the start: an old item's colours are matched against its palettes.
        auto item = std::make_shared<HXThemeItem>(nullptr, 0);
        item->setTheme(this);
        return item;
    }
    return nullptr;
}

bool HXTheme::readerDidEndChildElement(const std::shared_ptr<HXXMLReading> &child,
                                       HXXMLReaderContext *, HXError *) {
    if (const auto palette = std::dynamic_pointer_cast<HXColorPalette>(child)) {
        installPalette(palette, palette->mode());
        return true;
    }
    const auto item = std::dynamic_pointer_cast<HXThemeItem>(child);
    if (!item)
        return true;
    constexpr quint64 allScopes = (quint64(1) << HXNumberOfScopes) - 1;
    if (item->definition()) {
        if (const auto present = m_items.value(item->definition()->identifier()))
            present->setTheme(nullptr);
        m_items.insert(item->definition()->identifier(), item);
    } else if (item->scope() & allScopes) {
        installDefaultItem(item, quint64(std::countr_zero(item->scope() & allScopes)));
    } else {
        // Neither a definition this version knows nor a scope.
        item->setTheme(nullptr);
    }
    return true;
}

bool HXTheme::readerWillEndElement(HXXMLReaderContext *, HXError *) {
    updateColorCaches();
    return true;
}
