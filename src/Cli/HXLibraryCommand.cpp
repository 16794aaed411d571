#include "Cli/HXCommandLineTool.h"
#include "Model/Operations/HXImportOperation.h"
#include "Model/Operations/HXMoveOperation.h"
#include "Model/Operations/HXRemoveOperation.h"
#include "Model/Operations/HXSaveToOperation.h"
#include "Model/Operations/HXStorageOperationQueue.h"
#include "Model/Persistence/HXLibrary.h"
#include "Model/Persistence/HXNativeGroup.h"
#include "Model/Sheets/HXNativeSheet.h"
#include "Model/StorageTree/HXGroup.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Text/Markup/HXMarkup.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Utilities/HXFileCoordinator.h"
#include "Utilities/HXFileSystem.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSocketNotifier>
#include <QThread>

#include <csignal>
#include <cstdio>
#include <mutex>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

using Library = std::shared_ptr<HXLibrary>;

QString kindName(const HXContainerRef &container) {
    switch (container->kind()) {
    case HXContainerKind::Filter:
        return QStringLiteral("filter");
    case HXContainerKind::Trash:
        return QStringLiteral("trash");
    default:
        return QStringLiteral("group");
    }
}

// The library at the path, or at the local library's place; null after reporting why.
Library openLibrary(const QString &given, bool creating, int *status) {
    const QString path = HXFileCoordinator::standardizedPath(
        given.isEmpty() ? HXLibrary::localLibraryPath() : given);
    const bool exists = HXFileIdentity::ofPath(path).exists;
    if (!creating) {
        if (!exists || !(HXFileIdentity::ofPath(path + QStringLiteral("/Root.plist")).exists ||
                         HXFileIdentity::ofPath(path + u'/' + HXLibrary::mainGroupName).exists)) {
            *status = HXCommandLineTool::fail(QStringLiteral("%1: not a library").arg(path));
            return nullptr;
        }
    } else if (exists && !HXFileIdentity::ofPath(path).isDirectory) {
        *status = HXCommandLineTool::fail(QStringLiteral("%1: not a folder").arg(path));
        return nullptr;
    }
    const QString identifier =
        path == HXFileCoordinator::standardizedPath(HXLibrary::localLibraryPath())
            ? HXLibrary::localIdentifier
            : path;
    const Library library = HXLibrary::libraryAtURL(path, identifier);
    if (library->isInvalid()) {
        *status = HXCommandLineTool::fail(QStringLiteral("%1: can't be read").arg(path));
        return nullptr;
    }
    // A damaged info file is named, and nothing is written over it.
    const QString root = library->infoFileURL();
    if (HXFileIdentity::ofPath(root).exists && library->isReadingInfoFile()) {
        *status = HXCommandLineTool::fail(QStringLiteral("%1: damaged info file").arg(root));
        return nullptr;
    }
    QList<HXContainerRef> containers{library->rootGroup()};
    containers.append(library->rootGroup()->descendantContainers());
    for (const HXContainerRef &container : containers) {
        if (container->isReadingInfoFile()) {
            *status = HXCommandLineTool::fail(
                QStringLiteral("%1: damaged info file").arg(container->infoFileURL()));
            return nullptr;
        }
    }
    return library;
}

// A sheet's first line of text, without tags, at most 60 characters.
QString titleOfSheet(const QString &url) {
    const auto sheet = HXNativeSheet::sheetWithURL(url, true);
    if (!HXDocument::waitForCompletion([&](auto done) { sheet->openWithCompletionHandler(done); }))
        return {};
    QString title;
    const auto text = sheet->text();
    text->read([&] {
        if (text->length() == 0)
            return;
        if (const auto paragraph = text->paragraphAtIndex(0))
            title = paragraph->stringByRemovingObjectsAndTags();
    });
    title = title.section(u'\n', 0, 0).trimmed();
    if (title.size() > 60)
        title.truncate(title.at(59).isHighSurrogate() ? 59 : 60);
    return title;
}

