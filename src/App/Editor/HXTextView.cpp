#include "App/Editor/HXTextView.h"

#include "App/Editor/HXTextViewPrivate.h"
#include "TextSystem/Themes/HXThemeStore.h"
#include "Utilities/HXAssert.h"

#include <QApplication>
#include <QFontMetricsF>
#include <QScrollBar>

#include <cmath>

namespace {

// A line of ordinary prose: what the estimates take the width of an average character from.
const QString sampleText = QStringLiteral(
    "The writer sat at the window, and the words came slowly, one by one, as they do.");

bool paletteIsDark() {
    const QPalette palette = QGuiApplication::palette();
    return palette.color(QPalette::Window).lightnessF() <
           palette.color(QPalette::WindowText).lightnessF();
}

} // namespace

// --- Set-up ------------------------------------------------------------------------------------

HXTextView::Private::Private(HXTextView *view)
    : q(view) {
    editor = std::make_unique<HXTextViewEditor>(storage, [this] { selectionDidChange(); });
    blinkTimer.setInterval(530);
    QObject::connect(&blinkTimer, &QTimer::timeout, q, [this] {
        caretVisible = !caretVisible;
        const HXRange selection = editor->selectedRange();
        QRect rect = paintedCaretRect;
        if (selection.length == 0)
            rect |= positionForIndex(selection.location).caret.toAlignedRect();
        q->viewport()->update(rect.adjusted(-1, -1, 1, 1));
    });
}

void HXTextView::Private::setUpStorage() {
    QFont font = QApplication::font();
    font.setPointSizeF(14);
    typesetter.setOutdentTags(true);
    typesetter.setLineHeightMultiple(1.35);
    storage->setFont(font);
    if (const auto store = HXThemeStore::sharedStore()) {
        storage->setTheme(store->currentTheme());
        QObject::connect(store.get(), &HXThemeStore::currentThemeChanged, q, [this] {
            if (const auto current = HXThemeStore::sharedStore())
                storage->setTheme(current->currentTheme());
        });
    }
    updateMetrics();
    QObject::connect(storage.get(), &HXTextStorage::edited, q,
                     [this](HXRange range, qint64 change) { textDidEdit(range, change); });
    QObject::connect(storage.get(), &HXTextStorage::stylesChanged, q,
                     [this] { stylesDidChange(); });
    QObject::connect(storage.get(), &HXTextStorage::backgroundColorChanged, q,
                     [this] { q->viewport()->update(); });
    applyColorMode();
    storage->setContent(nullptr);
}

HXTextView::HXTextView(QWidget *parent)
    : QAbstractScrollArea(parent)
    , d(new Private(this)) {
    setAttribute(Qt::WA_InputMethodEnabled);
    setFocusPolicy(Qt::StrongFocus);
    setFrameShape(QFrame::NoFrame);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    viewport()->setAttribute(Qt::WA_OpaquePaintEvent);
    viewport()->setAutoFillBackground(false);
    viewport()->setCursor(Qt::IBeamCursor);
    d->setUpStorage();
}

HXTextView::~HXTextView() {
    // The storage outlives the view when someone else holds it: it must not call back.
    QObject::disconnect(d->storage.get(), nullptr, this, nullptr);
}

void HXTextView::setContent(const std::shared_ptr<HXMutableString> &content) {
    d->content = content;
    d->preedit.clear();
    d->editor->commitAutomaticInsertion();
    d->rebuildingContent = true;
    d->storage->setContent(content);
    d->rebuildingContent = false;
    d->editor->setSelectedRange(HXRange{0, 0});
    d->relayoutAndRepaint();
}

std::shared_ptr<HXMutableString> HXTextView::content() const {
    return d->content;
}

HXTextEditor &HXTextView::editor() {
    return *d->editor;
}

HXTextStorage &HXTextView::textStorage() {
    return *d->storage;
}

void HXTextView::setTextFont(const QFont &font) {
    // The storage tells the view through stylesChanged, which lays out anew.
    d->storage->setFont(font);
}

QFont HXTextView::textFont() const {
    return d->storage->font();
}

void HXTextView::setMaximumColumnWidth(int pixels) {
    d->maximumColumnWidth = std::max(pixels, 1);
    if (d->updateMetrics()) {
        d->heights.reestimate([this](quint64 length) { return d->estimate(length); });
        d->layouts.clear();
    }
    d->relayoutAndRepaint();
}

