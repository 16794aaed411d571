#include "Text/String/Access/HXStringXML.h"

#include "Text/Markup/HXMarkup.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Text/String/Atoms/HXEscapeAtom.h"
#include "Text/String/Parser/HXTextParser.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXFileWrapper.h"
#include "Utilities/HXLineEnds.h"
#include "Utilities/HXPlainXMLScanner.h"
#include "Utilities/HXXMLElement.h"
#include "Utilities/HXStringFormat.h"
#include "Utilities/HXXMLReader.h"
#include "Utilities/HXXMLWriter.h"

#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>

namespace {

// --- Writing --------------------------------------------------------------------------------

// Writes the parts of a string as it goes; the first problem, a file with nowhere to go, is kept
// and fails the whole write.
class Writer {
public:
    Writer(HXXMLWriter &xml, HXXMLReaderContext *context)
        : m_xml(xml)
        , m_context(context) {}

    const HXError &failure() const { return m_failure; }

    // A string, under its read lock when it has one.
    void string(const HXString &string) {
        if (const auto lock = string.lockingContext().lock())
            lock->read([&] { unlockedString(string); });
        else
            unlockedString(string);
    }

    void attributes(const HXAttributeDictionary &attributes) {
        for (const HXTagAttributeRef &attribute : attributes.definition()->attributes()) {
            const QString &identifier = attribute->identifier();
            if (attribute->kind() == HXTagAttributeKindNestedString) {
                const auto nested = attributes.existingNestedStringForKey(identifier);
                if (!nested)
                    continue;
                startAttribute(identifier);
                string(*nested);
            } else if (attribute->isFile()) {
                const auto file = attributes.fileWrapperForKey(identifier);
                if (!file)
                    continue;
                const QString handle = m_context ? m_context->storeFileWrapper(file) : QString();
                if (handle.isEmpty()) {
                    fail(m_context ? HXStringWithFormat(u"The file of attribute %@ could not be "
                                                        u"stored.",
                                                        identifier)
                                   : HXStringWithFormat(u"The file of attribute %@ can't be "
                                                        u"stored without a place for files.",
                                                        identifier));
                    continue;
                }
                startAttribute(identifier);
                m_xml.writeText(handle);
            } else {
                const QVariant stored = attributes.objectForKey(identifier);
                if (!stored.isValid())
                    continue;
                HX_ASSERT(attribute->kind() == HXTagAttributeKindString ||
                              attribute->kind() == HXTagAttributeKindURL,
                          u"No support for storing values of attribute %@.", identifier);
                startAttribute(identifier);
                m_xml.writeText(stored.toString());
            }
            m_xml.endElement();
        }
    }

private:
    void fail(const QString &reason) {
        if (m_failure.isNull())
            m_failure = HXError::withDescription(HXCocoaErrorDomain, HXFileWriteUnknownError,
                                                 reason, reason);
    }

    void startAttribute(const QString &identifier) {
        m_xml.startElement(QLatin1StringView("attribute"));
        m_xml.writeAttribute(QLatin1StringView("identifier"), identifier);
    }

    void unlockedString(const HXString &string) {
        m_xml.startElement(QLatin1StringView("string"));
        m_xml.writeAttribute(QLatin1StringView("xml:space"), u"preserve");
        m_xml.writeText(u"\n");
        bool endsInLineFeed = false;
        string.enumerateChunksInRange(HXRange{0, string.HXChunkString::length()}, 0,
                                      [&](const HXChunk &chunk, HXRange, bool &) {
                                          const auto *paragraph = chunk.as<HXParagraph>();
                                          this->paragraph(*paragraph);
                                          m_xml.writeText(u"\n");
                                          endsInLineFeed = paragraph->endsInLineFeed();
                                      });
        if (endsInLineFeed) {
            m_xml.startElement(QLatin1StringView("p"));
            m_xml.endElement();
            m_xml.writeText(u"\n");
        }
        m_xml.endElement();
    }

    void element(const HXTextElement &element) {
        m_xml.startElement(QLatin1StringView("element"));
        const HXDefinitionRef definition = element.definition();
        m_xml.writeAttribute(QLatin1StringView("kind"),
                             definition ? definition->identifier() : QString());
        if (!element.isClosed() && !element.isObject())
            m_xml.writeAttribute(QLatin1StringView("closed"), u"no");
        const HXTextTagRef &tag = element.tag();
        if (tag && !element.isEntity() && element.headAtom())
            m_xml.writeAttribute(QLatin1StringView("startTag"),
                                 element.headAtom()->stringRepresentation());
        if (tag && element.isClosed() && !element.isEntity() && !element.isObject() &&
            !tag->patternIsSimple(1) && element.tailAtom())
            m_xml.writeAttribute(QLatin1StringView("endTag"),
                                 element.tailAtom()->stringRepresentation());
        if (const auto &attributes = element.attributes())
            this->attributes(*attributes);
        chunks(element);
        m_xml.endElement();
    }

