#include "Model/Persistence/HXVersionStore.h"

#include "Utilities/HXFileSystem.h"
#include "Utilities/HXLocations.h"
#include "Utilities/HXUniqueIdentifier.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QSet>
#include <QTimeZone>

#include <mutex>
#include <unistd.h>

namespace {

std::mutex providerMutex;
std::function<QString(const QString &)> libraryProvider;

// Twenty characters, such as "20261123T190503.123Z".
const QString nameFormat = QStringLiteral("yyyyMMdd'T'HHmmss.zzz'Z'");

// A name in the store for a version of the date, with the item's extension; `attempt` tells
// versions of one millisecond apart.
QString versionName(const QDateTime &date, const QString &extension, int attempt) {
    QString name = date.toUTC().toString(nameFormat);
    if (attempt > 0)
        name += u'-' + QString::number(attempt);
    return extension.isEmpty() ? name : name + u'.' + extension;
}

QDateTime dateOfVersionName(const QString &name) {
    QDateTime date = QDateTime::fromString(name.left(20), nameFormat);
    date.setTimeZone(QTimeZone::utc());
    return date;
}

// Copies a file or folder, with hard links for files where the volume allows.
bool copyItem(const QString &from, const QString &to, HXError *error) {
    const QFileInfo info(from);
    if (!info.isDir()) {
        if (::link(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0)
            return true;
        if (QFile::copy(from, to))
            return true;
        HXSetError(error, HXFileSystem::posixError(
                              EIO, to, QStringLiteral("“%1” couldn’t be copied.").arg(from)));
        return false;
    }
    if (!QDir().mkdir(to)) {
        HXSetError(error, HXFileSystem::posixError(
                              EEXIST, to, QStringLiteral("“%1” couldn’t be made.").arg(to)));
        return false;
    }
    const QStringList entries =
        QDir(from).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    for (const QString &entry : entries) {
        if (!copyItem(from + u'/' + entry, to + u'/' + entry, error))
            return false;
    }
    return true;
}

// Puts content into the store under a free name: `place` does the work for one name and answers
// whether the name was taken already.
bool addVersion(const QString &itemPath, const QDateTime &date, HXError *error,
                const std::function<bool(const QString &, bool *taken, HXError *)> &place) {
    const QString folder = HXVersionStore::storeFolderForItem(itemPath);
    if (!HXFileSystem::makeFolder(folder, error))
        return false;
    const QString extension = QFileInfo(itemPath).suffix();
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const QString target = folder + u'/' + versionName(date, extension, attempt);
        bool taken = false;
        if (place(target, &taken, error)) {
            HXFileSystem::setModificationDate(target, date);
            HXFileSystem::syncParentFolder(target);
            HXVersionStore::pruneVersionsOfItem(itemPath, QDateTime::currentDateTimeUtc());
            return true;
        }
        if (!taken)
            return false;
    }
    HXSetError(error, HXFileSystem::posixError(EEXIST, folder,
                                               QStringLiteral("No free name for a version.")));
    return false;
}

} // namespace

void HXVersionStore::setLibraryIdentifierProvider(
    std::function<QString(const QString &)> provider) {
    const std::lock_guard lock(providerMutex);
    libraryProvider = std::move(provider);
}

QString HXVersionStore::storeFolderForItem(const QString &itemPath) {
    const QFileInfo item(itemPath);
    QString library;
    {
        const std::lock_guard lock(providerMutex);
        if (libraryProvider)
            library = libraryProvider(item.absoluteFilePath());
    }
    if (library.isEmpty()) {
        library = QStringLiteral("%1").arg(HXFNV1a64(item.absolutePath().toUtf8()), 16, 16,
                                           QLatin1Char('0'));
    }
    return HXLocations::applicationSupportPath() + QStringLiteral("/Versions/") + library + u'/' +
           item.fileName();
}

bool HXVersionStore::addVersionByMovingItem(const QString &itemPath, const QString &contentPath,
                                            const QDateTime &date, HXError *error) {
    return addVersion(itemPath, date, error, [&](const QString &target, bool *taken, HXError *e) {
        if (HXFileSystem::moveItem(contentPath, target, false, e))
            return true;
        if (QFileInfo::exists(target)) {
            *taken = true;
            return false;
        }
        // Another volume: a copy, then the original goes.
        if (!copyItem(contentPath, target, e)) {
            HXFileSystem::removeItem(target, nullptr);
            return false;
        }
        HXFileSystem::removeItem(contentPath, nullptr);
        return true;
    });
}

bool HXVersionStore::addVersionWithFileWrapper(const QString &itemPath,
                                               const HXFileWrapper &content, const QDateTime &date,
                                               HXError *error) {
    return addVersion(itemPath, date, error, [&](const QString &target, bool *taken, HXError *e) {
        if (QFileInfo::exists(target)) {
            *taken = true;
            return false;
        }
        return content.writeToPath(target, e);
    });
}

QList<HXFileVersion> HXVersionStore::versionsOfItem(const QString &itemPath) {
    QList<HXFileVersion> versions;
    const QString folder = storeFolderForItem(itemPath);
    const QStringList names = QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
    for (const QString &name : names) {
        const QDateTime date = dateOfVersionName(name);
        if (date.isValid())
            versions.append(HXFileVersion{folder + u'/' + name, date});
    }
    std::stable_sort(versions.begin(), versions.end(), [](const auto &a, const auto &b) {
        return a.modificationDate != b.modificationDate ? a.modificationDate > b.modificationDate
                                                        : a.path > b.path;
    });
    return versions;
}

QList<HXFileVersion> HXVersionStore::unresolvedConflictVersionsOfItem(const QString &) {
    return {};
}

QList<qsizetype> HXVersionStore::indexesToKeep(const QList<QDateTime> &newestFirst,
                                               const QDateTime &now) {
    QList<qsizetype> kept;
    QSet<qint64> days;
    QSet<qint64> weeks;
    qsizetype ofLastDay = 0;
    for (qsizetype index = 0; index < newestFirst.size() && kept.size() < maximumVersions;
         ++index) {
        const QDateTime &date = newestFirst.at(index);
        const qint64 age = date.secsTo(now);
        const qint64 day =
            QDateTime(QDate(1970, 1, 1), QTime(0, 0), QTimeZone::utc()).daysTo(date.toUTC());
        if (age < 86400) {
            if (ofLastDay++ < maximumVersionsOfOneDay)
                kept.append(index);
        } else if (age < 30 * 86400) {
            // The newest of each day.
            if (!days.contains(day)) {
                days.insert(day);
                kept.append(index);
            }
        } else {
            // The newest of each week, weeks counted from a Monday.
            const qint64 week = (day + 3) / 7;
            if (!weeks.contains(week)) {
                weeks.insert(week);
                kept.append(index);
            }
        }
    }
    return kept;
}

void HXVersionStore::pruneVersionsOfItem(const QString &itemPath, const QDateTime &now) {
    const QList<HXFileVersion> versions = versionsOfItem(itemPath);
    QList<QDateTime> dates;
    for (const HXFileVersion &version : versions)
        dates.append(version.modificationDate);
    const QList<qsizetype> kept = indexesToKeep(dates, now);
    const QSet<qsizetype> keep(kept.cbegin(), kept.cend());
    for (qsizetype index = 0; index < versions.size(); ++index) {
        if (!keep.contains(index))
            HXFileSystem::removeItem(versions.at(index).path, nullptr);
    }
}
