// A sheet's costs on disk. Targets: loading and saving a sheet of 1,000,000 words, each ≤ 1.5 s;
// the wait of the editing thread for the text's lock while a background save of that sheet runs
// ≤ 1 ms (counters: the longest wait, and the 99.9th and 99.999th percentiles); an autosave of a 5,000-word sheet ≤ 2.5× a bare write
// + fsync + rename of the same bytes, measured in the same run. BM_LockWaitBaseline is the same
// loop beside a thread that only computes: what scheduling alone costs on this machine.

#include "Model/Sheets/HXNativeSheet.h"
#include "Model/Stores/HXMarkupStore.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Utilities/HXDispatchQueue.h"
#include "Utilities/HXFileMonitor.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QRandomGenerator>
#include <QThreadPool>
#include <QTemporaryDir>

#include <algorithm>

#include <atomic>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

QTemporaryDir &folder() {
    static QTemporaryDir dir(QDir::tempPath() + QStringLiteral("/velmora-bench-XXXXXX"));
    return dir;
}

// Words in paragraphs of 40 to 160, with headings, emphasis and strong text now and then.
QString textOfWords(int words) {
    static const char *const vocabulary[] = {"the",   "writer", "*types*", "long", "sentences",
                                             "into",  "her",    "sheet",   "and",  "**keeps**",
                                             "going", "until",  "dawn",    "comes"};
    QRandomGenerator random(7);
    QString text;
    for (int n = 0; n < words;) {
        const int length = 40 + int(random.bounded(120));
        if (random.bounded(10) == 0)
            text += QStringLiteral("# ");
        for (int i = 0; i < length && n < words; ++i, ++n) {
            text += QLatin1String(vocabulary[random.bounded(14)]);
            text += i + 1 < length && n + 1 < words ? QStringLiteral(" ") : QStringLiteral(".\n\n");
        }
    }
    return text;
}

// A saved sheet of so many words.
QString sheetOfWords(int words) {
    const QString path = folder().filePath(QStringLiteral("words-%1.velmora").arg(words));
    if (!QFileInfo::exists(path)) {
        const auto sheet = HXNativeSheet::sheetWithMarkup();
        sheet->text()->replaceCharactersInRange(HXRange{0, 0}, HXReplacement(textOfWords(words)));
        sheet->saveToURL(path, HXDocument::SaveOperationSave, nullptr);
    }
    return path;
}

std::shared_ptr<HXNativeSheet> open(const QString &path, bool readOnly) {
    const auto sheet = HXNativeSheet::sheetWithURL(path, readOnly);
    HXDocument::waitForCompletion([&](auto done) { sheet->openWithCompletionHandler(done); });
    return sheet;
}

// The longest wait, the waits that only one in a thousand and one in a hundred thousand exceed,
// and how many waits took over a millisecond, as counters.
void reportWaits(benchmark::State &state, std::vector<float> &waits) {
    const auto quantile = [&](double q) {
        if (waits.empty())
            return 0.0;
        const auto at = waits.begin() + qsizetype(double(waits.size() - 1) * q);
        std::nth_element(waits.begin(), at, waits.end());
        return double(*at);
    };
    state.counters["p999_wait_us"] = quantile(0.999);
    state.counters["p99999_wait_us"] = quantile(0.99999);
    state.counters["max_wait_us"] = quantile(1.0);
    state.counters["waits_over_1ms"] =
        double(std::count_if(waits.begin(), waits.end(), [](float wait) { return wait > 1000; }));
    state.counters["waits"] = double(waits.size());
}

// Until the shared pool is idle. (Not `waitForDone`, which ends the pool's threads too, so that
// every save would start new ones.)
void waitForBackgroundWork() {
    while (HXDispatchQueue::threadPool()->activeThreadCount() > 0)
        std::this_thread::sleep_for(std::chrono::microseconds(100));
}

void typeOne(HXNativeSheet &sheet) {
    sheet.text()->replaceCharactersInRange(HXRange{0, 0}, HXReplacement(QStringLiteral("x")));
}

} // namespace

static void BM_LoadMillionWords(benchmark::State &state) {
    const QString path = sheetOfWords(1000000);
    for (auto _ : state) {
        const auto sheet = open(path, true);
        if (sheet->text()->length() == 0)
            state.SkipWithError("not loaded");
    }
}
BENCHMARK(BM_LoadMillionWords)->Iterations(1)->Repetitions(3)->Unit(benchmark::kMillisecond);

static void BM_SaveMillionWords(benchmark::State &state) {
    const auto sheet = open(sheetOfWords(1000000), false);
    for (auto _ : state) {
        typeOne(*sheet);
        if (!sheet->saveToURL(sheet->fileURL(), HXDocument::SaveOperationSave, nullptr))
            state.SkipWithError("not saved");
    }
}
BENCHMARK(BM_SaveMillionWords)->Iterations(1)->Repetitions(3)->Unit(benchmark::kMillisecond);

// The editing thread takes the text's write lock over and over while an autosave runs on the
// interaction queue; the longest single wait is what typing could feel.
static void BM_LockWaitDuringSave(benchmark::State &state) {
    const auto sheet = open(sheetOfWords(1000000), false);
    std::vector<float> waits;
    waits.reserve(8000000);
    for (auto _ : state) {
        typeOne(*sheet);
        std::atomic<bool> done = false;
        sheet->autosaveWithCompletionHandler([&](bool) { done = true; });
        QElapsedTimer timer;
        while (!done) {
            timer.start();
            sheet->text()->write([] {});
            waits.push_back(float(timer.nsecsElapsed()) / 1000.0f);
        }
    }
    reportWaits(state, waits);
}
BENCHMARK(BM_LockWaitDuringSave)->Iterations(3)->Unit(benchmark::kMillisecond);

