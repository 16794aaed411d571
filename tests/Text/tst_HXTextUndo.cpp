// Undo of text: steps made of coalesced typing and backward deletion, breaks, structure put back,
// and random edits undone and redone completely.

#include "HXTestSupport.h"
#include "HXTextTestSupport.h"
#include "Text/String/Access/HXMutableString.h"
#include "Utilities/HXUndoManager.h"

#include <QRandomGenerator>

using namespace Qt::StringLiterals;

namespace {

struct Editor {
    std::shared_ptr<HXMutableString> string =
        HXMutableString::stringWithMarkup(HXTextTestSupport::markup());
    std::shared_ptr<HXUndoManager> undo = std::make_shared<HXUndoManager>();
    Editor(const QString &text) {
        string->setString(text);
        string->setUndoManager(undo);
    }
    void type(quint64 at, const QString &characters) {
        for (qsizetype i = 0; i < characters.size(); ++i)
            string->replaceCharactersInRange(HXRange{at + quint64(i), 0},
                                             HXChunk(characters.mid(i, 1)));
    }
    void backspace(quint64 at) { string->replaceCharactersInRange(HXRange{at - 1, 1}, QString()); }
};

} // namespace

class tst_HXTextUndo : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void typingIsOneStep();
    void jumpsAndBreaksMakeNewSteps();
    void backwardDeletionShortensTheStep();
    void structureComesBack();
    void markupChangeClearsHistory();
    void randomEditsUndoneAndRedone();
    void attributeChanges();
};

void tst_HXTextUndo::typingIsOneStep() {
    Editor editor(u"ab"_s);
    editor.type(1, u"xyz"_s);
    QCOMPARE(editor.string->string(), u"axyzb"_s);
    QCOMPARE(editor.undo->undoActionName(), u"Typing"_s);
    editor.undo->undo();
    QCOMPARE(editor.string->string(), u"ab"_s);
    QVERIFY(!editor.undo->canUndo());
    editor.undo->redo();
    QCOMPARE(editor.string->string(), u"axyzb"_s);
    editor.undo->undo();
    QCOMPARE(editor.string->string(), u"ab"_s);
}

void tst_HXTextUndo::jumpsAndBreaksMakeNewSteps() {
    Editor editor(u"one two"_s);
    editor.type(3, u"AA"_s);
    editor.type(0, u"B"_s); // the cursor moved
    editor.type(1, u"C"_s);
    editor.string->breakUndoCoalescing();
    editor.type(2, u"D"_s);
    QCOMPARE(editor.string->string(), u"BCDoneAA two"_s);
    editor.undo->undo();
    QCOMPARE(editor.string->string(), u"BConeAA two"_s);
    editor.undo->undo();
    QCOMPARE(editor.string->string(), u"oneAA two"_s);
    editor.undo->undo();
    QCOMPARE(editor.string->string(), u"one two"_s);
    // A group opened by someone else ends the step as well.
    editor.type(0, u"x"_s);
    editor.undo->beginUndoGrouping();
    editor.undo->registerUndo([] {});
    editor.undo->endUndoGrouping();
    editor.type(1, u"y"_s);
    editor.undo->undo();
    editor.undo->undo();
    QCOMPARE(editor.string->string(), u"xone two"_s);
}

void tst_HXTextUndo::backwardDeletionShortensTheStep() {
    Editor editor(u"hello"_s);
    editor.type(5, u" wor"_s);
    editor.backspace(9);
    editor.backspace(8);
    // On into the text that stood before the typing.
    editor.backspace(7);
    editor.backspace(6);
    editor.backspace(5);
    editor.backspace(4);
    QCOMPARE(editor.string->string(), u"hel"_s);
    editor.undo->undo();
    QCOMPARE(editor.string->string(), u"hello"_s);
    QVERIFY(!editor.undo->canUndo());
}

void tst_HXTextUndo::structureComesBack() {
    Editor editor(u"# Title\nsome **bold** text\nnext"_s);
    const QString before = editor.string->string();
    const auto original = editor.string->copy();
    // Deleting the line feed merges the heading with the next paragraph.
    editor.string->replaceCharactersInRange(HXRange{7, 1}, QString());
    QCOMPARE(editor.string->paragraphs().size(), 2);
    editor.undo->undo();
    QCOMPARE(editor.string->string(), before);
    QVERIFY(editor.string->isEqualToChunkString(*original));
    QCOMPARE(editor.string->paragraphs().first()->tag()->definition()->identifier(), u"heading1"_s);
}

void tst_HXTextUndo::markupChangeClearsHistory() {
    Editor editor(u"a"_s);
    editor.type(1, u"b"_s);
    QVERIFY(editor.undo->canUndo());
    editor.string->setMarkup(HXMarkup::intrinsicMarkups().value(u"markdown"_s));
    QVERIFY(!editor.undo->canUndo());
}

void tst_HXTextUndo::randomEditsUndoneAndRedone() {
    static const QStringList alphabet{u"a"_s, u"*"_s, u" "_s, u"\n"_s, u"#"_s, u"_"_s, u"b"_s};
    QRandomGenerator random(17);
    Editor editor(u"# Start\nfirst *line*\n\n- item"_s);
    const auto first = editor.string->copy();
    for (int step = 0; step < 300; ++step) {
        const quint64 total = editor.string->length();
        const quint64 location = random.bounded(quint64(total + 1));
        const quint64 length =
            random.bounded(3) ? 0 : std::min<quint64>(random.bounded(4), total - location);
        QString text;
        for (int i = int(random.bounded(3)); i > 0; --i)
            text += alphabet.at(qsizetype(random.bounded(quint32(alphabet.size()))));
        editor.string->replaceCharactersInRange(HXRange{location, length}, HXChunk(text));
        if (random.bounded(10) == 0)
            editor.string->breakUndoCoalescing();
    }
    const auto last = editor.string->copy();
    while (editor.undo->canUndo())
        editor.undo->undo();
    QCOMPARE(editor.string->string(), first->string());
    QVERIFY(editor.string->isEqualToChunkString(*first));
    while (editor.undo->canRedo())
        editor.undo->redo();
    QCOMPARE(editor.string->string(), last->string());
    QVERIFY(editor.string->isEqualToChunkString(*last));
    editor.string->checkInvariants();
}

void tst_HXTextUndo::attributeChanges() {
    Editor editor(u"a "_s);
    auto link = HXTextElement::elementWithURLString(
        u"one"_s, u"link"_s, HXTextTestSupport::tag("link"), HXTextTestSupport::markup());
    editor.string->replaceCharactersInRange(HXRange{2, 0},
                                            HXChunk(HXString::stringWithTextElement(link)));
    editor.string->breakUndoCoalescing();
    const auto placed = editor.string->textElementStartingAtIndex(2);
    // Two changes of the same element are one step; undo puts the first value back.
    editor.string->setAttributeValue(u"two"_s, u"URL"_s, *placed);
    editor.string->setAttributeValue(u"three"_s, u"URL"_s, *placed);
    editor.string->setAttributeValue(u"A title"_s, u"title"_s, *placed);
    editor.undo->undo();
    QCOMPARE(placed->attributes()->objectForKey(u"URL"_s).toString(), u"one"_s);
    QVERIFY(!placed->attributes()->objectForKey(u"title"_s).isValid());
    editor.undo->redo();
    QCOMPARE(placed->attributes()->objectForKey(u"URL"_s).toString(), u"three"_s);
    QCOMPARE(placed->attributes()->objectForKey(u"title"_s).toString(), u"A title"_s);
}

HX_TEST_MAIN(tst_HXTextUndo)
#include "tst_HXTextUndo.moc"
