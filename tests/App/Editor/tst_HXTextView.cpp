#include "App/Editor/HXParagraphHeights.h"
#include "App/Editor/HXTextView.h"
#include "HXTestSupport.h"
#include "Text/Markup/HXMarkup.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Text/String/Access/HXStringXML.h"
#include "Text/String/Nodes/HXTextElement.h"
#include "Utilities/HXUndoManager.h"

#include <QApplication>
#include <QClipboard>
#include <QInputMethodEvent>
#include <QMimeData>
#include <QPaintEvent>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QScrollBar>
#include <QtTest>

using namespace Qt::StringLiterals;

namespace {

std::shared_ptr<HXMarkup> markup() {
    return HXMarkup::intrinsicMarkups().value(u"markdownqr"_s);
}

// A shown view over a string with undo, in the test's font.
struct Sheet {
    std::shared_ptr<HXAtomicString> string = HXAtomicString::stringWithMarkup(markup());
    std::shared_ptr<HXUndoManager> undo = std::make_shared<HXUndoManager>();
    HXTextView view;

    explicit Sheet(const QString &text, QSize size = QSize(700, 500)) {
        string->setString(text);
        string->setUndoManager(undo);
        view.setTextFont(QFont(u"DejaVu Sans"_s, 12));
        view.resize(size);
        view.show();
        view.setFocus();
        view.setContent(string);
        QCoreApplication::processEvents();
    }
    QString text() const { return string->string(); }
    void send(int key, Qt::KeyboardModifiers modifiers = {}, const QString &text = {}) {
        QKeyEvent event(QEvent::KeyPress, key, modifiers, text);
        QApplication::sendEvent(&view, &event);
        view.checkInvariants();
    }
    void send(QKeySequence::StandardKey standard) {
        const QKeyCombination combination = QKeySequence(standard)[0];
        send(combination.key(), combination.keyboardModifiers());
    }
    // Keys as a user types them: characters, and {Name} for the others.
    void type(const QString &script) {
        static const QHash<QString, QPair<int, Qt::KeyboardModifiers>> keys{
            {u"Return"_s, {Qt::Key_Return, {}}},
            {u"Backspace"_s, {Qt::Key_Backspace, {}}},
            {u"Delete"_s, {Qt::Key_Delete, {}}},
            {u"Tab"_s, {Qt::Key_Tab, {}}},
            {u"Left"_s, {Qt::Key_Left, {}}},
            {u"Right"_s, {Qt::Key_Right, {}}},
            {u"S-Left"_s, {Qt::Key_Left, Qt::ShiftModifier}},
            {u"C-Left"_s, {Qt::Key_Left, Qt::ControlModifier}},
            {u"Up"_s, {Qt::Key_Up, {}}},
            {u"Down"_s, {Qt::Key_Down, {}}},
            {u"Home"_s, {Qt::Key_Home, {}}},
            {u"End"_s, {Qt::Key_End, {}}},
            {u"C-End"_s, {Qt::Key_End, Qt::ControlModifier}},
            {u"PageDown"_s, {Qt::Key_PageDown, {}}}};
        static const QRegularExpression token(u"\\{([^}]+)\\}|(.)"_s,
                                              QRegularExpression::DotMatchesEverythingOption);
        for (const QRegularExpressionMatch &match : token.globalMatch(script)) {
            if (match.captured(1) == u"SelectAll")
                send(QKeySequence::SelectAll);
            else if (match.captured(1) == u"Undo")
                send(QKeySequence::Undo);
            else if (!match.captured(1).isEmpty())
                send(keys.value(match.captured(1)).first, keys.value(match.captured(1)).second);
            else
                send(0, {}, match.captured(2));
        }
    }
};

// Paragraphs of varied length, a blank line between them as in a manuscript.
QString manuscript(int paragraphs) {
    QRandomGenerator random(7);
    QString text;
    for (int p = 0; p < paragraphs; ++p) {
        text += u"Paragraph %1"_s.arg(p);
        for (int w = int(random.bounded(60)); w > 0; --w)
            text += u" word"_s;
        text += u"\n\n"_s;
    }
    return text;
}

// Records the regions the viewport paints.
class PaintSpy : public QObject {
public:
    QRegion region;
    bool eventFilter(QObject *, QEvent *event) override {
        if (event->type() == QEvent::Paint)
            region += static_cast<QPaintEvent *>(event)->region();
        return false;
    }
};

} // namespace