    // The inner chunks of a node: elements, escapes, and plain text without its line feeds.
    void chunks(const HXChunkString &node) {
        const HXRange inner = node.innerChunkRange();
        node.enumerateChunksInRange(inner, 0, [&](const HXChunk &chunk, HXRange, bool &) {
            if (const auto *element = chunk.as<HXTextElement>()) {
                this->element(*element);
            } else if (const auto *escape = chunk.as<HXEscapeAtom>()) {
                m_xml.startElement(QLatin1StringView("escape"));
                m_xml.writeText(escape->string());
                m_xml.endElement();
            } else {
                // Plain text is written where it stands; other chunks are few.
                const QString copied = chunk.isPlain() ? QString() : chunk.string();
                QStringView rest = chunk.isPlain() ? chunk.view() : QStringView(copied);
                for (qsizetype lineFeed; (lineFeed = rest.indexOf(u'\n')) >= 0;) {
                    m_xml.writeText(rest.first(lineFeed));
                    rest = rest.sliced(lineFeed + 1);
                }
                m_xml.writeText(rest);
            }
        });
    }

    void paragraph(const HXParagraph &paragraph) {
        m_xml.startElement(QLatin1StringView("p"));
        if (paragraph.bookmark()) {
            m_xml.startElement(QLatin1StringView("bookmark"));
            m_xml.endElement();
        }
        const QList<HXTextTagRef> &groupings = paragraph.groupings();
        const qsizetype prefix = groupings.size() + (paragraph.tag() ? 1 : 0);
        const QList<HXTextAtomRef> atoms =
            prefix > 0 ? paragraph.prefixAtoms() : QList<HXTextAtomRef>();
        if (prefix > 0 && atoms.size() == prefix) {
            m_xml.startElement(QLatin1StringView("tags"));
            for (qsizetype i = 0; i < prefix; ++i) {
                const HXTextTagRef &tag = i < groupings.size() ? groupings.at(i) : paragraph.tag();
                m_xml.startElement(QLatin1StringView("tag"));
                if (tag)
                    m_xml.writeAttribute(QLatin1StringView("kind"),
                                         tag->definition()->identifier());
                m_xml.writeText(atoms.at(i)->stringRepresentation());
                m_xml.endElement();
            }
            m_xml.endElement();
        }
        chunks(paragraph);
        m_xml.endElement();
    }

    HXXMLWriter &m_xml;
    HXXMLReaderContext *m_context;
    HXError m_failure;
};

// --- Reading --------------------------------------------------------------------------------

HXError failure(const QString &reason) {
    return HXXMLReader::errorWithFailureReason(reason);
}

// Text of a paragraph, an element, a tag or an escape: line feeds there are layout, since a
// paragraph's own line feed is not stored, and carriage returns are line ends of another system.
QString textWithoutLineEnds(QString text) {
    text.remove(QLatin1Char('\n'));
    text.remove(QLatin1Char('\r'));
    return text;
}

// Collects the text of an element: an escape, or a tag of a paragraph's prefix.
class TextCollector : public HXXMLReading {
public:
    QString text;
    QString kind;
    bool readerWillStartElement(const QString &, const HXXMLAttributes &attributes,
                                HXError *) override {
        kind = attributes.value(QStringLiteral("kind"));
        return true;
    }
    bool readerScannedString(const QString &string, HXError *) override {
        text += textWithoutLineEnds(string);
        return true;
    }
};

// A step on a string being read: a locked string is locked for each step, as nothing else knows
// it yet.
template<typename Step>
void underItsLock(HXMutableString &string, Step step) {
    if (const auto context = string.lockingContext().lock())
        context->write(step);
    else
        step();
}

class ElementReader;

class StringReader;

// One attribute of an element: its identifier comes in its start tag, a string or URL as its
// text, the text of a footnote as a nested `string` element.
class AttributeCollector : public TextCollector {
public:
    // In a string an attribute that can't take its value is a fault of the file, raised; in a
    // standalone set it is an error of its own.
    AttributeCollector(HXAttributeDictionaryRef attributes, std::shared_ptr<HXMarkup> markup,
                       bool standalone = false)
        : m_attributes(std::move(attributes))
        , m_markup(std::move(markup))
        , m_standalone(standalone) {}
    bool readerWillStartElement(const QString &, const HXXMLAttributes &attributes,
                                HXError *) override {
        kind = attributes.value(QStringLiteral("identifier"));
        return true;
    }
    // A title may hold line feeds of its own.
    bool readerScannedString(const QString &string, HXError *) override {
        text += HXStringByNormalizingLineEnds(string);
        return true;
    }
    std::shared_ptr<HXXMLReading>
    readerDidFindChildElement(const QString &name, HXXMLReaderContext *, HXError *error) override;
    bool readerWillEndElement(HXXMLReaderContext *context, HXError *error) override {
        if (m_nested)
            return true;
        if (m_attributes->attributeForKey(kind)->isFile()) {
            // A file the context can't read is left out.
            const auto file = context ? context->readFileWrapper(text.trimmed()) : nullptr;
            if (file && m_attributes->canSetFileWrapper(file, kind))
                m_attributes->setFileWrapperForKey(file, kind);
            else if (file || (m_standalone && !context)) {
                *error = failure(QStringLiteral("Invalid attribute value %1").arg(text));
                return false;
            }
            return true;
        }
        if (m_standalone && !m_attributes->canSetObject(text, kind)) {
            *error = failure(QStringLiteral("Invalid attribute value %1").arg(text));
            return false;
        }
        m_attributes->setObject(text, kind);
        return true;
    }

private:
    HXAttributeDictionaryRef m_attributes;
    std::shared_ptr<HXMarkup> m_markup;
    bool m_standalone;
    bool m_nested = false;
};

// A paragraph's bookmark: an empty element.
class BookmarkReader : public HXXMLReading {};

// What paragraphs and elements share: text, elements and escapes among their chunks.
class ChunkReader : public HXXMLReading {
public:
    explicit ChunkReader(std::shared_ptr<HXMarkup> markup)
        : m_markup(std::move(markup)) {}

