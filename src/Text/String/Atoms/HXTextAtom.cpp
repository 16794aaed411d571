#include "Text/String/Atoms/HXTextAtom.h"

#include "Text/String/Implementation/HXChunk.h"
#include "Text/String/Nodes/HXParagraph.h"
#include "Text/String/Nodes/HXTextElement.h"
#include "Text/String/Parser/HXTextParser.h"
#include "Utilities/HXAssert.h"

HXTextAtom::HXTextAtom(HXTextNode *node, quint64 part, HXTextTagRef tag)
    : m_tag(std::move(tag))
    , m_part(quint8(part)) {
    if (node) {
        m_node = node->weak_from_this();
        m_nodeIsParagraph = dynamic_cast<HXParagraph *>(node) != nullptr;
    }
}

std::shared_ptr<HXTextAtom> HXTextAtom::atomWithTextElement(HXTextNode &element, quint64 part,
                                                            const QString &string) {
    auto *textElement = dynamic_cast<HXTextElement *>(&element);
    auto atom = std::make_shared<HXTextAtom>(&element, part,
                                             textElement ? textElement->tag() : HXTextTagRef());
    atom->initRepresentationsWithString(string, {});
    return atom;
}

std::shared_ptr<HXTextAtom>
HXTextAtom::atomWithParagraph(HXTextNode &paragraph, const HXTextTagRef &tag, const QString &string,
                              const HXIndexProvider &indexProvider, qsizetype level) {
    auto atom = std::make_shared<HXTextAtom>(&paragraph, 0, tag);
    std::function<quint64()> indexer;
    if (indexProvider) {
        indexer = [&] {
            const quint64 index = indexProvider(level);
            return index > 0 ? index : 1;
        };
    }
    atom->initRepresentationsWithString(string, indexer);
    return atom;
}

std::shared_ptr<HXTextAtom> HXTextAtom::copyOfAtom(const HXTextAtom &atom, HXTextNode &node) {
    auto copy = std::make_shared<HXTextAtom>(atom);
    copy->m_node = node.weak_from_this();
    copy->m_nodeIsParagraph = dynamic_cast<HXParagraph *>(&node) != nullptr;
    return copy;
}

std::shared_ptr<HXTextAtom> HXTextAtom::copyOfAtom(const HXTextAtom &atom, const HXTextTagRef &tag,
                                                   const HXIndexProvider &indexProvider,
                                                   qsizetype level, const QString &string) {
    auto copy = std::make_shared<HXTextAtom>(atom);
    copy->m_tag = tag;
    copy->m_pattern = QString();
    const QString present = string.isNull() ? atom.m_string : string;
    // The number is read from the present text by the pattern it was made from; without one
    // there the provider gives it, and 1 is the last resort.
    auto indexer = [&]() -> quint64 {
        const qint64 index = HXTextParser::enumerationIndexForString(present, atom.m_pattern);
        if (index > 0)
            return quint64(index);
        const quint64 provided = indexProvider ? indexProvider(level) : 0;
        return provided > 0 ? provided : 1;
    };
    copy->initRepresentationsWithString(present, indexer);
    if (!atom.m_pattern.isNull() && copy->m_pattern.isNull())
        copy->m_tag = nullptr;
    return copy;
}

void HXTextAtom::initRepresentationsWithString(const QString &string,
                                               const std::function<quint64()> &indexer) {
    if (!m_nodeIsParagraph) {
        const auto element = std::dynamic_pointer_cast<HXTextElement>(node());
        if (element && element->isEntity()) {
            m_string = QString();
            return;
        }
    }
    const bool isIndentation = m_nodeIsParagraph && !m_tag;
    const QString matching =
        m_tag || isIndentation
            ? HXTextParser::stringMatchingPart(qsizetype(m_part), m_tag.get(), string, indexer)
            : QString();
    if (!matching.isNull()) {
        m_string = matching;
        m_pattern = HXTextParser::patternForPart(qsizetype(m_part), m_tag.get());
    } else {
        m_string = string;
    }
    // Only an entity's atom is without text; an element that has lost its tag keeps the text it
    // had, or none.
    if (!m_nodeIsParagraph && m_string.isNull())
        m_string = QStringLiteral("");
    HX_ASSERT(!m_nodeIsParagraph || !m_string.isNull(), u"Nil string disallowed for paragraphs");
}

std::shared_ptr<HXTextNode> HXTextAtom::node() const {
    return std::dynamic_pointer_cast<HXTextNode>(m_node.lock());
}

QChar HXTextAtom::characterAtIndex(quint64 index) const {
    HX_ASSERT(index < length(), u"Range or index out of bounds %@", QString::number(index));
    return m_string.isNull() ? QChar(objectReplacementCharacter) : m_string.at(qsizetype(index));
}

void HXTextAtom::getCharacters(QChar *buffer, HXRange range) const {
    HX_ASSERT(range.max() <= length(), u"Range or index out of bounds %@", range.description());
    if (m_string.isNull()) {
        if (range.length == 1)
            *buffer = QChar(objectReplacementCharacter);
        return;
    }
    std::copy_n(m_string.constData() + range.location, range.length, buffer);
}

QString HXTextAtom::string() const {
    return m_string.isNull() ? QString(QChar(objectReplacementCharacter)) : m_string;
}

bool HXTextAtom::isEqual(const HXChunk &other) const {
    const HXTextAtom *atom = other.as<HXTextAtom>();
    if (!atom)
        return false;
    if (atom == this)
        return true;
    const bool sameTag =
        atom->m_tag == m_tag || (atom->m_tag && m_tag && atom->m_tag->isEqual(*m_tag));
    return sameTag && atom->m_part == m_part && atom->m_string == m_string;
}

QString HXTextAtom::description() const {
    return QStringLiteral("<HXTextAtom %1 part:%2 \"%3\">")
        .arg(m_tag ? m_tag->definition()->identifier() : QStringLiteral("(indentation)"))
        .arg(m_part)
        .arg(string());
}
