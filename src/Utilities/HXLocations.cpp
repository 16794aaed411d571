#include "Utilities/HXLocations.h"

#include "Utilities/HXLocalizedString.h"
#include "Utilities/HXStringFormat.h"

#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

const QString HXLocations::applicationName = QStringLiteral("Velmora");

namespace {

QString inOurFolder(QStandardPaths::StandardLocation location) {
    const QString base = QStandardPaths::writableLocation(location);
    return base.isEmpty() ? QString() : base + u'/' + HXLocations::applicationName;
}

} // namespace

// The generic locations with our folder appended are what the application locations give for an
// application named Velmora; they don't depend on the application object being set up.
QString HXLocations::applicationSupportPath() {
    return inOurFolder(QStandardPaths::GenericDataLocation);
}

QString HXLocations::documentsPath() {
    return QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
}

QString HXLocations::cachesPath() {
    return inOurFolder(QStandardPaths::GenericCacheLocation);
}

QString HXLocations::logsPath() {
    const QString support = applicationSupportPath();
    return support.isEmpty() ? QString() : support + QStringLiteral("/Logs");
}

bool HXLocations::makeFolder(const QString &path, HXError *error) {
    if (!path.isEmpty() && (QDir().mkpath(path) || QFileInfo(path).isDir()))
        return true;
    const QString key = QFileInfo::exists(path) ? QStringLiteral("folderIsFile")
                                                : QStringLiteral("folderCannotCreate");
    const QString text =
        HXStringWithFormat(HXLocalizedString(key, QStringLiteral("Utilities")), path);
    HXSetError(error, HXError::fileError(HXFileWriteUnknownError, path, text, text));
    return false;
}
