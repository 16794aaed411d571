// Dictionary merging, the restorable dictionary and the user defaults' key paths.

#include "HXTestSupport.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXDictionaryMerging.h"
#include "Utilities/HXRestorableDictionary.h"
#include "Utilities/HXUserDefaults.h"

class tst_HXCollections : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void mergeKeepsKeysOfTheReceiver();
    void mergeExistingKeysOnly();
    void restorableStates();
    void restorableCopiesAreIndependent();
    void keyPathReads();
    void keyPathWrites();
    void keyPathRemoval();
    void userDefaultsPersist();
};

void tst_HXCollections::mergeKeepsKeysOfTheReceiver() {
    const QVariantMap receiver{
        {QStringLiteral("a"), 1},
        {QStringLiteral("nested"), QVariantMap{{QStringLiteral("x"), 1}, {QStringLiteral("y"), 2}}},
        {QStringLiteral("replaced"), QVariantMap{{QStringLiteral("x"), 1}}},
    };
    const QVariantMap incoming{
        {QStringLiteral("b"), 2},
        {QStringLiteral("nested"),
         QVariantMap{{QStringLiteral("y"), 20}, {QStringLiteral("z"), 30}}},
        // A dictionary meeting a non-dictionary: the incoming value wins whole.
        {QStringLiteral("replaced"), QStringLiteral("text")},
    };
    const QVariantMap merged = HXDictionaryByMerging(receiver, incoming, false);
    QCOMPARE(merged.value(QStringLiteral("a")).toInt(), 1);
    QCOMPARE(merged.value(QStringLiteral("b")).toInt(), 2);
    QCOMPARE(merged.value(QStringLiteral("nested")).toMap(),
             (QVariantMap{
                 {QStringLiteral("x"), 1}, {QStringLiteral("y"), 20}, {QStringLiteral("z"), 30}}));
    QCOMPARE(merged.value(QStringLiteral("replaced")).toString(), QStringLiteral("text"));
    // The receiver itself is untouched.
    QCOMPARE(receiver.value(QStringLiteral("nested")).toMap().size(), 2);
}

void tst_HXCollections::mergeExistingKeysOnly() {
    QVariantMap receiver{
        {QStringLiteral("a"), 1},
        {QStringLiteral("nested"), QVariantMap{{QStringLiteral("x"), 1}}},
    };
    HXMergeDictionary(receiver,
                      {{QStringLiteral("a"), 10},
                       {QStringLiteral("new"), 5},
                       {QStringLiteral("nested"),
                        QVariantMap{{QStringLiteral("x"), 2}, {QStringLiteral("deepNew"), 3}}}},
                      true);
    QCOMPARE(receiver,
             (QVariantMap{{QStringLiteral("a"), 10},
                          {QStringLiteral("nested"), QVariantMap{{QStringLiteral("x"), 2}}}}));
}

void tst_HXCollections::restorableStates() {
    HXRestorableDictionary dictionary(QVariantList{1, 2},
                                      QStringList{QStringLiteral("a"), QStringLiteral("b")});
    QCOMPARE(dictionary.count(), 2);
    dictionary.saveCurrentState();
    dictionary.setObject(10, QStringLiteral("a"));
    dictionary.saveCurrentState();
    dictionary.removeObjectForKey(QStringLiteral("b"));
    dictionary.setObject(3, QStringLiteral("c"));
    QCOMPARE(dictionary.keys(), (QStringList{QStringLiteral("a"), QStringLiteral("c")}));

    dictionary.restoreLastState();
    QCOMPARE(dictionary.currentState(),
             (QVariantMap{{QStringLiteral("a"), 10}, {QStringLiteral("b"), 2}}));
    dictionary.restoreLastState();
    QCOMPARE(dictionary.currentState(),
             (QVariantMap{{QStringLiteral("a"), 1}, {QStringLiteral("b"), 2}}));
    try {
        dictionary.restoreLastState();
        QFAIL("a third restore must fail");
    } catch (const HXAssertionFailure &failure) {
        QCOMPARE(failure.text(), QStringLiteral("Restoring more states than saved."));
    }
    QVERIFY_THROWS_EXCEPTION(HXAssertionFailure,
                             HXRestorableDictionary(QVariantList{1}, QStringList{}));
}

void tst_HXCollections::restorableCopiesAreIndependent() {
    HXRestorableDictionary source(QVariantMap{{QStringLiteral("a"), 1}});
    source.saveCurrentState();
    source.setObject(2, QStringLiteral("a"));
    HXRestorableDictionary copy = source;
    copy.restoreLastState();
    QCOMPARE(copy.objectForKey(QStringLiteral("a")).toInt(), 1);
    QCOMPARE(source.objectForKey(QStringLiteral("a")).toInt(), 2);
    QCOMPARE(source.savedStates().size(), 1);
    source.restoreLastState();
    QCOMPARE(source.objectForKey(QStringLiteral("a")).toInt(), 1);
}

