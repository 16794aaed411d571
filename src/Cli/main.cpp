#include "Cli/HXCommandLineTool.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXLocations.h"
#include "Utilities/HXNotificationCenter.h"

#include <QCoreApplication>
#include <QGuiApplication>

#include <cstring>
#include <memory>

namespace {

QtMessageHandler quietenedHandler = nullptr;

// Drops the notes a platform prints while it starts (a missing runtime folder, say): a command
// writes nothing on standard error but its one line of failure. Errors still pass.
void dropStartUpNotes(QtMsgType type, const QMessageLogContext &context, const QString &message) {
    if ((type == QtCriticalMsg || type == QtFatalMsg) && quietenedHandler)
        quietenedHandler(type, context, message);
}

} // namespace

int main(int argc, char *argv[]) {
    // Laying out text needs fonts, and so a GUI application, though it opens no window: it runs
    // on the offscreen platform, whatever the session offers, so that its figures don't depend
    // on a display.
    std::unique_ptr<QCoreApplication> application;
    if (argc > 1 && std::strcmp(argv[1], "layout") == 0) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
        quietenedHandler = qInstallMessageHandler(dropStartUpNotes);
        application = std::make_unique<QGuiApplication>(argc, argv);
        qInstallMessageHandler(quietenedHandler);
    } else {
        application = std::make_unique<QCoreApplication>(argc, argv);
    }
    QCoreApplication::setApplicationName(HXLocations::applicationName);
    int status = 1;
    try {
        HXCommandLineTool tool;
        status = tool.run(QCoreApplication::arguments());
    } catch (const HXAssertionFailure &failure) {
        status = HXCommandLineTool::fail(QStringLiteral("internal error: ") + failure.text());
    }
    HXNotificationCenter::defaultCenter()->post(HXApplicationWillTerminateNotification);
    return status;
}