class tst_HXTextView : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void paragraphHeights();
    void typing_data();
    void typing();
    void undoRedo();
    void clipboard();
    void inputMethod();
    void caretGeometry();
    void keystrokeRepaintsOneParagraph();
    void scrollAnchoring();
    void otherWriter();
    void appearance();
};

// The block structure against a plain list of paragraphs, through random splices and changes of
// height; small blocks so that they split and merge often.
void tst_HXTextView::paragraphHeights() {
    using Paragraph = HXParagraphHeights::Paragraph;
    QRandomGenerator random(11);
    HXParagraphHeights heights(4);
    std::vector<Paragraph> oracle;
    const auto make = [&](qsizetype count) {
        std::vector<Paragraph> made;
        for (qsizetype k = 0; k < count; ++k)
            made.push_back({random.bounded(5u), double(random.bounded(1, 40)), false});
        return made;
    };
    for (int step = 0; step < 3000; ++step) {
        const int action = int(random.bounded(10));
        if (action == 0 || oracle.empty()) {
            oracle = make(random.bounded(60));
            heights.reset(oracle);
        } else if (action < 4) {
            const qsizetype index = random.bounded(int(oracle.size()));
            const double height = double(random.bounded(1, 40));
            heights.setHeight(index, height, true);
            oracle[size_t(index)] = {oracle[size_t(index)].length, height, true};
        } else {
            const qsizetype index = random.bounded(int(oracle.size()) + 1);
            const qsizetype removed =
                random.bounded(int(std::min<qsizetype>(qsizetype(oracle.size()) - index, 12)) + 1);
            const std::vector<Paragraph> inserted = make(random.bounded(action == 9 ? 40 : 4));
            heights.replace(index, removed, inserted);
            oracle.erase(oracle.begin() + index, oracle.begin() + index + removed);
            oracle.insert(oracle.begin() + index, inserted.begin(), inserted.end());
        }
        heights.checkInvariants();
        QCOMPARE(heights.count(), qsizetype(oracle.size()));
        quint64 location = 0;
        double top = 0;
        for (size_t i = 0; i < oracle.size(); ++i) {
            QCOMPARE(heights.at(qsizetype(i)), oracle[i]);
            location += oracle[i].length;
            top += oracle[i].height;
        }
        QCOMPARE(heights.totalLength(), location);
        QCOMPARE(heights.totalHeight(), top);
        if (oracle.empty())
            continue;
        // Lookups: the last paragraph starting at or before a location, the one covering a y.
        const quint64 probe = random.bounded(location + 2);
        const double y = double(random.bounded(int(top) + 10)) - 5;
        qsizetype byLocation = 0, byY = 0;
        quint64 start = 0;
        double height = 0;
        for (size_t i = 0; i + 1 < oracle.size(); ++i) {
            if (start + oracle[i].length <= probe)
                byLocation = qsizetype(i + 1);
            if (height + oracle[i].height <= y)
                byY = qsizetype(i + 1);
            start += oracle[i].length;
            height += oracle[i].height;
        }
        quint64 foundLocation = 0;
        double foundTop = 0;
        QCOMPARE(heights.indexForLocation(probe, &foundLocation, &foundTop), byLocation);
        QCOMPARE(foundLocation, heights.locationOf(byLocation));
        QCOMPARE(foundTop, heights.topOf(byLocation));
        QCOMPARE(heights.indexForY(y), byY);
    }
}

