#include "HXTestSupport.h"
#include "Model/HXModelTestSupport.h"
#include "Model/Operations/HXImportOperation.h"
#include "Model/Operations/HXMoveOperation.h"
#include "Model/Operations/HXRemoveOperation.h"
#include "Model/Operations/HXSaveToOperation.h"
#include "Model/Operations/HXStorageOperationQueue.h"
#include "Model/Persistence/HXLibrary.h"
#include "Model/Persistence/HXNativeGroup.h"
#include "Model/Sheets/HXNativeSheet.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Model/StorageTree/HXTrash.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Utilities/HXFileSystem.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>

#include <semaphore>

using namespace Qt::StringLiterals;

namespace {

using Handles = QList<std::shared_ptr<HXSheetHandle>>;

HXContainerRef makeGroup(const std::shared_ptr<HXLibrary> &library, const QString &name) {
    HXError error;
    auto group = library->createContainerOfKind(HXContainerKind::Group, library->mainGroup(), name,
                                                HXNotFound, &error);
    if (!group)
        qWarning() << error.localizedDescription();
    return group;
}

using HXModelTestSupport::makeSheet;

QString textOf(const std::shared_ptr<HXSheetHandle> &handle) {
    const auto sheet = handle->loadSheetForReading();
    return sheet ? sheet->text()->string() : u"(unreadable)"_s;
}

// The texts of the group's sheets, clusters joined by "+": "a+b c".
QString contents(const HXContainerRef &group) {
    QStringList shown;
    const Handles handles = group->sheetHandles();
    for (qsizetype i = 0; i < handles.size(); ++i) {
        const HXRange cluster = group->clusterRangeForSheetHandleIndex(quint64(i));
        const bool joined = cluster.length > 1 && quint64(i) > cluster.location;
        if (joined)
            shown.last() += u'+' + textOf(handles.at(i));
        else
            shown.append(textOf(handles.at(i)));
    }
    return shown.join(u' ');
}

void writeFile(const QString &path, const QByteArray &bytes) {
    QDir().mkpath(path.section(u'/', 0, -2));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(bytes);
}

// The names below the folder, sorted, as "dir/" and "file".
QStringList listing(const QString &folder) {
    QStringList names;
    for (const QString &name : QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot)) {
        if (name.endsWith(u".velmora"_s) || !QFileInfo(folder + u'/' + name).isDir()) {
            names.append(name);
            continue;
        }
        names.append(name + u'/');
        for (const QString &inner : listing(folder + u'/' + name))
            names.append(name + u'/' + inner);
    }
    return names;
}

void run(const std::shared_ptr<HXStorageOperation> &operation) {
    QVERIFY(HXStorageOperationQueue::sharedInstance()->addOperation(operation));
    operation->waitUntilFinished();
    // What the operation left for the main queue: pending marks, progress, insertions.
    QCoreApplication::sendPostedEvents();
}

} // namespace

class TestStorageOperations : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_folder;
    int m_libraries = 0;

    std::shared_ptr<HXLibrary> newLibrary() {
        const QString path = m_folder.filePath(u"Library%1"_s.arg(++m_libraries));
        return HXLibrary::libraryAtURL(path, path);
    }

