#pragma once

#include "Utilities/HXXMLReader.h"

#include <QString>
#include <QStringView>

#include <algorithm>
#include <vector>

// Plain XML, as every document of the system is written, read without a general parser: an
// optional declaration, elements with ASCII names, attributes, text, the five named entities and
// character references. A document with anything else (comments, CDATA, processing instructions,
// a doctype, namespaces, carriage returns in text or line breaks in attribute values, which XML
// would normalise, nesting deeper than the reader allows) or with any fault is not plain, and the
// general parser reads it instead, with the same meaning and the same messages. The scan finds
// out on the way, so a sink whose work can't be undone asks isPlain() first.
//
// The text is the cleaned text of the document (see HXXMLReader). A sink takes the events:
//     bool startElement(QStringView name, const std::vector<Attribute> &attributes);
//     bool text(QStringView raw, bool hasReferences);  // raw as written; see resolved()
//     bool endElement();
// each returning false to stop the scan. An empty element is a start and an end. Text outside
// the root (white space) is not handed over. One scanner scans once.
class HXPlainXMLScanner {
public:
    struct Attribute {
        QStringView name;
        QStringView value; // as written
        bool hasReferences = false;
    };

    explicit HXPlainXMLScanner(QStringView text)
        : m_at(reinterpret_cast<const char16_t *>(text.utf16()))
        , m_end(m_at + text.size()) {}

    // True when the document is plain XML and the sink took all of it.
    template<typename Sink>
    bool scan(Sink &sink);
    // Only whether the document is plain XML.
    bool isPlain() {
        NoSink none;
        return scan(none);
    }

    // Text or a value with its references replaced by their characters.
    static QString resolved(QStringView raw, bool hasReferences);

private:
    struct NoSink {
        static constexpr bool looksOnly = true;
        bool startElement(QStringView, const std::vector<Attribute> &) { return true; }
        bool text(QStringView, bool) { return true; }
        bool endElement() { return true; }
    };
    template<typename Sink>
    static constexpr bool looksOnly() {
        if constexpr (requires { Sink::looksOnly; })
            return Sink::looksOnly;
        else
            return false;
    }

    static bool isSpace(char16_t c) { return c == u' ' || c == u'\n' || c == u'\t' || c == u'\r'; }
    static bool isNameStart(char16_t c) {
        return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || c == u'_';
    }
    static bool isNameCharacter(char16_t c) {
        return isNameStart(c) || (c >= u'0' && c <= u'9') || c == u'-' || c == u'.';
    }
    // The code point of a reference's body (between `&` and `;`), or -1.
    static qint32 referencedCharacter(QStringView body);

    bool startsWith(QStringView prefix) const {
        return m_end - m_at >= prefix.size() && QStringView(m_at, prefix.size()) == prefix;
    }
    bool skipSpace() {
        const char16_t *from = m_at;
        while (m_at < m_end && isSpace(*m_at))
            ++m_at;
        return m_at > from;
    }
    bool expect(char16_t c) {
        if (m_at >= m_end || *m_at != c)
            return false;
        ++m_at;
        return true;
    }
    QStringView name(bool attribute);
    bool quoted(QStringView &value, bool &hasReferences);
    bool declaration();
    bool reference();
    // A start tag into m_name and m_attributes; false when it is not plain.
    bool startTag(bool &empty);
    bool endTag();
    // Text up to the next tag; false when it is not plain.
    bool text(QStringView &text, bool &hasReferences);

    const char16_t *m_at;
    const char16_t *m_end;
    QStringView m_name;
    std::vector<QStringView> m_open;
    std::vector<Attribute> m_attributes;
};

template<typename Sink>
bool HXPlainXMLScanner::scan(Sink &sink) {
    if (startsWith(u"<?xml") && !declaration())
        return false;
    bool rootEnded = false;
    while (m_at < m_end) {
        if (*m_at != u'<') {
            QStringView run;
            bool hasReferences = false;
            if (!text(run, hasReferences))
                return false;
            if (m_open.empty()) {
                if (!std::all_of(run.begin(), run.end(),
                                 [](QChar c) { return isSpace(c.unicode()); }))
                    return false;
            } else if (!looksOnly<Sink>() && !sink.text(run, hasReferences)) {
                return false;
            }
            continue;
        }
        if (m_at + 1 < m_end && m_at[1] == u'/') {
            if (!endTag())
                return false;
            rootEnded = m_open.empty();
            if (!looksOnly<Sink>() && !sink.endElement())
                return false;
            continue;
        }
        bool empty = false;
        if (rootEnded || !startTag(empty))
            return false;
        if (!looksOnly<Sink>()) {
            if (!sink.startElement(m_name, m_attributes) || (empty && !sink.endElement()))
                return false;
        }
        if (empty)
            rootEnded = m_open.empty();
        else
            m_open.push_back(m_name);
    }
    return rootEnded && m_open.empty();
}
