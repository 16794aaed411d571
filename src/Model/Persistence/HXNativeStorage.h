#pragma once

#include "Model/Persistence/HXStorage.h"

class HXMarkup;

// A storage in the library format: groups, filters and the trash are folders recognised by
// their suffixes, sheets are packages with the extension "velmora", and the storage's own
// settings are in "Root.plist". Anything else in a folder is left alone. Made by `storageAtURL`
// (a folder of built-in content, say) or as a library; any thread.
class HXNativeStorage : public HXStorage {
public:
    static inline const QString rootInfoName = QStringLiteral("Root.plist");

    static std::shared_ptr<HXNativeStorage> storageAtURL(const QString &url,
                                                         const QString &identifier = {});
    // A new UUID as 32 lower-case hexadecimal digits.
    static QString newUniqueIdentifier();

    HXStorageItemKind classForReadingItemAtURL(const QString &url) const override;
    HXStorageItemKind classForFilename(const QString &url) const override;
    std::shared_ptr<HXContainer> newContainer(HXStorageItemKind kind,
                                              const QString &filename) override;
    std::shared_ptr<HXSheet> sheetForURL(const QString &url, bool readOnly,
                                         HXError *error) override;
    QString changeTokenForItemAtURL(const QString &url) const override;
    QString filenameForPreferredFilename(const QString &preferred, const QString &current,
                                         const std::shared_ptr<HXContainer> &container) override;
    QString preferredFilenameForSheet() const override;
    QString preferredFilenameForContainerOfKind(HXStorageItemKind kind) const override;
    std::shared_ptr<HXSheet>
    newSheetMatchingMarkup(const std::shared_ptr<HXMarkup> &markup) override;
    bool writeNewContainerAtURL(const QString &url, const HXContainerRef &prototype,
                                HXError *error) override {
        return createContainerAtURL(url, prototype, error);
    }

    QString defaultMarkupIdentifier() const;
    std::shared_ptr<HXMarkup> defaultMarkup() const;
    void noteUseOfMarkup(const std::shared_ptr<HXMarkup> &markup);

    QVariant persistentObjectForItem(const std::shared_ptr<HXStorageItem> &item) const override;
    std::shared_ptr<HXStorageItem> itemForPersistentObject(const QVariant &object) const override;

    QString infoFileURL() const override;
    QVariantMap infoDictionary() const override;
    void setInfoDictionary(const QVariantMap &dictionary) override;

    // Makes a container's folder with the info file of a new one of that name.
    static bool createContainerAtURL(const QString &url,
                                     const std::shared_ptr<HXContainer> &prototype, HXError *error);

protected:
    HXNativeStorage();

private:
    mutable std::mutex m_settingsMutex;
    QString m_defaultMarkupIdentifier;
};
