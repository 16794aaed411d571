#include "AppCore/HXApplicationDelegate.h"
#include "AppCore/HXApplicationState.h"
#include "AppCore/HXSingleInstance.h"
#include "AppCore/HXWindowController.h"
#include "HXTestSupport.h"
#include "Model/Operations/HXStorageOperationQueue.h"
#include "Model/Persistence/HXLibrary.h"
#include "Model/Persistence/HXNativeGroup.h"
#include "Model/Sheets/HXSheet.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Model/Stores/HXPreferenceStore.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Utilities/HXUserDefaults.h"

#include <QFile>
#include <QProcess>
#include <QSignalSpy>

#include <semaphore>
#include <thread>

using namespace Qt::StringLiterals;

namespace {

// Records the end of the process and the alert instead of showing and doing them.
class Delegate : public HXApplicationDelegate {
public:
    QStringList events;

protected:
    void terminate() override { events.append(u"terminate"_s); }
    void presentPendingOperationsAlert(const QString &, const QString &) override {
        events.append(u"alert"_s);
    }
    void dismissPendingOperationsAlert() override { events.append(u"alert closed"_s); }
};

QString textOf(const std::shared_ptr<HXSheetHandle> &handle) {
    const auto sheet = handle->loadSheetForReading();
    return sheet ? sheet->text()->string().trimmed() : u"(unreadable)"_s;
}

QStringList textsOf(const HXContainerRef &container) {
    QStringList texts;
    for (const auto &handle : container->sheetHandles())
        texts.append(textOf(handle));
    texts.sort();
    return texts;
}

QStringList namesOf(const HXContainerRef &container) {
    QStringList names;
    for (const auto &child : container->containers())
        names.append(child->displayName());
    return names;
}

void writeFile(const QString &path, const QByteArray &bytes) {
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(bytes);
}

// A small library with one group holding one sheet, as built-in content is.
void makeBundledLibrary(const QString &path, const QString &group, const QString &text) {
    const auto library = HXLibrary::libraryAtURL(path, path);
    HXError error;
    const auto made = library->createContainerOfKind(HXContainerKind::Group, library->mainGroup(),
                                                     group, HXNotFound, &error);
    QVERIFY(made);
    const auto sheet = library->newSheetMatchingMarkup({});
    sheet->text()->replaceCharactersInRange(HXRange{0, 0}, HXReplacement(text));
    QVERIFY(library->createSheet(sheet, HXNotFound, made, {}, &error));
    library->writePendingInfoFiles();
    library->invalidate();
}

std::shared_ptr<HXLibrary> localLibrary() {
    return HXStorageController::sharedInstance()->localLibrary();
}

} // namespace

class TestApplicationDelegate : public QObject {
    Q_OBJECT

    QTemporaryDir m_folder;
    Delegate m_delegate;

private slots:
    // The first start of all: files given before the library is loaded, and files a second
    // start hands over, are imported once the launch is through; the built-in introduction and
    // release notes arrive once.
    void firstLaunchOpensFilesAfterLoad() {
        writeFile(m_folder.filePath(u"early.txt"_s), "early");
        writeFile(m_folder.filePath(u"handed.txt"_s), "handed");
        QCOMPARE(m_delegate.startWithFiles({m_folder.filePath(u"early.txt"_s)},
                                           m_folder.filePath(u"instance"_s)),
                 HXApplicationDelegate::StartResult::Launched);
        QVERIFY(!m_delegate.finishedLaunching());
        QVERIFY(!m_delegate.validateCommand(u"newWindow"_s));
        QVERIFY(m_delegate.validateCommand(u"sendFeedback"_s));

        QProcess second;
        second.start(QStringLiteral(HELPER_PATH),
                     {m_folder.filePath(u"instance"_s), m_folder.filePath(u"handed.txt"_s)});
        QTRY_COMPARE_WITH_TIMEOUT(second.state(), QProcess::NotRunning, 10000);
        QCOMPARE(second.exitCode(), 0);

        QTRY_VERIFY_WITH_TIMEOUT(m_delegate.finishedLaunching(), 10000);
        QVERIFY(m_delegate.validateCommand(u"newWindow"_s));
        const auto library = localLibrary();
        QVERIFY(library);
        const auto imported = [&] {
            const QStringList texts = textsOf(library->defaultGroup());
            return texts.contains(u"early"_s) && texts.contains(u"handed"_s);
        };
        QTRY_VERIFY_WITH_TIMEOUT(imported(), 10000);
        QCOMPARE(HXUserDefaults::standardUserDefaults().integerForKey(
                     HXApplicationDelegate::firstLaunchSetupVersionKey),
                 1);
        const auto preferences = HXPreferenceStore::sharedInstance();
        QTRY_VERIFY_WITH_TIMEOUT(
            preferences->valueForKeyPath(u"global.introductionLoaded"_s).toBool(), 10000);
        QTRY_COMPARE(preferences->valueForKeyPath(u"global.loadedReleaseNotesVersion"_s).toInt(), 1);
        QTRY_COMPARE(HXApplicationState::sharedInstance().mainWindow()->containerOperationsCount(), 0);
        // The launch asked for the introduction twice (assistant and restored windows): it is
        // there once, after the release notes.
        const QStringList groups = namesOf(library->mainGroup());
        QCOMPARE(groups.count(u"What’s New: Velmora 1"_s), 1);
        QCOMPARE(groups.size(), 4);
        QCOMPARE(HXApplicationState::sharedInstance().windows().size(), 1);
        QVERIFY(!HXApplicationState::sharedInstance().mainWindow()->revealedItems().isEmpty());
    }

