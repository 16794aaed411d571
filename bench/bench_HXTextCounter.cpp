// Counting. Targets:
//   a sheet of 1,000,000 words counted (the snapshot of the live string, the countable text,
//   paragraphs, lines, sentences, words, characters, reading times) at least 0.8 times as fast
//   as a bare ICU loop that runs the same sentence and word segmenters over the same text
//   without markup, measured in the same run: the "ratio" counter of BM_CountMillionWords/0
//   (BM_CountMillionWords/1 shows the same for hard-wrapped lines, for information);
//   the stored statistics of 20,000 sheets combined into one total ≤ 50 ms.
//
// The text is the GPL 3 of base-files (real English prose), its paragraphs unwrapped into lines
// with blank lines between, with headings, lists, emphasis, comments and inline comments woven
// in, repeated to a million words.

#include "Search/Counting/HXTextCounter.h"
#include "Text/Markup/HXMarkup.h"
#include "Text/String/Access/HXAtomicString.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QRandomGenerator>

#include <benchmark/benchmark.h>
#include <unicode/brkiter.h>

namespace {

std::shared_ptr<HXMarkup> markdownqr() {
    return HXMarkup::intrinsicMarkups().value(QStringLiteral("markdownqr"));
}

// A million words of marked-up prose: paragraphs as lines, or (`wrapped`) the license's own
// lines of some 70 characters, the worst case, where every line sets the segmenters anew.
QString makeMillionWordText(bool wrapped) {
    QFile license(QStringLiteral("/usr/share/common-licenses/GPL-3"));
    QStringList lines;
    if (license.open(QIODevice::ReadOnly)) {
        const QString whole = QString::fromUtf8(license.readAll());
        if (wrapped)
            lines = whole.split(u'\n');
        else
            for (const QString &paragraph : whole.split(QStringLiteral("\n\n")))
                lines += {paragraph.simplified(), QString()};
    } else {
        lines = QStringList(50, QStringLiteral("Plain words of a plain sentence, and more."));
    }
    QRandomGenerator random(5);
    QString result;
    qsizetype words = 0;
    while (words < 1000000) {
        for (const QString &raw : std::as_const(lines)) {
            const QString line = raw.trimmed();
            switch (random.bounded(10)) {
            case 0:
                result += QStringLiteral("## ");
                break;
            case 1:
                result += QStringLiteral("- **Note** ");
                break;
            case 2:
                result += QStringLiteral("// a comment that isn't counted\n");
                break;
            default:
                break;
            }
            result += line;
            if (random.bounded(8) == 0)
                result += QStringLiteral(" {>>ask the editor<<} and *this*.");
            result += u'\n';
            words += line.count(u' ') + (line.isEmpty() ? 0 : 1);
        }
    }
    return result;
}

const QString &millionWordText(bool wrapped = false) {
    static const QString paragraphs = makeMillionWordText(false);
    static const QString lines = makeMillionWordText(true);
    return wrapped ? lines : paragraphs;
}

// The bare loop: both segmenters over the whole text, as a flat run of characters.
quint64 bareIcuCount(const QString &text) {
    UErrorCode status = U_ZERO_ERROR;
    static std::unique_ptr<icu::BreakIterator> sentencePrototype(
        icu::BreakIterator::createSentenceInstance(icu::Locale::getDefault(), status));
    static std::unique_ptr<icu::BreakIterator> wordPrototype(
        icu::BreakIterator::createWordInstance(icu::Locale::getDefault(), status));
    std::unique_ptr<icu::BreakIterator> sentences(sentencePrototype->clone());
    std::unique_ptr<icu::BreakIterator> words(wordPrototype->clone());
    const icu::UnicodeString unicode(false, reinterpret_cast<const UChar *>(text.utf16()),
                                     int32_t(text.size()));
    quint64 count = 0;
    sentences->setText(unicode);
    for (sentences->first(); sentences->next() != icu::BreakIterator::DONE;)
        ++count;
    words->setText(unicode);
    for (words->first(); words->next() != icu::BreakIterator::DONE;)
        count += words->getRuleStatus() >= UBRK_WORD_NONE_LIMIT;
    return count;
}

void BM_CountMillionWords(benchmark::State &state) {
    auto string = HXAtomicString::stringWithMarkup(markdownqr());
    string->setString(millionWordText(state.range(0) == 1));
    const QString plain = string->copy()->countableStringFromRange(HXRange{0, string->length()});
    double counterSeconds = 0, bareSeconds = 0;
    quint64 words = 0;
    for (auto _ : state) {
        QElapsedTimer timer;
        timer.start();
        const HXCountDictionary counts = HXTextCounter::allCountsForString(*string);
        counterSeconds += double(timer.nsecsElapsed()) / 1e9;
        words = counts.value(QStringLiteral("words")).toULongLong();
        state.PauseTiming();
        timer.restart();
        benchmark::DoNotOptimize(bareIcuCount(plain));
        bareSeconds += double(timer.nsecsElapsed()) / 1e9;
        state.ResumeTiming();
    }
    state.counters["words"] = double(words);
    state.counters["bare_icu_ms"] = bareSeconds * 1000 / double(state.iterations());
    state.counters["ratio"] = bareSeconds / counterSeconds;
}
BENCHMARK(BM_CountMillionWords)
    ->Arg(0)
    ->Arg(1)
    ->Iterations(5)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// 20,000 sheets of a few hundred words, each's stored dictionary as the index keeps it.
void BM_Combine20000Sheets(benchmark::State &state) {
    QList<HXCountDictionary> counts;
    const QStringList paragraphs = millionWordText().left(200000).split(u'\n');
    QRandomGenerator random(9);
    QList<HXCountDictionary> samples;
    for (int i = 0; i < 50; ++i) {
        const qsizetype from = random.bounded(paragraphs.size() - 40);
        const QString text = paragraphs.mid(from, 5 + random.bounded(35)).join(u'\n');
        samples.append(
            HXTextCounter::allCountsForString(*HXString::stringWithString(text, markdownqr())));
    }
    for (int i = 0; i < 20000; ++i)
        counts.append(samples.at(i % samples.size()));
    qsizetype lines = 0;
    for (auto _ : state) {
        const HXCountDictionary total = HXTextCounter::countsByCombiningCounts(counts);
        lines = HXTextCounter::lineLengths(total.value(QStringLiteral("lines"))).size();
        benchmark::DoNotOptimize(total);
    }
    state.counters["lines"] = double(lines);
}
BENCHMARK(BM_Combine20000Sheets)->MinTime(1)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char **argv) {
    QCoreApplication application(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
