#pragma once

#include "Model/Attachments/HXAttachment.h"
#include "Utilities/HXFileWrapper.h"

// A file attached to a sheet, an image above all; kept in the package's "Media" folder. Without a
// file (one whose identifier was not found there) it is empty.
class HXFileAttachment : public HXAttachment {
public:
    HXFileWrapperRef fileWrapper() const { return m_fileWrapper; }
    void setFileWrapper(const HXFileWrapperRef &fileWrapper);

    QString displayTitle() const override { return localizedTitle(QStringLiteral("Image")); }
    bool isEmpty() const override { return !m_fileWrapper; }
    // The same file, or two regular files with the same bytes.
    bool isEqual(const HXAttachment &other) const override;
    HXAttachmentRef copy() const override;

private:
    HXFileWrapperRef m_fileWrapper;
};
