#include "Model/Sheets/HXNativeSheet.h"

#include "Model/Attachments/HXCountingGoal.h"
#include "Model/Attachments/HXFileAttachment.h"
#include "Model/Attachments/HXKeywordsAttachment.h"
#include "Model/Attachments/HXNativeSheetAttachment.h"
#include "Model/Attachments/HXNoteAttachment.h"
#include "Model/Sheets/HXContext.h"
#include "Model/Stores/HXMarkupStore.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Text/String/Access/HXStringSnapshot.h"
#include "Text/String/Access/HXStringXML.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXDispatchQueue.h"
#include "Utilities/HXFileCoordinator.h"
#include "Utilities/HXFileSystem.h"
#include "Utilities/HXLocalizedString.h"
#include "Utilities/HXUndoManager.h"
#include "Utilities/HXXMLElement.h"
#include "Utilities/HXXMLReader.h"
#include "Utilities/HXXMLWriter.h"

#include <QFile>
#include <QFileInfo>

#include <mutex>

namespace {

HXError readFailure(const QString &reason) {
    return HXXMLReader::errorWithFailureReason(reason);
}

} // namespace

// --- Making -----------------------------------------------------------------------------------

std::shared_ptr<HXNativeSheet> HXNativeSheet::sheetWithMarkup(std::shared_ptr<HXMarkup> markup) {
    std::shared_ptr<HXNativeSheet> sheet(new HXNativeSheet);
    sheet->setUp(std::move(markup));
    return sheet;
}

std::shared_ptr<HXNativeSheet> HXNativeSheet::sheetWithURL(const QString &url, bool readOnly) {
    auto sheet = sheetWithMarkup();
    sheet->setReadOnly(readOnly);
    sheet->setFileURL(QFileInfo(url).absoluteFilePath());
    return sheet;
}

void HXNativeSheet::registerPackagePathExtension() {
    // A change anywhere inside a package is a change of the sheet.
    static const bool registered = [] {
        HXFileCoordinator::addPackagePathExtensions({pathExtension});
        return true;
    }();
    Q_UNUSED(registered);
}

void HXNativeSheet::setUp(std::shared_ptr<HXMarkup> markup) {
    registerPackagePathExtension();
    const auto store = HXMarkupStore::globalStore();
    m_markup = markup ? std::move(markup) : store->defaultIntrinsicMarkup();
    m_text = HXAtomicString::stringWithMarkup(m_markup);
    const auto undo = std::make_shared<HXUndoManager>();
    m_text->setUndoManager(undo);
    setUndoManager(undo);
    m_text->addStringObserver(std::shared_ptr<HXStringObserver>(
        shared_from_this(), static_cast<HXStringObserver *>(this)));
    const std::weak_ptr<HXDocument> weak = weak_from_this();
    m_markupsConnection =
        QObject::connect(store.get(), &HXMarkupStore::availableMarkupsChanged, [weak] {
            if (const auto self = std::static_pointer_cast<HXNativeSheet>(weak.lock()))
                self->noteMarkupsChanged();
        });
}

HXNativeSheet::~HXNativeSheet() {
    QObject::disconnect(m_markupsConnection);
}

std::shared_ptr<HXMarkup> HXNativeSheet::markup() const {
    const std::lock_guard lock(m_mutex);
    return m_markup;
}

void HXNativeSheet::loadNoteAttachments(const NoteList &notes) {
    // A note always follows the sheet's markup.
    const auto sheetMarkup = markup();
    for (const auto &note : notes)
        note->setMarkup(sheetMarkup);
    HXSheet::loadNoteAttachments(notes);
}

void HXNativeSheet::breakUndoCoalescing() {
    m_text->breakUndoCoalescing();
}

// --- Markup -------------------------------------------------------------------------------------

void HXNativeSheet::setMarkup(const std::shared_ptr<HXMarkup> &newMarkup) {
    if (newMarkup == markup())
        return;
    registerUndoOfMarkupAndText();
    if (const auto undo = undoManager())
        undo->setActionName(
            HXLocalizedString(QStringLiteral("ConvertMarkup"), QStringLiteral("HXNativeSheet")));
    convertToMarkup(newMarkup);
}

void HXNativeSheet::registerUndoOfMarkupAndText() {
    const auto undo = undoManager();
    if (!undo)
        return;
    const std::weak_ptr<HXDocument> weak = weak_from_this();
    undo->registerUndo([weak, old = markup(), oldText = m_text->copy()] {
        if (const auto self = std::static_pointer_cast<HXNativeSheet>(weak.lock()))
            self->setMarkupAndText(old, oldText);
    });
}

