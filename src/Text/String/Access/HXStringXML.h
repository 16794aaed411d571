#pragma once

#include "Text/Markup/HXDefinition.h"
#include "Utilities/HXError.h"

#include <QByteArray>

#include <memory>

class HXAttributeDictionary;
class HXXMLReaderContext;
class HXMarkup;
class HXMutableString;
class HXString;
class HXXMLWriter;
class HXXMLReading;

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

    // Writes the `string` element, under the string's read lock when it has one. Files of
    // attributes are kept by the context and written as its handles; a file with no context to
    // keep it, or one the context can't keep, fails the write with an error rather than leave
    // the file out.
    static bool writeXML(const HXString &string, HXXMLWriter &writer,
                         HXXMLReaderContext *context = nullptr, HXError *error = nullptr);
    // A whole document: the declaration and the `string` element; empty when writing fails.
    static QByteArray XMLData(const HXString &string, HXXMLReaderContext *context = nullptr,
                              HXError *error = nullptr);
    // The string of a document, in the markup; nothing and the reader's error when it fails.
    // Files come from the context; one it can't read is left out.
    static std::shared_ptr<HXMutableString>
    stringWithXMLData(const QByteArray &data, const std::shared_ptr<HXMarkup> &markup,
                      HXDefinitionSelector recognizedDefinitions, HXError *error,
                      HXXMLReaderContext *context = nullptr);

    // The object that reads a `string` element into the string, in its markup, where a document
    // holds the element among others. The string should be empty; what it holds stays in front.
    static std::shared_ptr<HXXMLReading>
    readerForString(const std::shared_ptr<HXMutableString> &string);

    // The pasteboard form: the document's data under the string's type; another type is the
    // assertion. Empty, with the error, for a string with files.
    static QByteArray pasteboardPropertyListForType(const HXString &string, const QString &type,
                                                    HXError *error = nullptr);
    static std::shared_ptr<HXMutableString>
    stringWithPasteboardPropertyList(const QByteArray &data, const QString &type,
                                     const std::shared_ptr<HXMarkup> &markup, HXError *error);

    // The `attribute` elements of an element's values, in the definition's order; false when a
    // file can't be kept.
    static bool writeAttributes(const HXAttributeDictionary &attributes, HXXMLWriter &writer,
                                HXXMLReaderContext *context = nullptr, HXError *error = nullptr);
    // The standalone form of an entity's attributes, under an `attributes` root that names the
    // definition; it carries them on the pasteboard. Empty, with the error, when it holds files.
    static QByteArray attributesPasteboardPropertyList(const HXAttributeDictionary &attributes,
                                                       const QString &type,
                                                       HXError *error = nullptr);
    static std::shared_ptr<HXAttributeDictionary>
    attributesWithPasteboardPropertyList(const QByteArray &data, const QString &type,
                                         const std::shared_ptr<HXMarkup> &markup, HXError *error);
};
