// The XML property-list reader and writer of HXPropertyList.

#include "Utilities/HXLocalizedString.h"
#include "Utilities/HXPropertyList.h"
#include "Utilities/HXStringFormat.h"

#include <QDateTime>
#include <QXmlStreamReader>

#include <cmath>
#include <limits>

using namespace Qt::StringLiterals;

namespace {

QString text(const char16_t *key) {
    return HXLocalizedString(QString::fromUtf16(key), u"Utilities"_s);
}

// --- Writing -------------------------------------------------------------------------------------

bool isXMLCharacter(char32_t c) {
    return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) ||
           (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
}

class Writer {
public:
    QByteArray output;
    QString failure;

    bool write(const QVariant &value, int depth, const QString &path) {
        const QByteArray indent(depth, '\t');
        switch (value.typeId()) {
        case QMetaType::QVariantMap:
        case QMetaType::QVariantHash: {
            const QVariantMap map = value.toMap();
            if (map.isEmpty()) {
                output += indent + "<dict/>\n";
                return true;
            }
            output += indent + "<dict>\n";
            for (auto it = map.cbegin(); it != map.cend(); ++it) {
                const QString childPath = path.isEmpty() ? it.key() : path + u'.' + it.key();
                output += QByteArray(depth + 1, '\t') + "<key>";
                if (!escaped(it.key(), childPath))
                    return false;
                output += "</key>\n";
                if (!write(it.value(), depth + 1, childPath))
                    return false;
            }
            output += indent + "</dict>\n";
            return true;
        }
        case QMetaType::QVariantList:
        case QMetaType::QStringList: {
            const QVariantList list = value.toList();
            if (list.isEmpty()) {
                output += indent + "<array/>\n";
                return true;
            }
            output += indent + "<array>\n";
            for (qsizetype i = 0; i < list.size(); ++i) {
                if (!write(list.at(i), depth + 1, path + QStringLiteral("[%1]").arg(i)))
                    return false;
            }
            output += indent + "</array>\n";
            return true;
        }
        case QMetaType::QString:
            output += indent + "<string>";
            if (!escaped(value.toString(), path))
                return false;
            output += "</string>\n";
            return true;
        case QMetaType::Bool:
            output += indent + (value.toBool() ? "<true/>\n" : "<false/>\n");
            return true;
        case QMetaType::Int:
        case QMetaType::Long:
        case QMetaType::LongLong:
        case QMetaType::Short:
        case QMetaType::SChar:
            output +=
                indent + "<integer>" + QByteArray::number(value.toLongLong()) + "</integer>\n";
            return true;
        case QMetaType::UInt:
        case QMetaType::ULong:
        case QMetaType::ULongLong:
        case QMetaType::UShort:
        case QMetaType::UChar:
            output +=
                indent + "<integer>" + QByteArray::number(value.toULongLong()) + "</integer>\n";
            return true;
        case QMetaType::Double:
        case QMetaType::Float:
            output += indent + "<real>" + realText(value.toDouble()) + "</real>\n";
            return true;
        case QMetaType::QDateTime:
        case QMetaType::QDate: {
            const QDateTime date = value.typeId() == QMetaType::QDate
                                       ? value.toDate().startOfDay(Qt::UTC)
                                       : value.toDateTime().toUTC();
            output += indent + "<date>" + date.toString(u"yyyy-MM-dd'T'HH:mm:ss'Z'"_s).toLatin1() +
                      "</date>\n";
            return true;
        }
        case QMetaType::QByteArray: {
            const QByteArray base64 = value.toByteArray().toBase64();
            output += indent + "<data>\n";
            for (qsizetype i = 0; i < base64.size(); i += 68)
                output += indent + base64.mid(i, 68) + '\n';
            output += indent + "</data>\n";
            return true;
        }
        default:
            failure = HXStringWithFormat(text(u"plistUnsupportedValue"),
                                         QString::fromLatin1(value.typeName()), path);
            return false;
        }
    }

private:
    static QByteArray realText(double d) {
        if (std::isnan(d))
            return "nan";
        if (std::isinf(d))
            return d > 0 ? "+infinity" : "-infinity";
        if (d == 0)
            return std::signbit(d) ? "-0.0" : "0.0";
        return QByteArray::number(d, 'g', QLocale::FloatingPointShortest);
    }

