// Opening a library: 10,000 sheets in 500 groups, the tree only (no sheet is opened), with a warm
// cache, against a bare walk of the same tree that lists every group's folder and reads every
// info file, in the same run. Target: opening ≤ 3× the walk. Beside it, the memory a sheet handle
// costs once the tree is open (heap in use after opening, less before, per sheet, containers
// included). Target: ≤ 2 KB per handle. For information, the same once the file monitor watches
// every package too, which it does in batches after the opening.

#include "Model/Persistence/HXLibrary.h"
#include "Model/StorageTree/HXGroup.h"
#include "Utilities/HXFileMonitor.h"
#include "Utilities/HXFileSystem.h"
#include "Utilities/HXPropertyList.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QUuid>

#include <benchmark/benchmark.h>

#include <dirent.h>
#include <malloc.h>

namespace {

constexpr int groupCount = 500;
constexpr int sheetsPerGroup = 20;

QTemporaryDir &folder() {
    static QTemporaryDir dir(QDir::tempPath() + QStringLiteral("/velmora-bench-XXXXXX"));
    return dir;
}

QString identifier() {
    return QUuid::createUuid().toString(QUuid::Id128).toLower();
}

// The library, made once: groups with their info files, each sheet a package with a text. With
// VELMORA_BENCH_LIBRARY set, made there and kept for later runs (for profiling).
QString library() {
    static const QString base = [] {
        QString path = qEnvironmentVariable("VELMORA_BENCH_LIBRARY");
        if (!path.isEmpty() && QFile::exists(path + QStringLiteral("/Groups-hxgroup/Info.hxgroup")))
            return path;
        if (path.isEmpty())
            path = folder().filePath(QStringLiteral("Library"));
        HXLibrary::libraryAtURL(path, QStringLiteral("bench"))->invalidate();
        const QString main = path + QStringLiteral("/Groups-hxgroup");
        QStringList groups;
        for (int g = 0; g < groupCount; ++g) {
            const QString group = identifier() + QStringLiteral("-hxgroup");
            groups << group;
            QDir().mkpath(main + u'/' + group);
            QVariantList clusters;
            for (int s = 0; s < sheetsPerGroup; ++s) {
                const QString sheet = identifier() + QStringLiteral(".velmora");
                const QString package = main + u'/' + group + u'/' + sheet;
                QDir().mkpath(package);
                HXFileSystem::writeFileAtomically("<sheet/>", package + QStringLiteral("/Content.xml"),
                                                  nullptr);
                // Pairs of sheets kept together, as a writer's scenes often are.
                if (s % 2 == 0)
                    clusters << QStringList{sheet};
                else
                    clusters.last() = clusters.last().toStringList() << sheet;
            }
            HXPropertyList::writeFile(
                QVariantMap{{QStringLiteral("displayName"), QStringLiteral("Part %1").arg(g)},
                            {QStringLiteral("sheetClusters"), clusters}},
                main + u'/' + group + QStringLiteral("/Info.hxgroup"), nullptr);
        }
        HXPropertyList::writeFile(
            QVariantMap{{QStringLiteral("displayName"), QStringLiteral("Library")},
                        {QStringLiteral("childOrder"), groups}},
            main + QStringLiteral("/Info.hxgroup"), nullptr);
        return path;
    }();
    return base;
}

bool isInfoFile(const char *name) {
    return strncmp(name, "Info.hx", 7) == 0;
}

// Lists the folder, reads its info file (and with `parse`, its values) and walks into the
// containers (not into packages).
size_t walk(const QByteArray &path, bool parse) {
    DIR *dir = ::opendir(path.constData());
    if (!dir)
        return 0;
    size_t bytes = 0;
    QList<QByteArray> children;
    while (const dirent *entry = ::readdir(dir)) {
        const char *name = entry->d_name;
        if (name[0] == '.')
            continue;
        if (isInfoFile(name)) {
            QFile file(QFile::decodeName(path + '/' + name));
            if (file.open(QIODevice::ReadOnly)) {
                const QByteArray data = file.readAll();
                bytes += size_t(data.size());
                if (parse)
                    bytes += size_t(HXPropertyList::fromData(data, file.fileName(), nullptr)
                                        .toMap()
                                        .size());
            }
        } else if (strstr(name, "-hxgroup") || strstr(name, "-hxtrash") ||
                   strstr(name, "-hxfilter")) {
            children << path + '/' + name;
        }
    }
    ::closedir(dir);
    for (const QByteArray &child : children)
        bytes += walk(child, parse);
    return bytes;
}

size_t heapInUse() {
    return mallinfo2().uordblks;
}

} // namespace

// Arg 0: the info files' bytes only; 1: also their values, as the tree needs them.
static void BM_BareWalk(benchmark::State &state) {
    const QByteArray base = QFile::encodeName(library());
    for (auto _ : state)
        benchmark::DoNotOptimize(walk(base, state.range(0) != 0));
}
BENCHMARK(BM_BareWalk)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

static void BM_OpenLibrary(benchmark::State &state) {
    const QString base = library();
    size_t perHandle = 0;
    size_t perSheetWithWatches = 0;
    int watches = 0;
    for (auto _ : state) {
        const size_t before = heapInUse();
        auto opened = HXLibrary::libraryAtURL(base, QStringLiteral("bench"));
        state.PauseTiming();
        const size_t after = heapInUse();
        const qsizetype sheets = opened->rootGroup()->allSheetHandles().size();
        if (sheets != groupCount * sheetsPerGroup)
            state.SkipWithError("not every sheet was read");
        perHandle = (after - before) / size_t(sheets);
        // The watches of the packages come after, a batch per turn of the event loop.
        for (int turn = 0; turn < 100; ++turn)
            QCoreApplication::processEvents();
        watches = HXFileMonitor::shared()->watchCount();
        perSheetWithWatches = (heapInUse() - before) / size_t(sheets);
        opened->invalidate();
        opened.reset();
        QCoreApplication::processEvents();
        state.ResumeTiming();
    }
    state.counters["bytes_per_handle"] = double(perHandle);
    state.counters["bytes_per_sheet_watched"] = double(perSheetWithWatches);
    state.counters["watches"] = double(watches);
}
BENCHMARK(BM_OpenLibrary)->Unit(benchmark::kMillisecond);

int main(int argc, char **argv) {
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(folder().path()));
    QCoreApplication application(argc, argv);
    HXFileMonitor::shared();
    QCoreApplication::processEvents();
    library();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
