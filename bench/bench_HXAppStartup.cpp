// Start-up to first paint with a library of 10,000 sheets. Target: ≤ 1.5 s from the process's
// start (the application object, the library read, the window of the last run with its group of
// 1,000 sheets and its open sheet) to the editor's first paint. The figure is the "median_ms"
// counter of BM_StartupToFirstPaint, over fresh processes.
//
// The benchmark runs this program three ways: "--prepare HOME" makes the library (ten groups of
// 1,000 copies of a sheet of the introduction), starts once, opens a sheet in the first group and
// quits, so that the next starts restore that window; "--measure HOME" is one timed start, which
// prints its milliseconds; without arguments it prepares once and measures several starts.

#include "App/Editor/HXTextView.h"
#include "App/Library/HXSheetListModel.h"
#include "App/Window/HXMainWindow.h"
#include "App/Window/HXMainWindowController.h"
#include "App/Window/HXVelmoraApplication.h"
#include "AppCore/HXApplicationState.h"
#include "Model/Persistence/HXLibrary.h"
#include "Model/Persistence/HXNativeGroup.h"
#include "Model/Persistence/HXStorageController.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Utilities/HXLocations.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QUuid>

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdio>

namespace {

constexpr int groupCount = 10;
constexpr int sheetsPerGroup = 1000;

QString self;

void useHome(const QString &home) {
    const QByteArray path = home.toUtf8();
    qputenv("HOME", path);
    qputenv("XDG_CONFIG_HOME", path + "/.config");
    qputenv("XDG_DATA_HOME", path + "/.local/share");
    qputenv("XDG_CACHE_HOME", path + "/.cache");
    qputenv("XDG_RUNTIME_DIR", path + "/.runtime");
    qputenv("XDG_DOCUMENTS_DIR", path + "/Documents");
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QDir().mkpath(home + QStringLiteral("/.runtime"));
}

HXMainWindow *mainWindow() {
    const auto controller = std::dynamic_pointer_cast<HXMainWindowController>(
        HXApplicationState::sharedInstance().mainWindow());
    return controller ? controller->window() : nullptr;
}

void waitUntil(const std::function<bool()> &condition) {
    while (!condition())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
}

bool copyPackage(const QString &from, const QString &to) {
    QDir().mkpath(to);
    for (const QString &name : QDir(from).entryList(QDir::Files))
        if (!QFile::copy(from + u'/' + name, to + u'/' + name))
            return false;
    return true;
}

// The library on disk, then one start that leaves a sheet of the first group open.
int prepare(const QString &home) {
    const QString groups = home + QStringLiteral("/Documents/Velmora/Library/Groups-hxgroup");
    const QString source =
        QStringLiteral(VELMORA_SOURCE_DIR "/resources/Introduction/Groups-hxgroup/"
                                          "fba5da77c96346e7903780b2e1ca0584-hxgroup/"
                                          "4fbcd0c8d0b242c1aca2abd3cf3e3f4e.velmora");
    for (int group = 0; group < groupCount; ++group) {
        const QString folder =
            groups + QStringLiteral("/%1-hxgroup").arg(QUuid::createUuid().toString(QUuid::Id128));
        for (int sheet = 0; sheet < sheetsPerGroup; ++sheet)
            if (!copyPackage(source, folder + u'/' + QUuid::createUuid().toString(QUuid::Id128) +
                                         QStringLiteral(".velmora")))
                return 1;
    }
    HXVelmoraApplication delegate;
    if (delegate.startWithFiles({}) != HXApplicationDelegate::StartResult::Launched)
        return 1;
    waitUntil([] {
        return HXApplicationDelegate::sharedInstance()->finishedLaunching() && mainWindow() &&
               HXApplicationState::sharedInstance().mainWindow()->containerOperationsCount() == 0 &&
               static_cast<HXMainWindowController *>(
                   HXApplicationState::sharedInstance().mainWindow().get())
                   ->hasSettledBundledContent();
    });
    const auto library = HXStorageController::sharedInstance()->localLibrary();
    std::shared_ptr<HXContainer> largest;
    for (const auto &container : library->mainGroup()->containers())
        if (!largest || container->sheetHandles().size() > largest->sheetHandles().size())
            largest = container;
    if (!largest || largest->sheetHandles().size() != sheetsPerGroup)
        return 1;
    mainWindow()->revealSheet(largest->sheetHandles().at(sheetsPerGroup / 2));
    delegate.saveWindowStates();
    return 0;
}

// One start, timed from the process's start to the editor's first paint.
int measure(const QElapsedTimer &sinceStart, int argc, char *argv[]) {
    QApplication application(argc, argv);
    QApplication::setApplicationName(HXLocations::applicationName);
    HXVelmoraApplication delegate;
    if (delegate.startWithFiles({}) != HXApplicationDelegate::StartResult::Launched)
        return 1;
    waitUntil([] {
        HXMainWindow *window = mainWindow();
        return window && window->openSheetHandle() && window->textView()->paintCount() > 0;
    });
    const qint64 elapsed = sinceStart.elapsed();
    // The window of the last run came back with its group.
    if (mainWindow()->sheetListModel()->rowCount() != sheetsPerGroup)
        std::_Exit(1);
    std::printf("%lld\n", static_cast<long long>(elapsed));
    std::fflush(stdout);
    // Leaves at once: the state of the prepared start stays for the next measurement.
    std::_Exit(0);
}

void BM_StartupToFirstPaint(benchmark::State &state) {
    QTemporaryDir home;
    if (QProcess::execute(self, {QStringLiteral("--prepare"), home.path()}) != 0) {
        state.SkipWithError("the library could not be prepared");
        return;
    }
    std::vector<double> times;
    for (auto _ : state) {
        QProcess process;
        process.start(self, {QStringLiteral("--measure"), home.path()});
        process.waitForFinished(60000);
        bool ok = false;
        const double ms = process.readAllStandardOutput().trimmed().toDouble(&ok);
        if (!ok) {
            state.SkipWithError("a start failed");
            return;
        }
        times.push_back(ms);
        state.SetIterationTime(ms / 1000);
    }
    std::sort(times.begin(), times.end());
    state.counters["median_ms"] = times[times.size() / 2];
    state.counters["sheets"] = groupCount * sheetsPerGroup;
}
BENCHMARK(BM_StartupToFirstPaint)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char *argv[]) {
    QElapsedTimer sinceStart;
    sinceStart.start();
    if (argc == 3 && QByteArray(argv[1]) == "--measure") {
        useHome(QString::fromLocal8Bit(argv[2]));
        return measure(sinceStart, argc, argv);
    }
    if (argc == 3 && QByteArray(argv[1]) == "--prepare") {
        useHome(QString::fromLocal8Bit(argv[2]));
        QApplication application(argc, argv);
        QApplication::setApplicationName(HXLocations::applicationName);
        return prepare(QString::fromLocal8Bit(argv[2]));
    }
    QCoreApplication application(argc, argv);
    self = QCoreApplication::applicationFilePath();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
