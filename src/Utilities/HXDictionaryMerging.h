#pragma once

#include <QVariantMap>

// Merges `other` into `receiver` key by key. With `existingKeysOnly`, keys that the receiver lacks
// are skipped. Where both values are dictionaries they merge recursively with the same flag;
// otherwise the incoming value wins. A key that only the receiver has is never dropped.
void HXMergeDictionary(QVariantMap &receiver, const QVariantMap &other, bool existingKeysOnly);

// A copy of `receiver` with `other` merged into it as above.
QVariantMap HXDictionaryByMerging(const QVariantMap &receiver, const QVariantMap &other,
                                  bool existingKeysOnly);

// Whether a value is a dictionary (a QVariantMap, or a QVariantHash read from elsewhere).
bool HXIsDictionary(const QVariant &value);
