#pragma once

#include "Model/Operations/HXStorageOperation.h"

#include <QStringList>

class HXContainer;
class HXSheetHandle;
class HXStorage;

// Brings files from outside into a library: sheet packages of our own, plain-text files, and
// folders of them, which become groups. A folder is named after its file name without an
// ordering prefix ("2 - Part Two" gives "Part Two"), and its contents come in the order of their
// names, numbers compared as numbers, so that a folder saved from a group comes back as it was.
// Files of other types are left out. Each new item is announced with the file it came from.
class HXImportOperation : public HXInsertingContainerOperation {
public:
    static std::shared_ptr<HXImportOperation>
    importOperationForSheetURLs(const QStringList &urls, const std::shared_ptr<HXContainer> &target,
                                quint64 insertionIndex);
    static std::shared_ptr<HXImportOperation>
    importOperationForFolderURLs(const QStringList &urls, const std::shared_ptr<HXContainer> &target,
                                 quint64 insertionIndex);
    static std::shared_ptr<HXImportOperation>
    importOperationForURLs(const QStringList &urls, const std::shared_ptr<HXContainer> &target,
                           quint64 containerInsertionIndex, quint64 sheetInsertionIndex);

    // Whether the file is one that becomes a sheet: a sheet package, or plain text.
    static bool isImportableSheetAtURL(const QString &url);
    // A folder that is not a package.
    static bool isImportableContainerAtURL(const QString &url);
    // Sorts the URLs into folders and sheets; the rest is dropped.
    static void getContainerURLs(QStringList *containers, QStringList *sheets,
                                 const QStringList &urls);
    // "12 - Name" and "12. Name" give "Name"; a name that is only a number stays.
    static QString filenameWithoutEnumerationPrefixFromURL(const QString &url);
    // The plain text of a file: its encoding found from a byte-order mark, else UTF-8, else
    // Latin-1; lines ended by line feeds. Null with an error for a file that is not text.
    static QString textOfFileAtURL(const QString &url, HXError *error);
    // 1 per sheet file and per folder, with the folders' contents.
    static quint64 workLoadSizeForURLs(const QStringList &urls);

    using HXInsertingContainerOperation::HXInsertingContainerOperation;

private:
    void importURLs(const QStringList &containers, const QStringList &sheets,
                    const std::shared_ptr<HXContainer> &target, quint64 containerIndex,
                    quint64 sheetIndex, bool ask);
    bool importSheets(const QStringList &urls, const std::shared_ptr<HXContainer> &target,
                      quint64 index);
    bool importContainers(const QStringList &urls, const std::shared_ptr<HXContainer> &target,
                          quint64 index);
    std::shared_ptr<HXSheetHandle> importSheetFromURL(const QString &url,
                                                      const std::shared_ptr<HXContainer> &target,
                                                      quint64 sentinel, HXError *error);
    QSet<QString> lossDescriptionsForImportingSheetURLs(const QStringList &urls,
                                                        HXStorage &storage);

    // The container that shows the progress of the whole import.
    std::shared_ptr<HXContainer> m_progressTarget;
};
