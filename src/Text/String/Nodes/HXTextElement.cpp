#include "Text/String/Nodes/HXTextElement.h"

#include "Text/Markup/HXMarkup.h"
#include "Utilities/HXAssert.h"

namespace {

// The text of a tag chunk as a new atom would take it: nothing for an entity's atom or for no
// chunk, the characters otherwise.
QString textOfTagChunk(const HXChunk &chunk) {
    if (chunk.length() == 0)
        return QString();
    if (const HXTextAtom *atom = chunk.as<HXTextAtom>())
        return atom->stringRepresentation();
    return chunk.string();
}

} // namespace

// --- Making elements ------------------------------------------------------------------------

void HXTextElement::initWithTag(const HXTextTagRef &tag, const std::shared_ptr<HXMarkup> &markup) {
    m_markup = markup;
    m_tag = tag;
    m_definition = tag ? tag->definition() : nullptr;
    updateAtomsWithHead(QString(), QString());
}

void HXTextElement::initWithStoredForm(const HXTextTagRef &tag, const HXDefinitionRef &definition,
                                       const std::shared_ptr<HXMarkup> &markup, bool closed,
                                       const QString &startTag, const QString &endTag) {
    m_markup = markup;
    m_tag = tag;
    m_definition = definition;
    m_closed = closed;
    updateAtomsWithHead(startTag, endTag);
}

void HXTextElement::initWithStoredForm(const HXTextTagRef &tag, const HXDefinitionRef &definition,
                                       const std::shared_ptr<HXMarkup> &markup, bool closed,
                                       const QString &startTag, const QString &endTag,
                                       std::vector<HXChunk> inner) {
    HX_ASSERT(length() == 0, u"Only a new element takes its stored form with its chunks.");
    m_markup = markup;
    m_tag = tag;
    m_definition = definition;
    m_closed = closed;
    deriveAtoms(startTag.isNull() ? textOfTagChunk(HXChunk()) : startTag,
                endTag.isNull() ? textOfTagChunk(HXChunk()) : endTag);
    const bool head = headAtomInPlace();
    const bool tail = m_closed && !m_isObject && m_tailAtom && m_tailAtom->length() > 0;
    if (head)
        inner.insert(inner.begin(), HXChunk(m_headAtom));
    if (tail)
        inner.emplace_back(m_tailAtom);
    setAllChunks(inner.data(), inner.size(), head, tail);
}

HXRef<HXTextElement> HXTextElement::elementWithTag(const HXTextTagRef &tag,
                                                   const std::shared_ptr<HXMarkup> &markup,
                                                   bool closed) {
    auto element = HXRef<HXTextElement>::make();
    element->initWithTag(tag, markup);
    if (closed)
        element->setClosed(true);
    return element;
}

HXRef<HXTextElement> HXTextElement::elementWithAttributes(const QVariantMap &attributes,
                                                          const HXTextTagRef &tag,
                                                          const std::shared_ptr<HXMarkup> &markup) {
    const quint64 scope = tag->definition()->scope();
    HX_ASSERT(scope == HXAttributedTextScope || scope == HXObjectScope,
              u"Only attributed text or object scope allowed!");
    auto element = elementWithTag(tag, markup);
    if (element->m_attributes) {
        for (auto it = attributes.constBegin(); it != attributes.constEnd(); ++it)
            element->m_attributes->setObject(it.value(), it.key());
    }
    return element;
}

HXRef<HXTextElement> HXTextElement::elementWithFile(const std::shared_ptr<HXFileWrapper> &file,
                                                    const HXTextTagRef &tag,
                                                    const std::shared_ptr<HXMarkup> &markup) {
    const quint64 scope = tag->definition()->scope();
    HX_ASSERT(scope == HXAttributedTextScope || scope == HXObjectScope,
              u"Only attributed text or object scope allowed!");
    auto element = elementWithTag(tag, markup);
    if (element->m_attributes)
        element->m_attributes->setFileWrapper(file);
    return element;
}

