#include "Search/Counting/HXTextCounter.h"

#include "Model/Stores/HXPreferenceStore.h"
#include "Search/Counting/HXCharacterCounter.h"
#include "Search/Counting/HXReadingTimeCounter.h"
#include "Search/Counting/HXStringEnumerationCounter.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXLocalizedString.h"

#include <QHash>

#include <limits>
#include <map>
#include <mutex>
#include <unicode/numfmt.h>

namespace {

// What is built once from the list of counters.
struct CounterTables {
    QList<const HXTextCounter *> counters;
    QHash<QString, const HXTextCounter *> byIdentifier;
    QStringList orderedIdentifiers;
    QStringList defaultDisplayIdentifiers;
    QStringList simpleIdentifiers;
    QStringList formatVersions;
};

const CounterTables &tables() {
    static const CounterTables built = [] {
        CounterTables t;
        t.counters = {&HXCharacterCounter::counter(), &HXStringEnumerationCounter::counter(),
                      &HXReadingTimeCounter::counter()};
        for (const HXTextCounter *counter : std::as_const(t.counters)) {
            if (!t.orderedIdentifiers.isEmpty())
                t.orderedIdentifiers.append(HXTextCounter::displayNameSeparator);
            for (const QString &identifier : counter->supportedIdentifiers()) {
                HX_ASSERT(!t.byIdentifier.contains(identifier),
                          u"Identifier %@ should not be used twice.", identifier);
                t.byIdentifier.insert(identifier, counter);
                t.orderedIdentifiers.append(identifier);
            }
            for (const QString &identifier : counter->defaultDisplayIdentifiers()) {
                if (!t.defaultDisplayIdentifiers.contains(identifier))
                    t.defaultDisplayIdentifiers.append(identifier);
            }
            t.simpleIdentifiers += counter->simpleCounterIdentifiers();
            t.formatVersions.append(counter->formatVersion());
        }
        // By place in the display order; two identifiers are never equal here.
        std::sort(t.simpleIdentifiers.begin(), t.simpleIdentifiers.end(),
                  [&](const QString &a, const QString &b) {
                      return t.orderedIdentifiers.indexOf(a) < t.orderedIdentifiers.indexOf(b);
                  });
        return t;
    }();
    return built;
}

// The decimal formatters, one per locale, made on first use. ICU formatters aren't promised to
// be safe for concurrent use, so formatting runs under the mutex.
class NumberFormatters {
public:
    QString format(double number, const QLocale *locale) {
        std::lock_guard lock(m_mutex);
        const std::string name = locale ? locale->name().toStdString() : std::string();
        auto found = m_formatters.find(name);
        if (found == m_formatters.end()) {
            UErrorCode status = U_ZERO_ERROR;
            const icu::Locale icuLocale =
                locale ? icu::Locale::createFromName(name.c_str()) : icu::Locale::getDefault();
            std::unique_ptr<icu::NumberFormat> formatter(
                icu::NumberFormat::createInstance(icuLocale, UNUM_DECIMAL, status));
            if (U_FAILURE(status))
                formatter.reset();
            found = m_formatters.emplace(name, std::move(formatter)).first;
        }
        if (!found->second)
            return QString::number(number, 'g', 15);
        icu::UnicodeString result;
        found->second->format(number, result);
        return QString(reinterpret_cast<const QChar *>(result.getBuffer()), result.length());
    }

private:
    std::mutex m_mutex;
    std::map<std::string, std::unique_ptr<icu::NumberFormat>> m_formatters;
};

NumberFormatters &numberFormatters() {
    static NumberFormatters formatters;
    return formatters;
}

} // namespace

// --- The list of counters ---------------------------------------------------------------------

const QList<const HXTextCounter *> &HXTextCounter::allCounters() {
    return tables().counters;
}

const HXTextCounter *HXTextCounter::textCounterForIdentifier(const QString &identifier) {
    return tables().byIdentifier.value(identifier);
}

