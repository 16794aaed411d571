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
    if (!sheetHandles().isEmpty())
        contents.insert(QStringLiteral("sheetClusters"), sheetClustersPropertyList());
    return contents;
}

void HXNativeTrash::setInfoFileContents(const QVariantMap &contents) {
    setSources(contents.value(QStringLiteral("sheetHandleSources")).toMap(),
               contents.value(QStringLiteral("childSources")).toMap());
    setPersistentContainerOrder(contents.value(QStringLiteral("childOrder")).toStringList());
    setSheetClustersFromPropertyList(contents.value(QStringLiteral("sheetClusters")));
}
