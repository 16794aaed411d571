#pragma once

#include <QLocalServer>
#include <QLockFile>
#include <QObject>
#include <QStringList>

#include <memory>

// One running application per user: the first start takes a lock file and listens on a local
// socket beside it; a later start finds the lock taken and hands its files to the first over
// the socket, then ends. A lock left by a process that died is taken over.
//
// The files travel as one line of JSON, an array of absolute paths, answered by "ok".
class HXSingleInstance : public QObject {
    Q_OBJECT

public:
    // The lock and the socket live in `folder`; by default "velmora" in the runtime folder.
    explicit HXSingleInstance(QString folder = QString(), QObject *parent = nullptr);
    ~HXSingleInstance() override;

    static QString defaultFolder();

    // True when this process is now the one instance; it then listens.
    bool claim();
    bool isPrimary() const { return m_server != nullptr; }
    // Hands the files to the first instance; false when none took them in time.
    bool handOver(const QStringList &paths, int timeoutMilliseconds = 5000);

signals:
    // Files that a later start handed over, on the main thread.
    void filesReceived(const QStringList &paths);

private:
    void acceptConnection();

    QString m_folder;
    std::unique_ptr<QLockFile> m_lock;
    std::unique_ptr<QLocalServer> m_server;
};
