// Storage operations on real files. Targets: 1,000 sheets moved from one group to another of the
// same library by one operation ≤ 1 s (the info files written included); 200 sheets of a few
// paragraphs copied into another library ≥ 100 sheets a second.

#include "Model/Operations/HXMoveOperation.h"
#include "Model/Operations/HXRemoveOperation.h"
#include "Model/Operations/HXStorageOperationQueue.h"
#include "Model/Persistence/HXLibrary.h"
#include "Model/Persistence/HXNativeGroup.h"
#include "Model/Sheets/HXNativeSheet.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Model/Stores/HXMarkupStore.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Utilities/HXFileMonitor.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

namespace {

QTemporaryDir &folder() {
    static QTemporaryDir dir(QDir::tempPath() + QStringLiteral("/velmora-bench-XXXXXX"));
    return dir;
}

std::shared_ptr<HXLibrary> newLibrary(const QString &name) {
    const QString path = folder().filePath(name);
    return HXLibrary::libraryAtURL(path, path);
}

HXContainerRef makeGroup(const std::shared_ptr<HXLibrary> &library, const QString &name) {
    HXError error;
    return library->createContainerOfKind(HXContainerKind::Group, library->mainGroup(), name,
                                          HXNotFound, &error);
}

void makeSheets(const std::shared_ptr<HXLibrary> &library, const HXContainerRef &group, int count,
                const QString &text) {
    for (int i = 0; i < count; ++i) {
        const auto sheet = library->newSheetMatchingMarkup({});
        sheet->text()->replaceCharactersInRange(HXRange{0, 0}, HXReplacement(text.arg(i + 1)));
        HXError error;
        library->createSheet(sheet, HXNotFound, group, {}, &error);
    }
    library->writePendingInfoFiles();
}

bool run(const std::shared_ptr<HXContainerOperation> &operation) {
    if (!HXStorageOperationQueue::sharedInstance()->addOperation(operation))
        return false;
    operation->waitUntilFinished();
    // What the operation left for the main queue: pending marks, insertions.
    QCoreApplication::sendPostedEvents();
    return operation->failures().isEmpty();
}

} // namespace

// One operation moves every sheet of one group into the other; the next one moves them back.
static void BM_Move1000SheetsWithinLibrary(benchmark::State &state) {
    const auto library = newLibrary(QStringLiteral("Move"));
    HXContainerRef from = makeGroup(library, QStringLiteral("A"));
    HXContainerRef to = makeGroup(library, QStringLiteral("B"));
    makeSheets(library, from, 1000, QStringLiteral("sheet %1"));
    for (auto _ : state) {
        state.PauseTiming();
        const auto operation =
            HXMoveOperation::moveOperationForSheetHandles(from->sheetHandles(), to, HXNotFound);
        state.ResumeTiming();
        if (!run(operation))
            state.SkipWithError("not moved");
        library->writePendingInfoFiles();
        state.PauseTiming();
        if (to->sheetHandles().size() != 1000 || !from->sheetHandles().isEmpty())
            state.SkipWithError("not every sheet moved");
        std::swap(from, to);
        state.ResumeTiming();
    }
}
BENCHMARK(BM_Move1000SheetsWithinLibrary)
    ->Iterations(6)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// 200 sheets of a few paragraphs each copied into another library; the copies are removed between
// runs, untimed.
static void BM_CopyBetweenLibraries(benchmark::State &state) {
    const auto source = newLibrary(QStringLiteral("CopySource"));
    const auto target = newLibrary(QStringLiteral("CopyTarget"));
    const auto from = makeGroup(source, QStringLiteral("A"));
    const auto to = makeGroup(target, QStringLiteral("T"));
    const QString paragraph = QStringLiteral(
        "The writer types long sentences into her sheet and keeps going until dawn comes, "
        "*then* reads them back aloud, crossing out every **other** word.\n\n");
    makeSheets(source, from, 200, QStringLiteral("# Scene %1\n\n") + paragraph.repeated(5));
    for (auto _ : state) {
        if (!run(HXMoveOperation::copyOperationForSheetHandles(from->sheetHandles(), to,
                                                               HXNotFound)))
            state.SkipWithError("not copied");
        target->writePendingInfoFiles();
        state.PauseTiming();
        if (to->sheetHandles().size() != 200)
            state.SkipWithError("not every sheet copied");
        run(HXRemoveOperation::removeOperationForSheetHandles(to->sheetHandles()));
        target->writePendingInfoFiles();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * 200);
}
BENCHMARK(BM_CopyBetweenLibraries)->MinTime(2)->UseRealTime()->Unit(benchmark::kMillisecond);

int main(int argc, char **argv) {
    // Versions and lock files stay in the temporary folder.
    const QByteArray home = QFile::encodeName(folder().path());
    qputenv("HOME", home);
    qputenv("XDG_DATA_HOME", home + "/data");
    qputenv("XDG_CONFIG_HOME", home + "/config");
    qputenv("XDG_RUNTIME_DIR", home);
    QStandardPaths::setTestModeEnabled(true);
    QCoreApplication application(argc, argv);
    HXMarkupStore::globalStore();
    HXFileMonitor::shared();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
