#include "Model/Sheets/HXSheet.h"

#include "Model/Attachments/HXCountingGoal.h"
#include "Model/Attachments/HXFileAttachment.h"
#include "Model/Attachments/HXKeywordsAttachment.h"
#include "Model/Attachments/HXNoteAttachment.h"
#include "Model/Persistence/HXStorage.h"
#include "Model/StorageTree/HXContainer.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXUndoManager.h"

#include <QFileInfo>

HXSheet::~HXSheet() {
    // The handle takes its dates from the file again.
    if (const auto handle = m_handle.lock())
        handle->sheetWillDeallocate(this);
}

std::shared_ptr<HXSheetHandle> HXSheet::handle() const {
    return m_handle.lock();
}

QString HXSheet::URLForSaveOperation(int saveOperation, bool ignoreCurrentName) const {
    const auto handle = this->handle();
    const auto parent = handle ? handle->parent() : nullptr;
    const auto storage = handle ? handle->storage() : nullptr;
    if (!parent || !storage)
        return HXDocument::URLForSaveOperation(saveOperation, ignoreCurrentName);
    const QString folder = parent->URL();
    if (folder.isEmpty())
        return {};
    // A sheet not written yet is named by its handle.
    const QString name =
        fileURL().isEmpty() ? handle->filename() : QFileInfo(fileURL()).fileName();
    return folder + u'/' +
           storage->filenameForPreferredFilename(name, ignoreCurrentName ? QString() : name,
                                                 parent);
}

void HXSheet::setHandle(const std::shared_ptr<HXSheetHandle> &handle) {
    m_handle = handle;
}

std::shared_ptr<HXAttachmentOwner> HXSheet::attachmentOwner() {
    return std::shared_ptr<HXAttachmentOwner>(shared_from_this(),
                                              static_cast<HXAttachmentOwner *>(this));
}

// --- Attachments ----------------------------------------------------------------------------
// The lists are changed on the editing thread and read by saves: the document's mutex guards
// them, and readers take copies.

HXSheet::NoteList HXSheet::noteAttachments() const {
    const std::lock_guard lock(m_mutex);
    return m_noteAttachments;
}

HXSheet::FileList HXSheet::fileAttachments() const {
    const std::lock_guard lock(m_mutex);
    return m_fileAttachments;
}

std::shared_ptr<HXKeywordsAttachment> HXSheet::keywordsAttachment() const {
    const std::lock_guard lock(m_mutex);
    return m_keywordsAttachment;
}

std::shared_ptr<HXCountingGoal> HXSheet::countingGoal() const {
    const std::lock_guard lock(m_mutex);
    return m_countingGoal;
}

void HXSheet::take(const HXAttachmentRef &old, const HXAttachmentRef &value) {
    if (old && old != value)
        old->setOwner({});
    if (value)
        value->setOwner(attachmentOwner());
}

void HXSheet::loadNoteAttachments(const NoteList &notes) {
    NoteList old;
    {
        const std::lock_guard lock(m_mutex);
        old = std::exchange(m_noteAttachments, notes);
    }
    for (const auto &note : old)
        take(note, nullptr);
    for (const auto &note : notes)
        take(nullptr, note);
}

void HXSheet::loadFileAttachments(const FileList &files) {
    FileList old;
    {
        const std::lock_guard lock(m_mutex);
        old = std::exchange(m_fileAttachments, files);
    }
    for (const auto &file : old)
        take(file, nullptr);
    for (const auto &file : files)
        take(nullptr, file);
}

void HXSheet::loadKeywordsAttachment(const std::shared_ptr<HXKeywordsAttachment> &keywords) {
    std::shared_ptr<HXKeywordsAttachment> old;
    {
        const std::lock_guard lock(m_mutex);
        old = std::exchange(m_keywordsAttachment, keywords);
    }
    take(old, keywords);
}

void HXSheet::loadCountingGoal(const std::shared_ptr<HXCountingGoal> &goal) {
    std::shared_ptr<HXCountingGoal> old;
    {
        const std::lock_guard lock(m_mutex);
        old = std::exchange(m_countingGoal, goal);
    }
    take(old, goal);
}

void HXSheet::setNoteAttachments(const NoteList &notes) {
    HX_ASSERT(supportsNoteAttachments(), u"Note attachments not supported!");
    loadNoteAttachments(notes);
    updateChangeCount(ChangeDiscardable);
}

void HXSheet::setFileAttachments(const FileList &files) {
    HX_ASSERT(supportsFileAttachments(), u"File attachments not supported!");
    loadFileAttachments(files);
    updateChangeCount(ChangeDiscardable);
}

