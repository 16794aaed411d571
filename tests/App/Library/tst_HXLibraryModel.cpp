// The sidebar's and the sheet list's models and views over a real library in a temporary home:
// what they show follows the tree on disk, also when another process changes it, and what the
// writer does in them (renaming, new containers and sheets, drops, trashing) reaches the disk.
#include "App/Library/HXLibraryItemDelegate.h"
#include "App/Library/HXLibraryModel.h"
#include "App/Library/HXLibrarySidebar.h"
#include "App/Library/HXSheetListModel.h"
#include "App/Library/HXSheetListView.h"
#include "App/Library/HXSheetPreview.h"
#include "HXTestSupport.h"
#include "Model/Attachments/HXCountingGoal.h"
#include "Model/HXModelTestSupport.h"
#include "Model/Operations/HXStorageOperationQueue.h"
#include "Model/Persistence/HXLibrary.h"
#include "Model/Persistence/HXNativeGroup.h"
#include "Model/Persistence/HXStorageController.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Search/Aggregation/HXGoalController.h"
#include "Utilities/HXFileMonitor.h"
#include "Utilities/HXPropertyList.h"

#include <QAbstractItemModelTester>
#include <QApplication>
#include <QLineEdit>
#include <QMimeData>
#include <QProcess>
#include <QSignalSpy>
#include <QSplitter>

using namespace Qt::StringLiterals;

namespace {

using Handle = std::shared_ptr<HXSheetHandle>;
using Position = HXSheetListModel::ClusterPosition;

QStringList titles(const HXSheetListModel &model) {
    QStringList shown;
    for (int row = 0; row < model.rowCount(); ++row)
        shown.append(model.index(row).data(HXSheetListModel::TitleRole).toString());
    return shown;
}

QList<Position> positions(const HXSheetListModel &model) {
    QList<Position> shown;
    for (int row = 0; row < model.rowCount(); ++row)
        shown.append(
            Position(model.index(row).data(HXSheetListModel::ClusterPositionRole).toInt()));
    return shown;
}

QStringList rowNames(const QAbstractItemModel &model, const QModelIndex &parent) {
    QStringList names;
    for (int row = 0; row < model.rowCount(parent); ++row)
        names.append(model.index(row, 0, parent).data().toString());
    return names;
}

QVariantMap infoFile(const HXContainerRef &container) {
    return HXPropertyList::readFile(container->infoFileURL(), nullptr).toMap();
}

// The sheet names of a group's info file in their order, clusters run together.
QStringList storedSheetOrder(const HXContainerRef &group) {
    QStringList names;
    for (const QVariant &cluster : infoFile(group).value(u"sheetClusters"_s).toList())
        names.append(cluster.toStringList());
    return names;
}

bool onDisk(const HXContainerRef &container, const QString &name) {
    return QFileInfo::exists(container->URL() + u'/' + name);
}

// velmora-cli against the same library, as a second process.
int cli(const QStringList &arguments) {
    QProcess process;
    process.start(QStringLiteral(VELMORA_CLI), arguments);
    if (!process.waitForFinished(20000))
        return -1;
    if (process.exitCode() != 0)
        qWarning() << process.readAllStandardError();
    return process.exitCode();
}

} // namespace

class TestLibraryModel : public QObject {
    Q_OBJECT

    std::shared_ptr<HXStorageController> m_controller;
    std::shared_ptr<HXLibrary> m_library;

    HXContainerRef makeGroup(const QString &name, HXContainerRef parent = nullptr) {
        HXError error;
        const auto group = m_library->createContainerOfKind(
            HXContainerKind::Group, parent ? parent : m_library->mainGroup(), name, HXNotFound,
            &error);
        if (!group)
            qWarning() << error.localizedDescription();
        return group;
    }
    Handle makeSheet(const HXContainerRef &group, const QString &text) {
        return HXModelTestSupport::makeSheet(m_library, group, text);
    }

private slots:
    void initTestCase() {
        HXContainer::setInfoFileDelaysForTesting(50, 10);
        m_controller = HXStorageController::create();
        m_library = m_controller->localLibrary();
        QVERIFY(m_library && !m_library->isInvalid());
        bool loaded = false;
        m_controller->waitUntilLoaded([&] { loaded = true; });
        QTRY_VERIFY(loaded);
    }

