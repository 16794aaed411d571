#pragma once

#include "Search/Counting/HXTextCounter.h"

// Reading times in seconds from the word count of the counters before it: slow at 3 words a
// second, average at 4, fast at 5. No goal can be set on a reading time.
class HXReadingTimeCounter : public HXTextCounter {
public:
    static const HXReadingTimeCounter &counter();

    QStringList supportedIdentifiers() const override;
    QString formatVersion() const override { return QStringLiteral("readingTimeCounter_2"); }
    HXCountDictionary countsForString(const QString &string, HXRange range,
                                      const HXCountDictionary &counts) const override;
    QString displayNameForSupportedIdentifier(const QString &identifier) const override;
    QStringList simpleCounterIdentifiers() const override { return {}; }
    // "1 min 5 s", "45 s", or hours and minutes, the seconds rounded into the minutes.
    QString displayString(const QVariant &result, const QString &identifier,
                          const HXCountParameters &parameters,
                          const QLocale *locale) const override;

private:
    HXReadingTimeCounter() = default;
};