    bool readerScannedString(const QString &string, HXError *) override {
        const QString text = textWithoutLineEnds(string);
        if (!text.isEmpty())
            target().appendChunk(HXChunk(text));
        return true;
    }

protected:
    virtual HXChunkString &target() = 0;
    std::shared_ptr<HXXMLReading> chunkChild(const QString &name, HXError *error);
    bool endChunkChild(const std::shared_ptr<HXXMLReading> &child);

    std::shared_ptr<HXMarkup> m_markup;
};

class ElementReader : public ChunkReader {
public:
    using ChunkReader::ChunkReader;
    HXRef<HXTextElement> element = HXRef<HXTextElement>::make();

    bool readerWillStartElement(const QString &, const HXXMLAttributes &attributes,
                                HXError *error) override {
        const QString kind = attributes.value(QStringLiteral("kind"));
        if (kind.isEmpty()) {
            *error = failure(QStringLiteral("Element %1 has no 'kind' attribute")
                                 .arg(QStringLiteral("element")));
            return false;
        }
        const QString startTag = attributes.value(QStringLiteral("startTag"));
        const HXTextTagRef tag = m_markup ? m_markup->tagWithIdentifier(kind, startTag) : nullptr;
        const HXDefinitionRef definition =
            tag ? tag->definition() : HXDefinition::definitionWithIdentifier(kind);
        if (!definition || (!tag && definition->scope() != HXAttributedTextScope &&
                            definition->scope() != HXObjectScope)) {
            *error = failure(QStringLiteral("Invalid kind for element: %1").arg(kind));
            return false;
        }
        const QString closed = attributes.value(QStringLiteral("closed"));
        element->initWithStoredForm(
            tag, definition, m_markup, closed.isNull() || closed == u"yes" || closed == u"true",
            attributes.contains(QStringLiteral("startTag")) ? startTag : QString(),
            attributes.value(QStringLiteral("endTag")));
        return true;
    }
    std::shared_ptr<HXXMLReading>
    readerDidFindChildElement(const QString &name, HXXMLReaderContext *, HXError *error) override {
        if (name == u"attribute") {
            if (!element->attributes())
                return nullptr; // an element without attributes skips them
            return std::make_shared<AttributeCollector>(element->attributes(), m_markup);
        }
        if (element->isObject()) {
            *error = objectContentError();
            return nullptr;
        }
        return chunkChild(name, error);
    }
    // An object has no inner text; white space between its attributes is layout.
    bool readerScannedString(const QString &string, HXError *error) override {
        if (!element->isObject())
            return ChunkReader::readerScannedString(string, error);
        if (string.trimmed().isEmpty())
            return true;
        *error = objectContentError();
        return false;
    }
    bool readerDidEndChildElement(const std::shared_ptr<HXXMLReading> &child, HXXMLReaderContext *,
                                  HXError *) override {
        return endChunkChild(child);
    }

protected:
    HXChunkString &target() override { return *element; }

private:
    HXError objectContentError() const {
        return failure(QStringLiteral("Element of kind \"%1\" is an object and can't hold text "
                                      "or elements")
                           .arg(element->definition()->identifier()));
    }
};

std::shared_ptr<HXXMLReading> ChunkReader::chunkChild(const QString &name, HXError *error) {
    if (name == u"element")
        return std::make_shared<ElementReader>(m_markup);
    if (name == u"escape")
        return std::make_shared<TextCollector>();
    *error = failure(QStringLiteral("Unexpected element \"%1\"").arg(name));
    return nullptr;
}

bool ChunkReader::endChunkChild(const std::shared_ptr<HXXMLReading> &child) {
    if (const auto element = std::dynamic_pointer_cast<ElementReader>(child)) {
        target().appendChunk(HXChunk(element->element));
        return true;
    }
    if (std::dynamic_pointer_cast<AttributeCollector>(child))
        return true;
    if (const auto escape = std::dynamic_pointer_cast<TextCollector>(child)) {
        target().appendChunk(HXChunk(HXRef<HXEscapeAtom>::make(escape->text)));
        return true;
    }
    return true;
}

class ParagraphReader : public ChunkReader {
public:
    ParagraphReader(std::shared_ptr<HXMarkup> markup, HXDefinitionSelector definitions)
        : ChunkReader(markup)
        , paragraph(HXParagraph::paragraphWithString(QString(), markup, definitions)) {}

