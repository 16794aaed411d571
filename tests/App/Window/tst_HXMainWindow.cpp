// The application as a writer meets it: the first start copies the introduction and shows its
// first sheet; the window's editor takes typing, a list's Return and undo into the sheet; the
// word count follows; the window comes back as it was left. Screenshots in light and dark are
// kept in "screenshots" beside the test for people to look at.

#include "App/Editor/HXTextView.h"
#include "App/Library/HXLibraryModel.h"
#include "App/Library/HXLibrarySidebar.h"
#include "App/Library/HXSheetListModel.h"
#include "App/Library/HXSheetListView.h"
#include "App/Window/HXMainWindow.h"
#include "App/Window/HXMainWindowController.h"
#include "App/Window/HXStatusLine.h"
#include "App/Window/HXVelmoraApplication.h"
#include "AppCore/HXApplicationState.h"
#include "HXTestSupport.h"
#include "Model/Persistence/HXLibrary.h"
#include "Model/Persistence/HXNativeGroup.h"
#include "Model/Persistence/HXStorageController.h"
#include "Model/Persistence/HXVersionStore.h"
#include "Model/Sheets/HXSheet.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Utilities/HXUserDefaults.h"

#include <QAction>
#include <QApplication>
#include <QImage>
#include <QMessageBox>
#include <QProcess>
#include <QScrollBar>
#include <QStyleFactory>

#include <atomic>
#include <csignal>
#include <sys/resource.h>

using namespace Qt::StringLiterals;

namespace {

HXMainWindow *mainWindow() {
    const auto controller = std::dynamic_pointer_cast<HXMainWindowController>(
        HXApplicationState::sharedInstance().mainWindow());
    return controller ? controller->window() : nullptr;
}

QString sheetText(HXMainWindow *window) {
    return window->openSheetDocument()->text()->string();
}

// The mean lightness of the editor's background, from a strip at its right edge.
int editorLightness(HXMainWindow *window) {
    const QImage image = window->textView()->grab().toImage();
    qint64 sum = 0;
    int count = 0;
    for (int y = image.height() / 4; y < image.height() * 3 / 4; y += 7, ++count)
        sum += image.pixelColor(image.width() - 24, y).lightness();
    return count ? int(sum / count) : -1;
}

QPalette darkPalette() {
    QPalette palette(QColor(0x2b, 0x2b, 0x2e));
    palette.setColor(QPalette::WindowText, QColor(0xe4, 0xe4, 0xe6));
    palette.setColor(QPalette::Text, QColor(0xe4, 0xe4, 0xe6));
    palette.setColor(QPalette::Base, QColor(0x1f, 0x1f, 0x22));
    return palette;
}

} // namespace

class TestMainWindow : public QObject {
    Q_OBJECT

    QTemporaryDir m_folder;
    HXVelmoraApplication m_delegate;

private slots:
    // The first start: the library is made, the introduction copied, and its first sheet shown.
    void initTestCase() {
        QDir().mkpath(u"screenshots"_s);
        QCOMPARE(m_delegate.startWithFiles({}, m_folder.filePath(u"instance"_s)),
                 HXApplicationDelegate::StartResult::Launched);
        QTRY_VERIFY_WITH_TIMEOUT(m_delegate.finishedLaunching(), 10000);
        QTRY_VERIFY_WITH_TIMEOUT(mainWindow() && mainWindow()->openSheetHandle(), 10000);
        QTRY_COMPARE(HXApplicationState::sharedInstance().mainWindow()->containerOperationsCount(),
                     0);
        HXMainWindow *window = mainWindow();
        QVERIFY(window->isVisible());
        QVERIFY(!sheetText(window).isEmpty());
        QVERIFY(window->libraryModel()->rowCount() >= 1);
        QVERIFY(window->sheetListModel()->indexForSheetHandle(window->openSheetHandle()).isValid());
    }

    // Light follows the palette, dark too; both pictures kept.
    void screenshotsInLightAndDark() {
        HXMainWindow *window = mainWindow();
        window->resize(1280, 800);
        QApplication::processEvents();
        QVERIFY(!window->textView()->isDark());
        const int light = editorLightness(window);
        // A sheet just opened shows its top, and the scroll bar says so.
        QCOMPARE(window->textView()->verticalScrollBar()->value(), 0);
        QVERIFY(window->grab().save(u"screenshots/main-window-light.png"_s));

        const QPalette original = QApplication::palette();
        QApplication::setPalette(darkPalette());
        QTRY_VERIFY(window->textView()->isDark());
        const int dark = editorLightness(window);
        QVERIFY(window->grab().save(u"screenshots/main-window-dark.png"_s));
        QApplication::setPalette(original);
        QTRY_VERIFY(!window->textView()->isDark());
        QVERIFY2(light - dark > 100, qPrintable(u"light %1, dark %2"_s.arg(light).arg(dark)));
    }