QJsonObject treeObject(const HXContainerRef &container) {
    QJsonObject object{{QStringLiteral("kind"), kindName(container)},
                       {QStringLiteral("file"), container->filename()},
                       {QStringLiteral("name"), container->displayName()}};
    QJsonArray children;
    for (const HXContainerRef &child : container->containers())
        children.append(treeObject(child));
    object.insert(QStringLiteral("children"), children);
    if (const auto group = std::dynamic_pointer_cast<HXGroup>(container)) {
        QJsonArray clusters;
        const auto handles = group->sheetHandles();
        for (quint64 index = 0; index < quint64(handles.size());) {
            const HXRange range = group->clusterRangeForSheetHandleIndex(index);
            const quint64 length = std::max<quint64>(range.length, 1);
            QJsonArray cluster;
            for (quint64 at = index; at < index + length && at < quint64(handles.size()); ++at) {
                const auto &handle = handles.at(qsizetype(at));
                cluster.append(QJsonObject{{QStringLiteral("file"), handle->filename()},
                                           {QStringLiteral("title"), titleOfSheet(handle->URL())}});
            }
            clusters.append(cluster);
            index += length;
        }
        object.insert(QStringLiteral("clusters"), clusters);
    }
    return object;
}

void printTree(const HXContainerRef &container, int depth) {
    const QString indent(depth * 2, u' ');
    std::printf("%s%s (%s)\n", qPrintable(indent), qPrintable(container->displayName()),
                qPrintable(container->filename()));
    if (const auto group = std::dynamic_pointer_cast<HXGroup>(container)) {
        const auto handles = group->sheetHandles();
        for (qsizetype index = 0; index < handles.size(); ++index) {
            const HXRange range = group->clusterRangeForSheetHandleIndex(quint64(index));
            const bool joined = range.length > 1 && quint64(index) != range.location;
            std::printf("%s  %s %s  %s\n", qPrintable(indent), joined ? "+" : "-",
                        qPrintable(handles.at(index)->filename()),
                        qPrintable(titleOfSheet(handles.at(index)->URL())));
        }
    }
    for (const HXContainerRef &child : container->containers())
        printTree(child, depth + 1);
}

// Whether a path component names the node: its display name, its file name, or the file name
// without the kind's suffix ("Groups" for "Groups-hxgroup").
bool names(const QString &component, const HXStorageItemRef &item) {
    const QString file = item->filename();
    if (component == file || component == file.section(u'-', 0, -2))
        return true;
    return item->isContainer() &&
           std::static_pointer_cast<HXContainer>(item)->displayName() == component;
}

HXStorageItemRef resolve(const Library &library, const QString &given, int *status) {
    const auto root = library->rootGroup();
    QList<HXContainerRef> containers{root};
    containers.append(root->descendantContainers());
    if (!given.contains(u'/')) {
        // A file name anywhere in the library.
        for (const HXContainerRef &container : containers) {
            if (container->filename() == given)
                return container;
            for (const auto &handle : container->sheetHandles()) {
                if (handle->filename() == given)
                    return handle;
            }
        }
    }
    HXStorageItemRef at = root;
    for (const QString &component : given.split(u'/', Qt::SkipEmptyParts)) {
        const auto container = std::dynamic_pointer_cast<HXContainer>(at);
        QList<HXStorageItemRef> found;
        if (container) {
            for (const HXContainerRef &child : container->containers()) {
                if (names(component, child))
                    found.append(child);
            }
            for (const auto &handle : container->sheetHandles()) {
                if (names(component, handle))
                    found.append(handle);
            }
        }
        if (found.size() > 1) {
            *status = HXCommandLineTool::fail(QStringLiteral("%1: ambiguous: “%2” names %3 items")
                                                  .arg(given, component)
                                                  .arg(found.size()));
            return nullptr;
        }
        if (found.isEmpty()) {
            *status = HXCommandLineTool::fail(QStringLiteral("%1: no such item").arg(given));
            return nullptr;
        }
        at = found.first();
    }
    return at;
}

std::shared_ptr<HXGroup> resolveGroup(const Library &library, const QString &given, int *status) {
    const auto item = resolve(library, given, status);
    if (!item)
        return nullptr;
    const auto group = std::dynamic_pointer_cast<HXGroup>(item);
    if (!group)
        *status = HXCommandLineTool::fail(QStringLiteral("%1: not a group").arg(given));
    return group;
}

// Info files wait a moment before they are written; a command that ends writes them now.
int finish(const Library &library) {
    library->writePendingInfoFiles();
    return 0;
}