    HXParagraphRef paragraph;

    std::shared_ptr<HXXMLReading>
    readerDidFindChildElement(const QString &name, HXXMLReaderContext *, HXError *error) override {
        if (name == u"bookmark")
            return std::make_shared<BookmarkReader>();
        if (name == u"tags") {
            m_tags = std::make_shared<TagsReader>(m_markup);
            return m_tags;
        }
        return chunkChild(name, error);
    }
    bool readerDidEndChildElement(const std::shared_ptr<HXXMLReading> &child, HXXMLReaderContext *,
                                  HXError *error) override {
        if (child == m_tags) {
            if (!m_tags->failure.isNull()) {
                *error = m_tags->failure;
                return false;
            }
            paragraph->setGroupings(m_tags->groupings, m_tags->tag, m_tags->strings);
            return true;
        }
        if (std::dynamic_pointer_cast<BookmarkReader>(child)) {
            paragraph->setBookmark(HXBookmark::bookmark());
            return true;
        }
        return endChunkChild(child);
    }

protected:
    HXChunkString &target() override { return *paragraph; }

private:
    // The prefix of a paragraph: one `tag` for each grouping and the paragraph's tag.
    class TagsReader : public HXXMLReading {
    public:
        explicit TagsReader(std::shared_ptr<HXMarkup> markup)
            : m_markup(std::move(markup)) {}
        QList<HXTextTagRef> groupings;
        HXTextTagRef tag;
        QStringList strings;
        HXError failure;

        std::shared_ptr<HXXMLReading> readerDidFindChildElement(const QString &name,
                                                                HXXMLReaderContext *,
                                                                HXError *error) override {
            if (name != u"tag") {
                *error = ::failure(QStringLiteral("Unexpected element \"%1\"").arg(name));
                return nullptr;
            }
            return std::make_shared<TextCollector>();
        }
        bool readerDidEndChildElement(const std::shared_ptr<HXXMLReading> &child,
                                      HXXMLReaderContext *, HXError *error) override {
            const auto &entry = static_cast<const TextCollector &>(*child);
            if (entry.text.isEmpty()) {
                *error = ::failure(QStringLiteral("Empty tag for paragraph!"));
                return false;
            }
            HXTextTagRef found;
            if (!entry.kind.isEmpty()) {
                found = m_markup ? m_markup->tagWithIdentifier(entry.kind, entry.text.trimmed())
                                 : nullptr;
                if (!found) {
                    *error = ::failure(
                        QStringLiteral("Invalid kind \"%1\" for paragaph").arg(entry.kind));
                    return false;
                }
            }
            if (found && found->definition()->groupingType() == HXGroupingNone) {
                if (tag) {
                    *error = ::failure(QStringLiteral("Two tags defined on paragraph!"));
                    return false;
                }
                tag = found;
            } else {
                groupings.append(found);
            }
            strings.append(entry.text);
            return true;
        }

    private:
        std::shared_ptr<HXMarkup> m_markup;
    };

    std::shared_ptr<TagsReader> m_tags;
};

class StringReader : public HXXMLReading {
public:
    StringReader(std::shared_ptr<HXMutableString> string, std::shared_ptr<HXMarkup> markup,
                 HXDefinitionSelector definitions)
        : m_string(std::move(string))
        , m_markup(std::move(markup))
        , m_definitions(definitions) {}

    bool readerWillStartElement(const QString &name, const HXXMLAttributes &,
                                HXError *error) override {
        if (name != u"string") {
            *error = failure(QStringLiteral("Unexpected element \"%1\"").arg(name));
            return false;
        }
        return true;
    }
    std::shared_ptr<HXXMLReading>
    readerDidFindChildElement(const QString &name, HXXMLReaderContext *, HXError *error) override {
        if (name != u"p") {
            *error = failure(QStringLiteral("Unexpected element \"%1\"").arg(name));
            return nullptr;
        }
        return std::make_shared<ParagraphReader>(m_markup, m_definitions);
    }
    // A paragraph is held back until the next one comes: only then is its line feed known.
    bool readerDidEndChildElement(const std::shared_ptr<HXXMLReading> &child, HXXMLReaderContext *,
                                  HXError *) override {
        if (m_heldBack) {
            m_heldBack->appendChunk(HXChunk(QStringLiteral("\n")));
            append(m_heldBack);
        }
        m_heldBack = static_cast<ParagraphReader &>(*child).paragraph;
        return true;
    }
    bool readerWillEndElement(HXXMLReaderContext *, HXError *) override {
        if (m_heldBack && m_heldBack->length() > 0)
            append(m_heldBack);
        m_heldBack = nullptr;
        // The paragraphs go in together, in one step under the lock.
        locked([&] {
            if (m_string->length() == 0) {
                m_string->setAllChunks(m_paragraphs.data(), m_paragraphs.size(), false, false);
            } else {
                for (const HXChunk &paragraph : m_paragraphs)
                    m_string->appendChunk(paragraph);
            }
        });
        m_paragraphs.clear();
        return true;
    }

private:
    template<typename Step>
    void locked(Step step) {
        underItsLock(*m_string, step);
    }
    void append(const HXParagraphRef &paragraph) {
        // Parsed anew: the stored tags and elements are taken up where the text still has them.
        locked([&] { HXTextParser::reparseParagraph(*paragraph); });
        m_paragraphs.emplace_back(paragraph);
    }

