#include "Model/Persistence/HXNativeTrash.h"

#include "Utilities/HXLocalizedString.h"

QString HXNativeTrash::displayName() const {
    return HXLocalizedString(QStringLiteral("TrashName"), QStringLiteral("HXStorage"));
}

QVariantMap HXNativeTrash::infoFileContents(bool copy) const {
    if (copy)
        return {};
    QVariantMap contents{{QStringLiteral("sheetHandleSources"), sheetHandleSources()},
                         {QStringLiteral("childSources"), childSources()}};
    if (!containers().isEmpty())
        contents.insert(QStringLiteral("childOrder"), persistentContainerOrder());
    if (!sheetHandles().isEmpty()) {
        QVariantList list;
        for (const QStringList &cluster : persistentSheetHandleClusters())
            list.append(cluster);
        contents.insert(QStringLiteral("sheetClusters"), list);
    }
    return contents;
}

void HXNativeTrash::setInfoFileContents(const QVariantMap &contents) {
    setSources(contents.value(QStringLiteral("sheetHandleSources")).toMap(),
               contents.value(QStringLiteral("childSources")).toMap());
    setPersistentContainerOrder(contents.value(QStringLiteral("childOrder")).toStringList());
    QList<QStringList> clusters;
    for (const QVariant &cluster : contents.value(QStringLiteral("sheetClusters")).toList())
        clusters.append(cluster.toStringList());
    setPersistentSheetHandleClusters(clusters);
}
