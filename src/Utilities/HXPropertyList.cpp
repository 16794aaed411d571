#include "Utilities/HXPropertyList.h"

#include "Utilities/HXLocalizedString.h"
#include "Utilities/HXStringFormat.h"

#include <QDateTime>
#include <QFile>
#include <QSaveFile>

#include <cstdlib>
#include <memory>
#include <plist/plist.h>

using namespace Qt::StringLiterals;

QVariant HXReadXMLPropertyList(const QByteArray &data, QString *failure);

namespace {

QString text(const char16_t *key) {
    return HXLocalizedString(QString::fromUtf16(key), u"Utilities"_s);
}

struct PlistDeleter {
    void operator()(plist_t node) const { plist_free(node); }
};
using PlistPointer = std::unique_ptr<void, PlistDeleter>;

// Binary property lists store integers as signed 64-bit values; libplist hands them out as the
// same bits, unsigned. They come back signed here.
QVariant fromNode(plist_t node, int depth) {
    if (!node || depth > 512)
        return {};
    switch (plist_get_node_type(node)) {
    case PLIST_DICT: {
        QVariantMap map;
        plist_dict_iter iter = nullptr;
        plist_dict_new_iter(node, &iter);
        for (;;) {
            char *key = nullptr;
            plist_t value = nullptr;
            plist_dict_next_item(node, iter, &key, &value);
            if (!value) {
                std::free(key);
                break;
            }
            const QVariant converted = fromNode(value, depth + 1);
            const QString name = QString::fromUtf8(key);
            std::free(key);
            if (!converted.isValid()) {
                std::free(iter);
                return {};
            }
            map.insert(name, converted);
        }
        std::free(iter);
        return map;
    }
    case PLIST_ARRAY: {
        QVariantList list;
        const uint32_t count = plist_array_get_size(node);
        list.reserve(count);
        for (uint32_t i = 0; i < count; ++i) {
            const QVariant item = fromNode(plist_array_get_item(node, i), depth + 1);
            if (!item.isValid())
                return {};
            list.append(item);
        }
        return list;
    }
    case PLIST_STRING:
    case PLIST_KEY: {
        uint64_t length = 0;
        const char *bytes = plist_get_string_ptr(node, &length);
        return QString::fromUtf8(bytes, qsizetype(length));
    }
    case PLIST_BOOLEAN: {
        uint8_t value = 0;
        plist_get_bool_val(node, &value);
        return bool(value);
    }
    case PLIST_UINT: {
        uint64_t value = 0;
        plist_get_uint_val(node, &value);
        return qint64(value);
    }
    case PLIST_UID: {
        uint64_t value = 0;
        plist_get_uid_val(node, &value);
        return quint64(value);
    }
    case PLIST_REAL: {
        double value = 0;
        plist_get_real_val(node, &value);
        return value;
    }
    case PLIST_DATE: {
        int32_t seconds = 0, microseconds = 0;
        plist_get_date_val(node, &seconds, &microseconds);
        const qint64 ms =
            (qint64(seconds) + HXPropertyList::referenceDateOffset) * 1000 + microseconds / 1000;
        return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC);
    }
    case PLIST_DATA: {
        uint64_t length = 0;
        const char *bytes = plist_get_data_ptr(node, &length);
        return QByteArray(bytes, qsizetype(length));
    }
    default:
        return {};
    }
}

HXError corruptFileError(const QString &sourceName, const QString &reason) {
    return HXError::fileError(HXPropertyListReadCorruptError, sourceName,
                              HXStringWithFormat(text(u"plistCorrupt"), sourceName, reason),
                              reason);
}

} // namespace

QVariant HXPropertyList::fromData(const QByteArray &data, const QString &sourceName, HXError *error,
                                  Format *format) {
    if (data.startsWith("bplist00")) {
        if (format)
            *format = Format::Binary;
        if (data.size() > qsizetype(UINT32_MAX)) {
            HXSetError(error, corruptFileError(sourceName, text(u"plistTooLarge")));
            return {};
        }
        plist_t root = nullptr;
        plist_from_bin(data.constData(), uint32_t(data.size()), &root);
        const PlistPointer owner(root);
        const QVariant value = fromNode(root, 0);
        if (!value.isValid())
            HXSetError(error, corruptFileError(sourceName, text(u"plistBadBinary")));
        return value;
    }
    if (format)
        *format = Format::XML;
    QString failure;
    const QVariant value = HXReadXMLPropertyList(data, &failure);
    if (!value.isValid())
        HXSetError(error, corruptFileError(sourceName, failure));
    return value;
}

QVariant HXPropertyList::readFile(const QString &path, HXError *error, Format *format) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        const bool missing = !file.exists();
        HXSetError(error, HXError::fileError(
                              missing ? HXFileNoSuchFileError : HXFileReadUnknownError, path,
                              HXStringWithFormat(text(u"fileCannotRead"), path, file.errorString()),
                              file.errorString()));
        return {};
    }
    return fromData(file.readAll(), path, error, format);
}

bool HXPropertyList::writeFile(const QVariant &value, const QString &path, HXError *error) {
    const QByteArray bytes = xmlData(value, error);
    if (bytes.isEmpty())
        return false;
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit()) {
        HXSetError(error, HXError::fileError(HXFileWriteUnknownError, path,
                                             HXStringWithFormat(text(u"fileCannotWrite"), path,
                                                                file.errorString()),
                                             file.errorString()));
        return false;
    }
    return true;
}