void tst_HXTextView::typing_data() {
    QTest::addColumn<QString>("text");
    QTest::addColumn<quint64>("caret");
    QTest::addColumn<QString>("keys");
    QTest::addColumn<QString>("expected");
    QTest::addColumn<quint64>("expectedCaret");
    QTest::newRow("type and erase")
        << u"hello"_s << 5ull << u"{Backspace}{Backspace}p"_s << u"help"_s << 4ull;
    QTest::newRow("list goes on") << u"* a"_s << 3ull << u"{Return}"_s << u"* a\n* "_s << 6ull;
    QTest::newRow("list ends") << u"* a"_s << 3ull << u"{Return}{Return}"_s << u"* a\n\n"_s << 5ull;
    QTest::newRow("typing over the marker")
        << u"* a"_s << 3ull << u"{Return}b"_s << u"* a\n* b"_s << 7ull;
    QTest::newRow("surrogate pair")
        << u"a\U0001F600b"_s << 1ull << u"{Right}{Backspace}"_s << u"ab"_s << 1ull;
    QTest::newRow("typed pair") << u"ab"_s << 1ull << u"\U0001F600{Left}x"_s << u"ax\U0001F600b"_s
                                << 2ull;
    QTest::newRow("shift extends") << u"abc"_s << 3ull << u"{S-Left}{S-Left}x"_s << u"ax"_s << 2ull;
    QTest::newRow("word left") << u"one two"_s << 7ull << u"{C-Left}{Delete}"_s << u"one wo"_s
                               << 4ull;
    QTest::newRow("home and end") << u"line\nnext"_s << 2ull << u"{End}!{Home}>"_s
                                  << u">line!\nnext"_s << 1ull;
    QTest::newRow("down and up") << u"abc\ndef"_s << 1ull << u"{Down}1{Up}2"_s << u"ab2c\nd1ef"_s
                                 << 3ull;
    QTest::newRow("to the end") << u"a\nb\nc"_s << 0ull << u"{C-End}{Tab}"_s << u"a\nb\nc\t"_s
                                << 6ull;
    QTest::newRow("select all") << u"x\ny"_s << 1ull << u"{SelectAll}z"_s << u"z"_s << 1ull;
    QTest::newRow("undo by key") << u"ab"_s << 2ull << u"cd{Undo}"_s << u"ab"_s << 2ull;
}

void tst_HXTextView::typing() {
    QFETCH(QString, text);
    QFETCH(quint64, caret);
    QFETCH(QString, keys);
    QFETCH(QString, expected);
    QFETCH(quint64, expectedCaret);
    Sheet sheet(text);
    sheet.view.setSelectedRange(HXRange{caret, 0});
    sheet.type(keys);
    QCOMPARE(sheet.text(), expected);
    QCOMPARE(sheet.view.selectedRange(), (HXRange{expectedCaret, 0}));
    sheet.view.textStorage().checkInvariants();
}

// A random session of keys, undone back to the first text and redone to the last, with the
// selection inside the text at every step.
void tst_HXTextView::undoRedo() {
    const QString first = u"# Title\n\n* item\nSome **strong** words.\n"_s;
    Sheet sheet(first);
    QRandomGenerator random(5);
    static const QStringList steps{u"word "_s,  u"{Return}"_s, u"{Backspace}"_s, u"{Delete}"_s,
                                   u"{Left}"_s, u"{Right}"_s,  u"{S-Left}"_s,    u"**"_s,
                                   u"{Up}"_s,   u"{Down}"_s,   u"{Tab}"_s,       u"* "_s};
    int textChanges = 0;
    connect(&sheet.view, &HXTextView::textDidChange, [&] { ++textChanges; });
    for (int step = 0; step < 150; ++step)
        sheet.type(steps.at(random.bounded(int(steps.size()))));
    QVERIFY(textChanges > 50);
    const QString last = sheet.text();
    QVERIFY(last != first);
    int undone = 0;
    while (sheet.undo->canUndo()) {
        sheet.view.undo();
        ++undone;
        sheet.view.checkInvariants();
        QVERIFY(sheet.view.selectedRange().max() <= quint64(sheet.text().size()));
    }
    QCOMPARE(sheet.text(), first);
    for (int k = 0; k < undone; ++k)
        sheet.view.redo();
    QCOMPARE(sheet.text(), last);
    sheet.view.textStorage().checkInvariants();
}

