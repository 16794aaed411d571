#pragma once

#include "Model/Stores/HXUbiquitousStore.h"
#include "Text/Markup/HXMarkup.h"

#include <QMap>

// The markups a user can choose from: copies of the built-in ones (the originals stay for
// resetting) and the user's own, kept as `markup.xml` files "<identifier>.velmoramarkup" in the
// folder "Markups" and its cloud mirror. A built-in markup is written only while it differs
// from its original; a reset one loses its file at the next write. A markup file deleted
// elsewhere removes a user markup and resets a built-in one.
//
// The shared store is made on first use on the main thread; tests and the command-line tool make
// their own over folders of theirs. Main thread, but for the lookups of markups (the default, by
// identifier, equal, replacement, available), which sheets make from any thread while they read.
class HXMarkupStore : public HXUbiquitousStore, public HXMarkupObserver {
    Q_OBJECT
public:
    static std::shared_ptr<HXMarkupStore> create(const HXStoreOptions &options = {});
    static std::shared_ptr<HXMarkupStore> globalStore();
    static inline const QString itemPathExtension = QStringLiteral("velmoramarkup");

    // The default markup: the store's copy of `markdownqr`; the run ends when it is missing.
    std::shared_ptr<HXMarkup> defaultIntrinsicMarkup() const;
    std::shared_ptr<HXMarkup> markupWithIdentifier(const QString &identifier) const;
    // The store's markup of the same identifier if its tags are equal, else any with equal tags.
    std::shared_ptr<HXMarkup> markupEqualToMarkup(const HXMarkup &markup) const;
    std::shared_ptr<HXMarkup> replacementMarkupForMarkup(const HXMarkup &markup) const;
    // Adds a markup new to the store under a new unique identifier, which it returns.
    QString registerMarkup(const std::shared_ptr<HXMarkup> &markup);
    void updateMarkupWithIdentifier(const QString &identifier, const HXMarkup &markup);
    void removeMarkupWithIdentifier(const QString &identifier);
    void resetIntrinsicMarkupWithIdentifier(const QString &identifier);
    // The built-in markups first, then the user's, each by display name.
    QList<std::shared_ptr<HXMarkup>> availableMarkups() const;
    static bool isIntrinsicIdentifier(const QString &identifier);
    // Removes every markup and adds fresh copies of the built-in ones.
    void reset();

    QString directoryName() const override { return QStringLiteral("Markups"); }
    QStringList allowedItemPathExtensions() const override { return {itemPathExtension}; }
    QStringList writableItems() const override;
    bool readItemFromURL(const QString &url, HXError *error) override;
    bool writeItem(const QString &identifier, const QString &url, HXError *error) override;
    void accomodateDeletionOfItemWithIdentifier(const QString &identifier) override;

    void markupChangedStructure(HXMarkup &markup) override;

Q_SIGNALS:
    void availableMarkupsChanged();

protected:
    void initDefaultStateWithOptions(const HXStoreOptions &options) override;

private:
    HXMarkupStore() = default;
    void addMarkup(const std::shared_ptr<HXMarkup> &markup);
    void removeMarkup(const std::shared_ptr<HXMarkup> &markup);
    std::shared_ptr<HXMarkupObserver> observer();

    // A copy of the markups, for the lookups that sheets make while they read on other threads.
    QMap<QString, std::shared_ptr<HXMarkup>> markups() const;

    // Changed on the main thread only, under the mutex.
    QMap<QString, std::shared_ptr<HXMarkup>> m_markups;
    mutable std::mutex m_markupsMutex;
};
