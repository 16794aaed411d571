#include "Model/Operations/HXImportOperation.h"

#include "Model/Persistence/HXStorage.h"
#include "Model/Sheets/HXNativeSheet.h"
#include "Model/StorageTree/HXGroup.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Utilities/HXDispatchQueue.h"
#include "Utilities/HXFileSystem.h"
#include "Utilities/HXLineEnds.h"
#include "Utilities/HXLocalizedString.h"
#include "Utilities/HXStringFormat.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStringDecoder>

#include <atomic>
#include <mutex>

namespace {

QString localized(const QString &key) {
    return HXLocalizedString(key, QStringLiteral("HXImportOperation"));
}

const QStringList textExtensions{QStringLiteral("txt"), QStringLiteral("text")};

bool isSheetPackage(const QString &url) {
    return QFileInfo(url).suffix().compare(HXNativeSheet::pathExtension, Qt::CaseInsensitive) == 0;
}

// Names compared with runs of digits taken as numbers ("9 - x" before "10 - x"), the rest
// without regard to case.
int compareNumerically(const QString &a, const QString &b) {
    qsizetype i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        if (a.at(i).isDigit() && b.at(j).isDigit()) {
            qsizetype endA = i, endB = j;
            while (endA < a.size() && a.at(endA).isDigit())
                ++endA;
            while (endB < b.size() && b.at(endB).isDigit())
                ++endB;
            // Leading zeros don't count; then the longer run is the larger number.
            QStringView runA = QStringView(a).sliced(i, endA - i);
            QStringView runB = QStringView(b).sliced(j, endB - j);
            while (runA.size() > 1 && runA.front() == u'0')
                runA = runA.sliced(1);
            while (runB.size() > 1 && runB.front() == u'0')
                runB = runB.sliced(1);
            if (runA.size() != runB.size())
                return runA.size() < runB.size() ? -1 : 1;
            if (const int order = runA.compare(runB); order != 0)
                return order;
            i = endA;
            j = endB;
            continue;
        }
        const QChar x = a.at(i).toCaseFolded();
        const QChar y = b.at(j).toCaseFolded();
        if (x != y)
            return x < y ? -1 : 1;
        ++i;
        ++j;
    }
    return (a.size() - i > 0) - (b.size() - j > 0);
}

// The visible entries of a folder in the order of their names, numbers compared as numbers.
QStringList contentsOfFolder(const QString &url) {
    const QStringList names =
        QDir(url).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System);
    QStringList sorted = names;
    std::sort(sorted.begin(), sorted.end(), [](const QString &a, const QString &b) {
        const int order = compareNumerically(a, b);
        return order != 0 ? order < 0 : a < b;
    });
    QStringList urls;
    for (const QString &name : std::as_const(sorted))
        urls.append(url + u'/' + name);
    return urls;
}

QList<quint64> sheetSentinels(const std::shared_ptr<HXContainer> &target, qsizetype count,
                              quint64 index) {
    if (const auto group = std::dynamic_pointer_cast<HXGroup>(target))
        return group->sentinelsForInsertingSheetHandleClusters(QList<quint64>(count, 1), index, {});
    return QList<quint64>(count, HXNotFound);
}

QList<quint64> containerSentinels(const std::shared_ptr<HXContainer> &target, qsizetype count,
                                  quint64 index) {
    if (const auto group = std::dynamic_pointer_cast<HXGroup>(target))
        return group->sentinelsForInsertingContainers(quint64(count), index);
    return QList<quint64>(count, HXNotFound);
}

quint64 childIndex(const std::shared_ptr<HXContainer> &container) {
    return container->operationForCreatingContainerOfKind(HXContainerKind::Group) &
                   HXContainer::OperationHonoursIndex
               ? 0
               : HXNotFound;
}

HXError importError(const QString &url, const QString &reasonKey) {
    return HXError::fileError(
        HXFileReadUnknownError, url,
        HXStringWithFormat(localized(QStringLiteral("UnableToImport")), QFileInfo(url).fileName()),
        localized(reasonKey));
}

} // namespace

// --- Making operations ----------------------------------------------------------------------

std::shared_ptr<HXImportOperation>
HXImportOperation::importOperationForSheetURLs(const QStringList &urls,
                                               const std::shared_ptr<HXContainer> &target,
                                               quint64 insertionIndex) {
    QStringList containers, sheets;
    getContainerURLs(&containers, &sheets, urls);
    return importOperationForURLs(sheets, target, HXNotFound, insertionIndex);
}

std::shared_ptr<HXImportOperation>
HXImportOperation::importOperationForFolderURLs(const QStringList &urls,
                                                const std::shared_ptr<HXContainer> &target,
                                                quint64 insertionIndex) {
    QStringList containers, sheets;
    getContainerURLs(&containers, &sheets, urls);
    return importOperationForURLs(containers, target, insertionIndex, HXNotFound);
}