bool HXTextView::isDark() const {
    return d->dark;
}

void HXTextView::setDark(bool dark) {
    d->darkOverride = dark;
    d->applyColorMode();
}

// --- Following the text ------------------------------------------------------------------------

double HXTextView::Private::estimate(quint64 length) const {
    if (length <= 1)
        return lineHeight;
    return std::ceil(qreal(length - 1) / charactersPerLine) * lineHeight;
}

bool HXTextView::Private::updateMetrics() {
    const QFont font = storage->font();
    typesetter.setBaseFont(font);
    typesetter.updateMetrics();
    const QFontMetricsF metrics(font);
    lineHeight = std::round((metrics.ascent() + metrics.descent()) *
                            std::max<qreal>(typesetter.lineHeightMultiple(), 1));
    const qreal side = typesetter.sideInset();
    const qreal viewportWidth = q->viewport()->width();
    const qreal column = std::max(
        std::min<qreal>(maximumColumnWidth, viewportWidth - 2 * side - 2 * horizontalMargin),
        8 * typesetter.nWidth());
    const qreal averageWidth = metrics.horizontalAdvance(sampleText) / qreal(sampleText.size());
    // Lines break at words, so they hold a little less than the column's width of characters.
    charactersPerLine = std::max<qreal>(1, 0.95 * column / std::max<qreal>(averageWidth, 1));
    const qreal width = column + 2 * side;
    containerLeft = std::round(std::max<qreal>(0, (viewportWidth - width) / 2));
    const bool changed = width != containerWidth;
    containerWidth = width;
    return changed;
}

void HXTextView::Private::rebuildHeights(bool fromTop) {
    const HXString &text = *storage->cachedContent();
    const quint64 length = text.length();
    std::vector<HXParagraphHeights::Paragraph> paragraphs;
    paragraphs.reserve(size_t(text.numberOfMapEntries()));
    text.enumerateChunksInRange(HXRange{0, length}, 0, [&](const HXChunk &, HXRange range, bool &) {
        paragraphs.push_back({range.length, estimate(range.length), false});
    });
    if (length == 0 || text.characterAtIndex(length - 1) == u'\n')
        paragraphs.push_back({0, estimate(0), false});
    heights.reset(paragraphs);
    layouts.clear();
    if (fromTop) {
        anchor = 0;
        anchorOffset = -topMargin;
    }
    anchor = std::clamp<qsizetype>(anchor, 0, heights.count() - 1);
}

