// The preference store: defaults for every key, merging of stored sections, fresh copies along a
// changed path with notification per section, one delayed write for many changes, the write at
// termination, and failures that keep the state in memory.

#include "HXTestSupport.h"
#include "Model/Stores/HXKeyValueStore.h"
#include "Model/Stores/HXPreferenceStore.h"
#include "Utilities/HXApplicationLog.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXNotificationCenter.h"
#include "Utilities/HXPropertyList.h"

#include <QElapsedTimer>
#include <QFile>
#include <QSignalSpy>
#include <QUrl>

#include <thread>

using namespace Qt::StringLiterals;

using namespace std::chrono_literals;

namespace {

void spin(int milliseconds) {
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < milliseconds)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
}

QString storePath(const QString &name) {
    const QString path =
        HXTestSupport::homeFolder().filePath(name + QStringLiteral("/Preferences.plist"));
    QFile::remove(path);
    return path;
}

QVariantMap fileContents(const QString &path) {
    return HXPropertyList::readFile(path, nullptr).toMap();
}

class MemoryKeyValueStore : public HXKeyValueStore {
public:
    QVariantMap values;
    bool synchronizes = true;
    bool synchronize() override { return synchronizes; }
    QVariantMap dictionaryRepresentation() const override { return values; }
    QVariant objectForKey(const QString &key) const override { return values.value(key); }
    void setObject(const QVariant &value, const QString &key) override {
        values.insert(key, value);
    }
    void removeObjectForKey(const QString &key) override { values.remove(key); }
};

} // namespace

class tst_HXPreferenceStore : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void everyKeyHasADefault();
    void storedSectionKeepsOtherDefaults();
    void settingOneValue();
    void topLevelMustBeADictionary();
    void twentyChangesOneWrite();
    void terminationWritesAtOnce();
    void writeFailureKeepsState();
    void damagedFileFallsBackToDefaults();
    void unstorableValuesAreRefused();
    void siblingKeysFromTwoThreads();
    void nestedDictionariesMergeKeyByKey();
    void globalStoreSynchronizationFailure();
    void deallocationWithPendingWriteIsLogged();
    void sharedStoreLivesInApplicationSupport();
};

void tst_HXPreferenceStore::everyKeyHasADefault() {
    const QStringList keyPaths{QStringLiteral("global.introductionLoaded"),
                               QStringLiteral("global.loadedReleaseNotesVersion"),
                               QStringLiteral("editor.fontName"),
                               QStringLiteral("editor.recentFontNames"),
                               QStringLiteral("editor.pageWidth"),
                               QStringLiteral("editor.lineSpacing"),
                               QStringLiteral("editor.paragraphSpacing"),
                               QStringLiteral("editor.firstLineIndent"),
                               QStringLiteral("editor.insertionPoint"),
                               QStringLiteral("textCounter.charactersPerLine"),
                               QStringLiteral("textCounter.linesPerPage"),
                               QStringLiteral("textCounter.visibleCounters"),
                               QStringLiteral("countingGoal.defaultCounter"),
                               QStringLiteral("countingGoal.defaultType"),
                               QStringLiteral("themes.currentTheme"),
                               QStringLiteral("menuController.defaultImporter"),
                               QStringLiteral("menuController.defaultExporter"),
                               QStringLiteral("favorites.sheetHandles")};
    HXPreferenceStore store(storePath(QStringLiteral("defaults")));
    for (const QString &keyPath : keyPaths) {
        QVERIFY2(store.defaultValueForKeyPath(keyPath).isValid(), qPrintable(keyPath));
        QCOMPARE(store.valueForKeyPath(keyPath), store.defaultValueForKeyPath(keyPath));
    }
    for (const QString &section : store.keys())
        QVERIFY(store.objectForKey(section).typeId() == QMetaType::QVariantMap);
}

void tst_HXPreferenceStore::storedSectionKeepsOtherDefaults() {
    const QString path = storePath(QStringLiteral("partial"));
    QDir().mkpath(QFileInfo(path).absolutePath());
    QVERIFY(HXPropertyList::writeFile(
        QVariantMap{{QStringLiteral("editor"),
                     QVariantMap{{QStringLiteral("fontName"), QStringLiteral("Stored Font")},
                                 {QStringLiteral("retired"), 1}}},
                    {QStringLiteral("plugin"), QVariantMap{{QStringLiteral("x"), 2}}}},
        path, nullptr));
    HXPreferenceStore store(path);
    QCOMPARE(store.valueForKeyPath(QStringLiteral("editor.fontName")).toString(),
             QStringLiteral("Stored Font"));
    // Keys the file lacks keep their defaults...
    QCOMPARE(store.valueForKeyPath(QStringLiteral("editor.pageWidth")),
             store.defaultValueForKeyPath(QStringLiteral("editor.pageWidth")));
    // ...and keys the defaults no longer hold live on, at both levels.
    QCOMPARE(store.valueForKeyPath(QStringLiteral("editor.retired")).toInt(), 1);
    QCOMPARE(store.valueForKeyPath(QStringLiteral("plugin.x")).toInt(), 2);
    // Reading changed nothing on disk and asked for no write.
    QVERIFY(!store.needsWrite());
}

