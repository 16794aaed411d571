// The application log: rotation across starts, the record format, notices versus errors, the
// extensive log, whole records from many threads, and set-up failures that never fail a caller.

#include "HXTestSupport.h"
#include "Utilities/HXApplicationLog.h"
#include "Utilities/HXPropertyList.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QRegularExpression>

#include <fcntl.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

QByteArray contents(const QString &path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString freshFolder(const QString &name) {
    const QString path = HXTestSupport::homeFolder().filePath(name);
    QDir(path).removeRecursively();
    return path;
}

// Runs `action` with standard error going to a file, and returns what was written there.
template<typename F>
QByteArray capturingStandardError(F action) {
    const QString path = HXTestSupport::homeFolder().filePath(u"stderr.txt"_s);
    std::fflush(stderr);
    const int saved = dup(2);
    const int fd = ::open(path.toLocal8Bit().constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, 2);
    ::close(fd);
    action();
    std::fflush(stderr);
    dup2(saved, 2);
    ::close(saved);
    return contents(path);
}

const QRegularExpression recordPattern(u"^(\\d+) \\(0x[0-9a-f]+\\): (.*)$"_s);

} // namespace

class tst_HXApplicationLog : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { HXExtensiveLogging = false; }
    void rotationAcrossTwoStarts();
    void recordFormat();
    void noticesOnlyWhenExtensive();
    void extensiveLogGetsTheSameBytes();
    void recordsStayWholeAcrossThreads();
    void setUpFailureGoesToStandardError();
};

void tst_HXApplicationLog::rotationAcrossTwoStarts() {
    const QString folder = freshFolder(u"rotation"_s);
    {
        HXApplicationLog first(folder);
        // A first run has nothing to move, so there is no old log to read.
        QCOMPARE(first.loadLastCrashLog(),
                 u"Unable to read error log '%1': %2"_s.arg(folder + u"/errors.old.log"_s,
                                                            u"No such file or directory"_s));
        first.logError(u"first run %d", 1);
    }
    HXApplicationLog second(folder);
    second.logError(u"second run");

    const QString old = second.loadLastCrashLog();
    QVERIFY(old.startsWith(u"Session started: "_s));
    QVERIFY(old.contains(u"): first run 1\n"_s));
    QVERIFY(!old.contains(u"second run"_s));

    const QByteArray current = contents(folder + u"/errors.log"_s);
    QVERIFY(!current.contains("first run"));
    QVERIFY(current.contains("): second run\n"));

    // A third start drops the first run's log entirely.
    const QString previous = HXApplicationLog(folder).loadLastCrashLog();
    QVERIFY(!previous.contains(u"first run"_s));
    QVERIFY(previous.contains(u"second run"_s));
}

void tst_HXApplicationLog::recordFormat() {
    const QString folder = freshFolder(u"format"_s);
    HXApplicationLog log(folder);
    const qint64 before = QDateTime::currentMSecsSinceEpoch() / 10;
    log.logError(u"Chunk %@ at %lu", u"x"_s, 42u);
    const qint64 after = QDateTime::currentMSecsSinceEpoch() / 10;

    const QList<QByteArray> lines = contents(log.crashErrorLogURL()).split('\n');
    // "Session started: <date>", an empty line, the record, and the final empty piece.
    QCOMPARE(lines.size(), 4);
    QVERIFY(QRegularExpression(
                u"^Session started: \\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d \\+0000$"_s)
                .match(QString::fromUtf8(lines[0]))
                .hasMatch());
    QVERIFY(lines[1].isEmpty());
    const auto match = recordPattern.match(QString::fromUtf8(lines[2]));
    QVERIFY2(match.hasMatch(), lines[2].constData());
    QCOMPARE(match.captured(2), u"Chunk x at 42"_s);
    // Hundredths of a second since 2001-01-01.
    const qint64 stamp = match.captured(1).toLongLong();
    const qint64 offset = HXPropertyList::referenceDateOffset * 100;
    QVERIFY(stamp >= before - offset && stamp <= after - offset);
}

void tst_HXApplicationLog::noticesOnlyWhenExtensive() {
    const QString folder = freshFolder(u"notices"_s);
    HXApplicationLog log(folder);
    log.logNotice(u"quiet notice");
    log.logCoordinatingFileAtURL(u"/tmp/a"_s, false, __FILE__, 10);
    log.logError(u"loud error");
    const QByteArray text = contents(log.crashErrorLogURL());
    QVERIFY(!text.contains("quiet notice"));
    QVERIFY(!text.contains("/tmp/a"));
    QVERIFY(text.contains("loud error"));
    // What comes after the announcement of termination is still recorded.
    HXNotificationCenter::defaultCenter()->post(HXApplicationWillTerminateNotification);
    log.logError(u"late warning");
    QVERIFY(contents(log.crashErrorLogURL()).contains("late warning"));
    // Nothing else was made in the folder.
    QCOMPARE(QDir(folder).entryList(QDir::Files), QStringList{u"errors.log"_s});
}

