// The preference store: defaults for every key, merging of stored sections, fresh copies along a
// changed path with notification per section, one delayed write for many changes, the write at
// termination, and failures that keep the state in memory.

#include "HXTestSupport.h"
#include "Model/Stores/HXKeyValueStore.h"
#include "Model/Stores/HXPreferenceStore.h"
#include "Utilities/HXApplicationLog.h"
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
    const QString path = HXTestSupport::homeFolder().filePath(name + u"/Preferences.plist"_s);
    QFile::remove(path);
    return path;
}

// The value of a setting in the file at the path, by section and key.
QVariant stored(const QString &path, const QString &section, const QString &key) {
    return HXPropertyList::readFile(path, nullptr).toMap().value(section).toMap().value(key);
}

bool logContains(const QByteArray &text) {
    QFile log(HXApplicationLog::sharedInstance()->crashErrorLogURL());
    return log.open(QIODevice::ReadOnly) && log.readAll().contains(text);
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
    void sharedStoreMergesKeyByKey();
    void deallocationWithPendingWriteIsLogged();
    void sharedStoreLivesInApplicationSupport();
};

void tst_HXPreferenceStore::everyKeyHasADefault() {
    const QStringList keyPaths =
        u"global.introductionLoaded global.loadedReleaseNotesVersion editor.fontName "
        u"editor.recentFontNames editor.pageWidth editor.lineSpacing editor.paragraphSpacing "
        u"editor.firstLineIndent editor.insertionPoint textCounter.charactersPerLine "
        u"textCounter.linesPerPage textCounter.visibleCounters countingGoal.defaultCounter "
        u"countingGoal.defaultType themes.currentTheme menuController.defaultImporter "
        u"menuController.defaultExporter favorites.sheetHandles"_s.split(u' ');
    HXPreferenceStore store(storePath(u"defaults"_s));
    for (const QString &keyPath : keyPaths) {
        QVERIFY2(store.defaultValueForKeyPath(keyPath).isValid(), qPrintable(keyPath));
        QCOMPARE(store.valueForKeyPath(keyPath), store.defaultValueForKeyPath(keyPath));
    }
    for (const QString &section : store.keys())
        QVERIFY(store.objectForKey(section).typeId() == QMetaType::QVariantMap);
}

void tst_HXPreferenceStore::storedSectionKeepsOtherDefaults() {
    const QString path = storePath(u"partial"_s);
    QDir().mkpath(QFileInfo(path).absolutePath());
    QVERIFY(HXPropertyList::writeFile(
        QVariantMap{
            {u"editor"_s, QVariantMap{{u"fontName"_s, u"Stored Font"_s}, {u"retired"_s, 1}}},
            {u"plugin"_s, QVariantMap{{u"x"_s, 2}}}},
        path, nullptr));
    HXPreferenceStore store(path);
    QCOMPARE(store.valueForKeyPath(u"editor.fontName"_s).toString(), u"Stored Font"_s);
    // Keys the file lacks keep their defaults...
    QCOMPARE(store.valueForKeyPath(u"editor.pageWidth"_s),
             store.defaultValueForKeyPath(u"editor.pageWidth"_s));
    // ...and keys the defaults no longer hold live on, at both levels.
    QCOMPARE(store.valueForKeyPath(u"editor.retired"_s).toInt(), 1);
    QCOMPARE(store.valueForKeyPath(u"plugin.x"_s).toInt(), 2);
    // Reading changed nothing on disk and asked for no write.
    QVERIFY(!store.needsWrite());
}

void tst_HXPreferenceStore::settingOneValue() {
    HXPreferenceStore store(storePath(u"one"_s));
    const QVariantMap editorBefore = store.objectForKey(u"editor"_s).toMap();
    int editorChanges = 0, fontChanges = 0, counterChanges = 0;
    QObject context;
    store.addObserverForKeyPath(u"editor"_s, &context, [&] { ++editorChanges; });
    store.addObserverForKeyPath(u"editor.fontName"_s, &context, [&] { ++fontChanges; });
    store.addObserverForKeyPath(u"textCounter.linesPerPage"_s, &context, [&] { ++counterChanges; });
    QSignalSpy willChange(&store, &HXPreferenceStore::willChangeValueForKey);

    store.setValue(u"Chosen"_s, u"editor.fontName"_s);

    QVariantMap expected = editorBefore;
    expected.insert(u"fontName"_s, u"Chosen"_s);
    QCOMPARE(store.objectForKey(u"editor"_s).toMap(), expected);
    // Neither what was read before the change nor the defaults changed under their readers.
    QCOMPARE(editorBefore.value(u"fontName"_s), store.defaultValueForKeyPath(u"editor.fontName"_s));
    QVERIFY(store.defaultValueForKeyPath(u"editor.fontName"_s).toString() != u"Chosen");
    QCOMPARE(editorChanges, 1);
    QCOMPARE(fontChanges, 1);
    QCOMPARE(counterChanges, 0);
    QCOMPARE(willChange.size(), 1);
    QCOMPARE(willChange.first().first().toString(), u"editor"_s);

    // A deeper path makes the dictionaries on the way.
    store.setValue(5, u"editor.metrics.custom.size"_s);
    QCOMPARE(store.valueForKeyPath(u"editor.metrics.custom.size"_s).toInt(), 5);
    QCOMPARE(store.valueForKeyPath(u"editor.fontName"_s).toString(), u"Chosen"_s);

    store.removeObjectForKey(u"editor"_s);
    QVERIFY(!store.objectForKey(u"editor"_s).isValid());
    QCOMPARE(editorChanges, 3);
    QVERIFY(store.needsWrite());
    store.writeStoreIfNeeded();
}

