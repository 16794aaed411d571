#pragma once

#include "Model/StorageTree/HXTrash.h"

// The trash of a library: the folder "Trash-hxtrash" with its info file "Info.hxtrash", which
// keeps where each trashed item came from and the order of what lies in the trash. Owned by the
// library's root; any thread.
class HXNativeTrash : public HXTrash {
public:
    static inline const QString suffix = QStringLiteral("-hxtrash");
    static inline const QString infoName = QStringLiteral("Info.hxtrash");

    using HXTrash::HXTrash;

    QString displayName() const override;
    QString defaultIconName() const override { return QStringLiteral("Trash"); }
    QString infoFilename() const override { return infoName; }
    QVariantMap infoFileContents(bool copy) const override;
    void setInfoFileContents(const QVariantMap &contents) override;
};
