#pragma once

#include "Utilities/HXError.h"
#include "Utilities/HXFileWrapper.h"

#include <QDateTime>
#include <QList>
#include <QString>

#include <functional>

// One kept state of a document: a copy of its file or package and the date that state had.
struct HXFileVersion {
    QString path;
    QDateTime modificationDate;
    bool isConflict = false;
    bool isResolved = true;

    friend bool operator==(const HXFileVersion &, const HXFileVersion &) = default;
};

// Older states of documents, kept under application support in "Versions/<library>/<file name>/",
// one copy per state, named by its date ("20261123T190503.123Z.velmora"). The library is the one
// the item belongs to, as the provider says; by default a name derived from the folder that holds
// the item. After each addition the versions of the item are thinned out: all of the last day,
// then one per day for a month, then one per week, never more than `maximumVersions`.
//
// Any thread. Two processes may add versions of one item at once: names never collide, as each
// is taken without replacing.
class HXVersionStore {
public:
    HXVersionStore() = delete;

    static constexpr qsizetype maximumVersions = 200;
    static constexpr qsizetype maximumVersionsOfOneDay = 100;

    // The library that an item belongs to, by its path; an empty answer means the default.
    static void setLibraryIdentifierProvider(std::function<QString(const QString &)> provider);
    static QString storeFolderForItem(const QString &itemPath);

    // Moves the content (a file or a package, on any volume) into the store as the item's state
    // of the date; on failure the content stays where it was.
    static bool addVersionByMovingItem(const QString &itemPath, const QString &contentPath,
                                       const QDateTime &date, HXError *error);
    // Writes the content into the store as the item's state of the date.
    static bool addVersionWithFileWrapper(const QString &itemPath, const HXFileWrapper &content,
                                          const QDateTime &date, HXError *error);

    // The kept versions of the item, newest first.
    static QList<HXFileVersion> versionsOfItem(const QString &itemPath);
    // The unresolved conflict versions of the item. Conflicts are kept by the sync service that
    // made them, so there are none here.
    static QList<HXFileVersion> unresolvedConflictVersionsOfItem(const QString &itemPath);
    // Thins out the versions of the item as of the moment given.
    static void pruneVersionsOfItem(const QString &itemPath, const QDateTime &now);

    // The versions that the thinning keeps, of dates given newest first: their indexes.
    static QList<qsizetype> indexesToKeep(const QList<QDateTime> &newestFirst,
                                          const QDateTime &now);
};
