#include "Text/String/Meta/HXAttributeDictionary.h"

#include "Text/String/Access/HXAtomicString.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXFileWrapper.h"
#include "Utilities/HXXMLElement.h"

HXAttributeDictionary::HXAttributeDictionary(HXDefinitionRef definition,
                                             std::shared_ptr<HXMarkup> markup)
    : m_definition(std::move(definition))
    , m_markup(std::move(markup)) {}

std::shared_ptr<HXAttributeDictionary> HXAttributeDictionary::copy() const {
    auto copy = std::make_shared<HXAttributeDictionary>(m_definition, m_markup);
    copy->m_store = m_store;
    copy->m_files = m_files;
    for (auto it = m_nestedStrings.cbegin(); it != m_nestedStrings.cend(); ++it) {
        auto nested = HXAtomicString::stringWithMarkup(m_markup, HXNestedStringDefinitionSelector);
        nested->setToString(*it.value());
        copy->m_nestedStrings.insert(it.key(), nested);
    }
    return copy;
}

QStringList HXAttributeDictionary::sortedKeys() const {
    HX_ASSERT(m_definition, u"Missing definition");
    QStringList keys;
    for (const HXTagAttributeRef &attribute : m_definition->attributes())
        keys.append(attribute->identifier());
    return keys;
}

HXTagAttributeRef HXAttributeDictionary::attributeForKey(const QString &key) const {
    for (const HXTagAttributeRef &attribute : m_definition->attributes()) {
        if (attribute->identifier() == key)
            return attribute;
    }
    HX_ASSERT(false, u"Invalid identifier \"%@\"!", key);
    return nullptr;
}

QVariant HXAttributeDictionary::objectForKey(const QString &key) const {
    return m_store.value(key);
}

std::shared_ptr<HXAtomicString> HXAttributeDictionary::nestedStringForKey(const QString &key) {
    const HXTagAttributeRef attribute = attributeForKey(key);
    if (attribute->kind() != HXTagAttributeKindNestedString)
        return nullptr;
    auto &nested = m_nestedStrings[key];
    if (!nested) {
        nested = HXAtomicString::stringWithMarkup(m_markup, HXNestedStringDefinitionSelector);
        if (m_lockingContext.lock())
            nested->setLockingContext(m_lockingContext);
    }
    return nested;
}

bool HXAttributeDictionary::canSetObject(const QVariant &value, const HXTagAttribute &attribute) {
    switch (attribute.kind()) {
    case HXTagAttributeKindString:
    case HXTagAttributeKindURL:
        return value.typeId() == QMetaType::QString;
    default:
        // Nested strings are edited in place; files come with their storage.
        return false;
    }
}

bool HXAttributeDictionary::canSetObject(const QVariant &value, const QString &key) const {
    return canSetObject(value, *attributeForKey(key));
}

template<typename F>
void HXAttributeDictionary::change(const QString &key, F &&store) {
    const auto context = m_lockingContext.lock();
    if (!context) {
        store();
        return;
    }
    context->write([&] {
        context->attributeWillChange(*this, key);
        store();
    });
}

void HXAttributeDictionary::setObject(const QVariant &value, const QString &key) {
    const HXTagAttributeRef attribute = attributeForKey(key);
    HX_ASSERT(attribute->kind() != HXTagAttributeKindNestedString,
              u"Setting text attributes is forbidden");
    if (attribute->isFile() && value.canConvert<HXFileWrapperRef>()) {
        setFileWrapperForKey(value.value<HXFileWrapperRef>(), key);
        return;
    }
    HX_ASSERT(canSetObject(value, *attribute), u"Invalid object for attribute %@", key);
    change(key, [&] {
        m_store.insert(key, HXXMLStringByRemovingForbiddenCharacters(value.toString()));
    });
}

void HXAttributeDictionary::removeObjectForKey(const QString &key) {
    if (!m_store.contains(key) && !m_nestedStrings.contains(key) && !m_files.contains(key))
        return;
    change(key, [&] {
        m_store.remove(key);
        m_nestedStrings.remove(key);
        m_files.remove(key);
    });
}

void HXAttributeDictionary::setDictionary(const QVariantMap &values) {
    for (auto it = values.cbegin(); it != values.cend(); ++it)
        attributeForKey(it.key()); // an identifier the definition doesn't have is the assertion
    for (const QString &key : sortedKeys()) {
        if (values.contains(key))
            setObject(values.value(key), key);
        else
            removeObjectForKey(key);
    }
}

