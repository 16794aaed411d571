#include "Utilities/HXUserDefaults.h"

#include "Utilities/HXAssert.h"
#include "Utilities/HXDictionaryMerging.h"
#include "Utilities/HXLocations.h"

#include <QSettings>
#include <QStandardPaths>

bool HXBooleanValue(const QVariant &value) {
    switch (value.typeId()) {
    case QMetaType::Bool:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
        return value.toDouble() != 0;
    case QMetaType::QString: {
        const QString text = value.toString().trimmed();
        if (text == u"true")
            return true;
        bool isNumber = false;
        const double number = text.toDouble(&isNumber);
        return isNumber && number != 0;
    }
    default:
        return false;
    }
}

HXUserDefaults &HXUserDefaults::standardUserDefaults() {
    static HXUserDefaults defaults(
        QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + u'/' +
        HXLocations::applicationName + u'/' + HXLocations::applicationName +
        QStringLiteral(".ini"));
    return defaults;
}

HXUserDefaults::HXUserDefaults(const QString &iniPath)
    : m_settings(std::make_unique<QSettings>(iniPath, QSettings::IniFormat)) {}

HXUserDefaults::~HXUserDefaults() = default;

QVariant HXUserDefaults::objectForKey(const QString &key) const {
    QMutexLocker locker(&m_mutex);
    return m_settings->value(key);
}

void HXUserDefaults::setObject(const QVariant &value, const QString &key) {
    QMutexLocker locker(&m_mutex);
    if (value.isValid())
        m_settings->setValue(key, value);
    else
        m_settings->remove(key);
}

void HXUserDefaults::removeObjectForKey(const QString &key) {
    QMutexLocker locker(&m_mutex);
    m_settings->remove(key);
}

qint64 HXUserDefaults::integerForKey(const QString &key) const {
    const QVariant value = objectForKey(key);
    if (value.typeId() == QMetaType::QString)
        return qint64(value.toString().trimmed().toDouble());
    return value.toLongLong();
}

bool HXUserDefaults::boolForKey(const QString &key) const {
    return HXBooleanValue(objectForKey(key));
}

QVariant HXUserDefaults::objectForKeyPath(const QString &keyPath) const {
    HX_ASSERT(!keyPath.isNull(), u"keyPath != nil");
    const QStringList components = keyPath.split(u'.');
    QVariant value = objectForKey(components.first());
    for (qsizetype i = 1; i < components.size(); ++i) {
        if (!HXIsDictionary(value))
            return {};
        value = value.toMap().value(components.at(i));
    }
    return value;
}

bool HXUserDefaults::boolForKeyPath(const QString &keyPath) const {
    return HXBooleanValue(objectForKeyPath(keyPath));
}

void HXUserDefaults::setObjectForKeyPath(const QVariant &value, const QString &keyPath) {
    HX_ASSERT(!keyPath.isNull(), u"keyPath != nil");
    const QStringList components = keyPath.split(u'.');
    QVariant child = value;
    for (qsizetype i = components.size() - 1; i >= 1; --i) {
        const QVariant parent = objectForKeyPath(components.mid(0, i).join(u'.'));
        QVariantMap copy = HXIsDictionary(parent) ? parent.toMap() : QVariantMap();
        if (child.isValid())
            copy.insert(components.at(i), child);
        else
            copy.remove(components.at(i));
        child = copy;
    }
    setObject(child, components.first());
}

void HXUserDefaults::setBoolForKeyPath(bool value, const QString &keyPath) {
    setObjectForKeyPath(QVariant(value), keyPath);
}

void HXUserDefaults::removeObjectForKeyPath(const QString &keyPath) {
    HX_ASSERT(!keyPath.isNull(), u"keyPath != nil");
    const qsizetype dot = keyPath.lastIndexOf(u'.');
    if (dot < 0) {
        removeObjectForKey(keyPath);
        return;
    }
    const QString parentPath = keyPath.left(dot);
    const QVariant parent = objectForKeyPath(parentPath);
    if (!HXIsDictionary(parent))
        return;
    QVariantMap copy = parent.toMap();
    copy.remove(keyPath.mid(dot + 1));
    setObjectForKeyPath(copy, parentPath);
}

bool HXUserDefaults::synchronize() {
    QMutexLocker locker(&m_mutex);
    m_settings->sync();
    return m_settings->status() == QSettings::NoError;
}

QString HXUserDefaults::fileName() const {
    QMutexLocker locker(&m_mutex);
    return m_settings->fileName();
}