    void titleAndPreview_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("title");
        QTest::addColumn<QString>("preview");
        QTest::newRow("heading") << u"# Chapter One\nIt was a dark night.\n\nRain  fell."_s
                                 << u"Chapter One"_s << u"It was a dark night. Rain fell."_s;
        // The markup reads closing hashes as text, and "#tag" as a tag.
        QTest::newRow("nested prefixes")
            << u"\n\n  > ## Quote ##\n\n- one\n* two\n3. three\n[x] done"_s << u"Quote ##"_s
            << u"one two three [x] done"_s;
        QTest::newRow("empty") << QString() << QString() << QString();
        QTest::newRow("blank lines only") << u"\n \n\t\n"_s << QString() << QString();
        QTest::newRow("inline tags go")
            << u"**Bold** *start*\n#tag and `code`"_s << u"Bold start"_s << u"tag and code"_s;
        QTest::newRow("long title cut")
            << QString(150, u'x') << QString(HXSheetPreview::titleLength, u'x') << QString();
        QTest::newRow("long preview cut") << u"T\n"_s + QString(400, u'y') << u"T"_s
                                          << QString(HXSheetPreview::previewLength, u'y');
    }
    // A list shows the first line without the tags the markup reads, and the lines after it run
    // together, both trimmed and short.
    void titleAndPreview() {
        QFETCH(QString, text);
        QFETCH(QString, title);
        QFETCH(QString, preview);
        const auto derived = HXSheetPreview::titleAndPreviewForText(text);
        QCOMPARE(derived.first, title);
        QCOMPARE(derived.second, preview);
    }

    // The sidebar shows the libraries over their containers and follows the tree: new
    // containers with the default name, renaming in place written to the info file, a group
    // made by another process, a folder removed on disk.
    void sidebarFollowsTree() {
        HXLibraryModel model(m_controller);
        QAbstractItemModelTester tester(&model);
        HXLibrarySidebar sidebar;
        sidebar.setModel(&model);
        sidebar.show();
        QVERIFY(QTest::qWaitForWindowExposed(&sidebar));
        QCOMPARE(model.rowCount(), 1);
        const QModelIndex library = model.index(0, 0);
        QVERIFY(library.data(HXLibraryModel::IsLibraryRole).toBool());
        QCOMPARE(library.data().toString(), m_library->displayName());
        QVERIFY(sidebar.isExpanded(library));
        QCOMPARE(model.containerForIndex(library), HXContainerRef(m_library->rootGroup()));
        QCOMPARE(rowNames(model, library),
                 (QStringList{u"Inbox"_s, m_library->displayName(), u"Trash"_s}));
        const HXContainerRef main = m_library->mainGroup();
        QVERIFY(!(model.indexForContainer(main).flags() & Qt::ItemIsEditable));

        const QModelIndex made = model.newGroupInContainer(main);
        QVERIFY(made.isValid());
        QCOMPARE(made.data().toString(), u"New Group"_s);
        const auto group = model.containerForIndex(made);
        QVERIFY(QFileInfo::exists(group->infoFileURL()));
        QVERIFY(!model.newGroupInContainer(m_library->defaultGroup()).isValid()); // no subgroups

        // From the sidebar: a filter inside the current group, opened for its name, which the
        // editor gives it.
        sidebar.setCurrentIndex(made);
        sidebar.newFilter();
        QCOMPARE(rowNames(model, made), QStringList{u"New Filter"_s});
        const QModelIndex filter = model.index(0, 0, made);
        QCOMPARE(sidebar.currentIndex(), filter);
        auto *editor = sidebar.findChild<QLineEdit *>();
        QVERIFY(editor);
        editor->setText(u"Drafts"_s);
        QTest::keyClick(editor, Qt::Key_Return);
        QTRY_COMPARE(filter.data().toString(), u"Drafts"_s);
        QTRY_COMPARE(infoFile(model.containerForIndex(filter)).value(u"displayName"_s).toString(),
                     u"Drafts"_s);
        QVERIFY(model.setData(made, u"  Novel "_s, Qt::EditRole));
        QVERIFY(!model.setData(made, u" "_s, Qt::EditRole));
        QTRY_COMPARE(infoFile(group).value(u"displayName"_s).toString(), u"Novel"_s);

        // Another process adds a group, a file manager removes one, right after the new folders
        // were made, before they are watched.
        const int before = model.rowCount(model.indexForContainer(main));
        QCOMPARE(cli({u"library"_s, u"add-group"_s, m_library->baseURL(), u"Groups"_s,
                      u"From Outside"_s}),
                 0);
        QTRY_COMPARE(rowNames(model, model.indexForContainer(main)).count(u"From Outside"_s), 1);
        QVERIFY(QDir(group->URL()).removeRecursively());
        QTRY_VERIFY(!model.indexForContainer(group).isValid());
        QCOMPARE(model.rowCount(model.indexForContainer(main)), before);
    }

    // Choosing a group in the sidebar shows its sheets in the list; the list follows sheets
    // moved by another process and by a sync client renaming folders.
    void listFollowsSelectionAndForeignMoves() {
        const auto a = makeGroup(u"A"_s), b = makeGroup(u"B"_s);
        const Handle alpha = makeSheet(a, u"# Alpha\nfirst sheet"_s);
        makeSheet(a, u"Beta\n\nsecond\nsheet"_s);
        HXLibraryModel libraryModel(m_controller);
        HXLibrarySidebar sidebar;
        sidebar.setModel(&libraryModel);
        HXSheetListModel list, other;
        QAbstractItemModelTester tester(&list), otherTester(&other);
        HXSheetListView view;
        view.setModel(&list);
        connect(&sidebar, &HXLibrarySidebar::containerSelected, &list,
                &HXSheetListModel::setContainer);

        sidebar.setCurrentIndex(libraryModel.indexForContainer(a));
        QCOMPARE(list.container(), a);
        QTRY_COMPARE(titles(list), (QStringList{u"Alpha"_s, u"Beta"_s}));
        QCOMPARE(list.index(0).data(HXSheetListModel::PreviewRole).toString(), u"first sheet"_s);
        QCOMPARE(list.index(1).data(HXSheetListModel::PreviewRole).toString(), u"second sheet"_s);
        QSignalSpy selected(&view, &HXSheetListView::sheetSelected);
        view.setCurrentIndex(list.index(0));
        QCOMPARE(selected.count(), 1);
        QCOMPARE(selected.last().first().value<Handle>(), alpha);

        other.setContainer(b);
        QCOMPARE(cli({u"library"_s, u"move"_s, m_library->baseURL(), alpha->filename(), u"--to"_s,
                      u"Groups/B"_s}),
                 0);
        QTRY_COMPARE(a->sheetHandles().size(), 1);
        QTRY_COMPARE(titles(list), QStringList{u"Beta"_s});
        QTRY_COMPARE(titles(other), QStringList{u"Alpha"_s});
        // The selected sheet went: nothing is selected any more.
        QCOMPARE(selected.count(), 2);
        QCOMPARE(selected.last().first().value<Handle>(), Handle());

        const Handle beta = list.sheetHandleForIndex(list.index(0));
        QVERIFY(QDir().rename(beta->URL(), b->URL() + u'/' + beta->filename()));
        QTRY_COMPARE(list.rowCount(), 0);
        QTRY_COMPARE(titles(other), (QStringList{u"Alpha"_s, u"Beta"_s}));
    }

    // Items dropped on the sidebar move there on disk: sheets onto a group, a group into
    // another, a group between rows; drops that mean nothing or can't be done are refused.
    void dropsOnSidebar() {
        const auto c = makeGroup(u"C"_s), d = makeGroup(u"D"_s), e = makeGroup(u"E"_s);
        const Handle sheet = makeSheet(c, u"Moving"_s);
        HXLibraryModel model(m_controller);
        QAbstractItemModelTester tester(&model);
        HXSheetListModel list;
        list.setContainer(c);
        const std::unique_ptr<QMimeData> sheets(list.mimeData({list.index(0)}));
        QVERIFY(sheets && sheets->hasFormat(HXLibraryModel::itemsMimeType));
        const QModelIndex cRow = model.indexForContainer(c), dRow = model.indexForContainer(d);
        QVERIFY(!model.canDropMimeData(sheets.get(), Qt::MoveAction, -1, 0, cRow)); // its own
        QVERIFY(!model.canDropMimeData(sheets.get(), Qt::MoveAction, 0, 0, dRow));  // between
        QVERIFY(!model.canDropMimeData(sheets.get(), Qt::MoveAction, -1, 0,
                                       model.indexForContainer(m_library->mainGroup())));
        // A payload from elsewhere carries the paths only.
        QMimeData foreign;
        foreign.setData(HXLibraryModel::itemsMimeType, sheets->data(HXLibraryModel::itemsMimeType));
        QVERIFY(model.dropMimeData(&foreign, Qt::MoveAction, -1, 0, dRow));
        QTRY_VERIFY(onDisk(d, sheet->filename()) && !onDisk(c, sheet->filename()));
        QTRY_COMPARE(list.rowCount(), 0);

        const std::unique_ptr<QMimeData> group(model.mimeData({model.indexForContainer(e)}));
        // The queue refuses what overlaps an operation that has not quite ended.
        QTRY_VERIFY(HXStorageOperationQueue::sharedInstance()->operations().isEmpty());
        QVERIFY(model.dropMimeData(group.get(), Qt::MoveAction, -1, 0, dRow));
        QTRY_VERIFY(onDisk(d, e->filename()));
        QTRY_COMPARE(model.indexForContainer(e).parent(), model.indexForContainer(d));
        const std::unique_ptr<QMimeData> outer(model.mimeData({model.indexForContainer(d)}));
        QVERIFY(!model.canDropMimeData(outer.get(), Qt::MoveAction, -1, 0,
                                       model.indexForContainer(e))); // into itself
        QVERIFY(!model.mimeData({model.indexForContainer(m_library->defaultGroup())}));

        // Between rows: the place in the parent's order, kept in its info file.
        const HXContainerRef main = m_library->mainGroup();
        QTRY_VERIFY(HXStorageOperationQueue::sharedInstance()->operations().isEmpty());
        QVERIFY(
            model.dropMimeData(outer.get(), Qt::MoveAction, 0, 0, model.indexForContainer(main)));
        QTRY_COMPARE(model.indexForContainer(d).row(), 0);
        QTRY_COMPARE(infoFile(main).value(u"childOrder"_s).toStringList().value(0), d->filename());

        // Onto the trash: trashed, with where it came from.
        const QModelIndex trash = model.indexForContainer(m_library->trash());
        const std::unique_ptr<QMimeData> cGroup(model.mimeData({model.indexForContainer(c)}));
        QVERIFY(!model.canDropMimeData(cGroup.get(), Qt::CopyAction, -1, 0, trash));
        QTRY_VERIFY(HXStorageOperationQueue::sharedInstance()->operations().isEmpty());
        QVERIFY(model.dropMimeData(cGroup.get(), Qt::MoveAction, -1, 0, trash));
        QTRY_COMPARE(model.indexForContainer(c).parent(), trash);
        QVERIFY(onDisk(m_library->trash(), c->filename()));
    }

    // Reordering in the list reaches the info file; clusters show their rows' places; new
    // sheets come at the row asked for; Delete moves the selected sheets to the trash.
    void listOrderClustersNewAndTrash() {
        const auto g = makeGroup(u"G"_s);
        for (const QString &text : {u"one"_s, u"two"_s, u"three"_s, u"four"_s})
            makeSheet(g, text);
        HXSheetListModel list;
        QAbstractItemModelTester tester(&list);
        HXSheetListView view;
        view.setModel(&list);
        list.setContainer(g);
        QTRY_COMPARE(titles(list), (QStringList{u"one"_s, u"two"_s, u"three"_s, u"four"_s}));

        const std::unique_ptr<QMimeData> last(list.mimeData({list.index(3)}));
        QVERIFY(!list.canDropMimeData(last.get(), Qt::MoveAction, -1, 0, {}));
        QVERIFY(list.dropMimeData(last.get(), Qt::MoveAction, 0, 0, {}));
        QTRY_COMPARE(titles(list), (QStringList{u"four"_s, u"one"_s, u"two"_s, u"three"_s}));
        QStringList names;
        for (const Handle &handle : g->sheetHandles())
            names.append(handle->filename());
        QTRY_COMPARE(storedSheetOrder(g), names);

        const struct {
            bool clustered;
            HXRange range;
            QList<Position> expected;
        } clusterings[] = {
            {true, {1, 3}, {Position::Single, Position::First, Position::Middle, Position::Last}},
            {false,
             {0, 4},
             {Position::Single, Position::Single, Position::Single, Position::Single}},
            {true, {0, 2}, {Position::First, Position::Last, Position::Single, Position::Single}},
            {true, {2, 2}, {Position::First, Position::Last, Position::First, Position::Last}},
        };
        for (const auto &clustering : clusterings) {
            g->setClustered(clustering.clustered, clustering.range);
            QTRY_COMPARE(positions(list), clustering.expected);
        }

        QTRY_VERIFY(HXStorageOperationQueue::sharedInstance()->operations().isEmpty());
        Handle made;
        list.newSheetAtRow(1, [&](const Handle &handle) {
            made = handle;
            QCOMPARE(list.indexForSheetHandle(handle).row(), 1); // the row is there already
        });
        QTRY_VERIFY(made);
        QTRY_COMPARE(list.index(1).data(HXSheetListModel::TitleRole).toString(), u"Empty Sheet"_s);

        // Two rows selected: no single sheet; Delete trashes both.
        HXSheetListModel trash;
        trash.setContainer(m_library->trash());
        QSignalSpy selected(&view, &HXSheetListView::sheetSelected);
        view.setCurrentIndex(list.index(0));
        view.selectionModel()->select(list.index(2), QItemSelectionModel::Select);
        QCOMPARE(selected.count(), 2);
        QCOMPARE(selected.last().first().value<Handle>(), Handle());
        const QList<Handle> chosen = view.selectedSheetHandles();
        QTRY_VERIFY(HXStorageOperationQueue::sharedInstance()->operations().isEmpty());
        QTest::keyClick(&view, Qt::Key_Delete);
        QTRY_COMPARE(list.rowCount(), 3);
        QTRY_VERIFY(trash.indexForSheetHandle(chosen.at(0)).isValid() &&
                    trash.indexForSheetHandle(chosen.at(1)).isValid());
        QVERIFY(onDisk(m_library->trash(), chosen.at(0)->filename()));
        QVERIFY(!list.indexForSheetHandle(chosen.at(1)).isValid());
    }

    // A group's goal shows as a ring that follows the count, and goes with the goal. Leaves a
    // picture of the sidebar and the list for people to look at.
    void goalRingAndScreenshot() {
        const auto novel = std::static_pointer_cast<HXNativeGroup>(makeGroup(u"Novel"_s));
        const auto stories = std::static_pointer_cast<HXNativeGroup>(makeGroup(u"Short Stories"_s));
        makeSheet(stories, u"Three short words"_s);
        makeGroup(u"Notes"_s);
        const auto first = makeSheet(novel, u"# The Harbour\nThe boats came in at dawn, one by "
                                            u"one, their lanterns still lit."_s);
        makeSheet(novel, u"# Market Day\nStalls of fish and bread along the quay."_s);
        makeSheet(novel, u"Letters\nA bundle tied with string."_s);
        novel->setClustered(true, HXRange{1, 2});
        auto goal = std::make_shared<HXCountingGoal>();
        goal->setCounterIdentifier(u"words"_s);
        goal->setTargetResult(40);
        goal->setType(HXCountingGoal::AtLeast);
        novel->setCountingGoal(goal);
        const auto reached = std::static_pointer_cast<HXCountingGoal>(goal->copy());
        reached->setTargetResult(3);
        stories->setCountingGoal(reached);

        HXLibraryModel model(m_controller);
        HXSheetListModel list;
        QSplitter window;
        auto *sidebar = new HXLibrarySidebar(&window);
        auto *view = new HXSheetListView(&window);
        sidebar->setModel(&model);
        view->setModel(&list);
        connect(sidebar, &HXLibrarySidebar::containerSelected, &list,
                &HXSheetListModel::setContainer);
        window.setSizes({220, 300});
        window.resize(560, 380);
        window.show();
        const QModelIndex row = model.indexForContainer(novel);
        sidebar->expand(row.parent());
        sidebar->setCurrentIndex(row);
        QTRY_VERIFY_WITH_TIMEOUT(row.data(HXLibraryModel::GoalProgressRole).toDouble() > 0.3,
                                 10000);
        QCOMPARE(row.data(HXLibraryModel::GoalStatusRole).toInt(),
                 int(HXGoalProgressStatus::InProgress));
        QTRY_COMPARE(model.indexForContainer(stories).data(HXLibraryModel::GoalStatusRole).toInt(),
                     int(HXGoalProgressStatus::Reached));
        QTRY_COMPARE(titles(list).value(0), u"The Harbour"_s);
        view->setCurrentIndex(list.indexForSheetHandle(first));

        const QImage image = window.grab().toImage();
        QDir().mkpath(QDir::currentPath() + u"/screenshots"_s);
        QVERIFY(image.save(QDir::currentPath() + u"/screenshots/library-sidebar-and-list.png"_s));
        // The ring is drawn in its status's colour.
        const QRect ring = HXLibraryItemDelegate::ringRect(sidebar->visualRect(row))
                               .toAlignedRect()
                               .translated(sidebar->viewport()->mapTo(&window, QPoint()));
        const auto [r, g, b] = HXGoalController::colorForStatus(HXGoalProgressStatus::InProgress);
        const QColor expected = QColor::fromRgbF(r, g, b);
        bool found = false;
        for (int y = ring.top(); y <= ring.bottom() && !found; ++y) {
            for (int x = ring.left(); x <= ring.right() && !found; ++x) {
                const QColor pixel = image.pixelColor(x * image.width() / window.width(),
                                                      y * image.height() / window.height());
                found = qAbs(pixel.red() - expected.red()) < 12 &&
                        qAbs(pixel.green() - expected.green()) < 12 &&
                        qAbs(pixel.blue() - expected.blue()) < 12;
            }
        }
        QVERIFY(found);

        novel->setCountingGoal(nullptr);
        QTRY_VERIFY(!row.data(HXLibraryModel::GoalProgressRole).isValid());
    }
};

int main(int argc, char *argv[]) {
    HXTestSupport::setUpEnvironment();
    QApplication application(argc, argv);
    TestLibraryModel test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_HXLibraryModel.moc"