void HXTextView::Private::textDidEdit(HXRange range, qint64 changeInLength) {
    const HXString &text = *storage->cachedContent();
    const quint64 total = text.length();
    const HXRange selection = editor->selectedRange();
    if (rebuildingContent || heights.count() == 0 ||
        qint64(heights.totalLength()) + changeInLength != qint64(total) || range.max() > total) {
        rebuildHeights(rebuildingContent);
        relayoutAndRepaint();
        if (selection.max() > total)
            editor->setSelectedRange(HXRange{std::min(selection.location, total), 0});
        Q_EMIT q->textDidChange();
        return;
    }

    // The paragraphs the old range spans, whole by the storage's making.
    const HXRange oldRange{range.location, quint64(qint64(range.length) - changeInLength)};
    quint64 at = 0;
    qsizetype first = heights.indexForLocation(oldRange.location, &at);
    if (at < oldRange.location)
        ++first;
    qsizetype end = first;
    if (oldRange.length > 0) {
        end = heights.indexForLocation(oldRange.max(), &at);
        if (at < oldRange.max())
            ++end;
    }
    double oldHeight = 0;
    for (qsizetype i = first; i < end; ++i)
        oldHeight += heights.at(i).height;
    std::vector<HXParagraphHeights::Paragraph> inserted;
    text.enumerateChunksInRange(range, 0, [&](const HXChunk &, HXRange paragraph, bool &) {
        inserted.push_back({paragraph.length, estimate(paragraph.length), false});
    });
    const qsizetype shift = qsizetype(inserted.size()) - (end - first);
    const bool reachesView = end > anchor;
    heights.replace(first, end - first, inserted);
    std::map<qsizetype, std::unique_ptr<HXParagraphLayout>> moved;
    for (auto &[index, layout] : layouts) {
        if (index < first)
            moved.emplace(index, std::move(layout));
        else if (index >= end)
            moved.emplace(index + shift, std::move(layout));
    }
    layouts = std::move(moved);
    if (anchor >= end)
        anchor += shift;
    else if (anchor >= first)
        anchor =
            first + std::min<qsizetype>(anchor - first,
                                        std::max<qsizetype>(qsizetype(inserted.size()) - 1, 0));

    // The empty paragraph behind a final line feed comes and goes with it.
    const bool wantsTrailer = total == 0 || text.characterAtIndex(total - 1) == u'\n';
    const qsizetype last = heights.count() - 1;
    const bool hasTrailer = last >= 0 && heights.at(last).length == 0;
    bool trailerChanged = false;
    if (wantsTrailer && !hasTrailer) {
        heights.replace(heights.count(), 0, {{0, estimate(0), false}});
        trailerChanged = true;
    } else if (!wantsTrailer && hasTrailer && last > 0) {
        heights.replace(last, 1, {});
        layouts.erase(last);
        trailerChanged = true;
    }
    if (heights.totalLength() != total || heights.count() == 0) {
        // Out of step with the storage: start again rather than show something else.
        rebuildHeights(false);
        relayoutAndRepaint();
        Q_EMIT q->textDidChange();
        return;
    }
    anchor = std::clamp<qsizetype>(anchor, 0, heights.count() - 1);
    const qsizetype keptAnchor = anchor;
    const double keptOffset = anchorOffset;
    normalizeAnchor();
    layOutWindow();
    syncScrollBar();

    // The text in view moves only when the edit reached the anchor's paragraph or below it;
    // the paragraph alone is repainted when its height stayed, else everything from it down.
    if (anchor != keptAnchor || anchorOffset != keptOffset) {
        q->viewport()->update();
    } else if (reachesView || trailerChanged) {
        const double top = heights.topOf(first) - viewTop();
        double newHeight = 0;
        for (qsizetype i = first; i < first + qsizetype(inserted.size()); ++i)
            newHeight += heights.at(i).height;
        const int viewportHeight = q->viewport()->height();
        const int y = int(std::floor(std::max<double>(top, 0)));
        const int bottom = shift == 0 && newHeight == oldHeight && !trailerChanged
                               ? int(std::ceil(top + newHeight))
                               : viewportHeight;
        if (bottom > y && y < viewportHeight)
            q->viewport()->update(QRect(0, y, q->viewport()->width(), bottom - y + 1));
    }

    // Another writer's edit (not one of the editor's, which sets the selection itself) moves
    // the selection behind it; nothing may leave it past the end.
    if (storage->editingLevel() <= 1 && oldRange.max() <= selection.location &&
        changeInLength != 0 && editor->selectedRange() == selection)
        editor->setSelectedRange(
            HXRange{quint64(qint64(selection.location) + changeInLength), selection.length});
    const HXRange current = editor->selectedRange();
    if (current.max() > total)
        editor->setSelectedRange(HXRange{std::min(current.location, total), 0});
    Q_EMIT q->textDidChange();
}

void HXTextView::Private::stylesDidChange() {
    updateMetrics();
    heights.reestimate([this](quint64 length) { return estimate(length); });
    layouts.clear();
    relayoutAndRepaint();
}

void HXTextView::Private::applyColorMode() {
    dark = darkOverride.value_or(paletteIsDark());
    storage->setColorMode(dark ? 1 : 0);
    q->viewport()->update();
}

// --- Layout and scrolling ------------------------------------------------------------------------

HXParagraphLayout &HXTextView::Private::ensureLayout(qsizetype index, quint64 location) {
    const auto found = layouts.find(index);
    if (found != layouts.end())
        return *found->second;
    auto layout = std::make_unique<HXParagraphLayout>();
    const HXString &text = *storage->cachedContent();
    const quint64 length = heights.at(index).length;
    if (length == 0) {
        layout->layoutParagraph(typesetter, text, HXRange{location, 0}, containerWidth, 0);
    } else {
        HXRange paragraph;
        const QList<QTextLayout::FormatRange> formats =
            storage->formatRangesForParagraphAtIndex(location, &paragraph);
        const QList<HXStyleRun> &runs = storage->styleRunsForParagraphAtIndex(location);
        // Tags are as wide as they are drawn: in the font of their run.
        const auto measure = [&](const QString &tagText, quint64 at) -> qreal {
            for (const HXStyleRun &run : runs) {
                if (paragraph.location + run.location + run.length > at)
                    return QFontMetricsF(run.format.font()).horizontalAdvance(tagText);
            }
            return QFontMetricsF(typesetter.baseFont()).horizontalAdvance(tagText);
        };
        layout->layoutParagraph(typesetter, text, paragraph, containerWidth, 0, formats, measure);
    }
    if (index < anchor && heights.at(index).height != layout->height())
        scrollBarIsStale = true;
    heights.setHeight(index, layout->height(), true);
    return *layouts.emplace(index, std::move(layout)).first->second;
}

