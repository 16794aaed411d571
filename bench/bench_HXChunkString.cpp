// The cost of finding and splicing chunks in a long text: a string of 100,000 paragraph-sized
// chunks, as a sheet of a few million characters holds at string level.
// Targets: a lookup and a one-chunk splice near the start each under 2 µs median.

#include "Text/String/Implementation/HXChunkString.h"

#include <benchmark/benchmark.h>
#include <random>

namespace {

constexpr int paragraphCount = 100000;

std::shared_ptr<HXChunkString> longString() {
    static std::shared_ptr<HXChunkString> string = [] {
        auto result = std::make_shared<HXChunkString>();
        std::mt19937 random(7);
        QList<HXChunk> chunks;
        for (int i = 0; i < paragraphCount; ++i)
            chunks.append(QString(200 + int(random() % 600), QLatin1Char('x')) + QLatin1Char('\n'));
        result->setInnerChunks(chunks);
        return result;
    }();
    return string;
}

} // namespace

static void BM_LookupNearStart(benchmark::State &state) {
    const auto string = longString();
    quint64 index = 1234;
    for (auto _ : state) {
        benchmark::DoNotOptimize(string->chunkIndexLessThanOrEqualToIndex(index));
        benchmark::DoNotOptimize(string->characterAtIndex(index));
        index = index == 1234 ? 2345 : 1234;
    }
}
BENCHMARK(BM_LookupNearStart);

static void BM_LookupAnywhere(benchmark::State &state) {
    const auto string = longString();
    std::mt19937_64 random(11);
    const quint64 length = string->length();
    for (auto _ : state) {
        const quint64 index = random() % length;
        benchmark::DoNotOptimize(
            string->chunkAtIndex(string->chunkIndexLessThanOrEqualToIndex(index)));
    }
}
BENCHMARK(BM_LookupAnywhere);

// Replaces the third paragraph by one of another length, and back, so that every splice moves
// all the keys behind it.
static void spliceAt(benchmark::State &state, quint64 ordinal) {
    const auto string = longString();
    quint64 key = 0;
    for (quint64 i = 0; i < ordinal; ++i)
        key = string->chunkIndexGreaterThanIndex(key);
    const HXChunk original = string->chunkAtIndex(key);
    const HXChunk longer = original.string() + QStringLiteral("typed");
    bool grown = false;
    for (auto _ : state) {
        const HXChunk &present = grown ? longer : original;
        string->replaceChunksInRange(HXRange{key, present.length()}, {grown ? original : longer});
        grown = !grown;
    }
    if (grown)
        string->replaceChunksInRange(HXRange{key, longer.length()}, {original});
}

static void BM_SpliceNearStart(benchmark::State &state) {
    spliceAt(state, 2);
}
BENCHMARK(BM_SpliceNearStart);

static void BM_SpliceInTheMiddle(benchmark::State &state) {
    spliceAt(state, paragraphCount / 2);
}
BENCHMARK(BM_SpliceInTheMiddle);

// A new paragraph typed near the start and removed again: the map grows and shrinks by one.
static void BM_InsertAndRemoveNearStart(benchmark::State &state) {
    const auto string = longString();
    const quint64 key = string->chunkIndexGreaterThanIndex(0);
    const HXChunk paragraph = QStringLiteral("A new paragraph.\n");
    for (auto _ : state) {
        string->replaceChunksInRange(HXRange{key, 0}, {paragraph});
        string->replaceChunksInRange(HXRange{key, paragraph.length()}, {});
    }
}
BENCHMARK(BM_InsertAndRemoveNearStart);

BENCHMARK_MAIN();
