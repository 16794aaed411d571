#include "HXTestSupport.h"
#include "Model/Persistence/HXLibrary.h"
#include "Model/Persistence/HXNativeGroup.h"
#include "Model/Sheets/HXSheet.h"
#include "Model/StorageTree/HXGroup.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Model/StorageTree/HXStorageItemSet.h"
#include "Utilities/HXPropertyList.h"

#include <QDir>

#include <random>

using namespace Qt::StringLiterals;

namespace {

// Items for a set: plain sheet handles of a throwaway storage.
class Items {
public:
    Items()
        : m_folder(QDir::tempPath() + u"/velmora-set-XXXXXX"_s) {
        m_storage = HXNativeStorage::storageAtURL(m_folder.path());
    }
    HXStorageItemSet::ItemRef operator()(const QString &name) {
        return std::make_shared<HXSheetHandle>(name, m_storage);
    }

private:
    QTemporaryDir m_folder;
    std::shared_ptr<HXNativeStorage> m_storage;
};

// "a b | c" for clusters [a, b] and [c]; a sentinel shows as "#n", a placeholder as "(x)".
QString shape(const HXStorageItemSet &set) {
    const QSet<QString> valid = set.validFilenames();
    QStringList clusters;
    for (const HXOrderCluster &cluster : set.itemClusters()) {
        QStringList handles;
        for (const HXOrderHandle &handle : cluster) {
            if (handle.isSentinel())
                handles.append(u"#"_s + QString::number(handle.sentinel));
            else
                handles.append(valid.contains(handle.filename) ? handle.filename
                                                               : u"("_s + handle.filename + u")"_s);
        }
        clusters.append(handles.join(u' '));
    }
    return clusters.join(u" | "_s);
}

QList<QStringList> parseClusters(const QString &text) {
    QList<QStringList> clusters;
    for (const QString &cluster : text.split(u'|', Qt::SkipEmptyParts))
        clusters.append(cluster.split(u' ', Qt::SkipEmptyParts));
    return clusters;
}

void writePlist(const QString &path, const QVariantMap &contents) {
    QDir().mkpath(QFileInfo(path).path());
    QVERIFY(HXPropertyList::writeFile(contents, path, nullptr));
}

void makeSheet(const QString &path) {
    QDir().mkpath(path);
    QFile file(path + u"/Content.xml"_s);
    QVERIFY(file.open(QIODevice::WriteOnly));
}

QStringList names(const QList<std::shared_ptr<HXSheetHandle>> &handles) {
    QStringList result;
    for (const auto &handle : handles)
        result.append(handle->filename());
    return result;
}

} // namespace