void tst_HXApplicationLog::extensiveLogGetsTheSameBytes() {
    const QString folder = freshFolder(u"extensive"_s);
    HXApplicationLog log(folder);
    const qint64 seconds = QDateTime::currentSecsSinceEpoch() - HXPropertyList::referenceDateOffset;
    QString revealed;
    HXApplicationLog::setRevealHandler([&](const QString &path) { revealed = path; });
    QByteArray systemLog = capturingStandardError([&] { log.setExtensiveLogging(true); });
    HXApplicationLog::setRevealHandler(nullptr);

    const QString name = QFileInfo(log.extensiveLogURL()).fileName();
    const auto number = QRegularExpression(u"^Velmora-(\\d+)\\.log$"_s).match(name);
    QVERIFY2(number.hasMatch(), qPrintable(name));
    QVERIFY(qAbs(number.captured(1).toLongLong() - seconds) <= 2);
    QCOMPARE(revealed, log.extensiveLogURL());
    QVERIFY(systemLog.contains("Set up log file at: " + log.extensiveLogURL().toUtf8()));

    // The application facts open the log.
    const QByteArray facts = contents(log.extensiveLogURL());
    const QString firstLine = QString::fromUtf8(facts.left(facts.indexOf('\n')));
    QVERIFY2(recordPattern.match(firstLine).captured(2).startsWith(u"Velmora build: "_s),
             qPrintable(firstLine));

    log.logError(u"an error in both");
    log.logNotice(u"a notice in both");
    log.logCoordinatingFileAtURL(u"/lib/Sheet.hxsheet"_s, true, "/src/Model/HXSheet.cpp", 77);
    const QByteArray errors = contents(log.crashErrorLogURL());
    const QByteArray extensive = contents(log.extensiveLogURL());
    for (const QByteArray &message :
         {QByteArray("an error in both"), QByteArray("a notice in both"),
          QByteArray("HXSheet.cpp:77 done: /lib/Sheet.hxsheet")}) {
        const qsizetype e = errors.indexOf(message);
        const qsizetype x = extensive.indexOf(message);
        QVERIFY2(e > 0 && x > 0, message.constData());
        // The whole record, stamp and thread included, is the same in both files.
        const QByteArray inErrors = errors.mid(
            errors.lastIndexOf('\n', e) + 1, errors.indexOf('\n', e) - errors.lastIndexOf('\n', e));
        QVERIFY(extensive.contains(inErrors));
    }

    log.setExtensiveLogging(false);
    QVERIFY(log.extensiveLogURL().isEmpty());
    log.logNotice(u"after switching off");
    QVERIFY(!contents(log.crashErrorLogURL()).contains("after switching off"));
}

void tst_HXApplicationLog::recordsStayWholeAcrossThreads() {
    const QString folder = freshFolder(u"threads"_s);
    HXApplicationLog log(folder);
    const int threads = 6, records = 80;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&, t] {
            for (int i = 0; i < records; ++i)
                log.logError(u"thread %d record %d %@", t, i, QString(40, u'x'));
        });
    for (auto &w : workers)
        w.join();
    const QList<QByteArray> lines = contents(log.crashErrorLogURL()).split('\n');
    int counted = 0;
    for (const QByteArray &line : lines.mid(2)) {
        if (line.isEmpty())
            continue;
        const auto match = recordPattern.match(QString::fromUtf8(line));
        QVERIFY2(match.hasMatch() && match.captured(2).endsWith(QString(40, u'x')),
                 line.constData());
        ++counted;
    }
    QCOMPARE(counted, threads * records);
}

void tst_HXApplicationLog::setUpFailureGoesToStandardError() {
    // The log folder can't be made because a file stands where it should be.
    const QString blocked = HXTestSupport::homeFolder().filePath(u"blocked"_s);
    QFile file(blocked);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.close();
    const QString folder = blocked + u"/Logs"_s;
    const QByteArray systemLog = capturingStandardError([&] {
        HXApplicationLog log(folder);
        log.logError(u"goes nowhere"); // must not fail its caller
    });
    QVERIFY2(systemLog.startsWith("Failed to create log folder " + folder.toUtf8() + ": "),
             systemLog.constData());
    QVERIFY(systemLog.endsWith(" \n"));
}

HX_TEST_MAIN(tst_HXApplicationLog)
#include "tst_HXApplicationLog.moc"
