#include "App/Library/HXItemsMimeData.h"

#include "App/Library/HXLibraryModel.h"
#include "Model/StorageTree/HXContainer.h"
#include "Model/StorageTree/HXSheetHandle.h"

#include <QJsonArray>
#include <QJsonDocument>

HXItemsMimeData::HXItemsMimeData(const QList<std::shared_ptr<HXStorageItem>> &items)
    : m_items(items) {
    QJsonArray urls;
    for (const auto &item : items)
        urls.append(item->URL());
    setData(HXLibraryModel::itemsMimeType, QJsonDocument(urls).toJson(QJsonDocument::Compact));
}

QList<std::shared_ptr<HXStorageItem>> HXItemsMimeData::itemsFromMimeData(const QMimeData *data,
                                                                         const Resolver &resolve) {
    QList<std::shared_ptr<HXStorageItem>> found;
    if (!data)
        return found;
    if (const auto *ours = qobject_cast<const HXItemsMimeData *>(data)) {
        for (const auto &item : ours->m_items) {
            if (item->isAlive())
                found.append(item);
        }
        return found;
    }
    if (!data->hasFormat(HXLibraryModel::itemsMimeType) || !resolve)
        return found;
    const QJsonArray urls =
        QJsonDocument::fromJson(data->data(HXLibraryModel::itemsMimeType)).array();
    for (const auto &url : urls) {
        if (auto item = resolve(url.toString()); item && item->isAlive() && !found.contains(item))
            found.append(item);
    }
    return found;
}

void HXItemsMimeData::splitItems(const QList<std::shared_ptr<HXStorageItem>> &items,
                                 QList<std::shared_ptr<HXSheetHandle>> *handles,
                                 QList<std::shared_ptr<HXContainer>> *containers) {
    for (const auto &item : items) {
        if (item->isContainer())
            containers->append(std::static_pointer_cast<HXContainer>(item));
        else if (auto handle = std::dynamic_pointer_cast<HXSheetHandle>(item))
            handles->append(handle);
    }
}