    // Keys typed into the window's editor reach the sheet; Return continues a list; undo takes
    // the steps back one by one; the word count follows after a pause.
    void typingReturnInListAndUndo() {
        HXMainWindow *window = mainWindow();
        const int rows = window->sheetListModel()->rowCount();
        window->sheetList()->newSheet();
        QTRY_COMPARE(window->sheetListModel()->rowCount(), rows + 1);
        QTRY_VERIFY(window->openSheetHandle() && sheetText(window).isEmpty());
        HXTextView *view = window->textView();
        view->setFocus();
        QTest::keyClicks(view, u"* one"_s);
        QTest::keyClick(view, Qt::Key_Return);
        QTest::keyClicks(view, u"two"_s);
        QCOMPARE(sheetText(window), u"* one\n* two"_s);
        QTRY_COMPARE_WITH_TIMEOUT(window->statusLine()->wordCountText(), u"2 words"_s, 5000);

        // Typing "two", then the Return with the list's marker, go back one step each.
        for (const QString &text : {u"* one\n* "_s, u"* one"_s}) {
            QTest::keyClick(view, Qt::Key_Z, Qt::ControlModifier);
            QCOMPARE(sheetText(window), text);
        }
        QTest::keyClick(view, Qt::Key_Z, Qt::ControlModifier | Qt::ShiftModifier);
        QCOMPARE(sheetText(window), u"* one\n* "_s);
        QTRY_COMPARE_WITH_TIMEOUT(window->statusLine()->wordCountText(), u"1 word"_s, 5000);

        // Tags by meaning from the Format menu, written as the sheet's markup writes them.
        view->setSelectedRange(HXRange{2, 3});
        window->findChild<QAction *>(u"format.strong"_s)->trigger();
        QCOMPARE(sheetText(window), u"* **one**\n* "_s);
        window->findChild<QAction *>(u"format.heading2"_s)->trigger();
        QCOMPARE(sheetText(window), u"* ## **one**\n* "_s); // a heading inside the item
    }

    // Another process writes the open sheet, typed into but not yet saved: what was typed is
    // kept as a version and the editor shows the text on disk.
    void openSheetWrittenByAnotherProcess() {
        HXMainWindow *window = mainWindow();
        HXTextView *view = window->textView();
        view->setSelectedRange(HXRange{0, 0});
        QTest::keyClicks(view, u"Unsaved. "_s);
        QVERIFY(window->openSheetDocument()->hasUnsavedChanges());
        const QString textFile = m_folder.filePath(u"outside.txt"_s);
        QFile file(textFile);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("# From outside\nWritten by another process.\n");
        file.close();
        QProcess cli;
        cli.start(QStringLiteral(VELMORA_CLI),
                  {u"sheet"_s, u"set-text"_s, window->openSheetHandle()->URL(), textFile});
        QVERIFY(cli.waitForFinished(10000));
        QCOMPARE(cli.exitCode(), 0);
        QTRY_COMPARE_WITH_TIMEOUT(view->textStorage().string(),
                                  u"# From outside\nWritten by another process.\n"_s, 10000);
        view->checkInvariants();
        // The typed state is among the sheet's versions.
        bool kept = false;
        for (const HXFileVersion &version :
             HXVersionStore::versionsOfItem(window->openSheetHandle()->URL())) {
            QFile content(version.path + u"/Text.txt"_s);
            kept = kept ||
                   (content.open(QIODevice::ReadOnly) && content.readAll().startsWith("Unsaved. "));
        }
        QVERIFY(kept);
        QTest::keyClicks(view, u"x"_s);
        QVERIFY(view->textStorage().string().contains(u'x'));
    }

