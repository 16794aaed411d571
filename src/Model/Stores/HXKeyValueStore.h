#pragma once

#include <QString>
#include <QVariantMap>

// A key-value store shared between a user's machines, as the preference store would mirror its
// sections into. None is attached in this system; the interface is here for the day one is.
class HXKeyValueStore {
public:
    virtual ~HXKeyValueStore() = default;

    virtual bool synchronize() = 0;
    virtual QVariantMap dictionaryRepresentation() const = 0;
    virtual QVariant objectForKey(const QString &key) const = 0;
    virtual void setObject(const QVariant &value, const QString &key) = 0;
    virtual void removeObjectForKey(const QString &key) = 0;
};