void tst_HXTextView::clipboard() {
    Sheet sheet(u"plain **bold** end"_s);
    QClipboard *clipboard = QGuiApplication::clipboard();
    sheet.view.setSelectedRange(HXRange{6, 8});
    sheet.view.copy();
    QCOMPARE(clipboard->mimeData()->text(), u"**bold**"_s);
    QVERIFY(clipboard->mimeData()->hasFormat(HXTextView::stringPasteboardType));
    sheet.view.setSelectedRange(HXRange{18, 0});
    sheet.view.paste();
    QCOMPARE(sheet.text(), u"plain **bold** end**bold**"_s);
    QCOMPARE(sheet.view.selectedRange(), (HXRange{26, 0}));

    // The string's own form wins over plain text; plain text is the fallback.
    const auto source = HXString::stringWithString(u"*x*"_s, markup());
    auto both = new QMimeData;
    both->setData(HXTextView::stringPasteboardType, HXStringXML::pasteboardPropertyListForType(
                                                        *source, HXTextView::stringPasteboardType));
    both->setText(u"PLAIN"_s);
    clipboard->setMimeData(both);
    sheet.view.setSelectedRange(HXRange{0, 5});
    sheet.view.paste();
    QCOMPARE(sheet.text(), u"*x* **bold** end**bold**"_s);
    auto plain = new QMimeData;
    plain->setText(u"a\r\nb"_s);
    clipboard->setMimeData(plain);
    sheet.view.paste();
    QCOMPARE(sheet.text(), u"*x*a\nb **bold** end**bold**"_s);
    sheet.view.undo();
    QCOMPARE(sheet.text(), u"*x* **bold** end**bold**"_s);
    sheet.view.undo();
    QCOMPARE(sheet.text(), u"plain **bold** end**bold**"_s);

    sheet.view.setSelectedRange(HXRange{0, 6});
    sheet.view.cut();
    QCOMPARE(sheet.text(), u"**bold** end**bold**"_s);
    QCOMPARE(clipboard->text(), u"plain "_s);
    sheet.view.checkInvariants();

    // A sheet that is only read takes no keys, pastes, cuts or undo; copying still works.
    sheet.view.setReadOnly(true);
    sheet.view.setSelectedRange(HXRange{0, 8});
    QTest::keyClicks(&sheet.view, u"x"_s);
    sheet.view.copy();
    sheet.view.paste();
    sheet.view.cut();
    sheet.view.undo();
    QInputMethodEvent commit;
    commit.setCommitString(u"y"_s);
    QApplication::sendEvent(&sheet.view, &commit);
    QCOMPARE(sheet.text(), u"**bold** end**bold**"_s);
    QCOMPARE(clipboard->text(), u"**bold**"_s);
}

