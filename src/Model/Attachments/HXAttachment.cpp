#include "Model/Attachments/HXAttachment.h"

#include "Utilities/HXLocalizedString.h"

HXAttachment::~HXAttachment() = default;

void HXAttachment::noteAttachmentChange() {
    if (const auto owner = m_owner.lock())
        owner->attachmentDidChange(*this);
}

QString HXAttachment::localizedTitle(const QString &key) {
    return HXLocalizedString(key, QStringLiteral("HXAttachment"));
}
