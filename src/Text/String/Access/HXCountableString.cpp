// The text of a string as counters see it.

#include "Text/String/Access/HXAtomicString.h"
#include "Text/String/Access/HXString.h"
#include "Text/String/Meta/HXAttributeDictionary.h"

namespace {

// Walks the nodes of a paragraph and appends what counts. A paragraph excluded by its tag or a
// grouping goes whole, line feed included, so the lines around it stay as they are; an excluded
// element goes with its text. Tag atoms never count; escapes are text.
class CountableTextWalker {
public:
    CountableTextWalker(QString &text, QList<std::shared_ptr<HXString>> *nestedStrings)
        : m_text(text)
        , m_nestedStrings(nestedStrings) {}

    void paragraph(const HXParagraph &paragraph, HXRange range) {
        if (!paragraph.isCountable())
            return;
        inner(paragraph, range);
    }

private:
    // The chunks of a node between its head and tail atoms that lie in the range.
    void inner(const HXTextNode &node, HXRange range) {
        const HXRange innerRange = HXIntersectionRange(range, node.innerChunkRange());
        node.enumerateChunksInRange(
            innerRange, 0, [&](const HXChunk &chunk, HXRange chunkRange, bool &) {
                const HXRange part = HXIntersectionRange(innerRange, chunkRange);
                if (chunk.isPlain()) {
                    m_text += chunk.view().mid(qsizetype(part.location - chunkRange.location),
                                               qsizetype(part.length));
                } else if (const auto *element = chunk.as<HXTextElement>()) {
                    this->element(*element,
                                  HXRange{part.location - chunkRange.location, part.length});
                } else {
                    const qsizetype at = m_text.size();
                    m_text.resize(at + qsizetype(part.length));
                    chunk.getCharacters(m_text.data() + at,
                                        HXRange{part.location - chunkRange.location, part.length});
                }
            });
    }

    void element(const HXTextElement &element, HXRange range) {
        if (!element.isCountable())
            return;
        if (m_nestedStrings && touchesAtom(element, range)) {
            element.enumerateCountedAttributes(
                [&](const QString &key, const QVariant &, const HXTagAttribute &) {
                    if (auto nested = element.attributes()->existingNestedStringForKey(key))
                        m_nestedStrings->append(nested);
                });
        }
        inner(element, range);
    }

    // Whether a head or tail atom of the element lies in the range: the element's attributes are
    // counted with its tag, once.
    static bool touchesAtom(const HXTextElement &element, HXRange range) {
        if (element.hasHeadChunk() &&
            HXIntersectionRange(range, HXRange{0, element.headChunk().length()}).length > 0)
            return true;
        if (element.hasTailChunk()) {
            const quint64 tail = element.tailChunk().length();
            return HXIntersectionRange(range, HXRange{element.length() - tail, tail}).length > 0;
        }
        return false;
    }

    QString &m_text;
    QList<std::shared_ptr<HXString>> *m_nestedStrings;
};

} // namespace

QString HXString::countableStringFromRange(HXRange range,
                                           QList<std::shared_ptr<HXString>> *nestedStrings) const {
    QString text;
    reading([&] {
        // Clipped here, under the lock, so that a whole string is read at one state of it.
        range = HXIntersectionRange(range, HXRange{0, HXChunkString::length()});
        text.reserve(qsizetype(range.length));
        CountableTextWalker walker(text, nestedStrings);
        enumerateChunksInRange(range, 0, [&](const HXChunk &chunk, HXRange chunkRange, bool &) {
            const HXRange part = HXIntersectionRange(range, chunkRange);
            walker.paragraph(*chunk.as<HXParagraph>(),
                             HXRange{part.location - chunkRange.location, part.length});
        });
    });
    return text;
}