QStringList HXTextCounter::allFormatVersions() {
    return tables().formatVersions;
}

QStringList HXTextCounter::orderedIdentifiersForDisplay() {
    return tables().orderedIdentifiers;
}

QStringList HXTextCounter::allDefaultDisplayIdentifiers() {
    return tables().defaultDisplayIdentifiers;
}

QStringList HXTextCounter::allSimpleCounterIdentifiers() {
    return tables().simpleIdentifiers;
}

// --- Counting ---------------------------------------------------------------------------------

HXCountDictionary HXTextCounter::allCountsForString(const HXString &string) {
    // The countable text is itself a snapshot, taken in one read under the string's lock (which
    // costs less than a copy of the tree would), so a string that others edit is counted at one
    // state; the range reaches to whatever the length is then.
    return allCountsForString(string, HXRange{0, std::numeric_limits<quint64>::max() / 2});
}

HXCountDictionary HXTextCounter::allCountsForString(const HXString &string, HXRange range) {
    QList<std::shared_ptr<HXString>> nestedStrings;
    const QString text = string.countableStringFromRange(range, &nestedStrings);
    HXCountDictionary counts;
    const HXRange whole{0, quint64(text.size())};
    for (const HXTextCounter *counter : allCounters())
        counts.insert(counter->countsForString(text, whole, counts));
    if (nestedStrings.isEmpty())
        return counts;
    QList<HXCountDictionary> all;
    all.reserve(nestedStrings.size() + 1);
    for (const auto &nested : std::as_const(nestedStrings))
        all.append(allCountsForString(*nested));
    all.append(counts);
    return countsByCombiningCounts(all);
}

HXCountDictionary HXTextCounter::countsByCombiningCounts(const QList<HXCountDictionary> &counts) {
    if (counts.size() == 1)
        return counts.first();
    HXCountDictionary combined;
    for (const HXTextCounter *counter : allCounters()) {
        for (const QString &identifier : counter->supportedIdentifiers())
            combined.insert(identifier, counter->countByCombiningCountValues(counts, identifier));
    }
    return combined;
}

QVariant HXTextCounter::countByCombiningCountValues(const QList<HXCountDictionary> &counts,
                                                    const QString &identifier) const {
    // Each value is read in single precision, as stored counts always were; the sum isn't.
    double sum = 0;
    for (const HXCountDictionary &dictionary : counts) {
        const auto found = dictionary.constFind(identifier);
        if (found != dictionary.constEnd())
            sum += double(float(numberValue(*found).value_or(0)));
    }
    return sum;
}

// --- Display ----------------------------------------------------------------------------------

QString HXTextCounter::displayNameForIdentifier(const QString &identifier) {
    const HXTextCounter *counter = textCounterForIdentifier(identifier);
    const QString name =
        counter ? counter->displayNameForSupportedIdentifier(identifier) : QString();
    HX_ASSERT(!name.isEmpty(), u"Invalid display name for counter: %@", identifier);
    return name;
}

QString HXTextCounter::goalUnitNameForIdentifier(const QString &identifier) {
    static const QHash<QString, QString> keys = {
        {QStringLiteral("characters"), QStringLiteral("UnitTypeCharacters")},
        {QStringLiteral("charactersWithoutWhitespaces"),
         QStringLiteral("UnitTypeCharactersNoSpaces")},
        {QStringLiteral("words"), QStringLiteral("UnitTypeWords")},
        {QStringLiteral("sentences"), QStringLiteral("UnitTypeSentences")},
        {QStringLiteral("paragraphs"), QStringLiteral("UnitTypeParagraphs")},
        {QStringLiteral("lines"), QStringLiteral("UnitTypeLines")},
        {QStringLiteral("pages"), QStringLiteral("UnitTypePages")},
    };
    const QString key = keys.value(identifier);
    return key.isEmpty() ? QString() : HXLocalizedString(key, stringTable);
}

