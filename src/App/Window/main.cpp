// velmora [FILE…]
// velmora --screenshot FILE [--library LIB] [--sheet PATH] [--size WxH] [--dark]

#include "App/Window/HXVelmoraApplication.h"
#include "Model/Persistence/HXLibrary.h"
#include "Utilities/HXLocations.h"

#include <QApplication>
#include <QDir>
#include <QFileInfo>
#include <QPalette>
#include <QRegularExpression>
#include <QStyleFactory>

#include <cstdio>
#include <cstring>
#include <optional>

namespace {

struct Options {
    std::optional<HXVelmoraApplication::Screenshot> screenshot;
    QString library;
    bool dark = false;
    QStringList files;
};

int usage(const char *problem) {
    std::fprintf(stderr,
                 "velmora: %s\nusage: velmora [FILE…]\n"
                 "       velmora --screenshot FILE [--library LIB] [--sheet PATH] [--size WxH] "
                 "[--dark]\n",
                 problem);
    return 2;
}

// Reads the options before the application exists, since a screenshot decides the platform.
std::optional<Options> parseOptions(int argc, char *argv[], int *status) {
    Options options;
    HXVelmoraApplication::Screenshot screenshot;
    bool wantsScreenshot = false;
    bool screenshotOnly = false;
    for (int i = 1; i < argc; ++i) {
        const QString argument = QString::fromLocal8Bit(argv[i]);
        const auto value = [&](QString *target) {
            if (i + 1 >= argc)
                return false;
            *target = QString::fromLocal8Bit(argv[++i]);
            return true;
        };
        QString size;
        if (argument == QLatin1String("--screenshot")) {
            if (!value(&screenshot.file)) {
                *status = usage("--screenshot needs a file");
                return std::nullopt;
            }
            wantsScreenshot = true;
        } else if (argument == QLatin1String("--library")) {
            if (!value(&options.library)) {
                *status = usage("--library needs a folder");
                return std::nullopt;
            }
        } else if (argument == QLatin1String("--sheet")) {
            if (!value(&screenshot.sheet)) {
                *status = usage("--sheet needs a path");
                return std::nullopt;
            }
            screenshotOnly = true;
        } else if (argument == QLatin1String("--size")) {
            const QRegularExpressionMatch match =
                QRegularExpression(QStringLiteral("^(\\d{2,5})x(\\d{2,5})$"))
                    .match(value(&size) ? size : QString());
            if (!match.hasMatch()) {
                *status = usage("--size needs WIDTHxHEIGHT, such as 1280x800");
                return std::nullopt;
            }
            screenshot.size = QSize(match.captured(1).toInt(), match.captured(2).toInt());
            screenshotOnly = true;
        } else if (argument == QLatin1String("--dark")) {
            options.dark = true;
        } else if (argument.startsWith(QLatin1String("--"))) {
            *status = usage(qPrintable(QStringLiteral("unknown option %1").arg(argument)));
            return std::nullopt;
        } else {
            options.files.append(argument);
        }
    }
    if (screenshotOnly && !wantsScreenshot) {
        *status = usage("--sheet and --size go with --screenshot");
        return std::nullopt;
    }
    if (wantsScreenshot)
        options.screenshot = screenshot;
    return options;
}

QPalette darkPalette() {
    QPalette palette;
    const QColor window(0x2b, 0x2b, 0x2e), base(0x1f, 0x1f, 0x22), text(0xe4, 0xe4, 0xe6);
    palette.setColor(QPalette::Window, window);
    palette.setColor(QPalette::WindowText, text);
    palette.setColor(QPalette::Base, base);
    palette.setColor(QPalette::AlternateBase, window);
    palette.setColor(QPalette::Text, text);
    palette.setColor(QPalette::Button, window);
    palette.setColor(QPalette::ButtonText, text);
    palette.setColor(QPalette::Highlight, QColor(0x3d, 0x6f, 0xb6));
    palette.setColor(QPalette::HighlightedText, Qt::white);
    palette.setColor(QPalette::PlaceholderText, QColor(0x9a, 0x9a, 0xa0));
    palette.setColor(QPalette::ToolTipBase, base);
    palette.setColor(QPalette::ToolTipText, text);
    palette.setColor(QPalette::Disabled, QPalette::Text, QColor(0x80, 0x80, 0x84));
    palette.setColor(QPalette::Disabled, QPalette::WindowText, QColor(0x80, 0x80, 0x84));
    return palette;
}

} // namespace

int main(int argc, char *argv[]) {
    int status = 0;
    const std::optional<Options> options = parseOptions(argc, argv, &status);
    if (!options)
        return status;
    // A screenshot needs no screen.
    if (options->screenshot)
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication application(argc, argv);
    QApplication::setApplicationName(HXLocations::applicationName);
    QApplication::setApplicationDisplayName(HXLocations::applicationName);
    QApplication::setDesktopFileName(QStringLiteral("velmora"));
    if (options->screenshot || options->dark)
        QApplication::setStyle(QStyleFactory::create(QStringLiteral("Fusion")));
    if (options->dark)
        QApplication::setPalette(darkPalette());
    if (!options->library.isEmpty())
        HXLibrary::setLocalLibraryPath(QFileInfo(options->library).absoluteFilePath());

    QString instanceFolder;
    if (options->screenshot)
        // A screenshot runs beside a working session instead of handing over to it.
        instanceFolder =
            QDir::tempPath() +
            QStringLiteral("/velmora-screenshot-%1").arg(QApplication::applicationPid());
    int result = 0;
    {
        HXVelmoraApplication delegate;
        if (options->screenshot)
            delegate.setScreenshot(*options->screenshot);
        delegate.installTerminationSignalHandlers();
        switch (delegate.startWithFiles(options->files, instanceFolder)) {
        case HXApplicationDelegate::StartResult::HandedOver:
            return 0;
        case HXApplicationDelegate::StartResult::HandOverFailed:
            std::fprintf(stderr, "velmora: another Velmora is running and did not answer\n");
            return 1;
        case HXApplicationDelegate::StartResult::Launched:
            break;
        }
        result = QApplication::exec();
        if (options->screenshot)
            result = delegate.screenshotStatus();
    }
    if (!instanceFolder.isEmpty())
        QDir(instanceFolder).removeRecursively();
    return result;
}
