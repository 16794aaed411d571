#include "Utilities/HXLineEnds.h"

QString HXStringByNormalizingLineEnds(const QString &string) {
    if (!string.contains(QLatin1Char('\r')))
        return string;
    QString result;
    result.reserve(string.size());
    const qsizetype size = string.size();
    for (qsizetype i = 0; i < size; ++i) {
        const QChar c = string.at(i);
        if (c != QLatin1Char('\r')) {
            result += c;
            continue;
        }
        result += QLatin1Char('\n');
        if (i + 1 < size && string.at(i + 1) == QLatin1Char('\n'))
            ++i;
    }
    return result;
}
