#include "Utilities/HXDescription.h"

#include <QDateTime>
#include <QStringList>

#include <cmath>

namespace {

bool needsQuotes(const QString &text) {
    if (text.isEmpty())
        return true;
    for (const QChar c : text) {
        if (!(c.isLetterOrNumber() || c == u'_' || c == u'.' || c == u'/' || c == u'-'))
            return true;
    }
    return false;
}

QString quoted(const QString &text) {
    QString result;
    result.reserve(text.size() + 2);
    result += u'"';
    for (const QChar c : text) {
        if (c == u'"' || c == u'\\')
            result += u'\\';
        if (c == u'\n')
            result += u"\\n";
        else
            result += c;
    }
    result += u'"';
    return result;
}

QString describe(const QVariant &value, int depth, bool inCollection);

QString describeList(const QVariantList &list, int depth) {
    if (list.isEmpty())
        return QStringLiteral("(\n%1)").arg(QString(depth * 4, u' '));
    const QString indent((depth + 1) * 4, u' ');
    QString result = QStringLiteral("(\n");
    for (qsizetype i = 0; i < list.size(); ++i) {
        result += indent + describe(list.at(i), depth + 1, true);
        result += i + 1 < list.size() ? QStringLiteral(",\n") : QStringLiteral("\n");
    }
    return result + QString(depth * 4, u' ') + u')';
}

QString describeMap(const QVariantMap &map, int depth) {
    const QString indent((depth + 1) * 4, u' ');
    QString result = QStringLiteral("{\n");
    for (auto it = map.cbegin(); it != map.cend(); ++it) {
        const QString key = needsQuotes(it.key()) ? quoted(it.key()) : it.key();
        result += indent + key + QStringLiteral(" = ") + describe(it.value(), depth + 1, true) +
                  QStringLiteral(";\n");
    }
    return result + QString(depth * 4, u' ') + u'}';
}

QString describeData(const QByteArray &data) {
    QString result = QStringLiteral("<");
    const QByteArray hex = data.toHex();
    for (qsizetype i = 0; i < hex.size(); ++i) {
        if (i > 0 && i % 8 == 0)
            result += u' ';
        result += QLatin1Char(hex.at(i));
    }
    return result + u'>';
}

QString describe(const QVariant &value, int depth, bool inCollection) {
    if (!value.isValid() || value.typeId() == QMetaType::Nullptr)
        return QStringLiteral("(null)");
    switch (value.typeId()) {
    case QMetaType::QString: {
        const QString text = value.toString();
        return inCollection && needsQuotes(text) ? quoted(text) : text;
    }
    case QMetaType::Bool:
        return value.toBool() ? QStringLiteral("1") : QStringLiteral("0");
    case QMetaType::Double:
    case QMetaType::Float: {
        const double d = value.toDouble();
        if (std::isnan(d))
            return QStringLiteral("nan");
        if (std::isinf(d))
            return d > 0 ? QStringLiteral("inf") : QStringLiteral("-inf");
        return QString::number(d, 'g', QLocale::FloatingPointShortest);
    }
    case QMetaType::QByteArray:
        return describeData(value.toByteArray());
    case QMetaType::QDateTime:
        return value.toDateTime().toUTC().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")) +
               QStringLiteral(" +0000");
    case QMetaType::QVariantList:
    case QMetaType::QStringList:
        return describeList(value.toList(), depth);
    case QMetaType::QVariantMap:
    case QMetaType::QVariantHash:
        return describeMap(value.toMap(), depth);
    default:
        break;
    }
    if (value.canConvert<QString>())
        return value.toString();
    return QStringLiteral("<%1>").arg(QString::fromLatin1(value.typeName()));
}

} // namespace

QString HXDescription(const QVariant &value) {
    return describe(value, 0, false);
}

#include <cstdlib>
#include <cxxabi.h>

QString HXClassName(const std::type_info &type) {
    int status = 0;
    char *name = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
    const QString result = QString::fromLatin1(status == 0 && name ? name : type.name());
    std::free(name);
    return result;
}
