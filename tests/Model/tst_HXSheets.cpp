#include "HXTestSupport.h"
#include "Model/Attachments/HXCountingGoal.h"
#include "Model/Attachments/HXFileAttachment.h"
#include "Model/Attachments/HXKeywordsAttachment.h"
#include "Model/Attachments/HXNoteAttachment.h"
#include "Model/Persistence/HXVersionStore.h"
#include "Model/Sheets/HXContext.h"
#include "Model/Sheets/HXNativeSheet.h"
#include "Model/Stores/HXMarkupStore.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Utilities/HXFileSystem.h"
#include "Utilities/HXNotificationCenter.h"
#include "Utilities/HXUndoManager.h"

#include <QDirIterator>
#include <QProcess>
#include <QRandomGenerator>
#include <QSaveFile>
#include <QTimeZone>

#include <csignal>
#include <thread>

using namespace Qt::StringLiterals;

namespace {

// Runs an asynchronous step and the event loop until it answers.
bool finish(const std::function<void(HXDocument::CompletionHandler)> &step) {
    auto answer = std::make_shared<std::atomic<int>>(-1);
    step([answer](bool success) { *answer = success ? 1 : 0; });
    (void)QTest::qWaitFor([&] { return *answer >= 0; }, 20000);
    return *answer == 1;
}

std::shared_ptr<HXNativeSheet> openSheet(const QString &path, bool readOnly = false) {
    const auto sheet = HXNativeSheet::sheetWithURL(path, readOnly);
    return finish([&](auto done) { sheet->openWithCompletionHandler(done); }) ? sheet : nullptr;
}

QByteArray contents(const QString &path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void type(HXNativeSheet &sheet, const QString &text) {
    sheet.text()->replaceCharactersInRange(HXRange{sheet.text()->length(), 0}, HXReplacement(text));
}

// Replaces "Content.xml" the way a sync client does: a new file renamed over the old one.
void replaceContentFromOutside(const QString &package, const QByteArray &content) {
    QSaveFile file(package + u"/Content.xml"_s);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(content);
    QVERIFY(file.commit());
}

QByteArray sheetXML(const QString &text, const QString &version = u"1"_s) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<sheet version=\"" + version.toUtf8() +
           "\">\n<string><p>" + text.toUtf8() + "</p></string>\n</sheet>\n";
}

} // namespace

class TestSheets : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_folder;
    const QString helper = QStringLiteral(HELPER_PATH);

    QString copyOfData(const QString &name) {
        const QString target = m_folder.filePath(name);
        QDir(target).removeRecursively();
        QProcess::execute(u"cp"_s, {u"-r"_s, HXTestSupport::dataPath(u"Sheets/"_s + name), target});
        return target;
    }

