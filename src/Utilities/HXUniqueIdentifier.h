#pragma once

#include <QString>
#include <QUuid>

// A new unique identifier: a random UUID in its canonical form without hyphens, lower case, so
// 32 hexadecimal characters. Names new files, markups and presets.
inline QString HXNewUniqueIdentifier() {
    return QUuid::createUuid().toString(QUuid::Id128).toLower();
}
