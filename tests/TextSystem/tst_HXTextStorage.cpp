#include "HXTestSupport.h"
#include "Text/Markup/HXMarkup.h"
#include "Text/String/Access/HXAtomicString.h"
#include "TextSystem/Components/HXTextStorage.h"
#include "TextSystem/Themes/HXTheme.h"
#include "TextSystem/Themes/HXThemeStore.h"

#include <QGuiApplication>
#include <QRandomGenerator>
#include <QtTest>

#include <thread>

using namespace Qt::StringLiterals;

namespace {

std::shared_ptr<HXMarkup> markdown() {
    return HXMarkup::intrinsicMarkups().value(u"markdownqr"_s);
}

struct Stored {
    std::shared_ptr<HXAtomicString> string = HXAtomicString::stringWithMarkup(markdown());
    std::shared_ptr<HXTextStorage> storage = std::make_shared<HXTextStorage>();
    explicit Stored(const QString &text) {
        string->setString(text);
        storage->setContent(string);
    }
};

} // namespace

class tst_HXTextStorage : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void randomEditsKeepTheTwinInStep();
    void workerEditShowsBeforeItReturns();
    void userEditedRange();
    void stylesComeFromTheTheme();
    void attachmentsSurviveEditsAround();
};

// Random edits of tagged text, from the main thread, against the string as oracle: after each
// the twin equals the string chunk for chunk, and the runs of every styled paragraph cover it.
void tst_HXTextStorage::randomEditsKeepTheTwinInStep() {
    const int rounds = qEnvironmentVariableIntValue("VELMORA_STRESS") ? 20000 : 1500;
    Stored stored(u"# Title\n\nSome **bold** text.\n> * a list\n> * item\n\\*escaped\n"_s);
    static const QStringList pieces{u"a"_s,  u" "_s,     u"\n"_s,  u"**"_s,   u"# "_s,
                                    u"* "_s, u"> "_s,    u"\\*"_s, u"=="_s,   u"1. "_s,
                                    u"\t"_s, u"word "_s, u""_s,    u"\n\n"_s, u"`"_s};
    QRandomGenerator random(18);
    for (int round = 0; round < rounds; ++round) {
        const quint64 length = stored.string->length();
        const quint64 location = random.bounded(quint64(length + 1));
        const quint64 span = random.bounded(quint64(std::min<quint64>(length - location, 6) + 1));
        QString text;
        for (int i = random.bounded(3); i > 0; --i)
            text += pieces.at(random.bounded(pieces.size()));
        stored.string->replaceCharactersInRange(HXRange{location, span}, HXChunk(text));
        // Style a few paragraphs, as a view on screen would.
        const quint64 newLength = stored.storage->length();
        if (newLength > 0 && round % 3 == 0)
            stored.storage->styleRunsForParagraphAtIndex(random.bounded(newLength));
        QCOMPARE(stored.storage->string(), stored.string->string());
        if (round % 25 == 0)
            stored.storage->checkInvariants();
    }
    stored.storage->checkInvariants();
    // Outside styling changes nothing.
    const QTextCharFormat before = stored.storage->attributesAtIndex(0);
    QTextCharFormat other;
    other.setFontUnderline(true);
    stored.storage->setAttributes(other, HXRange{0, stored.storage->length()});
    QCOMPARE(stored.storage->attributesAtIndex(0), before);
}

void tst_HXTextStorage::workerEditShowsBeforeItReturns() {
    Stored stored(u"one\ntwo\n"_s);
    std::atomic<bool> done{false};
    std::atomic<int> mismatches{0};
    std::thread worker([&] {
        for (int i = 0; i < 200; ++i) {
            stored.string->replaceCharactersInRange(HXRange{stored.string->length(), 0},
                                                    HXChunk(i % 7 == 0 ? u"\n"_s : u"x"_s));
            // The main thread took the change in before the edit returned.
            if (stored.storage->length() != stored.string->length())
                ++mismatches;
        }
        done = true;
    });
    while (!done)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    worker.join();
    QCOMPARE(mismatches.load(), 0);
    stored.storage->checkInvariants();
    // A whole new text rebuilds.
    stored.string->setString(u"fresh"_s);
    QCOMPARE(stored.storage->string(), u"fresh"_s);
}

