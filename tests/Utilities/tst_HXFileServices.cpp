// The file services under a second writer, a crash and a full disk: exclusion in and between
// processes, presenters told of coordinated accesses and of other processes' changes (moves,
// replaced packages, overflow, polling), atomic replacement of files and packages, dates and
// the case rule.

#include "HXTestSupport.h"
#include "Utilities/HXFileCoordinator.h"
#include "Utilities/HXFileMonitor.h"
#include "Utilities/HXFileSystem.h"
#include "Utilities/HXFileWrapper.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>

#include <atomic>
#include <csignal>
#include <mutex>
#include <sys/resource.h>
#include <thread>

using namespace Qt::StringLiterals;

namespace {

const QString helper = QStringLiteral(HELPER_PATH);

void spin(int milliseconds) {
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < milliseconds)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
}

int runHelper(const QStringList &arguments) {
    return QProcess::execute(helper, arguments);
}

QByteArray contents(const QString &path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

void write(const QString &path, const QByteArray &bytes) {
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(bytes);
}

// Records what it is told, with paths relative to a base folder.
class Recorder : public HXFilePresenter {
public:
    Recorder(QString path, QString base)
        : m_path(std::move(path))
        , m_base(std::move(base))
        , m_queue(HXDispatchQueue::create(u"recorder"_s)) {}

    QString presentedItemURL() const override { return m_path; }
    std::shared_ptr<HXDispatchQueue> presentedItemOperationQueue() const override {
        return m_queue;
    }
    void savePresentedItemChangesWithCompletionHandler(CompletionHandler handler) override {
        add(u"save"_s);
        handler(nullptr);
    }
    void accommodatePresentedItemDeletionWithCompletionHandler(CompletionHandler handler) override {
        add(u"deleted"_s);
        handler(nullptr);
    }
    void presentedItemDidMoveToURL(const QString &path) override {
        add(u"moved to "_s + relative(path));
    }
    void presentedItemDidChange() override { add(u"changed"_s); }
    void presentedSubitemDidAppearAtURL(const QString &path) override {
        add(u"appeared "_s + relative(path));
    }
    void presentedSubitemDidChangeAtURL(const QString &path) override {
        add(u"changed "_s + relative(path));
    }
    void presentedSubitemAtURL(const QString &from, const QString &to) override {
        add(u"moved "_s + relative(from) + u" to "_s + relative(to));
    }
    void accommodatePresentedSubitemDeletionAtURL(const QString &path,
                                                  CompletionHandler handler) override {
        add(u"deleted "_s + relative(path));
        handler(nullptr);
    }

    QStringList events() {
        std::lock_guard lock(m_mutex);
        return m_events;
    }
    void clear() {
        std::lock_guard lock(m_mutex);
        m_events.clear();
    }
    // Waits for the events of a change to arrive and settle: the given time, and then as long as
    // events keep coming (a loaded machine may be slow), up to two seconds.
    QStringList settled(int milliseconds = 400) {
        spin(milliseconds);
        for (int waited = 0; milliseconds > 0 && waited < 2000; waited += 200) {
            const qsizetype count = events().size();
            spin(200);
            if (events().size() == count)
                break;
        }
        QStringList list = events();
        list.sort();
        clear();
        return list;
    }

private:
    QString relative(const QString &path) const { return QDir(m_base).relativeFilePath(path); }
    void add(const QString &event) {
        std::lock_guard lock(m_mutex);
        m_events.append(event);
    }
    QString m_path, m_base;
    std::shared_ptr<HXDispatchQueue> m_queue;
    std::mutex m_mutex;
    QStringList m_events;
};

struct Presenting {
    std::shared_ptr<Recorder> recorder;
    explicit Presenting(const QString &path, const QString &base)
        : recorder(std::make_shared<Recorder>(path, base)) {
        HXFileCoordinator::addFilePresenter(recorder);
    }
    ~Presenting() { HXFileCoordinator::removeFilePresenter(recorder.get()); }
};

// Package contents by file name, each file's bytes.
QMap<QString, QByteArray> packageFiles(const QString &path) {
    QMap<QString, QByteArray> files;
    const QDir folder(path);
    for (const QString &name : folder.entryList(QDir::Files | QDir::Hidden))
        files.insert(name, contents(folder.filePath(name)));
    for (const QString &name : folder.entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden))
        for (auto [inner, bytes] : packageFiles(folder.filePath(name)).asKeyValueRange())
            files.insert(name + u'/' + inner, bytes);
    return files;
}