HXRef<HXTextElement> HXTextElement::elementWithURLString(const QString &urlString,
                                                         const QString &title,
                                                         const HXTextTagRef &tag,
                                                         const std::shared_ptr<HXMarkup> &markup) {
    HX_ASSERT(tag->definition()->scope() == HXAttributedTextScope,
              u"Only attributed text scope allowed!");
    auto element = elementWithTag(tag, markup);
    if (element->m_attributes) {
        for (const HXTagAttributeRef &attribute : tag->definition()->attributes()) {
            if (attribute->kind() == HXTagAttributeKindURL) {
                element->m_attributes->setObject(urlString, attribute->identifier());
                break;
            }
        }
    }
    if (!title.isEmpty())
        element->appendChunk(title);
    return element;
}

// --- Tags and atoms -------------------------------------------------------------------------

void HXTextElement::takeTag(const HXTextTagRef &tag) {
    if (tag && m_definition)
        HX_ASSERT(HXDefinitionsEqual(tag->definition(), m_definition),
                  u"Must not change definition of an element.");
    if (tag && !m_definition)
        m_definition = tag->definition();
    m_tag = tag;
}

void HXTextElement::setTag(const HXTextTagRef &tag, const QString &string) {
    takeTag(tag);
    updateAtomsWithHead(string, QString());
}

void HXTextElement::setClosed(bool closed, const QString &string) {
    m_closed = closed;
    updateAtomsWithHead(QString(), string);
}

bool HXTextElement::isIntact() const {
    if (!m_headAtom || !firstChunk().isIdenticalTo(HXChunk(m_headAtom)))
        return false;
    if (m_closed && !m_isObject)
        return m_tailAtom && lastChunk().isIdenticalTo(HXChunk(m_tailAtom));
    return true;
}

void HXTextElement::updateAtomsWithHead(const QString &givenHead, const QString &givenTail) {
    deriveAtoms(givenHead.isNull() ? textOfTagChunk(headChunk()) : givenHead,
                givenTail.isNull() ? textOfTagChunk(tailChunk()) : givenTail);
    setHeadChunk(HXChunk(m_headAtom));
    setTailChunk(m_closed && !m_isObject ? HXChunk(m_tailAtom) : HXChunk());
}

void HXTextElement::deriveAtoms(const QString &head, const QString &tail) {
    if (m_definition) {
        const quint64 scope = m_definition->scope();
        m_isObject = m_isObject || scope == HXObjectScope;
        m_isEntity = m_isEntity || m_isObject ||
                     (m_closed && (scope == HXAttributedTextScope || scope == HXObjectScope));
        if (m_isEntity && !m_attributes && !m_definition->attributes().isEmpty()) {
            m_attributes = std::make_shared<HXAttributeDictionary>(m_definition, m_markup);
        }
    }

    bool converted = false;
    // An atom that already says what is asked of it stays: atoms are immutable.
    auto standing = [&](const HXTextAtomRef &atom, const QString &text) {
        return atom && atom->tag() == m_tag && atom->isEntityAtom() == m_isEntity &&
               (m_isEntity || atom->stringRepresentation() == text);
    };
    if (m_tag && standing(m_headAtom, head) && standing(m_tailAtom, tail)) {
        converted = true;
    } else if (m_headAtom && m_tailAtom && m_tag) {
        auto newHead = HXTextAtom::copyOfAtom(*m_headAtom, m_tag, {}, 0, head, m_isEntity);
        auto newTail = HXTextAtom::copyOfAtom(*m_tailAtom, m_tag, {}, 0, tail, m_isEntity);
        if (newHead->tag() && newTail->tag()) {
            m_headAtom = std::move(newHead);
            m_tailAtom = std::move(newTail);
            converted = true;
        }
    }
    if (!converted) {
        m_headAtom =
            m_definition ? HXTextAtom::atomWithTextElement(m_tag, 0, m_isEntity, head) : nullptr;
        m_tailAtom =
            m_definition ? HXTextAtom::atomWithTextElement(m_tag, 1, m_isEntity, tail) : nullptr;
    }
}

HXRef<HXTextElement> HXTextElement::emptyElement(const std::shared_ptr<HXMarkup> &markup) {
    auto element = HXRef<HXTextElement>::make();
    element->m_markup = markup;
    return element;
}

bool HXTextElement::beginParsed(const HXTextTagRef &tag, const QString &startTag) {
    takeTag(tag);
    deriveAtoms(startTag, textOfTagChunk(tailChunk()));
    return m_closed && !m_isObject && m_tailAtom && m_tailAtom->length() > 0;
}