    // A save that meets a full disk (here a file size limit) is told in the window, naming the
    // sheet; the text stays in the editor and reaches the disk once there is room again.
    void fullDiskWhileSaving() {
        HXMainWindow *window = mainWindow();
        const auto sheet = window->openSheetDocument();
        const QString url = window->openSheetHandle()->URL();
        const QString text = QString(20000, u'w').replace(u"wwww"_s, u"word "_s);
        window->textView()->selectAll();
        window->textView()->editor().insertText(text);

        struct rlimit old {};
        getrlimit(RLIMIT_FSIZE, &old);
        const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
        struct rlimit limit = old;
        limit.rlim_cur = 16 * 1024;
        QCOMPARE(setrlimit(RLIMIT_FSIZE, &limit), 0);
        std::atomic<int> saved = -1;
        sheet->autosaveWithCompletionHandler([&](bool success) { saved = success; });
        QTRY_VERIFY(saved != -1);
        setrlimit(RLIMIT_FSIZE, &old);
        std::signal(SIGXFSZ, oldHandler);
        QCOMPARE(saved.load(), 0);

        const auto alert = [&]() -> QMessageBox * {
            for (QMessageBox *box : window->findChildren<QMessageBox *>())
                if (box->isVisible() && box->text().contains(QFileInfo(url).fileName()))
                    return box;
            return nullptr;
        };
        QTRY_VERIFY_WITH_TIMEOUT(alert(), 5000);
        alert()->close();
        QCOMPARE(window->textView()->textStorage().string(), text);

        saved = -1;
        sheet->autosaveWithCompletionHandler([&](bool success) { saved = success; });
        QTRY_COMPARE(saved.load(), 1);
        QFile onDisk(url + u"/Text.txt"_s);
        QVERIFY(onDisk.open(QIODevice::ReadOnly));
        QCOMPARE(QString::fromUtf8(onDisk.readAll()), text);
    }

    // What a window keeps for the next start brings back the container, the sheet and the
    // selection in a new window; terminating keeps it in the user defaults.
    void windowStateComesBack() {
        HXMainWindow *window = mainWindow();
        window->textView()->setSelectedRange(HXRange{1, 2});
        const QVariantMap state = window->windowState();

        HXMainWindow restored(HXStorageController::sharedInstance());
        restored.restoreWindowState(state);
        QCOMPARE(restored.selectedContainer(), window->selectedContainer());
        QCOMPARE(restored.openSheetHandle(), window->openSheetHandle());
        QCOMPARE(restored.textView()->selectedRange(), (HXRange{1, 2}));

        // Asked for the built-in content again with nothing new to copy, as every start asks,
        // the window keeps the container it was brought back with.
        const auto controller = std::dynamic_pointer_cast<HXMainWindowController>(
            HXApplicationState::sharedInstance().mainWindow());
        const auto inbox = HXStorageController::sharedInstance()->localLibrary()->defaultGroup();
        window->selectContainer(inbox);
        const int settled = controller->bundledContentSettleCount();
        controller->restoreIntroductionIfNeeded(false);
        QTRY_VERIFY(controller->bundledContentSettleCount() > settled);
        QCOMPARE(window->selectedContainer(), HXContainerRef(inbox));
        window->revealSheet(restored.openSheetHandle());

        m_delegate.saveWindowStates();
        const QVariantList saved = HXUserDefaults::standardUserDefaults()
                                       .objectForKey(HXVelmoraApplication::windowsKey)
                                       .toList();
        QCOMPARE(saved.size(), 1);
        QCOMPARE(saved.first().toMap().value(u"sheet"_s), state.value(u"sheet"_s));
    }

    // The open sheet moved to the trash from the list is read from then on; deleted by another
    // process, it leaves the editor.
    void openSheetTrashedOrDeleted() {
        HXMainWindow *window = mainWindow();
        const auto handle = window->openSheetHandle();
        window->sheetList()->setCurrentIndex(window->sheetListModel()->indexForSheetHandle(handle));
        window->sheetList()->trashSelectedSheets();
        QTRY_VERIFY(window->textView()->isReadOnly());
        QCOMPARE(window->openSheetHandle(), handle);
        QTest::keyClicks(window->textView(), u"lost?"_s);
        QVERIFY(!window->textView()->textStorage().string().contains(u"lost?"_s));

        QProcess cli;
        cli.start(QStringLiteral(VELMORA_CLI),
                  {u"library"_s, u"delete"_s,
                   HXStorageController::sharedInstance()->localLibrary()->baseURL(),
                   QFileInfo(handle->URL()).fileName()});
        QVERIFY(cli.waitForFinished(10000));
        QVERIFY2(cli.exitCode() == 0, cli.readAllStandardError().constData());
        QTRY_VERIFY_WITH_TIMEOUT(!window->openSheetHandle(), 10000);
        QVERIFY(!window->textView()->content());
    }
};

int main(int argc, char *argv[]) {
    HXTestSupport::setUpEnvironment();
    QApplication application(argc, argv);
    QApplication::setStyle(QStyleFactory::create(u"Fusion"_s));
    TestMainWindow test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_HXMainWindow.moc"
