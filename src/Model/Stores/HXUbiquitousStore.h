#pragma once

#include "Utilities/HXBatchedWrite.h"
#include "Utilities/HXError.h"
#include "Utilities/HXFilePresentationProxy.h"
#include "Utilities/HXNotificationCenter.h"

#include <QDateTime>
#include <QHash>
#include <QObject>
#include <QSet>
#include <QStringList>

#include <chrono>
#include <memory>
#include <mutex>

// Where a store keeps its files, and how soon it writes them.
struct HXStoreOptions {
    // The application-support folder; empty: the platform's.
    QString applicationSupportPath;
    // The cloud container; unset: the user default "storage.ubiquityContainer".
    std::optional<QString> ubiquityContainerPath;
    std::chrono::milliseconds writeDelay{10000};
};

// A folder of small files in application support (markups, themes) with its mirror in the cloud
// container, "Settings/<directoryName>", so that a user's machines share them. What the items are
// is the subclass's; this class reads the folders at start and whenever a file in them appears or
// changes (unless its modification date is the one read last), and writes them back batched: the
// first change schedules one write of both folders ten seconds later, and termination writes what
// is pending. A write writes each item that differs from its file and then removes the files of
// items that are gone, except files this version could not read, which are left alone.
//
// Two-phase: make it with its subclass, then call `initWithOptions`. Items change on the main
// thread; the presenters' callbacks hop there. Owned through a shared pointer, since its
// presenters hold it weakly.
class HXUbiquitousStore : public QObject,
                          public HXFilePresenter,
                          public std::enable_shared_from_this<HXUbiquitousStore> {
    Q_OBJECT
public:
    ~HXUbiquitousStore() override;

    void initWithOptions(const HXStoreOptions &options);

    virtual QString directoryName() const = 0;
    virtual QString ubiquitousSettingsDirectoryName() const { return QStringLiteral("Settings"); }
    virtual QStringList allowedItemPathExtensions() const = 0;
    QString preferredItemPathExtension() const;
    // The identifiers of the items that belong on disk.
    virtual QStringList writableItems() const = 0;
    // Reads one file into the store; false with an error when it can't.
    virtual bool readItemFromURL(const QString &url, HXError *error) = 0;
    // Writes one item, inside a coordinated write of the URL; writes nothing when the file holds
    // it already.
    virtual bool writeItem(const QString &identifier, const QString &url, HXError *error) = 0;
    // The item's file was deleted in the cloud.
    virtual void accomodateDeletionOfItemWithIdentifier(const QString &identifier) = 0;

    // Lists the folder and reads every file with an allowed extension.
    void loadFromDirectory(const QString &directory);
    void writeToDirectory(const QString &directory);
    // Asks for the batched write.
    void noteStoreChanged();
    // Writes if a write is pending: later on the main queue, or at once.
    void writeIfNeeded(bool asynchronously);
    bool needsWrite() const { return m_write && m_write->isWritePending(); }
    QString localDirectory() const;
    QString ubiquitousDirectory() const { return m_ubiquitousDirectory; }
    // The cloud container changed (set, cleared, or its folder came or went): the mirror follows.
    void ubiquityIdentityChanged();
    void setUbiquitousDirectory(const QString &directory);
    // Reads the file unless it is unchanged since the last read; `read` says whether it did.
    bool performReadFromURL(const QString &url, HXError *error, bool *read = nullptr);
    // Files of an allowed extension that could not be read; never removed by a write.
    QSet<QString> ignoredFileURLs() const { return m_ignoredFileURLs; }

    // The presenters of both folders forward here.
    QString presentedItemURL() const override { return localDirectory(); }
    std::shared_ptr<HXDispatchQueue> presentedItemOperationQueue() const override {
        return HXDispatchQueue::mainQueue();
    }
    void presentedSubitemDidAppearAtURL(const QString &url) override;
    void presentedSubitemDidChangeAtURL(const QString &url) override;
    void presentedSubitemAtURL(const QString &oldURL, const QString &newURL) override;
    void accommodatePresentedSubitemDeletionAtURL(const QString &url,
                                                  CompletionHandler handler) override;
    void accommodatePresentedItemDeletionWithCompletionHandler(CompletionHandler handler) override;

Q_SIGNALS:
    // After each write of both folders.
    void storeWritten();

protected:
    HXUbiquitousStore() = default;
    // The state before any folder is read: the built-in items.
    virtual void initDefaultStateWithOptions(const HXStoreOptions &) {}
    // For subclasses that keep several kinds of files: whether the path is one of the items.
    bool hasAllowedExtension(const QString &path) const;

private:
    void write();
    void presentFolder(std::shared_ptr<HXFilePresentationProxy> &proxy, const QString &folder);
    void readChangedItem(const QString &url);
    void followDeletion(const QString &url);

    HXStoreOptions m_options;
    std::unique_ptr<HXBatchedWrite> m_write;
    std::shared_ptr<HXFilePresentationProxy> m_presenter;      // the cloud folder
    std::shared_ptr<HXFilePresentationProxy> m_localPresenter; // the folder in application support
    QString m_ubiquitousDirectory;
    QSet<QString> m_ignoredFileURLs;
    mutable std::mutex m_modificationDatesMutex;
    // The modification time (nanoseconds) of each file when it was last read.
    QHash<QString, qint64> m_modificationDates;
    HXNotificationObservation m_terminationObservation;
};
