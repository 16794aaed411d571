#include "Utilities/HXXMLElement.h"

#include "Utilities/HXAssert.h"

#include <QXmlStreamWriter>

#include <algorithm>

namespace {

bool isForbiddenXMLCharacter(char16_t c) {
    return (c < 0x20 && c != u'\t' && c != u'\n' && c != u'\r') || c == 0xFFFE || c == 0xFFFF;
}

// Text as character data. A carriage return written raw would come back as a line feed, since a
// reader normalises line ends; as a character reference it survives.
void writeText(QXmlStreamWriter &writer, const QString &text) {
    qsizetype start = 0;
    while (start <= text.size()) {
        qsizetype end = text.indexOf(u'\r', start);
        if (end < 0)
            end = text.size();
        if (end > start)
            writer.writeCharacters(text.sliced(start, end - start));
        if (end < text.size())
            writer.writeEntityReference(QStringLiteral("#13"));
        start = end + 1;
    }
}

} // namespace

QString HXXMLStringByRemovingForbiddenCharacters(const QString &string) {
    const qsizetype length = string.size();
    auto isValidPairAt = [&](qsizetype i) {
        return QChar::isHighSurrogate(string.at(i).unicode()) && i + 1 < length &&
               QChar::isLowSurrogate(string.at(i + 1).unicode());
    };
    // Most text has nothing to remove; it is then returned as it is, without a copy.
    qsizetype first = 0;
    const char16_t *units = reinterpret_cast<const char16_t *>(string.utf16());
    for (; first < length; ++first) {
        const char16_t c = units[first];
        if (c >= 0x20 && c < 0xd800)
            continue;
        if (QChar::isSurrogate(c)) {
            if (!isValidPairAt(first))
                break;
            ++first;
        } else if (isForbiddenXMLCharacter(c)) {
            break;
        }
    }
    if (first == length)
        return string;

    QString result;
    result.reserve(length - 1);
    result.append(QStringView(string).first(first));
    for (qsizetype i = first; i < length; ++i) {
        const char16_t c = string.at(i).unicode();
        if (QChar::isSurrogate(c)) {
            if (isValidPairAt(i)) {
                result.append(string.at(i));
                result.append(string.at(++i));
            }
        } else if (!isForbiddenXMLCharacter(c)) {
            result.append(string.at(i));
        }
    }
    return result;
}

HXXMLElement::HXXMLElement(QString name)
    : m_name(std::move(name)) {
    HX_ASSERT(!m_name.isEmpty(), u"An XML element needs a name.");
}

void HXXMLElement::setAttribute(const QString &name, const QString &value) {
    for (Attribute &attribute : m_attributes) {
        if (attribute.first == name) {
            attribute.second = value;
            return;
        }
    }
    m_attributes.append({name, value});
}

QString HXXMLElement::attribute(const QString &name) const {
    for (const Attribute &attribute : m_attributes) {
        if (attribute.first == name)
            return attribute.second;
    }
    return QString();
}

bool HXXMLElement::hasAttribute(const QString &name) const {
    return std::any_of(m_attributes.cbegin(), m_attributes.cend(),
                       [&](const Attribute &attribute) { return attribute.first == name; });
}

void HXXMLElement::removeAttribute(const QString &name) {
    m_attributes.removeIf([&](const Attribute &attribute) { return attribute.first == name; });
}

void HXXMLElement::addChild(HXXMLElement element) {
    insertChild(m_children.size(), std::move(element));
}

void HXXMLElement::addText(QString text) {
    insertText(m_children.size(), std::move(text));
}

void HXXMLElement::insertChild(qsizetype index, HXXMLElement element) {
    checkIndex(index, m_children.size());
    m_children.insert(index, Node{{}, std::make_shared<const HXXMLElement>(std::move(element))});
}

void HXXMLElement::insertText(qsizetype index, QString text) {
    checkIndex(index, m_children.size());
    m_children.insert(index, Node{std::move(text), nullptr});
}

bool HXXMLElement::isTextAt(qsizetype index) const {
    checkIndex(index, m_children.size() - 1);
    return !m_children.at(index).element;
}

const QString &HXXMLElement::textAt(qsizetype index) const {
    HX_ASSERT(isTextAt(index), u"The child %li of <%@> is no text.", index, m_name);
    return m_children.at(index).text;
}

const HXXMLElement &HXXMLElement::elementAt(qsizetype index) const {
    HX_ASSERT(!isTextAt(index), u"The child %li of <%@> is no element.", index, m_name);
    return *m_children.at(index).element;
}

QList<HXXMLElement> HXXMLElement::childElements(const QString &name) const {
    QList<HXXMLElement> result;
    for (const Node &node : m_children) {
        if (node.element && (name.isEmpty() || node.element->name() == name))
            result.append(*node.element);
    }
    return result;
}

QString HXXMLElement::stringValue() const {
    QString result;
    appendStringValue(result);
    return result;
}

QString HXXMLElement::xmlString() const {
    QString result;
    QXmlStreamWriter writer(&result);
    write(writer);
    return result;
}

QByteArray HXXMLElement::xmlDocumentData() const {
    return QByteArrayLiteral("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n") +
           xmlString().toUtf8() + '\n';
}

void HXXMLElement::checkIndex(qsizetype index, qsizetype limit) const {
    HX_ASSERT(index >= 0 && index <= limit,
              u"Index %li out of bounds for the %li children of <%@>.", index, m_children.size(),
              m_name);
}

void HXXMLElement::appendStringValue(QString &result) const {
    for (const Node &node : m_children) {
        if (node.element)
            node.element->appendStringValue(result);
        else
            result += node.text;
    }
}

void HXXMLElement::write(QXmlStreamWriter &writer) const {
    // The writer escapes tab, line feed and carriage return in attribute values, so they survive.
    writer.writeStartElement(m_name);
    for (const Attribute &attribute : m_attributes)
        writer.writeAttribute(attribute.first,
                              HXXMLStringByRemovingForbiddenCharacters(attribute.second));
    for (const Node &node : m_children) {
        if (node.element)
            node.element->write(writer);
        else
            writeText(writer, HXXMLStringByRemovingForbiddenCharacters(node.text));
    }
    // With nothing written since the start tag, this closes the element as "<name/>".
    writer.writeEndElement();
}
