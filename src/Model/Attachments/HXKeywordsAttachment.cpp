#include "Model/Attachments/HXKeywordsAttachment.h"

#include "Utilities/HXAssert.h"

void HXKeywordsAttachment::setKeywords(const QStringList &keywords) {
    if (keywords == m_keywords)
        return;
    for (const QString &keyword : keywords)
        HX_ASSERT(!keyword.contains(separator), u"Separator '%@' inside keyword: %@", separator,
                  keyword);
    m_keywords = keywords;
    noteAttachmentChange();
}

void HXKeywordsAttachment::mergeKeywordsAttachment(const HXKeywordsAttachment &source,
                                                   HXKeywordsAttachment &target) {
    if (source.m_keywords.isEmpty())
        return;
    QStringList merged = target.m_keywords;
    for (const QString &keyword : source.m_keywords) {
        if (!merged.contains(keyword))
            merged.append(keyword);
    }
    target.setKeywords(merged);
}

bool HXKeywordsAttachment::isEqual(const HXAttachment &other) const {
    const auto *keywords = dynamic_cast<const HXKeywordsAttachment *>(&other);
    return keywords && keywords->m_keywords == m_keywords;
}

HXAttachmentRef HXKeywordsAttachment::copy() const {
    auto copy = std::make_shared<HXKeywordsAttachment>();
    copy->m_keywords = m_keywords;
    return copy;
}