// Moves the item inside its group so that it ends at the index.
void moveWithinGroup(const std::shared_ptr<HXGroup> &group, const HXStorageItemRef &item,
                     quint64 index) {
    if (item->isContainer()) {
        const auto list = group->containers();
        const qsizetype current = list.indexOf(std::static_pointer_cast<HXContainer>(item));
        const quint64 target = current >= 0 && index >= quint64(current) ? index + 1 : index;
        const auto sentinels = group->sentinelsForInsertingContainers(
            1, target >= quint64(list.size()) ? HXNotFound : target);
        group->substituteContainerSentinel(sentinels.first(), item->filename());
    } else {
        const auto handle = std::static_pointer_cast<HXSheetHandle>(item);
        const auto list = group->sheetHandles();
        const qsizetype current = list.indexOf(handle);
        const quint64 target = current >= 0 && index >= quint64(current) ? index + 1 : index;
        const auto sentinels = group->sentinelsForInsertingSheetHandleClusters(
            {1}, target >= quint64(list.size()) ? HXNotFound : target, {});
        group->substituteSheetHandleSentinel(sentinels.first(), item->filename());
    }
}

// Each command gets the library opened and its arguments after LIB, counted already.
struct Invocation {
    Library library;
    QStringList arguments;
    bool json = false;
    bool progress = false;
    // Options with a value, by name without the dashes: "to", "index", "library", "folder".
    QHash<QString, QString> options;
};

int init(const Invocation &call) {
    const Library &library = call.library;
    // "Root.plist" marks the folder as a library, also before it has settings.
    if (!HXFileIdentity::ofPath(library->infoFileURL()).exists)
        library->writeInfoFile();
    return finish(library);
}

int tree(const Invocation &call) {
    const Library &library = call.library;
    if (call.json) {
        std::fputs(QJsonDocument(treeObject(library->rootGroup())).toJson().constData(), stdout);
    } else {
        printTree(library->rootGroup(), 0);
    }
    return 0;
}

// The group that the first argument names, if it may hold new items of the kind; else null,
// with the failure's status.
std::shared_ptr<HXGroup> creationParent(const Invocation &call, HXStorageItemKind kind,
                                        int *status) {
    const auto parent = resolveGroup(call.library, call.arguments.at(0), status);
    if (!parent)
        return nullptr;
    const bool sheet = kind == HXStorageItemKind::Sheet;
    const quint64 mask = sheet
                             ? parent->operationForCreatingSheet()
                             : parent->operationForCreatingContainerOfKind(HXContainerKind::Group);
    if (mask & 3)
        return parent;
    *status =
        HXCommandLineTool::fail(QStringLiteral("%1: can't hold %2")
                                    .arg(call.arguments.at(0), sheet ? u"sheets"_s : u"groups"_s));
    return nullptr;
}

// A new item was written at the path, or not: it enters the tree and the parent's order.
int finishCreating(const Library &library, const std::shared_ptr<HXGroup> &parent,
                   const QString &url, bool created, const HXError &error) {
    if (!created)
        return HXCommandLineTool::fail(
            QStringLiteral("%1: %2").arg(url, error.localizedDescription()));
    library->storageItemDidAppearAtURL(url);
    parent->saveMetadataIfNeeded();
    return finish(library);
}

int addGroup(const Invocation &call) {
    const Library &library = call.library;
    int status = 0;
    const auto parent = creationParent(call, HXStorageItemKind::Group, &status);
    if (!parent)
        return status;
    const QString filename = library->filenameForPreferredFilename(
        library->preferredFilenameForContainerOfKind(HXStorageItemKind::Group), {}, parent);
    const auto prototype = library->newContainer(HXStorageItemKind::Group, filename);
    prototype->setDisplayName(call.arguments.at(1));
    const QString url = parent->URL() + u'/' + filename;
    HXError error;
    bool created = false;
    HXFileCoordinator coordinator;
    coordinator.coordinateWritingItemAtURL(url, 0, &error, [&](const QString &path) {
        created = HXNativeStorage::createContainerAtURL(path, prototype, &error);
    });
    return finishCreating(library, parent, url, created, error);
}

