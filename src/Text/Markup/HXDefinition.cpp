#include "Text/Markup/HXDefinition.h"

#include "Text/Markup/HXIntrinsicDefinition.h"
#include "Text/Markup/HXMarkup.h"
#include "Text/String/Access/HXString.h"
#include "Utilities/HXDescription.h"
#include "Utilities/HXLocalizedString.h"
#include "Utilities/HXStringFormat.h"

#include <QHash>

#include <mutex>

#include <typeinfo>

namespace {
const QString definitionNamesTable = QStringLiteral("HXDefinitionNames");
}

const HXDefinition::CachedProperties &HXDefinition::cachedProperties() const {
    if (!m_cacheReady.load(std::memory_order_acquire)) {
        static std::mutex mutex;
        const std::lock_guard<std::mutex> lock(mutex);
        if (!m_cacheReady.load(std::memory_order_relaxed)) {
            const QVariantMap map = properties();
            m_cache.headingLevel = map.value(QStringLiteral("headingLevel")).toULongLong();
            m_cache.groupingType = map.value(QStringLiteral("groupingType")).toULongLong();
            m_cache.countingOptions = map.value(QStringLiteral("countingOptions")).toULongLong();
            m_cache.noGroupingAllowed = map.value(QStringLiteral("noGroupingAllowed")).toBool();
            m_cache.overrideColors = map.value(QStringLiteral("overrideColors")).toBool();
            m_cache.noParsingInside = map.value(QStringLiteral("noParsingInside")).toBool();
            m_cacheReady.store(true, std::memory_order_release);
        }
    }
    return m_cache;
}

quint64 HXDefinition::headingLevel() const {
    return cachedProperties().headingLevel;
}

quint64 HXDefinition::groupingType() const {
    return cachedProperties().groupingType;
}

bool HXDefinition::noGroupingAllowed() const {
    return cachedProperties().noGroupingAllowed;
}

bool HXDefinition::overrideColors() const {
    return cachedProperties().overrideColors;
}

bool HXDefinition::noParsingInside() const {
    return cachedProperties().noParsingInside;
}

quint64 HXDefinition::countingOptions() const {
    return cachedProperties().countingOptions;
}

QString HXDefinition::userCodeNameForIdentifier(const QString &identifier) {
    QString name;
    name.reserve(identifier.size() + 4);
    for (const QChar c : identifier) {
        if (c.isUpper()) {
            if (!name.isEmpty())
                name += QLatin1Char('-');
            name += c.toLower();
        } else {
            name += c;
        }
    }
    return name;
}

QString HXDefinition::userCodeName() const {
    const QString stored = properties().value(QStringLiteral("userCodeName")).toString();
    return stored.isEmpty() ? userCodeNameForIdentifier(identifier()) : stored;
}

QString HXDefinition::displayName() const {
    return HXLocalizedString(identifier(), definitionNamesTable);
}

QString HXDefinition::shortName() const {
    return HXLocalizedString(identifier() + QStringLiteral("_short"), definitionNamesTable);
}

qsizetype HXDefinition::ordering() const {
    const QList<HXDefinitionRef> listed =
        HXIntrinsicDefinition::intrinsicDefinitionsForScope(scope());
    for (qsizetype i = 0; i < listed.size(); ++i) {
        if (listed[i]->identifier() == identifier())
            return i;
    }
    return listed.size();
}

QString HXDefinition::userDescriptionText() const {
    return HXLocalizedString(identifier(), QStringLiteral("HXDefinitionDescriptions"));
}

std::shared_ptr<HXMarkup> HXDefinition::userDescriptionMarkup() {
    return HXMarkup::defaultIntrinsicMarkup();
}

std::shared_ptr<HXString> HXDefinition::userDescription() const {
    return HXString::stringWithString(userDescriptionText(), userDescriptionMarkup());
}

bool HXDefinition::matchesSelector(HXDefinitionSelector selector) const {
    if (!(selector & HXSelectorForScope(scope())))
        return false;
    if ((selector & HXSelectorNoNestedStrings) &&
        (scope() == HXAttributedTextScope || scope() == HXObjectScope)) {
        for (const HXTagAttributeRef &attribute : attributes()) {
            if (attribute->kind() == HXTagAttributeKindNestedString)
                return false;
        }
    }
    if (selector & HXSelectorAllowsFilename)
        return true;
    return identifier() != HXFilenameDefinitionIdentifier;
}

bool HXDefinition::isEqual(const HXDefinition &other) const {
    if (this == &other)
        return true;
    if (scope() != other.scope() || identifier() != other.identifier() ||
        properties() != other.properties())
        return false;
    const QList<HXTagAttributeRef> mine = attributes(), theirs = other.attributes();
    if (mine.size() != theirs.size())
        return false;
    for (qsizetype i = 0; i < mine.size(); ++i) {
        if (!mine[i]->isEqual(*theirs[i]))
            return false;
    }
    return true;
}

size_t HXDefinition::hash() const {
    // The properties hash independently of their order.
    size_t propertiesHash = 0;
    const QVariantMap map = properties();
    for (auto it = map.begin(); it != map.end(); ++it)
        propertiesHash += qHash(it.key()) ^ qHash(it.value().toString());
    for (const HXTagAttributeRef &attribute : attributes())
        propertiesHash += attribute->hash();
    return ((qHash(scope()) * 37) + qHash(identifier())) * 37 + propertiesHash + 861101;
}

QString HXDefinition::description() const {
    return HXStringWithFormat(u"<%@ 0x%0lx identifier:%@ scope:%lu properties:%@>",
                              HXClassName(typeid(*this)), quint64(quintptr(this)), identifier(),
                              scope(), HXDescription(properties()));
}

HXDefinitionRef HXDefinition::definitionWithIdentifier(const QString &identifier) {
    return HXIntrinsicDefinition::intrinsicDefinitionWithIdentifier(identifier);
}

QList<HXDefinitionRef> HXDefinition::availableDefinitionsForScopes(HXDefinitionSelector scopes) {
    QList<HXDefinitionRef> definitions;
    for (quint64 scope = 0; scope < HXNumberOfScopes; ++scope) {
        if (scopes & HXSelectorForScope(scope))
            definitions.append(HXIntrinsicDefinition::intrinsicDefinitionsForScope(scope));
    }
    return definitions;
}

namespace {
const char *const scopeNames[] = {"heading", "paragraph",      "grouping",
                                  "text",    "attributedText", "object"};
}

QString HXDefinition::nameForScope(quint64 scope) {
    return scope < HXNumberOfScopes ? QString::fromLatin1(scopeNames[scope]) : QString();
}

quint64 HXDefinition::scopeForName(const QString &name, bool *ok) {
    for (quint64 scope = 0; scope < HXNumberOfScopes; ++scope) {
        if (name == QLatin1String(scopeNames[scope])) {
            if (ok)
                *ok = true;
            return scope;
        }
    }
    if (ok)
        *ok = false;
    return 0;
}

QString HXDefinition::displayNameForScope(quint64 scope) {
    return HXLocalizedString(nameForScope(scope), definitionNamesTable);
}

bool HXDefinitionsEqual(const HXDefinitionRef &a, const HXDefinitionRef &b) {
    if (a.get() == b.get())
        return true;
    return a && b && a->isEqual(*b);
}
