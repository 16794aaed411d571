#pragma once

#include "App/Editor/HXParagraphHeights.h"
#include "App/Editor/HXTextView.h"
#include "TextSystem/Components/HXParagraphLayout.h"
#include "TextSystem/Components/HXTextStorage.h"

#include <QKeyEvent>
#include <QTimer>

#include <functional>
#include <map>
#include <optional>

// The editor of a view: tells the view whenever the selection is set, by whomever.
class HXTextViewEditor final : public HXTextEditor {
public:
    HXTextViewEditor(std::shared_ptr<HXTextStorage> storage, std::function<void()> changed)
        : HXTextEditor(std::move(storage))
        , m_changed(std::move(changed)) {}

    void setSelectedRanges(const QList<HXRange> &ranges) override {
        HXTextEditor::setSelectedRanges(ranges);
        if (m_changed)
            m_changed();
    }

private:
    std::function<void()> m_changed;
};

// The state of an HXTextView behind its public face, shared by the sources of the view: the
// paragraph heights and the paragraph layouts of the window around the visible area, the scroll
// anchor, the look and the caret. Owned by its view; main thread.
//
// Coordinates: "content" y runs from the top of the first paragraph; the viewport's top lies at
// content y topOf(anchor) + anchorOffset, so that heights changing above the anchor move the
// scroll bar but not the text. Every paragraph of the text has an entry in `heights`, and the
// text has one more, empty, behind a final line feed (or when it is empty), where the caret can
// stand; `layouts` holds layouts only for indexes of `heights`, laid out at their present text.
struct HXTextView::Private {
    explicit Private(HXTextView *view);

    HXTextView *q;
    std::shared_ptr<HXTextStorage> storage = std::make_shared<HXTextStorage>();
    std::unique_ptr<HXTextViewEditor> editor;
    std::shared_ptr<HXMutableString> content;
    // A sheet that may be read but not changed (one in the trash).
    bool readOnly = false;
    bool isEditable() const { return content && !readOnly; }
    HXTypesetter typesetter;
    HXParagraphHeights heights;
    std::map<qsizetype, std::unique_ptr<HXParagraphLayout>> layouts;

    // Geometry of the column and of the estimates.
    int maximumColumnWidth = 680;
    qreal containerWidth = 0;
    qreal containerLeft = 0;
    qreal lineHeight = 0;
    qreal charactersPerLine = 1;
    static constexpr qreal topMargin = 40;
    static constexpr qreal bottomMargin = 80;
    static constexpr qreal horizontalMargin = 16;

    // Scrolling.
    qsizetype anchor = 0;
    double anchorOffset = -topMargin;
    bool syncingScrollBar = false;
    // A paragraph above the anchor was laid out to another height since the last sync.
    bool scrollBarIsStale = false;
    // setContent is under way: the storage's edit is a new text, shown from the top.
    bool rebuildingContent = false;

    // Look.
    std::optional<bool> darkOverride;
    bool dark = false;

    // Caret, selection and input.
    QTimer blinkTimer;
    bool caretVisible = true;
    quint64 selectionAnchor = 0;
    bool extendingSelection = false;
    std::optional<qreal> goalX;
    HXRange paintedSelection{0, 0};
    HXRange paintedAutoInsertion = HXNotFoundRange();
    QRect paintedCaretRect;
    QString preedit;
    bool selectingWithMouse = false;
    bool selectingWords = false;
    HXRange mouseWord = HXNotFoundRange();
    int paints = 0;

    // --- Model ---------------------------------------------------------------------------
    void setUpStorage();
    // The height a paragraph of the length is given until it is laid out.
    double estimate(quint64 length) const;
    // The metrics of the typesetter and the estimates, and the column's place in the viewport;
    // whether the width of the layouts changed.
    bool updateMetrics();
    // All paragraphs anew from the storage's twin, estimated, without laying out.
    void rebuildHeights(bool fromTop);
    // Follows an edit of the storage: the paragraphs of the range (present coordinates) in
    // place of the old ones, the layouts and the anchor moved, and one rectangle repainted.
    void textDidEdit(HXRange range, qint64 changeInLength);
    void stylesDidChange();
    void applyColorMode();

    // --- Layout and scrolling -------------------------------------------------------------
    HXParagraphLayout &ensureLayout(qsizetype index, quint64 location);
    // Lays out the visible paragraphs and about a screen either side; drops the others.
    void layOutWindow();
    // Moves the anchor to the paragraph that holds the viewport's top, within the text.
    void normalizeAnchor();
    void syncScrollBar();
    double viewTop() const { return heights.topOf(anchor) + anchorOffset; }
    void scrollToContentY(double y);
    // Everything that a change of anchor, size or heights asks for, and a repaint.
    void relayoutAndRepaint();

    // --- Geometry (viewport coordinates) ---------------------------------------------------
    struct Position {
        qsizetype paragraph = 0;
        quint64 paragraphLocation = 0;
        int offset = 0; // in the paragraph's layout text
        double paragraphTop = 0;
        int line = 0;
        QRectF caret;
        QRectF lineRect;
        bool isFirstLine = false;
        bool isLastLine = false;
    };
    Position positionForIndex(quint64 index);
    quint64 indexForPoint(QPointF point);
    // The band of the viewport that the paragraphs of the range cover.
    QRect rectForRange(HXRange range);
    void updateRange(HXRange range);

    // --- Selection and keys ----------------------------------------------------------------
    void selectionDidChange();
    quint64 selectionHead() const;
    // Puts the caret at the index, or extends the selection from its anchor to it.
    void moveTo(quint64 index, bool extend, bool keepGoalX = false);
    quint64 characterStep(quint64 index, bool forward) const;
    quint64 wordStep(quint64 index, bool forward);
    HXRange wordRangeAtIndex(quint64 index);
    void restartBlinking();
    bool overridesShortcut(QKeyEvent *event) const;
    void moveVertically(int direction, bool extend);
    void movePage(int direction, bool extend);
    void afterUserEdit();

    // --- Painting ------------------------------------------------------------------------
    QColor textColor() const;
    QColor backgroundColor() const;
    QColor selectionColor() const;
    void paintParagraph(QPainter &painter, qsizetype index, quint64 location, double top);
};