int addSheet(const Invocation &call) {
    const Library &library = call.library;
    int status = 0;
    const auto parent = creationParent(call, HXStorageItemKind::Sheet, &status);
    if (!parent)
        return status;
    QByteArray bytes;
    QString failure;
    if (!HXCommandLineTool::readInput(call.arguments.value(1), &bytes, &failure))
        return HXCommandLineTool::fail(failure);
    const auto sheet = std::static_pointer_cast<HXNativeSheet>(library->newSheetMatchingMarkup({}));
    sheet->text()->replaceCharactersInRange(HXRange{0, 0}, HXReplacement(QString::fromUtf8(bytes)));
    const QString filename =
        library->filenameForPreferredFilename(library->preferredFilenameForSheet(), {}, parent);
    const QString url = parent->URL() + u'/' + filename;
    HXError error;
    const bool saved = sheet->saveToURL(url, HXDocument::SaveOperationSave, &error);
    if (saved) {
        library->noteUseOfMarkup(sheet->markup());
        std::printf("%s\n", qPrintable(filename));
    }
    return finishCreating(library, parent, url, saved, error);
}

int rename(const Invocation &call) {
    const Library &library = call.library;
    const QStringList &arguments = call.arguments;
    int status = 0;
    const auto item = resolve(library, arguments.at(0), &status);
    if (!item)
        return status;
    const auto container = std::dynamic_pointer_cast<HXContainer>(item);
    if (!container || !container->allowsSettingDisplayName())
        return HXCommandLineTool::fail(
            QStringLiteral("%1: its name can't be changed").arg(arguments.at(0)));
    container->setDisplayName(arguments.at(1));
    return finish(library);
}

int reorder(const Invocation &call) {
    const Library &library = call.library;
    const QStringList &arguments = call.arguments;
    bool valid = false;
    const quint64 index = arguments.at(1).toULongLong(&valid);
    if (!valid)
        return HXCommandLineTool::fail(QStringLiteral("library reorder: expected LIB ITEM INDEX"));
    int status = 0;
    const auto item = resolve(library, arguments.at(0), &status);
    if (!item)
        return status;
    const auto group = std::dynamic_pointer_cast<HXGroup>(item->parent());
    if (!group)
        return HXCommandLineTool::fail(
            QStringLiteral("%1: can't be reordered").arg(arguments.at(0)));
    moveWithinGroup(group, item, index);
    group->saveMetadataIfNeeded();
    return finish(library);
}

int cluster(const Invocation &call) {
    const Library &library = call.library;
    int status = 0;
    QList<std::shared_ptr<HXSheetHandle>> handles;
    for (const QString &given : call.arguments) {
        const auto handle =
            std::dynamic_pointer_cast<HXSheetHandle>(resolve(library, given, &status));
        if (!handle)
            return status ? status
                          : HXCommandLineTool::fail(QStringLiteral("%1: not a sheet").arg(given));
        if (handles.contains(handle))
            return HXCommandLineTool::fail(QStringLiteral("%1: named twice").arg(given));
        handles.append(handle);
    }
    const auto group = std::dynamic_pointer_cast<HXGroup>(handles.first()->parent());
    for (const auto &handle : handles) {
        if (handle->parent() != group || !group)
            return HXCommandLineTool::fail(
                QStringLiteral("%1: not in the group of the first sheet").arg(handle->filename()));
    }
    // The sheets follow the first one, in the order given, and become one cluster.
    for (qsizetype at = 1; at < handles.size(); ++at) {
        const qsizetype previous = group->sheetHandles().indexOf(handles.at(at - 1));
        const qsizetype current = group->sheetHandles().indexOf(handles.at(at));
        moveWithinGroup(group, handles.at(at),
                        quint64(current > previous ? previous + 1 : previous));
    }
    const qsizetype first = group->sheetHandles().indexOf(handles.first());
    group->setClustered(true, HXRange{quint64(first), quint64(handles.size())});
    group->saveMetadataIfNeeded();
    return finish(library);
}

int watch(const Invocation &call) {
    const Library &library = call.library;
    library->addTreeObserver([](const HXTreeChange &change) {
        QJsonObject line{
            {QStringLiteral("change"), HXTreeChange::kindName(change.kind)},
            {QStringLiteral("file"), change.item ? change.item->filename() : QString()},
            {QStringLiteral("parent"), change.parent ? change.parent->filename() : QString()}};
        if (change.kind == HXTreeChange::Renamed)
            line.insert(QStringLiteral("old"), change.oldFilename);
        std::fputs(QJsonDocument(line).toJson(QJsonDocument::Compact).constData(), stdout);
        std::fputc('\n', stdout);
        std::fflush(stdout);
    });
    // Interrupted by a signal: leave the loop so that pending writes are made.
    static int pipe[2];
    if (::pipe(pipe) == 0) {
        std::signal(SIGINT, [](int) { (void)!::write(pipe[1], "x", 1); });
        std::signal(SIGTERM, [](int) { (void)!::write(pipe[1], "x", 1); });
        auto *notifier = new QSocketNotifier(pipe[0], QSocketNotifier::Read, qApp);
        QObject::connect(notifier, &QSocketNotifier::activated, qApp, &QCoreApplication::quit);
    }
    // Standard output carries changes only; that the watch runs goes to standard error.
    std::fputs("watching\n", stderr);
    QCoreApplication::exec();
    return finish(library);
}