    std::shared_ptr<HXMutableString> m_string;
    std::shared_ptr<HXMarkup> m_markup;
    HXDefinitionSelector m_definitions;
    HXParagraphRef m_heldBack;
    std::vector<HXChunk> m_paragraphs;
};

std::shared_ptr<HXXMLReading> AttributeCollector::readerDidFindChildElement(const QString &name,
                                                                            HXXMLReaderContext *,
                                                                            HXError *error) {
    const HXTagAttributeRef attribute = m_attributes->attributeForKey(kind);
    if (name != u"string" || attribute->kind() != HXTagAttributeKindNestedString) {
        *error = failure(QStringLiteral("Unexpected string: %1").arg(name));
        return nullptr;
    }
    m_nested = true;
    return std::make_shared<StringReader>(m_attributes->nestedStringForKey(kind), m_markup,
                                          HXNestedStringDefinitionSelector);
}

// A standalone set of attributes: its root names the definition they belong to.
class AttributesReader : public HXXMLReading {
public:
    explicit AttributesReader(std::shared_ptr<HXMarkup> markup)
        : m_markup(std::move(markup)) {}
    HXAttributeDictionaryRef attributes;

    bool readerWillStartElement(const QString &name, const HXXMLAttributes &xmlAttributes,
                                HXError *error) override {
        const QString kind = xmlAttributes.value(QStringLiteral("kind"));
        const HXTextTagRef tag = m_markup ? m_markup->tagWithIdentifier(kind) : nullptr;
        const HXDefinitionRef definition =
            tag ? tag->definition() : HXDefinition::definitionWithIdentifier(kind);
        if (name != u"attributes" || !definition) {
            *error = failure(QStringLiteral("No definition found"));
            return false;
        }
        attributes = std::make_shared<HXAttributeDictionary>(definition, m_markup);
        return true;
    }
    std::shared_ptr<HXXMLReading>
    readerDidFindChildElement(const QString &name, HXXMLReaderContext *, HXError *error) override {
        if (name != u"attribute") {
            *error = failure(QStringLiteral("Unexpected string: %1").arg(name));
            return nullptr;
        }
        return std::make_shared<AttributeCollector>(attributes, m_markup, true);
    }

private:
    std::shared_ptr<HXMarkup> m_markup;
};


// A string read straight from plain XML: the objects the readers above make, made with fewer
// steps. What it doesn't take as the common case (attributes of elements, objects, a bookmark or
// tags after text, and every fault the readers name) stops it, and the readers above read the
// document instead, so that either way the string and the errors are the same.
// Parses read paragraphs anew in batches. Once a text proves large, its batches go to a second
// thread, which parses them while the rest of the document is read; each paragraph is touched by
// one thread at a time, handed over with its batch. What the parse raises is raised again by
// finish(). Paragraphs keep their order, which the caller holds apart.
class ParagraphParser {
public:
    explicit ParagraphParser(HXMutableString &string)
        : m_string(string) {}
    ~ParagraphParser() { stop(); }
    ParagraphParser(const ParagraphParser &) = delete;
    ParagraphParser &operator=(const ParagraphParser &) = delete;

    void add(HXParagraphRef paragraph) {
        m_batch.push_back(std::move(paragraph));
        if (m_batch.size() < batchSize)
            return;
        if (!m_worker.joinable() && std::thread::hardware_concurrency() > 1)
            m_worker = std::thread([this] { work(); });
        if (!m_worker.joinable()) {
            parse(m_batch);
            m_batch.clear();
            return;
        }
        std::lock_guard lock(m_mutex);
        m_queue.push_back(std::move(m_batch));
        m_batch.clear();
        m_changed.notify_one();
    }

    // Parses the last batch here, waits for the other thread to end its work and raises what
    // failed there.
    void finish() {
        parse(m_batch);
        m_batch.clear();
        if (m_worker.joinable()) {
            {
                std::lock_guard lock(m_mutex);
                m_finishing = true;
                m_changed.notify_one();
            }
            m_worker.join();
        }
        if (m_failure)
            std::rethrow_exception(std::exchange(m_failure, nullptr));
    }

private:
    static constexpr size_t batchSize = 512;

