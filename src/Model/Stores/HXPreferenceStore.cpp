#include "Model/Stores/HXPreferenceStore.h"

#include "Model/Stores/HXKeyValueStore.h"
#include "Utilities/HXApplicationLog.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXDescription.h"
#include "Utilities/HXDictionaryMerging.h"
#include "Utilities/HXLocations.h"
#include "Utilities/HXPropertyList.h"
#include "Utilities/HXStringFormat.h"

#include <QDir>
#include <QFileInfo>

using namespace std::chrono_literals;

namespace {

QVariant valueAtPath(const QVariantMap &root, const QString &keyPath) {
    const QStringList components = keyPath.split(u'.');
    QVariant value = root.value(components.first());
    for (qsizetype i = 1; i < components.size(); ++i) {
        if (!HXIsDictionary(value))
            return {};
        value = value.toMap().value(components.at(i));
    }
    return value;
}

} // namespace

HXPreferenceStore *HXPreferenceStore::sharedInstance() {
    // Kept for the life of the process: it writes what is pending at termination.
    static HXPreferenceStore *instance = new HXPreferenceStore(localStoreURL());
    return instance;
}

const QVariantMap &HXPreferenceStore::defaultsDictionary() {
    static const QVariantMap defaults = [] {
        HXError error;
        const QVariant value = HXPropertyList::readFile(
            QStringLiteral(":/Defaults/HXPreferenceDefaults.plist"), &error);
        HX_ASSERT(HXIsDictionary(value), u"The preference defaults can't be read: %@",
                  error.localizedDescription());
        return value.toMap();
    }();
    return defaults;
}

QString HXPreferenceStore::damagedStorePath() const {
    return QFileInfo(m_localStorePath).absolutePath() +
           QStringLiteral("/Preferences.damaged.plist");
}

QString HXPreferenceStore::localStoreURL() {
    const QString folder = HXLocations::applicationSupportPath();
    HXLocations::makeFolder(folder, nullptr);
    return folder + QStringLiteral("/Preferences.plist");
}

HXPreferenceStore::HXPreferenceStore(const QString &localStorePath, QObject *parent)
    : QObject(parent)
    , m_localStorePath(localStorePath)
    , m_write(10s, [this] { write(); }) {
    readLocalStore();
    m_terminationObservation = HXNotificationCenter::defaultCenter()->addObserver(
        HXApplicationWillTerminateNotification,
        [this](const HXNotification &) { applicationWillTerminate(); });
}

HXPreferenceStore::~HXPreferenceStore() {
    if (m_write.isWritePending()) {
        HXApplicationLog::sharedInstance()->logError(
            u"WARNING: Preference store deallocated with changes not written to disk!");
    }
}

QVariant HXPreferenceStore::defaultValueForKeyPath(const QString &keyPath) const {
    return valueAtPath(defaultsDictionary(), keyPath);
}

qsizetype HXPreferenceStore::count() const {
    QMutexLocker locker(&m_mutex);
    return m_localStore.size();
}

QVariant HXPreferenceStore::objectForKey(const QString &key) const {
    QMutexLocker locker(&m_mutex);
    return m_localStore.value(key);
}

QStringList HXPreferenceStore::keys() const {
    QMutexLocker locker(&m_mutex);
    return m_localStore.keys();
}

QVariantMap HXPreferenceStore::localStore() const {
    QMutexLocker locker(&m_mutex);
    return m_localStore;
}

QVariant HXPreferenceStore::valueForKeyPath(const QString &keyPath) const {
    QMutexLocker locker(&m_mutex);
    return valueAtPath(m_localStore, keyPath);
}

bool HXPreferenceStore::acceptsValue(const QVariant &value, const QString &keyPath) {
    // One value the file can't hold would make every later write fail: it never gets in.
    HXError error;
    if (!HXPropertyList::xmlData(value, &error).isEmpty())
        return true;
    HXApplicationLog::sharedInstance()->logError(u"WARNING: Refused preference value %@ for %@: %@",
                                                 value, keyPath, error.localizedFailureReason());
    return false;
}

void HXPreferenceStore::setObject(const QVariant &value, const QString &key) {
    HX_ASSERT(HXIsDictionary(value),
              u"Preference store only allows dictionaries on top level. Given: %@ for %@.", value,
              key);
    if (!acceptsValue(value, key))
        return;
    changeSection(key, [&](const QVariantMap &) { return value.toMap(); });
}

void HXPreferenceStore::changeSection(
    const QString &key, const std::function<QVariantMap(const QVariantMap &)> &change) {
    Q_EMIT willChangeValueForKey(key);
    QVariantMap section;
    {
        // Read, change and store in one step, so that two threads setting sibling keys both
        // get through.
        QMutexLocker locker(&m_mutex);
        section = change(m_localStore.value(key).toMap());
        m_localStore.insert(key, section);
    }
    if (m_globalStore)
        m_globalStore->setObject(section, key);
    noteStoreChanged();
    Q_EMIT didChangeValueForKey(key);
}

void HXPreferenceStore::removeObjectForKey(const QString &key) {
    Q_EMIT willChangeValueForKey(key);
    {
        QMutexLocker locker(&m_mutex);
        m_localStore.remove(key);
    }
    if (m_globalStore)
        m_globalStore->removeObjectForKey(key);
    noteStoreChanged();
    Q_EMIT didChangeValueForKey(key);
}

