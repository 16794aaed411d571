#include "Text/String/Meta/HXBookmark.h"

#include "Utilities/HXAssert.h"
#include "Utilities/HXXMLReader.h"

namespace {

class BookmarkReader : public HXXMLReading {
public:
    bool readerWillStartElement(const QString &name, const HXXMLAttributes &,
                                HXError *error) override {
        if (name == HXBookmark::XMLElementName())
            return true;
        *error = HXXMLReader::errorWithFailureReason(
            QStringLiteral("Unexpected element \"%1\"").arg(name));
        return false;
    }
};

} // namespace

QByteArray HXBookmark::pasteboardPropertyListForType(const QString &type) {
    HX_ASSERT(type == pasteboardType, u"Invalid pasteboard type passed");
    return XMLElement().xmlDocumentData();
}

std::shared_ptr<HXBookmark> HXBookmark::bookmarkWithPasteboardPropertyList(const QByteArray &data,
                                                                           const QString &type,
                                                                           HXError *error) {
    HX_ASSERT(type == pasteboardType, u"Invalid pasteboard type passed");
    BookmarkReader reader;
    if (!HXXMLReader::readFromData(data, reader, error))
        return nullptr;
    return bookmark();
}