void tst_HXPreferenceStore::topLevelMustBeADictionary() {
    HXPreferenceStore store(storePath(u"top"_s));
    QCOMPARE(HXTestSupport::assertionText([&] { store.setObject(5, u"editor"_s); }),
             u"Preference store only allows dictionaries on top level. Given: 5 for editor."_s);
    // A path of one component sets a section, so it asserts too unless given a dictionary.
    QVERIFY_THROWS_EXCEPTION(HXAssertionFailure, store.setValue(u"x"_s, u"editor"_s));
    QVERIFY(!store.needsWrite());
    store.setValue(QVariantMap{{u"a"_s, 1}}, u"fresh"_s);
    QCOMPARE(store.valueForKeyPath(u"fresh.a"_s).toInt(), 1);
    store.writeStoreIfNeeded();
}

void tst_HXPreferenceStore::twentyChangesOneWrite() {
    const QString path = storePath(u"batch"_s);
    HXPreferenceStore store(path);
    store.setWriteDelay(500ms);
    QSignalSpy written(&store, &HXPreferenceStore::storeWritten);
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < 20; ++i) {
        store.setValue(i, u"textCounter.linesPerPage"_s);
        spin(10);
    }
    // Nothing on disk until the delay has passed.
    QVERIFY(!QFile::exists(path));
    QVERIFY(written.wait(3000));
    QVERIFY(clock.elapsed() >= 500);
    spin(400);
    QCOMPARE(written.size(), 1);
    QCOMPARE(written.first().first().toBool(), true);
    QCOMPARE(stored(path, u"textCounter"_s, u"linesPerPage"_s).toInt(), 19);
}

void tst_HXPreferenceStore::terminationWritesAtOnce() {
    const QString path = storePath(u"termination"_s);
    HXPreferenceStore store(path);
    store.setWriteDelay(300ms);
    QSignalSpy written(&store, &HXPreferenceStore::storeWritten);
    store.setValue(true, u"global.introductionLoaded"_s);
    HXNotificationCenter::defaultCenter()->post(HXApplicationWillTerminateNotification);
    QCOMPARE(written.size(), 1);
    QCOMPARE(stored(path, u"global"_s, u"introductionLoaded"_s).toBool(), true);
    // The delayed block still comes, and does nothing.
    spin(500);
    QCOMPARE(written.size(), 1);
    QVERIFY(!store.needsWrite());
}

void tst_HXPreferenceStore::writeFailureKeepsState() {
    // A file stands where the store's folder should be.
    const QString blocker = HXTestSupport::homeFolder().filePath(u"notAFolder"_s);
    QFile file(blocker);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.close();
    const QString path = blocker + u"/Preferences.plist"_s;
    HXPreferenceStore store(path);
    QSignalSpy written(&store, &HXPreferenceStore::storeWritten);
    store.setValue(u"Kept"_s, u"editor.fontName"_s);
    store.writeStoreIfNeeded();
    QCOMPARE(written.size(), 1);
    QCOMPARE(written.first().first().toBool(), false);
    QVERIFY(!store.needsWrite());
    QCOMPARE(store.valueForKeyPath(u"editor.fontName"_s).toString(), u"Kept"_s);
    QVERIFY(logContains("WARNING: Failed to write local cache of preference data to url " +
                        path.toUtf8() + "."));
}

void tst_HXPreferenceStore::damagedFileFallsBackToDefaults() {
    const QString path = storePath(u"damaged"_s);
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("<plist><dict><key>editor</key>");
    file.close();
    HXPreferenceStore store(path);
    QCOMPARE(store.localStore(), HXPreferenceStore::defaultsDictionary());
    // What is left of the user's settings is kept beside the file the next write replaces.
    store.setValue(u"New"_s, u"editor.fontName"_s);
    store.writeStoreIfNeeded();
    QCOMPARE(stored(path, u"editor"_s, u"fontName"_s), QVariant(u"New"_s));
    QFile kept(QFileInfo(path).absolutePath() + u"/Preferences.damaged.plist"_s);
    QVERIFY(kept.open(QIODevice::ReadOnly));
    QCOMPARE(kept.readAll(), QByteArray("<plist><dict><key>editor</key>"));
}

