#include "Text/Markup/HXIntrinsicTagAttribute.h"

#include "Utilities/HXLocalizedString.h"

#include <QHash>

HXIntrinsicTagAttribute::HXIntrinsicTagAttribute(QString identifier, quint64 kind,
                                                 bool showDisplayName, QStringList allowedTypes)
    : m_identifier(std::move(identifier))
    , m_kind(kind)
    , m_showDisplayName(showDisplayName)
    , m_allowedTypes(std::move(allowedTypes)) {}

QString HXIntrinsicTagAttribute::displayName() const {
    return HXLocalizedString(m_identifier, QStringLiteral("HXTagAttributeNames"));
}

HXTagAttributeRef
HXIntrinsicTagAttribute::intrinsicTagAttributeWithIdentifier(const QString &identifier) {
    static const QHash<QString, HXTagAttributeRef> table = [] {
        // The image types that the platform shows, then the generic ones.
        const QStringList imageTypes{
            QStringLiteral("image/png"),     QStringLiteral("image/jpeg"),
            QStringLiteral("image/gif"),     QStringLiteral("image/tiff"),
            QStringLiteral("image/bmp"),     QStringLiteral("image/webp"),
            QStringLiteral("image/svg+xml"), QStringLiteral("image/*"),
        };
        QHash<QString, HXTagAttributeRef> attributes;
        auto add = [&](const char *name, quint64 kind, bool show, QStringList types = {}) {
            const QString identifier = QString::fromLatin1(name);
            attributes.insert(identifier, std::make_shared<HXIntrinsicTagAttribute>(
                                              identifier, kind, show, std::move(types)));
        };
        add("title", HXTagAttributeKindString, true);
        add("description", HXTagAttributeKindString, true);
        add("text", HXTagAttributeKindNestedString, false);
        add("URL", HXTagAttributeKindURL, true);
        add("image", HXTagAttributeKindImage, false, imageTypes);
        add("video", HXTagAttributeKindVideo, false, {QStringLiteral("video/*")});
        return attributes;
    }();
    return table.value(identifier);
}
