#include "Text/Markup/HXMarkup.h"

#include "Text/Markup/HXPreferredPatterns.h"
#include "Text/String/Parser/HXParseTables.h"
#include "Utilities/HXApplicationLog.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXLocalizedString.h"
#include "Utilities/HXXMLReader.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cstdlib>

namespace {

// The fixed order of tags: by scope, definition identifier and patterns.
bool tagLessThan(const HXTextTagRef &a, const HXTextTagRef &b) {
    const HXDefinitionRef da = a->definition(), db = b->definition();
    const quint64 sa = da ? da->scope() : HXNumberOfScopes,
                  sb = db ? db->scope() : HXNumberOfScopes;
    if (sa != sb)
        return sa < sb;
    const QString ia = da ? da->identifier() : QString(), ib = db ? db->identifier() : QString();
    if (ia != ib)
        return ia < ib;
    const QStringList pa = a->patterns(), pb = b->patterns();
    for (qsizetype i = 0; i < std::min(pa.size(), pb.size()); ++i) {
        if (pa[i] != pb[i])
            return pa[i] < pb[i];
    }
    if (pa.size() != pb.size())
        return pa.size() < pb.size();
    return a->userDisplayName() < b->userDisplayName();
}

bool expressionMatchesWhole(const icu::RegexPattern &expression, const QString &string) {
    const icu::UnicodeString text(false, reinterpret_cast<const UChar *>(string.utf16()),
                                  int32_t(string.size()));
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::RegexMatcher> matcher(expression.matcher(text, status));
    if (U_FAILURE(status))
        return false;
    const bool matches = matcher->matches(status);
    return U_SUCCESS(status) && matches;
}

} // namespace

