// Moves made by velmora-cli against real files: killed at random moments, or racing another
// process that takes the names the sheets are moved to. Every sheet must end up exactly once, and
// nothing of the other process's may be replaced.
#include "HXTestSupport.h"
#include "Model/Persistence/HXLibrary.h"
#include "Model/Persistence/HXNativeGroup.h"
#include "Model/Sheets/HXNativeSheet.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Text/String/Access/HXAtomicString.h"

#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>

#include <csignal>

using namespace Qt::StringLiterals;

namespace {

const QString cli = QStringLiteral(VELMORA_CLI);

QString read(const QString &path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : u"(unreadable)"_s;
}

// Every sheet package below the folder, path → text, read from the disk.
QMap<QString, QString> packages(const QString &folder) {
    QMap<QString, QString> found;
    for (const QString &name : QDir(folder).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const QString path = folder + u'/' + name;
        if (name.endsWith(u".velmora"_s))
            found.insert(path, read(path + u"/Text.txt"_s));
        else
            found.insert(packages(path));
    }
    return found;
}

QStringList namesIn(const QString &group) {
    return QDir(group).entryList({u"*.velmora"_s}, QDir::Dirs);
}

struct Setup {
    QString path, a, b;
    QStringList texts;
};

// A library with groups A and B and so many sheets in A, "sheet 0001" and on; let go afterwards.
Setup makeLibrary(const QString &path, int count) {
    const auto library = HXLibrary::libraryAtURL(path, path);
    HXError error;
    const auto group = [&](const QString &name) {
        return library->createContainerOfKind(HXContainerKind::Group, library->mainGroup(), name,
                                              HXNotFound, &error);
    };
    const auto a = group(u"A"_s), b = group(u"B"_s);
    Setup setup{path, a->URL(), b->URL(), {}};
    for (int i = 1; i <= count; ++i) {
        setup.texts.append(u"sheet %1"_s.arg(i, 4, 10, QChar(u'0')));
        const auto sheet = library->newSheetMatchingMarkup({});
        sheet->text()->replaceCharactersInRange(HXRange{0, 0}, HXReplacement(setup.texts.last()));
        library->createSheet(sheet, HXNotFound, a, {}, &error);
    }
    library->writePendingInfoFiles();
    library->invalidate();
    return setup;
}

// The library's sheets as a fresh reading of it lists them, path → handle. The handles need the
// library that `keep` holds.
QMap<QString, std::shared_ptr<HXSheetHandle>> reopened(const QString &path,
                                                       std::shared_ptr<HXLibrary> *keep = nullptr) {
    static int count = 0;
    const auto library = HXLibrary::libraryAtURL(path, u"reopened %1"_s.arg(++count));
    if (keep)
        *keep = library;
    QMap<QString, std::shared_ptr<HXSheetHandle>> handles;
    for (const auto &container : library->rootGroup()->descendantContainers()) {
        if (container->kind() != HXContainerKind::Filter) {
            for (const auto &handle : container->sheetHandles())
                handles.insert(handle->URL(), handle);
        }
    }
    return handles;
}

QStringList sorted(QStringList list) {
    list.sort();
    return list;
}

} // namespace

class TestMoveCrash : public QObject {
    Q_OBJECT

    QTemporaryDir m_folder;

