#include "Text/Markup/HXCustomTagAttribute.h"

#include "Utilities/HXStringFormat.h"
#include "Utilities/HXXMLReader.h"

HXCustomTagAttribute::HXCustomTagAttribute(QString identifier, QString displayName, quint64 kind,
                                           bool showDisplayName)
    : m_identifier(std::move(identifier))
    , m_displayName(std::move(displayName))
    , m_kind(kind)
    , m_showDisplayName(showDisplayName) {}

QString HXCustomTagAttribute::displayName() const {
    return m_displayName.isEmpty() ? m_identifier : m_displayName;
}

bool HXCustomTagAttribute::readerWillStartElement(const QString &,
                                                  const HXXMLAttributes &attributes,
                                                  HXError *error) {
    m_identifier = attributes.value(QStringLiteral("identifier"));
    m_displayName = attributes.value(QStringLiteral("name"));
    m_showDisplayName = attributes.value(QStringLiteral("showName")) == QLatin1String("yes");
    const QString kind = attributes.value(QStringLiteral("kind"));
    bool ok = false;
    m_kind = kind.toULongLong(&ok);
    static const QList<quint64> kinds{HXTagAttributeKindString, HXTagAttributeKindNestedString,
                                      HXTagAttributeKindURL, HXTagAttributeKindImage,
                                      HXTagAttributeKindVideo};
    if (!ok || !kinds.contains(m_kind)) {
        HXSetError(error, HXXMLReader::errorWithFailureReason(HXStringWithFormat(
                              u"Unknown kind \"%@\" of attribute \"%@\"", kind, m_identifier)));
        return false;
    }
    return true;
}

HXXMLElement HXCustomTagAttribute::XMLElement() const {
    HXXMLElement element(XMLElementName());
    element.setAttribute(QStringLiteral("identifier"), m_identifier);
    if (!m_displayName.isEmpty())
        element.setAttribute(QStringLiteral("name"), m_displayName);
    element.setAttribute(QStringLiteral("showName"),
                         m_showDisplayName ? QStringLiteral("yes") : QStringLiteral("no"));
    element.setAttribute(QStringLiteral("kind"), QString::number(m_kind));
    return element;
}
