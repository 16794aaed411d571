#pragma once

#include "Utilities/HXError.h"

#include <QByteArray>
#include <QString>

// A durable reference to a folder the user chose: its path together with the identity of the
// folder on its volume, so that a different folder that has taken the place of the chosen one
// is not mistaken for it. Resolving fails when the folder is gone or was replaced; the caller
// then decides whether the plain path is good enough. Stateless; any thread.
class HXFolderReference {
public:
    HXFolderReference() = delete;

    // Empty, with the error set, when the path is no folder.
    static QByteArray dataForPath(const QString &path, HXError *error);
    // The folder's path, or empty with the error set.
    static QString resolveData(const QByteArray &data, HXError *error);
};
