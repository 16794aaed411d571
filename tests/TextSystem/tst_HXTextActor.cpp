#include "HXTestSupport.h"
#include "Text/Markup/HXMarkup.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Text/String/Access/HXStringXML.h"
#include "TextSystem/Actor/HXTextEditor.h"
#include "Utilities/HXUndoManager.h"

#include <QGuiApplication>
#include <QtTest>

using namespace Qt::StringLiterals;

namespace {

// A string being edited as the view edits it: storage, editor and undo.
struct Editing {
    std::shared_ptr<HXMarkup> markup;
    std::shared_ptr<HXAtomicString> string;
    std::shared_ptr<HXUndoManager> undo = std::make_shared<HXUndoManager>();
    std::shared_ptr<HXTextStorage> storage = std::make_shared<HXTextStorage>();
    std::unique_ptr<HXTextEditor> editor;

    explicit Editing(const QString &text, std::shared_ptr<HXMarkup> usedMarkup = nullptr)
        : markup(usedMarkup ? usedMarkup : HXMarkup::intrinsicMarkups().value(u"markdownqr"_s)) {
        string = HXAtomicString::stringWithMarkup(markup);
        string->setString(text);
        string->setUndoManager(undo);
        storage->setContent(string);
        editor = std::make_unique<HXTextEditor>(storage);
    }

    // One step of a script: "select L N", "type TEXT", "key return|backspace|delete|tab",
    // "toggle DEFINITION", "undo".
    void run(const QString &step) {
        const QString verb = step.section(u' ', 0, 0);
        const QString argument = step.section(u' ', 1);
        if (verb == u"select") {
            editor->setSelectedRange(HXRange{argument.section(u' ', 0, 0).toULongLong(),
                                             argument.section(u' ', 1, 1).toULongLong()});
        } else if (verb == u"type") {
            editor->insertText(QString(argument).replace(u"\\n"_s, u"\n"_s));
        } else if (verb == u"key") {
            if (argument == u"return")
                editor->insertNewline();
            else if (argument == u"backspace")
                editor->deleteBackward();
            else if (argument == u"delete")
                editor->deleteForward();
            else if (argument == u"backtab")
                editor->insertBacktab();
            else
                editor->insertTab();
        } else if (verb == u"toggle") {
            editor->toggleTag(markup->defaultTagWithIdentifier(argument));
        } else if (verb == u"undo") {
            QVERIFY(undo->canUndo());
            undo->undo();
        } else {
            QFAIL(qPrintable(u"unknown step "_s + step));
        }
        storage->checkInvariants();
    }

    // The text and its tree equal a fresh parse of the expected text.
    void verifyText(const QString &expected) const {
        QCOMPARE(string->string(), expected);
        const auto parsed = HXString::stringWithString(expected, markup);
        QVERIFY2(parsed->isEqualToChunkString(*string->copy()),
                 qPrintable(QString::fromUtf8(HXStringXML::XMLData(*string))));
    }
};

QString range(HXRange range) {
    return u"%1,%2"_s.arg(range.location).arg(range.length);
}

} // namespace

class tst_HXTextActor : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { HXTextActor::setVerifiesCacheFully(true); }
    void editing_data();
    void editing();
    void romanListsContinueInRomanNumbers();
    void entities();
    void selectionStaysOutOfTags();
    void doorRefusesAndChecks();
};

