// The editor widget, shown at 1200 x 800 on the offscreen platform, so that every repaint draws
// into a real backing store. The text is the GPL 3 of base-files, its paragraphs unwrapped into
// lines, with headings, list items and strong text woven in.
//
// Targets:
//  - BM_Keystroke: a key press sent to the view, with the caret in a paragraph in the middle of
//    the sheet, until its repaint has finished: median ≤ 4 ms in a sheet of 1,000,000 words, and
//    ≤ 1.5 times the median in a sheet of 1,000 words ("median_us" of BM_Keystroke/1000000 and
//    BM_Keystroke/1000).
//  - BM_Open: a 1,000,000-word string already in memory, given to a shown view, until its first
//    paint has finished: ≤ 1.5 s ("ms").
//  - BM_OpenFromDisk: the same sheet read from its package on disk, then its first paint:
//    ≤ 1.5 s ("ms").
//  - BM_ScrollPage: one page of scrolling from the middle of the 1,000,000-word sheet (the scroll
//    bar moved by a page, and the repaint): median ≤ 8 ms per frame ("median_us").

#include "App/Editor/HXTextView.h"
#include "HXBenchmarkText.h"
#include "Model/Sheets/HXNativeSheet.h"
#include "Text/Markup/HXMarkup.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Utilities/HXUndoManager.h"

#include <QApplication>
#include <QKeyEvent>
#include <QScrollBar>
#include <QTemporaryDir>

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>

