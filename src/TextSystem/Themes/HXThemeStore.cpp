#include "TextSystem/Themes/HXThemeStore.h"

#include "Model/Stores/HXPreferenceStore.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXUserDefaults.h"

std::shared_ptr<HXThemeStore> HXThemeStore::create(const HXStoreOptions &options,
                                                   HXUserDefaults *userDefaults,
                                                   HXPreferenceStore *preferences) {
    std::shared_ptr<HXThemeStore> store(new HXThemeStore);
    store->m_userDefaults = userDefaults ? userDefaults : &HXUserDefaults::standardUserDefaults();
    store->m_preferences = preferences ? preferences : HXPreferenceStore::sharedInstance();
    store->initWithOptions(options);
    return store;
}

std::shared_ptr<HXThemeStore> HXThemeStore::sharedStore() {
    static const std::shared_ptr<HXThemeStore> store = create();
    return store;
}

QMap<QString, HXPresetObjectRef> HXThemeStore::initialBuiltinObjects() const {
    QMap<QString, HXPresetObjectRef> objects;
    const auto &themes = HXTheme::builtinThemes();
    for (auto it = themes.cbegin(); it != themes.cend(); ++it)
        objects.insert(it.key(), it.value());
    return objects;
}

HXPresetObjectRef HXThemeStore::objectWithContentsOfURL(const QString &url, HXError *error) const {
    return HXTheme::themeWithContentsOfURL(url, false, error);
}

void HXThemeStore::didAddObjectToStore(const HXPresetObjectRef &object) {
    HXPresetStore::didAddObjectToStore(object);
    if (object->isBuiltin())
        return;
    connect(static_cast<HXTheme *>(object.get()), &HXTheme::contentsChanged, this,
            [this] { noteStoreChanged(); });
}

void HXThemeStore::didRemoveObjectFromStore(const HXPresetObjectRef &object) {
    HXPresetStore::didRemoveObjectFromStore(object);
    // The current theme went: the default takes its place.
    if (object->identifier() == currentThemeIdentifier())
        emit currentThemeChanged();
}

std::shared_ptr<HXTheme> HXThemeStore::themeWithIdentifier(const QString &identifier) const {
    return std::static_pointer_cast<HXTheme>(objectForIdentifier(identifier));
}

std::shared_ptr<HXTheme> HXThemeStore::defaultBuiltinTheme() const {
    if (const auto theme = themeWithIdentifier(defaultBuiltinThemeIdentifier);
        theme && theme->isBuiltin())
        return theme;
    const QList<HXPresetObjectRef> builtins = builtinObjects();
    return builtins.isEmpty() ? nullptr : std::static_pointer_cast<HXTheme>(builtins.first());
}

QString HXThemeStore::currentThemeIdentifier() const {
    const QVariant stored = m_userDefaults->objectForKeyPath(currentThemeKeyPath);
    if (stored.isValid() && !stored.toString().isEmpty())
        return stored.toString();
    const QString preferred = m_preferences->valueForKeyPath(currentThemeKeyPath).toString();
    if (!preferred.isEmpty())
        m_userDefaults->setObjectForKeyPath(preferred, currentThemeKeyPath);
    return preferred;
}

std::shared_ptr<HXTheme> HXThemeStore::currentTheme() const {
    const auto theme = themeWithIdentifier(currentThemeIdentifier());
    return theme ? theme : defaultBuiltinTheme();
}

void HXThemeStore::setCurrentTheme(const std::shared_ptr<HXTheme> &theme) {
    HX_ASSERT(theme && objectForIdentifier(theme->identifier()) == theme,
              u"Theme was not registered");
    if (theme == currentTheme() && currentThemeIdentifier() == theme->identifier())
        return;
    m_userDefaults->setObjectForKeyPath(persistentObjectForTheme(*theme), currentThemeKeyPath);
    emit currentThemeChanged();
}