void tst_HXTextView::inputMethod() {
    Sheet sheet(u"first\nab"_s);
    sheet.view.setSelectedRange(HXRange{7, 0});
    const auto query = [&](Qt::InputMethodQuery what) {
        QInputMethodQueryEvent event(what);
        QApplication::sendEvent(&sheet.view, &event);
        return event.value(what);
    };
    QVERIFY(query(Qt::ImEnabled).toBool());
    QVERIFY(sheet.view.testAttribute(Qt::WA_InputMethodEnabled));

    QInputMethodEvent composing(u"ni"_s, {});
    QApplication::sendEvent(&sheet.view, &composing);
    QCOMPARE(sheet.text(), u"first\nab"_s);
    QCOMPARE(query(Qt::ImSurroundingText).toString(), u"ab"_s);
    QCOMPARE(query(Qt::ImCursorPosition).toInt(), 1);
    QCOMPARE(query(Qt::ImCursorRectangle).toRect(), sheet.view.caretRectForIndex(7).toRect());

    QInputMethodEvent commit;
    commit.setCommitString(u"\u4f60"_s);
    QApplication::sendEvent(&sheet.view, &commit);
    QCOMPARE(sheet.text(), u"first\na\u4f60b"_s);
    QCOMPARE(query(Qt::ImCursorPosition).toInt(), 2);

    // A commit that replaces the character in front of the caret.
    QInputMethodEvent replace;
    replace.setCommitString(u"X"_s, -1, 1);
    QApplication::sendEvent(&sheet.view, &replace);
    QCOMPARE(sheet.text(), u"first\naXb"_s);
    sheet.view.setSelectedRange(HXRange{6, 2});
    QCOMPARE(query(Qt::ImAnchorPosition).toInt(), 0);
    QCOMPARE(query(Qt::ImCurrentSelection).toString(), u"aX"_s);
}

// Positions from the layout: tags hang in the margin, wrapped lines start where the first did,
// paragraphs follow one another, and a click at a caret's place puts the caret there.
void tst_HXTextView::caretGeometry() {
    const QString long_ = u"A long paragraph that goes on and on, "_s.repeated(6);
    const QString text =
        u"Plain line\n## Heading\n"_s + long_ +
        u"\n* item [[link]] after\n> A quote with **strong** and *emphasis* words.\n"_s;
    Sheet sheet(text, QSize(600, 500));
    HXTextView &view = sheet.view;
    // A link entity in the list item, for the screenshot.
    const quint64 link = quint64(sheet.text().indexOf(u"[[link]]"_s));
    sheet.string->replaceCharactersInRange(
        HXRange{link, 8}, HXString::stringWithTextElement(HXTextElement::elementWithURLString(
                              u"https://example.org"_s, u"link"_s,
                              markup()->tagWithIdentifier(u"link"_s), markup())));
    const quint64 heading = 14, paragraph = 22;
    const QRectF start = view.caretRectForIndex(0);
    QCOMPARE(view.caretRectForIndex(heading).x(), start.x());
    QVERIFY(view.caretRectForIndex(11).y() >= start.bottom());

    quint64 wrapped = 0;
    for (quint64 i = paragraph + 1; i < paragraph + quint64(long_.size()); ++i) {
        const QRectF here = view.caretRectForIndex(i), before = view.caretRectForIndex(i - 1);
        if (here.y() > before.y()) {
            wrapped = i;
            break;
        }
        QVERIFY2(here.x() > before.x(), qPrintable(QString::number(i)));
    }
    QVERIFY(wrapped > paragraph);
    QCOMPARE(view.caretRectForIndex(wrapped).x(), view.caretRectForIndex(paragraph).x());

    for (const quint64 index : {quint64(3), heading, paragraph + 5, wrapped, wrapped + 4}) {
        const QRectF caret = view.caretRectForIndex(index);
        QTest::mouseClick(view.viewport(), Qt::LeftButton, {},
                          QPointF(caret.x() + 1, caret.center().y()).toPoint());
        QCOMPARE(view.selectedRange(), (HXRange{index, 0}));
    }
    // Down keeps the column; a double click selects the word.
    view.setSelectedRange(HXRange{paragraph + 5, 0});
    sheet.type(u"{Down}"_s);
    const QRectF below = view.caretRectForIndex(view.selectedRange().location);
    QVERIFY(std::abs(below.x() - view.caretRectForIndex(paragraph + 5).x()) < 8);
    QCOMPARE(below.y(), view.caretRectForIndex(wrapped).y());
    const QRectF word = view.caretRectForIndex(paragraph + 3);
    QTest::mouseDClick(view.viewport(), Qt::LeftButton, {},
                       QPointF(word.x() + 2, word.center().y()).toPoint());
    QCOMPARE(view.selectedRange(), (HXRange{paragraph + 2, 4}));

    QDir().mkpath(QDir::currentPath() + u"/screenshots"_s);
    QVERIFY(view.grab().save(QDir::currentPath() + u"/screenshots/tst_HXTextView.png"_s));
}

