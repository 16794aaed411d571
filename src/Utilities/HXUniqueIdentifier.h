#pragma once

#include <QByteArray>
#include <QString>
#include <QUuid>

// A new unique identifier: a random UUID in its canonical form without hyphens, lower case, so
// 32 hexadecimal characters. Names new files, markups and presets.
inline QString HXNewUniqueIdentifier() {
    return QUuid::createUuid().toString(QUuid::Id128).toLower();
}

// The 64-bit FNV-1a hash of the bytes: stable across runs and machines, for names derived from
// paths and keys.
inline quint64 HXFNV1a64(const QByteArray &bytes) {
    quint64 hash = 0xcbf29ce484222325ULL;
    for (const char c : bytes) {
        hash ^= quint8(c);
        hash *= 0x100000001b3ULL;
    }
    return hash;
}
