#include "Text/String/Meta/HXAttributeDictionary.h"

#include "Utilities/HXAssert.h"

HXAttributeDictionary::HXAttributeDictionary(HXDefinitionRef definition,
                                             std::shared_ptr<HXMarkup> markup)
    : m_definition(std::move(definition))
    , m_markup(std::move(markup)) {}

std::shared_ptr<HXAttributeDictionary> HXAttributeDictionary::copy() const {
    auto copy = std::make_shared<HXAttributeDictionary>(m_definition, m_markup);
    copy->m_store = m_store;
    return copy;
}

QStringList HXAttributeDictionary::sortedKeys() const {
    HX_ASSERT(m_definition, u"Missing definition");
    QStringList keys;
    for (const HXTagAttributeRef &attribute : m_definition->attributes())
        keys.append(attribute->identifier());
    return keys;
}

QVariant HXAttributeDictionary::objectForKey(const QString &key) const {
    return m_store.value(key);
}

void HXAttributeDictionary::setObject(const QVariant &value, const QString &key) {
    HX_ASSERT(sortedKeys().contains(key), u"Invalid identifier \"%@\"!", key);
    m_store.insert(key, value);
}

void HXAttributeDictionary::removeObjectForKey(const QString &key) {
    m_store.remove(key);
}

void HXAttributeDictionary::enumerateAttributes(
    const std::function<void(const QString &, const QVariant &, const HXTagAttribute &)> &block)
    const {
    for (const HXTagAttributeRef &attribute : m_definition->attributes()) {
        const auto found = m_store.constFind(attribute->identifier());
        if (found != m_store.constEnd())
            block(found.key(), found.value(), *attribute);
    }
}

bool HXAttributeDictionary::isEqual(const HXAttributeDictionary &other) const {
    return HXDefinitionsEqual(m_definition, other.m_definition) && m_store == other.m_store;
}