class TestStorageTree : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { HXContainer::setInfoFileDelaysForTesting(50, 10); }

    // An order kept on disk, items arriving in any order, then a change of the set.
    void itemSet_data() {
        QTest::addColumn<QString>("order");
        QTest::addColumn<QStringList>("arrivals");
        QTest::addColumn<QString>("operation");
        QTest::addColumn<QString>("expected");
        // Names that have not arrived keep their places; strangers go to the end.
        QTest::newRow("placeholders") << u"a b | c | d"_s << QStringList{u"d"_s, u"x"_s, u"a"_s}
                                      << u""_s << u"a (b) | (c) | d | x"_s;
        QTest::newRow("first occurrence wins")
            << u"a | b a | c"_s << QStringList{u"a"_s, u"b"_s, u"c"_s} << u""_s << u"a | b | c"_s;
        // A deletion forgets the place; the cluster closes up.
        QTest::newRow("remove") << u"a b c | d"_s << QStringList{u"a"_s, u"b"_s, u"c"_s, u"d"_s}
                                << u"remove b"_s << u"a c | d"_s;
        QTest::newRow("rename in place") << u"a b | c"_s << QStringList{u"a"_s, u"b"_s, u"c"_s}
                                         << u"rename b z"_s << u"a z | c"_s;
        // A rename onto a name the order keeps takes that place.
        QTest::newRow("rename onto placeholder")
            << u"a | b | (p)"_s.remove(u'(').remove(u')') << QStringList{u"a"_s, u"b"_s}
            << u"rename a p"_s << u"b | p"_s;
        QTest::newRow("cluster a range")
            << u"a | b | c | d"_s << QStringList{u"a"_s, u"b"_s, u"c"_s, u"d"_s} << u"cluster 1 2"_s
            << u"a | b c | d"_s;
        // Unclustering splits off the handle just after the range too.
        QTest::newRow("uncluster")
            << u"a b c d e"_s << QStringList{u"a"_s, u"b"_s, u"c"_s, u"d"_s, u"e"_s}
            << u"uncluster 1 2"_s << u"a | b | c | d e"_s;
        // Inside a cluster new handles join it; at an edge a member stays in its cluster.
        QTest::newRow("sentinel inside cluster")
            << u"a b c | d"_s << QStringList{u"a"_s, u"b"_s, u"c"_s, u"d"_s} << u"sentinel 1 -"_s
            << u"a #0 b c | d"_s;
        QTest::newRow("sentinel before cluster")
            << u"a | b c | d"_s << QStringList{u"a"_s, u"b"_s, u"c"_s, u"d"_s} << u"sentinel 1 -"_s
            << u"a | #0 | b c | d"_s;
        QTest::newRow("member to its cluster's start")
            << u"a | b c | d"_s << QStringList{u"a"_s, u"b"_s, u"c"_s, u"d"_s} << u"sentinel 1 c"_s
            << u"a | #0 b c | d"_s;
        QTest::newRow("member to its cluster's end")
            << u"a | b c | d"_s << QStringList{u"a"_s, u"b"_s, u"c"_s, u"d"_s} << u"sentinel 3 b"_s
            << u"a | b c #0 | d"_s;
        QTest::newRow("sentinel at the end, behind placeholders")
            << u"a | (p)"_s.remove(u'(').remove(u')') << QStringList{u"a"_s} << u"sentinel end -"_s
            << u"a | (p) | #0"_s;
        QTest::newRow("substitute moves the item")
            << u"a | b | c"_s << QStringList{u"a"_s, u"b"_s, u"c"_s} << u"move a end"_s
            << u"b | c | a"_s;
    }
    void itemSet() {
        QFETCH(QString, order);
        QFETCH(QStringList, arrivals);
        QFETCH(QString, operation);
        QFETCH(QString, expected);
        Items make;
        HXStorageItemSet set;
        set.setPersistentStorageItemClusters(parseClusters(order));
        QHash<QString, HXStorageItemSet::ItemRef> items;
        for (const QString &name : arrivals) {
            items.insert(name, make(name));
            QVERIFY(set.insertStorageItem(items.value(name)));
            set.checkInvariants();
        }
        QVERIFY(!set.insertStorageItem(make(arrivals.first()))); // a second item of one name
        const QStringList words = operation.split(u' ', Qt::SkipEmptyParts);
        const auto index = [&](const QString &word) {
            return word == u"end" ? HXNotFound : word.toULongLong();
        };
        if (words.value(0) == u"remove") {
            set.removeStorageItem(items.value(words.at(1)).get());
        } else if (words.value(0) == u"rename") {
            items.value(words.at(1))->setFilename(words.at(2));
            set.storageItemFilenameDidChange(items.value(words.at(1)).get(), words.at(2));
        } else if (words.value(0) == u"cluster" || words.value(0) == u"uncluster") {
            set.setClustered(words.at(0) == u"cluster",
                             HXRange{words.at(1).toULongLong(), words.at(2).toULongLong()});
        } else if (words.value(0) == u"sentinel") {
            QList<HXStorageItemSet::ItemRef> representing;
            if (words.at(2) != u"-")
                representing.append(items.value(words.at(2)));
            set.sentinelsForInsertingClusters({1}, index(words.at(1)), representing);
        } else if (words.value(0) == u"move") {
            const auto sentinels = set.sentinelsForInsertingClusters({1}, index(words.at(2)), {});
            set.substituteSentinel(HXOrderHandle::forSentinel(sentinels.first()), words.at(1));
        }
        set.checkInvariants();
        QCOMPARE(shape(set), expected);
        // The persistent form never holds a sentinel; the items follow the order.
        for (const QStringList &cluster : set.persistentStorageItemClusters())
            QVERIFY(!cluster.isEmpty());
        QStringList inOrder;
        for (const auto &item : set.storageItems())
            inOrder.append(item->filename());
        QStringList expectedOrder;
        for (const QString &name : expected.split(u' ', Qt::SkipEmptyParts)) {
            if (name != u"|" && !name.startsWith(u'#') && !name.startsWith(u'('))
                expectedOrder.append(name);
        }
        QCOMPARE(inOrder, expectedOrder);
    }

    // 10,000 names in a remembered order, arriving shuffled: linear, and in the kept order.
    void manyArrivals() {
        Items make;
        HXStorageItemSet set;
        QStringList order;
        for (int i = 0; i < 10000; ++i)
            order.append(u"s%1"_s.arg(i));
        set.setPersistentStorageItemClusters({order});
        QStringList shuffled = order;
        std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(5));
        for (const QString &name : shuffled)
            set.insertStorageItem(make(name));
        for (int i = 0; i < 10000; i += 2)
            set.removeStorageItem(set.storageItemWithFilename(order.at(i)).get());
        set.checkInvariants();
        const auto items = set.storageItems();
        QCOMPARE(items.size(), 5000);
        QCOMPARE(items.at(0)->filename(), u"s1"_s);
        QCOMPARE(items.last()->filename(), u"s9999"_s);
    }

    // The library of the worked example, written as files, opens to its tree; foreign changes
    // then reach the tree with every node keeping its identity.
    void workedExample() {
        QTemporaryDir folder;
        const QString base = folder.filePath(u"Library"_s);
        const QString novel = u"8f0c1de2a3b44c7d9e6a5f31c2d7b860-hxgroup"_s;
        const QString drafts = u"c7d2a1944eb0493ab6f8d015e2c3a76f-hxfilter"_s;
        const QString trashed = u"1b6e4f7a30c94d2b8a5de9c07f2146b3-hxgroup"_s;
        const QString a = u"aaaa.velmora"_s, b = u"bbbb.velmora"_s, c = u"cccc.velmora"_s;
        writePlist(base + u"/Root.plist"_s, {{u"defaultMarkup"_s, u"markdownqr"_s}});
        writePlist(base + u"/Info.hxgroup"_s,
                   {{u"childOrder"_s,
                     QStringList{u"Unfiled-hxgroup"_s, u"Groups-hxgroup"_s, u"Trash-hxtrash"_s}}});
        writePlist(base + u"/Unfiled-hxgroup/Info.hxgroup"_s,
                   {{u"displayName"_s, u"Inbox"_s}, {u"userIconName"_s, u"Inbox"_s}});
        makeSheet(base + u"/Unfiled-hxgroup/0a5e2b7c94d1463f8e1c6d27f3b09a41.velmora"_s);
        writePlist(
            base + u"/Groups-hxgroup/Info.hxgroup"_s,
            {{u"displayName"_s, u"Library"_s}, {u"childOrder"_s, QStringList{novel, drafts}}});
        // The order names a sheet that has not arrived yet: it keeps its place.
        writePlist(
            base + u"/Groups-hxgroup/"_s + novel + u"/Info.hxgroup"_s,
            {{u"displayName"_s, u"Novel"_s},
             {u"sheetClusters"_s,
              QVariantList{QStringList{a, b}, QStringList{u"late.velmora"_s}, QStringList{c}}}});
        for (const QString &sheet : {c, a, b})
            makeSheet(base + u"/Groups-hxgroup/"_s + novel + u"/"_s + sheet);
        writePlist(base + u"/Groups-hxgroup/"_s + drafts + u"/Info.hxfilter"_s,
                   {{u"displayName"_s, u"Drafts"_s}, {u"query"_s, QVariantMap{{u"any"_s, 1}}}});
        writePlist(base + u"/Trash-hxtrash/Info.hxtrash"_s,
                   {{u"childOrder"_s, QStringList{trashed}}});
        writePlist(base + u"/Trash-hxtrash/"_s + trashed + u"/Info.hxgroup"_s,
                   {{u"displayName"_s, u"Old"_s}});
        QFile stray(base + u"/notes.txt"_s);
        QVERIFY(stray.open(QIODevice::WriteOnly));
        stray.close();

        const auto library = HXLibrary::libraryAtURL(base, u"test"_s);
        QVERIFY(!library->isInvalid());
        const auto root = library->rootGroup();
        QStringList top;
        for (const auto &container : root->containers())
            top.append(container->filename());
        QCOMPARE(top, (QStringList{u"Unfiled-hxgroup"_s, u"Groups-hxgroup"_s, u"Trash-hxtrash"_s}));
        const auto main = library->mainGroup();
        QVERIFY(main);
        QCOMPARE(main->containers().size(), 2);
        const auto group = std::dynamic_pointer_cast<HXGroup>(main->containers().at(0));
        QCOMPARE(group->displayName(), u"Novel"_s);
        QCOMPARE(main->containers().at(1)->displayName(), u"Drafts"_s);
        QCOMPARE(names(group->sheetHandles()), (QStringList{a, b, c}));
        QCOMPARE(group->clusterRangeForSheetHandleIndex(1), (HXRange{0, 2}));
        QCOMPARE(library->trash()->containers().size(), 1);
        // The trash's contents count in no total but stay among the logical sheets.
        QCOMPARE(root->allContainers().size(), 5);
        QCOMPARE(root->descendantContainers().size(), 6);
        QVERIFY(QFileInfo::exists(base + u"/notes.txt"_s));
        QCOMPARE(library->defaultMarkupIdentifier(), u"markdownqr"_s);

        // The late sheet arrives and takes its kept place; another goes to the end.
        const auto handleA = group->sheetHandles().at(0);
        makeSheet(base + u"/Groups-hxgroup/"_s + novel + u"/late.velmora"_s);
        library->storageItemDidAppearAtURL(base + u"/Groups-hxgroup/"_s + novel +
                                           u"/late.velmora"_s);
        makeSheet(base + u"/Groups-hxgroup/"_s + novel + u"/new.velmora"_s);
        library->storageItemDidAppearAtURL(base + u"/Groups-hxgroup/"_s + novel +
                                           u"/new.velmora"_s);
        QCOMPARE(names(group->sheetHandles()),
                 (QStringList{a, b, u"late.velmora"_s, c, u"new.velmora"_s}));
        // A sheet moved into the inbox by someone else keeps its node.
        const QString inbox = base + u"/Unfiled-hxgroup/"_s + a;
        QVERIFY(QDir().rename(base + u"/Groups-hxgroup/"_s + novel + u"/"_s + a, inbox));
        library->storageItemAtURL(base + u"/Groups-hxgroup/"_s + novel + u"/"_s + a, inbox);
        QCOMPARE(library->itemAtURL(inbox), std::static_pointer_cast<HXStorageItem>(handleA));
        QCOMPARE(handleA->URL(), inbox);
        // A deleted sheet leaves the tree; an info file from elsewhere is read.
        QDir(base + u"/Groups-hxgroup/"_s + novel + u"/"_s + b).removeRecursively();
        library->storageItemDidChangeAtURL(base + u"/Groups-hxgroup/"_s + novel + u"/"_s + b);
        QCOMPARE(names(group->sheetHandles()),
                 (QStringList{u"late.velmora"_s, c, u"new.velmora"_s}));
        QTest::qWait(20);
        writePlist(base + u"/Groups-hxgroup/"_s + novel + u"/Info.hxgroup"_s,
                   {{u"displayName"_s, u"Renamed"_s},
                    {u"sheetClusters"_s, QVariantList{QStringList{c, u"new.velmora"_s}}}});
        group->readInfoFile();
        QCOMPARE(group->displayName(), u"Renamed"_s);
        QCOMPARE(names(group->sheetHandles()),
                 (QStringList{c, u"new.velmora"_s, u"late.velmora"_s}));
    }

    // A damaged info file is kept in memory and never written over.
    void corruptInfoFileNotWrittenBack() {
        QTemporaryDir folder;
        const QString base = folder.filePath(u"Library"_s);
        const QString info = base + u"/Groups-hxgroup/g-hxgroup/Info.hxgroup"_s;
        QDir().mkpath(QFileInfo(info).path());
        QFile file(info);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("<plist><dict><key>displayName");
        file.close();
        const auto library = HXLibrary::libraryAtURL(base, u"test"_s);
        const auto group =
            std::dynamic_pointer_cast<HXNativeGroup>(library->mainGroup()->containers().at(0));
        QVERIFY(group->isReadingInfoFile());
        group->setDisplayName(u"Mine"_s);
        group->writeInfoFileImmediately();
        QCOMPARE(file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray(),
                 QByteArray("<plist><dict><key>displayName"));
    }

    // A sheet of a library saves where its handle stands; asked for a fresh name, its storage
    // gives one that is free in that group.
    void sheetSavesWhereItsHandleIs() {
        QTemporaryDir folder;
        const auto library = HXLibrary::libraryAtURL(folder.filePath(u"Library"_s), u"test"_s);
        const auto inbox = library->defaultGroup();
        const QString url = inbox->URL() + u'/' + library->preferredFilenameForSheet();
        QVERIFY(library->newSheetMatchingMarkup({})->saveToURL(url, HXDocument::SaveOperationSave,
                                                               nullptr));
        library->storageItemDidAppearAtURL(url);
        const auto handle = inbox->sheetHandles().value(0);
        QVERIFY(handle);
        const auto sheet = handle->loadSheetIfNeeded();
        QVERIFY(sheet);
        QCOMPARE(sheet->URLForSaveOperation(HXDocument::SaveOperationSave, false), url);
        const QString fresh = sheet->URLForSaveOperation(HXDocument::SaveOperationSave, true);
        QCOMPARE(QFileInfo(fresh).path(), inbox->URL());
        QVERIFY(fresh != url && fresh.endsWith(u".velmora"_s));
    }

    void masks() {
        QTemporaryDir folder;
        const auto library = HXLibrary::libraryAtURL(folder.filePath(u"Library"_s), u"test"_s);
        const auto main = library->mainGroup();
        const auto inbox = library->defaultGroup();
        QCOMPARE(main->operationForCreatingSheet() & 3, 0u);
        QCOMPARE(inbox->operationForCreatingSheet() & 3, 1u);
        QCOMPARE(inbox->operationForCreatingContainerOfKind(HXContainerKind::Group) & 3, 0u);
        QCOMPARE(main->operationForCreatingContainerOfKind(HXContainerKind::Filter) & 3, 1u);
        // Not onto itself, nor into anything below it; a trash takes no insertion index.
        QCOMPARE(main->operationForInsertingContainer(main) & 3, 0u);
        QCOMPARE(library->trash()->operationForInsertingContainer(inbox),
                 HXContainer::OperationMove);
        QCOMPARE(library->trash()->operationForCreatingSheet(), 0u);
    }
};

HX_TEST_MAIN(TestStorageTree)
#include "tst_HXStorageTree.moc"
