// Dictionary merging, the restorable dictionary and the user defaults' key paths.

#include "HXTestSupport.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXDictionaryMerging.h"
#include "Utilities/HXRestorableDictionary.h"
#include "Utilities/HXUserDefaults.h"

using namespace Qt::StringLiterals;

class tst_HXCollections : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void merging_data();
    void merging();
    void restorableStates();
    void keyPathReads();
    void keyPathWrites();
    void keyPathRemoval();
    void userDefaultsPersist();
};

void tst_HXCollections::merging_data() {
    QTest::addColumn<QVariantMap>("incoming");
    QTest::addColumn<bool>("existingKeysOnly");
    QTest::addColumn<QVariantMap>("expected");

    // Each is merged into {a = 1; nested = {x = 1; y = 2}; replaced = {x = 1}}. A dictionary
    // meeting a non-dictionary gives way to the incoming value whole.
    const QVariantMap incoming{{u"b"_s, 2},
                               {u"nested"_s, QVariantMap{{u"y"_s, 20}, {u"z"_s, 30}}},
                               {u"replaced"_s, u"text"_s}};
    QTest::newRow("all keys") << incoming << false
                              << QVariantMap{{u"a"_s, 1},
                                             {u"b"_s, 2},
                                             {u"nested"_s,
                                              QVariantMap{{u"x"_s, 1}, {u"y"_s, 20}, {u"z"_s, 30}}},
                                             {u"replaced"_s, u"text"_s}};
    QTest::newRow("existing keys only, at every depth")
        << incoming << true
        << QVariantMap{{u"a"_s, 1},
                       {u"nested"_s, QVariantMap{{u"x"_s, 1}, {u"y"_s, 20}}},
                       {u"replaced"_s, u"text"_s}};
    QTest::newRow("a hash read from elsewhere is a dictionary too")
        << QVariantMap{{u"nested"_s, QVariantHash{{u"y"_s, 20}}}} << false
        << QVariantMap{{u"a"_s, 1},
                       {u"nested"_s, QVariantMap{{u"x"_s, 1}, {u"y"_s, 20}}},
                       {u"replaced"_s, QVariantMap{{u"x"_s, 1}}}};
}

void tst_HXCollections::merging() {
    QFETCH(QVariantMap, incoming);
    QFETCH(bool, existingKeysOnly);
    QFETCH(QVariantMap, expected);
    const QVariantMap receiver{{u"a"_s, 1},
                               {u"nested"_s, QVariantMap{{u"x"_s, 1}, {u"y"_s, 2}}},
                               {u"replaced"_s, QVariantMap{{u"x"_s, 1}}}};
    QCOMPARE(HXDictionaryByMerging(receiver, incoming, existingKeysOnly), expected);
}

void tst_HXCollections::restorableStates() {
    HXRestorableDictionary dictionary(QVariantList{1, 2}, QStringList{u"a"_s, u"b"_s});
    dictionary.saveCurrentState();
    dictionary.setObject(10, u"a"_s);
    dictionary.saveCurrentState();
    dictionary.removeObjectForKey(u"b"_s);
    dictionary.setObject(3, u"c"_s);
    QCOMPARE(dictionary.keys(), (QStringList{u"a"_s, u"c"_s}));

    // A copy carries copies of every state: using up its saved states leaves the source's alone.
    HXRestorableDictionary copy = dictionary;
    copy.restoreLastState();
    copy.restoreLastState();
    QCOMPARE(dictionary.keys(), (QStringList{u"a"_s, u"c"_s}));

    dictionary.restoreLastState();
    QCOMPARE(dictionary.currentState(), (QVariantMap{{u"a"_s, 10}, {u"b"_s, 2}}));
    dictionary.restoreLastState();
    QCOMPARE(dictionary.currentState(), (QVariantMap{{u"a"_s, 1}, {u"b"_s, 2}}));
    QCOMPARE(copy.currentState(), dictionary.currentState());
    QCOMPARE(HXTestSupport::assertionText([&] { dictionary.restoreLastState(); }),
             u"Restoring more states than saved."_s);
    QVERIFY_THROWS_EXCEPTION(HXAssertionFailure,
                             HXRestorableDictionary(QVariantList{1}, QStringList{}));
}

