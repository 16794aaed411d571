#pragma once

#include "Utilities/HXError.h"
#include "Utilities/HXXMLReaderContext.h"

#include <QMap>
#include <QString>

#include <memory>

using HXXMLAttributes = QMap<QString, QString>;

// An object that takes one element of a document read by HXXMLReader: its start, its text, its
// child elements and its end. Every call is optional. A call that fails returns false (or, for a
// child, nothing) and may fill the error; a call may also throw, which fails the parse the same
// way. The object that takes the root is owned by the caller of the reader; each other object is
// owned by the reader while its element is open, then handed to its parent. All calls come on the
// thread that runs the reader.
class HXXMLReading {
public:
    virtual ~HXXMLReading() = default;

    // The element's start, on the object that takes it; false stops the parse.
    virtual bool readerWillStartElement(const QString & /*name*/,
                                        const HXXMLAttributes & /*attributes*/,
                                        HXError * /*error*/) {
        return true;
    }
    // Given a child's name, the object that takes it; nothing skips the child and all below it,
    // unless the error was set, which is a failure.
    virtual std::shared_ptr<HXXMLReading>
    readerDidFindChildElement(const QString & /*name*/, HXXMLReaderContext * /*context*/,
                              HXError * /*error*/) {
        return nullptr;
    }
    // Text of the element, as the XML gives it: whitespace too, not merged with the text around
    // a child, entities resolved.
    virtual bool readerScannedString(const QString & /*string*/, HXError * /*error*/) {
        return true;
    }
    // On the parent, with the child object that took the element that just ended.
    virtual bool readerDidEndChildElement(const std::shared_ptr<HXXMLReading> & /*child*/,
                                          HXXMLReaderContext * /*context*/, HXError * /*error*/) {
        return true;
    }
    // On the element's own object, at its end.
    virtual bool readerWillEndElement(HXXMLReaderContext * /*context*/, HXError * /*error*/) {
        return true;
    }
};