// Each row: the text, a script whose last step is the action, the text, tree and selection after
// it, and the text that one undo gives back.
void tst_HXTextActor::editing_data() {
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("script");
    QTest::addColumn<QString>("expected");
    QTest::addColumn<QString>("selection");
    QTest::addColumn<QString>("afterUndo");

    // Lists go on: numbers count on, quote marks repeat, outer list levels turn to indentation.
    QTest::newRow("numbered") << u"3. c"_s << u"select 4 0|key return"_s << u"3. c\n4. "_s
                              << u"8,0"_s << u"3. c"_s;
    QTest::newRow("parenthesis") << u"9) i"_s << u"select 4 0|key return"_s << u"9) i\n10) "_s
                                 << u"9,0"_s << u"9) i"_s;
    QTest::newRow("bullet in quote")
        << u"> * a"_s << u"select 5 0|key return"_s << u"> * a\n> * "_s << u"10,0"_s << u"> * a"_s;
    QTest::newRow("number in quote") << u"> 1. a"_s << u"select 6 0|key return"_s
                                     << u"> 1. a\n> 2. "_s << u"12,0"_s << u"> 1. a"_s;
    QTest::newRow("inner list only") << u"1. a\n\t* b"_s << u"select 9 0|key return"_s
                                     << u"1. a\n\t* b\n\t* "_s << u"13,0"_s << u"1. a\n\t* b"_s;
    QTest::newRow("list in list") << u"* * a"_s << u"select 5 0|key return"_s << u"* * a\n\t* "_s
                                  << u"9,0"_s << u"* * a"_s;
    QTest::newRow("counts from the item above")
        << u"1. a\n2. b\n\tmore"_s << u"select 15 0|key return"_s << u"1. a\n2. b\n\tmore\n3. "_s
        << u"19,0"_s << u"1. a\n2. b\n\tmore"_s;
    QTest::newRow("middle of an item")
        << u"1. ab"_s << u"select 4 0|key return"_s << u"1. a\n2. b"_s << u"8,0"_s << u"1. ab"_s;
    QTest::newRow("inside the prefix")
        << u"> 1. a"_s << u"select 2 0|key return"_s << u"> \n> 1. a"_s << u"5,0"_s << u"> 1. a"_s;
    QTest::newRow("plain line") << u"just text"_s << u"select 4 0|key return"_s << u"just\n text"_s
                                << u"5,0"_s << u"just text"_s;
    // Return on an empty item ends the list, whether Return just made it or not.
    QTest::newRow("end list") << u"1. a"_s << u"select 4 0|key return|key return"_s << u"1. a\n\n"_s
                              << u"6,0"_s << u"1. a\n2. "_s;
    QTest::newRow("end loaded list")
        << u"* a\n* "_s << u"select 6 0|key return"_s << u"* a\n\n"_s << u"5,0"_s << u"* a\n* "_s;
    QTest::newRow("backspace drops marker") << u"* a"_s << u"select 3 0|key return|key backspace"_s
                                            << u"* a\n"_s << u"4,0"_s << u"* a\n* "_s;
    QTest::newRow("typing keeps marker") << u"* a"_s << u"select 3 0|key return|type b"_s
                                         << u"* a\n* b"_s << u"7,0"_s << u"* a\n* "_s;
    // Tab behind a list item's tags takes it a level in, Shift-Tab out; elsewhere a tab.
    QTest::newRow("tab indents item")
        << u"* a\n* b"_s << u"select 6 0|key tab"_s << u"* a\n\t* b"_s << u"7,0"_s << u"* a\n* b"_s;
    QTest::newRow("tab indents last empty item")
        << u"* a\n* "_s << u"select 6 0|key tab"_s << u"* a\n\t* "_s << u"7,0"_s << u"* a\n* "_s;
    QTest::newRow("backtab outdents") << u"* a\n\t* b"_s << u"select 8 0|key backtab"_s
                                      << u"* a\n* b"_s << u"7,0"_s << u"* a\n\t* b"_s;
    QTest::newRow("tab inside item text")
        << u"* a\n* b"_s << u"select 7 0|key tab"_s << u"* a\n* b\t"_s << u"8,0"_s << u"* a\n* b"_s;
    // Tags pair up, and typing the closing text steps over the automatic end tag.
    QTest::newRow("pairing") << u"x "_s << u"select 2 0|type **"_s << u"x ****"_s << u"4,0"_s
                             << u"x **"_s;
    QTest::newRow("over-typing") << u""_s << u"type **|type b|type **"_s << u"**b**"_s << u"5,0"_s
                                 << u"****"_s;
    QTest::newRow("over-typing in parts")
        << u""_s << u"type ==|type b|type =|type ="_s << u"==b=="_s << u"5,0"_s << u"===="_s;
    QTest::newRow("return steps over")
        << u""_s << u"type **|type b|key return"_s << u"**b**"_s << u"5,0"_s << u"****"_s;
    // "*" pairs up, then a blank makes it a list's marker: the end tag goes again.
    QTest::newRow("marker typed after pairing")
        << u""_s << u"type *|type  a"_s << u"* a"_s << u"3,0"_s << u"* a*"_s;
    QTest::newRow("closed already")
        << u"a**"_s << u"select 0 0|type **"_s << u"**a**"_s << u"2,0"_s << u"a**"_s;
    // Toggling inline tags: per paragraph, merging, taking away, mixed tags.
    QTest::newRow("two paragraphs") << u"one\ntwo"_s << u"select 0 7|toggle strong"_s
                                    << u"**one**\n**two**"_s << u"2,3"_s << u"one\ntwo"_s;
    QTest::newRow("one already strong") << u"**one**\ntwo"_s << u"select 0 11|toggle strong"_s
                                        << u"**one**\n**two**"_s << u"2,3"_s << u"**one**\ntwo"_s;
    QTest::newRow("both strong") << u"**one**\n**two**"_s << u"select 0 15|toggle strong"_s
                                 << u"one\ntwo"_s << u"0,3"_s << u"**one**\n**two**"_s;
    QTest::newRow("cursor inside") << u"**one** and **two**"_s << u"select 3 0|toggle strong"_s
                                   << u"one and **two**"_s << u"0,3"_s << u"**one** and **two**"_s;
    QTest::newRow("merge touching") << u"**a b** c"_s << u"select 4 5|toggle strong"_s
                                    << u"**a b c**"_s << u"2,5"_s << u"**a b** c"_s;
    QTest::newRow("no nested duplicate") << u"a **b** c"_s << u"select 0 9|toggle strong"_s
                                         << u"**a b c**"_s << u"2,5"_s << u"a **b** c"_s;
    QTest::newRow("mixed tags") << u"**one** two"_s << u"select 0 11|toggle mark"_s
                                << u"==**one** two=="_s << u"2,11"_s << u"**one** two"_s;
    QTest::newRow("collapsed") << u"ab"_s << u"select 1 0|toggle strong"_s << u"a****b"_s
                               << u"3,0"_s << u"ab"_s;
    QTest::newRow("line feed left out") << u"one\ntwo"_s << u"select 0 4|toggle emph"_s
                                        << u"*one*\ntwo"_s << u"1,3"_s << u"one\ntwo"_s;
    QTest::newRow("heading prefix left out") << u"# Title"_s << u"select 0 7|toggle emph"_s
                                             << u"# *Title*"_s << u"3,5"_s << u"# Title"_s;
    // Line-level tags per paragraph, as the first decides.
    QTest::newRow("heading") << u"Title"_s << u"select 2 0|toggle heading2"_s << u"## Title"_s
                             << u"5,0"_s << u"Title"_s;
    QTest::newRow("heading off") << u"## Title"_s << u"select 5 0|toggle heading2"_s << u"Title"_s
                                 << u"2,0"_s << u"## Title"_s;
    QTest::newRow("heading replaced") << u"# Title"_s << u"select 3 0|toggle heading3"_s
                                      << u"### Title"_s << u"5,0"_s << u"# Title"_s;
    QTest::newRow("quote two") << u"a\nb"_s << u"select 0 3|toggle blockquote"_s << u"> a\n> b"_s
                               << u"2,5"_s << u"a\nb"_s;
    QTest::newRow("numbered list") << u"a\nb"_s << u"select 0 3|toggle orderedList"_s
                                   << u"1. a\n2. b"_s << u"3,6"_s << u"a\nb"_s;
    QTest::newRow("list off, first decides") << u"* a\nb"_s << u"select 0 5|toggle unorderedList"_s
                                             << u"a\nb"_s << u"0,3"_s << u"* a\nb"_s;
}

