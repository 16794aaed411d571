#include "Text/String/Nodes/HXTextElement.h"

#include "Text/Markup/HXMarkup.h"
#include "Utilities/HXAssert.h"

#include <array>

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
    HXNodeTraits::Fields fields;
    fields.markup = markup;
    fields.tag = tag;
    fields.definition = tag ? tag->definition() : nullptr;
    setTraits(std::move(fields));
    updateAtomsWithHead(QString(), QString());
}

void HXTextElement::initWithStoredForm(const HXTextTagRef &tag, const HXDefinitionRef &definition,
                                       const std::shared_ptr<HXMarkup> &markup, bool closed,
                                       const QString &startTag, const QString &endTag) {
    HXNodeTraits::Fields fields;
    fields.markup = markup;
    fields.tag = tag;
    fields.definition = definition;
    setTraits(std::move(fields));
    setFlag(closedFlag, closed);
    updateAtomsWithHead(startTag, endTag);
}

void HXTextElement::initWithStoredForm(const HXTextTagRef &tag, const HXDefinitionRef &definition,
                                       const std::shared_ptr<HXMarkup> &markup, bool closed,
                                       const QString &startTag, const QString &endTag,
                                       std::vector<HXChunk> inner) {
    HX_ASSERT(length() == 0, u"Only a new element takes its stored form with its chunks.");
    HXNodeTraits::Fields fields;
    fields.markup = markup;
    fields.tag = tag;
    fields.definition = definition;
    setFlag(closedFlag, closed);
    deriveAtoms(fields, startTag.isNull() ? textOfTagChunk(HXChunk()) : startTag,
                endTag.isNull() ? textOfTagChunk(HXChunk()) : endTag);
    setTraits(std::move(fields));
    const bool head = headAtomInPlace();
    const bool tail = tailAtomInPlace();
    if (head)
        inner.insert(inner.begin(), HXChunk(headAtom()));
    if (tail)
        inner.emplace_back(tailAtom());
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
    if (const HXAttributeDictionaryRef &dictionary = element->attributes()) {
        for (auto it = attributes.constBegin(); it != attributes.constEnd(); ++it)
            dictionary->setObject(it.value(), it.key());
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
    if (const HXAttributeDictionaryRef &dictionary = element->attributes())
        dictionary->setFileWrapper(file);
    return element;
}

HXRef<HXTextElement> HXTextElement::elementWithURLString(const QString &urlString,
                                                         const QString &title,
                                                         const HXTextTagRef &tag,
                                                         const std::shared_ptr<HXMarkup> &markup) {
    HX_ASSERT(tag->definition()->scope() == HXAttributedTextScope,
              u"Only attributed text scope allowed!");
    auto element = elementWithTag(tag, markup);
    if (const HXAttributeDictionaryRef &dictionary = element->attributes()) {
        for (const HXTagAttributeRef &attribute : tag->definition()->attributes()) {
            if (attribute->kind() == HXTagAttributeKindURL) {
                dictionary->setObject(urlString, attribute->identifier());
                break;
            }
        }
    }
    if (!title.isEmpty())
        element->appendChunk(title);
    return element;
}

void HXTextElement::setAttributes(HXAttributeDictionaryRef attributes) {
    if (attributes)
        m_attributes = std::make_unique<HXAttributeDictionaryRef>(std::move(attributes));
    else
        m_attributes.reset();
}

// --- Tags and atoms -------------------------------------------------------------------------

void HXTextElement::takeTag(HXNodeTraits::Fields &fields, const HXTextTagRef &tag) {
    if (tag && fields.definition)
        HX_ASSERT(HXDefinitionsEqual(tag->definition(), fields.definition),
                  u"Must not change definition of an element.");
    if (tag && !fields.definition)
        fields.definition = tag->definition();
    fields.tag = tag;
}

void HXTextElement::setTag(const HXTextTagRef &tag, const QString &string) {
    HXNodeTraits::Fields fields = traits();
    takeTag(fields, tag);
    setTraits(std::move(fields));
    updateAtomsWithHead(string, QString());
}

void HXTextElement::setClosed(bool closed, const QString &string) {
    setFlag(closedFlag, closed);
    updateAtomsWithHead(QString(), string);
}

bool HXTextElement::isIntact() const {
    const HXTextAtom *head = headAtom().get();
    if (!head || firstObject() != head)
        return false;
    if (isClosed() && !isObject())
        return tailAtom() && lastObject() == tailAtom().get();
    return true;
}

void HXTextElement::updateAtomsWithHead(const QString &givenHead, const QString &givenTail) {
    deriveAtoms(givenHead.isNull() ? textOfTagChunk(headChunk()) : givenHead,
                givenTail.isNull() ? textOfTagChunk(tailChunk()) : givenTail);
    setHeadChunk(HXChunk(headAtom()));
    setTailChunk(isClosed() && !isObject() ? HXChunk(tailAtom()) : HXChunk());
}

void HXTextElement::deriveAtoms(const QString &head, const QString &tail) {
    const HXNodeTraits::Fields &present = traits();
    deriveFlags(present);
    if (atomsStand(present, head, tail))
        return;
    HXNodeTraits::Fields fields = present;
    deriveAtoms(fields, head, tail);
    setTraits(std::move(fields));
}

void HXTextElement::deriveFlags(const HXNodeTraits::Fields &fields) {
    if (!fields.definition)
        return;
    const quint64 scope = fields.definition->scope();
    setFlag(objectFlag, isObject() || scope == HXObjectScope);
    setFlag(entityFlag,
            isEntity() || isObject() ||
                (isClosed() && (scope == HXAttributedTextScope || scope == HXObjectScope)));
    if (isEntity() && !m_attributes && !fields.definition->attributes().isEmpty())
        setAttributes(std::make_shared<HXAttributeDictionary>(fields.definition, fields.markup));
}

bool HXTextElement::atomsStand(const HXNodeTraits::Fields &fields, const QString &head,
                               const QString &tail) const {
    // An atom that already says what is asked of it stays: atoms are immutable.
    const bool entity = isEntity();
    auto standing = [&](const HXTextAtomRef &atom, const QString &text) {
        return atom && atom->tag() == fields.tag && atom->isEntityAtom() == entity &&
               (entity || atom->stringRepresentation() == text);
    };
    return fields.tag && standing(fields.headAtom, head) && standing(fields.tailAtom, tail);
}

void HXTextElement::deriveAtoms(HXNodeTraits::Fields &fields, const QString &head,
                                const QString &tail) {
    deriveFlags(fields);
    if (atomsStand(fields, head, tail))
        return;
    const bool entity = isEntity();
    const HXTextTagRef &tag = fields.tag;
    if (fields.headAtom && fields.tailAtom && tag) {
        auto newHead = HXTextAtom::copyOfAtom(*fields.headAtom, tag, {}, 0, head, entity);
        auto newTail = HXTextAtom::copyOfAtom(*fields.tailAtom, tag, {}, 0, tail, entity);
        if (newHead->tag() && newTail->tag()) {
            fields.headAtom = std::move(newHead);
            fields.tailAtom = std::move(newTail);
            return;
        }
    }
    const bool defined = bool(fields.definition);
    fields.headAtom = defined ? HXTextAtom::atomWithTextElement(tag, 0, entity, head) : nullptr;
    fields.tailAtom = defined ? HXTextAtom::atomWithTextElement(tag, 1, entity, tail) : nullptr;
}

HXRef<HXTextElement> HXTextElement::emptyElement(const std::shared_ptr<HXMarkup> &markup) {
    auto element = HXRef<HXTextElement>::make();
    element->setTraits(HXNodeTraits::traitsWithMarkup(markup));
    return element;
}

bool HXTextElement::beginParsed(const HXTextTagRef &tag, const QString &startTag) {
    deriveTraits(&tag, startTag, textOfTagChunk(tailChunk()));
    return tailAtomInPlace();
}

namespace {

// What deriving an element's traits made last from given traits, flags, tag and tag texts: the
// elements of a text begin and end in the same few ways. A slot holds both sets of traits, so
// that no address in it can stand for a new object.
struct Derivation {
    HXNodeTraitsRef from;
    bool takesTag = false;
    const HXTextTag *tag = nullptr;
    quint8 flagsBefore = 0;
    QString head, tail;
    HXNodeTraitsRef to;
    quint8 flagsAfter = 0;
};

class RecentDerivations {
public:
    Derivation &slot(const HXNodeTraitsRef &from, const HXTextTag *tag, const QString &head,
                     const QString &tail) {
        const size_t hash = std::hash<const void *>()(from.get()) ^
                            (std::hash<const void *>()(tag) << 1) ^ qHash(head) ^
                            (qHash(tail) << 2);
        return m_slots[(hash * 0x9e3779b97f4a7c15ull) >> 56];
    }

private:
    std::array<Derivation, 256> m_slots;
};

} // namespace

void HXTextElement::deriveTraits(const HXTextTagRef *tag, const QString &head,
                                 const QString &tail) {
    static constexpr quint8 derivedFlags = closedFlag | entityFlag | objectFlag;
    thread_local RecentDerivations recent;
    const HXTextTag *newTag = tag ? tag->get() : nullptr;
    Derivation &slot = recent.slot(traitsReference(), newTag, head, tail);
    const quint8 flagsBefore = m_flags & derivedFlags;
    if (slot.to && slot.from == traitsReference() && slot.takesTag == bool(tag) &&
        slot.tag == newTag &&
        slot.flagsBefore == flagsBefore && slot.head == head && slot.tail == tail &&
        slot.head.isNull() == head.isNull() && slot.tail.isNull() == tail.isNull()) {
        m_flags = quint8((m_flags & ~derivedFlags) | slot.flagsAfter);
        setTraits(slot.to);
        // Attributes are the element's own.
        deriveFlags(traits());
        return;
    }
    HXNodeTraitsRef from = traitsReference();
    HXNodeTraits::Fields fields = traits();
    if (tag)
        takeTag(fields, *tag);
    deriveAtoms(fields, head, tail);
    setTraits(std::move(fields));
    slot.from = std::move(from);
    slot.takesTag = bool(tag);
    slot.tag = newTag;
    slot.flagsBefore = flagsBefore;
    slot.head = head;
    slot.tail = tail;
    slot.to = traitsReference();
    slot.flagsAfter = m_flags & derivedFlags;
}

void HXTextElement::finishParsedObject() {
    HXChunk head = headAtomInPlace() ? HXChunk(headAtom()) : HXChunk();
    setAllChunks(&head, head ? 1 : 0, bool(head), false);
}

void HXTextElement::finishParsed(std::vector<HXChunk> &chunks, bool closed, const QString &endTag,
                                 bool oldTailInPlace) {
    setFlag(closedFlag, closed);
    deriveTraits(nullptr, headAtomInPlace() ? textOfTagChunk(HXChunk(headAtom())) : QString(),
                !endTag.isNull() ? endTag
                : oldTailInPlace ? textOfTagChunk(HXChunk(tailAtom()))
                                 : QString());
    const bool head = headAtomInPlace();
    const bool tail = tailAtomInPlace();
    HXChunk *first = chunks.data();
    size_t count = chunks.size();
    if (head)
        chunks.front() = HXChunk(headAtom());
    else
        ++first, --count;
    if (tail) {
        chunks.push_back(HXChunk(tailAtom()));
        first = chunks.data() + (head ? 0 : 1);
        ++count;
    }
    setAllChunks(first, count, head, tail);
}

QString HXTextElement::startTagString() const {
    const HXTextAtomRef &atom = headAtom();
    if (!atom)
        return QString();
    if (!atom->isEntityAtom())
        return atom->stringRepresentation();
    return tag() ? tag()->plainStrings().value(0) : QString();
}

QString HXTextElement::endTagString() const {
    const HXTextAtomRef &atom = tailAtom();
    if (!atom)
        return QString();
    if (!atom->isEntityAtom())
        return atom->stringRepresentation();
    return tag() ? tag()->plainStrings().value(1) : QString();
}

void HXTextElement::setMarkup(const std::shared_ptr<HXMarkup> &given) {
    const std::shared_ptr<HXMarkup> markup = given;
    if (definition() && markup) {
        HXNodeTraits::Fields fields = traits();
        fields.tag = markup->tagWithIdentifier(fields.definition->identifier(), startTagString());
        setTraits(std::move(fields));
    }
    if (m_attributes)
        (*m_attributes)->setMarkup(markup);
    HXTextNode::setMarkup(markup);
    // The tag texts follow the new tag where it writes them differently; without a tag the atoms
    // are tagless, an entity's without text and another element's with the text it had.
    if (definition() && isIntact())
        updateAtomsWithHead(QString(), QString());
}

// --- Editing --------------------------------------------------------------------------------

void HXTextElement::replaceCharactersInRange(HXRange range, const HXChunk &string,
                                             HXRange *editedRange, HXRange *affectedRange,
                                             HXRange *replacementRange) {
    HX_ASSERT(!isObject(), u"Object cannot be edited!");
    if (!isEntity()) {
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
    if (isObject())
        return QString();
    QString result = startTagString();
    for (const HXChunk &chunk : innerChunks()) {
        if (const HXTextNode *node = chunk.as<HXTextNode>())
            result += node->stringByRemovingObjects();
        else
            result += chunk.string();
    }
    if (isClosed())
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
    return !definition() || !(definition()->countingOptions() & HXCountingNotCountable);
}

void HXTextElement::enumerateCountedAttributes(
    const std::function<void(const QString &, const QVariant &, const HXTagAttribute &)> &block)
    const {
    if (!m_attributes ||
        (definition() && (definition()->countingOptions() & HXCountingAttributesNotCounted)))
        return;
    (*m_attributes)->enumerateAttributes(
        [&](const QString &key, const QVariant &value, const HXTagAttribute &attribute) {
            if (attribute.kind() == HXTagAttributeKindNestedString)
                block(key, value, attribute);
        });
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
    // The traits came with the node's; they and their atoms are immutable and shared.
    setFlag(closedFlag, source.isClosed());
    setFlag(entityFlag, source.isEntity());
    setFlag(objectFlag, source.isObject());
    setAttributes(source.m_attributes ? (*source.m_attributes)->copy() : nullptr);
}

bool HXTextElement::isOfClassOf(const HXChunkString &other) const {
    return dynamic_cast<const HXTextElement *>(&other) != nullptr;
}

bool HXTextElement::isEqualToChunkString(const HXChunkString &other) const {
    const auto *element = dynamic_cast<const HXTextElement *>(&other);
    if (!element || !HXTextNode::isEqualToChunkString(other))
        return false;
    if (isClosed() != element->isClosed() || isObject() != element->isObject() ||
        isEntity() != element->isEntity())
        return false;
    if (bool(tag()) != bool(element->tag()) || (tag() && !tag()->isEqual(*element->tag())))
        return false;
    if (!HXDefinitionsEqual(definition(), element->definition()))
        return false;
    const HXAttributeDictionaryRef &mine = attributes(), &theirs = element->attributes();
    if (bool(mine) != bool(theirs))
        return false;
    return !mine || mine->isEqual(*theirs);
}

void HXTextElement::setLockingContext(const std::weak_ptr<HXLockingContext> &context) {
    HXTextNode::setLockingContext(context);
    if (m_attributes)
        (*m_attributes)->setLockingContext(context);
}

QString HXTextElement::description() const {
    return QStringLiteral("<HXTextElement %1%2%3%4 %5>")
        .arg(definition() ? definition()->identifier() : QStringLiteral("(no definition)"),
             isClosed() ? QStringLiteral(" closed") : QString(),
             isEntity() ? QStringLiteral(" entity") : QString(),
             isIntact() ? QString() : QStringLiteral(" broken"), HXTextNode::description());
}

void HXTextElement::checkInvariants(bool deep) const {
    HXTextNode::checkInvariants(deep);
    const HXNodeTraits::Fields &fields = traits();
    HX_ASSERT(fields.groupings.isEmpty() && !fields.bookmark,
              u"Element %@ has the traits of a paragraph.", description());
    HX_ASSERT(!fields.tag || fields.definition, u"Element %@ has a tag but no definition.",
              description());
    for (const HXTextAtomRef &atom : {fields.headAtom, fields.tailAtom})
        HX_ASSERT(!atom || !atom->isParagraphAtom(), u"Element %@ holds a paragraph's atom.",
                  description());
    if (definition()) {
        HX_ASSERT(isObject() == (definition()->scope() == HXObjectScope),
                  u"Object flag of %@ does not follow its definition.", description());
    }
    HX_ASSERT(!isObject() || isEntity(), u"Object %@ is no entity.", description());
    HX_ASSERT(!m_attributes || (*m_attributes && isEntity()),
              u"Element %@ has attributes but is no entity.", description());
    if (isIntact()) {
        HX_ASSERT(headChunk().isIdenticalTo(HXChunk(headAtom())),
                  u"Head atom of %@ is not its head chunk.", description());
        if (!isClosed() || isObject())
            HX_ASSERT(tailChunk().isNull(), u"Element %@ without end tag has a tail chunk.",
                      description());
    }
    HX_ASSERT(!string().contains(QLatin1Char('\n')), u"Line feed inside element %@.",
              description());
}
