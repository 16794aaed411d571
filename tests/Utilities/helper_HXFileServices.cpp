// A second process for the file service tests: it writes through the same file services as the
// test, as another Velmora process or a sync client would, and can be killed at any moment.
//
//   packages DIR            writes DIR/p.pkg and DIR/f.txt over and over with a rising number
//   append ROOT LOG COUNT   COUNT coordinated writes in ROOT, each logging its begin and end
//   fill PATH LETTER COUNT  COUNT coordinated atomic writes of 200 KB of LETTER to PATH
//   package PATH TEXT       writes a package holding "a.txt" with TEXT, once
//   file PATH TEXT          writes TEXT to PATH atomically, once

#include "Utilities/HXFileCoordinator.h"
#include "Utilities/HXFileSystem.h"
#include "Utilities/HXFileWrapper.h"

#include <QCoreApplication>
#include <QFile>
#include <QThread>

#include <cstdio>
#include <unistd.h>

namespace {

// The package of round n: files whose sizes and contents all follow from n.
HXFileWrapperRef packageOfRound(int n) {
    QMap<QString, HXFileWrapperRef> files;
    for (int k = 0; k < 4; ++k) {
        const QByteArray line = QByteArray::number(n) + '\n';
        files.insert(QStringLiteral("part%1.txt").arg(k),
                     HXFileWrapper::regularFileWithContents(line.repeated(4000 * (k + 1)), {}));
    }
    QMap<QString, HXFileWrapperRef> media{
        {QStringLiteral("n.txt"),
         HXFileWrapper::regularFileWithContents(QByteArray::number(n), {})}};
    files.insert(QStringLiteral("Media"), HXFileWrapper::directoryWithFileWrappers(media));
    return HXFileWrapper::directoryWithFileWrappers(files);
}

} // namespace

int main(int argc, char *argv[]) {
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments().mid(1);
    const QString command = arguments.value(0);
    if (command == u"packages" && arguments.size() == 2) {
        const QString folder = arguments.at(1);
        for (int n = 1;; ++n) {
            HXError error;
            if (!packageOfRound(n)->writeToPath(folder + QStringLiteral("/p.pkg"), &error) ||
                !HXFileSystem::writeFileAtomically(QByteArray::number(n).repeated(10000),
                                                   folder + QStringLiteral("/f.txt"), &error)) {
                fprintf(stderr, "%s\n", qPrintable(error.localizedFailureReason()));
                return 1;
            }
            printf("%d\n", n);
            fflush(stdout);
        }
    }
    if (command == u"append" && arguments.size() == 4) {
        HXFileCoordinator::addCoordinationRoot(arguments.at(1));
        const QByteArray pid = QByteArray::number(getpid());
        for (int i = 0; i < arguments.at(3).toInt(); ++i) {
            HXFileCoordinator coordinator;
            coordinator.coordinateWritingItemAtURL(arguments.at(1) + QStringLiteral("/item"), 0,
                                                   nullptr, [&](const QString &) {
                                                       QFile log(arguments.at(2));
                                                       log.open(QIODevice::Append);
                                                       log.write(pid + " begin\n");
                                                       log.flush();
                                                       QThread::msleep(2);
                                                       log.write(pid + " end\n");
                                                   });
        }
        return 0;
    }
    if (command == u"fill" && arguments.size() == 4) {
        const QByteArray bytes(200 * 1024, arguments.at(2).at(0).toLatin1());
        for (int i = 0; i < arguments.at(3).toInt(); ++i) {
            HXFileCoordinator coordinator;
            coordinator.coordinateWritingItemAtURL(
                arguments.at(1), 0, nullptr, [&](const QString &path) {
                    HXFileSystem::writeFileAtomically(bytes, path, nullptr);
                });
        }
        return 0;
    }
    if (command == u"package" && arguments.size() == 3) {
        const auto package = HXFileWrapper::directoryWithFileWrappers(
            {{QStringLiteral("a.txt"),
              HXFileWrapper::regularFileWithContents(arguments.at(2).toUtf8(), {})}});
        return package->writeToPath(arguments.at(1), nullptr) ? 0 : 1;
    }
    if (command == u"file" && arguments.size() == 3)
        return HXFileSystem::writeFileAtomically(arguments.at(2).toUtf8(), arguments.at(1), nullptr)
                   ? 0
                   : 1;
    fprintf(stderr, "helper: bad arguments\n");
    return 2;
}