private slots:
    // A new operation against one that is queued: refused when it touches what the other moves,
    // made to wait when their footprints overlap otherwise, free when they don't.
    void admission_data() {
        QTest::addColumn<QString>("existing");
        QTest::addColumn<QString>("added");
        QTest::addColumn<QString>("outcome");
        // Footprints: reading/appending/moving, each a list of A (a group), A1 (a group in A),
        // s (a sheet in A1), B (another group).
        QTest::newRow("moving a group whose parent moves") << "//A" << "//A1" << "refused";
        QTest::newRow("moving a parent of what moves") << "//A1" << "//A" << "refused";
        QTest::newRow("moving a sheet inside a moving group") << "//A" << "//s" << "refused";
        QTest::newRow("copying into what moves away") << "//A" << "B/A1/" << "refused";
        QTest::newRow("reading what moves") << "//A1" << "s//" << "refused";
        QTest::newRow("reading where another appends") << "/B/" << "B//" << "waits";
        QTest::newRow("appending where another reads") << "A//" << "/A1/" << "waits";
        QTest::newRow("moving what another reads") << "s//" << "//A1" << "waits";
        QTest::newRow("two appenders") << "/B/" << "/B/" << "runs";
        QTest::newRow("unrelated moves") << "//B" << "//A" << "runs";
    }
    void admission() {
        QFETCH(QString, existing);
        QFETCH(QString, added);
        QFETCH(QString, outcome);
        const auto library = newLibrary();
        const auto a = makeGroup(library, u"A"_s);
        const auto b = makeGroup(library, u"B"_s);
        HXError error;
        const auto a1 =
            library->createContainerOfKind(HXContainerKind::Group, a, u"A1"_s, HXNotFound, &error);
        QVERIFY(a1);
        const auto s = makeSheet(library, a1, u"s"_s);
        QVERIFY(s);
        const QHash<QString, HXStorageItemRef> nodes{{u"A"_s, a}, {u"A1"_s, a1}, {u"s"_s, s}, {u"B"_s, b}};
        const auto parse = [&](const QString &footprint, auto block) {
            QList<HXStorageOperation::Items> lists;
            for (const QString &part : footprint.split(u'/')) {
                HXStorageOperation::Items items;
                for (const QString &name : part.split(u',', Qt::SkipEmptyParts))
                    items.append(nodes.value(name));
                lists.append(items);
            }
            return std::make_shared<HXContainerOperation>(block, lists.at(0), lists.at(1),
                                                          lists.at(2), u"t"_s, u"d"_s, 1);
        };
        std::binary_semaphore release{0};
        const auto first = parse(existing, [&](HXContainerOperation &) { release.acquire(); });
        const auto second = parse(added, [](HXContainerOperation &) {});
        const auto queue = HXStorageOperationQueue::sharedInstance();
        QVERIFY(queue->addOperation(first));
        const bool admitted = queue->addOperation(second);
        QCOMPARE(admitted ? (second->dependencies().contains(first) ? u"waits"_s : u"runs"_s)
                          : u"refused"_s,
                 outcome);
        release.release();
        queue->waitUntilAllOperationsAreFinished();
        QCoreApplication::sendPostedEvents();
        QVERIFY(!s->isPendingForMove());
    }

    // Within a library, sheets are renamed into their places: in the order given, at the
    // index, a cluster kept a cluster; a group moves with all it holds.
    void moveWithinLibrary() {
        const auto library = newLibrary();
        const auto a = makeGroup(library, u"A"_s);
        const auto b = makeGroup(library, u"B"_s);
        Handles sheets;
        for (const QString &text : {u"1"_s, u"2"_s, u"3"_s, u"4"_s})
            sheets.append(makeSheet(library, a, text));
        makeSheet(library, b, u"t"_s);
        a->setClustered(true, HXRange{1, 2});
        QCOMPARE(contents(a), u"1 2+3 4"_s);
        const QString inode = QString::number(HXFileIdentity::ofPath(sheets.at(1)->URL()).inode);
        run(HXMoveOperation::moveOperationForSheetHandles({sheets.at(0), sheets.at(1), sheets.at(2)},
                                                          b, 0));
        QCOMPARE(contents(b), u"1 2+3 t"_s);
        QCOMPARE(contents(a), u"4"_s);
        QCOMPARE(QString::number(HXFileIdentity::ofPath(sheets.at(1)->URL()).inode), inode);

        run(HXMoveOperation::moveOperationForContainers({b}, a, HXNotFound));
        QCOMPARE(a->containers(), QList<HXContainerRef>{b});
        QCOMPARE(contents(b), u"1 2+3 t"_s);
        // The order survives a fresh read of the library.
        library->writePendingInfoFiles();
        const auto again = HXLibrary::libraryAtURL(library->baseURL(), u"again"_s);
        const auto reread = std::dynamic_pointer_cast<HXContainer>(again->itemAtURL(b->URL()));
        QVERIFY(reread);
        QCOMPARE(contents(reread), u"1 2+3 t"_s);
    }

    // Between libraries a move is a copy and then a removal: the cluster arrives as a
    // cluster, and the sources go only when every copy is there.
    void moveBetweenLibraries() {
        const auto source = newLibrary();
        const auto target = newLibrary();
        const auto a = makeGroup(source, u"A"_s);
        const auto t = makeGroup(target, u"T"_s);
        Handles sheets;
        for (const QString &text : {u"1"_s, u"2"_s, u"3"_s})
            sheets.append(makeSheet(source, a, text));
        a->setClustered(true, HXRange{0, 2});
        run(HXMoveOperation::moveOperationForSheetHandles(sheets, t, HXNotFound));
        QCOMPARE(contents(t), u"1+2 3"_s);
        QCOMPARE(contents(a), QString());
        QCOMPARE(QDir(a->URL()).entryList({u"*.velmora"_s}), QStringList());

        // A source that can't be read stops the copy: every source stays.
        const auto b = makeGroup(source, u"B"_s);
        sheets.clear();
        for (const QString &text : {u"x"_s, u"y"_s, u"z"_s})
            sheets.append(makeSheet(source, b, text));
        QFile damaged(sheets.at(1)->URL() + u"/Content.xml"_s);
        QVERIFY(damaged.open(QIODevice::WriteOnly | QIODevice::Truncate));
        damaged.write("<sheet");
        damaged.close();
        const auto operation = HXMoveOperation::moveOperationForSheetHandles(sheets, t, HXNotFound);
        run(operation);
        QCOMPARE(b->sheetHandles().size(), 3);
        for (const auto &handle : sheets)
            QVERIFY(HXFileIdentity::ofPath(handle->URL() + u"/Content.xml"_s).exists);

        // A group between libraries: copied whole with its order, then removed.
        run(HXMoveOperation::moveOperationForContainers({a}, target->mainGroup(), 0));
        QCOMPARE(source->mainGroup()->containers(), QList<HXContainerRef>{b});
        const auto moved = target->mainGroup()->containers().value(0);
        QVERIFY(moved);
        QCOMPARE(moved->displayName(), u"A"_s);
    }

    // Trashing is a move into the trash, which remembers where each item came from; deleting
    // from the trash removes the files.
    void trashAndDelete() {
        const auto library = newLibrary();
        const auto a = makeGroup(library, u"A"_s);
        const auto first = makeSheet(library, a, u"first"_s);
        const auto second = makeSheet(library, a, u"second"_s);
        run(HXRemoveOperation::trashOperationForSheetHandles({second}));
        const auto trash = std::dynamic_pointer_cast<HXTrash>(library->trash());
        QCOMPARE(second->parent(), library->trash());
        const QVariantMap source = trash->sheetHandleSources().value(second->filename()).toMap();
        QCOMPARE(library->itemForPersistentObject(source.value(HXTrash::originalParentKey)), a);
        QCOMPARE(source.value(HXTrash::originalIndexKey).toULongLong(), 1u);

        const QString url = second->URL();
        run(HXRemoveOperation::removeOperationForSheetHandles({second}));
        QVERIFY(!HXFileIdentity::ofPath(url).exists);
        QVERIFY(library->trash()->sheetHandles().isEmpty());
        QCOMPARE(contents(a), u"first"_s);
        Q_UNUSED(first);
    }

    // A move cancelled half-way keeps what it did: each sheet is in one place, in the tree as on
    // the disk, and the places reserved for the rest are given up.
    void cancelledMoveKeepsWhatItDid() {
        const auto library = newLibrary();
        const auto a = makeGroup(library, u"A"_s);
        const auto b = makeGroup(library, u"B"_s);
        for (int i = 0; i < 60; ++i)
            QVERIFY(makeSheet(library, a, QString::number(i)));
        const auto operation = HXMoveOperation::moveOperationForSheetHandles(a->sheetHandles(), b, 0);
        operation->setProgressHandler([&](double) { operation->cancel(); });
        run(operation);
        QVERIFY(operation->isCancelled());
        const qsizetype moved = b->sheetHandles().size();
        QVERIFY2(moved >= 1 && moved < 60, qPrintable(QString::number(moved)));
        QCOMPARE(a->sheetHandles().size() + moved, 60);
        library->writePendingInfoFiles();
        const auto reread = HXLibrary::libraryAtURL(library->baseURL(), u"reread"_s);
        const auto group = [&](const QString &name) {
            for (const auto &container : reread->mainGroup()->containers()) {
                if (container->displayName() == name)
                    return container;
            }
            return HXContainerRef();
        };
        QCOMPARE(group(u"B"_s)->sheetHandles().size(), moved);
        QCOMPARE(group(u"A"_s)->sheetHandles().size(), 60 - moved);
        QStringList texts = (contents(group(u"A"_s)) + u' ' + contents(group(u"B"_s))).split(u' ');
        QCOMPARE(QSet<QString>(texts.begin(), texts.end()).size(), 60);
    }

    // A name that is taken in the target makes the move choose another; nothing is replaced.
    void takenNameGetsAnother() {
        const auto library = newLibrary();
        const auto a = makeGroup(library, u"A"_s);
        const auto b = makeGroup(library, u"B"_s);
        const auto sheet = makeSheet(library, a, u"mine"_s);
        const QString squatter = b->URL() + u'/' + sheet->filename();
        QVERIFY(QDir().mkpath(squatter));
        run(HXMoveOperation::moveOperationForSheetHandles({sheet}, b, HXNotFound));
        QCOMPARE(sheet->parent(), b);
        QVERIFY(sheet->URL() != squatter);
        QCOMPARE(textOf(sheet), u"mine"_s);
        QVERIFY(QDir(squatter).isEmpty());
    }

    // Files come in as sheets and folders as groups, in the order of their numbers and without
    // them; text in any common encoding arrives as the same characters with line feeds; and each
    // new item is announced with the file it came from.
    void importFilesAndFolders() {
        const auto library = newLibrary();
        const QString source = m_folder.filePath(u"import"_s);
        writeFile(source + u"/1 - Part One/10 - ten.txt"_s, "ten\r\nlines");
        writeFile(source + u"/1 - Part One/9 - nine.txt"_s, "nine\r");
        writeFile(source + u"/1 - Part One/notes.pdf"_s, "%PDF");
        writeFile(source + u"/1 - Part One/.hidden.txt"_s, "hidden");
        writeFile(source + u"/1 - Part One/2 - Inner/x.text"_s, "x");
        writeFile(source + u"/utf16.txt"_s, QByteArray("\xff\xfe") + QByteArray("\xe9\0t\0\xe9\0", 6));
        writeFile(source + u"/latin1.txt"_s, "caf\xe9");
        writeFile(source + u"/utf8.txt"_s, "\xef\xbb\xbf\xe2\x80\x9cq\xe2\x80\x9d");
        const auto target = makeGroup(library, u"T"_s);
        QStringList announced;
        const auto operation = HXImportOperation::importOperationForURLs(
            {source + u"/1 - Part One"_s, source + u"/utf16.txt"_s, source + u"/latin1.txt"_s,
             source + u"/utf8.txt"_s},
            target, HXNotFound, HXNotFound);
        QCOMPARE(operation->workLoadSize(), 8u);
        operation->setInsertionHandler([&](const HXStorageItemRef &, const HXStorageItemRef &,
                                           const QString &url) {
            announced.append(url.mid(source.size() + 1));
        });
        run(operation);
        QVERIFY(operation->failures().isEmpty());
        QCOMPARE(contents(target), u"été café “q”"_s);
        const auto part = target->containers().value(0);
        QVERIFY(part);
        QCOMPARE(part->displayName(), u"Part One"_s);
        QCOMPARE(contents(part), u"nine\n ten\nlines"_s);
        QCOMPARE(part->containers().value(0)->displayName(), u"Inner"_s);
        announced.sort();
        QCOMPARE(announced, QStringList({u"1 - Part One"_s, u"1 - Part One/10 - ten.txt"_s,
                                         u"1 - Part One/2 - Inner"_s,
                                         u"1 - Part One/2 - Inner/x.text"_s,
                                         u"1 - Part One/9 - nine.txt"_s, u"latin1.txt"_s,
                                         u"utf16.txt"_s, u"utf8.txt"_s}));

        // A file that isn't text fails by name; what came before stays.
        writeFile(source + u"/binary.txt"_s, QByteArray("\0\x01\x02", 3));
        const auto failing =
            HXImportOperation::importOperationForSheetURLs({source + u"/binary.txt"_s}, target, 0);
        run(failing);
        QCOMPARE(failing->failures().size(), 1);
        QCOMPARE(failing->failures().first().itemName, source + u"/binary.txt"_s);
        QCOMPARE(target->sheetHandles().size(), 3);
    }

    // Saved to a folder, sheets take their titles and groups their names, numbered when there
    // are several; an import of the folder brings back the same texts in the same order.
    // Existing names are offered first: no answer writes nothing, an answer overwrites only the
    // names chosen.
    void saveToFolderAndBack() {
        const auto library = newLibrary();
        const auto a = makeGroup(library, u"A/B"_s);
        makeSheet(library, a, u"# Title: one\ntext"_s);
        makeSheet(library, a, u""_s);
        makeSheet(library, a, u".hidden"_s);
        const QString folder = m_folder.filePath(u"saved"_s);
        QVERIFY(QDir().mkpath(folder));
        QStringList promised;
        run(HXSaveToOperation::saveToOperationForSheetHandles(a->sheetHandles(), folder, 2,
                                                              &promised));
        QCOMPARE(promised, QStringList({u"01 - Title- one.velmora"_s, u"02 - Untitled.velmora"_s,
                                        u"03 - hidden.velmora"_s}));
        QCOMPARE(listing(folder), promised);
        run(HXSaveToOperation::saveToOperationForContainers({library->mainGroup()}, folder, 0));
        QCOMPARE(listing(folder + u"/Library"_s),
                 QStringList({u"A-B/"_s, u"A-B/1 - Title- one.velmora"_s,
                              u"A-B/2 - Untitled.velmora"_s, u"A-B/3 - hidden.velmora"_s}));
        const auto other = newLibrary();
        run(HXImportOperation::importOperationForFolderURLs({folder + u"/Library/A-B"_s},
                                                            other->mainGroup(), HXNotFound));
        QCOMPARE(contents(other->mainGroup()->containers().value(0)), contents(a));

        // One sheet has no number. Its name exists: the handler is asked.
        QStringList offered;
        std::optional<QStringList> answer;
        const auto again = [&] {
            const auto operation = HXSaveToOperation::saveToOperationForSheetHandles(
                {a->sheetHandles().first(), a->sheetHandles().last()}, folder, 1);
            operation->setExistingFileHandler([&](const QStringList &urls) {
                offered = urls;
                return answer;
            });
            run(operation);
            return operation;
        };
        writeFile(folder + u"/1 - Title- one.velmora"_s, "old");
        writeFile(folder + u"/2 - hidden.velmora"_s, "old");
        QVERIFY(again()->isCancelled());
        QCOMPARE(offered.size(), 2);
        QCOMPARE(QFileInfo(folder + u"/1 - Title- one.velmora"_s).isDir(), false);
        answer = QStringList{folder + u"/2 - hidden.velmora"_s};
        QVERIFY(!again()->isCancelled());
        QCOMPARE(QFileInfo(folder + u"/1 - Title- one.velmora"_s).isDir(), false);
        QVERIFY(QFileInfo(folder + u"/2 - hidden.velmora/Content.xml"_s).exists());
    }
};

HX_TEST_MAIN(TestStorageOperations)
#include "tst_HXStorageOperations.moc"