void tst_HXTextView::keystrokeRepaintsOneParagraph() {
    QString text = manuscript(40);
    text.insert(text.indexOf(u"Paragraph 3"_s), u"Short line.\n\n"_s);
    Sheet sheet(text);
    HXTextView &view = sheet.view;
    const quint64 middle = quint64(sheet.text().indexOf(u"Short line."_s));
    view.setSelectedRange(HXRange{middle + 3, 0});
    PaintSpy spy;
    view.viewport()->installEventFilter(&spy);
    QCoreApplication::processEvents();
    const int painted = view.paintCount();
    spy.region = QRegion();
    sheet.type(u"x"_s);
    QCoreApplication::processEvents();
    QVERIFY(view.paintCount() > painted);
    const QRect caret = view.caretRectForIndex(middle + 4).toAlignedRect();
    QVERIFY(spy.region.boundingRect().contains(caret));
    const int lineHeight = QFontMetrics(view.textFont()).height();
    QVERIFY2(spy.region.boundingRect().height() <= 4 * lineHeight,
             qPrintable(QString::number(spy.region.boundingRect().height())));

    // A new paragraph moves everything below it.
    spy.region = QRegion();
    sheet.type(u"{Return}"_s);
    QCoreApplication::processEvents();
    QCOMPARE(spy.region.boundingRect().bottom(), view.viewport()->rect().bottom());
    QVERIFY(spy.region.boundingRect().top() > 0);
}

// Scrolled into a long text: few layouts, and the text in view stays put while the paragraphs
// above it change.
void tst_HXTextView::scrollAnchoring() {
    const QString text = manuscript(4000);
    Sheet sheet(text);
    HXTextView &view = sheet.view;
    const int lineHeight = QFontMetrics(view.textFont()).height();
    const int bound = 3 * view.viewport()->height() / lineHeight + 4;
    QVERIFY(view.numberOfLaidOutParagraphs() > 0 && view.numberOfLaidOutParagraphs() <= bound);

    const quint64 target = quint64(text.indexOf(u"Paragraph 2000"_s));
    view.scrollToParagraphLocation(target, 7);
    QCOMPARE(view.firstVisibleParagraphLocation(), target);
    QCOMPARE(view.firstVisibleParagraphOffset(), 7.0);
    QVERIFY(view.numberOfLaidOutParagraphs() <= bound);
    const QRectF seen = view.caretRectForIndex(target + 12);
    const int value = view.verticalScrollBar()->value();

    // The first paragraph grows by many lines and splits, and one a little above the view
    // grows by a few.
    const QString grown = u" more"_s.repeated(200);
    const QString split = grown + u"\n\nA new paragraph"_s;
    sheet.string->replaceCharactersInRange(HXRange{5, 0}, split);
    const quint64 near = quint64(sheet.text().indexOf(u"Paragraph 1999"_s)) + 5;
    sheet.string->replaceCharactersInRange(HXRange{near, 0}, grown);
    const quint64 shifted = target + quint64(split.size() + grown.size());
    QCOMPARE(view.firstVisibleParagraphLocation(), shifted);
    QCOMPARE(view.firstVisibleParagraphOffset(), 7.0);
    QCOMPARE(view.caretRectForIndex(shifted + 12), seen);
    QVERIFY(view.verticalScrollBar()->value() > value);

    for (const int to :
         {view.verticalScrollBar()->maximum(), view.verticalScrollBar()->maximum() / 3, 0}) {
        view.verticalScrollBar()->setValue(to);
        QCoreApplication::processEvents();
        QVERIFY(view.numberOfLaidOutParagraphs() <= bound);
        view.checkInvariants();
    }
    QCOMPARE(view.firstVisibleParagraphLocation(), 0ull);
    // A page down moves the view by its height, the caret with it.
    view.setSelectedRange(HXRange{0, 0});
    const QRectF top = view.caretRectForIndex(0);
    sheet.type(u"{PageDown}"_s);
    QVERIFY(std::abs(view.verticalScrollBar()->value() - view.viewport()->height()) <= lineHeight);
    const QRectF paged = view.caretRectForIndex(view.selectedRange().location);
    QVERIFY(std::abs(paged.y() - top.y()) <= 2 * lineHeight);
    sheet.type(u"{C-End}"_s);
    QVERIFY(view.caretRectForIndex(view.textStorage().length()).bottom() <=
            view.viewport()->height());
}