void tst_HXCollections::keyPathReads() {
    HXUserDefaults defaults(HXTestSupport::homeFolder().filePath(u"reads.ini"_s));
    defaults.setObject(QVariantMap{{u"number"_s, 5},
                                   {u"inner"_s, QVariantMap{{u"flag"_s, true}}},
                                   {u"zero"_s, 0},
                                   {u"text"_s, u"yes"_s}},
                       u"section"_s);
    QCOMPARE(defaults.objectForKeyPath(u"section.number"_s).toInt(), 5);
    QVERIFY(defaults.boolForKeyPath(u"section.inner.flag"_s));
    // The second component holds a number, so a third can't be walked.
    QVERIFY(!defaults.objectForKeyPath(u"section.number.deeper"_s).isValid());
    QVERIFY(!defaults.objectForKeyPath(u"missing.path"_s).isValid());
    // Only numbers are Booleans.
    QVERIFY(defaults.boolForKeyPath(u"section.number"_s));
    QVERIFY(!defaults.boolForKeyPath(u"section.zero"_s));
    QVERIFY(!defaults.boolForKeyPath(u"section.text"_s));
    QVERIFY(!defaults.boolForKeyPath(u"section.inner"_s));
    QVERIFY_THROWS_EXCEPTION(HXAssertionFailure, defaults.objectForKeyPath(QString()));
}

void tst_HXCollections::keyPathWrites() {
    HXUserDefaults defaults(HXTestSupport::homeFolder().filePath(u"writes.ini"_s));
    defaults.setObject(QVariantMap{{u"keep"_s, 1}, {u"blocker"_s, 7}}, u"printing"_s);
    defaults.setObjectForKeyPath(u"Classic"_s, u"printing.usedTheme"_s);
    defaults.setBoolForKeyPath(true, u"printing.blocker.deep"_s);
    defaults.setObjectForKeyPath(3, u"fresh.a.b"_s);

    QCOMPARE(defaults.objectForKeyPath(u"printing.keep"_s).toInt(), 1);
    QCOMPARE(defaults.objectForKeyPath(u"printing.usedTheme"_s).toString(), u"Classic"_s);
    // A value on the way that is no dictionary gives way to one.
    QVERIFY(defaults.boolForKeyPath(u"printing.blocker.deep"_s));
    QCOMPARE(defaults.objectForKeyPath(u"fresh.a.b"_s).toInt(), 3);
    // A path of one component is a top-level key.
    defaults.setObjectForKeyPath(1, u"firstLaunchSetupVersion"_s);
    QCOMPARE(defaults.integerForKey(u"firstLaunchSetupVersion"_s), 1);
}

void tst_HXCollections::keyPathRemoval() {
    HXUserDefaults defaults(HXTestSupport::homeFolder().filePath(u"remove.ini"_s));
    defaults.setObjectForKeyPath(1, u"a.b.c"_s);
    defaults.setObjectForKeyPath(2, u"a.b.d"_s);
    defaults.removeObjectForKeyPath(u"a.b.c"_s);
    QVERIFY(!defaults.objectForKeyPath(u"a.b.c"_s).isValid());
    QCOMPARE(defaults.objectForKeyPath(u"a.b.d"_s).toInt(), 2);

    // A missing parent: nothing happens, and nothing is created.
    defaults.removeObjectForKeyPath(u"nothing.here.at.all"_s);
    QVERIFY(!defaults.objectForKey(u"nothing"_s).isValid());

    defaults.removeObjectForKeyPath(u"a"_s);
    QVERIFY(!defaults.objectForKey(u"a"_s).isValid());
}

void tst_HXCollections::userDefaultsPersist() {
    const QString path = HXTestSupport::homeFolder().filePath(u"persist.ini"_s);
    {
        HXUserDefaults defaults(path);
        defaults.setObjectForKeyPath(QVariantList{u"a"_s, 2}, u"styleEditing.editedStylePaths"_s);
        defaults.setBoolForKeyPath(true, u"printing.showPageNumbers"_s);
        QVERIFY(defaults.synchronize());
    }
    HXUserDefaults again(path);
    QCOMPARE(again.objectForKeyPath(u"styleEditing.editedStylePaths"_s).toList(),
             (QVariantList{u"a"_s, 2}));
    QVERIFY(again.boolForKeyPath(u"printing.showPageNumbers"_s));

    // The standard defaults live in the test's own configuration folder.
    QVERIFY(HXUserDefaults::standardUserDefaults().fileName().startsWith(
        HXTestSupport::homeFolder().path()));
}

HX_TEST_MAIN(tst_HXCollections)
#include "tst_HXCollections.moc"
