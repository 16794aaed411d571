#include "Utilities/HXXMLReader.h"

#include "Utilities/HXAssert.h"
#include "Utilities/HXStringFormat.h"
#include "Utilities/HXXMLElement.h"

#include <QXmlStreamReader>

#include <exception>
#include <vector>

namespace {

// One parse of one document: the stack of open elements and the first failure.
class HXXMLParse {
public:
    HXXMLParse(HXXMLReading &rootItem, HXXMLReaderContext *context)
        : m_rootItem(rootItem)
        , m_context(context) {}

    bool run(const QByteArray &data, HXError *error);

private:
    // An open element: the object that took it, or none for an element that is skipped. Every
    // object but the root's is owned here until its parent has it.
    struct OpenElement {
        QString name;
        HXXMLReading *item = nullptr;
        std::shared_ptr<HXXMLReading> owner;
    };

    void startElement(const QXmlStreamReader &xml);
    void scanString(const QString &string);
    void endElement();

    // Runs one call of an object; false, an error or an exception there ends the parse with the
    // failure kept in m_failure.
    template<typename Call>
    bool perform(const QString &elementName, Call call);

    HXXMLReading &m_rootItem;
    HXXMLReaderContext *m_context;
    std::vector<OpenElement> m_stack;
    HXError m_failure;
};

bool HXXMLParse::run(const QByteArray &data, HXError *error) {
    // Handed over as a string, the cleaned text reaches the XML reader as UTF-8, and an encoding
    // named in the declaration is ignored.
    QXmlStreamReader xml(HXXMLStringByRemovingForbiddenCharacters(QString::fromUtf8(data)));
    while (m_failure.isNull() && !xml.atEnd()) {
        switch (xml.readNext()) {
        case QXmlStreamReader::StartElement:
            startElement(xml);
            break;
        case QXmlStreamReader::Characters:
            scanString(xml.text().toString());
            break;
        case QXmlStreamReader::EndElement:
            endElement();
            break;
        default:
            break;
        }
    }
    if (m_failure.isNull() && xml.hasError()) {
        m_failure = HXXMLReader::errorWithFailureReason(HXStringWithFormat(
            u"line %li, column %li: %@", xml.lineNumber(), xml.columnNumber(), xml.errorString()));
    }
    if (m_failure.isNull())
        return true;
    HXSetError(error, m_failure);
    return false;
}

void HXXMLParse::startElement(const QXmlStreamReader &xml) {
    const QString name = xml.qualifiedName().toString();
    if (qsizetype(m_stack.size()) >= HXXMLReader::maximumDepth) {
        m_failure = HXXMLReader::errorWithFailureReason(
            HXStringWithFormat(u"line %li: element \"%@\" is nested more than %li levels deep",
                               xml.lineNumber(), name, HXXMLReader::maximumDepth));
        return;
    }
    OpenElement element{name, nullptr, nullptr};
    if (m_stack.empty()) {
        element.item = &m_rootItem;
    } else if (HXXMLReading *parent = m_stack.back().item) {
        const bool found = perform(name, [&](HXError *error) {
            element.owner = parent->readerDidFindChildElement(name, m_context, error);
            return element.owner || error->isNull();
        });
        if (!found)
            return;
        element.item = element.owner.get();
    }
    m_stack.push_back(element);
    if (!element.item)
        return;

    HXXMLAttributes attributes;
    for (const QXmlStreamAttribute &attribute : xml.attributes())
        attributes.insert(attribute.qualifiedName().toString(), attribute.value().toString());
    perform(name, [&](HXError *error) {
        return element.item->readerWillStartElement(name, attributes, error);
    });
}

void HXXMLParse::scanString(const QString &string) {
    // Text outside the root element (possible only as whitespace) has no object to go to.
    if (m_stack.empty() || !m_stack.back().item)
        return;
    HXXMLReading *item = m_stack.back().item;
    perform(m_stack.back().name,
            [&](HXError *error) { return item->readerScannedString(string, error); });
}

void HXXMLParse::endElement() {
    const OpenElement element = m_stack.back();
    m_stack.pop_back();
    if (!element.item)
        return;
    const bool ended = perform(element.name, [&](HXError *error) {
        return element.item->readerWillEndElement(m_context, error);
    });
    if (!ended || m_stack.empty())
        return;
    if (HXXMLReading *parent = m_stack.back().item) {
        perform(element.name, [&](HXError *error) {
            return parent->readerDidEndChildElement(element.owner, m_context, error);
        });
    }
}

template<typename Call>
bool HXXMLParse::perform(const QString &elementName, Call call) {
    HXError error;
    bool threw = false;
    QString exceptionText;
    try {
        if (call(&error))
            return true;
    } catch (const HXAssertionFailure &failure) {
        threw = true;
        exceptionText = failure.text();
    } catch (const std::exception &exception) {
        threw = true;
        exceptionText = QString::fromUtf8(exception.what());
    }
    if (threw) {
        m_failure = HXXMLReader::errorWithFailureReason(
            HXStringWithFormat(u"Exception while parsing xml: \"%@\"", exceptionText));
    } else if (!error.isNull()) {
        m_failure = error;
    } else {
        m_failure = HXXMLReader::errorWithFailureReason(
            HXStringWithFormat(u"Reading stopped at element \"%@\".", elementName));
    }
    return false;
}

} // namespace

bool HXXMLReader::readFromData(const QByteArray &data, HXXMLReading &rootItem,
                               HXXMLReaderContext *context, HXError *error) {
    return HXXMLParse(rootItem, context).run(data, error);
}

bool HXXMLReader::readFromData(const QByteArray &data, HXXMLReading &rootItem, HXError *error) {
    return readFromData(data, rootItem, nullptr, error);
}

HXError HXXMLReader::errorWithFailureReason(const QString &reason) {
    return HXError::withDescription(HXCocoaErrorDomain, 0, reason, reason);
}