// Another writer's random edits, split and merged paragraphs among them, while the view shows
// the middle of the text: the view follows, and the selection stays inside the text.
void tst_HXTextView::otherWriter() {
    Sheet sheet(manuscript(300));
    HXTextView &view = sheet.view;
    view.scrollToParagraphLocation(quint64(sheet.text().size() / 2));
    view.setSelectedRange(HXRange{quint64(sheet.text().size() / 2), 10});
    QRandomGenerator random(3);
    static const QStringList pieces{
        u""_s,       u"x"_s,           u"\n"_s,
        u"a\n\nb"_s, u"## h\n* i\n"_s, u"long words go here "_s.repeated(8)};
    for (int step = 0; step < 300; ++step) {
        const quint64 length = quint64(sheet.text().size());
        const quint64 at = random.bounded(length + 1);
        const quint64 removed =
            std::min<quint64>(random.bounded(step % 10 == 0 ? 400 : 6), length - at);
        sheet.string->replaceCharactersInRange(HXRange{at, removed},
                                               pieces.at(random.bounded(int(pieces.size()))));
        view.checkInvariants();
        QVERIFY(view.selectedRange().max() <= quint64(sheet.text().size()));
    }
    sheet.string->setString(u"short"_s);
    view.checkInvariants();
    QCOMPARE(view.firstVisibleParagraphLocation(), 0ull);
    sheet.type(u"{C-End}!"_s);
    QCOMPARE(sheet.text(), u"short!"_s);
}

void tst_HXTextView::appearance() {
    Sheet sheet(u"Text"_s);
    const QPalette original = QGuiApplication::palette();
    QPalette dark = original;
    dark.setColor(QPalette::Window, Qt::black);
    dark.setColor(QPalette::WindowText, Qt::white);
    QApplication::setPalette(dark);
    QCoreApplication::processEvents();
    QVERIFY(sheet.view.isDark());
    QCOMPARE(sheet.view.textStorage().colorMode(), 1ull);
    QApplication::setPalette(original);
    QCoreApplication::processEvents();
    QVERIFY(!sheet.view.isDark());
    sheet.view.setDark(true);
    QApplication::setPalette(original);
    QCoreApplication::processEvents();
    QVERIFY(sheet.view.isDark());
    const QImage image = sheet.view.viewport()->grab().toImage();
    QCOMPARE(image.pixelColor(2, 2).rgb(),
             sheet.view.textStorage().backgroundColor().colorForMode(1).rgb());

    // The column is centred and no wider than asked.
    sheet.view.setMaximumColumnWidth(200);
    const QRectF caret = sheet.view.caretRectForIndex(0);
    QVERIFY(std::abs(caret.x() - (sheet.view.viewport()->width() - 200) / 2.0) < 2);
}

int main(int argc, char *argv[]) {
    HXTestSupport::setUpEnvironment();
    QApplication application(argc, argv);
    tst_HXTextView test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_HXTextView.moc"
