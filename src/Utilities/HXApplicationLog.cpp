#include "Utilities/HXApplicationLog.h"

#include "Utilities/HXDescription.h"
#include "Utilities/HXLocations.h"
#include "Utilities/HXPropertyList.h"
#include "Utilities/HXVersion.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QProcessEnvironment>
#include <QSaveFile>
#include <QSysInfo>
#include <QThread>

#include <cstdio>
#include <unistd.h>

std::atomic<bool> HXExtensiveLogging{false};

namespace {

std::function<void(const QString &)> &revealHandler() {
    static std::function<void(const QString &)> handler;
    return handler;
}

QString dateText(const QDateTime &date) {
    return date.toUTC().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")) + QStringLiteral(" +0000");
}

// Opens a file for appending; null when it can't be opened.
std::unique_ptr<QFile> openForAppending(const QString &path, QString *reason) {
    auto file = std::make_unique<QFile>(path);
    if (!file->open(QIODevice::WriteOnly | QIODevice::Append)) {
        *reason = file->errorString();
        return nullptr;
    }
    return file;
}

bool writeEmptyFile(const QString &path, QString *reason) {
    QSaveFile file(path);
    if (file.open(QIODevice::WriteOnly) && file.commit())
        return true;
    *reason = file.errorString();
    return false;
}

} // namespace

void HXSystemLog(const QString &message) {
    const QByteArray bytes = message.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stderr);
    std::fflush(stderr);
}

HXApplicationLog *HXApplicationLog::sharedInstance() {
    // Made once and kept to the end of the process, so that records from late destructors of
    // other objects still have somewhere to go.
    static HXApplicationLog *instance = new HXApplicationLog;
    return instance;
}

HXApplicationLog::HXApplicationLog() {
    const QString support = HXLocations::applicationSupportPath();
    if (support.isEmpty()) {
        HXSystemLog(HXStringWithFormat(u"Failed to get library folder: %@ ",
                                       QStringLiteral("no application support location")));
        return;
    }
    setUpLogging(HXLocations::logsPath());
}

HXApplicationLog::HXApplicationLog(const QString &logFolder) {
    setUpLogging(logFolder);
}

HXApplicationLog::~HXApplicationLog() {
    close();
}

void HXApplicationLog::setUpLogging(const QString &logFolder) {
    m_logContainerURL = logFolder;
    HXError error;
    if (!HXLocations::makeFolder(logFolder, &error)) {
        HXSystemLog(HXStringWithFormat(u"Failed to create log folder %@: %@ ", logFolder,
                                       error.localizedDescription()));
        return;
    }
    m_crashErrorLogURL = logFolder + QStringLiteral("/errors.log");
    m_lastCrashLogURL = logFolder + QStringLiteral("/errors.old.log");

    // Neither step's failure matters: on a first run there is nothing to move.
    QFile::remove(m_lastCrashLogURL);
    QFile::rename(m_crashErrorLogURL, m_lastCrashLogURL);

    QString reason;
    std::unique_ptr<QFile> file;
    if (writeEmptyFile(m_crashErrorLogURL, &reason))
        file = openForAppending(m_crashErrorLogURL, &reason);
    if (!file) {
        HXSystemLog(HXStringWithFormat(u"Can't create crash error log '%@': %@", m_crashErrorLogURL,
                                       reason));
        return;
    }
    const QByteArray start =
        HXStringWithFormat(u"Session started: %@\n\n", dateText(QDateTime::currentDateTimeUtc()))
            .toUtf8();
    {
        QMutexLocker locker(&m_crashErrorLogHandle.mutex);
        m_crashErrorLogHandle.file = std::move(file);
    }
    write(m_crashErrorLogHandle, start);

    m_terminationObservation = HXNotificationCenter::defaultCenter()->addObserver(
        HXApplicationWillTerminateNotification,
        [this](const HXNotification &) { applicationWillTerminate(); });
}

QByteArray HXApplicationLog::record(const QString &message) {
    const quint64 hundredths = quint64(QDateTime::currentMSecsSinceEpoch() / 10 -
                                       HXPropertyList::referenceDateOffset * 100);
    return HXStringWithFormat(u"%lu (%p): %@\n", hundredths, QThread::currentThread(), message)
        .toUtf8();
}

void HXApplicationLog::log(QStringView format, const QList<HXFormatArgument> &arguments) {
    const QByteArray bytes = record(HXStringWithFormatArguments(format, arguments));
    write(m_crashErrorLogHandle, bytes);
    write(m_extensiveLogHandle, bytes);
}