void tst_HXTextStorage::userEditedRange() {
    Stored stored(u"0123456789 abcdefghij"_s);
    HXTextStorage &storage = *stored.storage;
    storage.beginEditing();
    storage.replaceCharactersInRange(HXRange{12, 2}, u"XYZ"_s);
    storage.replaceCharactersInRange(HXRange{2, 1}, u""_s);
    storage.endEditing();
    // The first edit's range moved left by the second, in front of it.
    QCOMPARE(storage.userEditedRange(), (HXRange{2, 12}));
    QCOMPARE(storage.userChangeInLength(), 0);
    storage.beginEditing();
    storage.replaceCharactersInRange(HXRange{0, 0}, u"ab"_s);
    storage.replaceCharactersInRange(HXRange{2, 0}, u"c"_s); // typing on
    storage.endEditing();
    QCOMPARE(storage.userEditedRange(), (HXRange{0, 3}));
    QCOMPARE(storage.userChangeInLength(), 3);
}

void tst_HXTextStorage::stylesComeFromTheTheme() {
    const auto theme = HXThemeStore::sharedStore()->themeWithIdentifier(u"clearmist"_s);
    QVERIFY(theme);
    Stored stored(u"plain **bold** \\*\n# Head\n"_s);
    HXTextStorage &storage = *stored.storage;
    storage.setFont(QFont(u"DejaVu Serif"_s, 12));
    storage.setTheme(theme);
    const QColor text = storage.textColor().colorForMode(0);
    HXRange run;
    QCOMPARE(storage.attributesAtIndex(0, &run).foreground().color(), text);
    QCOMPARE(run, (HXRange{0, 6}));
    const auto strong = markdown()->defaultTagWithIdentifier(u"strong"_s);
    const auto item = theme->usedItemForDefinition(strong->definition());
    // The tag characters take the atom colour, the text between them the item's traits.
    const QTextCharFormat atom = storage.attributesAtIndex(6);
    const QColor atomColor = item->colorForPart(1, 0);
    QCOMPARE(atom.foreground().color(), atomColor.isValid() ? atomColor : text);
    QCOMPARE(storage.attributesAtIndex(8).font().bold(), bool(item->traits() & 1));
    // The escape's backslash is faded half way to the background; the escaped star is not.
    const QColor faded = storage.attributesAtIndex(15).foreground().color();
    const QColor background = storage.backgroundColor().colorForMode(0);
    QVERIFY(qAbs(faded.redF() - (text.redF() + background.redF()) / 2) < 0.01);
    QCOMPARE(storage.attributesAtIndex(16).foreground().color(), text);
    // Runs share their formats, and a paragraph's runs go with it.
    QVERIFY(storage.numberOfStyledParagraphs() == 1);
    storage.styleRunsForParagraphAtIndex(20);
    QCOMPARE(storage.numberOfStyledParagraphs(), qsizetype(2));
    stored.string->replaceCharactersInRange(HXRange{0, 5}, HXChunk(u"x"_s));
    QVERIFY(storage.hasStyleForParagraphAtIndex(0)); // restyled at once, as it was shown
    storage.checkInvariants();
    // The dark side.
    storage.setColorMode(1);
    QCOMPARE(storage.attributesAtIndex(0).foreground().color(),
             storage.textColor().colorForMode(1));
}

void tst_HXTextStorage::attachmentsSurviveEditsAround() {
    Stored stored(u"see  here\nnext"_s);
    const auto link = HXTextElement::elementWithURLString(
        u"https://example.org"_s, u"site"_s, markdown()->defaultTagWithIdentifier(u"link"_s),
        markdown());
    stored.string->replaceCharactersInRange(HXRange{4, 0},
                                            HXReplacement(HXString::stringWithTextElement(link)));
    HXTextStorage &storage = *stored.storage;
    const auto attachment = storage.attachmentAtIndex(4);
    QVERIFY(attachment);
    QVERIFY(attachment->atom()->isEntityAtom());
    stored.string->replaceCharactersInRange(HXRange{0, 3}, HXChunk(u"look at"_s));
    QCOMPARE(storage.attachmentAtIndex(8), attachment);
    stored.string->replaceCharactersInRange(HXRange{storage.length(), 0}, HXChunk(u"!"_s));
    QCOMPARE(storage.attachmentAtIndex(8), attachment);
    // A new entity in its place gets a new attachment.
    stored.string->replaceCharactersInRange(HXRange{8, 6}, HXChunk(u""_s));
    stored.string->replaceCharactersInRange(
        HXRange{8, 0},
        HXReplacement(HXString::stringWithTextElement(HXTextElement::elementWithURLString(
            u"https://example.org"_s, u"site"_s, markdown()->defaultTagWithIdentifier(u"link"_s),
            markdown()))));
    QVERIFY(storage.attachmentAtIndex(8) != attachment);
    storage.checkInvariants();
}

int main(int argc, char *argv[]) {
    HXTestSupport::setUpEnvironment();
    QGuiApplication application(argc, argv);
    tst_HXTextStorage test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_HXTextStorage.moc"