void tst_HXPreferenceStore::settingOneValue() {
    HXPreferenceStore store(storePath(QStringLiteral("one")));
    const QVariantMap editorBefore = store.objectForKey(QStringLiteral("editor")).toMap();
    int editorChanges = 0, fontChanges = 0, counterChanges = 0;
    QObject context;
    store.addObserverForKeyPath(QStringLiteral("editor"), &context, [&] { ++editorChanges; });
    store.addObserverForKeyPath(QStringLiteral("editor.fontName"), &context,
                                [&] { ++fontChanges; });
    store.addObserverForKeyPath(QStringLiteral("textCounter.linesPerPage"), &context,
                                [&] { ++counterChanges; });
    QSignalSpy willChange(&store, &HXPreferenceStore::willChangeValueForKey);

    store.setValue(QStringLiteral("Chosen"), QStringLiteral("editor.fontName"));

    QCOMPARE(store.valueForKeyPath(QStringLiteral("editor.fontName")).toString(),
             QStringLiteral("Chosen"));
    QVariantMap expected = editorBefore;
    expected.insert(QStringLiteral("fontName"), QStringLiteral("Chosen"));
    QCOMPARE(store.objectForKey(QStringLiteral("editor")).toMap(), expected);
    // What was read before the change did not change under its reader.
    QCOMPARE(editorBefore.value(QStringLiteral("fontName")),
             store.defaultValueForKeyPath(QStringLiteral("editor.fontName")));
    QCOMPARE(editorChanges, 1);
    QCOMPARE(fontChanges, 1);
    QCOMPARE(counterChanges, 0);
    QCOMPARE(willChange.size(), 1);
    QCOMPARE(willChange.first().first().toString(), QStringLiteral("editor"));
    // The defaults stay what they were.
    QVERIFY(store.defaultValueForKeyPath(QStringLiteral("editor.fontName")).toString() !=
            u"Chosen");

    // A deeper path makes the dictionaries on the way.
    store.setValue(5, QStringLiteral("editor.metrics.custom.size"));
    QCOMPARE(store.valueForKeyPath(QStringLiteral("editor.metrics.custom.size")).toInt(), 5);
    QCOMPARE(store.valueForKeyPath(QStringLiteral("editor.fontName")).toString(),
             QStringLiteral("Chosen"));

    store.removeObjectForKey(QStringLiteral("editor"));
    QVERIFY(!store.objectForKey(QStringLiteral("editor")).isValid());
    QCOMPARE(editorChanges, 3);
    QVERIFY(store.needsWrite());
    store.writeStoreIfNeeded();
}

void tst_HXPreferenceStore::topLevelMustBeADictionary() {
    HXPreferenceStore store(storePath(QStringLiteral("top")));
    try {
        store.setObject(5, QStringLiteral("editor"));
        QFAIL("a number on the top level was accepted");
    } catch (const HXAssertionFailure &failure) {
        QCOMPARE(
            failure.text(),
            QStringLiteral(
                "Preference store only allows dictionaries on top level. Given: 5 for editor."));
    }
    // A path of one component sets a section, so it asserts too unless given a dictionary.
    QVERIFY_THROWS_EXCEPTION(HXAssertionFailure,
                             store.setValue(QStringLiteral("x"), QStringLiteral("editor")));
    QVERIFY(!store.needsWrite());
    store.setValue(QVariantMap{{QStringLiteral("a"), 1}}, QStringLiteral("fresh"));
    QCOMPARE(store.valueForKeyPath(QStringLiteral("fresh.a")).toInt(), 1);
    store.writeStoreIfNeeded();
}

