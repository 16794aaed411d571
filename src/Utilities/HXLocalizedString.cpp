#include "Utilities/HXLocalizedString.h"

#include "Utilities/HXPropertyList.h"

#include <QFile>
#include <QHash>
#include <QMutex>
#include <QStringList>
#include <QVariantMap>

namespace {

struct Tables {
    QMutex mutex;
    QHash<QString, QVariantMap> loaded;
};

Tables &tables() {
    static Tables instance;
    return instance;
}

QVariantMap loadTable(const QString &table) {
    const QString path = QStringLiteral(":/Strings/en/%1.plist").arg(table);
    if (!QFile::exists(path))
        return {};
    // The tables are ours and compiled in; a broken one shows its keys rather than failing.
    return HXPropertyList::readFile(path, nullptr).toMap();
}

} // namespace

QString HXLocalizedString(const QString &key, const QString &table) {
    // Tables being read on this thread: reading one may itself ask for a text (an error message
    // of the property-list reader), which then comes back as its key.
    thread_local QStringList loading;

    Tables &t = tables();
    {
        QMutexLocker locker(&t.mutex);
        const auto it = t.loaded.constFind(table);
        if (it != t.loaded.cend()) {
            const QVariant text = it->value(key);
            return text.isValid() ? text.toString() : key;
        }
    }
    if (loading.contains(table))
        return key;
    loading.append(table);
    const QVariantMap strings = loadTable(table);
    loading.removeOne(table);

    QMutexLocker locker(&t.mutex);
    const QVariantMap &stored = *t.loaded.insert(table, strings);
    const QVariant text = stored.value(key);
    return text.isValid() ? text.toString() : key;
}