private slots:
    void initTestCase() {
        HXMarkupStore::globalStore();
        HXDocument::setAutosaveDelay(0.2);
    }

    // A package read and written again is the same, byte for byte, media included.
    void goldenPackagesRoundTrip_data() {
        QTest::addColumn<QString>("name");
        QTest::addColumn<int>("version");
        QTest::newRow("text only") << u"version1.velmora"_s << 1;
        QTest::newRow("every attachment") << u"version2.velmora"_s << 2;
    }
    void goldenPackagesRoundTrip() {
        QFETCH(QString, name);
        QFETCH(int, version);
        const QString golden = HXTestSupport::dataPath(u"Sheets/"_s + name);
        const auto sheet = openSheet(golden, true);
        QVERIFY(sheet);
        QCOMPARE(sheet->contentVersion(), version);
        // In memory, as versions keep it, and on disk, as a save writes it.
        HXError error;
        const HXFileWrapperRef written = sheet->fileWrapperWithError(&error);
        QVERIFY(written);
        QCOMPARE(written->fileWrappers().value(u"Content.xml"_s)->regularFileContents(),
                 contents(golden + u"/Content.xml"_s));
        const QString copy = m_folder.filePath(u"copy-"_s + name);
        QVERIFY(sheet->saveToURL(copy, HXDocument::SaveOperationSaveTo, &error));
        const auto files = [](const QString &package) {
            QStringList found;
            for (QDirIterator it(package, QDir::Files, QDirIterator::Subdirectories); it.hasNext();)
                found.append(it.next().mid(package.size()));
            found.sort();
            return found;
        };
        QCOMPARE(files(copy), files(golden));
        for (const QString &file : files(golden))
            QCOMPARE(contents(copy + file), contents(golden + file));
    }

    // What a "Content.xml" holds, read and written again: attachments as stored, old forms
    // brought up to date, and the faults that refuse a sheet.
    void contentForms_data() {
        QTest::addColumn<QByteArray>("attachments");
        QTest::addColumn<QString>("error");
        QTest::addColumn<QByteArray>("written");
        QTest::addColumn<int>("version");
        QTest::newRow("old keywords type")
            << QByteArray("<attachment type=\"3\">a,b</attachment>") << QString()
            << QByteArray("<attachment type=\"keywords\">a,b</attachment>") << 2;
        QTest::newRow("old note type")
            << QByteArray("<attachment type=\"1\"><string><p>n</p></string></attachment>")
            << QString()
            << QByteArray("<attachment type=\"note\"><string xml:space=\"preserve\">\n<p>n</p>\n"
                          "</string></attachment>")
            << 2;
        QTest::newRow("keywords without keywords")
            << QByteArray("<attachment type=\"keywords\"> \n</attachment>") << QString()
            << QByteArray("</string>\n</sheet>") << 2;
        QTest::newRow("goal of two parts keeps the defaults")
            << QByteArray("<attachment type=\"goal\">words;at_most</attachment>") << QString()
            << QByteArray("<attachment type=\"goal\">characters;close_to;0</attachment>") << 2;
        QTest::newRow("unknown media identifier")
            << QByteArray("<attachment type=\"file\">abcdef12</attachment>") << QString()
            << QByteArray("<attachment type=\"file\"/>") << 2;
        QTest::newRow("no type") << QByteArray("<attachment>x</attachment>")
                                 << u"Attachment misses type,"_s << QByteArray() << 0;
        QTest::newRow("unknown type") << QByteArray("<attachment type=\"9\">x</attachment>")
                                      << u"Invalid attachment type: 9"_s << QByteArray() << 0;
        QTest::newRow("text in a note") << QByteArray("<attachment type=\"note\">x</attachment>")
                                        << u"Unexpected string: x"_s << QByteArray() << 0;
        QTest::newRow("no text") << QByteArray("NOSTRING") << u"Failed to read text from sheet."_s
                                 << QByteArray() << 0;
    }
    void contentForms() {
        QFETCH(QByteArray, attachments);
        QFETCH(QString, error);
        QFETCH(QByteArray, written);
        QFETCH(int, version);
        QByteArray xml = sheetXML(u"Text"_s);
        if (attachments == "NOSTRING")
            xml = "<sheet version=\"1\"></sheet>";
        else
            xml.replace("</sheet>", attachments + "</sheet>");
        const auto sheet = HXNativeSheet::sheetWithMarkup();
        HXSheetContext context;
        HXError failure;
        const bool read = sheet->loadTextXMLData(xml, context, &failure);
        QCOMPARE(read, error.isEmpty());
        if (!read) {
            QCOMPARE(failure.localizedDescription(), error);
            return;
        }
        QVERIFY(!sheet->hasUnsavedChanges());
        QCOMPARE(sheet->contentVersion(), version);
        HXSheetContext writing;
        const QByteArray out = sheet->contentDataUsingContext(writing, &failure);
        QVERIFY2(out.contains(written), out.constData());
        if (const auto files = sheet->fileAttachments(); !files.isEmpty())
            QVERIFY(files.first()->isEmpty());
    }

    void newerVersionIsRefused() {
        const auto sheet = HXNativeSheet::sheetWithMarkup();
        HXSheetContext context;
        HXError error;
        QVERIFY(!sheet->loadTextXMLData(sheetXML(u"x"_s, u"3"_s), context, &error));
        QCOMPARE(error.code(), 1);
        QVERIFY(error.localizedDescription().contains(u"newer version"_s));
        QCOMPARE(error.userInfo().value(HXShortLocalizedDescriptionKey).toString(),
                 error.localizedDescription());
    }

    // Names of media files: the identifier in them, and names cut to 255 bytes of UTF-8.
    void mediaNames_data() {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("identifier");
        QTest::addColumn<QString>("withNew");
        QTest::newRow("plain") << u"picture.png"_s << QString() << u"picture.0123abcd.png"_s;
        QTest::newRow("identifier")
            << u"picture.8f3a21cc.png"_s << u"8f3a21cc"_s << u"picture.0123abcd.png"_s;
        QTest::newRow("upper case") << u"a.8F3A21CC.JPG"_s << u"8F3A21CC"_s << u"a.0123abcd.JPG"_s;
        QTest::newRow("too short") << u"a.8f3a2.png"_s << QString() << u"a.8f3a2.0123abcd.png"_s;
        QTest::newRow("no extension") << u"README"_s << QString() << u"README.0123abcd.bin"_s;
        QTest::newRow("long ascii") << u"x"_s.repeated(300) + u".png"_s << QString()
                                    << u"x"_s.repeated(255 - 13) + u".0123abcd.png"_s;
        // Three bytes each: the cut falls between characters.
        QTest::newRow("long wide") << u"\u00e9\u4e2d"_s.repeated(100) + u".png"_s << QString()
                                   << u"\u00e9\u4e2d"_s.repeated(48) + u"\u00e9.0123abcd.png"_s;
    }
    void mediaNames() {
        QFETCH(QString, name);
        QFETCH(QString, identifier);
        QFETCH(QString, withNew);
        QCOMPARE(HXContext::identifierFromFilename(name), identifier);
        const auto file = HXFileWrapper::regularFileWithContents("x", name);
        const QString result = HXContext::filenameForFileWrapper(*file, u"0123abcd"_s);
        QCOMPARE(result, withNew);
        QVERIFY(result.toUtf8().size() <= 255);
        QCOMPARE(HXContext::identifierFromFilename(result), u"0123abcd"_s);
    }

    // A file keeps the identifier of its name while it is free; the same file is one entry.
    void contextStoresFiles() {
        HXSheetContext context;
        const auto a = HXFileWrapper::regularFileWithContents("a", u"a.8f3a21cc.png"_s);
        const auto b = HXFileWrapper::regularFileWithContents("b", u"b.8f3a21cc.png"_s);
        QCOMPARE(context.storeFileWrapper(a), u"8f3a21cc"_s);
        QCOMPARE(context.storeFileWrapper(a), u"8f3a21cc"_s);
        const QString other = context.storeFileWrapper(b);
        QVERIFY(other != u"8f3a21cc"_s);
        QCOMPARE(HXContext::identifierFromFilename(b->preferredFilename()), other);
        QCOMPARE(context.fileWrapperRepresentation()->fileWrappers().size(), 2);
        QCOMPARE(context.readFileWrapper(other), b);
    }

    // The change count through edits, undo and redo: dirty exactly when the state differs from
    // the saved one, and for good once undo can't lead back.
    void changeCount_data() {
        QTest::addColumn<QString>("steps");
        QTest::addColumn<bool>("dirty");
        QTest::newRow("edit") << u"e"_s << true;
        QTest::newRow("edit undo") << u"eu"_s << false;
        QTest::newRow("edit undo redo") << u"eur"_s << true;
        QTest::newRow("save undo") << u"esu"_s << true;
        QTest::newRow("save undo redo") << u"esur"_s << false;
        QTest::newRow("undo past save then edit") << u"esue"_s << true;
        QTest::newRow("undo past save, edit, undo") << u"esueu"_s << true;
        QTest::newRow("attachment change") << u"ea"_s << true;
        QTest::newRow("attachment change, undo") << u"eau"_s << true;
    }
    void changeCount() {
        QFETCH(QString, steps);
        QFETCH(bool, dirty);
        const auto sheet = HXNativeSheet::sheetWithMarkup();
        const auto undo = sheet->undoManager();
        for (const QChar step : steps) {
            if (step == u'e') {
                type(*sheet, u"word "_s);
                sheet->breakUndoCoalescing();
            } else if (step == u'u') {
                undo->undo();
            } else if (step == u'r') {
                undo->redo();
            } else if (step == u's') {
                sheet->updateChangeCount(HXDocument::ChangeCleared);
            } else if (step == u'a') {
                sheet->setCountingGoal(std::make_shared<HXCountingGoal>());
            }
        }
        QCOMPARE(sheet->hasUnsavedChanges(), dirty);
    }

    // Saving: our own write is never taken for a foreign one, two saves in a second leave two
    // tokens, and an autosave follows an edit by itself.
    void savesAndTokens() {
        const QString path = m_folder.filePath(u"tokens.velmora"_s);
        const auto sheet = HXNativeSheet::sheetWithMarkup();
        type(*sheet, u"First"_s);
        HXError error;
        QVERIFY(sheet->saveToURL(path, HXDocument::SaveOperationSave, &error));
        const QString first = sheet->fileChangeToken();
        QCOMPARE(sheet->changeToken(), first);
        type(*sheet, u" second"_s);
        QVERIFY(sheet->saveToURL(path, HXDocument::SaveOperationSave, &error));
        QVERIFY(sheet->fileChangeToken() != first);
        QCOMPARE(sheet->fileChangeToken(), sheet->changeTokenForItemAtURL(path));

        const QDateTime opened = sheet->lastFileOpenDate();
        sheet->presentedItemDidChange();
        sheet->waitForInteractionQueue();
        QCOMPARE(sheet->lastFileOpenDate(), opened); // no revert
        QCOMPARE(sheet->text()->string(), u"First second"_s);

        type(*sheet, u" third"_s);
        QTRY_VERIFY_WITH_TIMEOUT(!sheet->hasUnsavedChanges(), 5000);
        QVERIFY(openSheet(path, true)->text()->string() == u"First second third"_s);
        QVERIFY(!QDir(m_folder.path())
                     .entryList(QDir::Hidden | QDir::AllEntries)
                     .join(u' ')
                     .contains(u"velmora-"_s));
    }

    // Typing while saves run: nothing typed is lost, and the sheet ends clean and equal to its
    // file.
    void typingDuringSaves() {
        const QString path = m_folder.filePath(u"typing.velmora"_s);
        const auto sheet = HXNativeSheet::sheetWithMarkup();
        type(*sheet, u"A line of a long text with *some* words.\n"_s.repeated(20000));
        HXError error;
        QVERIFY(sheet->saveToURL(path, HXDocument::SaveOperationSave, &error));
        QElapsedTimer timer;
        timer.start();
        int saves = 0;
        while (timer.elapsed() < 1500) {
            if (saves++ % 50 == 0)
                sheet->autosaveWithCompletionHandler(nullptr);
            type(*sheet, u"x"_s);
            sheet->breakUndoCoalescing();
            QTest::qWait(1);
        }
        QTRY_VERIFY_WITH_TIMEOUT(!sheet->hasUnsavedChanges(), 10000);
        sheet->waitForInteractionQueue();
        QCOMPARE(openSheet(path, true)->text()->string(), sheet->text()->string());
    }

    // Another writer of an open sheet: a clean sheet takes the file; a dirty one keeps its
    // unsaved state as a version first, then takes the file.
    void foreignWritesWin() {
        const QString path = m_folder.filePath(u"foreign.velmora"_s);
        {
            const auto sheet = HXNativeSheet::sheetWithMarkup();
            type(*sheet, u"Ours"_s);
            QVERIFY(sheet->saveToURL(path, HXDocument::SaveOperationSave, nullptr));
        }
        const auto sheet = openSheet(path);
        QVERIFY(sheet);
        QTest::qWait(300); // the monitor watches the package
        replaceContentFromOutside(path, sheetXML(u"Theirs"_s));
        QTRY_COMPARE_WITH_TIMEOUT(sheet->text()->string(), u"Theirs"_s, 5000);
        QCOMPARE(sheet->changeDate(), sheet->fileModificationDate());
        QVERIFY(!sheet->hasUnsavedChanges());

        HXDocument::setAutosaveDelay(60);
        type(*sheet, u" and typed"_s);
        QVERIFY(sheet->hasUnsavedChanges());
        const qsizetype kept = HXVersionStore::versionsOfItem(path).size();
        replaceContentFromOutside(path, sheetXML(u"Theirs again"_s));
        QTRY_COMPARE_WITH_TIMEOUT(sheet->text()->string(), u"Theirs again"_s, 5000);
        HXDocument::setAutosaveDelay(0.2);
        const QList<HXFileVersion> versions = HXVersionStore::versionsOfItem(path);
        QCOMPARE(versions.size(), kept + 1);
        QVERIFY(contents(versions.first().path + u"/Content.xml"_s).contains("Theirs and typed"));
        QVERIFY(!sheet->hasUnsavedChanges());
    }

    // The package moved under an open sheet is followed; deleted, it closes the sheet.
    void moveAndDeletionFromOutside() {
        const QString path = m_folder.filePath(u"moving.velmora"_s);
        const QString moved = m_folder.filePath(u"moved.velmora"_s);
        QVERIFY(HXNativeSheet::sheetWithMarkup()->saveToURL(path, HXDocument::SaveOperationSave,
                                                            nullptr));
        const auto sheet = openSheet(path);
        QVERIFY(sheet);
        QTest::qWait(300);
        QVERIFY(QDir().rename(path, moved));
        QTRY_COMPARE_WITH_TIMEOUT(sheet->fileURL(), moved, 5000);
        QVERIFY(sheet->documentIsOpen());
        QVERIFY(QDir(moved).removeRecursively());
        QTRY_VERIFY_WITH_TIMEOUT(!sheet->documentIsOpen(), 5000);
        QVERIFY(sheet->fileChangeToken().isEmpty());
    }

    // A failing autosave of one state shows once a minute; a new edit shows at once; an
    // explicit save always.
    void errorNoticesAreThrottled() {
        int notices = 0;
        const auto observation = HXNotificationCenter::defaultCenter()->addObserver(
            HXDocument::unhandledSaveErrorNotification, [&](const HXNotification &) { ++notices; });
        const auto sheet = HXNativeSheet::sheetWithMarkup();
        type(*sheet, u"x"_s);
        const HXError error = HXError::withDescription(HXCocoaErrorDomain, 640, u"Disk full"_s);
        sheet->notifyError(error, HXDocument::SaveOperationAutosave);
        sheet->notifyError(error, HXDocument::SaveOperationAutosave);
        QTRY_COMPARE(notices, 1);
        type(*sheet, u"y"_s);
        sheet->notifyError(error, HXDocument::SaveOperationAutosave);
        QTRY_COMPARE(notices, 2);
        sheet->notifyError(error, HXDocument::SaveOperationSave);
        QTRY_COMPARE(notices, 3);
        QTest::qWait(50);
        QCOMPARE(notices, 3);
    }

    // A save into a folder that can't be written fails, keeps the sheet dirty and says so.
    void failedSaveKeepsTheSheetDirty() {
        const auto sheet = HXNativeSheet::sheetWithMarkup();
        type(*sheet, u"x"_s);
        HXError error;
        QVERIFY(!sheet->saveToURL(m_folder.filePath(u"no/such/folder/s.velmora"_s),
                                  HXDocument::SaveOperationSave, &error));
        QVERIFY(!error.isNull());
        QVERIFY(sheet->hasUnsavedChanges());
        QVERIFY(sheet->lastWriteError());
    }

    // Thinning of versions: all of the last day, one a day for a month, one a week after.
    void versionsAreThinned() {
        const QDateTime now = QDateTime(QDate(2026, 11, 23), QTime(12, 0), QTimeZone::utc());
        QList<QDateTime> dates;
        for (int hours = 0; hours < 24 * 120; hours += 6)
            dates.append(now.addSecs(-3600 * hours));
        const QList<qsizetype> kept = HXVersionStore::indexesToKeep(dates, now);
        int lastDay = 0, month = 0, older = 0;
        for (const qsizetype index : kept) {
            const qint64 age = dates.at(index).secsTo(now);
            (age < 86400 ? lastDay : age < 30 * 86400 ? month : older)++;
        }
        QCOMPARE(lastDay, 4);
        QCOMPARE(month, 30);
        QVERIFY(older >= 12 && older <= 14);
    }

    // A saving process killed at any moment leaves the package wholly old or wholly new.
    void killedSaveLeavesWholePackage() {
        const int rounds = qEnvironmentVariableIsSet("VELMORA_STRESS") ? 1000 : 100;
        const QString path = m_folder.filePath(u"killed.velmora"_s);
        {
            const auto sheet = HXNativeSheet::sheetWithMarkup();
            type(*sheet, u"Start\n"_s);
            QVERIFY(sheet->saveToURL(path, HXDocument::SaveOperationSave, nullptr));
        }
        for (int i = 0; i < rounds; ++i) {
            QProcess saver;
            saver.start(helper, {u"saves"_s, path});
            QVERIFY(saver.waitForStarted());
            std::this_thread::sleep_for(
                std::chrono::microseconds(30000 + QRandomGenerator::global()->bounded(60000)));
            ::kill(pid_t(saver.processId()), SIGKILL);
            saver.waitForFinished();
            const auto sheet = openSheet(path, true);
            QVERIFY2(sheet, qPrintable(u"round %1: the sheet doesn't read"_s.arg(i)));
            const QString text = sheet->text()->string();
            if (text == u"Start\n"_s)
                continue;
            const QString round = text.section(u'\n', 0, 0).mid(6);
            QVERIFY2(text == (u"Round "_s + round + u'\n').repeated(3000),
                     qPrintable(u"round %1: torn text"_s.arg(i)));
            QCOMPARE(sheet->noteAttachments().value(0)->text()->string(), round);
            QCOMPARE(sheet->fileAttachments().value(0)->fileWrapper()->regularFileContents(),
                     round.toUtf8());
            QCOMPARE(QString::fromUtf8(contents(path + u"/Text.txt"_s)), text);
        }
    }
};

HX_TEST_MAIN(TestSheets)
#include "tst_HXSheets.moc"
