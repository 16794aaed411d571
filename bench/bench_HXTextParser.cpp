// The cost of the parse: a keystroke in a long sheet and in a short one, a whole text parsed from
// plain characters beside a plain scan with one expression, and the memory of the loaded text.
// Targets: a keystroke (one character typed in the middle of a paragraph, with its reparse and
// the observers told) in a string of 1,000,000 words at most 20 µs median, and within 1.5 times
// of the same keystroke in a string of 1,000 words; a keystroke in one paragraph of 100,000
// characters at most 5 ms median; the loaded string at most 4 bytes per UTF-16 byte in the
// realistic mix and 6 in the dense one. The whole-text parse reports its throughput beside the
// plain scan.

#include "Text/Markup/HXMarkup.h"
#include "Text/String/Access/HXAtomicString.h"

#include <benchmark/benchmark.h>
#include <chrono>
#include <malloc.h>
#include <random>
#include <unicode/regex.h>

namespace {

// A text of realistic markup: headings, paragraphs with emphasis, strong text and links, lists
// and quotes, in about the given number of words. In the realistic mix one word in 60 is
// emphasized, one in 150 strong and one in 200 starts a link; the dense mix has each of them
// for one word in 40.
QString realisticText(int words, bool dense = false) {
    static const char *vocabulary[] = {"the",   "light",  "over",   "harbour", "she",  "said",
                                       "quiet", "window", "letter", "morning", "and",  "of",
                                       "river", "almost", "never",  "garden",  "a",    "to",
                                       "stone", "winter", "house",  "walked",  "long", "bright"};
    std::mt19937 random(42);
    auto word = [&] { return QString::fromLatin1(vocabulary[random() % std::size(vocabulary)]); };
    const QString object(QChar(0xfffc));
    QString text;
    int written = 0;
    int paragraph = 0;
    while (written < words) {
        const int kind = paragraph++ % 12;
        if (kind == 0)
            text += QStringLiteral("## ");
        else if (kind == 5 || kind == 6)
            text += QStringLiteral("- ");
        else if (kind == 9)
            text += QStringLiteral("> ");
        const int length = kind == 0 ? 4 : 40 + int(random() % 80);
        for (int i = 0; i < length; ++i) {
            const QString w = word();
            const unsigned roll = random() % 600;
            if (dense ? roll < 15 : roll < 10)
                text += QStringLiteral("*") + w + QStringLiteral("*");
            else if (dense ? roll < 30 : roll < 14)
                text += QStringLiteral("**") + w + QStringLiteral("**");
            else if (dense ? roll < 45 : roll < 17)
                text += object + w + QStringLiteral(" ") + word() + object;
            else
                text += w;
            text += i + 1 < length ? QStringLiteral(" ") : QStringLiteral("\n");
        }
        written += length;
    }
    return text;
}

// Bytes in use on the heap, with the blocks malloc maps on their own (large ones).
size_t heapInUse() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

struct CountingObserver : HXStringObserver {
    quint64 changes = 0;
    void stringChangedCharactersInRange(HXString &, HXRange, const HXReplacement &, HXRange,
                                        HXRange, HXRange) override {
        ++changes;
    }
};

struct Sheet {
    std::shared_ptr<HXAtomicString> string;
    std::shared_ptr<CountingObserver> observer = std::make_shared<CountingObserver>();
    quint64 typingPlace = 0;
};

// A sheet of about the given number of words; with `oneParagraph`, all of them in one
// paragraph of that many characters.
Sheet &sheetOfWords(int words, bool oneParagraph = false) {
    static std::map<std::pair<int, bool>, Sheet> sheets;
    Sheet &sheet = sheets[{words, oneParagraph}];
    if (!sheet.string) {
        sheet.string = HXAtomicString::stringWithMarkup(HXMarkup::defaultIntrinsicMarkup());
        // The same sentence stands in the middle of every text, and is typed into; in one
        // paragraph it is no paragraph of its own.
        QString typedInto = QStringLiteral(
            "The *light* over the harbour was almost **white** that morning, and she walked the "
            "long way round by the river, past the \uFFFCstone house\uFFFC and the garden.\n");
        QString text;
        qsizetype middle = 0;
        if (oneParagraph) {
            // Over five characters a word; lines of headings, lists and quotes run on.
            text = realisticText(words / 5);
            text.replace(QLatin1Char('\n'), QLatin1Char(' '));
            text.truncate(words - typedInto.size());
            typedInto.replace(QLatin1Char('\n'), QLatin1Char(' '));
            middle = text.indexOf(QLatin1Char(' '), text.size() / 2) + 1;
        } else {
            text = realisticText(words);
            middle = text.indexOf(QLatin1Char('\n'), text.size() / 2) + 1;
        }
        text.insert(middle, typedInto);
        sheet.string->setString(text);
        sheet.string->addStringObserver(sheet.observer);
        sheet.typingPlace = quint64(middle + typedInto.indexOf(QStringLiteral("walked")));
    }
    return sheet;
}

void typeOneCharacter(benchmark::State &state, int words, bool oneParagraph = false) {
    Sheet &sheet = sheetOfWords(words, oneParagraph);
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        sheet.string->replaceCharactersInRange(HXRange{sheet.typingPlace, 0}, QStringLiteral("x"));
        const auto end = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(end - start).count());
        sheet.string->replaceCharactersInRange(HXRange{sheet.typingPlace, 1}, QString());
    }
    state.counters["paragraphs"] = double(sheet.string->paragraphs().size());
    state.counters["characters"] = double(sheet.string->length());
}

} // namespace