void HXAttributeDictionary::removeFileWrappersQuietly() {
    m_files.clear();
}

bool HXAttributeDictionary::canSetFileWrapper(const std::shared_ptr<HXFileWrapper> &file,
                                              const QString &key) const {
    const HXTagAttributeRef attribute = attributeForKey(key);
    return file && attribute->isFile() && file->conformsToTypes(attribute->allowedTypes());
}

void HXAttributeDictionary::setFileWrapperForKey(const std::shared_ptr<HXFileWrapper> &file,
                                                 const QString &key) {
    HX_ASSERT(canSetFileWrapper(file, key), u"Invalid object for attribute %@", key);
    change(key, [&] { m_files.insert(key, file); });
}

bool HXAttributeDictionary::setFileWrapper(const std::shared_ptr<HXFileWrapper> &file) {
    for (const HXTagAttributeRef &attribute : m_definition->attributes()) {
        if (canSetFileWrapper(file, attribute->identifier())) {
            setFileWrapperForKey(file, attribute->identifier());
            return true;
        }
    }
    return false;
}

bool HXAttributeDictionary::setURLString(const QString &urlString) {
    for (const HXTagAttributeRef &attribute : m_definition->attributes()) {
        if (attribute->kind() == HXTagAttributeKindURL) {
            setObject(urlString, attribute->identifier());
            return true;
        }
    }
    return false;
}

bool HXAttributeDictionary::setString(const QString &string) {
    for (const HXTagAttributeRef &attribute : m_definition->attributes()) {
        if (attribute->kind() == HXTagAttributeKindString) {
            setObject(string, attribute->identifier());
            return true;
        }
    }
    return false;
}

void HXAttributeDictionary::enumerateAttributes(
    const std::function<void(const QString &, const QVariant &, const HXTagAttribute &)> &block)
    const {
    for (const HXTagAttributeRef &attribute : m_definition->attributes()) {
        const QString &key = attribute->identifier();
        if (const auto nested = m_nestedStrings.value(key))
            block(key, nested->string(), *attribute);
        else if (const auto file = m_files.value(key))
            block(key, file->preferredFilename(), *attribute);
        else if (m_store.contains(key))
            block(key, m_store.value(key), *attribute);
    }
}

void HXAttributeDictionary::setMarkup(const std::shared_ptr<HXMarkup> &markup) {
    m_markup = markup;
    for (const auto &nested : std::as_const(m_nestedStrings))
        nested->setMarkup(markup);
}

void HXAttributeDictionary::setLockingContext(const std::weak_ptr<HXLockingContext> &context) {
    m_lockingContext = context;
    for (const auto &nested : std::as_const(m_nestedStrings)) {
        if (context.lock())
            nested->setLockingContext(context);
    }
}

bool HXAttributeDictionary::compareObject(const QVariant &value, const QVariant &other,
                                          const HXTagAttribute &attribute) {
    if (attribute.isFile() && value.canConvert<HXFileWrapperRef>() &&
        other.canConvert<HXFileWrapperRef>()) {
        const auto file = value.value<HXFileWrapperRef>(),
                   otherFile = other.value<HXFileWrapperRef>();
        return file == otherFile || (file && otherFile && file->hasSameContentsAs(*otherFile));
    }
    return value == other;
}

// Values are equal; two files are equal when their contents are, whatever their names.
bool HXAttributeDictionary::isEqual(const HXAttributeDictionary &other) const {
    if (!HXDefinitionsEqual(m_definition, other.m_definition) || m_store != other.m_store ||
        m_nestedStrings.keys() != other.m_nestedStrings.keys() ||
        m_files.keys() != other.m_files.keys())
        return false;
    for (auto it = m_files.cbegin(); it != m_files.cend(); ++it) {
        if (!compareObject(QVariant::fromValue(it.value()),
                           QVariant::fromValue(other.m_files.value(it.key())),
                           *attributeForKey(it.key())))
            return false;
    }
    for (auto it = m_nestedStrings.cbegin(); it != m_nestedStrings.cend(); ++it) {
        if (!it.value()->isEqualToChunkString(*other.m_nestedStrings.value(it.key())))
            return false;
    }
    return true;
}
