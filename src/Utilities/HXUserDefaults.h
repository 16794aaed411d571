#pragma once

#include <QMutex>
#include <QString>
#include <QVariant>

#include <memory>

class QSettings;

// The settings that belong to this one machine (last folders, panel states, print options), in
// an INI file under the XDG config folder, with dotted key paths over nested dictionaries.
//
// The top level holds keys without dots; a key path walks from a top-level key down through
// dictionaries. The INI format keeps plain top-level values as text, so a text that reads as a
// number or as "true"/"false" counts as that number or Boolean. Dictionaries keep their types.
// Any thread; each call is atomic, a read-modify-write through key paths is not.
class HXUserDefaults {
public:
    // The defaults of the application, ~/.config/Velmora/Velmora.ini.
    static HXUserDefaults &standardUserDefaults();

    explicit HXUserDefaults(const QString &iniPath);
    ~HXUserDefaults();
    HXUserDefaults(const HXUserDefaults &) = delete;
    HXUserDefaults &operator=(const HXUserDefaults &) = delete;

    QVariant objectForKey(const QString &key) const;
    void setObject(const QVariant &value, const QString &key);
    void removeObjectForKey(const QString &key);
    qint64 integerForKey(const QString &key) const;
    bool boolForKey(const QString &key) const;

    // The value at a dotted path; null when a value on the way is no dictionary. A null path is
    // an assertion failure.
    QVariant objectForKeyPath(const QString &keyPath) const;
    // True only for a number (or a text that reads as one) that is not zero.
    bool boolForKeyPath(const QString &keyPath) const;
    // Sets the value, replacing the dictionaries on the way with fresh copies; a value on the way
    // that is no dictionary is replaced by one.
    void setObjectForKeyPath(const QVariant &value, const QString &keyPath);
    void setBoolForKeyPath(bool value, const QString &keyPath);
    // Removes the value; nothing happens when its parent is missing.
    void removeObjectForKeyPath(const QString &keyPath);

    // Writes pending changes to disk and reads changes made by others.
    bool synchronize();
    QString fileName() const;

private:
    mutable QMutex m_mutex;
    std::unique_ptr<QSettings> m_settings;
};

// The Boolean value of a setting: a number or a Boolean, or a text that reads as one; anything
// else is false.
bool HXBooleanValue(const QVariant &value);
