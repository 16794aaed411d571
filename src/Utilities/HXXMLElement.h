#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <memory>
#include <utility>

class QXmlStreamWriter;

// The text without the characters that XML 1.0 forbids: U+0000 to U+0008, U+000B, U+000C, U+000E
// to U+001F, surrogates that are not part of a valid pair, U+FFFE and U+FFFF. Tab, line feed and
// carriage return stay.
QString HXXMLStringByRemovingForbiddenCharacters(const QString &string);

// An element of an XML tree to be written: a name, attributes in the order they were first set,
// and children that are elements or text. It is a plain value; copies are independent (children
// are shared between copies but never changed once added). Any thread may use its own copy.
//
// Nothing is formatted on writing: the whitespace between elements is only what the text children
// hold. Forbidden characters are removed from text and attribute values as they are written.
class HXXMLElement {
public:
    using Attribute = std::pair<QString, QString>;

    explicit HXXMLElement(QString name);

    const QString &name() const { return m_name; }

    // Setting an attribute that is already there replaces its value in its place.
    void setAttribute(const QString &name, const QString &value);
    // The value, or a null string when the attribute is absent.
    QString attribute(const QString &name) const;
    bool hasAttribute(const QString &name) const;
    void removeAttribute(const QString &name);
    const QList<Attribute> &attributes() const { return m_attributes; }

    void addChild(HXXMLElement element);
    void addText(QString text);
    // Inserts before the child at the index; an index equal to the count appends.
    void insertChild(qsizetype index, HXXMLElement element);
    void insertText(qsizetype index, QString text);

    qsizetype childCount() const { return m_children.size(); }
    bool isTextAt(qsizetype index) const;
    // The text of a text child; asking a child element for its text is a fault.
    const QString &textAt(qsizetype index) const;
    // A child element; asking a text child for its element is a fault.
    const HXXMLElement &elementAt(qsizetype index) const;
    // The child elements with the name, in order; all of them when the name is empty.
    QList<HXXMLElement> childElements(const QString &name = {}) const;
    // The text of this element and all below it, in document order.
    QString stringValue() const;

    // The element alone, as XML text.
    QString xmlString() const;
    // A complete document in UTF-8: the XML declaration, a line feed, the element and a
    // final line feed.
    QByteArray xmlDocumentData() const;

private:
    // A child: an element, or text when there is none.
    struct Node {
        QString text;
        std::shared_ptr<const HXXMLElement> element;
    };

    void checkIndex(qsizetype index, qsizetype limit) const;
    void appendStringValue(QString &result) const;
    void write(QXmlStreamWriter &writer) const;

    QString m_name;
    QList<Attribute> m_attributes;
    QList<Node> m_children;
};