void HXTextElement::finishParsedObject() {
    HXChunk head = headAtomInPlace() ? HXChunk(m_headAtom) : HXChunk();
    setAllChunks(&head, head ? 1 : 0, bool(head), false);
}

void HXTextElement::finishParsed(std::vector<HXChunk> &chunks, bool closed, const QString &endTag,
                                 bool oldTailInPlace) {
    m_closed = closed;
    deriveAtoms(headAtomInPlace() ? textOfTagChunk(HXChunk(m_headAtom)) : QString(),
                !endTag.isNull() ? endTag
                : oldTailInPlace ? textOfTagChunk(HXChunk(m_tailAtom))
                                 : QString());
    const bool head = headAtomInPlace();
    const bool tail = m_closed && !m_isObject && m_tailAtom && m_tailAtom->length() > 0;
    HXChunk *first = chunks.data();
    size_t count = chunks.size();
    if (head)
        chunks.front() = HXChunk(m_headAtom);
    else
        ++first, --count;
    if (tail) {
        chunks.push_back(HXChunk(m_tailAtom));
        first = chunks.data() + (head ? 0 : 1);
        ++count;
    }
    setAllChunks(first, count, head, tail);
}

QString HXTextElement::startTagString() const {
    if (!m_headAtom)
        return QString();
    if (!m_headAtom->isEntityAtom())
        return m_headAtom->stringRepresentation();
    return m_tag ? m_tag->plainStrings().value(0) : QString();
}

QString HXTextElement::endTagString() const {
    if (!m_tailAtom)
        return QString();
    if (!m_tailAtom->isEntityAtom())
        return m_tailAtom->stringRepresentation();
    return m_tag ? m_tag->plainStrings().value(1) : QString();
}

void HXTextElement::setMarkup(const std::shared_ptr<HXMarkup> &markup) {
    if (m_definition && markup)
        m_tag = markup->tagWithIdentifier(m_definition->identifier(), startTagString());
    if (m_attributes)
        m_attributes->setMarkup(markup);
    HXTextNode::setMarkup(markup);
    // The tag texts follow the new tag where it writes them differently.
    if (m_tag && isIntact())
        updateAtomsWithHead(QString(), QString());
}

// --- Editing --------------------------------------------------------------------------------

void HXTextElement::replaceCharactersInRange(HXRange range, const HXChunk &string,
                                             HXRange *editedRange, HXRange *affectedRange,
                                             HXRange *replacementRange) {
    HX_ASSERT(!m_isObject, u"Object cannot be edited!");
    if (!m_isEntity) {
        HXTextNode::replaceCharactersInRange(range, string, editedRange, affectedRange,
                                             replacementRange);
        return;
    }
    // An entity's atoms can't be cut: the range is held to the inner text.
    const HXRange inner = innerChunkRange();
    HXRange clamped = range;
    if (clamped.location < inner.location) {
        const quint64 distance = inner.location - clamped.location;
        clamped.length = clamped.length > distance ? clamped.length - distance : 0;
        clamped.location = inner.location;
    }
    if (clamped.location > inner.max()) {
        clamped.location = inner.max();
        clamped.length = 0;
    }
    if (clamped.max() > inner.max())
        clamped.length = inner.max() - clamped.location;

    HXRange affected = clamped, replacement{clamped.location, string.length()};
    if (clamped.length == 0 && clamped.location == inner.max() && inner.max() < length()) {
        // Text typed at the end of the inner text would land in the end tag's atom.
        replaceChunksInRange(HXRange{clamped.location, 0}, HXChunksOfString(string));
    } else {
        HXRange edited;
        HXTextNode::replaceCharactersInRange(clamped, string, &edited, &affected, &replacement);
    }
    if (editedRange)
        *editedRange = clamped;
    if (affectedRange)
        *affectedRange = affected;
    if (replacementRange)
        *replacementRange = replacement;
}

// --- Text without structure -----------------------------------------------------------------

QString HXTextElement::stringByRemovingObjects() const {
    if (m_isObject)
        return QString();
    QString result = startTagString();
    for (const HXChunk &chunk : innerChunks()) {
        if (const HXTextNode *node = chunk.as<HXTextNode>())
            result += node->stringByRemovingObjects();
        else
            result += chunk.string();
    }
    if (m_closed)
        result += endTagString();
    result.remove(QChar(HXTextAtom::objectReplacementCharacter));
    return result;
}