void HXNativeSheet::setMarkupAndText(const std::shared_ptr<HXMarkup> &newMarkup,
                                     const std::shared_ptr<HXString> &text) {
    registerUndoOfMarkupAndText();
    const auto undo = m_text->undoManager();
    m_text->setUndoManager(nullptr);
    m_text->setToString(*text);
    m_text->setUndoManager(undo);
    {
        const std::lock_guard lock(m_mutex);
        m_markup = newMarkup;
    }
    for (const auto &note : noteAttachments())
        note->setMarkup(newMarkup);
}

void HXNativeSheet::convertToMarkup(const std::shared_ptr<HXMarkup> &newMarkup) {
    // The conversion is one step, registered above; the string records none of its own.
    const auto undo = m_text->undoManager();
    m_text->setUndoManager(nullptr);
    m_text->setMarkup(newMarkup);
    m_text->setUndoManager(undo);
    {
        const std::lock_guard lock(m_mutex);
        m_markup = newMarkup;
    }
    for (const auto &note : noteAttachments())
        note->setMarkup(newMarkup);
}

void HXNativeSheet::noteMarkupsChanged() {
    const auto present = markup();
    const auto store = HXMarkupStore::globalStore();
    const auto available = store->availableMarkups();
    if (!present || available.contains(present))
        return;
    // The store's object for the same markup: nothing of the text changes.
    if (const auto equal = store->markupEqualToMarkup(*present))
        convertToMarkup(equal);
}

// --- The text's observer --------------------------------------------------------------------

void HXNativeSheet::stringChangedCharactersInRange(HXString &, HXRange, const HXReplacement &,
                                                   HXRange, HXRange, HXRange) {
    if (!m_reading)
        updateChangeDate();
}

void HXNativeSheet::stringWillChangeAttributesOfElementAtIndex(HXString &, quint64) {
    if (!m_reading)
        updateChangeDate();
}

void HXNativeSheet::stringWillChangeAttributesOfParagraphAtIndex(HXString &, quint64) {
    if (!m_reading)
        updateChangeCount(ChangeDiscardable);
}

// --- Reading ----------------------------------------------------------------------------------

bool HXNativeSheet::readFromURL(const QString &url, HXError *error) {
    HXSheetContext context;
    const QString media = url + u'/' + mediaFilename;
    if (HXFileIdentity::ofPath(media).exists) {
        HXError failure;
        const HXFileWrapperRef folder = HXFileWrapper::fileWrapperWithPath(media, &failure);
        if (!folder || !folder->isDirectory()) {
            HXSetError(
                error,
                readFailure(QStringLiteral("Unable to read context at URL \"%1\".").arg(media)));
            return false;
        }
        context = HXSheetContext(*folder);
    }
    const QString contentPath = url + u'/' + contentFilename;
    QFile file(contentPath);
    if (!file.open(QIODevice::ReadOnly)) {
        HXSetError(error, HXError::fileError(
                              HXFileReadUnknownError, contentPath,
                              QStringLiteral("The file “%1” couldn’t be opened.").arg(contentPath),
                              file.errorString()));
        return false;
    }
    HXError failure;
    if (loadTextXMLData(file.readAll(), context, &failure))
        return true;
    // The file that failed is named, for messages.
    if (!failure.userInfo().contains(HXFilePathErrorKey))
        failure = failure.withUserInfoValue(HXFilePathErrorKey, contentPath);
    HXSetError(error, failure);
    return false;
}

void HXNativeSheet::resetLoadedValues() {
    m_readText = nullptr;
    m_readMarkup = nullptr;
    m_loadedNotes.clear();
    m_loadedFiles.clear();
    m_loadedKeywords = nullptr;
    m_loadedGoal = nullptr;
}

bool HXNativeSheet::loadTextXMLData(const QByteArray &data, HXSheetContext &context,
                                    HXError *error) {
    resetLoadedValues();
    HXError failure;
    if (!HXXMLReader::readFromData(data, *this, &context, &failure)) {
        resetLoadedValues();
        HXSetError(error, failure);
        return false;
    }
    if (!m_readText) {
        resetLoadedValues();
        HXSetError(error, readFailure(QStringLiteral("Failed to read text from sheet.")));
        return false;
    }
    // Taking the text read is no change of the content.
    m_reading = true;
    m_text->setToString(*m_readText);
    m_reading = false;
    {
        const std::lock_guard lock(m_mutex);
        m_markup = m_readText->markup();
    }
    loadNoteAttachments(m_loadedNotes);
    loadFileAttachments(m_loadedFiles);
    loadKeywordsAttachment(m_loadedKeywords);
    loadCountingGoal(m_loadedGoal);
    resetLoadedValues();
    return true;
}