void HXTextView::Private::layOutWindow() {
    if (heights.count() == 0)
        return;
    const double screen = std::max(q->viewport()->height(), 1);
    const qsizetype count = heights.count();
    const quint64 anchorLocation = heights.locationOf(anchor);
    double y = 0; // from the anchor's top
    quint64 location = anchorLocation;
    qsizetype index = anchor;
    for (; index < count && y < anchorOffset + 2 * screen; ++index) {
        ensureLayout(index, location);
        const HXParagraphHeights::Paragraph &paragraph = heights.at(index);
        y += paragraph.height;
        location += paragraph.length;
    }
    const qsizetype last = index - 1;
    y = 0;
    location = anchorLocation;
    for (index = anchor - 1; index >= 0 && y > anchorOffset - screen; --index) {
        location -= heights.at(index).length;
        y -= ensureLayout(index, location).height();
    }
    const qsizetype firstKept = index + 1;
    for (auto it = layouts.begin(); it != layouts.end();) {
        if (it->first < firstKept || it->first > last)
            it = layouts.erase(it);
        else
            ++it;
    }
}

void HXTextView::Private::normalizeAnchor() {
    const qsizetype count = heights.count();
    if (count == 0)
        return;
    anchor = std::clamp<qsizetype>(anchor, 0, count - 1);
    quint64 location = heights.locationOf(anchor);
    ensureLayout(anchor, location);
    while (anchorOffset >= heights.at(anchor).height && anchor + 1 < count) {
        anchorOffset -= heights.at(anchor).height;
        location += heights.at(anchor).length;
        ++anchor;
        ensureLayout(anchor, location);
    }
    while (anchorOffset < 0 && anchor > 0) {
        --anchor;
        location -= heights.at(anchor).length;
        anchorOffset += ensureLayout(anchor, location).height();
    }
    if (anchor == 0)
        anchorOffset = std::max<double>(anchorOffset, -topMargin);
    const double lowest = std::max<double>(-topMargin, heights.totalHeight() + bottomMargin -
                                                           q->viewport()->height());
    if (viewTop() > lowest) {
        double top = 0;
        anchor = heights.indexForY(lowest, &top);
        anchorOffset = lowest - top;
    }
}

void HXTextView::Private::syncScrollBar() {
    QScrollBar *bar = q->verticalScrollBar();
    const double screen = q->viewport()->height();
    const double total = topMargin + heights.totalHeight() + bottomMargin;
    const int maximum = std::max(0, int(std::ceil(total - screen)));
    const int value = int(std::lround(viewTop() + topMargin));
    scrollBarIsStale = false;
    syncingScrollBar = true;
    bar->setRange(0, maximum);
    bar->setPageStep(std::max(int(screen), 1));
    bar->setSingleStep(std::max(int(lineHeight), 1));
    bar->setValue(value);
    syncingScrollBar = false;
}

void HXTextView::Private::scrollToContentY(double y) {
    double top = 0;
    anchor = std::max<qsizetype>(heights.indexForY(y, &top), 0);
    anchorOffset = y - top;
}

void HXTextView::Private::relayoutAndRepaint() {
    normalizeAnchor();
    layOutWindow();
    normalizeAnchor();
    syncScrollBar();
    q->viewport()->update();
}

void HXTextView::resizeEvent(QResizeEvent *event) {
    QAbstractScrollArea::resizeEvent(event);
    if (d->updateMetrics()) {
        d->heights.reestimate([this](quint64 length) { return d->estimate(length); });
        d->layouts.clear();
    }
    d->relayoutAndRepaint();
}

void HXTextView::scrollContentsBy(int, int) {
    if (d->syncingScrollBar)
        return;
    d->scrollToContentY(verticalScrollBar()->value() - Private::topMargin);
    d->relayoutAndRepaint();
}

