#include "Utilities/HXStringFormat.h"

#include "Utilities/HXDescription.h"

#include <cstdio>
#include <string>

namespace {

struct Spec {
    QString flags;
    int width = -1;
    int precision = -1;
    QChar conversion;
};

// The C format of one conversion, with the given length modifier, for snprintf.
std::string cFormat(const Spec &spec, const char *length, char conversion) {
    std::string result = "%";
    result += spec.flags.toStdString();
    if (spec.width >= 0)
        result += std::to_string(spec.width);
    if (spec.precision >= 0) {
        result += '.';
        result += std::to_string(spec.precision);
    }
    result += length;
    result += conversion;
    return result;
}

template<typename T>
QString cFormatted(const std::string &format, T value) {
    char buffer[128];
    const int n = std::snprintf(buffer, sizeof buffer, format.c_str(), value);
    if (n < int(sizeof buffer))
        return QString::fromLatin1(buffer, qMax(n, 0));
    std::string big(size_t(n) + 1, '\0');
    std::snprintf(big.data(), big.size(), format.c_str(), value);
    return QString::fromLatin1(big.data(), n);
}

// Pads a text to the width of the specification, on the left unless the "-" flag is given.
QString padded(const Spec &spec, QString text) {
    if (spec.precision >= 0 && text.size() > spec.precision)
        text.truncate(spec.precision);
    if (spec.width > text.size()) {
        const QString fill(spec.width - text.size(), u' ');
        return spec.flags.contains(u'-') ? text + fill : fill + text;
    }
    return text;
}

QString convert(const Spec &spec, const HXFormatArgument &argument) {
    const QVariant &value = argument.value();
    const char c = char(spec.conversion.unicode());
    switch (c) {
    case '@':
    case 's':
        return padded(spec, HXDescription(value));
    case 'd':
    case 'i':
        return cFormatted(cFormat(spec, "ll", c), static_cast<long long>(value.toLongLong()));
    case 'u':
    case 'x':
    case 'X':
    case 'o':
        return cFormatted(cFormat(spec, "ll", c),
                          static_cast<unsigned long long>(value.toULongLong()));
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
        return cFormatted(cFormat(spec, "", c), value.toDouble());
    case 'c':
    case 'C':
        return padded(spec, QString(QChar(char16_t(value.toUInt()))));
    case 'p': {
        Spec hex = spec;
        hex.precision = -1;
        return padded(hex, QStringLiteral("0x") + QString::number(value.toULongLong(), 16));
    }
    default:
        return QString();
    }
}

bool isLengthModifier(QChar c) {
    return c == u'h' || c == u'l' || c == u'q' || c == u'L' || c == u'z' || c == u't' || c == u'j';
}

} // namespace

QString HXStringWithFormatArguments(QStringView format, const QList<HXFormatArgument> &arguments) {
    QString result;
    result.reserve(format.size() + 16 * arguments.size());
    qsizetype next = 0;
    const qsizetype n = format.size();
    for (qsizetype i = 0; i < n; ++i) {
        const QChar c = format[i];
        if (c != u'%' || i + 1 >= n) {
            result += c;
            continue;
        }
        if (format[i + 1] == u'%') {
            result += u'%';
            ++i;
            continue;
        }
        Spec spec;
        qsizetype j = i + 1;
        while (j < n && QStringView(u"-+ #0").contains(format[j]))
            spec.flags += format[j++];
        auto readNumber = [&](int &target) {
            if (j < n && format[j] == u'*') {
                target = next < arguments.size() ? arguments.at(next++).value().toInt() : 0;
                ++j;
                return;
            }
            if (j < n && format[j].isDigit()) {
                target = 0;
                while (j < n && format[j].isDigit())
                    target = target * 10 + format[j++].digitValue();
            }
        };
        readNumber(spec.width);
        if (j < n && format[j] == u'.') {
            ++j;
            spec.precision = 0;
            readNumber(spec.precision);
        }
        while (j < n && isLengthModifier(format[j]))
            ++j;
        if (j >= n) {
            result += format.mid(i);
            break;
        }
        spec.conversion = format[j];
        if (QStringView(u"@sdiuxXofFeEgGaAcCp").contains(spec.conversion)) {
            if (next < arguments.size())
                result += convert(spec, arguments.at(next++));
        } else {
            // Not a conversion we know: keep the text as it stands.
            result += format.mid(i, j - i + 1);
        }
        i = j;
    }
    return result;
}