void tst_HXTextActor::editing() {
    QFETCH(QString, text);
    QFETCH(QString, script);
    QFETCH(QString, expected);
    QFETCH(QString, selection);
    QFETCH(QString, afterUndo);
    Editing editing(text);
    const QStringList steps = script.split(u'|');
    for (const QString &step : steps)
        editing.run(step);
    editing.verifyText(expected);
    QCOMPARE(range(editing.editor->selectedRange()), selection);
    editing.run(u"undo"_s);
    editing.verifyText(afterUndo);
}

void tst_HXTextActor::romanListsContinueInRomanNumbers() {
    QByteArray data = HXMarkup::intrinsicMarkups().value(u"markdownqr"_s)->XMLData();
    data.replace("<tag definition=\"orderedList\" pattern=\"\\d)\"/>",
                 "<tag definition=\"orderedList\" pattern=\"\\r)\"/>");
    HXError error;
    const auto roman = HXMarkup::markupWithData(data, &error);
    QVERIFY2(roman, qPrintable(error.localizedDescription()));
    Editing editing(u"iii) c"_s, roman);
    editing.run(u"select 6 0"_s);
    editing.run(u"key return"_s);
    editing.verifyText(u"iii) c\niv) "_s);
}

void tst_HXTextActor::entities() {
    Editing editing(u"see  and "_s);
    const auto link = HXTextElement::elementWithURLString(
        u"https://example.org"_s, u"site"_s, editing.markup->defaultTagWithIdentifier(u"link"_s),
        editing.markup);
    editing.string->replaceCharactersInRange(HXRange{4, 0},
                                             HXReplacement(HXString::stringWithTextElement(link)));
    const auto image = HXTextElement::elementWithAttributes(
        {}, editing.markup->defaultTagWithIdentifier(u"image"_s), editing.markup);
    editing.string->replaceCharactersInRange(HXRange{15, 0},
                                             HXReplacement(HXString::stringWithTextElement(image)));
    const QString withLink = u"see \uFFFCsite\uFFFC and \uFFFC"_s;
    QCOMPARE(editing.string->string(), withLink);
    editing.string->breakUndoCoalescing();
    HXTextEditor &editor = *editing.editor;

    // Backspace behind the last inner character does nothing; the text before it still goes.
    editor.setSelectedRange(HXRange{9, 0});
    editor.deleteBackward();
    QCOMPARE(editing.string->string(), withLink);
    editor.setSelectedRange(HXRange{8, 0});
    editor.deleteBackward();
    QCOMPARE(editing.string->string(), u"see \uFFFCsie\uFFFC and \uFFFC"_s);
    editing.run(u"undo"_s);

    // Behind the link: the first Backspace selects it, the second leaves its text alone.
    editor.setSelectedRange(HXRange{10, 0});
    editor.deleteBackward();
    QCOMPARE(range(editor.selectedRange()), u"4,6"_s);
    QCOMPARE(editing.string->string(), withLink);
    editor.deleteBackward();
    QCOMPARE(editing.string->string(), u"see site and \uFFFC"_s);
    bool linkLeft = false;
    editing.string->enumerateAllElements(
        HXSelectorForScope(HXAttributedTextScope),
        [&](const HXTextElementRef &, HXRange, bool &) { linkLeft = true; });
    QVERIFY(!linkLeft);
    QCOMPARE(range(editor.selectedRange()), u"4,4"_s);
    editing.run(u"undo"_s);
    QCOMPARE(editing.string->string(), withLink);

    // An image goes whole; Delete in front of it selects it first.
    editor.setSelectedRange(HXRange{15, 0});
    QVERIFY(!editing.editor->actor().performDeleteForward()); // at the very end
    editor.setSelectedRange(HXRange{16, 0});
    editor.deleteBackward();
    QCOMPARE(range(editor.selectedRange()), u"15,1"_s);
    editor.deleteBackward();
    QCOMPARE(editing.string->string(), u"see \uFFFCsite\uFFFC and "_s);
    editing.run(u"undo"_s);
    editor.setSelectedRange(HXRange{4, 0});
    editor.deleteForward();
    QCOMPARE(range(editor.selectedRange()), u"4,6"_s);

    // Return inside a link selects it; on the link it opens its attributes.
    editor.setSelectedRange(HXRange{6, 0});
    editor.insertNewline();
    QCOMPARE(range(editor.selectedRange()), u"4,6"_s);
    editor.insertNewline();
    QCOMPARE(editor.editedAttributesIndex(), 4u);
    QCOMPARE(editing.string->string(), withLink);
}