// The round whose package the helper wrote, or -1 when the package is not one whole round.
int roundOfPackage(const QString &path) {
    const QMap<QString, QByteArray> files = packageFiles(path);
    if (files.keys() != QStringList{u"Media/n.txt"_s, u"part0.txt"_s, u"part1.txt"_s,
                                    u"part2.txt"_s, u"part3.txt"_s})
        return -1;
    const QByteArray n = files.value(u"Media/n.txt"_s);
    for (int k = 0; k < 4; ++k) {
        if (files.value(u"part%1.txt"_s.arg(k)) != (n + '\n').repeated(4000 * (k + 1)))
            return -1;
    }
    return n.toInt();
}

} // namespace

class tst_HXFileServices : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        HXFileCoordinator::addPackagePathExtensions({u"pkg"_s});
        HXFileCoordinator::setPresenterTimeout(2000);
        QVERIFY(HXFileMonitor::shared());
        QCoreApplication::processEvents();
    }

    void init() { QVERIFY(m_folder.isValid()); }

    void exclusion_data() {
        QTest::addColumn<QString>("firstPath");
        QTest::addColumn<bool>("firstWrites");
        QTest::addColumn<QString>("secondPath");
        QTest::addColumn<bool>("secondWrites");
        QTest::addColumn<bool>("waits");
        QTest::newRow("readers together") << "a/b" << false << "a/b" << false << false;
        QTest::newRow("writer excludes reader") << "a/b" << true << "a/b" << false << true;
        QTest::newRow("reader holds off writer") << "a/b" << false << "a/b" << true << true;
        QTest::newRow("writer of folder, reader inside") << "a" << true << "a/b/c" << false << true;
        QTest::newRow("reader of folder, writer inside") << "a" << false << "a/b" << true << true;
        QTest::newRow("siblings") << "a/b" << true << "a/bc" << true << false;
        QTest::newRow("package, file inside") << "a.pkg" << true << "a.pkg/b.xml" << true << true;
        QTest::newRow("reader of file, writer beside") << "a/b" << false << "a/c" << true << false;
    }

    void exclusion() {
        QFETCH(QString, firstPath);
        QFETCH(bool, firstWrites);
        QFETCH(QString, secondPath);
        QFETCH(bool, secondWrites);
        QFETCH(bool, waits);
        const QString base = m_folder.path();
        std::atomic<bool> firstIn{false}, release{false}, secondIn{false};
        auto access = [&](const QString &path, bool writes, const std::function<void()> &body) {
            HXFileCoordinator coordinator;
            auto accessor = [&](const QString &) { body(); };
            if (writes)
                coordinator.coordinateWritingItemAtURL(base + u'/' + path, 0, nullptr, accessor);
            else
                coordinator.coordinateReadingItemAtURL(base + u'/' + path, 0, nullptr, accessor);
        };
        std::thread first([&] {
            access(firstPath, firstWrites, [&] {
                firstIn = true;
                // The same thread may take any access inside its own.
                access(secondPath, true, [] {});
                while (!release)
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
            });
        });
        QTRY_VERIFY(firstIn);
        std::thread second([&] { access(secondPath, secondWrites, [&] { secondIn = true; }); });
        if (waits) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            QVERIFY(!secondIn);
        } else {
            QTRY_VERIFY_WITH_TIMEOUT(secondIn, 2000);
        }
        release = true;
        first.join();
        second.join();
        QVERIFY(secondIn);
    }

    // Two processes writing in one library take turns: every begin is followed by its own end.
    void exclusionBetweenProcesses() {
        const QString root = m_folder.filePath(u"Library"_s), log = m_folder.filePath(u"log"_s);
        QDir().mkpath(root);
        QProcess one, two;
        one.start(helper, {u"append"_s, root, log, u"40"_s});
        two.start(helper, {u"append"_s, root, log, u"40"_s});
        QVERIFY(one.waitForFinished(20000) && two.waitForFinished(20000));
        const QList<QByteArray> lines = contents(log).split('\n');
        QCOMPARE(lines.size(), 161);
        for (int i = 0; i + 1 < 160; i += 2) {
            QVERIFY2(lines[i].endsWith(" begin") && lines[i + 1].endsWith(" end") &&
                         lines[i].split(' ')[0] == lines[i + 1].split(' ')[0],
                     lines[i] + " / " + lines[i + 1]);
        }
    }

    // What presenters of this process hear of a coordinated access; the writer's own hears
    // nothing, and the monitor doesn't tell any of it again.
    void presentersOfCoordinatedAccess() {
        const QString base = m_folder.path();
        QDir().mkpath(base + u"/lib/doc.pkg"_s);
        write(base + u"/lib/doc.pkg/Content.xml"_s, "one");
        Presenting library(base + u"/lib"_s, base), document(base + u"/lib/doc.pkg"_s, base),
            writer(base + u"/lib/notes.txt"_s, base);
        spin(50);

        HXFileCoordinator coordinator(writer.recorder);
        coordinator.coordinateWritingItemAtURL(
            base + u"/lib/notes.txt"_s, 0, nullptr,
            [&](const QString &path) { HXFileSystem::writeFileAtomically("x", path, nullptr); });
        QCOMPARE(library.recorder->settled(), QStringList{u"appeared lib/notes.txt"_s});
        QCOMPARE(writer.recorder->settled(0), QStringList());

        // A package saved by another coordinator: its presenter saves first, then hears of one
        // change; the library hears of a change of the package, not of its files.
        HXFileCoordinator other;
        other.coordinateWritingItemAtURL(
            base + u"/lib/doc.pkg"_s, 0, nullptr, [&](const QString &path) {
                HXFileWrapper::directoryWithFileWrappers(
                    {{u"Content.xml"_s, HXFileWrapper::regularFileWithContents("two", {})}})
                    ->writeToPath(path, nullptr);
            });
        QCOMPARE(document.recorder->settled(), (QStringList{u"changed"_s, u"save"_s}));
        QCOMPARE(library.recorder->settled(0), QStringList{u"changed lib/doc.pkg"_s});

        // A move told to the coordinator: the presenter follows, the folder hears of the move.
        other.coordinateWritingItemAtURL(
            base + u"/lib/doc.pkg"_s, HXFileCoordinator::WritingForMoving,
            base + u"/lib/moved.pkg"_s, 0, nullptr, [&](const QString &from, const QString &to) {
                QVERIFY(HXFileSystem::moveItem(from, to, false, nullptr));
                other.itemAtURL(from, to);
            });
        QCOMPARE(document.recorder->settled(),
                 (QStringList{u"moved to lib/moved.pkg"_s, u"save"_s}));
        QCOMPARE(library.recorder->settled(0),
                 QStringList{u"moved lib/doc.pkg to lib/moved.pkg"_s});
        QCOMPARE(document.recorder->presentedItemURL(), base + u"/lib/doc.pkg"_s);
        QVERIFY(HXFileCoordinator::presentersWithPaths().contains(
            {document.recorder, base + u"/lib/moved.pkg"_s}));

        // A later write of ours inside an earlier one is still ours: the presenter that wrote
        // hears nothing of it, not even from the monitor.
        Presenting notes(base + u"/lib/dir/a.txt"_s, base);
        other.coordinateWritingItemAtURL(
            base + u"/lib/dir"_s, 0, nullptr, [&](const QString &path) {
                QDir().mkpath(path);
                HXFileSystem::writeFileAtomically("1", path + u"/a.txt"_s, nullptr);
            });
        HXFileCoordinator own(notes.recorder);
        own.coordinateWritingItemAtURL(
            base + u"/lib/dir/a.txt"_s, 0, nullptr,
            [&](const QString &path) { HXFileSystem::writeFileAtomically("2", path, nullptr); });
        const QStringList heard = notes.recorder->settled();
        QCOMPARE(heard, (QStringList{u"changed"_s, u"save"_s}));
        library.recorder->clear();

        // A deletion is accommodated before it happens, and nothing follows it.
        other.coordinateWritingItemAtURL(
            base + u"/lib/moved.pkg"_s, HXFileCoordinator::WritingForDeleting, nullptr,
            [&](const QString &path) { HXFileSystem::removeItem(path, nullptr); });
        QCOMPARE(document.recorder->settled(), QStringList{u"deleted"_s});
        QCOMPARE(library.recorder->settled(0), QStringList{u"deleted lib/moved.pkg"_s});
    }

    // Changes by another process, as the presenters of a folder and of a package hear them.
    void foreignChanges_data() {
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<QStringList>("libraryHears");
        QTest::addColumn<QStringList>("documentHears");
        QTest::newRow("new file") << QStringList{u"file lib/new.txt"_s}
                                  << QStringList{u"appeared lib/new.txt"_s} << QStringList();
        QTest::newRow("changed file") << QStringList{u"file lib/old.txt"_s}
                                      << QStringList{u"changed lib/old.txt"_s} << QStringList();
        QTest::newRow("deleted file") << QStringList{u"rm lib/old.txt"_s}
                                      << QStringList{u"deleted lib/old.txt"_s} << QStringList();
        QTest::newRow("renamed file")
            << QStringList{u"mv lib/old.txt lib/renamed.txt"_s}
            << QStringList{u"moved lib/old.txt to lib/renamed.txt"_s} << QStringList();
        QTest::newRow("hidden file")
            << QStringList{u"file lib/.hidden"_s} << QStringList() << QStringList();
        QTest::newRow("package replaced in one step")
            << QStringList{u"package lib/doc.pkg"_s} << QStringList{u"changed lib/doc.pkg"_s}
            << QStringList{u"changed"_s};
        QTest::newRow("file inside a package")
            << QStringList{u"file lib/doc.pkg/Content.xml"_s}
            << QStringList{u"changed lib/doc.pkg"_s} << QStringList{u"changed"_s};
        QTest::newRow("package moved to another group, then changed there")
            << QStringList{u"mv lib/doc.pkg lib/group/doc.pkg"_s, u"wait"_s,
                           u"file lib/group/doc.pkg/Content.xml"_s}
            << QStringList{u"moved lib/doc.pkg to lib/group/doc.pkg"_s,
                           u"changed lib/group/doc.pkg"_s}
            << QStringList{u"moved to lib/group/doc.pkg"_s, u"changed"_s};
        QTest::newRow("package moved out of the library")
            << QStringList{u"mv lib/doc.pkg elsewhere.pkg"_s}
            << QStringList{u"deleted lib/doc.pkg"_s} << QStringList{u"moved to elsewhere.pkg"_s};
        QTest::newRow("package deleted")
            << QStringList{u"rm lib/doc.pkg"_s} << QStringList{u"deleted lib/doc.pkg"_s}
            << QStringList{u"deleted"_s};
        QTest::newRow("new folder, then a file in it")
            << QStringList{u"mkdir lib/fresh"_s, u"wait"_s, u"file lib/fresh/a.txt"_s}
            << QStringList{u"appeared lib/fresh"_s, u"appeared lib/fresh/a.txt"_s} << QStringList();
    }

    void foreignChanges() {
        QFETCH(QStringList, steps);
        QFETCH(QStringList, libraryHears);
        QFETCH(QStringList, documentHears);
        const QString base = m_folder.path();
        QDir().mkpath(base + u"/lib/group"_s);
        QDir().mkpath(base + u"/lib/doc.pkg"_s);
        write(base + u"/lib/doc.pkg/Content.xml"_s, "one");
        write(base + u"/lib/old.txt"_s, "old");
        Presenting library(base + u"/lib"_s, base), document(base + u"/lib/doc.pkg"_s, base);
        spin(20);
        QStringList libraryEvents, documentEvents;
        for (const QString &step : std::as_const(steps)) {
            const QStringList words = step.split(u' ');
            const QString path = base + u'/' + words.value(1);
            if (words[0] == u"file")
                QCOMPARE(runHelper({u"file"_s, path, u"text"_s}), 0);
            else if (words[0] == u"package")
                QCOMPARE(runHelper({u"package"_s, path, u"text"_s}), 0);
            else if (words[0] == u"mkdir")
                QVERIFY(QDir().mkdir(path));
            else if (words[0] == u"rm")
                QVERIFY(HXFileSystem::removeItem(path, nullptr));
            else if (words[0] == u"mv")
                QCOMPARE(QProcess::execute(u"mv"_s, {path, base + u'/' + words[2]}), 0);
            else if (words[0] == u"wait") {
                libraryEvents += library.recorder->settled();
                documentEvents += document.recorder->settled(0);
            }
        }
        libraryEvents += library.recorder->settled();
        documentEvents += document.recorder->settled(0);
        QCOMPARE(libraryEvents, libraryHears);
        QCOMPARE(documentEvents, documentHears);
    }

    // Another process at work in a folder before the monitor watches it: in one we have just
    // made, or in one that took the place of a folder watched before. Nothing it did there is
    // lost; what is inside a folder that appeared comes with it, and our own write stays unheard.
    void foreignChangesBeforeWatch() {
        const QString base = m_folder.path();
        QDir().mkpath(base + u"/lib/kept"_s);
        write(base + u"/lib/kept/a.txt"_s, "a");
        write(base + u"/lib/kept/b.txt"_s, "b");
        Presenting library(base + u"/lib"_s, base);
        spin(20);
        HXFileCoordinator coordinator;
        for (int round = 0; round < 3; ++round) {
            const QString group = u"lib/group%1"_s.arg(round), folder = base + u'/' + group;
            coordinator.coordinateWritingItemAtURL(folder, 0, nullptr, [](const QString &path) {
                QDir().mkdir(path);
                HXFileSystem::writeFileAtomically("own", path + u"/Info.plist"_s, nullptr);
            });
            write(folder + u"/foreign.txt"_s, "x");
            QVERIFY(QDir().mkdir(folder + u"/sub"_s));
            write(folder + u"/sub/deep.txt"_s, "x");
            QCOMPARE(
                library.recorder->settled(),
                (QStringList{u"appeared "_s + group, u"appeared "_s + group + u"/foreign.txt"_s,
                             u"appeared "_s + group + u"/sub"_s}));
        }

        QVERIFY(QDir().rename(base + u"/lib/kept"_s, base + u"/.old"_s));
        QVERIFY(QDir().mkdir(base + u"/lib/kept"_s));
        write(base + u"/lib/kept/b.txt"_s, "b");
        write(base + u"/lib/kept/c.txt"_s, "c");
        QCOMPARE(library.recorder->settled(),
                 (QStringList{u"appeared lib/kept/c.txt"_s, u"changed lib/kept"_s,
                              u"changed lib/kept/b.txt"_s, u"deleted lib/kept/a.txt"_s}));
    }

    // Events lost by the kernel (its queue overflowed) are found again by listing the folders.
    void overflowRescans() {
        const QString base = m_folder.path();
        QDir().mkpath(base + u"/lib"_s);
        write(base + u"/lib/keep.txt"_s, "1");
        write(base + u"/lib/gone.txt"_s, "1");
        Presenting library(base + u"/lib"_s, base);
        spin(20);
        write(base + u"/lib/keep.txt"_s, "22");
        QFile::remove(base + u"/lib/gone.txt"_s);
        write(base + u"/lib/new.txt"_s, "1");
        HXFileMonitor::shared()->dropEventsForTesting();
        QCOMPARE(library.recorder->settled(),
                 (QStringList{u"appeared lib/new.txt"_s, u"changed lib/keep.txt"_s,
                              u"deleted lib/gone.txt"_s}));
    }

    // Without watches to be had, folders are polled, and changes still arrive.
    void pollingWithoutWatches() {
        HXFileMonitor *monitor = HXFileMonitor::shared();
        const QString base = m_folder.path();
        QDir().mkpath(base + u"/lib/a/b"_s);
        monitor->setPollInterval(100);
        monitor->setWatchLimitForTesting(1);
        Presenting library(base + u"/lib"_s, base);
        spin(20);
        QVERIFY(monitor->polledFolderCount() >= 2);
        QCOMPARE(runHelper({u"file"_s, base + u"/lib/a/b/deep.txt"_s, u"x"_s}), 0);
        QCOMPARE(library.recorder->settled(600), QStringList{u"appeared lib/a/b/deep.txt"_s});
        monitor->setWatchLimitForTesting(-1);
        monitor->setPollInterval(1000);
        QCOMPARE(monitor->polledFolderCount(), 0);
    }

    // A writer killed at any moment leaves every package and file wholly old or wholly new.
    void killedWriterLeavesWholeItems() {
        const int rounds = qEnvironmentVariableIsSet("VELMORA_STRESS") ? 2000 : 200;
        const QString folder = m_folder.filePath(u"crash"_s);
        QDir().mkpath(folder);
        QProcess first;
        first.start(helper, {u"packages"_s, folder});
        QVERIFY(first.waitForReadyRead(10000)); // one whole round is on disk
        first.kill();
        first.waitForFinished();
        int lastRound = 0;
        for (int i = 0; i < rounds; ++i) {
            QProcess writer;
            writer.start(helper, {u"packages"_s, folder});
            QVERIFY(writer.waitForStarted());
            std::this_thread::sleep_for(
                std::chrono::microseconds(QRandomGenerator::global()->bounded(30000)));
            ::kill(pid_t(writer.processId()), SIGKILL);
            writer.waitForFinished();
            const int round = roundOfPackage(folder + u"/p.pkg"_s);
            QVERIFY2(round > 0, qPrintable(u"round %1: the package is torn or gone"_s.arg(i)));
            const QByteArray file = contents(folder + u"/f.txt"_s);
            QVERIFY2(file.size() % 10000 == 0 &&
                         file == file.left(file.size() / 10000).repeated(10000),
                     qPrintable(u"round %1: the file is torn"_s.arg(i)));
            lastRound = std::max(lastRound, round);
        }
        QVERIFY(lastRound >= 1);
        // The next writer clears what the dead ones left beside the package.
        QVERIFY(HXFileWrapper::fileWrapperWithPath(folder + u"/p.pkg"_s, nullptr)
                    ->writeToPath(folder + u"/p.pkg"_s, nullptr));
        QCOMPARE(QDir(folder)
                     .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot)
                     .filter(u"p.pkg"_s),
                 QStringList{u"p.pkg"_s});
    }

    // Two processes writing one file: a reader only ever sees one writer's whole file.
    void concurrentWritersNeverTear() {
        const QString path = m_folder.filePath(u"shared.txt"_s);
        write(path, QByteArray(200 * 1024, 'o'));
        QProcess one, two;
        one.start(helper, {u"fill"_s, path, u"a"_s, u"60"_s});
        two.start(helper, {u"fill"_s, path, u"b"_s, u"60"_s});
        int reads = 0;
        while (one.state() != QProcess::NotRunning || two.state() != QProcess::NotRunning) {
            const QByteArray bytes = contents(path);
            QCOMPARE(bytes.size(), 200 * 1024);
            QCOMPARE(bytes.count(bytes.at(0)), bytes.size());
            ++reads;
            one.waitForFinished(1);
            two.waitForFinished(1);
        }
        QVERIFY(reads > 0);
    }

    // A write that meets a full disk fails, names the file, and leaves the old one whole.
    void fullDisk() {
        const QString file = m_folder.filePath(u"full.txt"_s);
        const QString package = m_folder.filePath(u"full.pkg"_s);
        QVERIFY(HXFileSystem::writeFileAtomically("old", file, nullptr));
        const auto small = HXFileWrapper::directoryWithFileWrappers(
            {{u"a.txt"_s, HXFileWrapper::regularFileWithContents("old", {})}});
        QVERIFY(small->writeToPath(package, nullptr));
        const auto big = HXFileWrapper::directoryWithFileWrappers(
            {{u"a.txt"_s, HXFileWrapper::regularFileWithContents(QByteArray(1 << 20, 'x'), {})}});

        struct rlimit old {};
        getrlimit(RLIMIT_FSIZE, &old);
        const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
        struct rlimit limit = old;
        limit.rlim_cur = 64 * 1024;
        QCOMPARE(setrlimit(RLIMIT_FSIZE, &limit), 0);
        HXError fileError, packageError;
        const bool fileWritten =
            HXFileSystem::writeFileAtomically(QByteArray(1 << 20, 'x'), file, &fileError);
        const bool packageWritten = big->writeToPath(package, &packageError);
        setrlimit(RLIMIT_FSIZE, &old);
        std::signal(SIGXFSZ, oldHandler);

        QVERIFY(!fileWritten);
        QVERIFY(!packageWritten);
        QVERIFY(fileError.localizedDescription().contains(file));
        QVERIFY(packageError.localizedDescription().contains(u"full.pkg"_s));
        QCOMPARE(contents(file), QByteArray("old"));
        QCOMPARE(contents(package + u"/a.txt"_s), QByteArray("old"));
        QCOMPARE(QDir(m_folder.path())
                     .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot)
                     .filter(u"full"_s)
                     .size(),
                 2);
    }

    // A package keeps its creation date across saves; unchanged files are linked, not copied.
    void packageReplacement() {
        const QString path = m_folder.filePath(u"dated.pkg"_s);
        const auto first = HXFileWrapper::directoryWithFileWrappers(
            {{u"image.png"_s, HXFileWrapper::regularFileWithContents("png", {})},
             {u"Content.xml"_s, HXFileWrapper::regularFileWithContents("1", {})}});
        QVERIFY(first->writeToPath(path, nullptr));
        const QDateTime created = QDateTime(QDate(2020, 5, 17), QTime(8, 30), Qt::UTC);
        QVERIFY(HXFileSystem::setCreationDate(path, created));
        QCOMPARE(HXFileSystem::creationDate(path), created);

        const auto read = HXFileWrapper::fileWrapperWithPath(path, nullptr);
        const ino_t imageInode = HXFileIdentity::ofPath(path + u"/image.png"_s).inode;
        auto children = read->fileWrappers();
        children.insert(u"Content.xml"_s, HXFileWrapper::regularFileWithContents("2", {}));
        QString backup;
        QVERIFY(HXFileWrapper::directoryWithFileWrappers(children)->writeToPath(path, nullptr,
                                                                                &backup));
        QCOMPARE(contents(backup + u"/Content.xml"_s), QByteArray("1"));
        QCOMPARE(contents(path + u"/Content.xml"_s), QByteArray("2"));
        QCOMPARE(HXFileIdentity::ofPath(path + u"/image.png"_s).inode, imageInode);
        QCOMPARE(HXFileSystem::creationDate(path), created);

        // The old package is the caller's to let go.
        QVERIFY(HXFileSystem::removeItem(backup, nullptr));

        // Once the source changed, its bytes are written, not linked.
        write(path + u"/image.png"_s, "changed");
        QVERIFY(HXFileWrapper::directoryWithFileWrappers(children)->writeToPath(path, nullptr));
        QCOMPARE(contents(path + u"/image.png"_s), QByteArray("png"));

        // A writer without exchange that died between its renames left the package aside.
        QVERIFY(HXFileSystem::moveItem(
            path, path.section(u'/', 0, -2) + u"/.dated.pkg.exchange-0123456789abcdef"_s, false,
            nullptr));
        QVERIFY(HXFileSystem::recoverInterruptedExchange(path));
        QCOMPARE(contents(path + u"/Content.xml"_s), QByteArray("2"));

        const QDateTime modified = QDateTime(QDate(2021, 1, 2), QTime(3, 4, 5), Qt::UTC);
        QVERIFY(HXFileSystem::setModificationDate(path, modified));
        QCOMPARE(HXFileSystem::modificationDate(path), modified);
        // Entries still being made: written when ready; nothing leaves one out; a failure
        // leaves the old package as it was and nothing beside it.
        const auto pending = [](QByteArray bytes, bool fails) {
            return HXFileWrapper::pendingWrapper([bytes, fails](HXError *error) {
                if (fails)
                    HXSetError(error, HXError(HXPOSIXErrorDomain, EIO));
                return bytes.isNull() || fails ? HXFileWrapperRef()
                                               : HXFileWrapper::regularFileWithContents(bytes, {});
            });
        };
        children = {{u"Content.xml"_s, pending("3", false)},
                    {u"Media"_s, pending(QByteArray(), false)},
                    {u"Text.txt"_s, HXFileWrapper::regularFileWithContents("t", {})}};
        QVERIFY(HXFileWrapper::directoryWithFileWrappers(children)->writeToPath(path, nullptr));
        QCOMPARE(QDir(path).entryList(QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot),
                 QStringList({u"Content.xml"_s, u"Text.txt"_s}));
        QCOMPARE(contents(path + u"/Content.xml"_s), QByteArray("3"));
        children.insert(u"Content.xml"_s, pending("4", true));
        HXError error;
        QVERIFY(!HXFileWrapper::directoryWithFileWrappers(children)->writeToPath(path, &error));
        QCOMPARE(error.code(), EIO);
        QCOMPARE(contents(path + u"/Content.xml"_s), QByteArray("3"));
        QCOMPARE(QDir(m_folder.path()).entryList({u".dated.pkg*"_s}, QDir::AllEntries | QDir::Hidden),
                 QStringList());
    }

    void caseRule() {
        const QString folder = m_folder.filePath(u"case"_s);
        QDir().mkpath(folder);
        write(folder + u"/README.txt"_s, "x");
        QVERIFY(HXFileSystem::isCaseSensitive(folder));
        QCOMPARE(HXFileSystem::exactPath(folder + u"/readme.TXT"_s), folder + u"/readme.TXT"_s);
        HXFileSystem::setCaseSensitivityForTesting(folder, false);
        QVERIFY(!HXFileSystem::isCaseSensitive(folder));
        QCOMPARE(HXFileSystem::exactPath(folder + u"/readme.TXT"_s), folder + u"/README.txt"_s);
        HXFileSystem::resetCaseSensitivityForTesting();
        QVERIFY(HXFileSystem::isCaseSensitive(folder));
    }

    void cleanup() {
        QDir(m_folder.path()).removeRecursively();
        QDir().mkpath(m_folder.path());
    }

private:
    QTemporaryDir m_folder{QDir::tempPath() + u"/velmora-files-XXXXXX"_s};
};

HX_TEST_MAIN(tst_HXFileServices)
#include "tst_HXFileServices.moc"
