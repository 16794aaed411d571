// A keystroke in the editor, without drawing. Target: a character typed (or deleted) through the
// editor and its actor, the twin and the style cache of the storage brought up to date, and the
// edited paragraph laid out again by the typesetting rules, in a sheet of 1,000,000 words:
// median ≤ 2 ms, and ≤ 1.5 times the median of the same in a sheet of 1,000 words. The medians
// are the "median_us" counters of BM_Keystroke/1000000 and BM_Keystroke/1000.
//
// The text is the GPL 3 of base-files, its paragraphs unwrapped into lines, with headings, list
// items and strong text woven in. The typing happens in a paragraph in the middle of the sheet,
// which is styled and laid out before the clock starts, as the visible paragraph of a view is.

#include "HXBenchmarkText.h"
#include "Text/Markup/HXMarkup.h"
#include "Text/String/Access/HXAtomicString.h"
#include "TextSystem/Actor/HXTextEditor.h"
#include "TextSystem/Components/HXParagraphLayout.h"
#include "TextSystem/Themes/HXThemeStore.h"
#include "Utilities/HXUndoManager.h"

#include <QGuiApplication>

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>

namespace {

void BM_Keystroke(benchmark::State &state) {
    const auto markup = HXMarkup::intrinsicMarkups().value(QStringLiteral("markdownqr"));
    const auto string = HXAtomicString::stringWithMarkup(markup);
    string->setString(HXBenchmarkText::makeText(state.range(0)));
    string->setUndoManager(std::make_shared<HXUndoManager>());
    auto storage = std::make_shared<HXTextStorage>();
    const QFont font(QStringLiteral("DejaVu Serif"), 14);
    storage->setFont(font);
    storage->setTheme(HXThemeStore::sharedStore()->currentTheme());
    storage->setContent(string);
    HXTextEditor editor(storage);
    HXTypesetter typesetter;
    typesetter.setBaseFont(font);
    typesetter.setOutdentTags(true);
    typesetter.setLineHeightMultiple(1.4);
    typesetter.updateMetrics();
    HXParagraphLayout layout;

    // The same paragraph, set in the middle of either text, takes the keystrokes.
    static const QString typed = QStringLiteral(
        "* The **typing** happens here, in a list item long enough to wrap over several lines "
        "of the column, with a [@citation] and `code` in it, so that the tags of the paragraph "
        "must be styled and kept from breaking while each keystroke lays it out again. It goes "
        "on for a while longer, as the paragraphs of a real manuscript do.\n");
    {
        const HXString &text = *storage->cachedContent();
        const quint64 middle = text.paragraphRangeForRange(HXRange{text.length() / 2, 0}).location;
        string->replaceCharactersInRange(HXRange{middle, 0}, HXChunk(typed));
        string->breakUndoCoalescing();
    }
    const HXString &text = *storage->cachedContent();
    const quint64 cursor = text.string().indexOf(QStringLiteral("for a while"));
    auto relayout = [&] {
        HXRange range;
        const auto formats = storage->formatRangesForParagraphAtIndex(cursor, &range);
        layout.layoutParagraph(typesetter, *storage->cachedContent(), range, 620, 0, formats);
    };
    relayout();

    std::vector<double> times;
    bool typing = true;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        if (typing) {
            editor.setSelectedRange(HXRange{cursor, 0});
            editor.insertText(QStringLiteral("x"));
        } else {
            editor.deleteBackward();
        }
        relayout();
        const auto end = std::chrono::steady_clock::now();
        times.push_back(std::chrono::duration<double, std::micro>(end - start).count());
        typing = !typing;
        benchmark::DoNotOptimize(layout.height());
    }
    std::sort(times.begin(), times.end());
    state.counters["median_us"] = times.empty() ? 0 : times[times.size() / 2];
    state.counters["lines"] = double(layout.lineFragments().size());
    state.counters["chars"] = double(storage->length());
}
BENCHMARK(BM_Keystroke)->Arg(1000)->Arg(1000000)->Unit(benchmark::kMicrosecond)->Iterations(2000);

} // namespace

int main(int argc, char *argv[]) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication application(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