static void BM_KeystrokeIn1000Words(benchmark::State &state) {
    typeOneCharacter(state, 1000);
}
BENCHMARK(BM_KeystrokeIn1000Words)->UseManualTime()->Unit(benchmark::kMicrosecond);

static void BM_KeystrokeIn1000000Words(benchmark::State &state) {
    typeOneCharacter(state, 1000000);
}
BENCHMARK(BM_KeystrokeIn1000000Words)->UseManualTime()->Unit(benchmark::kMicrosecond);

static void BM_KeystrokeInParagraphOf100000Characters(benchmark::State &state) {
    typeOneCharacter(state, 100000, true);
}
BENCHMARK(BM_KeystrokeInParagraphOf100000Characters)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

static void BM_ParseWholeText(benchmark::State &state) {
    const QString text = realisticText(1000000);
    const auto markup = HXMarkup::defaultIntrinsicMarkup();
    for (auto _ : state) {
        auto string = HXString::stringWithString(text, markup);
        benchmark::DoNotOptimize(string->length());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * text.toUtf8().size());
}
BENCHMARK(BM_ParseWholeText)->Iterations(2)->Unit(benchmark::kMillisecond);

static void BM_PlainScanForOneTag(benchmark::State &state) {
    const QString text = realisticText(1000000);
    UErrorCode status = U_ZERO_ERROR;
    UParseError error;
    std::unique_ptr<icu::RegexPattern> pattern(
        icu::RegexPattern::compile(icu::UnicodeString(u"\\*\\*"), 0, error, status));
    const icu::UnicodeString alias(false, reinterpret_cast<const UChar *>(text.utf16()),
                                   int32_t(text.size()));
    for (auto _ : state) {
        std::unique_ptr<icu::RegexMatcher> matcher(pattern->matcher(alias, status));
        int64_t matches = 0;
        while (matcher->find(status))
            ++matches;
        benchmark::DoNotOptimize(matches);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * text.toUtf8().size());
}
BENCHMARK(BM_PlainScanForOneTag)->Iterations(3)->Unit(benchmark::kMillisecond);

static void BM_MemoryOfLoadedText(benchmark::State &state) {
    const QString text = realisticText(1000000, state.range(0) != 0);
    const auto markup = HXMarkup::defaultIntrinsicMarkup();
    for (auto _ : state) {
        malloc_trim(0);
        const size_t before = heapInUse();
        auto string = HXAtomicString::stringWithMarkup(markup);
        string->setString(text);
        const size_t after = heapInUse();
        state.counters["bytes per UTF-16 byte"] = double(after - before) / double(text.size() * 2);
        state.counters["UTF-16 MB"] = double(text.size() * 2) / 1e6;
    }
}
BENCHMARK(BM_MemoryOfLoadedText)->Arg(0)->Arg(1)->Iterations(1)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
