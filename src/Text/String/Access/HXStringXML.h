#pragma once

#include "Text/Markup/HXDefinition.h"
#include "Utilities/HXError.h"
#include "Utilities/HXXMLElement.h"

#include <QByteArray>

#include <memory>

class HXAttributeDictionary;
class HXXMLReaderContext;
class HXMarkup;
class HXMutableString;
class HXString;

// The stored and exchanged form of a string: a `string` element of `p` elements, each with its
// bookmark, the texts of its prefix tags, its plain runs, elements with their attributes, and
// escapes. Line feeds between paragraphs are not stored; an empty last `p` stands for a final
// line feed. Reading parses each paragraph anew, so the tree comes out as it was written.
// Reentrant: each read builds its own objects; any thread.
class HXStringXML {
public:
    HXStringXML() = delete;

    static inline const QString pasteboardType = QStringLiteral("com.quaytor.velmora3.string");
    static inline const QString attributesPasteboardType =
        QStringLiteral("com.quaytor.velmora3.attributes");

    // Written under the string's read lock, when it has one.
    // Files of attributes are kept by the context, and written as its handles; without a
    // context they are left out.
    static HXXMLElement XMLElement(const HXString &string, HXXMLReaderContext *context = nullptr);
    // A whole document: the declaration and the `string` element.
    static QByteArray XMLData(const HXString &string, HXXMLReaderContext *context = nullptr);
    // The string of a document, in the markup; nothing and the reader's error when it fails.
    // Files come from the context; one it can't read is left out.
    static std::shared_ptr<HXMutableString>
    stringWithXMLData(const QByteArray &data, const std::shared_ptr<HXMarkup> &markup,
                      HXDefinitionSelector recognizedDefinitions, HXError *error,
                      HXXMLReaderContext *context = nullptr);

    // The pasteboard form: the document's data under the string's type; another type is the
    // assertion.
    static QByteArray pasteboardPropertyListForType(const HXString &string, const QString &type);
    static std::shared_ptr<HXMutableString>
    stringWithPasteboardPropertyList(const QByteArray &data, const QString &type,
                                     const std::shared_ptr<HXMarkup> &markup, HXError *error);

    // The `attribute` elements of an element's values, in the definition's order.
    static QList<HXXMLElement> attributeElements(const HXAttributeDictionary &attributes,
                                                 HXXMLReaderContext *context = nullptr);
    // The standalone form of an entity's attributes, under an `attributes` root that names the
    // definition; it carries them on the pasteboard.
    static QByteArray attributesPasteboardPropertyList(const HXAttributeDictionary &attributes,
                                                       const QString &type);
    static std::shared_ptr<HXAttributeDictionary>
    attributesWithPasteboardPropertyList(const QByteArray &data, const QString &type,
                                         const std::shared_ptr<HXMarkup> &markup, HXError *error);

private:
    static HXXMLElement unlockedXMLElement(const HXString &string, HXXMLReaderContext *context);
};