namespace {

using Clock = std::chrono::steady_clock;

std::shared_ptr<HXAtomicString> makeString(qsizetype words) {
    const auto markup = HXMarkup::intrinsicMarkups().value(QStringLiteral("markdownqr"));
    auto string = HXAtomicString::stringWithMarkup(markup);
    string->setString(HXBenchmarkText::makeText(words));
    string->setUndoManager(std::make_shared<HXUndoManager>());
    return string;
}

// A view as the window shows it: sized, visible, focused, in the writer's font.
void showView(HXTextView &view) {
    view.setTextFont(QFont(QStringLiteral("DejaVu Serif"), 14));
    view.resize(1200, 800);
    view.show();
    QApplication::setActiveWindow(&view);
    view.setFocus();
    QCoreApplication::processEvents();
}

// What happens after an event until the screen shows it: the queued update request paints.
void finishRepaint() {
    QCoreApplication::sendPostedEvents();
}

double median(std::vector<double> times) {
    if (times.empty())
        return 0;
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

void sendKey(HXTextView &view, int key, const QString &text) {
    QKeyEvent press(QEvent::KeyPress, key, Qt::NoModifier, text);
    QApplication::sendEvent(&view, &press);
}

void BM_Keystroke(benchmark::State &state) {
    const auto string = makeString(state.range(0));
    HXTextView view;
    showView(view);
    view.setContent(string);
    // The same paragraph, set in the middle of either text, takes the keystrokes.
    static const QString typed = QStringLiteral(
        "* The **typing** happens here, in a list item long enough to wrap over several lines "
        "of the column, with a [@citation] and `code` in it, so that the tags of the paragraph "
        "must be styled and kept from breaking while each keystroke lays it out again. It goes "
        "on for a while longer, as the paragraphs of a real manuscript do.\n");
    const HXString &text = *view.textStorage().cachedContent();
    const quint64 middle = text.paragraphRangeForRange(HXRange{text.length() / 2, 0}).location;
    string->replaceCharactersInRange(HXRange{middle, 0}, HXChunk(typed));
    string->breakUndoCoalescing();
    const quint64 cursor = middle + quint64(typed.indexOf(QStringLiteral("for a while")));
    view.setSelectedRange(HXRange{cursor, 0});
    view.scrollRangeToVisible(HXRange{cursor, 0});
    QCoreApplication::processEvents();

    std::vector<double> times;
    const int paintsBefore = view.paintCount();
    bool typing = true;
    for (auto _ : state) {
        const auto start = Clock::now();
        if (typing)
            sendKey(view, Qt::Key_X, QStringLiteral("x"));
        else
            sendKey(view, Qt::Key_Backspace, QString());
        finishRepaint();
        const auto end = Clock::now();
        times.push_back(std::chrono::duration<double, std::micro>(end - start).count());
        typing = !typing;
    }
    state.counters["median_us"] = median(times);
    state.counters["paints"] =
        double(view.paintCount() - paintsBefore) / double(std::max<size_t>(times.size(), 1));
    state.counters["layouts"] = view.numberOfLaidOutParagraphs();
    state.counters["chars"] = double(view.textStorage().length());
}
BENCHMARK(BM_Keystroke)->Arg(1000)->Arg(1000000)->Unit(benchmark::kMicrosecond)->Iterations(400);

void BM_Open(benchmark::State &state) {
    const auto string = makeString(1000000);
    HXTextView view;
    showView(view);
    std::vector<double> times;
    int paints = 0;
    for (auto _ : state) {
        view.setContent(nullptr);
        QCoreApplication::processEvents();
        const int before = view.paintCount();
        const auto start = Clock::now();
        view.setContent(string);
        finishRepaint();
        const auto end = Clock::now();
        times.push_back(std::chrono::duration<double, std::milli>(end - start).count());
        paints += view.paintCount() - before;
    }
    state.counters["ms"] = median(times);
    state.counters["paints"] = double(paints) / double(std::max<size_t>(times.size(), 1));
    state.counters["chars"] = double(view.textStorage().length());
    state.counters["layouts"] = view.numberOfLaidOutParagraphs();
}
BENCHMARK(BM_Open)->Unit(benchmark::kMillisecond)->Iterations(5);

// The same from the sheet's package on disk: reading and parsing it, then the first paint.
void BM_OpenFromDisk(benchmark::State &state) {
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("million.velmora"));
    {
        const auto sheet = HXNativeSheet::sheetWithMarkup();
        sheet->text()->replaceCharactersInRange(HXRange{0, 0},
                                                HXReplacement(HXBenchmarkText::makeText(1000000)));
        if (!sheet->saveToURL(path, HXDocument::SaveOperationSave, nullptr)) {
            state.SkipWithError("the sheet could not be written");
            return;
        }
    }
    HXTextView view;
    showView(view);
    std::vector<double> times;
    for (auto _ : state) {
        view.setContent(nullptr);
        QCoreApplication::processEvents();
        const auto start = Clock::now();
        const auto sheet = HXNativeSheet::sheetWithURL(path, false);
        HXDocument::waitForCompletion([&](auto done) { sheet->openWithCompletionHandler(done); });
        view.setContent(sheet->text());
        finishRepaint();
        const auto end = Clock::now();
        times.push_back(std::chrono::duration<double, std::milli>(end - start).count());
        state.counters["chars"] = double(view.textStorage().length());
        view.setContent(nullptr);
    }
    state.counters["ms"] = median(times);
}
BENCHMARK(BM_OpenFromDisk)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_ScrollPage(benchmark::State &state) {
    const auto string = makeString(1000000);
    HXTextView view;
    showView(view);
    view.setContent(string);
    QScrollBar *bar = view.verticalScrollBar();
    bar->setValue(bar->maximum() / 2);
    QCoreApplication::processEvents();
    std::vector<double> times;
    int maximumLayouts = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        bar->setValue(bar->value() + bar->pageStep());
        finishRepaint();
        const auto end = Clock::now();
        times.push_back(std::chrono::duration<double, std::micro>(end - start).count());
        maximumLayouts = std::max(maximumLayouts, view.numberOfLaidOutParagraphs());
    }
    state.counters["median_us"] = median(times);
    state.counters["max_layouts"] = maximumLayouts;
}
BENCHMARK(BM_ScrollPage)->Unit(benchmark::kMicrosecond)->Iterations(200);

} // namespace

int main(int argc, char *argv[]) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication application(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