namespace {

// Each markup is told apart by a number never given twice, so that the tables a thread used last
// can't be taken for those of a new markup at the same address.
quint64 nextMarkupSerial() {
    static std::atomic<quint64> last{0};
    return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

} // namespace

HXMarkup::HXMarkup()
    : m_serial(nextMarkupSerial()) {
    m_preferredPatternsObservation = HXNotificationCenter::defaultCenter()->addObserver(
        HXDefinitionStorePreferredPatternsChanged,
        [this](const HXNotification &) { invalidateDefaultTags(); });
}

HXMarkup::~HXMarkup() {
    for (const HXTextTagRef &tag : std::as_const(m_allTags))
        tag->removePatternsObserver(this);
}

// --- Tags -----------------------------------------------------------------------------------

QList<HXTextTagRef> HXMarkup::allTags() const {
    std::lock_guard lock(m_tagsMutex);
    return m_allTags;
}

bool HXMarkup::tagSetsEqual(const QList<HXTextTagRef> &a, const QList<HXTextTagRef> &b) {
    if (a.size() != b.size())
        return false;
    return std::all_of(a.begin(), a.end(), [&](const HXTextTagRef &tag) {
        return std::any_of(b.begin(), b.end(),
                           [&](const HXTextTagRef &other) { return tag->isEqual(*other); });
    });
}

qsizetype HXMarkup::indexOfEqualTag(const QList<HXTextTagRef> &tags, const HXTextTag &tag) const {
    for (qsizetype i = 0; i < tags.size(); ++i) {
        if (tags[i]->isEqual(tag))
            return i;
    }
    return -1;
}

void HXMarkup::observeTag(const HXTextTagRef &tag) {
    tag->addPatternsObserver(this, [this] {
        sortTags();
        postStructureNotification();
    });
}

void HXMarkup::sortTags() {
    std::lock_guard lock(m_tagsMutex);
    std::stable_sort(m_allTags.begin(), m_allTags.end(), tagLessThan);
    m_selectedTags.clear();
    clearParserTables();
}

void HXMarkup::setAllTags(const QList<HXTextTagRef> &tags) {
    // A set: the first of equal tags counts.
    QList<HXTextTagRef> incoming;
    for (const HXTextTagRef &tag : tags) {
        if (tag && indexOfEqualTag(incoming, *tag) < 0)
            incoming.append(tag);
    }
    const QList<HXTextTagRef> present = allTags();
    if (tagSetsEqual(present, incoming))
        return;
    bool changed = false;
    for (const HXTextTagRef &tag : present) {
        if (!incoming.contains(tag)) {
            tag->removePatternsObserver(this);
            changed = true;
        }
    }
    for (const HXTextTagRef &tag : std::as_const(incoming)) {
        if (!present.contains(tag)) {
            observeTag(tag);
            changed = true;
        }
    }
    std::stable_sort(incoming.begin(), incoming.end(), tagLessThan);
    {
        std::lock_guard lock(m_tagsMutex);
        m_allTags = incoming;
        m_selectedTags.clear();
        clearParserTables();
    }
    if (changed)
        postStructureNotification();
}

void HXMarkup::addTag(const HXTextTagRef &tag) {
    if (!tag)
        return;
    {
        std::lock_guard lock(m_tagsMutex);
        if (indexOfEqualTag(m_allTags, *tag) >= 0)
            return;
        m_allTags.insert(std::upper_bound(m_allTags.begin(), m_allTags.end(), tag, tagLessThan),
                         tag);
        m_selectedTags.clear();
        clearParserTables();
    }
    observeTag(tag);
    postStructureNotification();
}

void HXMarkup::removeTag(const HXTextTagRef &tag) {
    if (!tag)
        return;
    HXTextTagRef removed;
    {
        std::lock_guard lock(m_tagsMutex);
        const qsizetype index = indexOfEqualTag(m_allTags, *tag);
        if (index < 0)
            return;
        removed = m_allTags.takeAt(index);
        m_selectedTags.clear();
        clearParserTables();
    }
    removed->removePatternsObserver(this);
    postStructureNotification();
}

bool HXMarkup::isIntrinsic() const {
    const QList<HXTextTagRef> tags = allTags();
    return std::any_of(tags.begin(), tags.end(),
                       [](const HXTextTagRef &tag) { return tag->isIntrinsic(); });
}

void HXMarkup::setIntrinsic(bool intrinsic) {
    for (const HXTextTagRef &tag : allTags())
        tag->setIntrinsic(intrinsic);
}

QList<HXTextTagRef> HXMarkup::tagsForScope(quint64 scope) const {
    return tagsForSelector(HXSelectorForScope(scope));
}

QList<HXTextTagRef> HXMarkup::tagsForSelector(HXDefinitionSelector selector) const {
    // The parser asks this for every paragraph, so the answers are kept until the tags change.
    std::lock_guard lock(m_tagsMutex);
    const auto known = m_selectedTags.constFind(selector);
    if (known != m_selectedTags.constEnd())
        return *known;
    QList<HXTextTagRef> result;
    for (const HXTextTagRef &tag : std::as_const(m_allTags)) {
        const HXDefinitionRef definition = tag->definition();
        if (definition && definition->matchesSelector(selector))
            result.append(tag);
    }
    m_selectedTags.insert(selector, result);
    return result;
}

void HXMarkup::clearParserTables() {
    m_parserTables.clear();
    m_parserTablesGeneration.fetch_add(1, std::memory_order_acq_rel);
}

std::shared_ptr<const HXParseTables> HXMarkup::parserTables(HXDefinitionSelector selector) const {
    // The tables a thread used last: a text is parsed a paragraph at a time under one selector.
    struct Last {
        quint64 serial = 0;
        quint64 generation = 0;
        HXDefinitionSelector selector = 0;
        std::shared_ptr<const HXParseTables> tables;
    };
    thread_local Last last;
    const quint64 generation = m_parserTablesGeneration.load(std::memory_order_acquire);
    if (last.tables && last.serial == m_serial && last.generation == generation &&
        last.selector == selector)
        return last.tables;
    auto tables = lockedParserTables(selector);
    last = Last{m_serial, generation, selector, tables};
    return tables;
}

std::shared_ptr<const HXParseTables>
HXMarkup::lockedParserTables(HXDefinitionSelector selector) const {
    {
        std::lock_guard lock(m_tagsMutex);
        const auto known = m_parserTables.constFind(selector);
        if (known != m_parserTables.constEnd())
            return *known;
    }
    // Made outside the lock, which making them takes; two threads may both make them.
    auto tables = HXParseTables::make(*this, selector);
    std::lock_guard lock(m_tagsMutex);
    return *m_parserTables.insert(selector, std::move(tables));
}

QList<HXTextTagRef> HXMarkup::allTagsWithIdentifier(const QString &identifier) const {
    QList<HXTextTagRef> result;
    for (const HXTextTagRef &tag : allTags()) {
        const HXDefinitionRef definition = tag->definition();
        if (definition && definition->identifier() == identifier)
            result.append(tag);
    }
    return result;
}

HXTextTagRef HXMarkup::tagWithIdentifier(const QString &identifier,
                                         const QString &matchingString) const {
    const QList<HXTextTagRef> group = allTagsWithIdentifier(identifier);
    if (group.isEmpty())
        return nullptr;
    if (group.size() == 1)
        return group.first();
    if (matchingString.isNull())
        return defaultTagWithIdentifier(identifier);
    QString string = matchingString;
    // Expressions of line-level tags expect the marker without the blanks that indent it, and
    // with the blank behind it.
    if (group.first()->definition()->scope() <= HXGroupingScope) {
        qsizetype blanks = 0;
        while (blanks < string.size() && string.at(blanks) == QLatin1Char(' '))
            ++blanks;
        string.remove(0, blanks);
        if (!string.endsWith(QLatin1Char(' ')))
            string += QLatin1Char(' ');
    }
    for (const HXTextTagRef &tag : group) {
        const auto expression = tag->matchingExpression(0);
        if (expression && expressionMatchesWhole(*expression, string))
            return tag;
    }
    return defaultTagWithIdentifier(identifier);
}

QHash<QString, HXTextTagRef> HXMarkup::defaultTags() const {
    std::lock_guard lock(m_tagsMutex);
    if (m_defaultTags)
        return *m_defaultTags;
    QHash<QString, QList<HXTextTagRef>> groups;
    for (const HXTextTagRef &tag : m_allTags)
        groups[tag->definition()->identifier()].append(tag);
    QHash<QString, HXTextTagRef> defaults;
    for (auto group = groups.begin(); group != groups.end(); ++group) {
        HXTextTagRef chosen = group->first();
        if (group->size() > 1) {
            const QString preferred = HXPreferredPatternForDefinition(group.key());
            for (const HXTextTagRef &tag : std::as_const(*group)) {
                if (!preferred.isNull() && tag->patterns().value(0) == preferred)
                    chosen = tag;
            }
        }
        defaults.insert(group.key(), chosen);
    }
    m_defaultTags = defaults;
    return defaults;
}

HXTextTagRef HXMarkup::defaultTagWithIdentifier(const QString &identifier) const {
    return defaultTags().value(identifier);
}

// --- Changes --------------------------------------------------------------------------------

void HXMarkup::invalidateDefaultTags() {
    std::lock_guard lock(m_tagsMutex);
    m_defaultTags.reset();
}

void HXMarkup::postStructureNotification() {
    if (m_isEditing) {
        m_didChange = true;
        return;
    }
    invalidateDefaultTags();
    std::vector<std::weak_ptr<HXMarkupObserver>> observers;
    {
        const std::lock_guard lock(m_observerMutex);
        std::erase_if(m_observers,
                      [](const std::weak_ptr<HXMarkupObserver> &o) { return o.expired(); });
        observers = m_observers;
    }
    for (const auto &weak : observers) {
        if (const auto observer = weak.lock())
            observer->markupChangedStructure(*this);
    }
}

void HXMarkup::beginEditing() {
    HX_ASSERT(!m_isEditing, u"Markup is editing already!");
    m_isEditing = true;
    m_didChange = false;
}

void HXMarkup::endEditing() {
    HX_ASSERT(m_isEditing, u"Markup not in edit mode!");
    m_isEditing = false;
    if (m_didChange) {
        m_didChange = false;
        postStructureNotification();
    }
}

void HXMarkup::addMarkupObserver(const std::shared_ptr<HXMarkupObserver> &observer) {
    const std::lock_guard lock(m_observerMutex);
    m_observers.push_back(observer);
}

void HXMarkup::removeMarkupObserver(const std::shared_ptr<HXMarkupObserver> &observer) {
    const std::lock_guard lock(m_observerMutex);
    std::erase_if(m_observers, [&](const std::weak_ptr<HXMarkupObserver> &o) {
        // By control block: a lock() here could end the last hold on another observer.
        return o.expired() || (!o.owner_before(observer) && !observer.owner_before(o));
    });
}

// --- Copies and equality --------------------------------------------------------------------

std::shared_ptr<HXMarkup> HXMarkup::copy() const {
    auto markup = std::make_shared<HXMarkup>();
    markup->m_identifier = m_identifier;
    markup->m_displayName = m_displayName;
    QList<HXTextTagRef> tags;
    for (const HXTextTagRef &tag : allTags())
        tags.append(tag->copy());
    markup->setAllTags(tags);
    return markup;
}

std::shared_ptr<HXMarkup> HXMarkup::duplicate() const {
    auto markup = std::make_shared<HXMarkup>();
    markup->m_displayName = m_displayName;
    QList<HXTextTagRef> tags;
    for (const HXTextTagRef &tag : defaultTags())
        tags.append(tag->duplicate());
    markup->setAllTags(tags);
    return markup;
}

void HXMarkup::setUsingMarkup(const HXMarkup &other) {
    const QList<HXTextTagRef> theirs = other.allTags();
    beginEditing();
    for (const HXTextTagRef &tag : allTags()) {
        if (indexOfEqualTag(theirs, *tag) < 0)
            removeTag(tag);
    }
    const QList<HXTextTagRef> mine = allTags();
    for (const HXTextTagRef &tag : theirs) {
        if (indexOfEqualTag(mine, *tag) < 0)
            addTag(tag->duplicate());
    }
    endEditing();
}

bool HXMarkup::isEqual(const HXMarkup &other) const {
    return m_identifier == other.m_identifier && isEqualToMarkup(other);
}

bool HXMarkup::isEqualToMarkup(const HXMarkup &other) const {
    return this == &other || tagSetsEqual(allTags(), other.allTags());
}

// --- Files and the pasteboard ---------------------------------------------------------------

std::shared_ptr<HXMarkup> HXMarkup::markupWithData(const QByteArray &data, HXError *error) {
    auto markup = std::make_shared<HXMarkup>();
    if (!markup->readFromData(data, error))
        return nullptr;
    return markup;
}

bool HXMarkup::readFromData(const QByteArray &data, HXError *error) {
    m_readTags.clear();
    const bool read = HXXMLReader::readFromData(data, *this, nullptr, error);
    m_readTags.clear();
    return read;
}

bool HXMarkup::readerWillStartElement(const QString &name, const HXXMLAttributes &attributes,
                                      HXError *error) {
    if (name != XMLElementName()) {
        HXSetError(error, HXXMLReader::errorWithFailureReason(HXStringWithFormat(
                              u"The document is no markup: its root element is \"%@\".", name)));
        return false;
    }
    const QString version = attributes.value(QStringLiteral("version"));
    bool numeric = false;
    const qint64 versionNumber = version.toLongLong(&numeric);
    if (attributes.contains(QStringLiteral("version")) && (!numeric || versionNumber < 1)) {
        HXSetError(error, HXXMLReader::errorWithFailureReason(
                              HXStringWithFormat(u"Bad version \"%@\" of markup", version)));
        return false;
    }
    if (numeric && versionNumber > currentVersion) {
        const QString text = HXLocalizedString(QStringLiteral("IncompatibleFileFormatError"),
                                               QStringLiteral("HXMarkup"));
        HXSetError(error, HXError::withDescription(HXCocoaErrorDomain, 0, text, text));
        return false;
    }
    if (attributes.contains(QStringLiteral("identifier")))
        m_identifier = attributes.value(QStringLiteral("identifier"));
    if (attributes.contains(QStringLiteral("displayName")))
        m_displayName = attributes.value(QStringLiteral("displayName"));
    return true;
}

std::shared_ptr<HXXMLReading> HXMarkup::readerDidFindChildElement(const QString &name,
                                                                  HXXMLReaderContext *, HXError *) {
    if (name == HXTextTag::XMLElementName())
        return std::make_shared<HXTextTag>();
    return HXTextTag::readerForUnknownElement();
}

bool HXMarkup::readerDidEndChildElement(const std::shared_ptr<HXXMLReading> &child,
                                        HXXMLReaderContext *, HXError *) {
    // A tag whose definition nobody knows is left out.
    if (const auto tag = std::dynamic_pointer_cast<HXTextTag>(child); tag && tag->definition())
        m_readTags.append(tag);
    return true;
}

bool HXMarkup::readerWillEndElement(HXXMLReaderContext *, HXError *) {
    setAllTags(m_readTags);
    return true;
}

HXXMLElement HXMarkup::XMLElement() const {
    HXXMLElement element(XMLElementName());
    element.setAttribute(QStringLiteral("version"), QString::number(currentVersion));
    if (!m_identifier.isEmpty())
        element.setAttribute(QStringLiteral("identifier"), m_identifier);
    if (!m_displayName.isEmpty())
        element.setAttribute(QStringLiteral("displayName"), m_displayName);
    const QList<HXTextTagRef> tags = allTags();
    for (const HXTextTagRef &tag : tags) {
        element.addText(QStringLiteral("\n\t"));
        element.addChild(tag->XMLElement());
    }
    if (!tags.isEmpty())
        element.addText(QStringLiteral("\n"));
    return element;
}

QByteArray HXMarkup::XMLData() const {
    return XMLElement().xmlDocumentData();
}

QByteArray HXMarkup::pasteboardPropertyListForType(const QString &type) const {
    HX_ASSERT(type == HXMarkupPasteboardType, u"Invalid pasteboard type passed");
    return XMLData();
}

std::shared_ptr<HXMarkup> HXMarkup::markupWithPasteboardPropertyList(const QByteArray &data,
                                                                     const QString &type,
                                                                     HXError *error) {
    HX_ASSERT(type == HXMarkupPasteboardType, u"Invalid pasteboard type passed");
    return markupWithData(data, error);
}

// --- Built-in markups -----------------------------------------------------------------------

std::shared_ptr<HXMarkup> HXMarkup::readIntrinsicMarkup(const QString &path, HXError *error) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        HXSetError(error, HXError::fileError(HXFileReadUnknownError, path, file.errorString()));
        return nullptr;
    }
    auto markup = markupWithData(file.readAll(), error);
    if (!markup)
        return nullptr;
    const QString identifier = QFileInfo(path).completeBaseName().toLower();
    markup->setIdentifier(identifier);
    markup->setIntrinsic(true);
    markup->setDisplayName(HXLocalizedString(identifier, QStringLiteral("HXMarkupNames")));
    return markup;
}

