#pragma once

#include "TextSystem/Actor/HXTextEditor.h"

#include <QAbstractScrollArea>

#include <memory>

class HXMutableString;

// The editor widget: a scroll area over a sheet's own string. It draws the paragraphs that are
// visible (plus about a screen either side) from one paragraph layout each, keeps the heights of
// all paragraphs in a prefix-sum structure (estimated until laid out), and anchors scrolling to a
// paragraph and an offset inside it, so that nothing it does per keystroke or per frame grows with
// the length of the text. Keys, input methods and the clipboard go through its `HXTextEditor`.
//
// Owned by its parent widget; main thread.
class HXTextView : public QAbstractScrollArea {
    Q_OBJECT

public:
    explicit HXTextView(QWidget *parent = nullptr);
    ~HXTextView() override;

    // Shows the string and edits it; null shows nothing. The string's undo manager (if any) takes
    // the undo steps. The view is laid out from the top.
    void setContent(const std::shared_ptr<HXMutableString> &content);
    std::shared_ptr<HXMutableString> content() const;

    HXTextEditor &editor();
    HXTextStorage &textStorage();

    // The base font of the text, and the width of the text column (the view centres it).
    void setTextFont(const QFont &font);
    QFont textFont() const;
    void setMaximumColumnWidth(int pixels);

    // Whether keys, input methods, paste, cut and undo may change the text.
    bool isReadOnly() const;
    void setReadOnly(bool readOnly);

    // Whether the colours of the dark mode are used. Follows the application palette unless set.
    bool isDark() const;
    void setDark(bool dark);

    // Selection in UTF-16 code units of the string.
    HXRange selectedRange() const;
    void setSelectedRange(HXRange range);
    // Scrolls so that the character is visible.
    void scrollRangeToVisible(HXRange range);

    // The paragraph at the top of the visible area, and how far it is scrolled past its top.
    quint64 firstVisibleParagraphLocation() const;
    qreal firstVisibleParagraphOffset() const;
    void scrollToParagraphLocation(quint64 location, qreal offset = 0);

    // Geometry of a character, in viewport coordinates: its caret rectangle.
    QRectF caretRectForIndex(quint64 index);

    // How often the viewport has painted, and how many paragraph layouts are held: for tests and
    // benchmarks.
    int paintCount() const;
    int numberOfLaidOutParagraphs() const;
    // The paragraph heights and layouts against the storage's text: the assertion on a
    // difference. For tests.
    void checkInvariants() const;

    // The clipboard form of a string, next to plain text.
    static inline const QString stringPasteboardType =
        QStringLiteral("com.quaytor.velmora3.string");

public slots:
    void copy();
    void cut();
    void paste();
    void undo();
    void redo();
    void selectAll();

signals:
    // The text changed by the user or by another writer.
    void textDidChange();
    void selectionDidChange();

protected:
    bool event(QEvent *event) override;
    void paintEvent(QPaintEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;
    void scrollContentsBy(int dx, int dy) override;
    void keyPressEvent(QKeyEvent *event) override;
    void inputMethodEvent(QInputMethodEvent *event) override;
    QVariant inputMethodQuery(Qt::InputMethodQuery query) const override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseDoubleClickEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void focusInEvent(QFocusEvent *event) override;
    void focusOutEvent(QFocusEvent *event) override;

private:
    struct Private;
    std::unique_ptr<Private> d;
};
