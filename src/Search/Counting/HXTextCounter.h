#pragma once

#include "Utilities/HXRange.h"

#include <QList>
#include <QLocale>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>

#include <memory>
#include <optional>

class HXString;

// The counts of a text by counter identifier: numbers (as QVariant of an integer or a double),
// or, under "lines" and "pages", the ordered lengths of its lines (HXLineLengths), from which the
// lines and pages under any norm page follow without a recount.
using HXCountDictionary = QVariantMap;
// Each line's length without its terminator, less one unless it is 0.
using HXLineLengths = QList<quint32>;
// "charactersPerLine" and "linesPerPage".
using HXCountParameters = QVariantMap;

// Every text statistic of the system: characters, words, sentences, paragraphs, lines, pages and
// reading times, for a string, a range of it, or many sheets combined.
//
// Counting runs in two stages. The first counts a string once into a count dictionary; the second
// turns a dictionary into a number or a display string under parameters the user may change.
//
// A counter is a kind, not a thing: each subclass has exactly one instance, made with the
// process-wide list of counters (characters, string enumeration, reading time, in this order,
// since a later counter reads the counts of an earlier one), and it holds no state. The class
// operations below are the interface; the virtual ones are what each kind brings. Tables are
// built once, on first use, and only read afterwards: any thread.
class HXTextCounter {
public:
    virtual ~HXTextCounter() = default;
    HXTextCounter(const HXTextCounter &) = delete;
    HXTextCounter &operator=(const HXTextCounter &) = delete;

    // The marker between the identifiers of two counters in the display order.
    static inline const QString displayNameSeparator =
        QStringLiteral("HXTextCounterDisplayNameSeparator");
    static inline const QString charactersPerLineKey = QStringLiteral("charactersPerLine");
    static inline const QString linesPerPageKey = QStringLiteral("linesPerPage");
    // The table of the display names, goal units and formats.
    static inline const QString stringTable = QStringLiteral("HXTextCounter");

    // --- Class operations ----------------------------------------------------------------------
    // The counters, in their fixed order.
    static const QList<const HXTextCounter *> &allCounters();
    // The counter that supports the identifier, or null.
    static const HXTextCounter *textCounterForIdentifier(const QString &identifier);
    // The whole string; a string that others may change is counted at one state of it.
    static HXCountDictionary allCountsForString(const HXString &string);
    // A range of the string: every identifier, the counted text attributes (a footnote's text)
    // included.
    static HXCountDictionary allCountsForString(const HXString &string, HXRange range);
    // One dictionary of many: a list of one gives that one; any other list, also an empty one,
    // gives an entry for every identifier of every counter. A missing value counts 0.
    static HXCountDictionary countsByCombiningCounts(const QList<HXCountDictionary> &counts);
    static QString displayNameForIdentifier(const QString &identifier);
    // The name of the unit of a goal on the identifier ("words"); empty where none can be set.
    static QString goalUnitNameForIdentifier(const QString &identifier);
    // The value as the user reads it, in the locale if one is given, else the process's.
    static QString displayStringForCountingResult(const QVariant &result, const QString &identifier,
                                                  const HXCountParameters &parameters,
                                                  const QLocale *locale = nullptr);
    // The value as a number, for goals: the line or page count for "lines" and "pages".
    static std::optional<double> numberForCountingResult(const QVariant &result,
                                                         const QString &identifier,
                                                         const HXCountParameters &parameters);
    // 60 characters a line, 30 lines a page.
    static HXCountParameters defaultDisplayParameters();
    // The defaults with the user's settings where they are positive.
    static HXCountParameters displayParametersWithPreferences();
    // The versions of the counting rules, in counter order: counts stored under another list are
    // counted again.
    static QStringList allFormatVersions();
    // Every identifier in display order, a separator between two counters.
    static QStringList orderedIdentifiersForDisplay();
    static QStringList allDefaultDisplayIdentifiers();
    // The identifiers a goal may target, in display order.
    static QStringList allSimpleCounterIdentifiers();

    // Lines of `charactersPerLine` from line lengths: an empty line is one line.
    static quint64 lineCount(const HXLineLengths &lengths, quint64 charactersPerLine);
    // Pages of `linesPerPage`, to one decimal, rounded up.
    static double pageCount(quint64 lines, quint64 linesPerPage);
    // A parameter where it is positive, else its default.
    static quint64 parameter(const HXCountParameters &parameters, const QString &key);
    // The lengths held by a "lines" or "pages" value.
    static HXLineLengths lineLengths(const QVariant &value);

    // --- What each kind brings -----------------------------------------------------------------
    virtual QStringList supportedIdentifiers() const = 0;
    virtual QString formatVersion() const = 0;
    // The counts of the range of a countable text; `counts` holds those of the counters before.
    virtual HXCountDictionary countsForString(const QString &string, HXRange range,
                                              const HXCountDictionary &counts) const = 0;
    virtual QString displayNameForSupportedIdentifier(const QString &identifier) const = 0;
    virtual QStringList defaultDisplayIdentifiers() const { return supportedIdentifiers(); }
    virtual QStringList simpleCounterIdentifiers() const { return supportedIdentifiers(); }
    // One identifier across the dictionaries. The base rule reads each value in single precision
    // and sums in double precision.
    virtual QVariant countByCombiningCountValues(const QList<HXCountDictionary> &counts,
                                                 const QString &identifier) const;
    // The kind's own display rule; the base formats the number in the locale's decimal style.
    virtual QString displayString(const QVariant &result, const QString &identifier,
                                  const HXCountParameters &parameters, const QLocale *locale) const;
    virtual std::optional<double> number(const QVariant &result, const QString &identifier,
                                         const HXCountParameters &parameters) const;

protected:
    HXTextCounter() = default;

    // The base rules, for kinds that refine them and for identifiers no kind claims.
    static QString formattedNumber(double number, const QLocale *locale);
    static std::optional<double> numberValue(const QVariant &value);
};