    bool escaped(const QString &string, const QString &path) {
        QString result;
        result.reserve(string.size());
        for (auto it = string.cbegin(); it != string.cend(); ++it) {
            char32_t c = it->unicode();
            if (it->isHighSurrogate() && it + 1 != string.cend() && (it + 1)->isLowSurrogate()) {
                c = QChar::surrogateToUcs4(*it, *(it + 1));
                result += *it++;
                result += *it;
                continue;
            }
            if (!isXMLCharacter(c) || QChar::isSurrogate(c)) {
                failure = HXStringWithFormat(text(u"plistUnsupportedCharacter"), uint(c), path);
                return false;
            }
            switch (c) {
            case '&':
                result += u"&amp;";
                break;
            case '<':
                result += u"&lt;";
                break;
            case '>':
                result += u"&gt;";
                break;
            // A parser turns a literal carriage return into a line feed.
            case '\r':
                result += u"&#13;";
                break;
            default:
                result += *it;
            }
        }
        output += result.toUtf8();
        return true;
    }
};

// --- Reading -------------------------------------------------------------------------------------

class Reader {
public:
    explicit Reader(const QByteArray &data)
        : m_xml(data) {}

    QVariant read(QString *failure) {
        QVariant result;
        bool haveRoot = false;
        while (!m_xml.atEnd()) {
            const auto token = m_xml.readNext();
            if (token == QXmlStreamReader::StartElement) {
                if (haveRoot)
                    return fail(failure, text(u"plistMoreThanOneRoot"));
                haveRoot = true;
                if (m_xml.name() == u"plist") {
                    result = readPlistBody(failure);
                } else {
                    result = readValue(failure);
                }
                if (!result.isValid())
                    return {};
            }
        }
        if (m_xml.hasError())
            return fail(failure, m_xml.errorString());
        if (!haveRoot)
            return fail(failure, text(u"plistEmpty"));
        return result;
    }

private:
    QVariant fail(QString *failure, const QString &reason) {
        if (failure && failure->isEmpty()) {
            *failure = HXStringWithFormat(text(u"plistLineReason"), m_xml.lineNumber(), reason);
        }
        m_failed = true;
        return {};
    }

    // The content of <plist>: one value, or nothing (an empty plist is an empty dictionary).
    QVariant readPlistBody(QString *failure) {
        QVariant value;
        while (nextElement(failure)) {
            if (value.isValid())
                return fail(failure, text(u"plistMoreThanOneRoot"));
            value = readValue(failure);
            if (!value.isValid())
                return {};
        }
        if (m_failed)
            return {};
        return value.isValid() ? value : QVariant(QVariantMap());
    }

    // Moves to the next child element of the current one; false at its end tag. Text other than
    // white space between elements is an error.
    bool nextElement(QString *failure) {
        while (!m_xml.atEnd()) {
            const auto token = m_xml.readNext();
            if (token == QXmlStreamReader::StartElement)
                return true;
            if (token == QXmlStreamReader::EndElement)
                return false;
            if (token == QXmlStreamReader::Characters && !m_xml.isWhitespace()) {
                fail(failure, HXStringWithFormat(text(u"plistUnexpectedText"),
                                                 m_xml.text().toString().trimmed()));
                return false;
            }
        }
        if (m_xml.hasError())
            fail(failure, m_xml.errorString());
        else
            fail(failure, text(u"plistUnexpectedEnd"));
        return false;
    }

    // The text content of a simple element, ending on its end tag.
    bool elementText(QString *failure, QString *result) {
        *result = m_xml.readElementText(QXmlStreamReader::ErrorOnUnexpectedElement);
        if (m_xml.hasError()) {
            fail(failure, m_xml.errorString());
            return false;
        }
        return true;
    }

    QVariant readValue(QString *failure) {
        // Arrays and dictionaries recurse: a bound on their nesting bounds the stack.
        static constexpr int maximumDepth = 512;
        if (m_depth >= maximumDepth)
            return fail(failure, HXStringWithFormat(text(u"plistTooDeep"), maximumDepth));
        ++m_depth;
        const QVariant value = readNestedValue(failure);
        --m_depth;
        return value;
    }

    QVariant readNestedValue(QString *failure) {
        const QStringView name = m_xml.name();
        if (name == u"dict")
            return readDictionary(failure);
        if (name == u"array") {
            QVariantList list;
            while (nextElement(failure)) {
                const QVariant item = readValue(failure);
                if (!item.isValid())
                    return {};
                list.append(item);
            }
            return m_failed ? QVariant() : QVariant(list);
        }
        if (name == u"true" || name == u"false") {
            const bool value = name == u"true";
            QString content;
            if (!elementText(failure, &content))
                return {};
            if (!content.trimmed().isEmpty())
                return fail(failure, text(u"plistBooleanNotEmpty"));
            return QVariant(value);
        }
        const QString elementName = name.toString();
        QString content;
        if (!elementText(failure, &content))
            return {};
        if (elementName == u"string")
            return QVariant(content);
        if (elementName == u"integer")
            return integer(content, failure);
        if (elementName == u"real")
            return real(content, failure);
        if (elementName == u"date")
            return date(content, failure);
        if (elementName == u"data")
            return data(content, failure);
        if (elementName == u"key")
            return fail(failure, text(u"plistKeyOutsideDictionary"));
        return fail(failure, HXStringWithFormat(text(u"plistUnknownElement"), elementName));
    }

