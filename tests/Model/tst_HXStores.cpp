// The stores of markups, presets and definition settings: what a write writes and leaves alone,
// files written by another process (velmora-cli) or another machine (the cloud folder) picked up
// while running, deletions there, two processes writing one store, packages and their archives.

#include "HXTestSupport.h"
#include "Model/Stores/HXDefinitionStore.h"
#include "Model/Stores/HXMarkupStore.h"
#include "Model/Stores/HXPreferenceStore.h"
#include "Model/Stores/HXPresetStore.h"
#include "Text/String/Access/HXMutableString.h"
#include "Text/String/Nodes/HXTextElement.h"
#include "Utilities/HXFileSystem.h"
#include "Utilities/HXUserDefaults.h"
#include "Utilities/HXZipArchive.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>

#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

QStringList elementKinds(const HXString &string) {
    QStringList kinds;
    string.enumerateAllElements(HXDefaultDefinitionSelector,
                                [&](const HXRef<HXTextElement> &element, HXRange, bool &) {
                                    kinds.append(element->definition()->identifier());
                                });
    return kinds;
}

const QString cli = QStringLiteral(VELMORA_CLI);

QStringList itemFiles(const QString &folder) {
    return QDir(folder).entryList(QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
}

QByteArray contents(const QString &path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// A markup that differs from the built-in markdown: one of its tags left out.
std::shared_ptr<HXMarkup> changedMarkdown() {
    auto markup = HXMarkup::intrinsicMarkups().value(u"markdown"_s)->duplicate();
    markup->removeTag(markup->allTags().constLast());
    markup->setDisplayName(u"Mine"_s);
    return markup;
}

// A preset of the tests: a text in "Content.txt".
class TextPreset : public HXPresetObject {
public:
    QString text;
    std::shared_ptr<HXPresetObject> copy() const override {
        auto other = std::make_shared<TextPreset>();
        HXFileWrapperRef raw = rawFileWrapper(nullptr);
        other->setUpUsingFileWrapper(*raw, isBuiltin(), nullptr);
        return other;
    }
    bool isEqualToObject(const HXPresetObject &other) const override {
        return HXPresetObject::isEqualToObject(other) &&
               static_cast<const TextPreset &>(other).text == text;
    }
    void setUsingObject(const HXPresetObject &other) override {
        HXPresetObject::setUsingObject(other);
        if (!isBuiltin())
            text = static_cast<const TextPreset &>(other).text;
    }
    QString pathExtension() const override { return u"textpreset"_s; }
    HXFileWrapperRef rawFileWrapper(HXError *) const override {
        auto files = commonFileWrappers();
        files.insert(u"Content.txt"_s, HXFileWrapper::regularFileWithContents(text.toUtf8(), {}));
        return HXFileWrapper::directoryWithFileWrappers(files, preferredFilename());
    }

protected:
    bool readContentsOfFileWrapper(const HXFileWrapper &wrapper, HXError *error) override {
        const auto content = wrapper.fileWrappers().value(u"Content.txt"_s);
        if (!content) {
            HXSetError(error, HXError::withDescription(HXCocoaErrorDomain, 259, u"no content"_s));
            return false;
        }
        text = QString::fromUtf8(content->regularFileContents());
        return true;
    }
};

class TextPresetStore : public HXPresetStore {
public:
    static std::shared_ptr<TextPresetStore> create(const HXStoreOptions &options) {
        std::shared_ptr<TextPresetStore> store(new TextPresetStore);
        store->initWithOptions(options);
        return store;
    }
    QString directoryName() const override { return u"TextPresets"_s; }
    QStringList allowedItemPathExtensions() const override { return {u"textpreset"_s}; }
    bool canEditBuiltinObjects() const override { return true; }
    QMap<QString, HXPresetObjectRef> initialBuiltinObjects() const override {
        auto preset = std::make_shared<TextPreset>();
        const auto package = HXFileWrapper::directoryWithFileWrappers(
            {{u"Content.txt"_s, HXFileWrapper::regularFileWithContents("built in", {})},
             {u"Info.plist"_s,
              HXFileWrapper::regularFileWithContents(
                  R"(<plist version="1.0"><dict><key>identifier</key><string>plain</string><key>displayName</key><string>Plain</string></dict></plist>)",
                  {})}});
        preset->setUpUsingFileWrapper(*package, true, nullptr);
        return {{u"plain"_s, preset}};
    }
    HXPresetObjectRef objectWithContentsOfURL(const QString &url, HXError *error) const override {
        auto preset = std::make_shared<TextPreset>();
        if (!preset->initWithContentsOfURL(url, false, error))
            return nullptr;
        return preset;
    }
};

} // namespace

class tst_HXStores : public QObject {
    Q_OBJECT

    QTemporaryDir m_folder;
    HXStoreOptions m_options;

    QString local(const QString &name = {}) const {
        return m_folder.filePath(u"support/Markups/"_s + name);
    }
    QString cloud(const QString &name = {}) const {
        return m_folder.filePath(u"cloud/Settings/Markups/"_s + name);
    }

private slots:
    void init() {
        QDir(m_folder.path()).removeRecursively();
        QDir().mkpath(m_folder.filePath(u"cloud"_s));
        m_options.applicationSupportPath = m_folder.filePath(u"support"_s);
        m_options.ubiquityContainerPath = m_folder.filePath(u"cloud"_s);
    }

    // Nothing changed, nothing written; a user markup and a changed built-in go to both folders,
    // byte for byte the same on a second write, which writes nothing; a reset built-in loses its
    // file; a file that can't be read survives every write.
    void writes() {
        QDir().mkpath(local());
        QFile damaged(local(u"damaged.velmoramarkup"_s));
        QVERIFY(damaged.open(QIODevice::WriteOnly));
        damaged.write("<markup version=\"1\"><tag");
        damaged.close();
        const auto store = HXMarkupStore::create(m_options);
        QVERIFY(store->ignoredFileURLs().contains(local(u"damaged.velmoramarkup"_s)));
        store->noteStoreChanged();
        store->writeIfNeeded(false);
        QCOMPARE(itemFiles(local()), QStringList{u"damaged.velmoramarkup"_s});
        QCOMPARE(itemFiles(cloud()), QStringList());

        const QString identifier = store->registerMarkup(changedMarkdown());
        auto builtIn = store->markupWithIdentifier(u"markdownqr"_s);
        builtIn->removeTag(builtIn->allTags().constFirst());
        store->writeIfNeeded(false);
        QStringList expected{identifier + u".velmoramarkup"_s, u"damaged.velmoramarkup"_s,
                             u"markdownqr.velmoramarkup"_s};
        std::sort(expected.begin(), expected.begin() + 2);
        QCOMPARE(itemFiles(local()), expected);
        expected.removeOne(u"damaged.velmoramarkup"_s);
        QCOMPARE(itemFiles(cloud()), expected);
        const QString file = local(identifier + u".velmoramarkup"_s);
        const HXFileIdentity written = HXFileIdentity::ofPath(file);
        QCOMPARE(contents(file), store->markupWithIdentifier(identifier)->XMLData());
        store->noteStoreChanged();
        store->writeIfNeeded(false);
        QCOMPARE(HXFileIdentity::ofPath(file), written);

        // A string of the markup follows a reset of it.
        for (const HXTextTagRef &tag : builtIn->allTagsWithIdentifier(u"emph"_s))
            builtIn->removeTag(tag);
        const auto text = HXMutableString::stringWithMarkup(builtIn);
        text->setString(u"a *b* c\n"_s);
        QCOMPARE(elementKinds(*text), QStringList());
        store->resetIntrinsicMarkupWithIdentifier(u"markdownqr"_s);
        QVERIFY(builtIn->isEqualToMarkup(*HXMarkup::intrinsicMarkups().value(u"markdownqr"_s)));
        QCOMPARE(elementKinds(*text), QStringList{u"emph"_s});
        store->writeIfNeeded(false);
        expected.removeOne(u"markdownqr.velmoramarkup"_s);
        QCOMPARE(itemFiles(cloud()), expected);
        expected.append(u"damaged.velmoramarkup"_s);
        expected.sort();
        QCOMPARE(itemFiles(local()), expected);

        // A second start reads it all back, the damaged file aside.
        const auto again = HXMarkupStore::create(m_options);
        QVERIFY(again->markupWithIdentifier(identifier)
                    ->isEqualToMarkup(*store->markupWithIdentifier(identifier)));
        QCOMPARE(again->markupWithIdentifier(identifier)->displayName(), u"Mine"_s);

        // A file whose date is the one read last is not read again, whatever it holds now.
        const qint64 date = HXFileIdentity::ofPath(file).modificationTime;
        QFile overwritten(file);
        QVERIFY(overwritten.open(QIODevice::WriteOnly));
        overwritten.write("not a markup");
        overwritten.close();
        const timespec times[2] = {{0, UTIME_OMIT}, {date / 1000000000, date % 1000000000}};
        QCOMPARE(::utimensat(AT_FDCWD, QFile::encodeName(file).constData(), times, 0), 0);
        QVERIFY(again->performReadFromURL(file, nullptr));
        QVERIFY(!again->ignoredFileURLs().contains(file));
        QVERIFY(HXFileSystem::setModificationDate(file, QDateTime::currentDateTimeUtc()));
        QVERIFY(!again->performReadFromURL(file, nullptr));
        QVERIFY(again->ignoredFileURLs().contains(file));
    }

    // velmora-cli beside a running store: what it adds and removes shows up; a built-in changed
    // on another machine and then deleted there comes back to its initial state.
    void secondProcess() {
        // The tool finds the cloud container in its user defaults, as the application does.
        HXUserDefaults toolDefaults(qEnvironmentVariable("XDG_CONFIG_HOME") +
                                    u"/Velmora/Velmora.ini"_s);
        toolDefaults.setObjectForKeyPath(m_folder.filePath(u"cloud"_s),
                                         u"storage.ubiquityContainer"_s);
        QVERIFY(toolDefaults.synchronize());
        const auto store = HXMarkupStore::create(m_options);
        QCOMPARE(store->ubiquitousDirectory(), cloud().chopped(1));

        const QString source = m_folder.filePath(u"mine.xml"_s);
        QFile file(source);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(changedMarkdown()->XMLData());
        file.close();
        QProcess add;
        add.start(cli, {u"markups"_s, u"add"_s, source});
        QVERIFY(add.waitForFinished(10000));
        QCOMPARE(add.exitCode(), 0);
        const QString identifier = QString::fromUtf8(add.readAllStandardOutput()).trimmed();
        QCOMPARE(identifier.size(), 32);
        QVERIFY(QFile::exists(cloud(identifier + u".velmoramarkup"_s)));
        QTRY_VERIFY_WITH_TIMEOUT(store->markupWithIdentifier(identifier), 3000);
        QCOMPARE(store->markupWithIdentifier(identifier)->displayName(), u"Mine"_s);

        QCOMPARE(QProcess::execute(cli, {u"markups"_s, u"remove"_s, identifier}), 0);
        QTRY_VERIFY_WITH_TIMEOUT(!store->markupWithIdentifier(identifier), 3000);

        // Another machine's change of a built-in arrives through the cloud folder.
        auto changed = HXMarkup::intrinsicMarkups().value(u"markdownqr"_s)->copy();
        changed->removeTag(changed->allTags().constFirst());
        QFile cloudFile(cloud(u"markdownqr.velmoramarkup"_s));
        QVERIFY(cloudFile.open(QIODevice::WriteOnly));
        cloudFile.write(changed->XMLData());
        cloudFile.close();
        QTRY_VERIFY_WITH_TIMEOUT(
            store->markupWithIdentifier(u"markdownqr"_s)->isEqualToMarkup(*changed), 3000);
        QVERIFY(QFile::remove(cloud(u"markdownqr.velmoramarkup"_s)));
        QTRY_VERIFY_WITH_TIMEOUT(
            store->markupWithIdentifier(u"markdownqr"_s)
                ->isEqualToMarkup(*HXMarkup::intrinsicMarkups().value(u"markdownqr"_s)),
            3000);
        toolDefaults.removeObjectForKeyPath(u"storage.ubiquityContainer"_s);
        toolDefaults.synchronize();
        store->writeIfNeeded(false);
    }

    // Two processes adding markups to one store at once: no file is torn, none is lost.
    void twoWriters() {
        const QString source = m_folder.filePath(u"mine.xml"_s);
        QFile file(source);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(changedMarkdown()->XMLData());
        file.close();
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"XDG_DATA_HOME"_s, m_folder.filePath(u"shared"_s));
        auto run = [&](QProcess &process) {
            process.setProcessEnvironment(environment);
            process.start(u"/bin/sh"_s,
                          {u"-c"_s,
                           u"for i in 1 2 3 4 5; do \"$0\" markups add \"$1\" || exit 1; done"_s,
                           cli, source});
        };
        QProcess one, two;
        run(one);
        run(two);
        const QString folder = m_folder.filePath(u"shared/Velmora/Markups"_s);
        while (one.state() != QProcess::NotRunning || two.state() != QProcess::NotRunning) {
            for (const QString &name : itemFiles(folder))
                QVERIFY2(HXMarkup::markupWithData(contents(folder + u'/' + name), nullptr),
                         qPrintable(name));
            one.waitForFinished(5);
            two.waitForFinished(5);
        }
        QCOMPARE(one.exitCode(), 0);
        QCOMPARE(two.exitCode(), 0);
        QCOMPARE(itemFiles(folder).size(), 10);
    }

    // Presets: packages as folders or archives, unsafe archives refused and kept, a built-in
    // written while changed, a custom one deleted in the cloud gone from the store.
    void presets() {
        QDir().mkpath(m_folder.filePath(u"support/TextPresets"_s));
        TextPreset zipped;
        zipped.setIdentifier(u"zipped"_s);
        zipped.setDisplayName(u"Zipped"_s);
        zipped.text = u"from an archive"_s;
        const auto archive = zipped.fileWrapperRepresentationAsArchive(true, false, nullptr);
        QVERIFY(archive && archive->isRegularFile());
        QVERIFY(archive->writeToPath(m_folder.filePath(u"support/TextPresets/zipped.textpreset"_s),
                                     nullptr));
        QFile bad(m_folder.filePath(u"support/TextPresets/bad.textpreset"_s));
        QVERIFY(bad.open(QIODevice::WriteOnly));
        bad.write(QByteArray("PK\x03\x04", 4) + QByteArray(100, 'x'));
        bad.close();

        const auto store =
            TextPresetStore::create({m_folder.filePath(u"support"_s), m_folder.filePath(u"cloud"_s),
                                     std::chrono::milliseconds(10000)});
        const auto read =
            std::static_pointer_cast<TextPreset>(store->objectForIdentifier(u"zipped"_s));
        QVERIFY(read);
        QCOMPARE(read->text, u"from an archive"_s);
        QCOMPARE(store->ignoredFileURLs().size(), 1);

        const auto builtIn =
            std::static_pointer_cast<TextPreset>(store->objectForIdentifier(u"plain"_s));
        QVERIFY(builtIn->isBuiltin());
        QCOMPARE(HXTestSupport::assertionText([&] { builtIn->setDisplayName(u"x"_s); }),
                 u"Built-in objects cannot be modified."_s);
        builtIn->text = u"edited"_s;
        store->noteStoreChanged();
        store->writeIfNeeded(false);
        const QString cloudFolder = m_folder.filePath(u"cloud/Settings/TextPresets"_s);
        QCOMPARE(itemFiles(cloudFolder),
                 (QStringList{u"plain.textpreset"_s, u"zipped.textpreset"_s}));
        QCOMPARE(contents(cloudFolder + u"/plain.textpreset/Content.txt"_s), QByteArray("edited"));
        QVERIFY(QFile::exists(m_folder.filePath(u"support/TextPresets/bad.textpreset"_s)));

        // A preset kept as an archive stays whole when its new package can't be written.
        const QString archived = m_folder.filePath(u"support/TextPresets/zipped.textpreset"_s);
        const QByteArray archiveBytes = contents(archived);
        read->setDisplayName(u"Renamed"_s);
        struct rlimit old {};
        getrlimit(RLIMIT_FSIZE, &old);
        const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
        struct rlimit limit = old;
        limit.rlim_cur = 16;
        QCOMPARE(setrlimit(RLIMIT_FSIZE, &limit), 0);
        store->writeIfNeeded(false);
        setrlimit(RLIMIT_FSIZE, &old);
        std::signal(SIGXFSZ, oldHandler);
        QCOMPARE(contents(archived), archiveBytes);

        QVERIFY(HXFileSystem::removeItem(cloudFolder + u"/zipped.textpreset"_s, nullptr));
        QTRY_VERIFY_WITH_TIMEOUT(!store->objectForIdentifier(u"zipped"_s), 3000);
        store->resetObject(store->objectForIdentifier(u"plain"_s));
        QCOMPARE(std::static_pointer_cast<TextPreset>(store->objectForIdentifier(u"plain"_s))->text,
                 u"built in"_s);
        store->writeIfNeeded(false);
        QCOMPARE(itemFiles(cloudFolder), QStringList());
    }

    // Shortcuts and preferred patterns over their defaults; a pattern change reaches markups.
    void definitionStore() {
        HXPreferenceStore preferences(m_folder.filePath(u"Preferences.plist"_s));
        HXDefinitionStore store(&preferences);
        const HXKeyCombination bold = HXDefinitionStore::defaultShortcutForDefinition(u"strong"_s);
        QVERIFY(!bold.isEmpty());
        QCOMPARE(store.definitionUsingShortcut(bold), u"strong"_s);
        store.setShortcut({}, u"strong"_s); // switched off
        QVERIFY(store.shortcutForDefinition(u"strong"_s).isEmpty());
        QVERIFY(store.definitionUsingShortcut(bold).isEmpty());
        store.setShortcut(bold, u"mark"_s);
        QCOMPARE(store.definitionUsingShortcut(bold), u"mark"_s);
        store.resetAllShortcuts();
        QCOMPARE(store.shortcutForDefinition(u"strong"_s), bold);

        const auto markup = HXMarkup::intrinsicMarkups().value(u"markdownqr"_s);
        const QList<HXTextTagRef> strong = markup->allTagsWithIdentifier(u"strong"_s);
        QVERIFY(strong.size() > 1);
        for (const HXTextTagRef &tag : strong) {
            store.setPreferredPattern(tag->patterns().first(), u"strong"_s);
            QCOMPARE(markup->defaultTagWithIdentifier(u"strong"_s), tag);
        }
        store.resetAllPreferredPatterns();
        QCOMPARE(store.preferredPatternForDefinition(u"strong"_s),
                 HXDefinitionStore::defaultPreferredPatternForDefinition(u"strong"_s));
    }
};

HX_TEST_MAIN(tst_HXStores)
#include "tst_HXStores.moc"