    // Each text once, every package in A, B or the trash, and a fresh reading lists the same.
    void verify(const Setup &setup) {
        const auto found = packages(setup.path);
        QCOMPARE(sorted(found.values()), setup.texts);
        const QString trash = setup.path + u"/Trash-hxtrash"_s;
        for (const QString &package : found.keys()) {
            const QString folder = package.section(u'/', 0, -2);
            QVERIFY2(folder == setup.a || folder == setup.b || folder == trash,
                     qPrintable(package));
        }
        QCOMPARE(reopened(setup.path).keys(), found.keys());
    }

private slots:
    // Killed at any moment, a move leaves every sheet in one place or the other, never both.
    void killedMove() {
        const int rounds = qEnvironmentVariableIntValue("VELMORA_STRESS") ? 40 : 6;
        const Setup setup = makeLibrary(m_folder.filePath(u"Killed"_s), 1000);
        // Moves everything from the fuller group to the other; killed after so many ms unless
        // that is negative. The exit code, or -1 when killed.
        const auto move = [&](qint64 killAfter) {
            const bool fromA = namesIn(setup.a).size() >= namesIn(setup.b).size();
            QProcess process;
            process.start(cli, QStringList{u"library"_s, u"move"_s, setup.path}
                                   << namesIn(fromA ? setup.a : setup.b) << u"--to"_s
                                   << (fromA ? u"Library/B"_s : u"Library/A"_s));
            if (killAfter >= 0 && !process.waitForFinished(int(killAfter))) {
                ::kill(pid_t(process.processId()), SIGKILL);
                process.waitForFinished();
                return -1;
            }
            process.waitForFinished(60000);
            if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
                qWarning() << process.readAllStandardError();
            return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2;
        };
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(move(-1), 0);
        const qint64 duration = clock.elapsed();
        QCOMPARE(namesIn(setup.b).size(), 1000);
        verify(setup);
        int midway = 0, outside = 0, finished = 0;
        for (int round = 0; round < rounds; ++round) {
            const int status = move(QRandomGenerator::global()->bounded(duration + 1));
            QVERIFY(status == -1 || status == 0);
            verify(setup);
            if (QTest::currentTestFailed())
                return;
            const bool split = !namesIn(setup.a).isEmpty() && !namesIn(setup.b).isEmpty();
            (status ? (split ? midway : outside) : finished)++;
        }
        // After all that, a move still runs to the end.
        QCOMPARE(move(-1), 0);
        verify(setup);
        qInfo("a full move took %lld ms; of %d rounds %d were killed mid-move, %d killed before or "
              "after moving, %d finished",
              duration, rounds, midway, outside, finished);
    }

    // Names taken in the target by another process while the move runs: the sheets go around
    // them, and what the other process made stays as it made it.
    void moveAroundNewNames() {
        const Setup setup = makeLibrary(m_folder.filePath(u"Raced"_s), 300);
        const QStringList names = namesIn(setup.a);
        QProcess move;
        move.setReadChannel(QProcess::StandardError);
        move.start(cli, QStringList{u"library"_s, u"move"_s, setup.path}
                            << names << u"--to"_s << u"Library/B"_s << u"--progress"_s);
        // Started once the move has begun, so that both meet halfway.
        QVERIFY(move.waitForReadyRead(30000));
        QProcess marker;
        QStringList reversed(names.rbegin(), names.rend());
        marker.start(u"/bin/sh"_s,
                     QStringList{u"-c"_s,
                                 u"cd \"$0\" && for n; do mkdir \"$n\" 2>/dev/null && "
                                 "printf %s \"$n\" >\"$n/marker\" && echo \"$n\"; done; true"_s,
                                 setup.b}
                         << reversed);
        QVERIFY(marker.waitForFinished(60000));
        QVERIFY(move.waitForFinished(60000));
        QCOMPARE(move.exitStatus(), QProcess::NormalExit);
        QVERIFY2(move.exitCode() == 0, move.readAllStandardError().constData());
        const QStringList made =
            QString::fromUtf8(marker.readAllStandardOutput()).split(u'\n', Qt::SkipEmptyParts);
        qInfo("the other process took %lld of the %lld names", made.size(), names.size());

        for (const QString &name : made) {
            const QString folder = setup.b + u'/' + name;
            QCOMPARE(QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
                     QStringList{u"marker"_s});
            QCOMPARE(read(folder + u"/marker"_s), name);
        }
        QCOMPARE(namesIn(setup.a), QStringList());
        QStringList onDisk, readable;
        const auto found = packages(setup.path);
        for (auto it = found.begin(); it != found.end(); ++it) {
            if (!made.contains(it.key().section(u'/', -1)))
                onDisk.append(it.value());
        }
        std::shared_ptr<HXLibrary> library;
        for (const auto &handle : reopened(setup.path, &library)) {
            if (made.contains(handle->filename()))
                continue;
            QCOMPARE(handle->URL().section(u'/', 0, -2), setup.b);
            const auto sheet = handle->loadSheetForReading();
            readable.append(sheet ? sheet->text()->string() : u"(unreadable)"_s);
        }
        QCOMPARE(sorted(onDisk), setup.texts);
        QCOMPARE(sorted(readable), setup.texts);
    }
};

HX_TEST_MAIN(TestMoveCrash)
#include "tst_HXMoveCrash.moc"