void tst_HXTextActor::selectionStaysOutOfTags() {
    Editing editing(u"## Head **strong**"_s);
    HXTextActor &actor = editing.editor->actor();
    // Inside the heading's prefix, inside an end tag, moving either way.
    QCOMPARE(range(actor.selectionRangeForProposedRange(HXRange{1, 0}, HXRange{0, 0})), u"3,0"_s);
    QCOMPARE(range(actor.selectionRangeForProposedRange(HXRange{1, 0}, HXRange{5, 0})), u"0,0"_s);
    QCOMPARE(range(actor.selectionRangeForProposedRange(HXRange{4, 13}, HXRange{4, 0})), u"4,14"_s);
    QCOMPARE(range(actor.selectionRangeForProposedRange(HXRange{10, 2}, HXRange{10, 0})),
             u"10,2"_s);
    editing.editor->setSelectedRange(HXRange{5, 0});
    QCOMPARE(actor.currentHeadingLevelForSelection(), 2u);
    QCOMPARE(actor.continuationForGroupAtIndex(5, true), QString());
}

namespace {
class RefusingEditor : public HXTextEditor {
public:
    using HXTextEditor::HXTextEditor;
    bool shouldChangeTextInRanges(const QList<HXRange> &, const QList<HXReplacement> &) override {
        return false;
    }
};
} // namespace

