#pragma once

#include "Utilities/HXNotificationCenter.h"
#include "Utilities/HXStringFormat.h"

#include <QFile>
#include <QMutex>
#include <QString>

#include <atomic>
#include <functional>
#include <memory>

// Whether notices are recorded, in the extensive log. Process-wide; read without a lock.
extern std::atomic<bool> HXExtensiveLogging;

// The one place that warnings and errors go. Keeps the error log of this run, "errors.log", with
// the previous run's beside it as "errors.old.log", and on demand an extensive log,
// "Velmora-<seconds since the reference date>.log", all UTF-8 in the log folder.
//
// A record is "<hundredths of a second since the reference date> (<thread address>): <message>\n",
// written and forced to disk at once, so that an error survives a crash that follows it. Any
// thread may log; a mutex per file keeps records whole. Where the platform would write to its
// system log, this writes to standard error. The shared instance is made on first use; tests make
// their own over a folder of theirs.
class HXApplicationLog {
public:
    static HXApplicationLog *sharedInstance();

    // Sets up the files in the folder "Logs" of application support.
    HXApplicationLog();
    // Sets up the files in `logFolder`: keeps the previous error log as the old one and starts a
    // new one.
    explicit HXApplicationLog(const QString &logFolder);
    ~HXApplicationLog();
    HXApplicationLog(const HXApplicationLog &) = delete;
    HXApplicationLog &operator=(const HXApplicationLog &) = delete;

    // Records always.
    template<typename... Args>
    void logError(QStringView format, const Args &...args) {
        log(format, {HXFormatArgument(args)...});
    }
    // Records only while extensive logging is on.
    template<typename... Args>
    void logNotice(QStringView format, const Args &...args) {
        if (HXExtensiveLogging.load(std::memory_order_relaxed))
            log(format, {HXFormatArgument(args)...});
    }
    // The common path: formats the message and writes the record to each open file.
    void log(QStringView format, const QList<HXFormatArgument> &arguments);

    // Records the facts of this process and system, as notices.
    void logApplicationInfo();
    // Records one step of file coordination, as a notice: before ("lock") and after ("done").
    void logCoordinatingFileAtURL(const QString &path, bool finished, const char *sourceFile,
                                  unsigned long line);
    void logCoordinatingFileAtURL(const QString &path, const QString &otherPath, bool finished,
                                  const char *sourceFile, unsigned long line);

    // The text of the previous run's error log, or a text saying why it can't be read.
    QString loadLastCrashLog() const;

    void setExtensiveLogging(bool on);
    static bool isExtensiveLogging() { return HXExtensiveLogging.load(); }
    // Shows the extensive log in the file browser, through the handler the application sets.
    void revealLogFileInFinder() const;
    static void setRevealHandler(std::function<void(const QString &path)> handler);

    // Closes both files; later records go nowhere. Only an instance that goes away does this:
    // the shared log stays usable until the process ends.
    void close();

    const QString &logContainerURL() const { return m_logContainerURL; }
    const QString &crashErrorLogURL() const { return m_crashErrorLogURL; }
    const QString &lastCrashLogURL() const { return m_lastCrashLogURL; }
    const QString &extensiveLogURL() const { return m_extensiveLogURL; }

    // The format of a record, for a message and a time.
    static QByteArray record(const QString &message);

private:
    struct Handle {
        QMutex mutex;
        std::unique_ptr<QFile> file;
    };

    void setUpLogging(const QString &logFolder);
    static void write(Handle &handle, const QByteArray &bytes);
    void applicationWillTerminate();

    QString m_logContainerURL;
    QString m_crashErrorLogURL;
    QString m_lastCrashLogURL;
    QString m_extensiveLogURL;
    Handle m_crashErrorLogHandle;
    Handle m_extensiveLogHandle;
    HXNotificationObservation m_terminationObservation;
};

// Writes a message to standard error, where the platform would use its system log.
void HXSystemLog(const QString &message);