std::shared_ptr<HXImportOperation>
HXImportOperation::importOperationForURLs(const QStringList &urls,
                                          const std::shared_ptr<HXContainer> &target,
                                          quint64 containerInsertionIndex,
                                          quint64 sheetInsertionIndex) {
    QStringList containers, sheets;
    getContainerURLs(&containers, &sheets, urls);
    const quint64 workload = workLoadSizeForURLs(containers + sheets);
    return std::make_shared<HXImportOperation>(
        [containers, sheets, target, containerInsertionIndex,
         sheetInsertionIndex](HXContainerOperation &operation) {
            static_cast<HXImportOperation &>(operation).importURLs(
                containers, sheets, target, containerInsertionIndex, sheetInsertionIndex, true);
        },
        Items{}, Items{target}, Items{}, localized(QStringLiteral("ImportOperationTitle")),
        HXStringWithFormat(localized(QStringLiteral("ImportOperationDescription")),
                           quint64(containers.size() + sheets.size()), target->displayName()),
        workload);
}

// --- Files ----------------------------------------------------------------------------------

bool HXImportOperation::isImportableSheetAtURL(const QString &url) {
    const QFileInfo info(url);
    if (info.fileName().startsWith(u'.') || !info.exists())
        return false;
    if (info.isDir())
        return isSheetPackage(url);
    return info.isFile() && textExtensions.contains(info.suffix().toLower());
}

bool HXImportOperation::isImportableContainerAtURL(const QString &url) {
    const QFileInfo info(url);
    return info.isDir() && !info.fileName().startsWith(u'.') && !isSheetPackage(url);
}

void HXImportOperation::getContainerURLs(QStringList *containers, QStringList *sheets,
                                         const QStringList &urls) {
    for (const QString &url : urls) {
        if (isImportableContainerAtURL(url))
            containers->append(url);
        else if (isImportableSheetAtURL(url))
            sheets->append(url);
    }
}

QString HXImportOperation::filenameWithoutEnumerationPrefixFromURL(const QString &url) {
    static const QRegularExpression prefix(QStringLiteral("^\\d+(?: - |\\. |-|_| )\\s*"));
    const QString name = QFileInfo(url).fileName();
    QString stripped = name;
    stripped.remove(prefix);
    return stripped.trimmed().isEmpty() ? name : stripped;
}

QString HXImportOperation::textOfFileAtURL(const QString &url, HXError *error) {
    QFile file(url);
    if (!file.open(QIODevice::ReadOnly)) {
        HXSetError(error, importError(url, QStringLiteral("ImportGenericFileError")));
        return {};
    }
    const QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        HXSetError(error, importError(url, QStringLiteral("ImportGenericFileError")));
        return {};
    }
    QString text;
    if (const auto marked = QStringConverter::encodingForData(bytes)) {
        QStringDecoder decoder(*marked, QStringConverter::Flag::Stateless);
        text = decoder.decode(bytes);
        if (decoder.hasError())
            text = QString();
    } else if (!bytes.contains('\0')) {
        QStringDecoder decoder(QStringConverter::Utf8, QStringConverter::Flag::Stateless);
        text = decoder.decode(bytes);
        if (decoder.hasError())
            text = QString::fromLatin1(bytes);
    }
    if (text.isNull() && !bytes.isEmpty()) {
        HXSetError(error, importError(url, QStringLiteral("UnableToImportText")));
        return {};
    }
    if (text.startsWith(QChar(0xFEFF)))
        text.remove(0, 1);
    return HXStringByNormalizingLineEnds(text.isNull() ? QStringLiteral("") : text);
}

quint64 HXImportOperation::workLoadSizeForURLs(const QStringList &urls) {
    quint64 size = 0;
    for (const QString &url : urls) {
        if (isImportableContainerAtURL(url))
            size += 1 + workLoadSizeForURLs(contentsOfFolder(url));
        else if (isImportableSheetAtURL(url))
            size += 1;
    }
    return size;
}

// --- Importing --------------------------------------------------------------------------------

QSet<QString> HXImportOperation::lossDescriptionsForImportingSheetURLs(const QStringList &urls,
                                                                      HXStorage &storage) {
    QStringList packages;
    for (const QString &url : urls) {
        if (isSheetPackage(url))
            packages.append(url);
    }
    std::mutex mutex;
    QSet<QString> losses;
    HXDispatchQueue::apply(packages.size(), [&](qsizetype index) {
        if (isCancelled())
            return;
        const auto sheet = HXNativeSheet::sheetWithURL(packages.at(index), true);
        if (!HXDocument::waitForCompletion(
                [&](auto done) { sheet->openWithCompletionHandler(done); }))
            return;
        const QSet<QString> found = storage.lossDescriptionsForCopyingSheet(*sheet);
        sheet->closeWithCompletionHandler(nullptr);
        const std::lock_guard lock(mutex);
        losses.unite(found);
    });
    return losses;
}

