#include "Search/Counting/HXCharacterCounter.h"

#include "Utilities/HXLocalizedString.h"

namespace {

const QString charactersIdentifier = QStringLiteral("characters");
const QString withoutWhitespacesIdentifier = QStringLiteral("charactersWithoutWhitespaces");

// The platform's white space (general category Zs, and tab) and line breaks (U+000A to U+000D,
// U+0085, U+2028, U+2029): the two sets don't overlap.
bool isWhitespaceOrNewline(char16_t c) {
    if (c > 0x20 && c < 0x7f)
        return false;
    if (c < 0x80)
        return c == u' ' || c == u'\t' || (c >= 0x0a && c <= 0x0d);
    if (c == 0x85 || c == 0xa0 || c == 0x2028 || c == 0x2029)
        return true;
    return QChar::category(char32_t(c)) == QChar::Separator_Space;
}

} // namespace

const HXCharacterCounter &HXCharacterCounter::counter() {
    static const HXCharacterCounter instance;
    return instance;
}

QStringList HXCharacterCounter::supportedIdentifiers() const {
    return {charactersIdentifier, withoutWhitespacesIdentifier};
}

HXCountDictionary HXCharacterCounter::countsForString(const QString &string, HXRange range,
                                                      const HXCountDictionary &) const {
    const char16_t *characters = reinterpret_cast<const char16_t *>(string.constData());
    quint64 blanks = 0;
    for (quint64 i = range.location; i < range.max(); ++i)
        blanks += isWhitespaceOrNewline(characters[i]);
    return {{charactersIdentifier, range.length},
            {withoutWhitespacesIdentifier, range.length - blanks}};
}

QString HXCharacterCounter::displayNameForSupportedIdentifier(const QString &identifier) const {
    if (identifier == charactersIdentifier)
        return HXLocalizedString(QStringLiteral("Characters"), stringTable);
    if (identifier == withoutWhitespacesIdentifier)
        return HXLocalizedString(QStringLiteral("CharactersNoSpaces"), stringTable);
    return {};
}
