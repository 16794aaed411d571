#include "Cli/HXCommandLineTool.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXLocations.h"
#include "Utilities/HXNotificationCenter.h"

#include <QCoreApplication>

int main(int argc, char *argv[]) {
    QCoreApplication application(argc, argv);
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