const QMap<QString, std::shared_ptr<HXMarkup>> &HXMarkup::intrinsicMarkups() {
    static const QMap<QString, std::shared_ptr<HXMarkup>> markups = [] {
        QMap<QString, std::shared_ptr<HXMarkup>> result;
        const QDir folder(QStringLiteral(":/Markups"));
        for (const QFileInfo &info :
             folder.entryInfoList({QStringLiteral("*.xml")}, QDir::Files, QDir::Name)) {
            HXError error;
            if (const auto markup = readIntrinsicMarkup(info.filePath(), &error))
                result.insert(markup->identifier(), markup);
            else
                HXApplicationLog::sharedInstance()->logError(
                    u"Unable to read built-in markup %@. Error: %@.", info.fileName(),
                    error.localizedFailureReason());
        }
        return result;
    }();
    return markups;
}

std::shared_ptr<HXMarkup> HXMarkup::defaultIntrinsicMarkup() {
    return defaultMarkupAmong(intrinsicMarkups());
}

std::shared_ptr<HXMarkup>
HXMarkup::defaultMarkupAmong(const QMap<QString, std::shared_ptr<HXMarkup>> &markups) {
    const auto markup = markups.value(defaultIntrinsicMarkupIdentifier);
    if (!markup) {
        HXApplicationLog::sharedInstance()->logError(
            u"FATAL: Default intrinsic markup is missing!");
        std::abort();
    }
    return markup;
}