QString HXTextElement::stringByRemovingObjectsAndTags() const {
    QString result;
    for (const HXChunk &chunk : innerChunks()) {
        if (const HXTextNode *node = chunk.as<HXTextNode>())
            result += node->stringByRemovingObjectsAndTags();
        else
            result += chunk.string();
    }
    return result;
}

bool HXTextElement::isCountable() const {
    return !m_definition || !(m_definition->countingOptions() & HXCountingNotCountable);
}

void HXTextElement::enumerateCountedAttributes(
    const std::function<void(const QString &, const QVariant &, const HXTagAttribute &)> &block)
    const {
    if (!m_attributes ||
        (m_definition && (m_definition->countingOptions() & HXCountingAttributesNotCounted)))
        return;
    m_attributes->enumerateAttributes(block);
}

// --- Copying and comparing ------------------------------------------------------------------

HXRef<HXChunkString> HXTextElement::copyWithRange(HXRange range) const {
    auto copy = HXRef<HXTextElement>::make();
    copy->initWithChunkString(*this, range);
    return copy;
}

void HXTextElement::initWithChunkString(const HXChunkString &other, HXRange range) {
    HXTextNode::initWithChunkString(other, range);
    const auto &source = static_cast<const HXTextElement &>(other);
    m_closed = source.m_closed;
    m_isEntity = source.m_isEntity;
    m_isObject = source.m_isObject;
    m_tag = source.m_tag;
    m_definition = source.m_definition;
    m_attributes = source.m_attributes ? source.m_attributes->copy() : nullptr;
    // Atoms are immutable: the copy shares them.
    m_headAtom = source.m_headAtom;
    m_tailAtom = source.m_tailAtom;
}

bool HXTextElement::isOfClassOf(const HXChunkString &other) const {
    return dynamic_cast<const HXTextElement *>(&other) != nullptr;
}

bool HXTextElement::isEqualToChunkString(const HXChunkString &other) const {
    const auto *element = dynamic_cast<const HXTextElement *>(&other);
    if (!element || !HXTextNode::isEqualToChunkString(other))
        return false;
    if (m_closed != element->m_closed || m_isObject != element->m_isObject ||
        m_isEntity != element->m_isEntity)
        return false;
    if (bool(m_tag) != bool(element->m_tag) || (m_tag && !m_tag->isEqual(*element->m_tag)))
        return false;
    if (!HXDefinitionsEqual(m_definition, element->m_definition))
        return false;
    if (bool(m_attributes) != bool(element->m_attributes))
        return false;
    return !m_attributes || m_attributes->isEqual(*element->m_attributes);
}

void HXTextElement::setLockingContext(const std::weak_ptr<HXLockingContext> &context) {
    HXTextNode::setLockingContext(context);
    if (m_attributes)
        m_attributes->setLockingContext(context);
}

QString HXTextElement::description() const {
    return QStringLiteral("<HXTextElement %1%2%3%4 %5>")
        .arg(m_definition ? m_definition->identifier() : QStringLiteral("(no definition)"),
             m_closed ? QStringLiteral(" closed") : QString(),
             m_isEntity ? QStringLiteral(" entity") : QString(),
             isIntact() ? QString() : QStringLiteral(" broken"), HXTextNode::description());
}

void HXTextElement::checkInvariants(bool deep) const {
    HXTextNode::checkInvariants(deep);
    if (m_definition) {
        HX_ASSERT(m_isObject == (m_definition->scope() == HXObjectScope),
                  u"Object flag of %@ does not follow its definition.", description());
    }
    HX_ASSERT(!m_isObject || m_isEntity, u"Object %@ is no entity.", description());
    if (isIntact()) {
        HX_ASSERT(headChunk().isIdenticalTo(HXChunk(m_headAtom)),
                  u"Head atom of %@ is not its head chunk.", description());
        if (!m_closed || m_isObject)
            HX_ASSERT(tailChunk().isNull(), u"Element %@ without end tag has a tail chunk.",
                      description());
    }
    HX_ASSERT(!string().contains(QLatin1Char('\n')), u"Line feed inside element %@.",
              description());
}
