#pragma once

#include "Text/Markup/HXDefinition.h"
#include "Text/String/Implementation/HXLockingContext.h"

#include <QVariant>
#include <QVariantMap>

#include <functional>
#include <memory>

class HXMarkup;

// The values that an entity carries beside its text, by attribute identifier: a link's URL, an
// image's file. One for each entity whose definition declares attributes, owned by the element;
// guarded by the lock of the string that owns the element.
class HXAttributeDictionary {
public:
    HXAttributeDictionary(HXDefinitionRef definition, std::shared_ptr<HXMarkup> markup);
    // A copy of another dictionary's values.
    std::shared_ptr<HXAttributeDictionary> copy() const;

    const HXDefinitionRef &definition() const { return m_definition; }
    // The identifiers of the definition's attributes, in its order.
    QStringList sortedKeys() const;
    QVariant objectForKey(const QString &key) const;
    void setObject(const QVariant &value, const QString &key);
    void removeObjectForKey(const QString &key);
    qsizetype count() const { return m_store.size(); }
    // In the definition's order: identifier, value, attribute.
    void enumerateAttributes(const std::function<void(const QString &, const QVariant &,
                                                      const HXTagAttribute &)> &block) const;

    void setMarkup(const std::shared_ptr<HXMarkup> &markup) { m_markup = markup; }
    void setLockingContext(const std::weak_ptr<HXLockingContext> &context) {
        m_lockingContext = context;
    }
    bool isEqual(const HXAttributeDictionary &other) const;

private:
    HXDefinitionRef m_definition;
    std::shared_ptr<HXMarkup> m_markup;
    QVariantMap m_store;
    std::weak_ptr<HXLockingContext> m_lockingContext;
};

using HXAttributeDictionaryRef = std::shared_ptr<HXAttributeDictionary>;
