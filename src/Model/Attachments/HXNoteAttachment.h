#pragma once

#include "Model/Attachments/HXAttachment.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Text/String/Access/HXStringObserver.h"

// A note on a sheet: a text of its own, in the sheet's markup, whose every change is a change of
// the attachment. Empty while its text is.
class HXNoteAttachment : public HXAttachment,
                         public HXStringObserver,
                         public std::enable_shared_from_this<HXNoteAttachment> {
public:
    static std::shared_ptr<HXNoteAttachment>
    noteWithMarkup(const std::shared_ptr<HXMarkup> &markup);
    ~HXNoteAttachment() override;

    std::shared_ptr<HXAtomicString> text() const { return m_text; }
    // Observes the new text instead of the old one.
    void setText(const std::shared_ptr<HXAtomicString> &text);
    std::shared_ptr<HXMarkup> markup() const { return m_markup; }
    // Gives the text the markup when it has another.
    void setMarkup(const std::shared_ptr<HXMarkup> &markup);

    QString displayTitle() const override { return localizedTitle(QStringLiteral("Note")); }
    bool isEmpty() const override;
    bool isEqual(const HXAttachment &other) const override;
    HXAttachmentRef copy() const override;

    void stringChangedCharactersInRange(HXString &, HXRange, const HXReplacement &, HXRange,
                                        HXRange, HXRange) override {
        noteAttachmentChange();
    }
    void stringWillChangeAttributesOfElementAtIndex(HXString &, quint64) override {
        noteAttachmentChange();
    }

private:
    HXNoteAttachment() = default;
    std::shared_ptr<HXStringObserver> observer();

    std::shared_ptr<HXAtomicString> m_text;
    std::shared_ptr<HXMarkup> m_markup;
};
