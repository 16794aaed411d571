#include "Utilities/HXZipArchive.h"

#include <QDateTime>
#include <QSet>
#include <QStringList>

#include <algorithm>
#include <map>
#include <memory>
#include <vector>
#include <zip.h>

namespace {

// Unix file types, in the high half of an entry's external attributes.
constexpr zip_uint32_t UnixTypeMask = 0170000;
constexpr zip_uint32_t UnixDirectory = 0040000;
constexpr zip_uint32_t UnixRegularFile = 0100000;

// Deeper paths are refused: no package nests so far, and the tree is built recursively.
constexpr qsizetype MaximumPathDepth = 128;
// What reading an entry allocates ahead of its data; the rest grows with what really comes.
constexpr quint64 MaximumReservation = 1 << 20;

// An archive with no entries: only the end of its central directory.
const QByteArray EmptyArchive = QByteArray("PK\x05\x06", 4) + QByteArray(18, '\0');

QString libzipText(int code) {
    zip_error_t error;
    zip_error_init_with_code(&error, code);
    const QString text = QString::fromUtf8(zip_error_strerror(&error));
    zip_error_fini(&error);
    return text;
}

HXError readError(const QString &archive, const QString &description, const QString &reason) {
    return HXError::fileError(HXFileReadCorruptFileError, archive, description, reason);
}

HXError damagedError(const QString &archive, const QString &problem) {
    return readError(
        archive, QStringLiteral("The archive “%1” is damaged: %2.").arg(archive, problem), problem);
}

// An entry of the archive that is to be read, once every entry has passed the checks.
struct Entry {
    zip_uint64_t index;
    QStringList components;
    bool isDirectory;
    quint64 size;
};

// The components of an entry's path, or none when the path is empty, absolute, on a drive, has
// a backslash or a NUL, or has an empty, "." or ".." component. A trailing slash marks a folder.
QStringList safeComponents(QString path, bool *isDirectory) {
    *isDirectory = path.endsWith(u'/');
    if (*isDirectory)
        path.chop(1);
    if (path.isEmpty() || path.startsWith(u'/') || path.contains(u'\\') || path.contains(QChar()))
        return {};
    if (path.size() >= 2 && path.at(1) == u':' && path.at(0).isLetter())
        return {};
    const QStringList components = path.split(u'/');
    if (components.size() > MaximumPathDepth)
        return {};
    for (const QString &component : components) {
        if (component.isEmpty() || component == u"." || component == u"..")
            return {};
    }
    return components;
}

// A node of the tree that entries are read into.
struct Node {
    bool isDirectory = true;
    QByteArray contents;
    std::map<QString, std::unique_ptr<Node>> children;
};

// Puts an entry into the tree, making the folders above it. Returns how many components of its
// path name a file where a folder goes, or the other way round; 0 when it fits.
qsizetype insert(Node &root, const Entry &entry, QByteArray contents) {
    Node *node = &root;
    for (qsizetype i = 0; i < entry.components.size(); ++i) {
        const bool last = i + 1 == entry.components.size();
        std::unique_ptr<Node> &slot = node->children[entry.components.at(i)];
        if (!slot) {
            slot = std::make_unique<Node>();
            slot->isDirectory = !last || entry.isDirectory;
        } else if (!slot->isDirectory || (last && !entry.isDirectory)) {
            return i + 1;
        }
        node = slot.get();
    }
    node->contents = std::move(contents);
    return 0;
}

HXFileWrapperRef wrapperOfNode(const Node &node, const QString &name) {
    if (!node.isDirectory)
        return HXFileWrapper::regularFileWithContents(node.contents, name);
    QMap<QString, HXFileWrapperRef> children;
    for (const auto &[childName, child] : node.children)
        children.insert(childName, wrapperOfNode(*child, childName));
    return HXFileWrapper::directoryWithFileWrappers(children, name);
}

// Reads an entry whole, never more than its declared size. Fills `problem` and returns false
// when libzip fails (a CRC error, damaged compressed data) or the size doesn't match.
bool readEntry(zip_t *archive, const Entry &entry, QByteArray *contents, QString *problem) {
    zip_file_t *file = zip_fopen_index(archive, entry.index, 0);
    if (!file) {
        *problem = QString::fromUtf8(zip_strerror(archive));
        return false;
    }
    contents->reserve(qsizetype(std::min(entry.size, MaximumReservation)));
    char buffer[16384];
    for (;;) {
        // Reading on to the end makes libzip check the CRC there.
        const zip_int64_t count = zip_fread(file, buffer, sizeof buffer);
        if (count < 0) {
            *problem = QString::fromUtf8(zip_file_strerror(file));
            break;
        }
        if (count == 0)
            break;
        if (quint64(contents->size()) + quint64(count) > entry.size) {
            *problem = QStringLiteral("“%1” holds more data than it declares")
                           .arg(entry.components.join(u'/'));
            break;
        }
        contents->append(buffer, qsizetype(count));
    }
    const int closed = zip_fclose(file);
    if (problem->isEmpty() && quint64(contents->size()) != entry.size)
        *problem = QStringLiteral("“%1” holds less data than it declares")
                       .arg(entry.components.join(u'/'));
    if (problem->isEmpty() && closed != 0)
        *problem = libzipText(closed);
    return problem->isEmpty();
}

// Checks every entry before any is read: the paths, the kinds, the names given twice, the sizes.
bool collectEntries(zip_t *archive, const QString &name, const HXZipLimits &limits,
                    std::vector<Entry> *entries, HXError *error) {
    const zip_int64_t count = zip_get_num_entries(archive, 0);
    if (count < 0 || quint64(count) > limits.maximumEntryCount) {
        HXSetError(error, readError(name,
                                    QStringLiteral("The archive “%1” holds more than %2 entries.")
                                        .arg(name)
                                        .arg(limits.maximumEntryCount),
                                    QStringLiteral("Too many entries")));
        return false;
    }
    QSet<QString> seen;
    quint64 total = 0;
    for (zip_uint64_t index = 0; index < zip_uint64_t(count); ++index) {
        zip_stat_t stat;
        zip_stat_init(&stat);
        if (zip_stat_index(archive, index, 0, &stat) != 0 || !(stat.valid & ZIP_STAT_NAME) ||
            !(stat.valid & ZIP_STAT_SIZE)) {
            HXSetError(error, damagedError(name, QString::fromUtf8(zip_strerror(archive))));
            return false;
        }
        const QString path = QString::fromUtf8(stat.name);
        zip_uint8_t system = 0;
        zip_uint32_t attributes = 0;
        zip_file_get_external_attributes(archive, index, 0, &system, &attributes);
        const zip_uint32_t type = system == ZIP_OPSYS_UNIX ? (attributes >> 16) & UnixTypeMask : 0;
        Entry entry{index, {}, false, stat.size};
        entry.components = safeComponents(path, &entry.isDirectory);
        entry.isDirectory = entry.isDirectory || type == UnixDirectory;
        const QString joined = entry.components.join(u'/');
        QString refusal;
        if (entry.components.isEmpty())
            refusal = QStringLiteral("The archive “%1” holds an unsafe path “%2”.");
        else if (type != 0 && type != UnixDirectory && type != UnixRegularFile)
            refusal = QStringLiteral("The archive “%1” holds a link or special file “%2”.");
        else if (seen.contains(joined))
            refusal = QStringLiteral("The archive “%1” holds “%2” more than once.");
        if (!refusal.isEmpty()) {
            HXSetError(error, readError(name, refusal.arg(name, path), refusal.arg(name, path)));
            return false;
        }
        seen.insert(joined);
        if (entry.components.first() == u"__MACOSX" || entry.components.last() == u".DS_Store")
            continue;
        if (entry.isDirectory)
            entry.size = 0;
        else if (entry.size > limits.maximumEntrySize ||
                 entry.size > limits.maximumTotalSize - total) {
            const QString problem =
                entry.size > limits.maximumEntrySize
                    ? QStringLiteral("“%1” would expand to %2 bytes").arg(path).arg(entry.size)
                    : QStringLiteral("its entries would expand to more than %1 bytes")
                          .arg(limits.maximumTotalSize);
            HXSetError(
                error,
                readError(name,
                          QStringLiteral("The archive “%1” is too large: %2.").arg(name, problem),
                          problem));
            return false;
        }
        total += entry.size;
        entries->push_back(std::move(entry));
    }
    return true;
}

// Adds the wrapper at `path` ("" for the root of the archive) and everything below it.
bool addEntries(zip_t *archive, const HXFileWrapper &wrapper, const QString &path, bool compress,
                time_t modified, QString *problem) {
    zip_int64_t index = -1;
    if (wrapper.isDirectory()) {
        if (!path.isEmpty())
            index = zip_dir_add(archive, (path + u'/').toUtf8().constData(), ZIP_FL_ENC_UTF_8);
    } else {
        const QByteArray &contents = wrapper.regularFileContents();
        // The contents live in the wrapper, which outlives the archive.
        zip_source_t *source =
            zip_source_buffer(archive, contents.constData(), zip_uint64_t(contents.size()), 0);
        if (source) {
            index = zip_file_add(archive, path.toUtf8().constData(), source, ZIP_FL_ENC_UTF_8);
            if (index < 0)
                zip_source_free(source);
        }
        if (index >= 0 &&
            zip_set_file_compression(archive, zip_uint64_t(index),
                                     compress ? ZIP_CM_DEFLATE : ZIP_CM_STORE, 0) != 0)
            index = -1;
    }
    if ((wrapper.isRegularFile() || !path.isEmpty()) &&
        (index < 0 || zip_file_set_mtime(archive, zip_uint64_t(index), modified, 0) != 0)) {
        *problem = QString::fromUtf8(zip_strerror(archive));
        return false;
    }
    const QMap<QString, HXFileWrapperRef> &children = wrapper.fileWrappers();
    for (auto it = children.cbegin(); wrapper.isDirectory() && it != children.cend(); ++it) {
        bool isDirectory = false;
        if (!it.value() || safeComponents(it.key(), &isDirectory).size() != 1 || isDirectory) {
            *problem = QStringLiteral("“%1” can’t be a name in an archive").arg(it.key());
            return false;
        }
        const QString childPath = path.isEmpty() ? it.key() : path + u'/' + it.key();
        if (!addEntries(archive, *it.value(), childPath, compress, modified, problem))
            return false;
    }
    return true;
}

// The bytes of an in-memory source that libzip has written an archive into.
bool readSource(zip_source_t *source, QByteArray *data) {
    zip_stat_t stat;
    zip_stat_init(&stat);
    if (zip_source_stat(source, &stat) != 0 || !(stat.valid & ZIP_STAT_SIZE) ||
        zip_source_open(source) != 0)
        return false;
    data->resize(qsizetype(stat.size));
    const zip_int64_t count = zip_source_read(source, data->data(), stat.size);
    zip_source_close(source);
    return count == zip_int64_t(stat.size);
}

} // namespace

