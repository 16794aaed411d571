#include "Text/Markup/HXCustomDefinition.h"

#include "Text/Markup/HXCustomTagAttribute.h"
#include "Text/Markup/HXTextTag.h"
#include "Utilities/HXStringFormat.h"
#include "Utilities/HXXMLReader.h"

namespace {
// The properties that a `definition` element may carry as attributes.
const QStringList numberProperties{QStringLiteral("headingLevel"), QStringLiteral("groupingType"),
                                   QStringLiteral("noParsingInside")};
} // namespace

HXCustomDefinition::HXCustomDefinition(QString identifier, QString displayName, quint64 scope,
                                       QVariantMap properties, QList<HXTagAttributeRef> attributes)
    : m_identifier(std::move(identifier))
    , m_displayName(std::move(displayName))
    , m_properties(std::move(properties))
    , m_scope(scope)
    , m_attributes(std::move(attributes)) {}

QString HXCustomDefinition::identifier() const {
    return m_identifier.isEmpty() ? m_displayName.toLower() : m_identifier;
}

bool HXCustomDefinition::readerWillStartElement(const QString &, const HXXMLAttributes &attributes,
                                                HXError *error) {
    m_identifier = attributes.value(QStringLiteral("identifier"));
    m_displayName = attributes.value(QStringLiteral("name"));
    if (m_identifier.isEmpty())
        m_identifier = m_displayName.toLower();
    if (m_identifier.isEmpty()) {
        HXSetError(error, HXXMLReader::errorWithFailureReason(
                              QStringLiteral("Definition without identifier or name")));
        return false;
    }
    const QString scopes = attributes.value(QStringLiteral("scope"));
    if (!scopes.isEmpty()) {
        // A list of scopes: the last one counts.
        const QString last = scopes.split(QLatin1Char(',')).last().trimmed();
        bool known = false;
        m_scope = scopeForName(last, &known);
        if (!known) {
            HXSetError(error,
                       HXXMLReader::errorWithFailureReason(HXStringWithFormat(
                           u"Unknown scope \"%@\" for definition \"%@\"", last, m_identifier)));
            return false;
        }
    }
    for (const QString &property : numberProperties) {
        const auto value = attributes.constFind(property);
        if (value == attributes.constEnd())
            continue;
        bool numeric = false;
        const qint64 number = value->toLongLong(&numeric);
        if (!numeric) {
            HXSetError(error, HXXMLReader::errorWithFailureReason(HXStringWithFormat(
                                  u"Property %@ of definition \"%@\" is no number: \"%@\"",
                                  property, m_identifier, *value)));
            return false;
        }
        m_properties.insert(property, number);
    }
    propertiesChanged();
    return true;
}

std::shared_ptr<HXXMLReading> HXCustomDefinition::readerDidFindChildElement(const QString &name,
                                                                            HXXMLReaderContext *,
                                                                            HXError *) {
    if (name == HXCustomTagAttribute::XMLElementName())
        return std::make_shared<HXCustomTagAttribute>();
    return HXTextTag::readerForUnknownElement();
}

bool HXCustomDefinition::readerDidEndChildElement(const std::shared_ptr<HXXMLReading> &child,
                                                  HXXMLReaderContext *, HXError *) {
    if (const auto attribute = std::dynamic_pointer_cast<HXCustomTagAttribute>(child))
        m_attributes.append(attribute);
    return true;
}

HXXMLElement HXCustomDefinition::XMLElement() const {
    HXXMLElement element(XMLElementName());
    element.setAttribute(QStringLiteral("identifier"), identifier());
    if (!m_displayName.isEmpty())
        element.setAttribute(QStringLiteral("name"), m_displayName);
    element.setAttribute(QStringLiteral("scope"), nameForScope(m_scope));
    for (auto it = m_properties.begin(); it != m_properties.end(); ++it) {
        const QMetaType type = it.value().metaType();
        if (type.id() == QMetaType::Bool || type.id() == QMetaType::Int ||
            type.id() == QMetaType::UInt || type.id() == QMetaType::LongLong ||
            type.id() == QMetaType::ULongLong)
            element.setAttribute(it.key(), QString::number(it.value().toLongLong()));
    }
    for (const HXTagAttributeRef &attribute : m_attributes) {
        if (const auto custom = std::dynamic_pointer_cast<const HXCustomTagAttribute>(attribute)) {
            element.addText(QStringLiteral("\n\t\t\t\t"));
            element.addChild(custom->XMLElement());
        }
    }
    if (!m_attributes.isEmpty())
        element.addText(QStringLiteral("\n\t\t\t"));
    return element;
}
