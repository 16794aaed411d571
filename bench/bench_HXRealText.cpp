// Real text through the text core, beside cmark-gfm on the same bytes: the Node.js API
// documentation in Markdown (the .md or .md.gz files under /usr/share/doc/nodejs/api), three times
// over, about 10 MB in 345,000 lines of some 30 characters.
//
// Targets, medians of five runs:
//   parse and XML write (the work of `velmora-cli string parse --markup markdown`)
//       at most 2 times cmark-gfm's parse and XML render, its peak memory at most 2 times theirs;
//   XML read back to a string (`velmora-cli string text`)
//       at most 3 times cmark-gfm's parse and XML render;
//   the loaded string at most 4 bytes per UTF-16 byte of its text.
// The run ends with a table of the medians and their ratios.

#include "Text/Markup/HXMarkup.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Text/String/Access/HXStringXML.h"

#include <QDir>
#include <QFile>

#include <benchmark/benchmark.h>
#include <cmark-gfm.h>
#include <cstdio>
#include <cstdlib>
#include <malloc.h>
#include <map>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

// Bytes in use on the heap, with the blocks malloc maps on their own (large ones).
static size_t heapInUse() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

namespace {

QByteArray readGzip(const QString &path) {
    QByteArray bytes;
    gzFile file = gzopen(QFile::encodeName(path).constData(), "rb");
    if (!file)
        return bytes;
    char buffer[1 << 16];
    for (int read; (read = gzread(file, buffer, sizeof buffer)) > 0;)
        bytes.append(buffer, read);
    gzclose(file);
    return bytes;
}

// The documentation in file-name order, three times; empty when it isn't installed.
const QByteArray &corpus() {
    static const QByteArray bytes = [] {
        const QDir folder(QStringLiteral("/usr/share/doc/nodejs/api"));
        QByteArray once;
        for (const QFileInfo &info : folder.entryInfoList(
                 {QStringLiteral("*.md"), QStringLiteral("*.md.gz")}, QDir::Files, QDir::Name)) {
            if (info.fileName().endsWith(QLatin1String(".gz"))) {
                once += readGzip(info.filePath());
            } else {
                QFile file(info.filePath());
                if (file.open(QIODevice::ReadOnly))
                    once += file.readAll();
            }
        }
        return once.repeated(3);
    }();
    return bytes;
}

const std::shared_ptr<HXMarkup> &markdown() {
    static const auto markup = HXMarkup::intrinsicMarkups().value(QStringLiteral("markdown"));
    return markup;
}

QByteArray velmoraParseAndWrite(const QByteArray &bytes) {
    const auto string = HXString::stringWithString(QString::fromUtf8(bytes), markdown());
    return HXStringXML::XMLData(*string);
}

qsizetype cmarkParseAndRender(const QByteArray &bytes) {
    cmark_node *document =
        cmark_parse_document(bytes.constData(), size_t(bytes.size()), CMARK_OPT_DEFAULT);
    char *xml = cmark_render_xml(document, CMARK_OPT_DEFAULT);
    const qsizetype length = qsizetype(strlen(xml));
    free(xml);
    cmark_node_free(document);
    return length;
}

bool haveCorpus(benchmark::State &state) {
    if (!corpus().isEmpty())
        return true;
    state.SkipWithError("The Node.js documentation is not installed (package nodejs-doc).");
    return false;
}

// The kilobytes of a line of /proc/self/status ("VmHWM:" is the peak).
long statusKilobytes(const char *key) {
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith(key))
            return line.mid(qsizetype(strlen(key))).trimmed().split(' ').first().toLong();
    }
    return 0;
}

// The peak memory in MiB of a fresh process of this program that reads the text and does the
// work named ("velmora" or "cmark"), as a command-line tool would.
double peakMemoryOf(const char *work) {
    int pipeEnds[2];
    if (pipe(pipeEnds) != 0)
        return 0;
    const pid_t child = fork();
    if (child == 0) {
        dup2(pipeEnds[1], STDOUT_FILENO);
        execl("/proc/self/exe", "bench_HXRealText", "--peak-memory-of", work, nullptr);
        _exit(1);
    }
    close(pipeEnds[1]);
    char buffer[64] = {};
    (void)!read(pipeEnds[0], buffer, sizeof buffer - 1);
    close(pipeEnds[0]);
    waitpid(child, nullptr, 0);
    return std::atof(buffer);
}

// In the child: does the work and prints its peak.
int runForPeakMemory(const char *work) {
    const QByteArray &bytes = corpus();
    if (strcmp(work, "velmora") == 0)
        benchmark::DoNotOptimize(velmoraParseAndWrite(bytes).size());
    else
        benchmark::DoNotOptimize(cmarkParseAndRender(bytes));
    std::printf("%.1f\n", double(statusKilobytes("VmHWM:")) / 1024);
    return 0;
}

} // namespace

