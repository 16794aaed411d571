#pragma once

#include "Model/Attachments/HXAttachment.h"
#include "Utilities/HXXMLReading.h"

#include <QString>

#include <memory>

class HXAtomicString;
class HXMarkup;
class HXXMLWriter;

// The form of one attachment in a sheet's "Content.xml": an `attachment` element whose `type`
// names its kind. A note holds its text as a `string` element; a file is named by its identifier
// in the sheet's media; keywords are joined by ","; a goal is "counter;type;target". The numbers
// an older format used for the first three kinds are read, and never written.
//
// Reading: made with the sheet's markup, handed to the reader for the element, and afterwards
// holding the attachment. Writing: made with the attachment. One thread.
class HXNativeSheetAttachment : public HXXMLReading {
public:
    explicit HXNativeSheetAttachment(std::shared_ptr<HXMarkup> markup);
    explicit HXNativeSheetAttachment(HXAttachmentRef attachment);

    static QString XMLElementName() { return QStringLiteral("attachment"); }
    // The `type` of an attachment; another class than the four is an assertion.
    static QString typeIdentifierForAttachment(const HXAttachment &attachment);
    // A new empty attachment for a `type`, old numbers included; nothing for an unknown one.
    static HXAttachmentRef newAttachmentForTypeIdentifier(const QString &type,
                                                          const std::shared_ptr<HXMarkup> &markup);

    HXAttachmentRef attachment() const { return m_attachment; }

    // The element, with the files it names kept by the context.
    bool writeXML(HXXMLWriter &writer, HXXMLReaderContext *context, HXError *error) const;

    bool readerWillStartElement(const QString &name, const HXXMLAttributes &attributes,
                                HXError *error) override;
    std::shared_ptr<HXXMLReading> readerDidFindChildElement(const QString &name,
                                                            HXXMLReaderContext *context,
                                                            HXError *error) override;
    bool readerScannedString(const QString &string, HXError *error) override;
    bool readerDidEndChildElement(const std::shared_ptr<HXXMLReading> &child,
                                  HXXMLReaderContext *context, HXError *error) override;
    bool readerWillEndElement(HXXMLReaderContext *context, HXError *error) override;

private:
    HXAttachmentRef m_attachment;
    std::shared_ptr<HXMarkup> m_markup;
    // While reading: a note's text as it is read, the text content of other kinds.
    std::shared_ptr<HXAtomicString> m_text;
    QString m_readString;
    bool m_readsString = false;
};
