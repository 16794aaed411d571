#include "Search/Counting/HXReadingTimeCounter.h"

#include "Utilities/HXLocalizedString.h"
#include "Utilities/HXStringFormat.h"

namespace {

const QString slowIdentifier = QStringLiteral("slowReadingTime");
const QString averageIdentifier = QStringLiteral("averageReadingTime");
const QString fastIdentifier = QStringLiteral("fastReadingTime");

} // namespace

const HXReadingTimeCounter &HXReadingTimeCounter::counter() {
    static const HXReadingTimeCounter instance;
    return instance;
}

QStringList HXReadingTimeCounter::supportedIdentifiers() const {
    return {slowIdentifier, averageIdentifier, fastIdentifier};
}

HXCountDictionary HXReadingTimeCounter::countsForString(const QString &, HXRange,
                                                        const HXCountDictionary &counts) const {
    const double words = counts.value(QStringLiteral("words")).toDouble();
    return {{slowIdentifier, words / 3},
            {averageIdentifier, words * 0.25},
            {fastIdentifier, words / 5}};
}

QString HXReadingTimeCounter::displayNameForSupportedIdentifier(const QString &identifier) const {
    if (identifier == slowIdentifier)
        return HXLocalizedString(QStringLiteral("SlowReadingTime"), stringTable);
    if (identifier == averageIdentifier)
        return HXLocalizedString(QStringLiteral("AvgReadingTime"), stringTable);
    if (identifier == fastIdentifier)
        return HXLocalizedString(QStringLiteral("FastReadingTime"), stringTable);
    return {};
}

QString HXReadingTimeCounter::displayString(const QVariant &result, const QString &,
                                            const HXCountParameters &, const QLocale *) const {
    // The fraction of a second is cut. From an hour on, the seconds round into the minutes
    // without carrying into the hours: 1 h 59 min 30 s shows as 1 h 60 min.
    const double seconds = result.toDouble();
    const quint64 v = seconds > 0 ? quint64(seconds) : 0;
    const quint64 s = v % 60;
    const quint64 m = (v / 60) % 60;
    if (v < 3600 && m != 0)
        return HXStringWithFormat(
            HXLocalizedString(QStringLiteral("ReadingTimeFormatMS"), stringTable), m, s);
    if (v < 3600)
        return HXStringWithFormat(
            HXLocalizedString(QStringLiteral("ReadingTimeFormatS"), stringTable), s);
    return HXStringWithFormat(
        HXLocalizedString(QStringLiteral("ReadingTimeFormatHMS"), stringTable), v / 3600,
        m + (s > 29 ? 1 : 0));
}
