#include "Model/Attachments/HXNoteAttachment.h"

std::shared_ptr<HXNoteAttachment>
HXNoteAttachment::noteWithMarkup(const std::shared_ptr<HXMarkup> &markup) {
    std::shared_ptr<HXNoteAttachment> note(new HXNoteAttachment);
    note->m_markup = markup;
    note->setText(HXAtomicString::stringWithMarkup(markup));
    return note;
}

// The text holds its observers weakly: a note that goes is no longer told.
HXNoteAttachment::~HXNoteAttachment() = default;

std::shared_ptr<HXStringObserver> HXNoteAttachment::observer() {
    return std::shared_ptr<HXStringObserver>(shared_from_this(),
                                             static_cast<HXStringObserver *>(this));
}

void HXNoteAttachment::setText(const std::shared_ptr<HXAtomicString> &text) {
    if (text == m_text)
        return;
    if (m_text)
        m_text->removeStringObserver(observer());
    m_text = text;
    if (m_text)
        m_text->addStringObserver(observer());
    noteAttachmentChange();
}

void HXNoteAttachment::setMarkup(const std::shared_ptr<HXMarkup> &markup) {
    m_markup = markup;
    if (m_text && m_text->markup() != markup)
        m_text->setMarkup(markup);
}

bool HXNoteAttachment::isEmpty() const {
    return !m_text || m_text->length() == 0;
}

bool HXNoteAttachment::isEqual(const HXAttachment &other) const {
    const auto *note = dynamic_cast<const HXNoteAttachment *>(&other);
    if (!note)
        return false;
    if (!m_text || !note->m_text)
        return !m_text && !note->m_text;
    return m_text->string() == note->m_text->string();
}

HXAttachmentRef HXNoteAttachment::copy() const {
    auto copy = noteWithMarkup(m_markup);
    if (m_text)
        copy->m_text->setToString(*m_text);
    return copy;
}