HXFileWrapperRef HXZipArchive::fileWrapperFromZipData(const QByteArray &data, const QString &name,
                                                      HXError *error, const HXZipLimits &limits) {
    // libzip takes no data for an empty archive; no ZIP file is empty.
    zip_error_t openError;
    zip_error_init_with_code(&openError, data.isEmpty() ? ZIP_ER_NOZIP : ZIP_ER_OK);
    zip_source_t *source =
        data.isEmpty()
            ? nullptr
            : zip_source_buffer_create(data.constData(), zip_uint64_t(data.size()), 0, &openError);
    zip_t *archive =
        source ? zip_open_from_source(source, ZIP_RDONLY | ZIP_CHECKCONS, &openError) : nullptr;
    if (source && !archive)
        zip_source_free(source);
    if (!archive) {
        HXSetError(error, damagedError(name, QString::fromUtf8(zip_error_strerror(&openError))));
        zip_error_fini(&openError);
        return nullptr;
    }
    zip_error_fini(&openError);
    const std::unique_ptr<zip_t, void (*)(zip_t *)> closer(archive, zip_discard);

    std::vector<Entry> entries;
    if (!collectEntries(archive, name, limits, &entries, error))
        return nullptr;
    Node root;
    for (const Entry &entry : entries) {
        QByteArray contents;
        QString problem;
        if (!entry.isDirectory && !readEntry(archive, entry, &contents, &problem)) {
            HXSetError(error, damagedError(name, problem));
            return nullptr;
        }
        if (const qsizetype clash = insert(root, entry, std::move(contents))) {
            const QString text =
                QStringLiteral("The archive “%1” holds “%2” both as a file and as a folder.")
                    .arg(name, entry.components.first(clash).join(u'/'));
            HXSetError(error, readError(name, text, text));
            return nullptr;
        }
    }
    if (root.children.size() == 1 && root.children.begin()->second->isDirectory)
        return wrapperOfNode(*root.children.begin()->second, root.children.begin()->first);
    return wrapperOfNode(root, QString());
}