    QVariant readDictionary(QString *failure) {
        QVariantMap map;
        while (nextElement(failure)) {
            if (m_xml.name() != u"key")
                return fail(failure,
                            HXStringWithFormat(text(u"plistExpectedKey"), m_xml.name().toString()));
            QString key;
            if (!elementText(failure, &key))
                return {};
            if (!nextElement(failure))
                return m_failed
                           ? QVariant()
                           : fail(failure, HXStringWithFormat(text(u"plistKeyWithoutValue"), key));
            const QVariant value = readValue(failure);
            if (!value.isValid())
                return {};
            map.insert(key, value);
        }
        return m_failed ? QVariant() : QVariant(map);
    }

    QVariant integer(const QString &content, QString *failure) {
        const QString trimmed = content.trimmed();
        bool ok = false;
        if (trimmed.startsWith(u'-')) {
            const qint64 value = trimmed.toLongLong(&ok, 10);
            if (ok)
                return QVariant(value);
        } else {
            const QString digits = trimmed.startsWith(u'+') ? trimmed.mid(1) : trimmed;
            const bool hex = digits.startsWith(u"0x") || digits.startsWith(u"0X");
            const quint64 value =
                hex ? digits.mid(2).toULongLong(&ok, 16) : digits.toULongLong(&ok, 10);
            if (ok && !digits.isEmpty() && (hex || digits.at(0).isDigit())) {
                if (value <= quint64(std::numeric_limits<qint64>::max()))
                    return QVariant(qint64(value));
                return QVariant(value);
            }
        }
        return fail(failure, HXStringWithFormat(text(u"plistBadInteger"), trimmed));
    }

    QVariant real(const QString &content, QString *failure) {
        const QString trimmed = content.trimmed().toLower();
        if (trimmed == u"nan")
            return QVariant(std::numeric_limits<double>::quiet_NaN());
        if (trimmed == u"+infinity" || trimmed == u"infinity" || trimmed == u"inf" ||
            trimmed == u"+inf")
            return QVariant(std::numeric_limits<double>::infinity());
        if (trimmed == u"-infinity" || trimmed == u"-inf")
            return QVariant(-std::numeric_limits<double>::infinity());
        bool ok = false;
        const double value = trimmed.toDouble(&ok);
        if (!ok)
            return fail(failure, HXStringWithFormat(text(u"plistBadReal"), content.trimmed()));
        return QVariant(value);
    }

    QVariant date(const QString &content, QString *failure) {
        const QString trimmed = content.trimmed();
        QDateTime value = QDateTime::fromString(trimmed, Qt::ISODateWithMs);
        if (!value.isValid() || !trimmed.endsWith(u'Z'))
            return fail(failure, HXStringWithFormat(text(u"plistBadDate"), trimmed));
        return QVariant(value.toUTC());
    }

    QVariant data(const QString &content, QString *failure) {
        QByteArray base64;
        base64.reserve(content.size());
        for (const QChar c : content) {
            if (!c.isSpace())
                base64 += char(c.unicode() < 0x80 ? c.unicode() : '!');
        }
        const auto decoded =
            QByteArray::fromBase64Encoding(base64, QByteArray::AbortOnBase64DecodingErrors);
        if (!decoded)
            return fail(failure, text(u"plistBadData"));
        return QVariant(*decoded);
    }

    QXmlStreamReader m_xml;
    int m_depth = 0;
    bool m_failed = false;
};

} // namespace

QByteArray HXPropertyList::xmlData(const QVariant &value, HXError *error) {
    Writer writer;
    writer.output = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
                    "<plist version=\"1.0\">\n";
    if (!writer.write(value, 0, QString())) {
        HXSetError(error,
                   HXError::withDescription(HXCocoaErrorDomain, HXPropertyListWriteInvalidError,
                                            text(u"plistCannotWrite"), writer.failure));
        return {};
    }
    writer.output += "</plist>\n";
    return writer.output;
}

// Declared for the binary reader, which lives beside libplist's glue.
QVariant HXReadXMLPropertyList(const QByteArray &data, QString *failure) {
    Reader reader(data);
    return reader.read(failure);
}