// --- Operations ---------------------------------------------------------------------------------

// The sheets and containers that the arguments name, in the order given; null after reporting.
bool resolveItems(const Library &library, const QStringList &given,
                  QList<std::shared_ptr<HXSheetHandle>> *handles, QList<HXContainerRef> *containers,
                  int *status) {
    for (const QString &name : given) {
        const auto item = resolve(library, name, status);
        if (!item)
            return false;
        if (item->isContainer()) {
            const auto container = std::static_pointer_cast<HXContainer>(item);
            if (container->isIntrinsic() || !container->parent()) {
                *status = HXCommandLineTool::fail(QStringLiteral("%1: can't be moved").arg(name));
                return false;
            }
            containers->append(container);
        } else {
            handles->append(std::static_pointer_cast<HXSheetHandle>(item));
        }
    }
    return true;
}

// "progress N/M" on standard error, at most ten lines a second, the last one always.
class ProgressPrinter {
public:
    explicit ProgressPrinter(bool enabled)
        : m_enabled(enabled) {
        m_clock.start();
    }
    void report(qint64 done, quint64 total, bool last) {
        if (!m_enabled)
            return;
        const std::lock_guard lock(m_mutex);
        if (done == m_printed)
            return;
        qint64 wait = m_clock.isValid() && m_printed >= 0 ? 100 - m_clock.elapsed() : 0;
        if (wait > 0 && !last)
            return;
        if (wait > 0)
            QThread::msleep(quint64(wait));
        std::fprintf(stderr, "progress %lld/%llu\n", done, static_cast<unsigned long long>(total));
        std::fflush(stderr);
        m_printed = done;
        m_clock.restart();
    }

private:
    const bool m_enabled;
    std::mutex m_mutex;
    QElapsedTimer m_clock;
    qint64 m_printed = -1;
};

// Runs the operations one after another (so that none refuses the next), printing progress, and
// reports each failed item on a line of its own. Items done stay done.
// A save-to that stops at existing files says so itself (`quietCancel`).
int runOperations(const QList<std::shared_ptr<HXContainerOperation>> &operations,
                  const Invocation &call, const QList<Library> &libraries,
                  bool quietCancel = false) {
    quint64 total = 0;
    for (const auto &operation : operations)
        total += operation->workLoadSize();
    ProgressPrinter printer(call.progress || ::isatty(STDERR_FILENO));
    qint64 before = 0;
    bool failed = false;
    for (const auto &operation : operations) {
        operation->setProgressHandler([&printer, &operation, before, total](double) {
            printer.report(before + operation->processedWorkLoad(), total, false);
        });
        if (!HXStorageOperationQueue::sharedInstance()->addOperation(operation)) {
            for (const auto &item : operation->affectedItems())
                HXCommandLineTool::failLine(
                    QStringLiteral("%1: busy with another operation").arg(item->URL()));
            failed = true;
            continue;
        }
        operation->waitUntilFinished();
        operation->setProgressHandler(nullptr);
        before += operation->processedWorkLoad();
        for (const auto &failure : operation->failures()) {
            QString problem = failure.error.localizedDescription();
            if (const QString reason = failure.error.localizedFailureReason(); !reason.isEmpty())
                problem += u' ' + reason;
            HXCommandLineTool::failLine(QStringLiteral("%1: %2").arg(failure.itemName, problem));
            failed = true;
        }
        if (operation->isCancelled() && operation->failures().isEmpty() && !quietCancel) {
            HXCommandLineTool::failLine(
                QStringLiteral("%1: stopped").arg(operation->displayTitle()));
            failed = true;
        }
    }
    printer.report(before, total, true);
    // Blocks the operations left for the main queue (pending marks, insertions) run now.
    QCoreApplication::sendPostedEvents();
    for (const Library &library : libraries)
        finish(library);
    return failed ? 1 : 0;
}

