#pragma once

#include "Model/Stores/HXPresetStore.h"
#include "TextSystem/Themes/HXTheme.h"

class HXPreferenceStore;
class HXUserDefaults;

// All themes, the built-in ones and the user's, and which one is current. The user's themes are
// packages "<identifier>.velmoratheme" in the folder "Themes" of application support and its
// cloud mirror; old single-file themes "<identifier>.xml" there are read and written back as
// packages. Built-in themes can't be changed: a user duplicates one to make it their own.
//
// The current theme is the identifier under the user default "themes.currentTheme", which on
// first use comes from the preferences (and is then stored in the user defaults); an identifier
// the store doesn't hold gives the default built-in theme, "clearmist".
//
// The shared store is made on first use on the main thread with the default options; tests and
// the command-line tool may make their own. Main thread.
class HXThemeStore : public HXPresetStore {
    Q_OBJECT
public:
    // A store over the folders of the options, with the current theme in the given user
    // defaults and preferences (the application's when null), which must outlive it.
    static std::shared_ptr<HXThemeStore> create(const HXStoreOptions &options = {},
                                                HXUserDefaults *userDefaults = nullptr,
                                                HXPreferenceStore *preferences = nullptr);
    static std::shared_ptr<HXThemeStore> sharedStore();

    static inline const QString currentThemeKeyPath = QStringLiteral("themes.currentTheme");
    static inline const QString defaultBuiltinThemeIdentifier = QStringLiteral("clearmist");

    std::shared_ptr<HXTheme> currentTheme() const;
    // Makes a theme of the store current; any other is the assertion "Theme was not registered".
    void setCurrentTheme(const std::shared_ptr<HXTheme> &theme);
    // The built-in "clearmist", else the first built-in theme.
    std::shared_ptr<HXTheme> defaultBuiltinTheme() const;
    std::shared_ptr<HXTheme> themeWithIdentifier(const QString &identifier) const;
    // What the user defaults keep of a theme: its identifier.
    static QString persistentObjectForTheme(const HXTheme &theme) { return theme.identifier(); }

    QString directoryName() const override { return QStringLiteral("Themes"); }
    QStringList allowedItemPathExtensions() const override {
        return {HXTheme::itemPathExtension, HXTheme::v1ThemePathExtension};
    }
    QMap<QString, HXPresetObjectRef> initialBuiltinObjects() const override;
    HXPresetObjectRef objectWithContentsOfURL(const QString &url, HXError *error) const override;

Q_SIGNALS:
    void currentThemeChanged();

protected:
    void didAddObjectToStore(const HXPresetObjectRef &object) override;
    void didRemoveObjectFromStore(const HXPresetObjectRef &object) override;

private:
    HXThemeStore() = default;
    QString currentThemeIdentifier() const;

    HXUserDefaults *m_userDefaults = nullptr;
    HXPreferenceStore *m_preferences = nullptr;
};
