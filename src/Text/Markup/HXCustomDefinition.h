#pragma once

#include "Text/Markup/HXDefinition.h"
#include "Utilities/HXXMLElement.h"
#include "Utilities/HXXMLReading.h"

// A definition that a markup file brings along, with its own name, scope, properties and
// attributes. Filled while its `definition` element is read, immutable after; any thread then.
class HXCustomDefinition : public HXDefinition, public HXXMLReading {
public:
    HXCustomDefinition() = default;
    HXCustomDefinition(QString identifier, QString displayName, quint64 scope,
                       QVariantMap properties, QList<HXTagAttributeRef> attributes = {});

    // The stored identifier, else the lowercase display name.
    QString identifier() const override;
    quint64 scope() const override { return m_scope; }
    QVariantMap properties() const override { return m_properties; }
    QList<HXTagAttributeRef> attributes() const override { return m_attributes; }
    bool isIntrinsic() const override { return false; }
    QString displayName() const override { return m_displayName; }

    bool readerWillStartElement(const QString &name, const HXXMLAttributes &attributes,
                                HXError *error) override;
    std::shared_ptr<HXXMLReading> readerDidFindChildElement(const QString &name,
                                                            HXXMLReaderContext *context,
                                                            HXError *error) override;
    bool readerDidEndChildElement(const std::shared_ptr<HXXMLReading> &child,
                                  HXXMLReaderContext *context, HXError *error) override;
    static QString XMLElementName() { return QStringLiteral("definition"); }
    HXXMLElement XMLElement() const;

private:
    QString m_identifier;
    QString m_displayName;
    QVariantMap m_properties;
    quint64 m_scope = HXTextScope;
    QList<HXTagAttributeRef> m_attributes;
};