void HXImportOperation::importURLs(const QStringList &containers, const QStringList &sheets,
                                   const std::shared_ptr<HXContainer> &target,
                                   quint64 containerIndex, quint64 sheetIndex, bool ask) {
    const auto storage = target->storage();
    if (!storage)
        return;
    registerInserting(target, workLoadSize());
    if (ask) {
        const QSet<QString> losses = lossDescriptionsForImportingSheetURLs(sheets, *storage);
        if (isCancelled() || (!losses.isEmpty() && !shouldCopyToTarget(target, losses))) {
            unregisterInserting(target);
            return;
        }
    }
    m_progressTarget = target;
    if (importContainers(containers, target, containerIndex))
        importSheets(sheets, target, sheetIndex);
    unregisterInserting(target);
}

std::shared_ptr<HXSheetHandle> HXImportOperation::importSheetFromURL(
    const QString &url, const std::shared_ptr<HXContainer> &target, quint64 sentinel,
    HXError *error) {
    HXStorage &storage = *target->storage();
    if (isSheetPackage(url)) {
        const auto sheet = HXNativeSheet::sheetWithURL(url, true);
        if (!HXDocument::waitForCompletion(
                [&](auto done) { sheet->openWithCompletionHandler(done); })) {
            HXSetError(error, importError(url, QStringLiteral("ImportGenericFileError")));
            return nullptr;
        }
        auto handle = storage.copySheet(sheet, target, sentinel, error);
        sheet->closeWithCompletionHandler(nullptr);
        return handle;
    }
    const QString text = textOfFileAtURL(url, error);
    if (text.isNull())
        return nullptr;
    const auto sheet = storage.newSheetMatchingMarkup({});
    if (!sheet) {
        HXSetError(error, importError(url, QStringLiteral("ImportGenericFileError")));
        return nullptr;
    }
    sheet->text()->replaceCharactersInRange(HXRange{0, 0}, HXReplacement(text));
    auto handle =
        storage.createSheet(sheet, sentinel, target, HXFileSystem::creationDate(url), error);
    sheet->closeWithCompletionHandler(nullptr);
    return handle;
}

bool HXImportOperation::importSheets(const QStringList &urls,
                                     const std::shared_ptr<HXContainer> &target, quint64 index) {
    if (urls.isEmpty())
        return !isCancelled();
    const QList<quint64> sentinels = sheetSentinels(target, urls.size(), index);
    std::atomic<bool> stopped = false;
    HXDispatchQueue::apply(urls.size(), [&](qsizetype i) {
        if (stopped || isCancelled())
            return;
        HXError error;
        const auto handle = importSheetFromURL(urls.at(i), target, sentinels.at(i), &error);
        if (!handle) {
            stopped = true;
            reportErrorToDelegate(error, nullptr, urls.at(i));
            return;
        }
        incrementProcessedWorkLoad(1);
        didProgress(m_progressTarget, 1);
        notifyInsertionOfItem(handle, nullptr, urls.at(i));
    });
    return !stopped && !isCancelled();
}

bool HXImportOperation::importContainers(const QStringList &urls,
                                         const std::shared_ptr<HXContainer> &target,
                                         quint64 index) {
    if (urls.isEmpty())
        return !isCancelled();
    const QList<quint64> sentinels = containerSentinels(target, urls.size(), index);
    std::atomic<bool> stopped = false;
    HXDispatchQueue::apply(urls.size(), [&](qsizetype i) {
        if (stopped || isCancelled())
            return;
        const QString &url = urls.at(i);
        HXError error;
        const auto group = target->storage()->createContainerOfKind(
            HXContainerKind::Group, target, filenameWithoutEnumerationPrefixFromURL(url),
            sentinels.at(i), &error);
        if (!group) {
            stopped = true;
            reportErrorToDelegate(error, nullptr, url);
            return;
        }
        incrementProcessedWorkLoad(1);
        didProgress(m_progressTarget, 1);
        notifyInsertionOfItem(group, nullptr, url);
        QStringList containers, sheets;
        getContainerURLs(&containers, &sheets, contentsOfFolder(url));
        const quint64 at = childIndex(group);
        if (!importContainers(containers, group, at) || !importSheets(sheets, group, at))
            stopped = true;
    });
    return !stopped && !isCancelled();
}
