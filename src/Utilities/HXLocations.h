#pragma once

#include "Utilities/HXError.h"

#include <QString>

// The folders the system keeps its files in, after the platform's standard locations:
// application support (~/.local/share/Velmora), documents, caches (~/.cache/Velmora) and logs
// (the folder "Logs" in application support). The paths are only computed here; whoever writes
// into a folder makes it first with `makeFolder`. An empty path means the platform has no such
// location.
//
// Tests switch QStandardPaths to its test mode and point HOME and the XDG variables at a
// temporary folder before the first call, so that no test touches a real home folder.
class HXLocations {
public:
    HXLocations() = delete;

    static const QString applicationName;

    static QString applicationSupportPath();
    static QString documentsPath();
    static QString cachesPath();
    static QString logsPath();

    // Makes a folder with its parents; true when it exists afterwards.
    static bool makeFolder(const QString &path, HXError *error);
};
