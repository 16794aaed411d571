#include "Text/Markup/HXTextTag.h"

#include "Text/Markup/HXCustomDefinition.h"
#include "Text/Markup/HXIntrinsicDefinition.h"
#include "Text/String/Parser/HXTextParser.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXStringFormat.h"
#include "Utilities/HXXMLReader.h"

#include <QHash>

HXTextTag::HXTextTag() = default;

HXTextTag::HXTextTag(HXDefinitionRef definition, QStringList patterns)
    : m_definition(std::move(definition))
    , m_patterns(std::move(patterns)) {
    if (m_definition) {
        HX_ASSERT(m_patterns.size() == requiredNumberOfPatternsForScope(m_definition->scope()),
                  u"Invalid number of tags passed!");
    }
}

HXTextTag::~HXTextTag() = default;

qsizetype HXTextTag::requiredNumberOfPatternsForScope(quint64 scope) {
    static const qsizetype required[HXNumberOfScopes] = {1, 1, 1, 2, 2, 1};
    return scope < HXNumberOfScopes ? required[scope] : 0;
}

HXDefinitionRef HXTextTag::definition() const {
    // Set when the tag is made or read, before anyone else sees it; never changed after.
    return m_definition;
}

QStringList HXTextTag::patterns() const {
    std::lock_guard lock(m_mutex);
    return m_patterns;
}

void HXTextTag::setPatterns(const QStringList &patterns) {
    std::vector<std::function<void()>> observers;
    {
        std::lock_guard lock(m_mutex);
        HX_ASSERT(!m_intrinsic, u"Changed tags of intrinsic tag");
        HX_ASSERT(!m_definition ||
                      patterns.size() == requiredNumberOfPatternsForScope(m_definition->scope()),
                  u"Invalid number of tags passed!");
        if (patterns == m_patterns)
            return;
        m_patterns = patterns;
        m_plainStrings.reset();
        m_matchingExpressions.reset();
        for (const auto &[owner, function] : m_patternsObservers)
            observers.push_back(function);
    }
    for (const auto &function : observers)
        function();
}

void HXTextTag::buildCachesLocked() const {
    if (m_plainStrings)
        return;
    QStringList plain;
    std::vector<std::shared_ptr<const icu::RegexPattern>> expressions;
    for (const QString &pattern : m_patterns) {
        plain.append(HXTextParser::plainStringForPattern(pattern));
        expressions.push_back(
            HXTextParser::regularExpressionForPattern(pattern, m_definition.get()));
    }
    m_plainStrings = std::move(plain);
    m_matchingExpressions = std::move(expressions);
}

QStringList HXTextTag::plainStrings() const {
    std::lock_guard lock(m_mutex);
    buildCachesLocked();
    return *m_plainStrings;
}

std::vector<std::shared_ptr<const icu::RegexPattern>> HXTextTag::matchingExpressions() const {
    std::lock_guard lock(m_mutex);
    buildCachesLocked();
    return *m_matchingExpressions;
}

std::shared_ptr<const icu::RegexPattern> HXTextTag::matchingExpression(qsizetype part) const {
    std::lock_guard lock(m_mutex);
    buildCachesLocked();
    return part >= 0 && size_t(part) < m_matchingExpressions->size()
               ? (*m_matchingExpressions)[size_t(part)]
               : nullptr;
}

bool HXTextTag::patternIsSimple(qsizetype part) const {
    std::lock_guard lock(m_mutex);
    buildCachesLocked();
    return part >= 0 && part < m_plainStrings->size() && !m_plainStrings->at(part).isNull();
}

QString HXTextTag::userDisplayName() const {
    std::lock_guard lock(m_mutex);
    return m_userDisplayName;
}

void HXTextTag::setUserDisplayName(const QString &name) {
    std::lock_guard lock(m_mutex);
    m_userDisplayName = name;
}

QString HXTextTag::displayName() const {
    std::lock_guard lock(m_mutex);
    if (!m_userDisplayName.isEmpty())
        return m_userDisplayName;
    return m_definition ? m_definition->displayName() : QString();
}

QString HXTextTag::displayString() const {
    const HXDefinitionRef definition = this->definition();
    const QStringList patterns = this->patterns();
    const QString name = displayName();
    const QString start = patterns.value(0);
    if (!definition)
        return name;
    switch (definition->scope()) {
    case HXObjectScope:
        return HXStringWithFormat(u"%@ %@", start, name);
    case HXTextScope:
    case HXAttributedTextScope:
        return HXStringWithFormat(u"%@%@%@", start, name, patterns.value(1));
    default:
        return HXStringWithFormat(u"%@%@", start, name);
    }
}

bool HXTextTag::isIntrinsic() const {
    std::lock_guard lock(m_mutex);
    return m_intrinsic;
}

void HXTextTag::setIntrinsic(bool intrinsic) {
    std::lock_guard lock(m_mutex);
    m_intrinsic = intrinsic;
}

bool HXTextTag::isEqual(const HXTextTag &other) const {
    if (this == &other)
        return true;
    return HXDefinitionsEqual(definition(), other.definition()) && patterns() == other.patterns();
}

size_t HXTextTag::hash() const {
    const HXDefinitionRef definition = this->definition();
    return (definition ? definition->hash() : 0) * 37 + qHash(patterns()) + 23273;
}

