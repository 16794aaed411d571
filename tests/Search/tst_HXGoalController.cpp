#include "HXTestSupport.h"
#include "Model/Attachments/HXCountingGoal.h"
#include "Model/HXModelTestSupport.h"
#include "Model/Persistence/HXLibrary.h"
#include "Model/Persistence/HXNativeGroup.h"
#include "Model/Sheets/HXNativeSheet.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Model/Stores/HXPreferenceStore.h"
#include "Search/Aggregation/HXGoalController.h"
#include "Search/Aggregation/HXSheetCountingSource.h"
#include "Text/String/Access/HXAtomicString.h"

#include <QSignalSpy>

using namespace Qt::StringLiterals;

namespace {

std::shared_ptr<HXCountingGoal> goal(const QString &counter, std::optional<double> target,
                                     quint64 type) {
    auto goal = std::make_shared<HXCountingGoal>();
    goal->setCounterIdentifier(counter);
    goal->setTargetResult(target);
    goal->setType(type);
    return goal;
}

using HXModelTestSupport::makeSheet;

// Lets the counting queue finish and its results reach the main thread.
void settle() {
    HXSheetCountingSource::sharedSource()->waitUntilIdle();
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();
}

} // namespace

class TestGoalController : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_folder;

private slots:
    // The status bands of the three kinds of goal, at and around each boundary, with the
    // progress in its steps of 0.002 and never below 0.01.
    void measuring_data() {
        QTest::addColumn<double>("target");
        QTest::addColumn<double>("count");
        QTest::addColumn<quint64>("type");
        QTest::addColumn<double>("progress");
        QTest::addColumn<int>("status");
        const quint64 closeTo = HXCountingGoal::CloseTo, atLeast = HXCountingGoal::AtLeast,
                      atMost = HXCountingGoal::AtMost;
        QTest::newRow("close to, within 3 %") << 1000.0 << 976.0 << closeTo << 0.976 << 3;
        QTest::newRow("close to, 0.969 rounds to 0.97") << 1000.0 << 969.0 << closeTo << 0.97 << 3;
        QTest::newRow("close to, almost") << 1000.0 << 960.0 << closeTo << 0.96 << 2;
        QTest::newRow("close to, 1.03 still reached") << 1000.0 << 1030.0 << closeTo << 1.03 << 3;
        QTest::newRow("close to, 1.032 exceeded") << 1000.0 << 1031.0 << closeTo << 1.032 << 4;
        QTest::newRow("close to, 0.9 is in progress") << 1000.0 << 900.0 << closeTo << 0.9 << 1;
        QTest::newRow("at least, 0.902 almost") << 1000.0 << 901.0 << atLeast << 0.902 << 2;
        QTest::newRow("at least, 0.998 almost") << 1000.0 << 998.0 << atLeast << 0.998 << 2;
        QTest::newRow("at least, 0.999 rounds to reached")
            << 1000.0 << 999.0 << atLeast << 1.0 << 3;
        QTest::newRow("at least, reached") << 1000.0 << 1000.0 << atLeast << 1.0 << 3;
        QTest::newRow("at least, never exceeded") << 1000.0 << 1200.0 << atLeast << 1.2 << 3;
        QTest::newRow("at most, 0.95 reached") << 1000.0 << 950.0 << atMost << 0.95 << 3;
        QTest::newRow("at most, the limit") << 1000.0 << 1000.0 << atMost << 1.0 << 3;
        QTest::newRow("at most, 1.001 rounds to the limit")
            << 1000.0 << 1001.0 << atMost << 1.0 << 3;
        QTest::newRow("at most, 1.002 exceeded") << 1000.0 << 1002.0 << atMost << 1.002 << 4;
        QTest::newRow("at most, 1.01 exceeded") << 1000.0 << 1010.0 << atMost << 1.01 << 4;
        QTest::newRow("at most, 0.8 in progress") << 1000.0 << 800.0 << atMost << 0.8 << 1;
        QTest::newRow("nothing counted") << 1000.0 << 0.0 << closeTo << 0.01 << 1;
        QTest::newRow("a target of 0 is no goal") << 0.0 << 50.0 << closeTo << 0.01 << 0;
    }

    void measuring() {
        QFETCH(double, target);
        QFETCH(double, count);
        QFETCH(quint64, type);
        const auto words = goal(u"words"_s, target, type);
        const HXGoalMeasurement measurement = HXGoalController::measure(
            {{u"words"_s, count}}, *words, HXTextCounter::defaultDisplayParameters());
        QTEST(measurement.progress, "progress");
        QTEST(int(measurement.progressStatus), "status");
    }

    // No count, a counter that isn't in the count or isn't one at all: nothing to show.
    void measuringWithoutACount() {
        const auto parameters = HXTextCounter::defaultDisplayParameters();
        const auto words = goal(u"words"_s, 100, HXCountingGoal::AtLeast);
        for (const HXCountDictionary &result :
             {HXCountDictionary(), HXCountDictionary{{u"characters"_s, 5}}}) {
            const HXGoalMeasurement measurement =
                HXGoalController::measure(result, *words, parameters);
            QCOMPARE(int(measurement.progressStatus), 0);
            QCOMPARE(measurement.progress, 0.01);
            QVERIFY(measurement.displayString.isNull());
        }
        const auto bogus = goal(u"numberOfSheets"_s, 1, HXCountingGoal::AtLeast);
        QCOMPARE(int(HXGoalController::measure({{u"numberOfSheets"_s, 3}}, *bogus, parameters)
                         .progressStatus),
                 0);
    }

    // A group's goal totals the group's sheets, follows sheets that come and go, the goal's own
    // fields and the norm page of the preferences; a pages goal follows the norm page at once,
    // from the stored line lengths, without counting any sheet again.
    void groupGoal() {
        const QString path = m_folder.filePath(u"Library"_s);
        const auto library = HXLibrary::libraryAtURL(path, path);
        HXError error;
        const auto group = library->createContainerOfKind(
            HXContainerKind::Group, library->mainGroup(), u"Novel"_s, HXNotFound, &error);
        QVERIFY(group);
        makeSheet(library, group, u"One two three four.\nFive six."_s);
        makeSheet(library, group, u"Seven eight nine ten."_s);

        const auto words = goal(u"words"_s, 19, HXCountingGoal::AtLeast);
        const auto controller = HXGoalController::controllerWithStorageItem(group, words);
        QCOMPARE(HXGoalController::controllerWithStorageItem(group, words), controller);
        QCOMPARE(int(controller->progressStatus()), 0);
        settle();
        QCOMPARE(controller->displayString(), u"10"_s);
        QCOMPARE(controller->progress(), 0.526);
        QCOMPARE(int(controller->progressStatus()), 1);

        const auto third = makeSheet(library, group,
                                     u"Eleven twelve thirteen fourteen fifteen "
                                     u"sixteen seventeen eighteen."_s);
        QTRY_COMPARE_WITH_TIMEOUT((settle(), controller->displayString()), u"18"_s, 5000);
        QCOMPARE(int(controller->progressStatus()), 2);

        words->setType(HXCountingGoal::CloseTo);
        words->setTargetResult(18);
        QTRY_COMPARE((settle(), int(controller->progressStatus())), 3);

        // 5 lines at 60 characters a line (the third sheet's takes two): 0.2 pages at 30 lines a
        // page, 0.5 at 10.
        const auto pages = goal(u"pages"_s, 0.4, HXCountingGoal::AtLeast);
        const auto pageController = HXGoalController::controllerWithStorageItem(group, pages);
        settle();
        QCOMPARE(pageController->displayString(), u"0.2"_s);
        QSignalSpy updates(pageController.get(), &HXGoalController::didUpdate);
        HXPreferenceStore::sharedInstance()->setValue(10, u"textCounter.linesPerPage"_s);
        QVERIFY(updates.count() >= 1);
        QCOMPARE(pageController->displayString(), u"0.5"_s);
        QCOMPARE(int(pageController->progressStatus()), 3);
        HXPreferenceStore::sharedInstance()->setValue(0, u"textCounter.linesPerPage"_s);
        QCOMPARE(pageController->displayString(), u"0.2"_s);

        // A sheet's goal counts that sheet alone, and follows a change of its text.
        const auto sheetGoal = goal(u"characters"_s, 100, HXCountingGoal::AtMost);
        const auto sheetController = HXGoalController::controllerWithStorageItem(third, sheetGoal);
        settle();
        QCOMPARE(sheetController->displayString(), u"67"_s);
        const auto sheet = third->loadSheetIfNeeded();
        sheet->text()->replaceCharactersInRange(HXRange{0, sheet->text()->length()},
                                                HXReplacement(u"Short."_s));
        HXSheetCountingSource::sharedSource()->noteSheetDidChange(third);
        QTRY_COMPARE((settle(), sheetController->displayString()), u"6"_s);
        QTRY_COMPARE((settle(), controller->displayString()), u"11"_s);
    }

    // One controller per item and goal, while someone holds it; the programming errors.
    void sharingAndErrors() {
        const QString path = m_folder.filePath(u"Shared"_s);
        const auto library = HXLibrary::libraryAtURL(path, path);
        const auto first = goal(u"words"_s, 1, 0);
        const auto second = goal(u"words"_s, 1, 0);
        auto a = HXGoalController::controllerWithStorageItem(library->mainGroup(), first);
        const auto b = HXGoalController::controllerWithStorageItem(library->mainGroup(), second);
        QVERIFY(a != b);
        QCOMPARE(a->countingGoal(), first);
        QCOMPARE(HXTestSupport::assertionText([&] {
                     HXGoalController::controllerWithStorageItem(library->mainGroup(), nullptr);
                 }),
                 u"Invalid parameter not satisfying: goal != nil"_s);
        const auto odd = goal(u"words"_s, 1, 7);
        QCOMPARE(HXTestSupport::assertionText([&] {
                     HXGoalController::measure({{u"words"_s, 1}}, *odd, {});
                 }),
                 u"Unknown counting goal type: 7"_s);
    }

    // A new goal takes the counter and type the user chose last.
    void defaultSettings() {
        QCOMPARE(HXCountingGoal::newCountingGoalWithDefaultSettings()->counterIdentifier(),
                 u"characters"_s);
        HXCountingGoal::storeDefaultCounterIdentifier(u"pages"_s);
        HXCountingGoal::storeDefaultType(HXCountingGoal::AtMost);
        const auto fresh = HXCountingGoal::newCountingGoalWithDefaultSettings();
        QCOMPARE(fresh->counterIdentifier(), u"pages"_s);
        QCOMPARE(fresh->type(), quint64(HXCountingGoal::AtMost));
        QVERIFY(fresh->isEmpty());
        QCOMPARE(HXTestSupport::assertionText(
                     [] { HXCountingGoal::storeDefaultCounterIdentifier(QString()); }),
                 u"Invalid parameter not satisfying: counterIdentifier.length > 0"_s);
    }
};

HX_TEST_MAIN(TestGoalController)
#include "tst_HXGoalController.moc"
