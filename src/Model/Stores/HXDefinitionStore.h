#pragma once

#include <QString>
#include <QVariantMap>

#include <memory>

class HXPreferenceStore;

// Posted when a shortcut or a preferred pattern changes.
inline const QString HXDefinitionStoreKeyCombosChanged =
    QStringLiteral("HXDefinitionStoreKeyCombosChanged");

// A key combination: the key's text ("B", "1") and Qt's modifier bits. Kept as the dictionary
// {"key": text, "modifiers": bits}; the empty dictionary is "no combination", which switches a
// default off.
struct HXKeyCombination {
    QString key;
    quint64 modifiers = 0;

    bool isEmpty() const { return key.isEmpty(); }
    QVariantMap dictionary() const;
    static HXKeyCombination fromDictionary(const QVariantMap &dictionary);
    friend bool operator==(const HXKeyCombination &, const HXKeyCombination &) = default;
};

// What the user set about definitions whatever the markup: keyboard shortcuts and the patterns
// preferred among several tags of one definition. No state of its own: the preference sections
// "shortcuts" and "preferredPatterns", by definition identifier, over the bundled defaults. The
// shared store serves the markups' choice of default tags. Any thread.
class HXDefinitionStore {
public:
    static HXDefinitionStore &globalStore();
    explicit HXDefinitionStore(HXPreferenceStore *preferences);
    ~HXDefinitionStore();

    static QVariantMap defaultShortcuts();
    static HXKeyCombination defaultShortcutForDefinition(const QString &identifier);
    HXKeyCombination shortcutForDefinition(const QString &identifier) const;
    // The definition whose shortcut is the combination; empty when none.
    QString definitionUsingShortcut(const HXKeyCombination &combination) const;
    void setShortcut(const HXKeyCombination &combination, const QString &identifier);
    void resetAllShortcuts();

    static QVariantMap defaultPreferredPatterns();
    static QString defaultPreferredPatternForDefinition(const QString &identifier);
    QString preferredPatternForDefinition(const QString &identifier) const;
    void setPreferredPattern(const QString &pattern, const QString &identifier);
    void resetAllPreferredPatterns();

    static inline const QString shortcutsKey = QStringLiteral("shortcuts");
    static inline const QString preferredPatternsKey = QStringLiteral("preferredPatterns");

private:
    QVariantMap section(const QString &key) const;

    HXPreferenceStore *m_preferences;
};
