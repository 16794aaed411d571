#pragma once

#include "Utilities/HXError.h"

#include <QByteArray>
#include <QString>
#include <QVariant>

// Property lists as QVariant values: dictionaries (QVariantMap), arrays (QVariantList), strings,
// signed integers (qint64), unsigned integers above the signed range (quint64), reals, Booleans,
// dates (QDateTime in UTC) and data (QByteArray).
//
// XML property lists are read and written here, so that every value comes back exactly: an
// integer keeps its sign, a carriage return stays one, a malformed value is an error with its
// line. Binary property lists are read through libplist. Stateless; any thread.
class HXPropertyList {
public:
    HXPropertyList() = delete;

    enum class Format { XML, Binary };

    // Reads a property list file of either format. Returns an invalid QVariant and fills `error`
    // (naming the file and the problem) when the file can't be read or isn't a property list.
    static QVariant readFile(const QString &path, HXError *error, Format *format = nullptr);

    // The same for bytes in memory; `sourceName` is the name that error messages give.
    static QVariant fromData(const QByteArray &data, const QString &sourceName, HXError *error,
                             Format *format = nullptr);

    // The XML form of a value. Returns an empty array and fills `error` when the value, or one
    // nested in it, can't be stored in a property list.
    static QByteArray xmlData(const QVariant &value, HXError *error);

    // Writes the XML form atomically: the file is replaced whole or not at all.
    static bool writeFile(const QVariant &value, const QString &path, HXError *error);

    // The seconds between the Unix epoch and the reference date 2001-01-01T00:00:00Z.
    static constexpr qint64 referenceDateOffset = 978307200;
};
