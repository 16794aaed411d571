// A later start of the application, for the single-instance test: hands its arguments to the
// running instance. Exits 0 when they were taken, 3 when nobody took them, 4 when it found no
// instance running.
//
//   helper_HXSingleInstance FOLDER FILE…
//   helper_HXSingleInstance FOLDER --hold    becomes the instance, says "held", and stays

#include "AppCore/HXSingleInstance.h"

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char *argv[]) {
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments().mid(1);
    if (arguments.isEmpty())
        return 2;
    HXSingleInstance instance(arguments.first());
    if (arguments.value(1) == QStringLiteral("--hold")) {
        if (!instance.claim())
            return 3;
        std::puts("held");
        std::fflush(stdout);
        return application.exec();
    }
    if (instance.claim())
        return 4;
    return instance.handOver(arguments.mid(1)) ? 0 : 3;
}