QByteArray HXZipArchive::zipDataFromFileWrapper(const HXFileWrapper &wrapper, bool compress,
                                                HXError *error) {
    const QString &topName = wrapper.preferredFilename();
    const auto fail = [&](const QString &problem, qint64 code = HXFileWriteUnknownError) {
        const QString shown = topName.isEmpty() ? QStringLiteral("package") : topName;
        HXSetError(
            error,
            HXError::fileError(
                code, topName,
                QStringLiteral("The archive of “%1” couldn’t be made: %2.").arg(shown, problem),
                problem));
        return QByteArray();
    };
    bool isDirectory = false;
    if ((wrapper.isRegularFile() || !topName.isEmpty()) &&
        (safeComponents(topName, &isDirectory).size() != 1 || isDirectory))
        return fail(QStringLiteral("“%1” can’t be a name in an archive").arg(topName),
                    HXFileWriteInvalidFileNameError);

    zip_error_t openError;
    zip_error_init(&openError);
    zip_source_t *source = zip_source_buffer_create(nullptr, 0, 0, &openError);
    zip_t *archive = source ? zip_open_from_source(source, ZIP_TRUNCATE, &openError) : nullptr;
    if (!archive) {
        const QString problem = QString::fromUtf8(zip_error_strerror(&openError));
        zip_error_fini(&openError);
        if (source)
            zip_source_free(source);
        return fail(problem);
    }
    zip_error_fini(&openError);
    // The archive frees its source on closing; keep it to read the bytes back.
    zip_source_keep(source);
    const std::unique_ptr<zip_source_t, void (*)(zip_source_t *)> sourceOwner(source,
                                                                              zip_source_free);

    // libzip stores local time in the DOS fields: local midnight reads as 2001-01-01 00:00:00
    // wherever the archive is made.
    const time_t modified =
        time_t(QDateTime(QDate(2001, 1, 1), QTime(0, 0), Qt::LocalTime).toSecsSinceEpoch());
    QString problem;
    if (!addEntries(archive, wrapper, topName, compress, modified, &problem)) {
        zip_discard(archive);
        return fail(problem);
    }
    if (zip_get_num_entries(archive, 0) == 0) {
        zip_discard(archive);
        return EmptyArchive;
    }
    if (zip_close(archive) != 0) {
        problem = QString::fromUtf8(zip_strerror(archive));
        zip_discard(archive);
        return fail(problem);
    }
    QByteArray data;
    if (!readSource(source, &data))
        return fail(QString::fromUtf8(zip_error_strerror(zip_source_error(source))));
    return data;
}
