#pragma once

#include <QString>
#include <QVariantMap>

// Keys of an error's user information.
inline const QString HXLocalizedDescriptionKey = QStringLiteral("NSLocalizedDescription");
inline const QString HXLocalizedFailureReasonErrorKey = QStringLiteral("NSLocalizedFailureReason");
inline const QString HXFilePathErrorKey = QStringLiteral("NSFilePath");
// A short form of the description, for tight places such as a status line.
inline const QString HXShortLocalizedDescriptionKey = QStringLiteral("HXShortLocalizedDescription");
inline const QString HXUnderlyingErrorKey = QStringLiteral("NSUnderlyingError");

// Domains of errors that are not given by a subsystem of their own.
inline const QString HXCocoaErrorDomain = QStringLiteral("NSCocoaErrorDomain");
inline const QString HXPOSIXErrorDomain = QStringLiteral("NSPOSIXErrorDomain");

// Codes of the file and property-list errors in HXCocoaErrorDomain.
enum HXFileErrorCode : qint64 {
    HXFileNoSuchFileError = 4,
    HXFileReadUnknownError = 256,
    HXFileReadCorruptFileError = 259,
    HXFileWriteUnknownError = 512,
    HXFileWriteInvalidFileNameError = 514,
    HXPropertyListReadCorruptError = 3840,
    HXPropertyListWriteInvalidError = 3851,
};

// A run-time failure: a domain, a code and user information, as a plain value. An operation that
// can fail returns null or false and fills an optional `HXError *error` out-argument.
class HXError {
public:
    HXError() = default;
    HXError(QString domain, qint64 code, QVariantMap userInfo = {});

    // An error with a description and, when given, a failure reason.
    static HXError withDescription(const QString &domain, qint64 code, const QString &description,
                                   const QString &failureReason = {});
    // A file error that names the file and says what went wrong with it.
    static HXError fileError(qint64 code, const QString &path, const QString &description,
                             const QString &failureReason = {});

    const QString &domain() const { return m_domain; }
    qint64 code() const { return m_code; }
    const QVariantMap &userInfo() const { return m_userInfo; }
    bool isNull() const { return m_domain.isEmpty(); }

    // The description from the user information, or a generic text naming domain and code.
    QString localizedDescription() const;
    QString localizedFailureReason() const;

    HXError withUserInfoValue(const QString &key, const QVariant &value) const;

    friend bool operator==(const HXError &, const HXError &) = default;

private:
    QString m_domain;
    qint64 m_code = 0;
    QVariantMap m_userInfo;
};

Q_DECLARE_METATYPE(HXError)

// Fills an optional out-argument; does nothing when the caller passed none.
inline void HXSetError(HXError *target, const HXError &error) {
    if (target)
        *target = error;
}