    void parse(const std::vector<HXParagraphRef> &batch) {
        if (batch.empty())
            return;
        // Parsed anew: the stored tags and elements are taken up where the text still has them.
        underItsLock(m_string, [&] {
            for (const HXParagraphRef &paragraph : batch)
                HXTextParser::reparseParagraph(*paragraph);
        });
    }

    void work() {
        for (;;) {
            std::vector<HXParagraphRef> batch;
            {
                std::unique_lock lock(m_mutex);
                m_changed.wait(lock, [&] { return !m_queue.empty() || m_finishing; });
                if (m_queue.empty() || m_failure)
                    return;
                batch = std::move(m_queue.front());
                m_queue.pop_front();
            }
            try {
                parse(batch);
            } catch (...) {
                std::lock_guard lock(m_mutex);
                m_failure = std::current_exception();
            }
        }
    }

    // Ends the other thread without waiting for its queue, as when the document is given up.
    void stop() {
        if (!m_worker.joinable())
            return;
        {
            std::lock_guard lock(m_mutex);
            m_queue.clear();
            m_finishing = true;
            m_changed.notify_one();
        }
        m_worker.join();
    }

    HXMutableString &m_string;
    std::vector<HXParagraphRef> m_batch;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<std::vector<HXParagraphRef>> m_queue;
    bool m_finishing = false;
    std::exception_ptr m_failure;
    std::thread m_worker;
};

class PlainStringBuilder {
public:
    PlainStringBuilder(std::shared_ptr<HXMutableString> string, std::shared_ptr<HXMarkup> markup,
                       HXDefinitionSelector definitions)
        : m_string(std::move(string))
        , m_markup(std::move(markup))
        , m_definitions(definitions)
        , m_parser(*m_string) {}

    bool startElement(QStringView name,
                      const std::vector<HXPlainXMLScanner::Attribute> &attributes) {
        const Level level = m_open.empty() ? Level::Document : m_open.back().level;
        switch (level) {
        case Level::Document:
            return name == u"string" && push(Level::String);
        case Level::String:
            if (name != u"p" || !push(Level::Paragraph))
                return false;
            m_open.back().paragraph =
                HXParagraph::paragraphWithString(QString(), m_markup, m_definitions);
            return true;
        case Level::Paragraph:
            if (name == u"bookmark" || name == u"tags") {
                // As written: a bookmark, then the tags, then the text; anything else is left
                // to the readers above.
                Node &paragraph = m_open.back();
                const bool tags = name == u"tags";
                if (paragraph.hasContent || paragraph.hasTags || (!tags && paragraph.hasBookmark))
                    return false;
                (tags ? paragraph.hasTags : paragraph.hasBookmark) = true;
                return push(tags ? Level::Tags : Level::Bookmark);
            }
            [[fallthrough]];
        case Level::Element:
            if (name == u"escape")
                return push(Level::Escape);
            return name == u"element" && startTextElement(attributes);
        case Level::Tags:
            if (name != u"tag" || !push(Level::Tag))
                return false;
            m_open.back().kind = value(attributes, u"kind");
            return true;
        default:
            return false;
        }
    }

    bool text(QStringView raw, bool hasReferences) {
        Node &node = m_open.back();
        switch (node.level) {
        case Level::Paragraph:
        case Level::Element:
        case Level::Tag:
        case Level::Escape: {
            const qsizetype before = node.text.size();
            if (hasReferences || raw.contains(u'\n'))
                node.text += textWithoutLineEnds(HXPlainXMLScanner::resolved(raw, hasReferences));
            else
                node.text += raw;
            node.hasContent = node.hasContent || node.text.size() > before;
            return true;
        }
        default:
            return true;
        }
    }

    bool endElement() {
        Node node = std::move(m_open.back());
        m_open.pop_back();
        switch (node.level) {
        case Level::String:
            finishString();
            return true;
        case Level::Paragraph:
            // Held back until the next one comes: only then is its line feed known.
            if (m_heldBack.paragraph)
                finishParagraph(m_heldBack, true);
            std::swap(m_heldBack, node);
            return true;
        case Level::Bookmark:
            m_open.back().paragraph->setBookmark(HXBookmark::bookmark());
            return true;
        case Level::Tags:
            // The parse that follows finds the prefix again in the characters, which is all it
            // looks at: the texts of the tags go in as text.
            m_open.back().text = node.strings.join(QString());
            return true;
        case Level::Tag:
            return endTag(node);
        case Level::Element: {
            flushText(node);
            auto element = HXRef<HXTextElement>::make();
            element->initWithStoredForm(node.tag, node.definition, m_markup, node.closed,
                                        node.startTag, node.endTag, std::move(node.chunks));
            addChunk(HXChunk(element));
            return true;
        }
        case Level::Escape:
            addChunk(HXChunk(HXRef<HXEscapeAtom>::make(node.text)));
            return true;
        default:
            return false;
        }
    }

private:
    enum class Level { Document, String, Paragraph, Bookmark, Tags, Tag, Element, Escape };
    // An open element of the document, with what it gathers.
    struct Node {
        Level level = Level::Document;
        HXParagraphRef paragraph;
        std::vector<HXChunk> chunks;
        QString text; // not yet a chunk
        bool hasContent = false;
        bool hasBookmark = false;
        bool hasTags = false;
        // A paragraph's prefix, or a tag of it.
        QString kind;
        QList<HXTextTagRef> groupings;
        HXTextTagRef tag;
        QStringList strings;
        // An element as stored, made when its chunks are known.
        HXDefinitionRef definition;
        bool closed = false;
        QString startTag;
        QString endTag;
    };
    // A tag found for a kind and the text it was given, remembered: a document has few.
    struct KnownTag {
        QString kind;
        QString text;
        HXTextTagRef tag;
        HXDefinitionRef definition;
    };

