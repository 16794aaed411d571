#include "Utilities/HXPlainXMLScanner.h"

QStringView HXPlainXMLScanner::name(bool attribute) {
    // An attribute's name may carry the prefix "xml:", which needs no declaration.
    const char16_t *from = m_at;
    if (attribute && startsWith(u"xml:"))
        m_at += 4;
    if (m_at >= m_end || !isNameStart(*m_at))
        return {};
    while (m_at < m_end && isNameCharacter(*m_at))
        ++m_at;
    const QStringView found(from, m_at - from);
    // Namespace declarations are not attributes to the general parser.
    if (attribute && found.startsWith(u"xmlns"))
        return {};
    return found;
}

bool HXPlainXMLScanner::quoted(QStringView &value, bool &hasReferences) {
    if (m_at >= m_end || (*m_at != u'"' && *m_at != u'\''))
        return false;
    const char16_t quote = *m_at++;
    const char16_t *from = m_at;
    hasReferences = false;
    while (m_at < m_end && *m_at != quote) {
        const char16_t c = *m_at;
        if (c == u'<' || c == u'\n' || c == u'\t' || c == u'\r')
            return false;
        if (c == u'&') {
            if (!reference())
                return false;
            hasReferences = true;
        } else {
            ++m_at;
        }
    }
    if (m_at >= m_end)
        return false;
    value = QStringView(from, m_at - from);
    ++m_at;
    return true;
}

bool HXPlainXMLScanner::declaration() {
    // `<?xml version="1.0"`, an encoding and standalone if given, `?>`.
    m_at += 5;
    bool hasReferences = false;
    QStringView value;
    for (const QStringView key : {u"version", u"encoding", u"standalone"}) {
        const char16_t *before = m_at;
        if (!skipSpace() || !startsWith(key)) {
            m_at = before;
            if (key == u"version")
                return false;
            continue;
        }
        m_at += key.size();
        skipSpace();
        if (!expect(u'='))
            return false;
        skipSpace();
        if (!quoted(value, hasReferences) || hasReferences)
            return false;
        if (key == u"version" && value != u"1.0")
            return false;
        if (key == u"standalone" && value != u"yes" && value != u"no")
            return false;
        if (key == u"encoding" &&
            (value.isEmpty() || !isNameStart(value.front().unicode()) ||
             !std::all_of(value.begin(), value.end(),
                          [](QChar c) { return isNameCharacter(c.unicode()); })))
            return false;
    }
    skipSpace();
    if (!startsWith(u"?>"))
        return false;
    m_at += 2;
    return true;
}

bool HXPlainXMLScanner::startTag(bool &empty) {
    ++m_at;
    m_name = name(false);
    if (m_name.isEmpty() || qsizetype(m_open.size()) >= HXXMLReader::maximumDepth)
        return false;
    m_attributes.clear();
    for (;;) {
        const bool spaced = skipSpace();
        if (m_at >= m_end)
            return false;
        if (*m_at == u'>' || *m_at == u'/')
            break;
        Attribute attribute;
        attribute.name = name(true);
        if (!spaced || attribute.name.isEmpty())
            return false;
        skipSpace();
        if (!expect(u'='))
            return false;
        skipSpace();
        if (!quoted(attribute.value, attribute.hasReferences))
            return false;
        for (const Attribute &earlier : m_attributes) {
            if (earlier.name == attribute.name)
                return false;
        }
        m_attributes.push_back(attribute);
    }
    empty = *m_at == u'/';
    if (empty && !(++m_at < m_end && *m_at == u'>'))
        return false;
    ++m_at;
    return true;
}

bool HXPlainXMLScanner::endTag() {
    m_at += 2;
    const QStringView elementName = name(false);
    skipSpace();
    if (elementName.isEmpty() || !expect(u'>') || m_open.empty() || m_open.back() != elementName)
        return false;
    m_open.pop_back();
    return true;
}

bool HXPlainXMLScanner::text(QStringView &run, bool &hasReferences) {
    const char16_t *from = m_at;
    hasReferences = false;
    while (m_at < m_end && *m_at != u'<') {
        const char16_t c = *m_at;
        if (c >= u'0' && c != u']') {
            ++m_at;
            continue;
        }
        if (c == u'\r')
            return false;
        if (c == u'&') {
            if (!reference())
                return false;
            hasReferences = true;
            continue;
        }
        // "]]>" ends a CDATA section and may not stand in text.
        if (c == u']' && m_end - m_at >= 3 && m_at[1] == u']' && m_at[2] == u'>')
            return false;
        ++m_at;
    }
    run = QStringView(from, m_at - from);
    return true;
}

bool HXPlainXMLScanner::reference() {
    const char16_t *semicolon = m_at + 1;
    while (semicolon < m_end && semicolon - m_at <= 10 && *semicolon != u';')
        ++semicolon;
    if (semicolon >= m_end || *semicolon != u';' ||
        referencedCharacter(QStringView(m_at + 1, semicolon - m_at - 1)) < 0)
        return false;
    m_at = semicolon + 1;
    return true;
}

qint32 HXPlainXMLScanner::referencedCharacter(QStringView body) {
    if (body == u"lt")
        return u'<';
    if (body == u"gt")
        return u'>';
    if (body == u"amp")
        return u'&';
    if (body == u"quot")
        return u'"';
    if (body == u"apos")
        return u'\'';
    if (body.size() < 2 || body.front() != u'#')
        return -1;
    const bool hex = body.at(1) == u'x';
    const QStringView digits = body.sliced(hex ? 2 : 1);
    if (digits.isEmpty() || digits.size() > 7)
        return -1;
    qint32 value = 0;
    for (const QChar digit : digits) {
        const char16_t c = digit.unicode();
        int d = -1;
        if (c >= u'0' && c <= u'9')
            d = c - u'0';
        else if (hex && c >= u'a' && c <= u'f')
            d = c - u'a' + 10;
        else if (hex && c >= u'A' && c <= u'F')
            d = c - u'A' + 10;
        if (d < 0)
            return -1;
        value = value * (hex ? 16 : 10) + d;
    }
    // Only characters that XML allows.
    const bool allowed = value == 0x9 || value == 0xA || value == 0xD ||
                         (value >= 0x20 && value <= 0xD7FF) ||
                         (value >= 0xE000 && value <= 0xFFFD) ||
                         (value >= 0x10000 && value <= 0x10FFFF);
    return allowed ? value : -1;
}

QString HXPlainXMLScanner::resolved(QStringView raw, bool hasReferences) {
    if (!hasReferences)
        return raw.toString();
    QString result;
    result.reserve(raw.size());
    for (qsizetype i = 0; i < raw.size();) {
        const qsizetype ampersand = raw.indexOf(u'&', i);
        if (ampersand < 0) {
            result.append(raw.sliced(i));
            break;
        }
        result.append(raw.sliced(i, ampersand - i));
        const qsizetype semicolon = raw.indexOf(u';', ampersand);
        const char32_t c =
            char32_t(referencedCharacter(raw.sliced(ampersand + 1, semicolon - ampersand - 1)));
        result.append(QStringView(QChar::fromUcs4(c)));
        i = semicolon + 1;
    }
    return result;
}
