#include "Utilities/HXXMLWriter.h"

#include "Utilities/HXAssert.h"

#include <cstring>

void HXXMLWriter::writeDeclaration() {
    m_bytes.append("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n");
}

void HXXMLWriter::startElement(QLatin1StringView name) {
    closeStartTag();
    m_bytes.append('<');
    m_bytes.append(name.data(), name.size());
    m_open.push_back(name);
    m_startTagOpen = true;
}

void HXXMLWriter::writeAttribute(QLatin1StringView name, QStringView value) {
    HX_ASSERT(m_startTagOpen, u"An attribute must follow its element's start.");
    m_bytes.append(' ');
    m_bytes.append(name.data(), name.size());
    m_bytes.append("=\"");
    appendEscaped(value, true);
    m_bytes.append('"');
}

void HXXMLWriter::writeText(QStringView text) {
    if (text.isEmpty())
        return;
    // Text of nothing but forbidden characters leaves an empty element empty.
    const qsizetype before = m_bytes.size();
    if (m_startTagOpen)
        m_bytes.append('>');
    const qsizetype start = m_bytes.size();
    appendEscaped(text, false);
    if (m_bytes.size() == start)
        m_bytes.truncate(before);
    else
        m_startTagOpen = false;
}

void HXXMLWriter::endElement() {
    HX_ASSERT(!m_open.empty(), u"No element to end.");
    const QLatin1StringView name = m_open.back();
    m_open.pop_back();
    if (m_startTagOpen) {
        m_bytes.append("/>");
        m_startTagOpen = false;
        return;
    }
    m_bytes.append("</");
    m_bytes.append(name.data(), name.size());
    m_bytes.append('>');
}

void HXXMLWriter::closeStartTag() {
    if (m_startTagOpen) {
        m_bytes.append('>');
        m_startTagOpen = false;
    }
}

void HXXMLWriter::appendEscaped(QStringView text, bool attribute) {
    // Room for the worst case, "&quot;" for every unit, written through a pointer.
    const qsizetype start = m_bytes.size();
    m_bytes.resize(start + text.size() * 6);
    char *out = m_bytes.data() + start;
    auto put = [&out](const char *literal, qsizetype length) {
        memcpy(out, literal, size_t(length));
        out += length;
    };
    const char16_t *c = text.utf16();
    const char16_t *const end = c + text.size();
    while (c < end) {
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
    m_bytes.resize(out - m_bytes.data());
}