    bool push(Level level) {
        if (!m_open.empty())
            m_open.back().hasContent = m_open.back().hasContent || level == Level::Element ||
                                       level == Level::Escape;
        m_open.push_back(Node{});
        m_open.back().level = level;
        return true;
    }

    static QString value(const std::vector<HXPlainXMLScanner::Attribute> &attributes,
                         QStringView name) {
        for (const HXPlainXMLScanner::Attribute &attribute : attributes) {
            if (attribute.name == name)
                return HXPlainXMLScanner::resolved(attribute.value, attribute.hasReferences);
        }
        return QString();
    }

    const KnownTag &knownTag(const QString &kind, const QString &text) {
        for (const KnownTag &known : m_knownTags) {
            if (known.kind == kind && known.text == text && known.text.isNull() == text.isNull())
                return known;
        }
        const HXTextTagRef tag = m_markup ? m_markup->tagWithIdentifier(kind, text) : nullptr;
        KnownTag known{kind, text, tag,
                       tag ? tag->definition() : HXDefinition::definitionWithIdentifier(kind)};
        if (m_knownTags.size() >= 64)
            m_knownTags.clear();
        m_knownTags.push_back(std::move(known));
        return m_knownTags.back();
    }

    // As the element reader starts an element; objects are left to it.
    bool startTextElement(const std::vector<HXPlainXMLScanner::Attribute> &attributes) {
        const QString kind = value(attributes, u"kind");
        if (kind.isEmpty())
            return false;
        const QString startTag = value(attributes, u"startTag");
        const KnownTag &known = knownTag(kind, startTag);
        if (!known.definition ||
            (!known.tag && known.definition->scope() != HXAttributedTextScope &&
             known.definition->scope() != HXObjectScope))
            return false;
        if (known.definition->scope() == HXObjectScope)
            return false;
        const QString closed = value(attributes, u"closed");
        push(Level::Element);
        Node &element = m_open.back();
        element.tag = known.tag;
        element.definition = known.definition;
        element.closed = closed.isNull() || closed == u"yes" || closed == u"true";
        element.startTag = startTag;
        element.endTag = value(attributes, u"endTag");
        return true;
    }

    // As the prefix reader takes a tag.
    bool endTag(const Node &entry) {
        Node &tags = m_open.back();
        if (entry.text.isEmpty())
            return false;
        HXTextTagRef found;
        if (!entry.kind.isEmpty()) {
            found = knownTag(entry.kind, entry.text.trimmed()).tag;
            if (!found)
                return false;
        }
        if (found && found->definition()->groupingType() == HXGroupingNone) {
            if (tags.tag)
                return false;
            tags.tag = found;
        } else {
            tags.groupings.append(found);
        }
        tags.strings.append(entry.text);
        return true;
    }

    // The text gathered becomes a chunk, with a line feed behind it where one is asked for.
    static void flushText(Node &node, bool lineFeed = false) {
        const qsizetype size = node.text.size() + (lineFeed ? 1 : 0);
        if (size == 0)
            return;
        HXTextBuffer *buffer = HXTextBuffer::makeUninitialized(quint32(size));
        char16_t *units = buffer->mutableUnits();
        std::copy_n(node.text.utf16(), node.text.size(), units);
        if (lineFeed)
            units[size - 1] = u'\n';
        node.chunks.emplace_back(buffer, 0, quint32(size));
        node.text.clear();
    }
    // A chunk for the paragraph or element that is open; empty ones are left out.
    void addChunk(HXChunk chunk) {
        if (chunk.length() == 0)
            return;
        Node &parent = m_open.back();
        flushText(parent);
        parent.chunks.push_back(std::move(chunk));
    }

    template<typename Step>
    void locked(Step step) {
        underItsLock(*m_string, step);
    }

    void finishParagraph(Node &node, bool lineFeed = false) {
        flushText(node, lineFeed);
        HXParagraph &paragraph = *node.paragraph;
        paragraph.takeInnerChunks(std::move(node.chunks));
        if (paragraph.length() > 0) {
            m_paragraphs.push_back(node.paragraph);
            m_parser.add(std::move(node.paragraph));
        }
        node = Node{};
    }

