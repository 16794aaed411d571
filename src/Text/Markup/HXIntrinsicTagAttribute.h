#pragma once

#include "Text/Markup/HXTagAttribute.h"

// The attributes that the built-in definitions declare: title, description, text, URL, image and
// video. Singletons of a table built on first use and read-only after; any thread.
class HXIntrinsicTagAttribute : public HXTagAttribute {
public:
    // The built-in attribute of that identifier, or nothing.
    static HXTagAttributeRef intrinsicTagAttributeWithIdentifier(const QString &identifier);

    HXIntrinsicTagAttribute(QString identifier, quint64 kind, bool showDisplayName,
                            QStringList allowedTypes);

    QString identifier() const override { return m_identifier; }
    // Localized by identifier.
    QString displayName() const override;
    bool showDisplayName() const override { return m_showDisplayName; }
    quint64 kind() const override { return m_kind; }
    QStringList allowedTypes() const override { return m_allowedTypes; }

private:
    QString m_identifier;
    quint64 m_kind;
    bool m_showDisplayName;
    QStringList m_allowedTypes;
};
