#include "Model/Stores/HXDefinitionStore.h"

#include "Model/Stores/HXPreferenceStore.h"
#include "Text/Markup/HXPreferredPatterns.h"
#include "Utilities/HXNotificationCenter.h"
#include "Utilities/HXPropertyList.h"

QVariantMap HXKeyCombination::dictionary() const {
    if (isEmpty())
        return {};
    return {{QStringLiteral("key"), key}, {QStringLiteral("modifiers"), modifiers}};
}

HXKeyCombination HXKeyCombination::fromDictionary(const QVariantMap &dictionary) {
    return {dictionary.value(QStringLiteral("key")).toString(),
            dictionary.value(QStringLiteral("modifiers")).toULongLong()};
}

HXDefinitionStore &HXDefinitionStore::globalStore() {
    static HXDefinitionStore store(HXPreferenceStore::sharedInstance());
    return store;
}

HXDefinitionStore::HXDefinitionStore(HXPreferenceStore *preferences)
    : m_preferences(preferences) {
    // Markups choose their default tags through the user's patterns from now on.
    HXSetPreferredPatternProvider(
        [this](const QString &identifier) { return preferredPatternForDefinition(identifier); });
}

HXDefinitionStore::~HXDefinitionStore() {
    HXSetPreferredPatternProvider({});
}

QVariantMap HXDefinitionStore::section(const QString &key) const {
    return m_preferences ? m_preferences->objectForKey(key).toMap() : QVariantMap();
}

QVariantMap HXDefinitionStore::defaultShortcuts() {
    static const QVariantMap defaults =
        HXPropertyList::readFile(QStringLiteral(":/Defaults/HXShortcutDefaults.plist"), nullptr)
            .toMap();
    return defaults;
}

HXKeyCombination HXDefinitionStore::defaultShortcutForDefinition(const QString &identifier) {
    return HXKeyCombination::fromDictionary(defaultShortcuts().value(identifier).toMap());
}

HXKeyCombination HXDefinitionStore::shortcutForDefinition(const QString &identifier) const {
    const QVariantMap user = section(shortcutsKey);
    if (user.contains(identifier))
        return HXKeyCombination::fromDictionary(user.value(identifier).toMap());
    return defaultShortcutForDefinition(identifier);
}

QString HXDefinitionStore::definitionUsingShortcut(const HXKeyCombination &combination) const {
    if (combination.isEmpty())
        return {};
    QStringList identifiers = defaultShortcuts().keys() + section(shortcutsKey).keys();
    identifiers.removeDuplicates();
    for (const QString &identifier : std::as_const(identifiers)) {
        if (shortcutForDefinition(identifier) == combination)
            return identifier;
    }
    return {};
}

void HXDefinitionStore::setShortcut(const HXKeyCombination &combination,
                                    const QString &identifier) {
    QVariantMap user = section(shortcutsKey);
    user.insert(identifier, combination.dictionary());
    m_preferences->setObject(user, shortcutsKey);
    HXNotificationCenter::defaultCenter()->post(HXDefinitionStoreKeyCombosChanged, this);
}

void HXDefinitionStore::resetAllShortcuts() {
    m_preferences->setObject(QVariantMap(), shortcutsKey);
    HXNotificationCenter::defaultCenter()->post(HXDefinitionStoreKeyCombosChanged, this);
}

QVariantMap HXDefinitionStore::defaultPreferredPatterns() {
    return HXDefaultPreferredPatterns();
}

QString HXDefinitionStore::defaultPreferredPatternForDefinition(const QString &identifier) {
    return HXDefaultPreferredPatterns().value(identifier).toString();
}

QString HXDefinitionStore::preferredPatternForDefinition(const QString &identifier) const {
    const QVariantMap user = section(preferredPatternsKey);
    if (user.contains(identifier))
        return user.value(identifier).toString();
    return defaultPreferredPatternForDefinition(identifier);
}

void HXDefinitionStore::setPreferredPattern(const QString &pattern, const QString &identifier) {
    QVariantMap user = section(preferredPatternsKey);
    user.insert(identifier, pattern);
    m_preferences->setObject(user, preferredPatternsKey);
    HXNotificationCenter::defaultCenter()->post(HXDefinitionStorePreferredPatternsChanged, this);
}

void HXDefinitionStore::resetAllPreferredPatterns() {
    m_preferences->setObject(QVariantMap(), preferredPatternsKey);
    HXNotificationCenter::defaultCenter()->post(HXDefinitionStorePreferredPatternsChanged, this);
}
