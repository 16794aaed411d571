#include "Model/Attachments/HXNativeSheetAttachment.h"

#include "Model/Attachments/HXCountingGoal.h"
#include "Model/Attachments/HXFileAttachment.h"
#include "Model/Attachments/HXKeywordsAttachment.h"
#include "Model/Attachments/HXNoteAttachment.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Text/String/Access/HXStringXML.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXXMLReader.h"
#include "Utilities/HXXMLWriter.h"

namespace {

const QString typeAttribute = QStringLiteral("type");

HXError failure(const QString &reason) {
    return HXXMLReader::errorWithFailureReason(reason);
}

} // namespace

HXNativeSheetAttachment::HXNativeSheetAttachment(std::shared_ptr<HXMarkup> markup)
    : m_markup(std::move(markup)) {}

HXNativeSheetAttachment::HXNativeSheetAttachment(HXAttachmentRef attachment)
    : m_attachment(std::move(attachment)) {}

QString HXNativeSheetAttachment::typeIdentifierForAttachment(const HXAttachment &attachment) {
    if (dynamic_cast<const HXNoteAttachment *>(&attachment))
        return QStringLiteral("note");
    if (dynamic_cast<const HXFileAttachment *>(&attachment))
        return QStringLiteral("file");
    if (dynamic_cast<const HXKeywordsAttachment *>(&attachment))
        return QStringLiteral("keywords");
    if (dynamic_cast<const HXCountingGoal *>(&attachment))
        return QStringLiteral("goal");
    HX_ASSERT(false, u"Invalid class for sheet attachment.");
    return QString();
}

HXAttachmentRef
HXNativeSheetAttachment::newAttachmentForTypeIdentifier(const QString &type,
                                                        const std::shared_ptr<HXMarkup> &markup) {
    if (type == u"note" || type == u"1")
        return HXNoteAttachment::noteWithMarkup(markup);
    if (type == u"file" || type == u"2")
        return std::make_shared<HXFileAttachment>();
    if (type == u"keywords" || type == u"3")
        return std::make_shared<HXKeywordsAttachment>();
    if (type == u"goal")
        return std::make_shared<HXCountingGoal>();
    return nullptr;
}

bool HXNativeSheetAttachment::writeXML(HXXMLWriter &writer, HXXMLReaderContext *context,
                                       HXError *error) const {
    HX_ASSERT(m_attachment != nullptr, u"No attachment to write.");
    writer.startElement(QLatin1StringView("attachment"));
    writer.writeAttribute(QLatin1StringView("type"), typeIdentifierForAttachment(*m_attachment));
    if (const auto *note = dynamic_cast<const HXNoteAttachment *>(m_attachment.get())) {
        if (note->text() && !HXStringXML::writeXML(*note->text(), writer, context, error))
            return false;
    } else if (const auto *file = dynamic_cast<const HXFileAttachment *>(m_attachment.get())) {
        if (file->fileWrapper() && context)
            writer.writeText(context->storeFileWrapper(file->fileWrapper()));
    } else if (const auto *keywords =
                   dynamic_cast<const HXKeywordsAttachment *>(m_attachment.get())) {
        writer.writeText(keywords->keywords().join(HXKeywordsAttachment::separator));
    } else if (const auto *goal = dynamic_cast<const HXCountingGoal *>(m_attachment.get())) {
        writer.writeText(goal->storedText());
    }
    writer.endElement();
    return true;
}

bool HXNativeSheetAttachment::readerWillStartElement(const QString &,
                                                     const HXXMLAttributes &attributes,
                                                     HXError *error) {
    if (!attributes.contains(typeAttribute)) {
        HXSetError(error, failure(QStringLiteral("Attachment misses type,")));
        return false;
    }
    const QString type = attributes.value(typeAttribute);
    m_attachment = newAttachmentForTypeIdentifier(type, m_markup);
    if (!m_attachment) {
        HXSetError(error, failure(QStringLiteral("Invalid attachment type: %1").arg(type)));
        return false;
    }
    m_readsString = !dynamic_cast<HXNoteAttachment *>(m_attachment.get());
    return true;
}

std::shared_ptr<HXXMLReading>
HXNativeSheetAttachment::readerDidFindChildElement(const QString &, HXXMLReaderContext *,
                                                   HXError *) {
    auto *note = dynamic_cast<HXNoteAttachment *>(m_attachment.get());
    if (!note)
        return nullptr;
    m_text = HXAtomicString::stringWithMarkup(note->markup());
    return HXStringXML::readerForString(m_text);
}

bool HXNativeSheetAttachment::readerScannedString(const QString &string, HXError *error) {
    if (m_readsString) {
        m_readString += string;
        return true;
    }
    // The line breaks and indentation of a hand-formatted file are no content.
    if (string.trimmed().isEmpty())
        return true;
    HXSetError(error, failure(QStringLiteral("Unexpected string: %1").arg(string)));
    return false;
}

bool HXNativeSheetAttachment::readerDidEndChildElement(const std::shared_ptr<HXXMLReading> &,
                                                       HXXMLReaderContext *, HXError *) {
    if (auto *note = dynamic_cast<HXNoteAttachment *>(m_attachment.get()); note && m_text) {
        note->text()->setToString(*m_text);
        m_text = nullptr;
    }
    return true;
}

bool HXNativeSheetAttachment::readerWillEndElement(HXXMLReaderContext *context, HXError *) {
    if (auto *file = dynamic_cast<HXFileAttachment *>(m_attachment.get())) {
        // An identifier the media don't have leaves the attachment empty.
        if (context)
            file->setFileWrapper(context->readFileWrapper(m_readString));
    } else if (auto *keywords = dynamic_cast<HXKeywordsAttachment *>(m_attachment.get())) {
        if (!m_readString.trimmed().isEmpty())
            keywords->setKeywords(m_readString.split(HXKeywordsAttachment::separator));
    } else if (auto *goal = dynamic_cast<HXCountingGoal *>(m_attachment.get())) {
        goal->setWithStoredText(m_readString);
    }
    m_readString.clear();
    m_readsString = false;
    return true;
}