    void finishString() {
        if (m_heldBack.paragraph)
            finishParagraph(m_heldBack);
        m_parser.finish();
        // The chunks are made now that the paragraphs have their lengths.
        std::vector<HXChunk> chunks(m_paragraphs.begin(), m_paragraphs.end());
        m_paragraphs.clear();
        locked([&] { m_string->setAllChunks(chunks.data(), chunks.size(), false, false); });
    }

    std::shared_ptr<HXMutableString> m_string;
    std::shared_ptr<HXMarkup> m_markup;
    HXDefinitionSelector m_definitions;
    std::vector<Node> m_open;
    Node m_heldBack;
    std::vector<HXParagraphRef> m_paragraphs;
    std::vector<KnownTag> m_knownTags;
    ParagraphParser m_parser;
};

} // namespace

bool HXStringXML::writeAttributes(const HXAttributeDictionary &attributes, HXXMLWriter &writer,
                                  HXXMLReaderContext *context, HXError *error) {
    Writer strings(writer, context);
    strings.attributes(attributes);
    HXSetError(error, strings.failure());
    return strings.failure().isNull();
}

QByteArray HXStringXML::attributesPasteboardPropertyList(const HXAttributeDictionary &attributes,
                                                         const QString &type, HXError *error) {
    HX_ASSERT(type == attributesPasteboardType, u"Invalid pasteboard type passed");
    HXXMLWriter writer;
    writer.writeDeclaration();
    writer.startElement(QLatin1StringView("attributes"));
    writer.writeAttribute(QLatin1StringView("kind"), attributes.definition()->identifier());
    if (!writeAttributes(attributes, writer, nullptr, error))
        return QByteArray();
    writer.endElement();
    writer.writeText(u"\n");
    return writer.takeBytes();
}

HXAttributeDictionaryRef
HXStringXML::attributesWithPasteboardPropertyList(const QByteArray &data, const QString &type,
                                                  const std::shared_ptr<HXMarkup> &markup,
                                                  HXError *error) {
    HX_ASSERT(type == attributesPasteboardType, u"Invalid pasteboard type passed");
    AttributesReader reader(markup);
    if (!HXXMLReader::readFromData(data, reader, error))
        return nullptr;
    return reader.attributes;
}

bool HXStringXML::writeXML(const HXString &string, HXXMLWriter &writer, HXXMLReaderContext *context,
                           HXError *error) {
    Writer strings(writer, context);
    strings.string(string);
    HXSetError(error, strings.failure());
    return strings.failure().isNull();
}

QByteArray HXStringXML::XMLData(const HXString &string, HXXMLReaderContext *context,
                                HXError *error) {
    HXXMLWriter writer;
    writer.reserve(qsizetype(string.length() * 2));
    writer.writeDeclaration();
    if (!writeXML(string, writer, context, error))
        return QByteArray();
    writer.writeText(u"\n");
    return writer.takeBytes();
}

std::shared_ptr<HXMutableString>
HXStringXML::stringWithXMLData(const QByteArray &data, const std::shared_ptr<HXMarkup> &markup,
                               HXDefinitionSelector recognizedDefinitions, HXError *error,
                               HXXMLReaderContext *context) {
    // Plain XML of the common kind is built straight away, in one pass: what the builder made of
    // a document that turns out not to be for it is dropped, and the readers take it.
    {
        const QString text = HXXMLStringByRemovingForbiddenCharacters(QString::fromUtf8(data));
        auto string = HXMutableString::stringWithMarkup(markup, recognizedDefinitions);
        PlainStringBuilder builder(string, markup, recognizedDefinitions);
        if (HXPlainXMLScanner(text).scan(builder))
            return string;
    }
    auto string = HXMutableString::stringWithMarkup(markup, recognizedDefinitions);
    StringReader reader(string, markup, recognizedDefinitions);
    HXXMLReaderContext noFiles;
    if (!HXXMLReader::readFromData(data, reader, context ? context : &noFiles, error))
        return nullptr;
    return string;
}

std::shared_ptr<HXXMLReading>
HXStringXML::readerForString(const std::shared_ptr<HXMutableString> &string) {
    return std::make_shared<StringReader>(string, string->markup(),
                                          string->recognizedDefinitions());
}

QByteArray HXStringXML::pasteboardPropertyListForType(const HXString &string, const QString &type,
                                                      HXError *error) {
    HX_ASSERT(type == pasteboardType, u"Invalid pasteboard type passed");
    return XMLData(string, nullptr, error);
}

std::shared_ptr<HXMutableString>
HXStringXML::stringWithPasteboardPropertyList(const QByteArray &data, const QString &type,
                                              const std::shared_ptr<HXMarkup> &markup,
                                              HXError *error) {
    HX_ASSERT(type == pasteboardType, u"Invalid pasteboard type passed");
    return stringWithXMLData(data, markup, HXDefaultDefinitionSelector, error);
}
