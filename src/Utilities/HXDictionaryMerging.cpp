#include "Utilities/HXDictionaryMerging.h"

bool HXIsDictionary(const QVariant &value) {
    return value.typeId() == QMetaType::QVariantMap || value.typeId() == QMetaType::QVariantHash;
}

void HXMergeDictionary(QVariantMap &receiver, const QVariantMap &other, bool existingKeysOnly) {
    for (auto it = other.cbegin(); it != other.cend(); ++it) {
        const auto existing = receiver.find(it.key());
        if (existing == receiver.end()) {
            if (!existingKeysOnly)
                receiver.insert(it.key(), it.value());
            continue;
        }
        if (HXIsDictionary(*existing) && HXIsDictionary(it.value())) {
            QVariantMap merged = existing->toMap();
            HXMergeDictionary(merged, it.value().toMap(), existingKeysOnly);
            *existing = merged;
        } else {
            *existing = it.value();
        }
    }
}

QVariantMap HXDictionaryByMerging(const QVariantMap &receiver, const QVariantMap &other,
                                  bool existingKeysOnly) {
    QVariantMap result = receiver;
    HXMergeDictionary(result, other, existingKeysOnly);
    return result;
}