void HXTextView::scrollRangeToVisible(HXRange range) {
    if (d->heights.count() == 0)
        return;
    const Private::Position position = d->positionForIndex(range.location);
    const double screen = viewport()->height();
    const double margin = std::min<double>(d->lineHeight, screen / 4);
    // Anchored to the paragraph of the character itself, so that laying out the paragraphs
    // around it can't move it out of sight again.
    const double lineTop = position.lineRect.top() - position.paragraphTop;
    if (position.lineRect.top() < 0) {
        d->anchor = position.paragraph;
        d->anchorOffset = lineTop - margin;
    } else if (position.lineRect.bottom() > screen) {
        d->anchor = position.paragraph;
        d->anchorOffset = lineTop + position.lineRect.height() - screen + margin;
    } else {
        return;
    }
    d->relayoutAndRepaint();
}

quint64 HXTextView::firstVisibleParagraphLocation() const {
    return d->heights.count() ? d->heights.locationOf(d->anchor) : 0;
}

qreal HXTextView::firstVisibleParagraphOffset() const {
    return d->anchorOffset;
}

void HXTextView::scrollToParagraphLocation(quint64 location, qreal offset) {
    if (d->heights.count() == 0)
        return;
    d->anchor = d->heights.indexForLocation(location);
    d->anchorOffset = offset;
    d->relayoutAndRepaint();
}

int HXTextView::paintCount() const {
    return d->paints;
}

int HXTextView::numberOfLaidOutParagraphs() const {
    return int(d->layouts.size());
}

void HXTextView::checkInvariants() const {
    d->heights.checkInvariants();
    const HXString &text = *d->storage->cachedContent();
    qsizetype index = 0;
    quint64 location = 0;
    text.enumerateChunksInRange(
        HXRange{0, text.length()}, 0, [&](const HXChunk &, HXRange range, bool &) {
            HX_ASSERT(index < d->heights.count() && d->heights.at(index).length == range.length,
                      u"Paragraph %ld at %lu differs from the text's.", qint64(index), location);
            location += range.length;
            ++index;
        });
    const bool trailer = text.length() == 0 || text.characterAtIndex(text.length() - 1) == u'\n';
    HX_ASSERT(d->heights.count() == index + (trailer ? 1 : 0),
              u"%ld paragraph heights for %ld paragraphs.", qint64(d->heights.count()),
              qint64(index));
    // A layout moves with its paragraph, keeping its text, which must be the paragraph's.
    for (const auto &[laidOut, layout] : d->layouts) {
        HX_ASSERT(laidOut < d->heights.count() && d->heights.at(laidOut).isExact &&
                      d->heights.at(laidOut).height == layout->height(),
                  u"Layout of paragraph %ld is stale.", qint64(laidOut));
        QString paragraph = text.flatSubstringWithRange(
            HXRange{d->heights.locationOf(laidOut), d->heights.at(laidOut).length});
        if (paragraph.endsWith(u'\n'))
            paragraph.chop(1);
        HX_ASSERT(layout->textLayout()->text() == paragraph.replace(u'\t', u' '),
                  u"Layout of paragraph %ld shows \"%@\" for \"%@\".", qint64(laidOut),
                  layout->textLayout()->text(), paragraph);
    }
}

// --- Geometry ------------------------------------------------------------------------------------

HXTextView::Private::Position HXTextView::Private::positionForIndex(quint64 index) {
    Position position;
    index = std::min(index, heights.totalLength());
    double top = 0;
    position.paragraph = heights.indexForLocation(index, &position.paragraphLocation, &top);
    const HXParagraphLayout &layout = ensureLayout(position.paragraph, position.paragraphLocation);
    position.paragraphTop = top - viewTop();
    const QTextLayout *textLayout = layout.textLayout();
    position.offset = int(
        std::min<quint64>(index - position.paragraphLocation, quint64(textLayout->text().size())));
    if (textLayout->lineCount() == 0) {
        const qreal x = containerLeft + typesetter.sideInset();
        position.caret = QRectF(x, position.paragraphTop, 2, lineHeight);
        position.lineRect = QRectF(0, position.paragraphTop, q->viewport()->width(), lineHeight);
        position.isFirstLine = position.isLastLine = true;
        return position;
    }
    QTextLine line = textLayout->lineForTextPosition(position.offset);
    if (!line.isValid())
        line = textLayout->lineAt(textLayout->lineCount() - 1);
    position.line = line.lineNumber();
    position.isFirstLine = position.line == 0;
    position.isLastLine = position.line == textLayout->lineCount() - 1;
    const HXLineFragment &fragment = layout.lineFragments().at(position.line);
    position.lineRect = QRectF(0, position.paragraphTop + fragment.rect.y() - layout.top(),
                               q->viewport()->width(), fragment.rect.height());
    position.caret =
        QRectF(containerLeft + line.cursorToX(position.offset),
               position.paragraphTop + line.y() - layout.top(), 2, line.ascent() + line.descent());
    return position;
}

