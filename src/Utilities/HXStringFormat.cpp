#include "Utilities/HXStringFormat.h"

#include "Utilities/HXDescription.h"

#include <cstdio>
#include <string>

namespace {

struct Directive {
    QString flags;
    int width = -1;
    int precision = -1;
    QChar conversion;
};

// The C format of one conversion, with the given length modifier, for snprintf.
std::string cFormat(const Directive &directive, const char *length, char conversion) {
    std::string result = "%";
    result += directive.flags.toStdString();
    if (directive.width >= 0)
        result += std::to_string(directive.width);
    if (directive.precision >= 0) {
        result += '.';
        result += std::to_string(directive.precision);
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

// Pads a text to the width of the directive, on the left unless the "-" flag is given.
QString padded(const Directive &directive, QString text) {
    if (directive.precision >= 0 && text.size() > directive.precision)
        text.truncate(directive.precision);
    if (directive.width > text.size()) {
        const QString fill(directive.width - text.size(), u' ');
        return directive.flags.contains(u'-') ? text + fill : fill + text;
    }
    return text;
}

QString convert(const Directive &directive, const HXFormatArgument &argument) {
    const QVariant &value = argument.value();
    const char c = char(directive.conversion.unicode());
    switch (c) {
    case '@':
    case 's':
        return padded(directive, HXDescription(value));
    case 'd':
    case 'i':
        return cFormatted(cFormat(directive, "ll", c), static_cast<long long>(value.toLongLong()));
    case 'u':
    case 'x':
    case 'X':
    case 'o':
        return cFormatted(cFormat(directive, "ll", c),
                          static_cast<unsigned long long>(value.toULongLong()));
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
        return cFormatted(cFormat(directive, "", c), value.toDouble());
    case 'c':
    case 'C':
        return padded(directive, QString(QChar(char16_t(value.toUInt()))));
    case 'p': {
        Directive hex = directive;
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
        Directive directive;
        qsizetype j = i + 1;
        while (j < n && QStringView(u"-+ #0").contains(format[j]))
            directive.flags += format[j++];
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
        readNumber(directive.width);
        if (j < n && format[j] == u'.') {
            ++j;
            directive.precision = 0;
            readNumber(directive.precision);
        }
        while (j < n && isLengthModifier(format[j]))
            ++j;
        if (j >= n) {
            result += format.mid(i);
            break;
        }
        directive.conversion = format[j];
        if (QStringView(u"@sdiuxXofFeEgGaAcCp").contains(directive.conversion)) {
            if (next < arguments.size())
                result += convert(directive, arguments.at(next++));
        } else {
            // Not a conversion we know: keep the text as it stands.
            result += format.mid(i, j - i + 1);
        }
        i = j;
    }
    return result;
}
