#pragma once

#include "Text/Markup/HXTagAttribute.h"
#include "Utilities/HXXMLElement.h"
#include "Utilities/HXXMLReading.h"

// An attribute of a custom definition, read from and written to its `attribute` element. Filled
// while read, immutable after; any thread then.
class HXCustomTagAttribute : public HXTagAttribute, public HXXMLReading {
public:
    HXCustomTagAttribute() = default;
    HXCustomTagAttribute(QString identifier, QString displayName, quint64 kind,
                         bool showDisplayName);

    QString identifier() const override { return m_identifier; }
    // The given name, else the identifier.
    QString displayName() const override;
    bool showDisplayName() const override { return m_showDisplayName; }
    quint64 kind() const override { return m_kind; }
    QStringList allowedTypes() const override { return {}; }

    bool readerWillStartElement(const QString &name, const HXXMLAttributes &attributes,
                                HXError *error) override;
    static QString XMLElementName() { return QStringLiteral("attribute"); }
    HXXMLElement XMLElement() const;

private:
    QString m_identifier;
    QString m_displayName;
    quint64 m_kind = HXTagAttributeKindString;
    bool m_showDisplayName = false;
};