void HXSheet::setKeywordsAttachment(const std::shared_ptr<HXKeywordsAttachment> &keywords) {
    HX_ASSERT(supportsKeywordsAttachment(), u"Keywords not supported!");
    loadKeywordsAttachment(keywords);
    updateChangeCount(ChangeDiscardable);
}

void HXSheet::setCountingGoal(const std::shared_ptr<HXCountingGoal> &goal) {
    HX_ASSERT(supportsCountingGoal(), u"Goals not supported!");
    loadCountingGoal(goal);
    updateChangeCount(ChangeDiscardable);
}

void HXSheet::attachmentDidChange(HXAttachment &) {
    updateChangeCount(ChangeDiscardable);
}

// --- Between sheets -------------------------------------------------------------------------

QSet<QString> HXSheet::lossDescriptionsForCopyingToSheet(const HXSheet &target) const {
    QSet<QString> losses;
    target.text()->write([&] {
        text()->read([&] { losses = text()->lossDescriptionsForCopyingToString(*target.text()); });
    });
    if (!noteAttachments().isEmpty() && !target.supportsNoteAttachments())
        losses.insert(QStringLiteral("attachment_note"));
    if (!fileAttachments().isEmpty() && !target.supportsFileAttachments())
        losses.insert(QStringLiteral("attachment_image"));
    if (keywordsAttachment() && !target.supportsKeywordsAttachment())
        losses.insert(QStringLiteral("attachment_keywords"));
    if (countingGoal() && !target.supportsCountingGoal())
        losses.insert(QStringLiteral("attachment_goal"));
    return losses;
}

void HXSheet::copyToSheet(HXSheet &target) const {
    target.text()->write([&] { text()->read([&] { text()->copyToString(*target.text()); }); });
    copyAttachmentsToSheet(target, false);
}

void HXSheet::appendToSheet(HXSheet &target, int options) const {
    target.text()->write([&] {
        text()->read(
            [&] { text()->appendToString(*target.text(), options & AppendInsertingSeparator); });
    });
    if (const auto undo = target.text()->undoManager())
        undo->removeAllActions();
    copyAttachmentsToSheet(target, options & AppendMergingAttachments);
}

void HXSheet::splitSheetAtIndex(quint64 splitIndex, HXSheet &other) {
    const auto string = text();
    std::shared_ptr<HXString> tail;
    string->write([&] {
        HX_ASSERT(splitIndex < string->length(), u"splitIndex < self.text.length");
        quint64 from = splitIndex;
        if (string->characterAtIndex(from) == QLatin1Char('\n'))
            ++from;
        tail = string->stringWithRange(HXRange{from, string->length() - from});
        string->replaceCharactersInRange(HXRange{splitIndex, string->length() - splitIndex},
                                         HXReplacement(QString()));
    });
    other.text()->write([&] { tail->copyToString(*other.text()); });
    copyAttachmentsToSheet(other, false);
}

void HXSheet::copyAttachmentsToSheet(HXSheet &target, bool mergeAttachments) const {
    if (target.supportsNoteAttachments()) {
        NoteList notes = mergeAttachments ? target.noteAttachments() : NoteList();
        for (const auto &note : noteAttachments()) {
            const bool present = std::any_of(notes.cbegin(), notes.cend(), [&](const auto &other) {
                return other->isEqual(*note);
            });
            if (!mergeAttachments || !present)
                notes.append(std::static_pointer_cast<HXNoteAttachment>(note->copy()));
        }
        target.loadNoteAttachments(notes);
    }
    if (target.supportsFileAttachments()) {
        FileList files = mergeAttachments ? target.fileAttachments() : FileList();
        for (const auto &file : fileAttachments()) {
            const bool present = std::any_of(files.cbegin(), files.cend(), [&](const auto &other) {
                return other->isEqual(*file);
            });
            if (!mergeAttachments || !present)
                files.append(std::static_pointer_cast<HXFileAttachment>(file->copy()));
        }
        target.loadFileAttachments(files);
    }
    if (target.supportsKeywordsAttachment()) {
        const auto keywords = keywordsAttachment();
        const auto theirs = target.keywordsAttachment();
        if (mergeAttachments && theirs) {
            if (keywords)
                HXKeywordsAttachment::mergeKeywordsAttachment(*keywords, *theirs);
        } else {
            target.loadKeywordsAttachment(
                keywords ? std::static_pointer_cast<HXKeywordsAttachment>(keywords->copy())
                         : nullptr);
        }
    }
    if (target.supportsCountingGoal() && !(mergeAttachments && target.countingGoal())) {
        const auto goal = countingGoal();
        target.loadCountingGoal(goal ? std::static_pointer_cast<HXCountingGoal>(goal->copy())
                                     : nullptr);
    }
}
