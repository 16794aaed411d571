#include "Utilities/HXXMLReader.h"

#include "Utilities/HXAssert.h"
#include "Utilities/HXPlainXMLScanner.h"
#include "Utilities/HXStringFormat.h"
#include "Utilities/HXXMLElement.h"

#include <QXmlStreamReader>

#include <algorithm>
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

    // The events of the document, in order; the line is that of the start tag.
    void startElement(const QString &name, const HXXMLAttributes &attributes, qint64 line);
    void scanString(const QString &string);
    void endElement();
    bool failed() const { return !m_failure.isNull(); }

private:
    // An open element: the object that took it, or none for an element that is skipped. Every
    // object but the root's is owned here until its parent has it.
    struct OpenElement {
        QString name;
        HXXMLReading *item = nullptr;
        std::shared_ptr<HXXMLReading> owner;
    };

    void runGeneralParser(const QString &text);

    // Runs one call of an object; false, an error or an exception there ends the parse with the
    // failure kept in m_failure.
    template<typename Call>
    bool perform(const QString &elementName, Call call);

    HXXMLReading &m_rootItem;
    HXXMLReaderContext *m_context;
    std::vector<OpenElement> m_stack;
    HXError m_failure;
};

// Hands the events of a plain document to the parse, its names each made a string once.
class PlainEvents {
public:
    explicit PlainEvents(HXXMLParse &parse)
        : m_parse(parse) {}

    bool startElement(QStringView name, const std::vector<HXPlainXMLScanner::Attribute> &list) {
        HXXMLAttributes attributes;
        for (const HXPlainXMLScanner::Attribute &attribute : list)
            attributes.insert(sharedName(attribute.name),
                              HXPlainXMLScanner::resolved(attribute.value, attribute.hasReferences));
        m_parse.startElement(sharedName(name), attributes, 0);
        return !m_parse.failed();
    }
    bool text(QStringView raw, bool hasReferences) {
        m_parse.scanString(HXPlainXMLScanner::resolved(raw, hasReferences));
        return !m_parse.failed();
    }
    bool endElement() {
        m_parse.endElement();
        return !m_parse.failed();
    }

private:
    QString sharedName(QStringView view) {
        for (const QString &known : m_names) {
            if (known == view)
                return known;
        }
        QString made = view.toString();
        if (m_names.size() < 64)
            m_names.push_back(made);
        return made;
    }

    HXXMLParse &m_parse;
    std::vector<QString> m_names;
};

bool HXXMLParse::run(const QByteArray &data, HXError *error) {
    // Handed over as a string, the cleaned text reaches the XML reader as UTF-8, and an encoding
    // named in the declaration is ignored.
    const QString text = HXXMLStringByRemovingForbiddenCharacters(QString::fromUtf8(data));
    // What the system writes itself is read by the quick scanner; anything else goes to the
    // general parser, which also names every fault.
    if (HXPlainXMLScanner(text).isPlain()) {
        PlainEvents events(*this);
        HXPlainXMLScanner(text).scan(events);
    } else {
        runGeneralParser(text);
    }
    if (m_failure.isNull())
        return true;
    HXSetError(error, m_failure);
    return false;
}

void HXXMLParse::runGeneralParser(const QString &text) {
    QXmlStreamReader xml(text);
    while (m_failure.isNull() && !xml.atEnd()) {
        switch (xml.readNext()) {
        case QXmlStreamReader::StartElement: {
            HXXMLAttributes attributes;
            for (const QXmlStreamAttribute &attribute : xml.attributes())
                attributes.insert(attribute.qualifiedName().toString(),
                                  attribute.value().toString());
            startElement(xml.qualifiedName().toString(), attributes, xml.lineNumber());
            break;
        }
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
}

void HXXMLParse::startElement(const QString &name, const HXXMLAttributes &attributes,
                              qint64 line) {
    if (failed())
        return;
    if (qsizetype(m_stack.size()) >= HXXMLReader::maximumDepth) {
        m_failure = HXXMLReader::errorWithFailureReason(
            HXStringWithFormat(u"line %li: element \"%@\" is nested more than %li levels deep",
                               line, name, HXXMLReader::maximumDepth));
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