void HXApplicationLog::write(Handle &handle, const QByteArray &bytes) {
    QMutexLocker locker(&handle.mutex);
    if (!handle.file)
        return;
    handle.file->write(bytes);
    handle.file->flush();
    // Forced to disk, so that a record survives a crash that follows it at once.
    ::fsync(handle.file->handle());
}

void HXApplicationLog::logApplicationInfo() {
    const QCoreApplication *application = QCoreApplication::instance();
    logNotice(u"Velmora build: %@", QStringLiteral(HX_VERSION_STRING));
    logNotice(u"Installed at: %@",
              application ? QCoreApplication::applicationDirPath() : QStringLiteral("(unknown)"));
    logNotice(u"Process ID: %u", uint(::getpid()));
    logNotice(u"CPUs: %lu", QThread::idealThreadCount());
    logNotice(u"System: %@\n\n", QSysInfo::prettyProductName() + QStringLiteral(", kernel ") +
                                     QSysInfo::kernelVersion() + QStringLiteral(", ") +
                                     QSysInfo::currentCpuArchitecture());
    logNotice(u"Arguments: %@\n\n",
              application ? QVariant(QCoreApplication::arguments()) : QVariant(QVariantList()));
    logNotice(u"Environment: %@\n\n",
              QVariant(QProcessEnvironment::systemEnvironment().toStringList()));
}

void HXApplicationLog::logCoordinatingFileAtURL(const QString &path, bool finished,
                                                const char *sourceFile, unsigned long line) {
    if (!HXExtensiveLogging.load(std::memory_order_relaxed))
        return;
    logNotice(u"%@:%lu %@: %@", QFileInfo(QString::fromUtf8(sourceFile)).fileName(), line,
              finished ? QStringLiteral("done") : QStringLiteral("lock"), path);
}

void HXApplicationLog::logCoordinatingFileAtURL(const QString &path, const QString &otherPath,
                                                bool finished, const char *sourceFile,
                                                unsigned long line) {
    if (!HXExtensiveLogging.load(std::memory_order_relaxed))
        return;
    logNotice(u"%@:%lu %@: %@ and %@", QFileInfo(QString::fromUtf8(sourceFile)).fileName(), line,
              finished ? QStringLiteral("done") : QStringLiteral("lock"), path, otherPath);
}

QString HXApplicationLog::loadLastCrashLog() const {
    QFile file(m_lastCrashLogURL);
    if (m_lastCrashLogURL.isEmpty() || !file.open(QIODevice::ReadOnly))
        return HXStringWithFormat(u"Unable to read error log '%@': %@", m_lastCrashLogURL,
                                  file.errorString());
    return QString::fromUtf8(file.readAll());
}

void HXApplicationLog::setExtensiveLogging(bool on) {
    HXExtensiveLogging.store(on);
    if (!on) {
        QMutexLocker locker(&m_extensiveLogHandle.mutex);
        m_extensiveLogHandle.file.reset();
        m_extensiveLogURL.clear();
        return;
    }
    if (m_logContainerURL.isEmpty())
        return;
    const qint64 seconds = QDateTime::currentSecsSinceEpoch() - HXPropertyList::referenceDateOffset;
    m_extensiveLogURL = m_logContainerURL + HXStringWithFormat(u"/Velmora-%lu.log", seconds);
    QString reason;
    std::unique_ptr<QFile> file;
    if (writeEmptyFile(m_extensiveLogURL, &reason)) {
        HXSystemLog(HXStringWithFormat(u"Set up log file at: %@", m_extensiveLogURL));
        file = openForAppending(m_extensiveLogURL, &reason);
    }
    if (!file) {
        HXSystemLog(HXStringWithFormat(u"Failed to set up log %@: %@.\n\nUse system.log instead.",
                                       m_extensiveLogURL, reason));
        return;
    }
    {
        QMutexLocker locker(&m_extensiveLogHandle.mutex);
        m_extensiveLogHandle.file = std::move(file);
    }
    logApplicationInfo();
    revealLogFileInFinder();
}

void HXApplicationLog::revealLogFileInFinder() const {
    if (revealHandler() && !m_extensiveLogURL.isEmpty())
        revealHandler()(m_extensiveLogURL);
}

void HXApplicationLog::setRevealHandler(std::function<void(const QString &)> handler) {
    revealHandler() = std::move(handler);
}

void HXApplicationLog::applicationWillTerminate() {
    // The files stay open: what others record while the process ends (the preference store's
    // last write among them) must still reach them. Every record is on disk already.
    if (HXExtensiveLogging.load())
        revealLogFileInFinder();
}

void HXApplicationLog::close() {
    for (Handle *handle : {&m_crashErrorLogHandle, &m_extensiveLogHandle}) {
        QMutexLocker locker(&handle->mutex);
        handle->file.reset();
    }
}
