#pragma once

#include "Model/Attachments/HXAttachment.h"
#include "Model/Sheets/HXDocument.h"
#include "Utilities/HXRange.h"

#include <QList>
#include <QSet>

class HXAtomicString;
class HXCountingGoal;
class HXFileAttachment;
class HXKeywordsAttachment;
class HXMarkup;
class HXNoteAttachment;
class HXSheetHandle;

// A sheet: a document with a text in a markup, and what it carries beside the text, its notes,
// files, keywords and goal, as far as its kind supports them. A change of an attachment is a
// change of the sheet that undo does not take back. Setting an attachment counts as a change;
// loading one (from a file, or a copy) does not.
class HXSheet : public HXDocument, public HXAttachmentOwner {
public:
    ~HXSheet() override;
    using NoteList = QList<std::shared_ptr<HXNoteAttachment>>;
    using FileList = QList<std::shared_ptr<HXFileAttachment>>;

    // Bits of appendToSheet's options.
    enum AppendOptions : int { AppendMergingAttachments = 1, AppendInsertingSeparator = 2 };

    virtual std::shared_ptr<HXMarkup> markup() const = 0;
    virtual std::shared_ptr<HXAtomicString> text() const = 0;

    virtual bool supportsNoteAttachments() const { return false; }
    virtual bool supportsFileAttachments() const { return false; }
    virtual bool supportsKeywordsAttachment() const { return false; }
    virtual bool supportsCountingGoal() const { return false; }
    // Where the title stands in the text; not-found here.
    virtual HXRange titleRange() const { return HXNotFoundRange(); }

    std::shared_ptr<HXSheetHandle> handle() const;
    void setHandle(const std::shared_ptr<HXSheetHandle> &handle);
    // A sheet of a library saves where its handle stands, under the name its storage gives.
    QString URLForSaveOperation(int saveOperation, bool ignoreCurrentName) const override;

    NoteList noteAttachments() const;
    FileList fileAttachments() const;
    std::shared_ptr<HXKeywordsAttachment> keywordsAttachment() const;
    std::shared_ptr<HXCountingGoal> countingGoal() const;
    void setNoteAttachments(const NoteList &notes);
    void setFileAttachments(const FileList &files);
    void setKeywordsAttachment(const std::shared_ptr<HXKeywordsAttachment> &keywords);
    void setCountingGoal(const std::shared_ptr<HXCountingGoal> &goal);
    virtual void loadNoteAttachments(const NoteList &notes);
    void loadFileAttachments(const FileList &files);
    void loadKeywordsAttachment(const std::shared_ptr<HXKeywordsAttachment> &keywords);
    void loadCountingGoal(const std::shared_ptr<HXCountingGoal> &goal);

    void attachmentDidChange(HXAttachment &attachment) override;

    // --- Between sheets: the target's text written, this one's read -------------------------
    QSet<QString> lossDescriptionsForCopyingToSheet(const HXSheet &target) const;
    void copyToSheet(HXSheet &target) const;
    void appendToSheet(HXSheet &target, int options) const;
    // The text from the index (less a line break standing there) goes to the other sheet, the
    // text before it stays; the attachments are copied.
    void splitSheetAtIndex(quint64 splitIndex, HXSheet &other);
    void copyAttachmentsToSheet(HXSheet &target, bool mergeAttachments) const;

protected:
    HXSheet() = default;
    std::shared_ptr<HXAttachmentOwner> attachmentOwner();

private:
    void take(const HXAttachmentRef &old, const HXAttachmentRef &value);

    std::weak_ptr<HXSheetHandle> m_handle;
    NoteList m_noteAttachments;
    FileList m_fileAttachments;
    std::shared_ptr<HXKeywordsAttachment> m_keywordsAttachment;
    std::shared_ptr<HXCountingGoal> m_countingGoal;
};

using HXSheetRef = std::shared_ptr<HXSheet>;