void tst_HXPreferenceStore::twentyChangesOneWrite() {
    const QString path = storePath(QStringLiteral("batch"));
    HXPreferenceStore store(path);
    store.setWriteDelay(500ms);
    QSignalSpy written(&store, &HXPreferenceStore::storeWritten);
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < 20; ++i) {
        store.setValue(i, QStringLiteral("textCounter.linesPerPage"));
        spin(10);
    }
    // Nothing on disk until the delay has passed.
    QVERIFY(!QFile::exists(path));
    QVERIFY(written.wait(3000));
    QVERIFY(clock.elapsed() >= 500);
    spin(400);
    QCOMPARE(written.size(), 1);
    QCOMPARE(written.first().first().toBool(), true);
    QCOMPARE(fileContents(path)
                 .value(QStringLiteral("textCounter"))
                 .toMap()
                 .value(QStringLiteral("linesPerPage"))
                 .toInt(),
             19);
}

void tst_HXPreferenceStore::terminationWritesAtOnce() {
    const QString path = storePath(QStringLiteral("termination"));
    HXPreferenceStore store(path);
    store.setWriteDelay(300ms);
    QSignalSpy written(&store, &HXPreferenceStore::storeWritten);
    store.setValue(true, QStringLiteral("global.introductionLoaded"));
    HXNotificationCenter::defaultCenter()->post(HXApplicationWillTerminateNotification);
    QCOMPARE(written.size(), 1);
    QCOMPARE(fileContents(path)
                 .value(QStringLiteral("global"))
                 .toMap()
                 .value(QStringLiteral("introductionLoaded"))
                 .toBool(),
             true);
    // The delayed block still comes, and does nothing.
    spin(500);
    QCOMPARE(written.size(), 1);
    QVERIFY(!store.needsWrite());
}

void tst_HXPreferenceStore::writeFailureKeepsState() {
    // A file stands where the store's folder should be.
    const QString blocker = HXTestSupport::homeFolder().filePath(QStringLiteral("notAFolder"));
    QFile file(blocker);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.close();
    const QString path = blocker + QStringLiteral("/Preferences.plist");
    HXPreferenceStore store(path);
    QSignalSpy written(&store, &HXPreferenceStore::storeWritten);
    store.setValue(QStringLiteral("Kept"), QStringLiteral("editor.fontName"));
    store.writeStoreIfNeeded();
    QCOMPARE(written.size(), 1);
    QCOMPARE(written.first().first().toBool(), false);
    QVERIFY(!store.needsWrite());
    QCOMPARE(store.valueForKeyPath(QStringLiteral("editor.fontName")).toString(),
             QStringLiteral("Kept"));

    QFile log(HXApplicationLog::sharedInstance()->crashErrorLogURL());
    QVERIFY(log.open(QIODevice::ReadOnly));
    QVERIFY(log.readAll().contains(
        "WARNING: Failed to write local cache of preference data to url " + path.toUtf8() + "."));
}

void tst_HXPreferenceStore::damagedFileFallsBackToDefaults() {
    const QString path = storePath(QStringLiteral("damaged"));
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("<plist><dict><key>editor</key>");
    file.close();
    HXPreferenceStore store(path);
    QCOMPARE(store.localStore(), HXPreferenceStore::defaultsDictionary());
    // What is left of the user's settings is kept beside the file the next write replaces.
    store.setValue(QStringLiteral("New"), QStringLiteral("editor.fontName"));
    store.writeStoreIfNeeded();
    QCOMPARE(fileContents(path).value(QStringLiteral("editor")).toMap().value(u"fontName"_s),
             QVariant(QStringLiteral("New")));
    QFile kept(QFileInfo(path).absolutePath() + u"/Preferences.damaged.plist"_s);
    QVERIFY(kept.open(QIODevice::ReadOnly));
    QCOMPARE(kept.readAll(), QByteArray("<plist><dict><key>editor</key>"));
}

void tst_HXPreferenceStore::unstorableValuesAreRefused() {
    const QString path = storePath(QStringLiteral("unstorable"));
    HXPreferenceStore store(path);
    QSignalSpy written(&store, &HXPreferenceStore::storeWritten);
    for (const QVariant &value : {QVariant(u"a\u0001b"_s), QVariant(QUrl(u"https://x.org"_s)),
                                  QVariant(), QVariant(QVariantMap{{u"k"_s, QVariant()}})}) {
        store.setValue(value, QStringLiteral("editor.fontName"));
        QCOMPARE(store.valueForKeyPath(QStringLiteral("editor.fontName")),
                 store.defaultValueForKeyPath(QStringLiteral("editor.fontName")));
    }
    QVERIFY(!store.needsWrite());
    QFile log(HXApplicationLog::sharedInstance()->crashErrorLogURL());
    QVERIFY(log.open(QIODevice::ReadOnly));
    QVERIFY(log.readAll().contains("WARNING: Refused preference value"));
    // Later changes are written as ever.
    store.setValue(QStringLiteral("Fine"), QStringLiteral("editor.fontName"));
    store.writeStoreIfNeeded();
    QCOMPARE(written.size(), 1);
    QVERIFY(written.first().first().toBool());
}