// The container that "--to" names, in the library given.
HXContainerRef targetContainer(const Library &library, const Invocation &call, int *status) {
    const QString given = call.options.value(QStringLiteral("to"));
    if (given.isNull()) {
        *status = HXCommandLineTool::fail(QStringLiteral("library: expected --to PARENT"));
        return nullptr;
    }
    const auto item = resolve(library, given, status);
    if (!item)
        return nullptr;
    if (!item->isContainer()) {
        *status = HXCommandLineTool::fail(QStringLiteral("%1: not a group").arg(given));
        return nullptr;
    }
    return std::static_pointer_cast<HXContainer>(item);
}

int moveOrCopy(const Invocation &call, bool copy) {
    const Library &library = call.library;
    int status = 0;
    QList<std::shared_ptr<HXSheetHandle>> handles;
    QList<HXContainerRef> containers;
    if (!resolveItems(library, call.arguments, &handles, &containers, &status))
        return status;
    Library targetLibrary = library;
    if (copy && call.options.contains(QStringLiteral("library"))) {
        targetLibrary = openLibrary(call.options.value(QStringLiteral("library")), false, &status);
        if (!targetLibrary)
            return status;
    }
    const auto target = targetContainer(targetLibrary, call, &status);
    if (!target)
        return status;
    quint64 index = HXNotFound;
    if (call.options.contains(QStringLiteral("index"))) {
        bool valid = false;
        index = call.options.value(QStringLiteral("index")).toULongLong(&valid);
        if (!valid)
            return HXCommandLineTool::fail(QStringLiteral("library: --index expects a number"));
    }
    // Each item must be allowed there before anything starts.
    for (const auto &container : std::as_const(containers)) {
        const quint64 mask = copy ? target->operationForCreatingContainerOfKind(container->kind())
                                  : target->operationForInsertingContainer(container);
        if (!(mask & 3))
            return HXCommandLineTool::fail(
                QStringLiteral("%1: can't be put into %2").arg(container->URL(), target->URL()));
    }
    for (const auto &handle : std::as_const(handles)) {
        const quint64 mask = copy ? target->operationForCreatingSheet()
                                  : target->operationForInsertingSheetHandle(handle);
        if (!(mask & 3))
            return HXCommandLineTool::fail(
                QStringLiteral("%1: can't be put into %2").arg(handle->URL(), target->URL()));
    }
    QList<std::shared_ptr<HXContainerOperation>> operations;
    if (!containers.isEmpty())
        operations.append(
            copy ? HXMoveOperation::copyOperationForContainers(containers, target, index)
                 : HXMoveOperation::moveOperationForContainers(containers, target, index));
    if (!handles.isEmpty())
        operations.append(
            copy ? HXMoveOperation::copyOperationForSheetHandles(handles, target, index)
                 : HXMoveOperation::moveOperationForSheetHandles(handles, target, index));
    QList<Library> libraries{library};
    if (targetLibrary != library)
        libraries.append(targetLibrary);
    return runOperations(operations, call, libraries);
}

int move(const Invocation &call) {
    return moveOrCopy(call, false);
}

int copy(const Invocation &call) {
    return moveOrCopy(call, true);
}

int removeItems(const Invocation &call, bool trash) {
    const Library &library = call.library;
    int status = 0;
    QList<std::shared_ptr<HXSheetHandle>> handles;
    QList<HXContainerRef> containers;
    if (!resolveItems(library, call.arguments, &handles, &containers, &status))
        return status;
    QList<HXStorageItemRef> items(handles.begin(), handles.end());
    items.append(QList<HXStorageItemRef>(containers.begin(), containers.end()));
    for (const auto &item : std::as_const(items)) {
        if (item->isDescendantOfTrash() != !trash)
            return HXCommandLineTool::fail(
                (trash ? u"%1: in the trash already"_s : u"%1: not in the trash"_s)
                    .arg(item->URL()));
    }
    QList<std::shared_ptr<HXContainerOperation>> operations;
    if (!containers.isEmpty())
        operations.append(trash ? HXRemoveOperation::trashOperationForContainers(containers)
                                : HXRemoveOperation::removeOperationForContainers(containers));
    if (!handles.isEmpty())
        operations.append(trash ? HXRemoveOperation::trashOperationForSheetHandles(handles)
                                : HXRemoveOperation::removeOperationForSheetHandles(handles));
    return runOperations(operations, call, {library});
}

int trash(const Invocation &call) {
    return removeItems(call, true);
}