void HXPreferenceStore::setValue(const QVariant &value, const QString &keyPath) {
    const QStringList components = keyPath.split(u'.');
    if (components.size() == 1) {
        setObject(value, keyPath);
        return;
    }
    if (!acceptsValue(value, keyPath))
        return;
    changeSection(components.first(), [&](const QVariantMap &present) {
        // Fresh copies from the setting up to the section: what a reader holds stays as it was.
        QVariant child = value;
        for (qsizetype i = components.size() - 1; i >= 1; --i) {
            const QVariant parent = valueAtPath(QVariantMap{{components.first(), present}},
                                                components.mid(0, i).join(u'.'));
            QVariantMap copy = HXIsDictionary(parent) ? parent.toMap() : QVariantMap();
            copy.insert(components.at(i), child);
            child = copy;
        }
        return child.toMap();
    });
}

QMetaObject::Connection HXPreferenceStore::addObserverForKeyPath(const QString &keyPath,
                                                                 QObject *context,
                                                                 std::function<void()> observer) {
    const QString section = keyPath.section(u'.', 0, 0);
    return connect(this, &HXPreferenceStore::didChangeValueForKey, context,
                   [section, observer = std::move(observer)](const QString &key) {
                       if (key == section)
                           observer();
                   });
}

void HXPreferenceStore::mergeSection(const QString &key, const QVariant &value) {
    // Called with the mutex held.
    const auto existing = m_localStore.constFind(key);
    if (existing != m_localStore.cend() && HXIsDictionary(*existing))
        m_localStore.insert(key, HXDictionaryByMerging(existing->toMap(), value.toMap(), false));
    else
        m_localStore.insert(key, value.toMap());
}

void HXPreferenceStore::readLocalStore() {
    QMutexLocker locker(&m_mutex);
    m_localStore = defaultsDictionary();
    if (!QFileInfo::exists(m_localStorePath))
        return;
    HXError error;
    const QVariant stored = HXPropertyList::readFile(m_localStorePath, &error);
    if (!HXIsDictionary(stored)) {
        // The defaults stand in. The next write replaces the file, so what may still be saved
        // of the user's settings is kept beside it first.
        const QString damaged = damagedStorePath();
        QFile::remove(damaged);
        const bool kept = QFile::copy(m_localStorePath, damaged);
        HXApplicationLog::sharedInstance()->logError(
            u"WARNING: Preferences at %@ can't be read, using defaults: %@ %@", m_localStorePath,
            stored.isValid() ? QStringLiteral("not a dictionary") : error.localizedDescription(),
            kept ? HXStringWithFormat(u"A copy is kept at %@.", damaged)
                 : HXStringWithFormat(u"No copy could be kept at %@.", damaged));
        return;
    }
    const QVariantMap file = stored.toMap();
    for (auto it = file.cbegin(); it != file.cend(); ++it) {
        if (!HXIsDictionary(it.value())) {
            HXApplicationLog::sharedInstance()->logError(
                u"WARNING: Invalid preference value %@ for key %@", it.value(), it.key());
            continue;
        }
        mergeSection(it.key(), it.value());
    }
}

void HXPreferenceStore::setGlobalStore(std::shared_ptr<HXKeyValueStore> store) {
    m_globalStore = std::move(store);
}

void HXPreferenceStore::readGlobalStore() {
    if (!m_globalStore)
        return;
    if (!m_globalStore->synchronize()) {
        HXApplicationLog::sharedInstance()->logError(
            u"WARNING: Syncronization of global preference store failed!");
        return;
    }
    const QVariantMap global = m_globalStore->dictionaryRepresentation();
    for (auto it = global.cbegin(); it != global.cend(); ++it) {
        if (!HXIsDictionary(it.value())) {
            HXApplicationLog::sharedInstance()->logError(
                u"WARNING: Invalid preference value %@ for key %@", it.value(), it.key());
            m_globalStore->removeObjectForKey(it.key());
            // A section must stay a dictionary here, so the invalid value is not taken over.
            continue;
        }
        QMutexLocker locker(&m_mutex);
        mergeSection(it.key(), it.value());
    }
    noteStoreChanged();
}

void HXPreferenceStore::globalStoreChanged(const QStringList &changedKeys) {
    if (!m_globalStore)
        return;
    for (const QString &key : changedKeys) {
        const QVariant value = m_globalStore->objectForKey(key);
        if (!HXIsDictionary(value))
            continue;
        Q_EMIT willChangeValueForKey(key);
        {
            QMutexLocker locker(&m_mutex);
            mergeSection(key, value);
        }
        Q_EMIT didChangeValueForKey(key);
    }
}

void HXPreferenceStore::noteStoreChanged() {
    m_write.noteChanged();
}

void HXPreferenceStore::writeStoreIfNeeded() {
    m_write.writeIfNeeded();
}

void HXPreferenceStore::applicationWillTerminate() {
    writeStoreIfNeeded();
}

void HXPreferenceStore::write() {
    const QVariantMap snapshot = localStore();
    HXLocations::makeFolder(QFileInfo(m_localStorePath).absolutePath(), nullptr);
    HXError error;
    const bool written = HXPropertyList::writeFile(snapshot, m_localStorePath, &error);
    if (!written) {
        HXApplicationLog::sharedInstance()->logError(
            u"WARNING: Failed to write local cache of preference data to url %@.",
            m_localStorePath);
        HXApplicationLog::sharedInstance()->logError(
            u"The cause: %@ %@", error.localizedDescription(), error.localizedFailureReason());
    }
    Q_EMIT storeWritten(written);
}
