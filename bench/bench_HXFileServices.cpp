// The file services' costs: an uncontended coordinated read, the delay before a change by another
// process reaches its presenter, and an atomic replacement against a bare write of the same bytes.
// Targets: a coordinated read ≤ 5 µs (median); a foreign change at its presenter ≤ 250 ms
// (median); replacing a 1 MB file ≤ 2.5× a bare write + fsync + rename (same run). Opening a
// sheet in a presented library of 5,000 packages (a presenter added and removed) costs its own
// package's watches, not a walk of the library: well under 1 ms.

#include "Utilities/HXFileCoordinator.h"
#include "Utilities/HXFileMonitor.h"
#include "Utilities/HXFileSystem.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <atomic>
#include <fcntl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace {

QTemporaryDir &folder() {
    static QTemporaryDir dir(QDir::tempPath() + QStringLiteral("/velmora-bench-XXXXXX"));
    return dir;
}

qint64 monotonicNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return qint64(now.tv_sec) * 1000000000 + now.tv_nsec;
}

class LatencyPresenter : public HXFilePresenter {
public:
    explicit LatencyPresenter(QString path) : m_path(std::move(path)) {}
    QString presentedItemURL() const override { return m_path; }
    std::shared_ptr<HXDispatchQueue> presentedItemOperationQueue() const override {
        return m_queue;
    }
    void presentedSubitemDidChangeAtURL(const QString &) override { told = monotonicNanoseconds(); }
    void presentedSubitemDidAppearAtURL(const QString &) override { told = monotonicNanoseconds(); }
    std::atomic<qint64> told{0};

private:
    QString m_path;
    std::shared_ptr<HXDispatchQueue> m_queue = HXDispatchQueue::create(QStringLiteral("bench"));
};

} // namespace

static void BM_CoordinatedRead(benchmark::State &state) {
    const QString path = folder().filePath(QStringLiteral("read.txt"));
    HXFileSystem::writeFileAtomically("x", path, nullptr);
    int reads = 0;
    for (auto _ : state) {
        HXFileCoordinator coordinator;
        coordinator.coordinateReadingItemAtURL(path, 0, nullptr, [&](const QString &) { ++reads; });
    }
    benchmark::DoNotOptimize(reads);
}
BENCHMARK(BM_CoordinatedRead)->Repetitions(5)->ReportAggregatesOnly(true);

// A child process writes a file in a presented folder and says when the write was done; the
// time until the presenter hears of it is the iteration's time.
static void BM_ForeignChangeToPresenter(benchmark::State &state) {
    const QString base = folder().filePath(QStringLiteral("watched"));
    QDir().mkpath(base);
    auto presenter = std::make_shared<LatencyPresenter>(base);
    HXFileCoordinator::addFilePresenter(presenter);
    QCoreApplication::processEvents();
    const QByteArray target = QFile::encodeName(base + QStringLiteral("/changed.txt"));
    for (auto _ : state) {
        presenter->told = 0;
        int channel[2];
        if (pipe(channel) != 0)
            state.SkipWithError("no pipe");
        const pid_t child = fork();
        if (child == 0) {
            usleep(20000);
            const int fd = ::open(target.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            (void)!::write(fd, "changed", 7);
            ::close(fd);
            const qint64 written = monotonicNanoseconds();
            (void)!::write(channel[1], &written, sizeof written);
            _exit(0);
        }
        qint64 written = 0;
        (void)!::read(channel[0], &written, sizeof written);
        ::close(channel[0]);
        ::close(channel[1]);
        waitpid(child, nullptr, 0);
        const qint64 deadline = monotonicNanoseconds() + 2000000000;
        while (presenter->told == 0 && monotonicNanoseconds() < deadline)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
        if (presenter->told == 0) {
            state.SkipWithError("the change never arrived");
            break;
        }
        state.SetIterationTime(double(presenter->told - written) / 1e9);
    }
    HXFileCoordinator::removeFilePresenter(presenter.get());
}
BENCHMARK(BM_ForeignChangeToPresenter)
    ->UseManualTime()
    ->Iterations(20)
    ->Repetitions(3)
    ->Unit(benchmark::kMillisecond)
    ->ReportAggregatesOnly(true);

static void BM_PresenterBesideLargeLibrary(benchmark::State &state) {
    const QString base = folder().filePath(QStringLiteral("large"));
    for (int i = 0; i < 5000; ++i)
        QDir().mkpath(base + QStringLiteral("/group/%1.pkg").arg(i));
    auto library = std::make_shared<LatencyPresenter>(base);
    HXFileCoordinator::addFilePresenter(library);
    QCoreApplication::processEvents();
    int i = 0;
    for (auto _ : state) {
        auto sheet = std::make_shared<LatencyPresenter>(
            base + QStringLiteral("/group/%1.pkg").arg(i++ % 5000));
        HXFileCoordinator::addFilePresenter(sheet);
        HXFileCoordinator::removeFilePresenter(sheet.get());
    }
    HXFileCoordinator::removeFilePresenter(library.get());
    QCoreApplication::processEvents();
}
BENCHMARK(BM_PresenterBesideLargeLibrary)->Unit(benchmark::kMicrosecond);

static const QByteArray &megabyte() {
    static const QByteArray bytes(1 << 20, 'v');
    return bytes;
}

static void BM_AtomicReplace1MB(benchmark::State &state) {
    const QString path = folder().filePath(QStringLiteral("replace.bin"));
    for (auto _ : state) {
        HXFileCoordinator coordinator;
        coordinator.coordinateWritingItemAtURL(path, 0, nullptr, [&](const QString &url) {
            HXFileSystem::writeFileAtomically(megabyte(), url, nullptr);
        });
    }
}
BENCHMARK(BM_AtomicReplace1MB)->Repetitions(5)->ReportAggregatesOnly(true)->Unit(benchmark::kMillisecond);

// The floor: the same bytes to a temporary name, fsync, rename, nothing else.
static void BM_BareWriteFsyncRename1MB(benchmark::State &state) {
    const QByteArray path = QFile::encodeName(folder().filePath(QStringLiteral("bare.bin")));
    const QByteArray temporary = path + ".tmp";
    for (auto _ : state) {
        const int fd = ::open(temporary.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        (void)!::write(fd, megabyte().constData(), size_t(megabyte().size()));
        ::fsync(fd);
        ::close(fd);
        ::rename(temporary.constData(), path.constData());
    }
}
BENCHMARK(BM_BareWriteFsyncRename1MB)->Repetitions(5)->ReportAggregatesOnly(true)->Unit(benchmark::kMillisecond);

int main(int argc, char **argv) {
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(folder().path()));
    QCoreApplication application(argc, argv);
    HXFileMonitor::shared();
    QCoreApplication::processEvents();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
