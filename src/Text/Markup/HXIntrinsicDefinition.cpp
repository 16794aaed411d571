#include "Text/Markup/HXIntrinsicDefinition.h"

#include "Text/Markup/HXIntrinsicTagAttribute.h"
#include "Utilities/HXAssert.h"

#include <QHash>

HXIntrinsicDefinition::HXIntrinsicDefinition(QString identifier, quint64 scope,
                                             QVariantMap properties,
                                             QList<HXTagAttributeRef> attributes)
    : m_identifier(std::move(identifier))
    , m_scope(scope)
    , m_properties(std::move(properties))
    , m_attributes(std::move(attributes)) {}

namespace {

struct IntrinsicTable {
    QList<HXDefinitionRef> byScope[HXNumberOfScopes];
    QHash<QString, HXDefinitionRef> byIdentifier;
};

const IntrinsicTable &intrinsicTable() {
    static const IntrinsicTable table = [] {
        IntrinsicTable result;
        auto make = [](const char *identifier, quint64 scope, const char *userCodeName,
                       QVariantMap properties, const QStringList &attributeIdentifiers = {}) {
            properties.insert(QStringLiteral("userCodeName"), QString::fromLatin1(userCodeName));
            QList<HXTagAttributeRef> attributes;
            for (const QString &attribute : attributeIdentifiers)
                attributes.append(
                    HXIntrinsicTagAttribute::intrinsicTagAttributeWithIdentifier(attribute));
            return std::make_shared<HXIntrinsicDefinition>(QString::fromLatin1(identifier), scope,
                                                           std::move(properties),
                                                           std::move(attributes));
        };
        auto add = [&](const char *identifier, quint64 scope, const char *userCodeName,
                       QVariantMap properties = {}, const QStringList &attributes = {}) {
            const HXDefinitionRef definition =
                make(identifier, scope, userCodeName, std::move(properties), attributes);
            result.byScope[scope].append(definition);
            result.byIdentifier.insert(definition->identifier(), definition);
        };
        const QString headingLevel = QStringLiteral("headingLevel");
        const QString groupingType = QStringLiteral("groupingType");
        const QString overrideColors = QStringLiteral("overrideColors");
        const QString noParsingInside = QStringLiteral("noParsingInside");
        const QString countingOptions = QStringLiteral("countingOptions");

        add("heading1", HXHeadingScope, "heading-1", {{headingLevel, 1}});
        add("heading2", HXHeadingScope, "heading-2", {{headingLevel, 2}});
        add("heading3", HXHeadingScope, "heading-3", {{headingLevel, 3}});
        add("heading4", HXHeadingScope, "heading-4", {{headingLevel, 4}});
        add("heading5", HXHeadingScope, "heading-5", {{headingLevel, 5}});
        add("heading6", HXHeadingScope, "heading-6", {{headingLevel, 6}});
        add("comment", HXParagraphScope, "block-comment",
            {{groupingType, 1}, {overrideColors, true}, {countingOptions, 2}});
        add("divider", HXParagraphScope, "paragraph-divider");
        add("codeblock", HXParagraphScope, "block-code",
            {{groupingType, 1}, {noParsingInside, true}});
        add("nativeblock", HXParagraphScope, "block-raw",
            {{groupingType, 1}, {noParsingInside, true}});
        add("orderedList", HXGroupingScope, "list-ordered", {{groupingType, 3}});
        add("unorderedList", HXGroupingScope, "list-unordered", {{groupingType, 3}});
        add("blockquote", HXGroupingScope, "block-quote", {{groupingType, 2}});
        add("strong", HXTextScope, "inline-strong");
        add("emph", HXTextScope, "inline-emphasis");
        add("mark", HXTextScope, "inline-mark");
        add("delete", HXTextScope, "inline-delete", {{countingOptions, 2}});
        add("inlineComment", HXTextScope, "inline-comment",
            {{overrideColors, true}, {countingOptions, 2}});
        add("cite", HXTextScope, "inline-citation");
        add("code", HXTextScope, "inline-code", {{noParsingInside, true}});
        add("inlineNative", HXTextScope, "inline-raw", {{noParsingInside, true}});
        add("link", HXAttributedTextScope, "inline-link", {},
            {QStringLiteral("URL"), QStringLiteral("title")});
        add("annotation", HXAttributedTextScope, "inline-annotation", {{countingOptions, 4}},
            {QStringLiteral("text")});
        add("image", HXObjectScope, "media-image", {},
            {QStringLiteral("image"), QStringLiteral("URL"), QStringLiteral("title"),
             QStringLiteral("description")});
        add("video", HXObjectScope, "object-video", {},
            {QStringLiteral("video"), QStringLiteral("URL")});
        add("footnote", HXObjectScope, "inline-footnote", {}, {QStringLiteral("text")});

        // The first paragraph of a foreign sheet, holding its file's name: listed in no scope.
        result.byIdentifier.insert(HXFilenameDefinitionIdentifier,
                                   make("filename", HXHeadingScope, "paragraph-filename",
                                        {{QStringLiteral("noGroupingAllowed"), true},
                                         {noParsingInside, true},
                                         {countingOptions, 3}}));
        return result;
    }();
    return table;
}

} // namespace

QList<HXDefinitionRef> HXIntrinsicDefinition::intrinsicDefinitionsForScope(quint64 scope) {
    return scope < HXNumberOfScopes ? intrinsicTable().byScope[scope] : QList<HXDefinitionRef>();
}

HXDefinitionRef
HXIntrinsicDefinition::intrinsicDefinitionWithIdentifier(const QString &identifier) {
    return intrinsicTable().byIdentifier.value(identifier);
}

HXDefinitionRef HXIntrinsicDefinition::headingDefinitionWithLevel(quint64 level) {
    HX_ASSERT((level > 0) && (level < 7), u"Invalid parameter not satisfying: %s",
              "(level > 0) && (level < 7)");
    return intrinsicTable().byScope[HXHeadingScope].at(qsizetype(level - 1));
}