int remove(const Invocation &call) {
    return removeItems(call, false);
}

int import(const Invocation &call) {
    const Library &library = call.library;
    int status = 0;
    HXContainerRef target;
    if (call.options.contains(QStringLiteral("to"))) {
        target = targetContainer(library, call, &status);
        if (!target)
            return status;
    }
    // Files that can't become sheets or groups are named; the others go on.
    bool failed = false;
    QStringList urls;
    for (const QString &given : call.arguments) {
        const QString url = QFileInfo(given).absoluteFilePath();
        if (!QFileInfo::exists(url)) {
            HXCommandLineTool::failLine(QStringLiteral("%1: no such file").arg(given));
            failed = true;
        } else if (!HXImportOperation::isImportableSheetAtURL(url) &&
                   !HXImportOperation::isImportableContainerAtURL(url)) {
            HXCommandLineTool::failLine(
                QStringLiteral("%1: neither a sheet, a plain-text file nor a folder").arg(given));
            failed = true;
        } else {
            urls.append(url);
        }
    }
    QStringList folders, sheets;
    HXImportOperation::getContainerURLs(&folders, &sheets, urls);
    const HXContainerRef folderTarget =
        target ? target : library->defaultContainerForItemOfKind(HXStorageItemKind::Group);
    const HXContainerRef sheetTarget =
        target ? target : library->defaultContainerForItemOfKind(HXStorageItemKind::Sheet);
    if (!folders.isEmpty() &&
        !(folderTarget->operationForCreatingContainerOfKind(HXContainerKind::Group) & 3))
        return HXCommandLineTool::fail(
            QStringLiteral("%1: can't hold groups").arg(folderTarget->URL()));
    if (!sheets.isEmpty() && !(sheetTarget->operationForCreatingSheet() & 3))
        return HXCommandLineTool::fail(
            QStringLiteral("%1: can't hold sheets").arg(sheetTarget->URL()));
    QList<std::shared_ptr<HXContainerOperation>> operations;
    if (!folders.isEmpty())
        operations.append(
            HXImportOperation::importOperationForFolderURLs(folders, folderTarget, HXNotFound));
    if (!sheets.isEmpty())
        operations.append(
            HXImportOperation::importOperationForSheetURLs(sheets, sheetTarget, HXNotFound));
    return runOperations(operations, call, {library}) || failed ? 1 : 0;
}

int saveTo(const Invocation &call) {
    const Library &library = call.library;
    const QString folder = call.options.value(QStringLiteral("folder"));
    if (folder.isEmpty())
        return HXCommandLineTool::fail(QStringLiteral("library save-to: expected --folder DIR"));
    const QString url = QFileInfo(folder).absoluteFilePath();
    if (QFileInfo::exists(url) && !QFileInfo(url).isDir())
        return HXCommandLineTool::fail(QStringLiteral("%1: not a folder").arg(folder));
    HXError error;
    if (!QFileInfo::exists(url) && !HXFileSystem::makeFolder(url, &error))
        return HXCommandLineTool::fail(
            QStringLiteral("%1: %2").arg(folder, error.localizedDescription()));
    int status = 0;
    QList<std::shared_ptr<HXSheetHandle>> handles;
    QList<HXContainerRef> containers;
    if (!resolveItems(library, call.arguments, &handles, &containers, &status))
        return status;
    // With more than one item each name starts with its place, so that the order survives.
    const int width = int(QString::number(std::max(handles.size(), containers.size())).size());
    QList<std::shared_ptr<HXContainerOperation>> operations;
    QStringList existing;
    const auto refuseExisting = [&existing](const QStringList &urls) -> std::optional<QStringList> {
        existing += urls;
        return std::nullopt;
    };
    if (!containers.isEmpty()) {
        const auto operation =
            HXSaveToOperation::saveToOperationForContainers(containers, url, width);
        operation->setExistingFileHandler(refuseExisting);
        operations.append(operation);
    }
    if (!handles.isEmpty()) {
        const auto operation =
            HXSaveToOperation::saveToOperationForSheetHandles(handles, url, width);
        operation->setExistingFileHandler(refuseExisting);
        operations.append(operation);
    }
    const int result = runOperations(operations, call, {library}, true);
    for (const QString &path : std::as_const(existing))
        HXCommandLineTool::failLine(QStringLiteral("%1: exists already").arg(path));
    return result || !existing.isEmpty() ? 1 : 0;
}

