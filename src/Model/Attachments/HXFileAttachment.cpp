#include "Model/Attachments/HXFileAttachment.h"

void HXFileAttachment::setFileWrapper(const HXFileWrapperRef &fileWrapper) {
    m_fileWrapper = fileWrapper;
    noteAttachmentChange();
}

bool HXFileAttachment::isEqual(const HXAttachment &other) const {
    const auto *file = dynamic_cast<const HXFileAttachment *>(&other);
    if (!file)
        return false;
    if (file->m_fileWrapper == m_fileWrapper)
        return true;
    return m_fileWrapper && file->m_fileWrapper && m_fileWrapper->isRegularFile() &&
           file->m_fileWrapper->isRegularFile() &&
           m_fileWrapper->hasSameContentsAs(*file->m_fileWrapper);
}

HXAttachmentRef HXFileAttachment::copy() const {
    auto copy = std::make_shared<HXFileAttachment>();
    // File wrappers are immutable, so sharing one is a deep copy in all but memory.
    copy->m_fileWrapper = m_fileWrapper;
    return copy;
}