    // A process that died holding the instance leaves its lock and socket behind; the next
    // start takes both over instead of waiting for it.
    void deadInstanceIsTakenOver() {
        const QString folder = m_folder.filePath(u"dead"_s);
        QProcess holder;
        holder.start(QStringLiteral(HELPER_PATH), {folder, u"--hold"_s});
        QVERIFY(holder.waitForReadyRead(10000));
        QCOMPARE(holder.readAll().trimmed(), QByteArray("held"));
        HXSingleInstance later(folder);
        QVERIFY(!later.claim());
        holder.kill();
        QVERIFY(holder.waitForFinished(10000));
        QVERIFY(later.claim());
        QSignalSpy received(&later, &HXSingleInstance::filesReceived);
        QProcess second;
        second.start(QStringLiteral(HELPER_PATH), {folder, u"x.txt"_s});
        QTRY_COMPARE_WITH_TIMEOUT(second.state(), QProcess::NotRunning, 10000);
        QCOMPARE(second.exitCode(), 0);
        QCOMPARE(received.size(), 1);
        QVERIFY(received.first().first().toStringList().first().endsWith(u"/x.txt"_s));
    }

    void gates() {
        HXApplicationDelegate &delegate = m_delegate;
        QStringList order;
        // Launched already: at once, also from inside a handler.
        delegate.waitUntilLaunched([&] {
            order.append(u"a"_s);
            delegate.waitUntilLaunched([&] { order.append(u"inner"_s); });
        });
        order.append(u"b"_s);
        QCOMPARE(order, QStringList({u"a"_s, u"inner"_s, u"b"_s}));
        QCOMPARE(HXTestSupport::assertionText([&] { delegate.waitUntilRestored(nullptr); }),
                 u"handler != nil"_s);
    }

    // A handler that takes every file leaves nothing to open: no window, no import.
    void fileOpenHandlerTakesAll() {
        QStringList taken;
        HXApplicationDelegate::registerFileOpenHandler([&](const QStringList &urls) {
            taken += urls;
            return QStringList();
        });
        const auto before = textsOf(localLibrary()->defaultGroup());
        HXApplicationState::sharedInstance().removeWindow(
            HXApplicationState::sharedInstance().mainWindow());
        m_delegate.openFiles({m_folder.filePath(u"early.txt"_s)});
        QCOMPARE(taken.size(), 1);
        QVERIFY(HXApplicationState::sharedInstance().windows().isEmpty());
        QCoreApplication::processEvents();
        QCOMPARE(textsOf(localLibrary()->defaultGroup()), before);
        HXApplicationDelegate::removeAllFileOpenHandlers();
    }