struct Command {
    QLatin1StringView name;
    // Counts of arguments after the command; LIB is the first, optional where the count may be
    // zero, and then the local library.
    qsizetype minimum;
    qsizetype maximum;
    const char *usage; // UTF-8
    int (*run)(const Invocation &call);
    // The options the command takes, each with its dashes; those with a value end in '='.
    QLatin1StringView options = {};
};

const Command commands[] = {
    {QLatin1StringView("init"), 0, 1, "[LIB]", init},
    {QLatin1StringView("tree"), 0, 1, "[LIB] [--json]", tree, QLatin1StringView("--json")},
    {QLatin1StringView("add-group"), 3, 3, "LIB PARENT NAME", addGroup},
    {QLatin1StringView("add-sheet"), 2, 3, "LIB PARENT [TEXT-FILE]", addSheet},
    {QLatin1StringView("rename"), 3, 3, "LIB ITEM NAME", rename},
    {QLatin1StringView("reorder"), 3, 3, "LIB ITEM INDEX", reorder},
    {QLatin1StringView("cluster"), 3, 1 << 30, "LIB SHEET SHEET…", cluster},
    {QLatin1StringView("watch"), 0, 1, "[LIB]", watch},
    {QLatin1StringView("move"), 2, 1 << 30, "LIB ITEM… --to PARENT [--index N] [--progress]", move,
     QLatin1StringView("--to= --index= --progress")},
    {QLatin1StringView("copy"), 2, 1 << 30, "LIB ITEM… --to PARENT [--library LIB2] [--progress]",
     copy, QLatin1StringView("--to= --library= --progress")},
    {QLatin1StringView("trash"), 2, 1 << 30, "LIB ITEM… [--progress]", trash,
     QLatin1StringView("--progress")},
    {QLatin1StringView("delete"), 2, 1 << 30, "LIB ITEM… [--progress]", remove,
     QLatin1StringView("--progress")},
    {QLatin1StringView("import"), 2, 1 << 30, "LIB FILE… [--to PARENT] [--progress]", import,
     QLatin1StringView("--to= --progress")},
    {QLatin1StringView("save-to"), 2, 1 << 30, "LIB ITEM… --folder DIR [--progress]", saveTo,
     QLatin1StringView("--folder= --progress")},
};

// Takes the command's options out of the arguments; false after reporting one it doesn't take.
bool takeOptions(const Command &command, Invocation *call, int *status) {
    const QStringList accepted = QString(command.options).split(u' ', Qt::SkipEmptyParts);
    QStringList rest;
    for (qsizetype i = 0; i < call->arguments.size(); ++i) {
        const QString &argument = call->arguments.at(i);
        if (!argument.startsWith(QStringLiteral("--"))) {
            rest.append(argument);
            continue;
        }
        if (accepted.contains(argument)) {
            if (argument == QStringLiteral("--json"))
                call->json = true;
            else if (argument == QStringLiteral("--progress"))
                call->progress = true;
            continue;
        }
        if (accepted.contains(argument + u'=') && i + 1 < call->arguments.size()) {
            call->options.insert(argument.mid(2), call->arguments.at(++i));
            continue;
        }
        *status = HXCommandLineTool::fail(QStringLiteral("library %1: expected %2")
                                              .arg(command.name, QString::fromUtf8(command.usage)));
        return false;
    }
    call->arguments = rest;
    return true;
}

} // namespace

int HXLibraryCommand(const QStringList &arguments) {
    const QString name = arguments.value(0);
    for (const Command &command : commands) {
        if (name != command.name)
            continue;
        Invocation call;
        call.arguments = arguments.mid(1);
        int failure = 0;
        if (!command.options.isEmpty() && !takeOptions(command, &call, &failure))
            return failure;
        if (call.arguments.size() < command.minimum || call.arguments.size() > command.maximum)
            return HXCommandLineTool::fail(
                QStringLiteral("library %1: expected %2")
                    .arg(command.name, QString::fromUtf8(command.usage)));
        int status = 0;
        call.library = openLibrary(call.arguments.value(0), command.run == init, &status);
        if (!call.library)
            return status;
        if (!call.arguments.isEmpty())
            call.arguments.removeFirst();
        return command.run(call);
    }
    return HXCommandLineTool::fail(QStringLiteral(
        "library: expected init, tree, add-group, add-sheet, rename, reorder, cluster, watch, "
        "move, copy, trash, delete, import or save-to"));
}
