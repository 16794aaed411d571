#include "Model/Operations/HXSaveToOperation.h"

#include "Model/Sheets/HXNativeSheet.h"
#include "Model/StorageTree/HXContainer.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Utilities/HXDispatchQueue.h"
#include "Utilities/HXFileCoordinator.h"
#include "Utilities/HXFileSystem.h"
#include "Utilities/HXLocalizedString.h"
#include "Utilities/HXStringFormat.h"

#include <QSet>

#include <atomic>

namespace {

QString localized(const QString &key) {
    return HXLocalizedString(key, QStringLiteral("HXSaveToOperation"));
}

// Names longer than this are cut, so that prefix, extension and all stay within a file name's
// 255 bytes.
constexpr qsizetype longestName = 120;

// The title and extension of a sheet, as its file is to be named.
QPair<QString, QString> nameOfSheet(const std::shared_ptr<HXSheetHandle> &handle) {
    const auto sheet = handle->loadSheetForReading();
    if (!sheet)
        return {QString(), HXNativeSheet::pathExtension};
    QString title;
    const auto text = sheet->text();
    text->read([&] { title = text->stringWithTitleFromRange(HXRange{0, text->length()}); });
    return {title, sheet->sanitizedPathExtension()};
}

QStringList fileURLs(const QString &folder, const QStringList &names) {
    QStringList urls;
    for (const QString &name : names)
        urls.append(folder + u'/' + name);
    return urls;
}

int digitsOf(qsizetype count) {
    return int(QString::number(count).size());
}

QStringList sheetFilenames(const HXSaveToOperation::HandleList &handles, int width) {
    QStringList names, extensions;
    for (const auto &handle : handles) {
        const auto [title, extension] = nameOfSheet(handle);
        names.append(title);
        extensions.append(extension);
    }
    return HXSaveToOperation::synthesizeFilenames(names, extensions, width);
}

QStringList containerFilenames(const HXSaveToOperation::ContainerList &containers, int width) {
    QStringList names;
    for (const auto &container : containers)
        names.append(container->displayName());
    return HXSaveToOperation::synthesizeFilenames(names, QStringList(names.size()), width);
}

HXSaveToOperation::ContainerList savedContainers(const HXSaveToOperation::ContainerList &list) {
    HXSaveToOperation::ContainerList kept;
    for (const auto &container : list) {
        if (container && container->includeInSaveToOperation())
            kept.append(container);
    }
    return kept;
}

quint64 workLoadOf(const HXSaveToOperation::ContainerList &containers) {
    quint64 size = 0;
    for (const auto &container : containers)
        size += 1 + quint64(container->allContainers().size()) +
                quint64(container->allSheetHandles().size());
    return size;
}

} // namespace

// --- Making operations ----------------------------------------------------------------------

std::shared_ptr<HXSaveToOperation> HXSaveToOperation::saveToOperationForSheetHandles(
    const HandleList &handles, const QString &targetURL, int orderingPrefixWidth,
    QStringList *promisedFileNames) {
    const QStringList names = sheetFilenames(handles, orderingPrefixWidth);
    if (promisedFileNames)
        *promisedFileNames = names;
    const QStringList urls = fileURLs(targetURL, names);
    return std::make_shared<HXSaveToOperation>(
        [handles, urls](HXContainerOperation &operation) {
            static_cast<HXSaveToOperation &>(operation).saveItems(handles, {}, urls);
        },
        Items(handles.begin(), handles.end()), Items{}, Items{},
        localized(QStringLiteral("SaveToOperationTitle")),
        HXStringWithFormat(localized(QStringLiteral("SaveToOperationDescription")),
                           quint64(handles.size())),
        quint64(handles.size()));
}

std::shared_ptr<HXSaveToOperation> HXSaveToOperation::saveToOperationForContainers(
    const ContainerList &containers, const QString &targetURL, int orderingPrefixWidth,
    QStringList *promisedFileNames) {
    const ContainerList kept = savedContainers(containers);
    const QStringList names = containerFilenames(kept, orderingPrefixWidth);
    if (promisedFileNames)
        *promisedFileNames = names;
    const QStringList urls = fileURLs(targetURL, names);
    return std::make_shared<HXSaveToOperation>(
        [kept, urls](HXContainerOperation &operation) {
            static_cast<HXSaveToOperation &>(operation).saveItems({}, kept, urls);
        },
        Items(kept.begin(), kept.end()), Items{}, Items{},
        localized(QStringLiteral("SaveToOperationTitle")),
        HXStringWithFormat(localized(QStringLiteral("SaveToOperationDescription")),
                           quint64(kept.size())),
        workLoadOf(kept));
}

// --- Names ------------------------------------------------------------------------------------

QString HXSaveToOperation::stringByReplacingUnallowedFilenameCharacters(const QString &name) {
    QString clean;
    clean.reserve(name.size());
    for (const QChar c : name)
        clean.append(c == u'/' || c == u'\\' || c == u':' || c.category() == QChar::Other_Control
                         ? u'-'
                         : c);
    clean = clean.simplified();
    // A leading dot would hide the file.
    while (clean.startsWith(u'.'))
        clean.remove(0, 1);
    if (clean.size() > longestName)
        clean.truncate(clean.at(longestName - 1).isHighSurrogate() ? longestName - 1 : longestName);
    return clean.trimmed();
}