// The same loop beside a thread that only computes, with no lock between them: what the machine's
// scheduling alone makes the editing thread wait on two cores.
static void BM_LockWaitBaseline(benchmark::State &state) {
    const auto sheet = open(sheetOfWords(5000), false);
    std::vector<float> waits;
    waits.reserve(8000000);
    for (auto _ : state) {
        std::atomic<bool> done = false;
        std::thread busy([&] {
            QElapsedTimer spin;
            spin.start();
            while (spin.elapsed() < 150) {
            }
            done = true;
        });
        QElapsedTimer timer;
        while (!done) {
            timer.start();
            sheet->text()->write([] {});
            waits.push_back(float(timer.nsecsElapsed()) / 1000.0f);
        }
        busy.join();
    }
    reportWaits(state, waits);
}
BENCHMARK(BM_LockWaitBaseline)->Iterations(3)->Unit(benchmark::kMillisecond);

static void BM_Autosave5000Words(benchmark::State &state) {
    const auto sheet = open(sheetOfWords(5000), false);
    for (auto _ : state) {
        // The edit is the writer's, not the save's. Autosaves come at least 30 seconds apart, so
        // the clean-up the last one left to the background (the old package let go, the folder
        // synced) is over before the next begins.
        state.PauseTiming();
        waitForBackgroundWork();
        typeOne(*sheet);
        state.ResumeTiming();
        if (!sheet->saveToURL(sheet->fileURL(), HXDocument::SaveOperationAutosave, nullptr))
            state.SkipWithError("not saved");
    }
}
BENCHMARK(BM_Autosave5000Words)
    ->Repetitions(9)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond);

// The floor: the package's bytes (content and plain text) to a temporary name, fsync, rename.
static void BM_BareWrite5000Words(benchmark::State &state) {
    const QString package = sheetOfWords(5000);
    QFile content(package + QStringLiteral("/Content.xml")),
        text(package + QStringLiteral("/Text.txt"));
    content.open(QIODevice::ReadOnly);
    text.open(QIODevice::ReadOnly);
    const QByteArray bytes = content.readAll() + text.readAll();
    const QByteArray path = QFile::encodeName(folder().filePath(QStringLiteral("bare.bin")));
    const QByteArray temporary = path + ".tmp";
    for (auto _ : state) {
        const int fd = ::open(temporary.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        (void)!::write(fd, bytes.constData(), size_t(bytes.size()));
        ::fsync(fd);
        ::close(fd);
        ::rename(temporary.constData(), path.constData());
    }
    state.counters["bytes"] = double(bytes.size());
}
BENCHMARK(BM_BareWrite5000Words)
    ->Repetitions(9)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond);

namespace {

// Write + fsync + rename of the bytes, in microseconds.
double bareWrite(const QByteArray &bytes, const QByteArray &path) {
    QElapsedTimer timer;
    timer.start();
    const QByteArray temporary = path + ".tmp";
    const int fd = ::open(temporary.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    (void)!::write(fd, bytes.constData(), size_t(bytes.size()));
    ::fsync(fd);
    ::close(fd);
    ::rename(temporary.constData(), path.constData());
    return double(timer.nsecsElapsed()) / 1000;
}

double median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + qsizetype(values.size() / 2), values.end());
    return values[values.size() / 2];
}

} // namespace

// The two above, taken in turns, so that both see the same machine at the same moments: the
// ratio of their medians is the figure the target speaks of.
static void BM_AutosaveAgainstBareWrite(benchmark::State &state) {
    const auto sheet = open(sheetOfWords(5000), false);
    const QByteArray path = QFile::encodeName(folder().filePath(QStringLiteral("bare.bin")));
    std::vector<double> saves;
    std::vector<double> bares;
    for (auto _ : state) {
        typeOne(*sheet);
        waitForBackgroundWork();
        QElapsedTimer timer;
        timer.start();
        if (!sheet->saveToURL(sheet->fileURL(), HXDocument::SaveOperationAutosave, nullptr))
            state.SkipWithError("not saved");
        saves.push_back(double(timer.nsecsElapsed()) / 1000);
        waitForBackgroundWork();
        QFile content(sheet->fileURL() + QStringLiteral("/Content.xml")),
            text(sheet->fileURL() + QStringLiteral("/Text.txt"));
        content.open(QIODevice::ReadOnly);
        text.open(QIODevice::ReadOnly);
        bares.push_back(bareWrite(content.readAll() + text.readAll(), path));
    }
    state.counters["autosave_us"] = median(saves);
    state.counters["bare_us"] = median(bares);
    state.counters["ratio"] = median(saves) / median(bares);
}
BENCHMARK(BM_AutosaveAgainstBareWrite)->Iterations(200)->Unit(benchmark::kMillisecond);

int main(int argc, char **argv) {
    // Versions and lock files stay in the temporary folder.
    const QByteArray home = QFile::encodeName(folder().path());
    qputenv("HOME", home);
    qputenv("XDG_DATA_HOME", home + "/data");
    qputenv("XDG_CONFIG_HOME", home + "/config");
    qputenv("XDG_RUNTIME_DIR", home);
    QCoreApplication application(argc, argv);
    HXMarkupStore::globalStore();
    HXFileMonitor::shared();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
