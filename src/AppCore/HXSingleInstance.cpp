#include "AppCore/HXSingleInstance.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLocalSocket>
#include <QStandardPaths>
#include <QThread>

namespace {

QString lockPath(const QString &folder) {
    return folder + QStringLiteral("/instance.lock");
}

QString socketPath(const QString &folder) {
    return folder + QStringLiteral("/instance.socket");
}

} // namespace

HXSingleInstance::HXSingleInstance(QString folder, QObject *parent)
    : QObject(parent)
    , m_folder(folder.isEmpty() ? defaultFolder() : std::move(folder)) {}

HXSingleInstance::~HXSingleInstance() {
    if (m_server)
        m_server->close();
}

QString HXSingleInstance::defaultFolder() {
    QString runtime = QString::fromLocal8Bit(qgetenv("XDG_RUNTIME_DIR"));
    if (runtime.isEmpty())
        runtime = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (runtime.isEmpty())
        runtime = QDir::tempPath();
    return runtime + QStringLiteral("/velmora");
}

bool HXSingleInstance::claim() {
    if (m_server)
        return true;
    QDir().mkpath(m_folder);
    m_lock = std::make_unique<QLockFile>(lockPath(m_folder));
    // A lock is never stale by age: only a dead owner frees it.
    m_lock->setStaleLockTime(0);
    if (!m_lock->tryLock(0)) {
        m_lock.reset();
        return false;
    }
    // A socket left by a process that died would refuse the new one.
    QLocalServer::removeServer(socketPath(m_folder));
    m_server = std::make_unique<QLocalServer>();
    m_server->setSocketOptions(QLocalServer::UserAccessOption);
    if (!m_server->listen(socketPath(m_folder))) {
        qWarning("Velmora can't listen for later starts at %s: %s",
                 qPrintable(socketPath(m_folder)), qPrintable(m_server->errorString()));
        return true;
    }
    connect(m_server.get(), &QLocalServer::newConnection, this, &HXSingleInstance::acceptConnection);
    return true;
}

void HXSingleInstance::acceptConnection() {
    while (QLocalSocket *socket = m_server->nextPendingConnection()) {
        socket->setParent(this);
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
            if (!socket->canReadLine())
                return;
            const QJsonArray array = QJsonDocument::fromJson(socket->readLine()).array();
            QStringList paths;
            for (const auto &value : array)
                paths.append(value.toString());
            socket->write("ok\n");
            socket->flush();
            emit filesReceived(paths);
        });
    }
}

bool HXSingleInstance::handOver(const QStringList &paths, int timeoutMilliseconds) {
    QJsonArray array;
    for (const QString &path : paths)
        array.append(QFileInfo(path).absoluteFilePath());
    const QByteArray line = QJsonDocument(array).toJson(QJsonDocument::Compact) + '\n';
    const QDeadlineTimer deadline(timeoutMilliseconds);
    // The first instance may hold the lock a moment before it listens.
    while (!deadline.hasExpired()) {
        QLocalSocket socket;
        socket.connectToServer(socketPath(m_folder));
        if (!socket.waitForConnected(int(std::max<qint64>(deadline.remainingTime(), 1)))) {
            QThread::msleep(50);
            continue;
        }
        socket.write(line);
        if (!socket.waitForBytesWritten(int(std::max<qint64>(deadline.remainingTime(), 1))))
            return false;
        while (!socket.canReadLine()) {
            if (!socket.waitForReadyRead(int(std::max<qint64>(deadline.remainingTime(), 1))))
                return false;
        }
        return socket.readLine().trimmed() == "ok";
    }
    return false;
}