QStringList HXSaveToOperation::synthesizeFilenames(const QStringList &names,
                                                   const QStringList &extensions,
                                                   int orderingPrefixWidth) {
    const bool ordered = orderingPrefixWidth > 0 && names.size() >= 2;
    QStringList result;
    QSet<QString> taken;
    for (qsizetype i = 0; i < names.size(); ++i) {
        QString name = stringByReplacingUnallowedFilenameCharacters(names.at(i));
        if (name.isEmpty())
            name = localized(QStringLiteral("Untitled"));
        if (ordered)
            name = QStringLiteral("%1 - %2")
                       .arg(quint64(i + 1), orderingPrefixWidth, 10, QLatin1Char('0'))
                       .arg(name);
        const QString extension = extensions.value(i);
        const auto full = [&](const QString &base) {
            return extension.isEmpty() ? base : base + u'.' + extension;
        };
        QString candidate = full(name);
        for (int n = 2; taken.contains(candidate.toCaseFolded()); ++n)
            candidate = full(name + u' ' + QString::number(n));
        taken.insert(candidate.toCaseFolded());
        result.append(candidate);
    }
    return result;
}

// --- Saving -----------------------------------------------------------------------------------

void HXSaveToOperation::setExistingFileHandler(ExistingFileHandler handler) {
    const std::lock_guard lock(m_handlerMutex);
    m_existingFileHandler = std::move(handler);
}

std::optional<QStringList> HXSaveToOperation::prepareOverwritingFileURLs(const QStringList &urls) {
    QStringList existing;
    for (const QString &url : urls) {
        if (HXFileIdentity::ofPath(url).exists)
            existing.append(url);
    }
    if (existing.isEmpty())
        return urls;
    ExistingFileHandler handler;
    {
        const std::lock_guard lock(m_handlerMutex);
        handler = m_existingFileHandler;
    }
    const std::optional<QStringList> chosen = handler ? handler(existing) : std::nullopt;
    if (!chosen || chosen->isEmpty()) {
        cancel();
        return std::nullopt;
    }
    QStringList kept;
    for (const QString &url : urls) {
        if (!existing.contains(url)) {
            kept.append(url);
            continue;
        }
        if (!chosen->contains(url))
            continue;
        HXError error;
        HXFileCoordinator coordinator;
        bool removed = false;
        coordinator.coordinateWritingItemAtURL(
            url, HXFileCoordinator::WritingForDeleting, &error,
            [&](const QString &path) { removed = HXFileSystem::removeItem(path, &error); });
        if (!removed) {
            reportErrorToDelegate(error, nullptr, url);
            return std::nullopt;
        }
        kept.append(url);
    }
    return kept;
}

void HXSaveToOperation::saveItems(const HandleList &handles, const ContainerList &containers,
                                  const QStringList &urls) {
    const std::optional<QStringList> chosen = prepareOverwritingFileURLs(urls);
    if (!chosen)
        return;
    // The items whose names were left out stay unsaved.
    HandleList keptHandles;
    ContainerList keptContainers;
    QStringList keptURLs;
    for (qsizetype i = 0; i < urls.size(); ++i) {
        if (!chosen->contains(urls.at(i))) {
            incrementProcessedWorkLoad(
                i < handles.size() ? 1 : qint64(workLoadOf({containers.at(i - handles.size())})));
            continue;
        }
        keptURLs.append(urls.at(i));
        if (i < handles.size())
            keptHandles.append(handles.at(i));
        else
            keptContainers.append(containers.at(i - handles.size()));
    }
    if (saveContainersWithFileURLs(keptContainers, keptURLs.mid(keptHandles.size())))
        saveSheetHandlesWithFileURLs(keptHandles, keptURLs.first(keptHandles.size()));
}

bool HXSaveToOperation::saveSheetHandlesWithFileURLs(const HandleList &handles,
                                                     const QStringList &urls) {
    std::atomic<bool> stopped = false;
    HXDispatchQueue::apply(handles.size(), [&](qsizetype i) {
        if (stopped || isCancelled())
            return;
        const auto sheet = handles.at(i)->loadSheetForReading();
        if (!sheet) {
            stopped = true;
            return;
        }
        HXError error;
        if (!sheet->saveToURL(urls.at(i), HXDocument::SaveOperationSaveTo, &error)) {
            stopped = true;
            reportErrorToDelegate(error, handles.at(i));
            return;
        }
        incrementProcessedWorkLoad(1);
    });
    return !stopped && !isCancelled();
}

bool HXSaveToOperation::saveContainersWithFileURLs(const ContainerList &containers,
                                                   const QStringList &urls) {
    std::atomic<bool> stopped = false;
    HXDispatchQueue::apply(containers.size(), [&](qsizetype i) {
        if (stopped || isCancelled())
            return;
        const auto &container = containers.at(i);
        HXError error;
        bool made = false;
        HXFileCoordinator coordinator;
        coordinator.coordinateWritingItemAtURL(urls.at(i), 0, &error, [&](const QString &path) {
            made = HXFileSystem::makeFolder(path, &error);
        });
        if (!made) {
            stopped = true;
            reportErrorToDelegate(error, container);
            return;
        }
        incrementProcessedWorkLoad(1);
        // Inside, the order is kept by numbers, groups and sheets each counted from 1.
        const ContainerList children = savedContainers(container->containers());
        const HandleList handles = container->sheetHandles();
        const QStringList childNames = containerFilenames(children, digitsOf(children.size()));
        const QStringList sheetNames = sheetFilenames(handles, digitsOf(handles.size()));
        if (!saveContainersWithFileURLs(children, fileURLs(urls.at(i), childNames)) ||
            !saveSheetHandlesWithFileURLs(handles, fileURLs(urls.at(i), sheetNames)))
            stopped = true;
    });
    return !stopped && !isCancelled();
}
