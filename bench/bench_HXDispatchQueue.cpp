// The cost of the platform layer's hot paths: taking the reader-writer lock uncontended (every
// string operation does) and a synchronous dispatch onto a serial queue.
// Targets: an uncontended read or write of the lock under 1 µs; a synchronous dispatch under 2 µs.

#include "Utilities/HXDispatchQueue.h"
#include "Utilities/HXReadWriteLock.h"

#include <benchmark/benchmark.h>

static void BM_LockRead(benchmark::State &state) {
    HXReadWriteLock lock;
    int value = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(lock.synchronizedRead([&] { return value; }));
}
BENCHMARK(BM_LockRead);

static void BM_LockWrite(benchmark::State &state) {
    HXReadWriteLock lock;
    int value = 0;
    for (auto _ : state)
        lock.synchronizedWrite([&] { ++value; });
    benchmark::DoNotOptimize(value);
}
BENCHMARK(BM_LockWrite);

static void BM_NestedRead(benchmark::State &state) {
    HXReadWriteLock lock;
    int value = 0;
    lock.synchronizedRead([&] {
        for (auto _ : state)
            benchmark::DoNotOptimize(lock.synchronizedRead([&] { return value; }));
    });
}
BENCHMARK(BM_NestedRead);

static void BM_SerialSync(benchmark::State &state) {
    const auto queue = HXDispatchQueue::create(QStringLiteral("bench"));
    int value = 0;
    for (auto _ : state)
        queue->sync([&] { ++value; });
    benchmark::DoNotOptimize(value);
}
BENCHMARK(BM_SerialSync);

BENCHMARK_MAIN();