    // Numbered folders of release notes: only names that are numbers as written, above the
    // version copied last, in the order of their numbers; two or more share a group.
    void releaseNotesNumbering() {
        const QString bundled = m_folder.filePath(u"bundled"_s);
        makeBundledLibrary(bundled + u"/Release Notes/9"_s, u"v9"_s, u"nine"_s);
        makeBundledLibrary(bundled + u"/Release Notes/12"_s, u"v12"_s, u"twelve"_s);
        makeBundledLibrary(bundled + u"/Release Notes/012"_s, u"v012"_s, u"zero twelve"_s);
        HXWindowController::setBundledContentFolder(bundled);
        const auto window = HXApplicationState::sharedInstance().newWindowUsingBlock(nullptr);
        const auto restore = [&](quint64 from) {
            bool success = false;
            quint64 version = 0;
            std::shared_ptr<HXStorageItem> selection;
            std::atomic<bool> done = false;
            std::thread worker([&] {
                window->restoreReleaseNotesStartingWithVersion(
                    from, [&](bool ok, const std::shared_ptr<HXStorageItem> &item, quint64 last) {
                        success = ok;
                        selection = item;
                        version = last;
                    });
                done = true;
            });
            const auto joinWorker = qScopeGuard([&] { worker.join(); });
            QTRY_VERIFY_WITH_TIMEOUT(done.load(), 10000);
            QVERIFY(success);
            QVERIFY(selection);
            QCOMPARE(textOf(std::static_pointer_cast<HXSheetHandle>(selection)),
                     u"twelve"_s);
            QCOMPARE(version, 12u);
        };
        const auto main = localLibrary()->mainGroup();
        restore(0);
        const auto group = main->containers().first();
        QCOMPARE(group->displayName(), u"Release Notes"_s);
        QCOMPARE(namesOf(group), QStringList({u"v12"_s, u"v9"_s}));
        restore(9);
        QCOMPARE(main->containers().first()->displayName(), u"What’s New: v12"_s);
        HXWindowController::setBundledContentFolder(u":"_s);
    }

    // Quitting while an operation runs waits for it: an operation that ends within the second
    // asks nothing; a longer one brings the alert, which either keeps the process (dismissed)
    // or closes when the operation ends and the process goes.
    void quitWaitsForOperations_data() {
        QTest::addColumn<int>("milliseconds");
        QTest::addColumn<bool>("dismiss");
        QTest::addColumn<QStringList>("events");
        QTest::newRow("short") << 300 << false << QStringList{u"terminate"_s};
        QTest::newRow("long, dismissed") << 1600 << true << QStringList{u"alert"_s};
        QTest::newRow("long, waited for")
            << 1600 << false << QStringList{u"alert"_s, u"alert closed"_s, u"terminate"_s};
    }
    void quitWaitsForOperations() {
        QFETCH(int, milliseconds);
        QFETCH(bool, dismiss);
        QFETCH(QStringList, events);
        m_delegate.events.clear();
        std::counting_semaphore<1> release{0};
        const auto operation = std::make_shared<HXContainerOperation>(
            [&](HXContainerOperation &) { release.acquire(); }, HXStorageOperation::Items{},
            HXStorageOperation::Items{localLibrary()->mainGroup()}, HXStorageOperation::Items{},
            u"t"_s, u"d"_s, 1);
        QVERIFY(HXStorageOperationQueue::sharedInstance()->addOperation(operation));
        QCOMPARE(m_delegate.applicationShouldTerminate(),
                 HXApplicationDelegate::TerminateReply::Later);
        QTimer::singleShot(milliseconds, [&] { release.release(); });
        if (dismiss) {
            QTRY_VERIFY_WITH_TIMEOUT(m_delegate.events.contains(u"alert"_s), 3000);
            m_delegate.pendingOperationsAlertDismissed();
        }
        QTRY_VERIFY_WITH_TIMEOUT(operation->isFinished(), 5000);
        QTRY_VERIFY_WITH_TIMEOUT(HXStorageOperationQueue::sharedInstance()->operations().isEmpty(),
                                 5000);
        QTest::qWait(1200);
        QCOMPARE(m_delegate.events, events);
    }
};

HX_TEST_MAIN(TestApplicationDelegate)
#include "tst_HXApplicationDelegate.moc"
