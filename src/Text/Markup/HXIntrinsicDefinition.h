#pragma once

#include "Text/Markup/HXDefinition.h"

inline const QString HXFilenameDefinitionIdentifier = QStringLiteral("filename");

// The built-in definitions: the system's vocabulary of meanings, which all logic keys on.
// Singletons of a table built on the first query and read-only after; any thread.
class HXIntrinsicDefinition : public HXDefinition {
public:
    HXIntrinsicDefinition(QString identifier, quint64 scope, QVariantMap properties,
                          QList<HXTagAttributeRef> attributes);

    QString identifier() const override { return m_identifier; }
    quint64 scope() const override { return m_scope; }
    QVariantMap properties() const override { return m_properties; }
    QList<HXTagAttributeRef> attributes() const override { return m_attributes; }
    bool isIntrinsic() const override { return true; }

    // The definitions of a scope in table order. `filename` is in none.
    static QList<HXDefinitionRef> intrinsicDefinitionsForScope(quint64 scope);
    // By identifier, `filename` included; nothing for an unknown one.
    static HXDefinitionRef intrinsicDefinitionWithIdentifier(const QString &identifier);
    // `heading1` to `heading6`; a level outside 1 to 6 is an assertion.
    static HXDefinitionRef headingDefinitionWithLevel(quint64 level);

private:
    QString m_identifier;
    quint64 m_scope;
    QVariantMap m_properties;
    QList<HXTagAttributeRef> m_attributes;
};