QString HXTextCounter::displayStringForCountingResult(const QVariant &result,
                                                      const QString &identifier,
                                                      const HXCountParameters &parameters,
                                                      const QLocale *locale) {
    const HXTextCounter *counter = textCounterForIdentifier(identifier);
    const QString display = counter ? counter->displayString(result, identifier, parameters, locale)
                                    : HXCharacterCounter::counter().HXTextCounter::displayString(
                                          result, identifier, parameters, locale);
    HX_ASSERT(!display.isNull(), u"Unable to generate display string for counter: %@", identifier);
    return display;
}

QString HXTextCounter::displayString(const QVariant &result, const QString &,
                                     const HXCountParameters &, const QLocale *locale) const {
    if (const std::optional<double> number = numberValue(result))
        return formattedNumber(*number, locale);
    return result.isValid() ? result.toString() : QString();
}

std::optional<double> HXTextCounter::numberForCountingResult(const QVariant &result,
                                                             const QString &identifier,
                                                             const HXCountParameters &parameters) {
    const HXTextCounter *counter = textCounterForIdentifier(identifier);
    return counter ? counter->number(result, identifier, parameters) : numberValue(result);
}

std::optional<double> HXTextCounter::number(const QVariant &result, const QString &,
                                            const HXCountParameters &) const {
    return numberValue(result);
}

QString HXTextCounter::formattedNumber(double number, const QLocale *locale) {
    return numberFormatters().format(number, locale);
}

std::optional<double> HXTextCounter::numberValue(const QVariant &value) {
    switch (value.typeId()) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Long:
    case QMetaType::ULong:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Double:
    case QMetaType::Float:
        return value.toDouble();
    default:
        return std::nullopt;
    }
}

// --- Parameters and the norm page -------------------------------------------------------------

HXCountParameters HXTextCounter::defaultDisplayParameters() {
    return {{charactersPerLineKey, 60}, {linesPerPageKey, 30}};
}

HXCountParameters HXTextCounter::displayParametersWithPreferences() {
    HXCountParameters parameters = defaultDisplayParameters();
    if (HXPreferenceStore *store = HXPreferenceStore::sharedInstance()) {
        const qint64 characters =
            store->valueForKeyPath(QStringLiteral("textCounter.charactersPerLine")).toLongLong();
        const qint64 lines =
            store->valueForKeyPath(QStringLiteral("textCounter.linesPerPage")).toLongLong();
        if (characters > 0)
            parameters.insert(charactersPerLineKey, characters);
        if (lines > 0)
            parameters.insert(linesPerPageKey, lines);
    }
    return parameters;
}

quint64 HXTextCounter::lineCount(const HXLineLengths &lengths, quint64 charactersPerLine) {
    const quint64 c = std::max<quint64>(charactersPerLine, 1);
    quint64 lines = 0;
    for (const quint32 length : lengths)
        lines += length == 0 ? 1 : (quint64(length) + c - 1) / c;
    return lines;
}

double HXTextCounter::pageCount(quint64 lines, quint64 linesPerPage) {
    // ceil(lines / linesPerPage × 10) / 10 in integers, so that 60 lines are 2 pages, not 2.1.
    const quint64 l = std::max<quint64>(linesPerPage, 1);
    return double((lines * 10 + l - 1) / l) / 10;
}

quint64 HXTextCounter::parameter(const HXCountParameters &parameters, const QString &key) {
    const qint64 value = parameters.value(key).toLongLong();
    if (value > 0)
        return quint64(value);
    return defaultDisplayParameters().value(key).toULongLong();
}

HXLineLengths HXTextCounter::lineLengths(const QVariant &value) {
    if (value.metaType() == QMetaType::fromType<HXLineLengths>())
        return value.value<HXLineLengths>();
    HXLineLengths lengths;
    if (value.typeId() == QMetaType::QVariantList) {
        const QVariantList list = value.toList();
        lengths.reserve(list.size());
        for (const QVariant &length : list)
            lengths.append(quint32(length.toULongLong()));
    }
    return lengths;
}
