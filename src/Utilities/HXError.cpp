#include "Utilities/HXError.h"

#include "Utilities/HXLocalizedString.h"
#include "Utilities/HXStringFormat.h"

HXError::HXError(QString domain, qint64 code, QVariantMap userInfo)
    : m_domain(std::move(domain))
    , m_code(code)
    , m_userInfo(std::move(userInfo)) {}

HXError HXError::withDescription(const QString &domain, qint64 code, const QString &description,
                                 const QString &failureReason) {
    QVariantMap info{{HXLocalizedDescriptionKey, description}};
    if (!failureReason.isEmpty())
        info.insert(HXLocalizedFailureReasonErrorKey, failureReason);
    return HXError(domain, code, info);
}

HXError HXError::fileError(qint64 code, const QString &path, const QString &description,
                           const QString &failureReason) {
    return withDescription(HXCocoaErrorDomain, code, description, failureReason)
        .withUserInfoValue(HXFilePathErrorKey, path);
}

QString HXError::localizedDescription() const {
    const QString description = m_userInfo.value(HXLocalizedDescriptionKey).toString();
    if (!description.isEmpty())
        return description;
    const QString reason = localizedFailureReason();
    const QString generic = HXStringWithFormat(
        HXLocalizedString(QStringLiteral("errorGenericDescription"), QStringLiteral("Utilities")),
        m_domain, m_code);
    return reason.isEmpty() ? generic : generic + u' ' + reason;
}

QString HXError::localizedFailureReason() const {
    return m_userInfo.value(HXLocalizedFailureReasonErrorKey).toString();
}

HXError HXError::withUserInfoValue(const QString &key, const QVariant &value) const {
    HXError copy = *this;
    copy.m_userInfo.insert(key, value);
    return copy;
}