quint64 HXTextView::Private::indexForPoint(QPointF point) {
    if (heights.count() == 0)
        return 0;
    const double y = point.y() + viewTop();
    double top = 0;
    quint64 location = 0;
    const qsizetype index = heights.indexForY(y, &top, &location);
    const HXParagraphLayout &layout = ensureLayout(index, location);
    const QTextLayout *textLayout = layout.textLayout();
    if (textLayout->lineCount() == 0)
        return location;
    const QList<HXLineFragment> &fragments = layout.lineFragments();
    const double inside = y - top + layout.top();
    int lineNumber = 0;
    while (lineNumber + 1 < fragments.size() && fragments.at(lineNumber).rect.bottom() <= inside)
        ++lineNumber;
    const QTextLine line = textLayout->lineAt(lineNumber);
    int offset = line.xToCursor(point.x() - containerLeft);
    // Past the end of a wrapped line the caret stays on it, in front of the blank that ends it.
    const int lineEnd = line.textStart() + line.textLength();
    if (offset >= lineEnd && lineNumber + 1 < textLayout->lineCount() &&
        lineEnd > line.textStart() && textLayout->text().at(lineEnd - 1).isSpace())
        offset = lineEnd - 1;
    return location + quint64(std::max(offset, 0));
}

QRect HXTextView::Private::rectForRange(HXRange range) {
    if (heights.count() == 0)
        return QRect();
    const quint64 length = heights.totalLength();
    double top = 0, bottom = 0;
    heights.indexForLocation(std::min(range.location, length), nullptr, &top);
    const qsizetype last =
        heights.indexForLocation(std::min(range.max(), length), nullptr, &bottom);
    bottom += heights.at(last).height;
    const double shift = viewTop();
    const QRect band(0, int(std::floor(top - shift)), q->viewport()->width(),
                     int(std::ceil(bottom - top)) + 2);
    return band & q->viewport()->rect();
}

void HXTextView::Private::updateRange(HXRange range) {
    const QRect rect = rectForRange(range);
    if (!rect.isEmpty())
        q->viewport()->update(rect);
}

QRectF HXTextView::caretRectForIndex(quint64 index) {
    const QRectF caret = d->positionForIndex(index).caret;
    if (d->scrollBarIsStale)
        d->syncScrollBar();
    return caret;
}

bool HXTextView::event(QEvent *event) {
    switch (event->type()) {
    case QEvent::ApplicationPaletteChange:
    case QEvent::PaletteChange:
        if (!d->darkOverride)
            d->applyColorMode();
        break;
    case QEvent::ShortcutOverride: {
        auto *key = static_cast<QKeyEvent *>(event);
        if (d->overridesShortcut(key)) {
            event->accept();
            return true;
        }
        break;
    }
    case QEvent::KeyPress: {
        // Tab is a character here, not a way out of the view.
        auto *key = static_cast<QKeyEvent *>(event);
        if ((key->key() == Qt::Key_Tab || key->key() == Qt::Key_Backtab) &&
            !(key->modifiers() & (Qt::ControlModifier | Qt::AltModifier))) {
            keyPressEvent(key);
            return true;
        }
        break;
    }
    default:
        break;
    }
    return QAbstractScrollArea::event(event);
}

void HXTextView::focusInEvent(QFocusEvent *event) {
    QAbstractScrollArea::focusInEvent(event);
    d->restartBlinking();
    d->updateRange(HXRange{d->editor->selectedRange().location, 0});
}

void HXTextView::focusOutEvent(QFocusEvent *event) {
    QAbstractScrollArea::focusOutEvent(event);
    d->blinkTimer.stop();
    viewport()->update(d->paintedCaretRect.adjusted(-1, -1, 1, 1));
}
