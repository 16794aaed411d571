#pragma once

#include <QByteArray>
#include <QLatin1StringView>
#include <QStringView>

#include <algorithm>
#include <cstring>
#include <vector>

// Writes an XML document as UTF-8 bytes as it goes, without building a tree first: the form that
// long documents, a sheet's text above all, are written in. Its output is the same, byte for
// byte, as HXXMLElement's for the same elements: characters XML forbids are left out, markup
// characters and carriage returns are escaped in text, and tab and line feed in attribute
// values too; an element with no content ends in "/>". Element and attribute names are ASCII.
// A plain value; one writer builds one document on one thread.
class HXXMLWriter {
public:
    // The declaration and the line feed behind it.
    void writeDeclaration();
    void startElement(QLatin1StringView name);
    // An attribute of the element just started, before any content.
    void writeAttribute(QLatin1StringView name, QStringView value);
    void writeText(QStringView text);
    void endElement();
    // A whole element of a tree, as HXXMLElement writes it, at this point of the document.
    void writeElement(const class HXXMLElement &element);
    // The bytes so far; a complete document once every element has ended.
    QByteArray bytes() const { return m_bytes.first(m_used); }
    QByteArray takeBytes();
    void reserve(qsizetype size);

private:
    // Room for so many more bytes, at the end of those written.
    char *room(qsizetype count) {
        if (m_used + count > m_bytes.size())
            m_bytes.resize(std::max(m_used + count, m_bytes.size() * 2));
        return m_bytes.data() + m_used;
    }
    void put(const char *data, qsizetype count) {
        memcpy(room(count), data, size_t(count));
        m_used += count;
    }
    void put(char c) {
        *room(1) = c;
        ++m_used;
    }
    void closeStartTag();
    // Appends the text as UTF-8, escaped for text or for an attribute value.
    void appendEscaped(QStringView text, bool attribute);

    // Written up to m_used; the rest is room.
    QByteArray m_bytes;
    qsizetype m_used = 0;
    std::vector<QLatin1StringView> m_open;
    bool m_startTagOpen = false;
};