bool HXNativeSheet::readerWillStartElement(const QString &name, const HXXMLAttributes &attributes,
                                           HXError *error) {
    if (name != u"sheet") {
        HXSetError(error, readFailure(QStringLiteral("Unexpected element \"%1\"").arg(name)));
        return false;
    }
    if (attributes.value(QStringLiteral("version")).toInt() > currentVersion) {
        const QString text = HXLocalizedString(QStringLiteral("IncompatibleFileFormatError"),
                                               QStringLiteral("HXNativeSheet"));
        HXSetError(error, HXError(HXCocoaErrorDomain, 1,
                                  {{HXLocalizedDescriptionKey, text},
                                   {HXShortLocalizedDescriptionKey, text}}));
        return false;
    }
    return true;
}

std::shared_ptr<HXXMLReading>
HXNativeSheet::readerDidFindChildElement(const QString &name, HXXMLReaderContext *, HXError *) {
    if (name == HXMarkup::XMLElementName()) {
        m_readMarkup = std::make_shared<HXMarkup>();
        return m_readMarkup;
    }
    const auto currentMarkup =
        m_readMarkup ? m_readMarkup : HXMarkupStore::globalStore()->defaultIntrinsicMarkup();
    if (name == u"string") {
        m_readText = HXMutableString::stringWithMarkup(currentMarkup);
        return HXStringXML::readerForString(m_readText);
    }
    if (name == HXNativeSheetAttachment::XMLElementName())
        return std::make_shared<HXNativeSheetAttachment>(currentMarkup);
    return nullptr;
}

bool HXNativeSheet::readerDidEndChildElement(const std::shared_ptr<HXXMLReading> &child,
                                             HXXMLReaderContext *, HXError *) {
    if (child == m_readMarkup) {
        // Sheets share the store's objects.
        if (const auto equal = HXMarkupStore::globalStore()->markupEqualToMarkup(*m_readMarkup))
            m_readMarkup = equal;
        return true;
    }
    const auto *adapter = dynamic_cast<const HXNativeSheetAttachment *>(child.get());
    if (!adapter)
        return true;
    const HXAttachmentRef attachment = adapter->attachment();
    if (auto note = std::dynamic_pointer_cast<HXNoteAttachment>(attachment))
        m_loadedNotes.append(note);
    else if (auto file = std::dynamic_pointer_cast<HXFileAttachment>(attachment))
        m_loadedFiles.append(file);
    else if (auto keywords = std::dynamic_pointer_cast<HXKeywordsAttachment>(attachment))
        m_loadedKeywords = keywords;
    else if (auto goal = std::dynamic_pointer_cast<HXCountingGoal>(attachment))
        m_loadedGoal = goal;
    return true;
}

bool HXNativeSheet::readerWillEndElement(HXXMLReaderContext *, HXError *) {
    if (m_readText && m_readMarkup) {
        const auto replacement =
            HXMarkupStore::globalStore()->replacementMarkupForMarkup(*m_readMarkup);
        if (replacement && replacement != m_readText->markup())
            m_readText->setMarkup(replacement);
    }
    return true;
}

// --- Writing ----------------------------------------------------------------------------------

int HXNativeSheet::contentVersion() const {
    return noteAttachments().isEmpty() && fileAttachments().isEmpty() && !keywordsAttachment() &&
                   !countingGoal()
               ? 1
               : 2;
}

HXNativeSheet::ContentSources HXNativeSheet::contentSources() {
    ContentSources sources;
    // The text is copied in slices under its lock, and written outside it: typing goes on.
    sources.text = HXStringSnapshot::copyInSlices(*m_text);
    sources.markup = markup();
    const NoteList notes = noteAttachments();
    const FileList files = fileAttachments();
    const auto keywords = keywordsAttachment();
    const auto goal = countingGoal();
    sources.plain = notes.isEmpty() && files.isEmpty() && !keywords && !goal;
    if (keywords && !keywords->keywords().isEmpty())
        sources.attachments.append(keywords);
    if (goal)
        sources.attachments.append(goal);
    for (const auto &note : notes)
        sources.attachments.append(note);
    for (const auto &file : files)
        sources.attachments.append(file);
    return sources;
}

