#pragma once

#include "Search/Counting/HXTextCounter.h"

// Characters in UTF-16 code units (a character outside the basic plane counts two), with and
// without white space and line breaks.
class HXCharacterCounter : public HXTextCounter {
public:
    static const HXCharacterCounter &counter();

    QStringList supportedIdentifiers() const override;
    QString formatVersion() const override { return QStringLiteral("characterCounter_1"); }
    HXCountDictionary countsForString(const QString &string, HXRange range,
                                      const HXCountDictionary &counts) const override;
    QString displayNameForSupportedIdentifier(const QString &identifier) const override;

private:
    HXCharacterCounter() = default;
};