void tst_HXPreferenceStore::siblingKeysFromTwoThreads() {
    HXPreferenceStore store(storePath(QStringLiteral("threads")));
    auto setMany = [&](QChar prefix) {
        for (int i = 0; i < 400; ++i)
            store.setValue(i, QStringLiteral("race.") + prefix + QString::number(i));
    };
    std::thread first(setMany, u'a'), second(setMany, u'b');
    first.join();
    second.join();
    QCOMPARE(store.objectForKey(QStringLiteral("race")).toMap().size(), 800);
    store.writeStoreIfNeeded();
}

void tst_HXPreferenceStore::nestedDictionariesMergeKeyByKey() {
    HXPreferenceStore store(storePath(QStringLiteral("nested")));
    store.setValue(QVariantMap{{QStringLiteral("a"), 1}, {QStringLiteral("b"), 2}},
                   QStringLiteral("section.nested"));
    auto global = std::make_shared<MemoryKeyValueStore>();
    global->values = {
        {QStringLiteral("section"),
         QVariantMap{{QStringLiteral("nested"),
                      QVariantMap{{QStringLiteral("b"), 20}, {QStringLiteral("c"), 30}}}}},
        {QStringLiteral("invalid"), 5},
    };
    store.setGlobalStore(global);
    store.readGlobalStore();
    QCOMPARE(store.valueForKeyPath(QStringLiteral("section.nested")).toMap(),
             (QVariantMap{
                 {QStringLiteral("a"), 1}, {QStringLiteral("b"), 20}, {QStringLiteral("c"), 30}}));
    // The value that is no dictionary is removed from the shared store and kept out of ours.
    QVERIFY(!global->values.contains(QStringLiteral("invalid")));
    QVERIFY(!store.objectForKey(QStringLiteral("invalid")).isValid());

    // A change there reaches us merged, with notification of the section.
    global->values.insert(QStringLiteral("editor"),
                          QVariantMap{{QStringLiteral("pageWidth"), 500}});
    QSignalSpy changed(&store, &HXPreferenceStore::didChangeValueForKey);
    store.globalStoreChanged({QStringLiteral("editor")});
    QCOMPARE(changed.size(), 1);
    QCOMPARE(store.valueForKeyPath(QStringLiteral("editor.pageWidth")).toInt(), 500);
    QVERIFY(store.valueForKeyPath(QStringLiteral("editor.fontName")).isValid());
    store.writeStoreIfNeeded();
}

void tst_HXPreferenceStore::globalStoreSynchronizationFailure() {
    HXPreferenceStore store(storePath(QStringLiteral("sync")));
    auto global = std::make_shared<MemoryKeyValueStore>();
    global->synchronizes = false;
    global->values = {{QStringLiteral("editor"),
                       QVariantMap{{QStringLiteral("fontName"), QStringLiteral("Remote")}}}};
    store.setGlobalStore(global);
    store.readGlobalStore();
    QVERIFY(store.valueForKeyPath(QStringLiteral("editor.fontName")).toString() != u"Remote");
    QVERIFY(!store.needsWrite());
}

void tst_HXPreferenceStore::deallocationWithPendingWriteIsLogged() {
    {
        HXPreferenceStore store(storePath(QStringLiteral("dealloc")));
        store.setValue(1, QStringLiteral("editor.firstLineIndent"));
    }
    QFile log(HXApplicationLog::sharedInstance()->crashErrorLogURL());
    QVERIFY(log.open(QIODevice::ReadOnly));
    QVERIFY(log.readAll().contains(
        "WARNING: Preference store deallocated with changes not written to disk!"));
}

void tst_HXPreferenceStore::sharedStoreLivesInApplicationSupport() {
    const QString url = HXPreferenceStore::localStoreURL();
    QVERIFY(url.startsWith(HXTestSupport::homeFolder().path()));
    QVERIFY(url.endsWith(QStringLiteral("/Velmora/Preferences.plist")));
    QVERIFY(QFileInfo(QFileInfo(url).absolutePath()).isDir());
    QCOMPARE(HXPreferenceStore::sharedInstance(), HXPreferenceStore::sharedInstance());
    QCOMPARE(HXPreferenceStore::sharedInstance()->localStorePath(), url);
}

HX_TEST_MAIN(tst_HXPreferenceStore)
#include "tst_HXPreferenceStore.moc"
