#include "Utilities/HXXMLWriter.h"

#include "Utilities/HXAssert.h"
#include "Utilities/HXXMLElement.h"

#include <array>
#include <cstring>

void HXXMLWriter::writeDeclaration() {
    static constexpr char declaration[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    put(declaration, qsizetype(sizeof declaration - 1));
}

QByteArray HXXMLWriter::takeBytes() {
    m_bytes.resize(m_used);
    m_used = 0;
    return std::move(m_bytes);
}

void HXXMLWriter::reserve(qsizetype size) {
    if (size > m_bytes.size())
        m_bytes.resize(size);
}

void HXXMLWriter::startElement(QLatin1StringView name) {
    closeStartTag();
    put('<');
    put(name.data(), name.size());
    m_open.push_back(name);
    m_startTagOpen = true;
}

void HXXMLWriter::writeAttribute(QLatin1StringView name, QStringView value) {
    HX_ASSERT(m_startTagOpen, u"An attribute must follow its element's start.");
    put(' ');
    put(name.data(), name.size());
    put("=\"", 2);
    appendEscaped(value, true);
    put('"');
}

void HXXMLWriter::writeText(QStringView text) {
    if (text.isEmpty())
        return;
    // Text of nothing but forbidden characters leaves an empty element empty.
    const qsizetype before = m_used;
    if (m_startTagOpen)
        put('>');
    const qsizetype start = m_used;
    appendEscaped(text, false);
    if (m_used == start)
        m_used = before;
    else
        m_startTagOpen = false;
}

void HXXMLWriter::endElement() {
    HX_ASSERT(!m_open.empty(), u"No element to end.");
    const QLatin1StringView name = m_open.back();
    m_open.pop_back();
    if (m_startTagOpen) {
        put("/>", 2);
        m_startTagOpen = false;
        return;
    }
    put("</", 2);
    put(name.data(), name.size());
    put('>');
}

void HXXMLWriter::closeStartTag() {
    if (m_startTagOpen) {
        put('>');
        m_startTagOpen = false;
    }
}

void HXXMLWriter::appendEscaped(QStringView text, bool attribute) {
    // Room for the worst case, "&quot;" for every unit, written through a pointer.
    char *const start = room(text.size() * 6);
    char *out = start;
    auto put = [&out](const char *literal, qsizetype length) {
        memcpy(out, literal, size_t(length));
        out += length;
    };
    // Printable ASCII other than the markup characters goes as it is, the bulk of most text.
    static constexpr auto plain = [] {
        std::array<bool, 128> table{};
        for (char16_t unit = 0x20; unit < 0x7f; ++unit)
            table[unit] = unit != u'&' && unit != u'<' && unit != u'>' && unit != u'"';
        return table;
    }();
    const char16_t *c = text.utf16();
    const char16_t *const end = c + text.size();
    while (c < end) {
        while (c < end && *c < 0x80 && plain[*c])
            *out++ = char(*c++);
        if (c == end)
            break;
        const char16_t unit = *c++;
        if (unit < 0x80) {
            switch (unit) {
            case u'&':
                put("&amp;", 5);
                break;
            case u'<':
                put("&lt;", 4);
                break;
            case u'>':
                put("&gt;", 4);
                break;
            case u'"':
                put("&quot;", 6);
                break;
            case u'\r':
                put("&#13;", 5);
                break;
            case u'\t':
                if (attribute)
                    put("&#9;", 4);
                else
                    *out++ = '\t';
                break;
            case u'\n':
                if (attribute)
                    put("&#10;", 5);
                else
                    *out++ = '\n';
                break;
            default:
                if (unit >= 0x20)
                    *out++ = char(unit);
            }
            continue;
        }
        char32_t point = unit;
        if (QChar::isSurrogate(unit)) {
            if (!QChar::isHighSurrogate(unit) || c == end || !QChar::isLowSurrogate(*c))
                continue; // unpaired: a character XML can't hold
            point = QChar::surrogateToUcs4(unit, *c++);
        } else if (unit == 0xFFFE || unit == 0xFFFF) {
            continue;
        }
        if (point < 0x800) {
            *out++ = char(0xC0 | (point >> 6));
        } else if (point < 0x10000) {
            *out++ = char(0xE0 | (point >> 12));
            *out++ = char(0x80 | ((point >> 6) & 0x3F));
        } else {
            *out++ = char(0xF0 | (point >> 18));
            *out++ = char(0x80 | ((point >> 12) & 0x3F));
            *out++ = char(0x80 | ((point >> 6) & 0x3F));
        }
        *out++ = char(0x80 | (point & 0x3F));
    }
    m_used += out - start;
}

void HXXMLWriter::writeElement(const HXXMLElement &element) {
    // Names are held as views while their element is open, so their bytes live in this frame.
    const QByteArray name = element.name().toLatin1();
    startElement(QLatin1StringView(name));
    QList<QByteArray> attributeNames;
    for (const auto &[attribute, value] : element.attributes()) {
        attributeNames.append(attribute.toLatin1());
        writeAttribute(QLatin1StringView(attributeNames.last()), value);
    }
    for (qsizetype index = 0; index < element.childCount(); ++index) {
        if (element.isTextAt(index))
            writeText(element.textAt(index));
        else
            writeElement(element.elementAt(index));
    }
    endElement();
}