void tst_HXPreferenceStore::unstorableValuesAreRefused() {
    HXPreferenceStore store(storePath(u"unstorable"_s));
    QSignalSpy written(&store, &HXPreferenceStore::storeWritten);
    for (const QVariant &value : {QVariant(u"a\u0001b"_s), QVariant(QUrl(u"https://x.org"_s)),
                                  QVariant(), QVariant(QVariantMap{{u"k"_s, QVariant()}})}) {
        store.setValue(value, u"editor.fontName"_s);
        QCOMPARE(store.valueForKeyPath(u"editor.fontName"_s),
                 store.defaultValueForKeyPath(u"editor.fontName"_s));
    }
    QVERIFY(!store.needsWrite());
    QVERIFY(logContains("WARNING: Refused preference value"));
    // Later changes are written as ever.
    store.setValue(u"Fine"_s, u"editor.fontName"_s);
    store.writeStoreIfNeeded();
    QCOMPARE(written.size(), 1);
    QVERIFY(written.first().first().toBool());
}

void tst_HXPreferenceStore::siblingKeysFromTwoThreads() {
    HXPreferenceStore store(storePath(u"threads"_s));
    auto setMany = [&](QChar prefix) {
        for (int i = 0; i < 400; ++i)
            store.setValue(i, u"race."_s + prefix + QString::number(i));
    };
    std::thread first(setMany, u'a'), second(setMany, u'b');
    first.join();
    second.join();
    QCOMPARE(store.objectForKey(u"race"_s).toMap().size(), 800);
    store.writeStoreIfNeeded();
}

void tst_HXPreferenceStore::sharedStoreMergesKeyByKey() {
    HXPreferenceStore store(storePath(u"nested"_s));
    store.setValue(QVariantMap{{u"a"_s, 1}, {u"b"_s, 2}}, u"section.nested"_s);
    store.writeStoreIfNeeded();
    auto global = std::make_shared<MemoryKeyValueStore>();
    global->values = {
        {u"section"_s, QVariantMap{{u"nested"_s, QVariantMap{{u"b"_s, 20}, {u"c"_s, 30}}}}},
        {u"invalid"_s, 5},
    };
    store.setGlobalStore(global);
    // A shared store that can't synchronize is not read.
    global->synchronizes = false;
    store.readGlobalStore();
    QCOMPARE(store.valueForKeyPath(u"section.nested.b"_s).toInt(), 2);
    QVERIFY(!store.needsWrite());

    global->synchronizes = true;
    store.readGlobalStore();
    QCOMPARE(store.valueForKeyPath(u"section.nested"_s).toMap(),
             (QVariantMap{{u"a"_s, 1}, {u"b"_s, 20}, {u"c"_s, 30}}));
    // The value that is no dictionary is removed from the shared store and kept out of ours.
    QVERIFY(!global->values.contains(u"invalid"_s));
    QVERIFY(!store.objectForKey(u"invalid"_s).isValid());

    // A change there reaches us merged, with notification of the section.
    global->values.insert(u"editor"_s, QVariantMap{{u"pageWidth"_s, 500}});
    QSignalSpy changed(&store, &HXPreferenceStore::didChangeValueForKey);
    store.globalStoreChanged({u"editor"_s});
    QCOMPARE(changed.size(), 1);
    QCOMPARE(store.valueForKeyPath(u"editor.pageWidth"_s).toInt(), 500);
    QVERIFY(store.valueForKeyPath(u"editor.fontName"_s).isValid());
    store.writeStoreIfNeeded();
}

void tst_HXPreferenceStore::deallocationWithPendingWriteIsLogged() {
    {
        HXPreferenceStore store(storePath(u"dealloc"_s));
        store.setValue(1, u"editor.firstLineIndent"_s);
    }
    QVERIFY(logContains("WARNING: Preference store deallocated with changes not written to disk!"));
}

void tst_HXPreferenceStore::sharedStoreLivesInApplicationSupport() {
    const QString url = HXPreferenceStore::localStoreURL();
    QVERIFY(url.startsWith(HXTestSupport::homeFolder().path()));
    QVERIFY(url.endsWith(u"/Velmora/Preferences.plist"_s));
    QVERIFY(QFileInfo(QFileInfo(url).absolutePath()).isDir());
    QCOMPARE(HXPreferenceStore::sharedInstance()->localStorePath(), url);
}

HX_TEST_MAIN(tst_HXPreferenceStore)
#include "tst_HXPreferenceStore.moc"
