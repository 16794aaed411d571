#pragma once

#include "Utilities/HXBatchedWrite.h"
#include "Utilities/HXNotificationCenter.h"

#include <QMutex>
#include <QObject>
#include <QStringList>
#include <QVariantMap>

#include <chrono>
#include <functional>
#include <memory>

class HXKeyValueStore;

// The settings that belong to the user: sections of settings ("editor", "textCounter", ...) with
// values under dotted key paths ("editor.fontName"), kept in "Preferences.plist" in application
// support and laid over the defaults compiled in as "HXPreferenceDefaults.plist".
//
// Every top-level value is a dictionary. Dictionaries are never changed in place: a change puts
// fresh copies along the path from the setting up to its section, so a value read earlier never
// changes under its reader, and `didChangeValueForKey` fires for the section at each change.
// A change never touches the disk by itself: the first one schedules a write of the whole file
// 10 seconds later on the main queue, and the write at termination takes whatever is pending.
//
// One shared instance, made on first use on the main thread; tests make their own over files of
// theirs. Reads and writes of values may come from any thread; signals are emitted on the thread
// of the change.
class HXPreferenceStore : public QObject {
    Q_OBJECT

public:
    static HXPreferenceStore *sharedInstance();
    // The table of defaults, read once.
    static const QVariantMap &defaultsDictionary();
    // "Preferences.plist" in application support; makes the folder each time, ignoring failure.
    static QString localStoreURL();

    // A store over the given file; it reads the file at once.
    explicit HXPreferenceStore(const QString &localStorePath, QObject *parent = nullptr);
    ~HXPreferenceStore() override;

    // The value at the path in the defaults, whatever the user set.
    QVariant defaultValueForKeyPath(const QString &keyPath) const;

    qsizetype count() const;
    QVariant objectForKey(const QString &key) const;
    QStringList keys() const;
    // Sets a whole section; a value that is no dictionary is an assertion failure. A value that a
    // property list can't hold (a URL, a null, a string with control characters) is refused with
    // a warning in the log, and nothing changes.
    void setObject(const QVariant &value, const QString &key);
    void removeObjectForKey(const QString &key);
    // Sets one setting, leaving its siblings untouched; refused like setObject's values.
    void setValue(const QVariant &value, const QString &keyPath);
    // The value at a dotted path; null when a value on the way is no dictionary.
    QVariant valueForKeyPath(const QString &keyPath) const;
    QVariantMap localStore() const;

    // Calls `observer` after each change of the section that holds the path, the way observers
    // of a key path hear of every change along it. The connection ends with `context`.
    QMetaObject::Connection addObserverForKeyPath(const QString &keyPath, QObject *context,
                                                  std::function<void()> observer);

    // Rebuilds the state from the defaults with the stored file merged over them.
    void readLocalStore();
    // Merge the shared store; nothing calls them while no shared store is attached.
    void readGlobalStore();
    void globalStoreChanged(const QStringList &changedKeys);
    void setGlobalStore(std::shared_ptr<HXKeyValueStore> store);

    // Asks for the delayed write.
    void noteStoreChanged();
    // Writes now if a write is pending.
    void writeStoreIfNeeded();
    void applicationWillTerminate();

    bool needsWrite() const { return m_write.isWritePending(); }
    const QString &localStorePath() const { return m_localStorePath; }
    // Where a file that can't be read is kept before the next write replaces it:
    // "Preferences.damaged.plist" beside it.
    QString damagedStorePath() const;
    // The delay between the first change and the write; 10 seconds unless a test shortens it.
    void setWriteDelay(std::chrono::milliseconds delay) { m_write.setDelay(delay); }

Q_SIGNALS:
    void willChangeValueForKey(const QString &key);
    void didChangeValueForKey(const QString &key);
    // After each write attempt, with its outcome.
    void storeWritten(bool succeeded);

private:
    void write();
    void mergeSection(const QString &key, const QVariant &value);
    static bool acceptsValue(const QVariant &value, const QString &keyPath);
    // Replaces a section by what `change` makes of the present one, under one lock, with the
    // notifications around it.
    void changeSection(const QString &key,
                       const std::function<QVariantMap(const QVariantMap &)> &change);

    mutable QMutex m_mutex;
    QVariantMap m_localStore;
    std::shared_ptr<HXKeyValueStore> m_globalStore;
    QString m_localStorePath;
    HXBatchedWrite m_write;
    HXNotificationObservation m_terminationObservation;
};
