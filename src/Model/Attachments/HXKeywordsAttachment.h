#pragma once

#include "Model/Attachments/HXAttachment.h"

#include <QStringList>

// Keywords of a sheet, in the order given. A keyword never holds the separator "," of the stored
// form; an empty list is an empty attachment.
class HXKeywordsAttachment : public HXAttachment {
public:
    static inline const QString separator = QStringLiteral(",");

    QStringList keywords() const { return m_keywords; }
    // Nothing happens for an equal list; a keyword with the separator is an assertion.
    void setKeywords(const QStringList &keywords);
    // Appends to the target each keyword of the source it lacks, in order.
    static void mergeKeywordsAttachment(const HXKeywordsAttachment &source,
                                        HXKeywordsAttachment &target);

    QString displayTitle() const override { return localizedTitle(QStringLiteral("Keywords")); }
    bool isEmpty() const override { return m_keywords.isEmpty(); }
    bool isEqual(const HXAttachment &other) const override;
    HXAttachmentRef copy() const override;

private:
    QStringList m_keywords;
};