QString HXTextTag::description() const {
    const HXDefinitionRef definition = this->definition();
    return HXStringWithFormat(u"<HXTextTag %p definition:%@ patterns:(%@)>", this,
                              definition ? definition->identifier() : QString(),
                              patterns().join(QStringLiteral(", ")));
}

std::shared_ptr<HXTextTag> HXTextTag::copy() const {
    auto tag = std::make_shared<HXTextTag>();
    std::lock_guard lock(m_mutex);
    tag->m_definition = m_definition;
    tag->m_patterns = m_patterns;
    tag->m_intrinsic = m_intrinsic;
    return tag;
}

std::shared_ptr<HXTextTag> HXTextTag::duplicate() const {
    auto tag = copy();
    tag->m_intrinsic = false;
    return tag;
}

void HXTextTag::addPatternsObserver(const void *owner, std::function<void()> function) {
    std::lock_guard lock(m_mutex);
    m_patternsObservers.emplace_back(owner, std::move(function));
}

void HXTextTag::removePatternsObserver(const void *owner) {
    std::lock_guard lock(m_mutex);
    std::erase_if(m_patternsObservers, [&](const auto &entry) { return entry.first == owner; });
}

// --- Markup files ---------------------------------------------------------------------------

namespace {

class UnknownElementReader : public HXXMLReading {
public:
    std::shared_ptr<HXXMLReading>
    readerDidFindChildElement(const QString &name, HXXMLReaderContext *, HXError *error) override {
        if (name == HXTextTag::XMLElementName()) {
            HXSetError(error, HXXMLReader::errorWithFailureReason(HXStringWithFormat(
                                  u"Tag inside the unknown element \"%@\"", m_name)));
            return nullptr;
        }
        return std::make_shared<UnknownElementReader>();
    }
    bool readerWillStartElement(const QString &name, const HXXMLAttributes &, HXError *) override {
        m_name = name;
        return true;
    }

private:
    QString m_name;
};

} // namespace

std::shared_ptr<HXXMLReading> HXTextTag::readerForUnknownElement() {
    return std::make_shared<UnknownElementReader>();
}

bool HXTextTag::readerWillStartElement(const QString &, const HXXMLAttributes &attributes,
                                       HXError *) {
    std::lock_guard lock(m_mutex);
    const QString identifier = attributes.value(QStringLiteral("definition"));
    if (!identifier.isEmpty())
        m_definition = HXIntrinsicDefinition::intrinsicDefinitionWithIdentifier(identifier);
    const auto pattern = attributes.constFind(QStringLiteral("pattern"));
    const auto start = attributes.constFind(QStringLiteral("startPattern"));
    const auto end = attributes.constFind(QStringLiteral("endPattern"));
    if (pattern != attributes.constEnd())
        m_patterns = {*pattern};
    else if (start != attributes.constEnd() && end != attributes.constEnd())
        m_patterns = {*start, *end};
    m_userDisplayName = attributes.value(QStringLiteral("name"));
    return true;
}

std::shared_ptr<HXXMLReading>
HXTextTag::readerDidFindChildElement(const QString &name, HXXMLReaderContext *, HXError *) {
    if (name == HXCustomDefinition::XMLElementName())
        return std::make_shared<HXCustomDefinition>();
    return readerForUnknownElement();
}

bool HXTextTag::readerDidEndChildElement(const std::shared_ptr<HXXMLReading> &child,
                                         HXXMLReaderContext *, HXError *) {
    if (const auto custom = std::dynamic_pointer_cast<HXCustomDefinition>(child)) {
        // A custom definition that turns out to be a built-in one is the built-in one.
        HXDefinitionRef definition =
            HXIntrinsicDefinition::intrinsicDefinitionWithIdentifier(custom->identifier());
        std::lock_guard lock(m_mutex);
        m_definition = definition ? definition : custom;
    }
    return true;
}

bool HXTextTag::readerWillEndElement(HXXMLReaderContext *, HXError *error) {
    std::lock_guard lock(m_mutex);
    if (m_definition &&
        m_patterns.size() != requiredNumberOfPatternsForScope(m_definition->scope())) {
        HXSetError(error, HXXMLReader::errorWithFailureReason(
                              QStringLiteral("No text tags found for tag")));
        return false;
    }
    m_plainStrings.reset();
    m_matchingExpressions.reset();
    return true;
}

HXXMLElement HXTextTag::XMLElement() const {
    std::lock_guard lock(m_mutex);
    HXXMLElement element(XMLElementName());
    if (m_definition && m_definition->isIntrinsic())
        element.setAttribute(QStringLiteral("definition"), m_definition->identifier());
    if (m_patterns.size() == 1) {
        element.setAttribute(QStringLiteral("pattern"), m_patterns[0]);
    } else if (m_patterns.size() == 2) {
        element.setAttribute(QStringLiteral("startPattern"), m_patterns[0]);
        element.setAttribute(QStringLiteral("endPattern"), m_patterns[1]);
    }
    if (!m_userDisplayName.isEmpty())
        element.setAttribute(QStringLiteral("name"), m_userDisplayName);
    if (m_definition && !m_definition->isIntrinsic()) {
        if (const auto custom = std::dynamic_pointer_cast<const HXCustomDefinition>(m_definition)) {
            element.addText(QStringLiteral("\n\t\t\t"));
            element.addChild(custom->XMLElement());
            element.addText(QStringLiteral("\n\t\t"));
        }
    }
    return element;
}