void tst_HXTextActor::doorRefusesAndChecks() {
    Editing editing(u"one two"_s);
    RefusingEditor refusing(editing.storage);
    refusing.setSelectedRange(HXRange{0, 3});
    QVERIFY(!refusing.toggleTag(editing.markup->defaultTagWithIdentifier(u"strong"_s)));
    QCOMPARE(editing.string->string(), u"one two"_s);
    // Replacements go last to first, as one step; counts must match.
    HXTextActor &actor = editing.editor->actor();
    QVERIFY(actor.performReplaceCharactersInRanges({HXRange{0, 3}, HXRange{4, 3}},
                                                   QList<HXReplacement>{u"1"_s, u"2"_s}));
    QCOMPARE(editing.string->string(), u"1 2"_s);
    QVERIFY(actor.performReplaceCharactersInRanges({}, QList<HXReplacement>{}));
    editing.run(u"undo"_s);
    QCOMPARE(editing.string->string(), u"one two"_s);
    QCOMPARE(HXTestSupport::assertionText([&] {
                 actor.performReplaceCharactersInRanges({HXRange{0, 1}}, QList<HXReplacement>{});
             }),
             u"Invalid parameter not satisfying: ranges.count == replacements.count"_s);
}

int main(int argc, char *argv[]) {
    HXTestSupport::setUpEnvironment();
    QGuiApplication application(argc, argv);
    tst_HXTextActor test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_HXTextActor.moc"
