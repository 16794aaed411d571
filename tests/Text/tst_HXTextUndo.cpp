// Undo of text: steps made of coalesced typing and backward deletion, breaks, structure put back,
// and random edits undone and redone completely.

#include "HXTestSupport.h"
#include "HXTextTestSupport.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Text/String/Access/HXStringXML.h"
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
    void selectionReplacedFromBeforeTheStep();
    void randomEditsAgainstTextOracle();
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

void tst_HXTextUndo::selectionReplacedFromBeforeTheStep() {
    Editor editor(u"hello world"_s);
    editor.type(5, u"xy"_s);
    editor.string->replaceCharactersInRange(HXRange{3, 4}, HXChunk(u"ABCD"_s));
    QCOMPARE(editor.string->string(), u"helABCD world"_s);
    editor.undo->undo();
    QCOMPARE(editor.string->string(), u"helloxy world"_s);
    editor.undo->undo();
    QCOMPARE(editor.string->string(), u"hello world"_s);
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

// Random edits, undos and redos against a plain text oracle: every undo lands on a text that
// stood before, every redo on the one the undo left, and all undone is the first text again.
void tst_HXTextUndo::randomEditsAgainstTextOracle() {
    static const QStringList alphabet{u"a"_s, u"b"_s, u" "_s, u"*"_s,  u"\n"_s,
                                      u"#"_s, u"_"_s, u"`"_s, u"- "_s, u"ab\ncd"_s};
    const int steps = qEnvironmentVariableIntValue("VELMORA_STRESS") ? 20000 : 1500;
    QRandomGenerator random(17);
    Editor editor(u"# Start\nfirst *line* `code`\n\n- item"_s);
    QStringList history{editor.string->string()}; // the texts undo may come back to
    qsizetype at = 0;
    QList<qsizetype> redoTargets;
    quint64 caret = 0;
    auto verifyTree = [&] {
        editor.string->checkInvariants();
        const auto read = HXStringXML::stringWithXMLData(HXStringXML::XMLData(*editor.string),
                                                         HXTextTestSupport::markup(), 63, nullptr);
        QVERIFY(read && read->isEqualToChunkString(*editor.string));
    };
    for (int step = 0; step < steps; ++step) {
        const quint64 total = editor.string->length();
        const quint32 action = random.bounded(20);
        if (action < 2 && editor.undo->canUndo()) {
            editor.undo->undo();
            const QString text = editor.string->string();
            qsizetype landed = at - 1;
            while (landed >= 0 && history.at(landed) != text)
                --landed;
            QVERIFY2(landed >= 0, qPrintable(u"undo invented "_s + text));
            redoTargets.append(at);
            at = landed;
        } else if (action < 3 && editor.undo->canRedo()) {
            QVERIFY(!redoTargets.isEmpty());
            editor.undo->redo();
            at = redoTargets.takeLast();
            QCOMPARE(editor.string->string(), history.at(at));
        } else if (action < 4) {
            editor.string->breakUndoCoalescing();
        } else {
            // Typing and backspacing at one place, or any selection replaced anywhere.
            quint64 location, length = 0;
            if (action < 12 && caret <= total) {
                location = caret;
                if (action < 8 && caret > 0) {
                    location = caret - 1;
                    length = 1;
                }
            } else {
                location = random.bounded(quint64(total + 1));
                length = random.bounded(quint64(total - location + 1));
                if (random.bounded(2))
                    length = std::min<quint64>(length, 3);
            }
            const QString text =
                length && action < 8
                    ? QString()
                    : alphabet.at(qsizetype(random.bounded(quint32(alphabet.size()))));
            editor.string->replaceCharactersInRange(HXRange{location, length}, HXChunk(text));
            caret = location + quint64(text.size());
            QString expected = history.at(at);
            expected.replace(qsizetype(location), qsizetype(length), text);
            QCOMPARE(editor.string->string(), expected);
            history.resize(at + 1);
            history.append(expected);
            ++at;
            redoTargets.clear();
        }
        if (!editor.undo->canUndo())
            QCOMPARE(editor.string->string(), history.first());
        if (step % 50 == 0)
            verifyTree();
    }
    while (editor.undo->canUndo())
        editor.undo->undo();
    QCOMPARE(editor.string->string(), history.first());
    verifyTree();
}

void tst_HXTextUndo::attributeChanges() {
    Editor editor(u"a "_s);
    auto link = HXTextElement::elementWithURLString(
        u"one"_s, u"link"_s, HXTextTestSupport::tag("link"), HXTextTestSupport::markup());
    editor.string->replaceCharactersInRange(HXRange{2, 0}, HXString::stringWithTextElement(link));
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

    // A change made on the dictionary itself reaches the observers and undo as well.
    struct Observer : HXStringObserver {
        QList<quint64> indexes;
        void stringWillChangeAttributesOfElementAtIndex(HXString &, quint64 index) override {
            indexes.append(index);
        }
    };
    const auto observer = std::make_shared<Observer>();
    editor.string->addStringObserver(observer);
    editor.string->breakUndoCoalescing();
    placed->attributes()->setDictionary({{u"URL"_s, u"direct"_s}});
    QCOMPARE(observer->indexes, QList<quint64>(2, 2)); // URL set, title removed
    QVERIFY(!placed->attributes()->objectForKey(u"title"_s).isValid());
    editor.undo->undo();
    QCOMPARE(placed->attributes()->objectForKey(u"URL"_s).toString(), u"three"_s);
    QCOMPARE(placed->attributes()->objectForKey(u"title"_s).toString(), u"A title"_s);

    // So does one in the text of a footnote, told to that text's observers.
    auto footnote = HXTextElement::elementWithTag(HXTextTestSupport::tag("footnote"),
                                                  HXTextTestSupport::markup());
    editor.string->replaceCharactersInRange(HXRange{0, 0},
                                            HXString::stringWithTextElement(footnote));
    const auto note =
        editor.string->textElementStartingAtIndex(0)->attributes()->nestedStringForKey(u"text"_s);
    note->replaceCharactersInRange(
        HXRange{0, 0},
        HXString::stringWithTextElement(HXTextElement::elementWithURLString(
            u"u"_s, u"t"_s, HXTextTestSupport::tag("link"), HXTextTestSupport::markup())));
    const auto noteObserver = std::make_shared<Observer>();
    note->addStringObserver(noteObserver);
    note->textElementStartingAtIndex(0)->attributes()->setObject(u"v"_s, u"URL"_s);
    QCOMPARE(noteObserver->indexes, QList<quint64>{0});
}

HX_TEST_MAIN(tst_HXTextUndo)
#include "tst_HXTextUndo.moc"