QByteArray HXNativeSheet::contentData(const ContentSources &sources, HXSheetContext &context,
                                      HXError *error) {
    const HXString &text = *sources.text;
    HXXMLWriter writer;
    writer.reserve(qsizetype(text.length() + text.length() / 4 + 4096));
    writer.writeDeclaration();
    writer.startElement(QLatin1StringView("sheet"));
    writer.writeAttribute(QLatin1StringView("version"), QString::number(sources.plain ? 1 : 2));
    writer.writeText(u"\n");
    if (sources.markup) {
        writer.writeElement(sources.markup->XMLElement());
        writer.writeText(u"\n");
    }
    if (!HXStringXML::writeXML(text, writer, &context, error))
        return {};
    writer.writeText(u"\n");
    for (const HXAttachmentRef &attachment : sources.attachments) {
        if (!HXNativeSheetAttachment(attachment).writeXML(writer, &context, error))
            return {};
        writer.writeText(u"\n");
    }
    writer.endElement();
    writer.writeText(u"\n");
    return writer.takeBytes();
}

QByteArray HXNativeSheet::contentDataUsingContext(HXSheetContext &context, HXError *error,
                                                  std::shared_ptr<HXString> *textCopy) {
    const ContentSources sources = contentSources();
    if (textCopy)
        *textCopy = sources.text;
    return contentData(sources, context, error);
}

namespace {

// The copy of the text is let go off the saving thread: freeing a long text takes a while.
void releaseInBackground(std::shared_ptr<HXString> &text) {
    HXDispatchQueue::globalQueue(HXDispatchQueue::Priority::Background)->async([text] {});
    text.reset();
}

} // namespace

HXFileWrapperRef HXNativeSheet::fileWrapperWithError(HXError *error) {
    HXSheetContext context;
    std::shared_ptr<HXString> text;
    QByteArray content;
    try {
        content = contentDataUsingContext(context, error, &text);
    } catch (const HXAssertionFailure &failure) {
        HXSetError(error, readFailure(failure.text()));
        return nullptr;
    }
    if (content.isEmpty())
        return nullptr;
    QMap<QString, HXFileWrapperRef> entries;
    entries.insert(contentFilename,
                   HXFileWrapper::regularFileWithContents(content, contentFilename));
    entries.insert(textFilename,
                   HXFileWrapper::regularFileWithContents(text->string().toUtf8(), textFilename));
    if (const HXFileWrapperRef media = context.fileWrapperRepresentation())
        entries.insert(mediaFilename, media);
    releaseInBackground(text);
    return HXFileWrapper::directoryWithFileWrappers(entries, preferredFilename());
}

HXFileWrapperRef HXNativeSheet::fileWrapperToWrite(HXError *error) {
    // "Content.xml" is made on a helper while this thread writes "Text.txt". "Media" is known
    // once "Content.xml" is made, as the context gathers the files its elements refer to.
    struct Making {
        ContentSources sources;
        HXSheetContext context;
        std::once_flag once;
        QByteArray content;
        HXError failure;
        void makeContent() {
            std::call_once(once, [this] {
                try {
                    content = contentData(sources, context, &failure);
                } catch (const HXAssertionFailure &failed) {
                    failure = readFailure(failed.text());
                }
                if (content.isEmpty() && failure.isNull())
                    failure = readFailure(QStringLiteral("Failed to write the sheet's content."));
            });
        }
    };
    auto making = std::make_shared<Making>();
    try {
        making->sources = contentSources();
    } catch (const HXAssertionFailure &failure) {
        HXSetError(error, readFailure(failure.text()));
        return nullptr;
    }
    // The helpers only read the copy of the text; the wrapper holds it until the document lets
    // it go.
    const HXString &text = *making->sources.text;
    QMap<QString, HXFileWrapperRef> entries;
    entries.insert(contentFilename, HXFileWrapper::pendingWrapper([making](HXError *failed) {
                       making->makeContent();
                       if (making->content.isEmpty()) {
                           HXSetError(failed, making->failure);
                           return HXFileWrapperRef();
                       }
                       return HXFileWrapper::regularFileWithContents(making->content,
                                                                     contentFilename);
                   }));
    entries.insert(textFilename,
                   HXFileWrapper::regularFileWithContents(text.string().toUtf8(), textFilename));
    entries.insert(mediaFilename, HXFileWrapper::pendingWrapper(
                                      [making](HXError *) {
                                          making->makeContent();
                                          return making->context.fileWrapperRepresentation();
                                      },
                                      false));
    return HXFileWrapper::directoryWithFileWrappers(entries, preferredFilename());
}
