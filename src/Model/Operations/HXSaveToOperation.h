#pragma once

#include "Model/Operations/HXStorageOperation.h"

#include <QStringList>

#include <optional>

class HXContainer;
class HXSheetHandle;

// Saves copies of sheets and groups into a folder outside the library. A sheet becomes a package
// named after its title; a group a folder named after it, holding its groups and sheets saved
// with ordering prefixes, so that an import brings the group back in order. The sheets
// themselves are left alone. Names that exist already are offered to the existing-file handler,
// which answers which of them to overwrite; no handler or no answer cancels before anything is
// written.
class HXSaveToOperation : public HXContainerOperation {
public:
    using HandleList = QList<std::shared_ptr<HXSheetHandle>>;
    using ContainerList = QList<std::shared_ptr<HXContainer>>;
    // Gets the existing URLs; answers those to overwrite, or nothing to cancel.
    using ExistingFileHandler = std::function<std::optional<QStringList>(const QStringList &)>;

    // `orderingPrefixWidth` above 0 puts "N - " before each name, N zero-padded to that width,
    // when there are two items or more. The names are made now and given back in
    // `promisedFileNames` when asked for.
    static std::shared_ptr<HXSaveToOperation>
    saveToOperationForSheetHandles(const HandleList &handles, const QString &targetURL,
                                   int orderingPrefixWidth,
                                   QStringList *promisedFileNames = nullptr);
    static std::shared_ptr<HXSaveToOperation>
    saveToOperationForContainers(const ContainerList &containers, const QString &targetURL,
                                 int orderingPrefixWidth,
                                 QStringList *promisedFileNames = nullptr);

    // The file names for the items in the folder, in their order: cleaned of characters that
    // names can't hold, "Untitled" for an empty one, made unique among themselves.
    static QStringList synthesizeFilenames(const QStringList &names, const QStringList &extensions,
                                           int orderingPrefixWidth);
    static QString stringByReplacingUnallowedFilenameCharacters(const QString &name);

    void setExistingFileHandler(ExistingFileHandler handler);

    using HXContainerOperation::HXContainerOperation;

private:
    void saveItems(const HandleList &handles, const ContainerList &containers,
                   const QStringList &urls);
    // Which of the URLs to write, after the existing ones chosen were deleted; nothing when the
    // operation was cancelled.
    std::optional<QStringList> prepareOverwritingFileURLs(const QStringList &urls);
    bool saveSheetHandlesWithFileURLs(const HandleList &handles, const QStringList &urls);
    bool saveContainersWithFileURLs(const ContainerList &containers, const QStringList &urls);

    std::mutex m_handlerMutex;
    ExistingFileHandler m_existingFileHandler;
};