static void BM_VelmoraParseAndWrite(benchmark::State &state) {
    if (!haveCorpus(state))
        return;
    for (auto _ : state)
        benchmark::DoNotOptimize(velmoraParseAndWrite(corpus()).size());
    state.SetBytesProcessed(int64_t(state.iterations()) * corpus().size());
}
BENCHMARK(BM_VelmoraParseAndWrite)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(5);

static void BM_CmarkParseAndRender(benchmark::State &state) {
    if (!haveCorpus(state))
        return;
    for (auto _ : state)
        benchmark::DoNotOptimize(cmarkParseAndRender(corpus()));
    state.SetBytesProcessed(int64_t(state.iterations()) * corpus().size());
}
BENCHMARK(BM_CmarkParseAndRender)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(5);

static void BM_VelmoraReadXML(benchmark::State &state) {
    if (!haveCorpus(state))
        return;
    static const QByteArray xml = velmoraParseAndWrite(corpus());
    for (auto _ : state) {
        HXError error;
        const auto string =
            HXStringXML::stringWithXMLData(xml, markdown(), HXDefaultDefinitionSelector, &error);
        if (!string)
            state.SkipWithError(qPrintable(error.localizedFailureReason()));
        benchmark::DoNotOptimize(string);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * xml.size());
}
BENCHMARK(BM_VelmoraReadXML)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(5);

// Peak memory, each measured in a fresh process of its own that holds the text and does the
// work; the time shown is the child's whole run.
static void BM_PeakMemory(benchmark::State &state) {
    if (!haveCorpus(state))
        return;
    const bool velmora = state.range(0) == 0;
    double peak = 0;
    for (auto _ : state) {
        peak = peakMemoryOf(velmora ? "velmora" : "cmark");
    }
    state.counters["peak_MiB"] = peak;
    state.SetLabel(velmora ? "velmora parse and write" : "cmark-gfm parse and render");
}
BENCHMARK(BM_PeakMemory)
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->Repetitions(5);

static void BM_MemoryOfLoadedString(benchmark::State &state) {
    if (!haveCorpus(state))
        return;
    const QString text = QString::fromUtf8(corpus());
    for (auto _ : state) {
        malloc_trim(0);
        const size_t before = heapInUse();
        auto string = HXAtomicString::stringWithMarkup(markdown());
        string->setString(text);
        const size_t after = heapInUse();
        state.counters["bytes_per_UTF16_byte"] = double(after - before) / double(text.size() * 2);
        state.counters["paragraphs"] = double(string->paragraphs().size());
    }
}
BENCHMARK(BM_MemoryOfLoadedString)->Unit(benchmark::kMillisecond)->Iterations(1);

namespace {

// Prints the console report and keeps the medians, for the table of ratios at the end.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    std::map<std::string, double> medians;

    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &run : runs) {
            if (run.aggregate_name != "median")
                continue;
            medians[run.run_name.function_name + "/" + run.run_name.args] =
                run.GetAdjustedRealTime();
            const auto peak = run.counters.find("peak_MiB");
            if (peak != run.counters.end())
                medians["peak/" + run.run_name.args] = peak->second;
        }
    }

    void printRatios() const {
        auto value = [&](const std::string &key) {
            const auto found = medians.find(key);
            return found == medians.end() ? 0.0 : found->second;
        };
        const double cmark = value("BM_CmarkParseAndRender/");
        if (cmark <= 0)
            return;
        std::printf("\nMedians against cmark-gfm's parse and XML render (%.0f ms):\n", cmark);
        std::printf("  parse + XML write   %8.0f ms  %5.2fx  (target <= 2x)\n",
                    value("BM_VelmoraParseAndWrite/"), value("BM_VelmoraParseAndWrite/") / cmark);
        std::printf("  XML read            %8.0f ms  %5.2fx  (target <= 3x)\n",
                    value("BM_VelmoraReadXML/"), value("BM_VelmoraReadXML/") / cmark);
        if (value("peak/1") > 0)
            std::printf(
                "  peak memory         %8.0f MiB %5.2fx  (target <= 2x; cmark-gfm %.0f MiB)\n",
                value("peak/0"), value("peak/0") / value("peak/1"), value("peak/1"));
    }
};

} // namespace

int main(int argc, char **argv) {
    if (argc == 3 && strcmp(argv[1], "--peak-memory-of") == 0)
        return runForPeakMemory(argv[2]);
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatios();
    benchmark::Shutdown();
    return 0;
}