void tst_HXCollections::keyPathReads() {
    HXUserDefaults defaults(HXTestSupport::homeFolder().filePath(QStringLiteral("reads.ini")));
    defaults.setObject(
        QVariantMap{{QStringLiteral("number"), 5},
                    {QStringLiteral("inner"), QVariantMap{{QStringLiteral("flag"), true}}},
                    {QStringLiteral("zero"), 0},
                    {QStringLiteral("text"), QStringLiteral("yes")}},
        QStringLiteral("section"));
    QCOMPARE(defaults.objectForKeyPath(QStringLiteral("section.number")).toInt(), 5);
    QVERIFY(defaults.boolForKeyPath(QStringLiteral("section.inner.flag")));
    // The second component holds a number, so a third can't be walked.
    QVERIFY(!defaults.objectForKeyPath(QStringLiteral("section.number.deeper")).isValid());
    QVERIFY(!defaults.objectForKeyPath(QStringLiteral("missing.path")).isValid());
    // Only numbers are Booleans.
    QVERIFY(defaults.boolForKeyPath(QStringLiteral("section.number")));
    QVERIFY(!defaults.boolForKeyPath(QStringLiteral("section.zero")));
    QVERIFY(!defaults.boolForKeyPath(QStringLiteral("section.text")));
    QVERIFY(!defaults.boolForKeyPath(QStringLiteral("section.inner")));
    QVERIFY_THROWS_EXCEPTION(HXAssertionFailure, defaults.objectForKeyPath(QString()));
}

void tst_HXCollections::keyPathWrites() {
    HXUserDefaults defaults(HXTestSupport::homeFolder().filePath(QStringLiteral("writes.ini")));
    defaults.setObject(QVariantMap{{QStringLiteral("keep"), 1}, {QStringLiteral("blocker"), 7}},
                       QStringLiteral("printing"));
    const QVariantMap before = defaults.objectForKey(QStringLiteral("printing")).toMap();

    defaults.setObjectForKeyPath(QStringLiteral("Classic"), QStringLiteral("printing.usedTheme"));
    defaults.setBoolForKeyPath(true, QStringLiteral("printing.blocker.deep"));
    defaults.setObjectForKeyPath(3, QStringLiteral("fresh.a.b"));

    QCOMPARE(defaults.objectForKeyPath(QStringLiteral("printing.keep")).toInt(), 1);
    QCOMPARE(defaults.objectForKeyPath(QStringLiteral("printing.usedTheme")).toString(),
             QStringLiteral("Classic"));
    // A value on the way that is no dictionary gives way to one.
    QVERIFY(defaults.boolForKeyPath(QStringLiteral("printing.blocker.deep")));
    QCOMPARE(defaults.objectForKeyPath(QStringLiteral("fresh.a.b")).toInt(), 3);
    // What was read before is a value of its own and did not change.
    QCOMPARE(before.size(), 2);
    QCOMPARE(before.value(QStringLiteral("blocker")).toInt(), 7);

    // A top-level value through a path of one component.
    defaults.setBoolForKeyPath(false, QStringLiteral("sections"));
    QVERIFY(!defaults.boolForKeyPath(QStringLiteral("sections")));
    defaults.setObjectForKeyPath(1, QStringLiteral("firstLaunchSetupVersion"));
    QCOMPARE(defaults.integerForKey(QStringLiteral("firstLaunchSetupVersion")), 1);
    QVERIFY(defaults.boolForKey(QStringLiteral("firstLaunchSetupVersion")));
}

void tst_HXCollections::keyPathRemoval() {
    HXUserDefaults defaults(HXTestSupport::homeFolder().filePath(QStringLiteral("remove.ini")));
    defaults.setObjectForKeyPath(1, QStringLiteral("a.b.c"));
    defaults.setObjectForKeyPath(2, QStringLiteral("a.b.d"));
    defaults.removeObjectForKeyPath(QStringLiteral("a.b.c"));
    QVERIFY(!defaults.objectForKeyPath(QStringLiteral("a.b.c")).isValid());
    QCOMPARE(defaults.objectForKeyPath(QStringLiteral("a.b.d")).toInt(), 2);

    // A missing parent: nothing happens, and nothing is created.
    defaults.removeObjectForKeyPath(QStringLiteral("nothing.here.at.all"));
    QVERIFY(!defaults.objectForKey(QStringLiteral("nothing")).isValid());

    defaults.removeObjectForKeyPath(QStringLiteral("a"));
    QVERIFY(!defaults.objectForKey(QStringLiteral("a")).isValid());
}

void tst_HXCollections::userDefaultsPersist() {
    const QString path = HXTestSupport::homeFolder().filePath(QStringLiteral("persist.ini"));
    {
        HXUserDefaults defaults(path);
        defaults.setObjectForKeyPath(QVariantList{QStringLiteral("a"), 2},
                                     QStringLiteral("styleEditing.editedStylePaths"));
        defaults.setBoolForKeyPath(true, QStringLiteral("printing.showPageNumbers"));
        QVERIFY(defaults.synchronize());
    }
    HXUserDefaults again(path);
    QCOMPARE(again.objectForKeyPath(QStringLiteral("styleEditing.editedStylePaths")).toList(),
             (QVariantList{QStringLiteral("a"), 2}));
    QVERIFY(again.boolForKeyPath(QStringLiteral("printing.showPageNumbers")));

    // The standard defaults live in the test's own configuration folder.
    QVERIFY(HXUserDefaults::standardUserDefaults().fileName().startsWith(
        HXTestSupport::homeFolder().path()));
}

HX_TEST_MAIN(tst_HXCollections)
#include "tst_HXCollections.moc"
