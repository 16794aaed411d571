#pragma once

#include "Text/Markup/HXMarkup.h"
#include "Text/String/Nodes/HXParagraph.h"
#include "Text/String/Nodes/HXTextElement.h"

// Trees built directly, as the parser leaves them, under the default markup.
namespace HXTextTestSupport {

inline std::shared_ptr<HXMarkup> markup() {
    return HXMarkup::defaultIntrinsicMarkup();
}

// The default markup's tag of a definition, the one whose pattern fits `matching` if given.
inline HXTextTagRef tag(const char *identifier, const char *matching = nullptr) {
    return markup()->tagWithIdentifier(QString::fromLatin1(identifier),
                                       matching ? QString::fromUtf8(matching) : QString());
}

inline HXTextElementRef element(const char *identifier, const QList<HXChunk> &inner,
                                bool closed = true) {
    auto element = HXTextElement::elementWithTag(tag(identifier), markup(), closed);
    for (const HXChunk &chunk : inner)
        element->appendChunk(chunk);
    return element;
}

// A paragraph of the chunks, behind the prefix of the tag if one is given.
inline HXParagraphRef paragraph(const QList<HXChunk> &chunks,
                                const HXTextTagRef &prefix = nullptr) {
    auto paragraph = prefix ? HXParagraph::paragraphWithTag(prefix, {}, {}, {}, markup())
                            : HXParagraph::paragraphWithString(QString(), markup());
    for (const HXChunk &chunk : chunks)
        paragraph->appendChunk(chunk);
    return paragraph;
}

// The same document with a comment after its declaration, which only the general XML parser
// reads: the string comes through the readers of every element, not the quick way.
inline QByteArray forTheGeneralParser(QByteArray xml) {
    return xml.insert(xml.indexOf("?>") + 2, "<!---->");
}

} // namespace HXTextTestSupport
