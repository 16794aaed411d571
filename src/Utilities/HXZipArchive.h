#pragma once

#include "Utilities/HXError.h"
#include "Utilities/HXFileWrapper.h"

#include <QByteArray>
#include <QString>

// What reading an archive may cost at most: archives come from anywhere, and one of a few hundred
// bytes may claim to hold gigabytes.
struct HXZipLimits {
    quint64 maximumEntryCount = 10000;
    quint64 maximumEntrySize = 256ull << 20;
    quint64 maximumTotalSize = 1ull << 30;
};

// ZIP archives of packages, small folders of files such as a markup or a theme, read into and
// written from file wrappers in memory. Reading trusts nothing in the archive: a path that would
// lead outside its folder, a link, a name given twice or a size beyond the limits refuses the
// whole archive. Writing is deterministic, so that the same tree always gives the same bytes.
// Holds no state; any thread.
class HXZipArchive {
public:
    HXZipArchive() = delete;

    // The package in ZIP data: when every entry lies under one top-level folder, that folder,
    // named after it; else a directory, without a name, of the entries. Nothing and an error
    // naming `name` (the archive's path, for messages) and the problem when the archive is
    // damaged or unsafe.
    static HXFileWrapperRef fileWrapperFromZipData(const QByteArray &data, const QString &name,
                                                   HXError *error, const HXZipLimits &limits = {});

    // The archive of a wrapper: a directory as one top-level folder named after its preferred
    // filename, or its entries at the root when it has none; a regular file as one entry. Entries
    // come in name order with a fixed modification time; `compress` deflates them, else they are
    // stored.
    static QByteArray zipDataFromFileWrapper(const HXFileWrapper &wrapper, bool compress,
                                             HXError *error);
};
