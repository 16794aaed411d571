// Copying strings into strings of other markups: the separator and the options, tags written the
// target's way, the definitions a copy loses, locked strings, and random copies against the plain
// text, the XML read back and a parse of the characters.

#include "HXTestSupport.h"
#include "HXTextTestSupport.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Text/String/Access/HXStringSnapshot.h"
#include "Text/String/Access/HXStringXML.h"
#include "Utilities/HXFileWrapper.h"

#include <QRandomGenerator>

#include <thread>

using namespace Qt::StringLiterals;

namespace {

using HXTextTestSupport::markup;

std::shared_ptr<HXMarkup> markdown() {
    return HXMarkup::intrinsicMarkups().value(u"markdown"_s);
}

std::shared_ptr<HXMutableString> mutableString(const QString &text,
                                               const std::shared_ptr<HXMarkup> &under = markup(),
                                               HXDefinitionSelector selector = 63) {
    auto string = HXMutableString::stringWithMarkup(under, selector);
    string->setString(text);
    return string;
}

// The tree a parse of the string's characters gives, as a copy must leave it.
bool isAsParsed(const HXString &string) {
    return string.isEqualToChunkString(*HXString::stringWithString(string.string(), string.markup(),
                                                                   string.recognizedDefinitions()));
}

std::shared_ptr<HXMutableString> readBack(const HXString &string) {
    HXError error;
    return HXStringXML::stringWithXMLData(HXStringXML::XMLData(string), string.markup(),
                                          string.recognizedDefinitions(), &error);
}

// Whether the node holds an element that a parse of its paragraph keeps whole, an entity or a
// closed code span: the tree around it may then differ from a parse of the characters.
bool keepsElementsWhole(const HXChunkString &node) {
    for (const HXChunk &chunk : node.allChunks()) {
        const auto *element = chunk.as<HXTextElement>();
        if (element && element->isIntact() &&
            (element->isEntity() ||
             (element->isClosed() && element->tag() && element->definition()->noParsingInside())))
            return true;
        const auto *inner = chunk.as<HXTextNode>();
        if (inner && keepsElementsWhole(*inner))
            return true;
    }
    return false;
}

// What holds after any copy: the tree reads back from its XML, and without elements kept whole
// it is the parse of its characters.
void verifyTree(const HXString &string) {
    string.checkInvariants();
    const auto back = readBack(string);
    QVERIFY(back && back->isEqualToChunkString(string));
    if (!keepsElementsWhole(string))
        QVERIFY(isAsParsed(string));
}

} // namespace

class tst_HXStringCopy : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void separator_data();
    void separator();
    void copyOptions_data();
    void copyOptions();
    void intoAnotherMarkup();
    void losses_data();
    void losses();
    void lockedStrings();
    void randomCopies();
    void snapshotsInSlices();
};

void tst_HXStringCopy::separator_data() {
    QTest::addColumn<QString>("target");
    QTest::addColumn<QString>("source");
    QTest::addColumn<QString>("separator");
    QTest::newRow("empty target") << QString() << u"b"_s << u"\n"_s;
    QTest::newRow("target ends in a line feed") << u"a\n"_s << u"b"_s << QString();
    QTest::newRow("source starts with a line feed") << u"a"_s << u"\nb"_s << QString();
    QTest::newRow("neither") << u"# a"_s << u"b\n"_s << u"\n"_s;
}

void tst_HXStringCopy::separator() {
    QFETCH(QString, target);
    QFETCH(QString, source);
    QFETCH(QString, separator);
    QCOMPARE(mutableString(source)->separatorForAppendingToString(*mutableString(target)),
             separator);
}

void tst_HXStringCopy::copyOptions_data() {
    QTest::addColumn<QString>("target");
    QTest::addColumn<QString>("source");
    QTest::addColumn<int>("options");
    QTest::addColumn<QString>("expected");
    const int both = HXStringCopyAppending | HXStringCopyInsertSeparator;
    QTest::newRow("no option replaces") << u"old\ntext"_s << u"# new"_s << 0 << u"# new"_s;
    QTest::newRow("a separator alone replaces")
        << u"old"_s << u"new"_s << int(HXStringCopyInsertSeparator) << u"new"_s;
    // The last paragraph of the target and the first of the copy become one, parsed as one.
    QTest::newRow("appending") << u"a\nx *"_s << u"y*\nz"_s << int(HXStringCopyAppending)
                               << u"a\nx *y*\nz"_s;
    QTest::newRow("appending with a separator") << u"a"_s << u"- b"_s << both << u"a\n- b"_s;
    QTest::newRow("separator not needed") << u"a\n"_s << u"b"_s << both << u"a\nb"_s;
    QTest::newRow("empty target") << QString() << u"b\n"_s << both << u"b\n"_s;
    // But a closed code span copied stays whole, and so the open one before it holds it.
    QTest::newRow("behind an open code span")
        << u"`a"_s << u"``"_s << int(HXStringCopyAppending) << u"`a``"_s;
}

void tst_HXStringCopy::copyOptions() {
    QFETCH(QString, target);
    QFETCH(QString, source);
    QFETCH(int, options);
    QFETCH(QString, expected);
    auto into = mutableString(target);
    mutableString(source)->copyToString(*into, options);
    QCOMPARE(into->string(), expected);
    verifyTree(*into);
}

void tst_HXStringCopy::intoAnotherMarkup() {
    // Tags are rewritten by definition: `+` and `1)` lists and the `---` divider the way markdown
    // writes them; what markdown has no tag for falls back to text, escapes stay.
    const auto source =
        mutableString(u"# T\n+ plus\n1) one\n---\n// note\n~~x~~ **b** a\\*b ==m==\n"_s);
    auto target = HXMutableString::stringWithMarkup(markdown());
    target->setString(u"replaced"_s);
    source->copyToString(*target);
    QCOMPARE(target->string(), u"# T\n- plus\n1. one\n***\n// note\n~~x~~ **b** a\\*b ==m==\n"_s);
    QCOMPARE(target->markup(), markdown());
    for (const HXParagraphRef &paragraph : target->paragraphs()) {
        const HXTextTagRef tag =
            paragraph->tag() ? paragraph->tag() : paragraph->groupings().value(0);
        QVERIFY(!tag || markdown()->allTags().contains(tag));
    }
    target->checkInvariants();
    QVERIFY(isAsParsed(*target));
    auto back = readBack(*target);
    QVERIFY(back && back->isEqualToChunkString(*target));

    // A footnote stays, as an element of its definition without a tag.
    auto footnote = HXTextElement::elementWithTag(HXTextTestSupport::tag("footnote"), markup());
    source->replaceCharactersInRange(HXRange{2, 0}, HXString::stringWithTextElement(footnote));
    source->copyToString(*target);
    const HXTextElementRef kept = target->textElementStartingAtIndex(2);
    QVERIFY(kept && !kept->tag() && kept->definition()->identifier() == u"footnote"_s);
    back = readBack(*target);
    QVERIFY(back);
    QVERIFY(back->isEqualToChunkString(*target));

    // An indented item keeps its marker, which markdown has too.
    mutableString(u" * item\n"_s)->copyToString(*target);
    QCOMPARE(target->string(), u" * item\n"_s);
}

void tst_HXStringCopy::losses_data() {
    QTest::addColumn<QString>("text");
    // An element put behind the text, and its footnote text or image file name.
    QTest::addColumn<QString>("element");
    QTest::addColumn<QString>("inner");
    // "noMark" is markdownqr without its `==` tag.
    QTest::addColumn<QString>("target");
    QTest::addColumn<qint64>("selector");
    QTest::addColumn<QStringList>("lost");
    const qint64 noMedia = 63 | HXSelectorNoMedia;
    QTest::newRow("footnote under 1080")
        << u"see "_s << u"footnote"_s << QString() << u"markdownqr"_s << qint64(1080)
        << QStringList{u"footnote"_s};
    QTest::newRow("paragraph tags under 1080")
        << u"# Head\n- item\n**b**"_s << QString() << QString() << u"markdownqr"_s << qint64(1080)
        << QStringList{u"heading1"_s, u"unorderedList"_s};
    QTest::newRow("no tag in the target markup")
        << u"~~gone~~ **kept**\n// note\n> quote"_s << QString() << QString() << u"markdown"_s
        << qint64(63) << QStringList{u"comment"_s, u"delete"_s};
    QTest::newRow("file without media") << QString() << u"image"_s << u"a.png"_s << u"markdownqr"_s
                                        << noMedia << QStringList{u"image"_s};
    QTest::newRow("file with media")
        << QString() << u"image"_s << u"a.png"_s << u"markdownqr"_s << qint64(63) << QStringList{};
    QTest::newRow("image without file")
        << QString() << u"image"_s << QString() << u"markdownqr"_s << noMedia << QStringList{};
    QTest::newRow("in a footnote's text") << u"see "_s << u"footnote"_s << u"a ==note=="_s
                                          << u"noMark"_s << qint64(63) << QStringList{u"mark"_s};
    QTest::newRow("footnote's text kept") << u"see "_s << u"footnote"_s << u"a ==note=="_s
                                          << u"markdownqr"_s << qint64(63) << QStringList{};
}

void tst_HXStringCopy::losses() {
    QFETCH(QString, text);
    QFETCH(QString, element);
    QFETCH(QString, inner);
    QFETCH(QString, target);
    QFETCH(qint64, selector);
    QFETCH(QStringList, lost);
    auto source = mutableString(text);
    if (!element.isEmpty()) {
        auto entity = HXTextElement::elementWithTag(
            HXTextTestSupport::tag(element.toLatin1().constData()), markup());
        if (element == u"footnote" && !inner.isNull())
            entity->attributes()->nestedStringForKey(u"text"_s)->setString(inner);
        if (element == u"image" && !inner.isNull())
            entity->attributes()->setFileWrapper(HXFileWrapper::regularFileWithContents(
                QByteArray("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16), inner));
        source->appendString(HXString::stringWithTextElement(entity));
    }
    std::shared_ptr<HXMarkup> under = HXMarkup::intrinsicMarkups().value(target);
    if (target == u"noMark") {
        under = markup()->copy();
        under->removeTag(under->tagWithIdentifier(u"mark"_s));
    }
    QStringList losses =
        source->lossDescriptionsForCopyingToString(*HXString::stringWithString({}, under, selector))
            .values();
    losses.sort();
    QCOMPARE(losses, lost);
}

void tst_HXStringCopy::lockedStrings() {
    // A string appended to itself: the source is read before the target is written.
    auto first = HXAtomicString::stringWithMarkup(markup());
    first->setString(u"a *b*"_s);
    first->appendToString(*first, true);
    QCOMPARE(first->string(), u"a *b*\na *b*"_s);

    // Two strings copied into each other on two threads at once don't wait for each other.
    auto second = HXAtomicString::stringWithMarkup(markdown());
    second->setString(u"- c"_s);
    std::thread other([&] {
        for (int i = 0; i < 300; ++i)
            second->copyToString(*first);
    });
    for (int i = 0; i < 300; ++i)
        first->copyToString(*second);
    other.join();
    for (const auto &string : {first, second}) {
        QVERIFY(string->string() == u"- c"_s || string->string() == u"a *b*\na *b*"_s);
        QVERIFY(isAsParsed(*string));
    }
}

void tst_HXStringCopy::randomCopies() {
    // Tokens whose tags both markups write alike, so that the characters survive the copy, list
    // markers indented too.
    static const QStringList alphabet{
        u"*"_s,   u"**"_s, u"_"_s,   u"`"_s,  u"```"_s, u"# "_s, u"> "_s,  u"- "_s,   u"* "_s,
        u"1. "_s, u"\\"_s, u"w "_s,  u"w"_s,  u"\n"_s,  u"\n"_s, u"é"_s,   u"~~"_s,   u"=="_s,
        u"// "_s, u"%%"_s, u"<&>"_s, u"[@"_s, u"]"_s,   u"{{"_s, u" * "_s, u"  - "_s, u" 1. "_s};
    static const QList<HXDefinitionSelector> selectors{63, 1080, 7, 63 | HXSelectorNoMedia};
    QRandomGenerator random(31);
    auto randomText = [&] {
        QString text;
        for (int i = int(random.bounded(12)); i > 0; --i)
            text += alphabet.at(qsizetype(random.bounded(quint32(alphabet.size()))));
        return text;
    };
    for (int round = 0; round < 1000; ++round) {
        const QString sourceText = randomText(), targetText = randomText();
        const auto under = random.bounded(2) ? markup() : markdown();
        const auto into = mutableString(
            targetText, under, selectors.at(qsizetype(random.bounded(quint32(selectors.size())))));
        const int options = int(random.bounded(4));
        // Now and then a footnote behind the text, which markdown has no tag for.
        const auto source = mutableString(sourceText);
        if (random.bounded(4) == 0)
            source->appendString(HXString::stringWithTextElement(
                HXTextElement::elementWithTag(HXTextTestSupport::tag("footnote"), markup())));
        source->copyToString(*into, options);

        QString oracle = source->string();
        if ((options & HXStringCopyAppending) && !targetText.isEmpty()) {
            const bool separated = (options & HXStringCopyInsertSeparator) &&
                                   !targetText.endsWith(u'\n') && !sourceText.startsWith(u'\n');
            oracle = targetText + (separated ? u"\n"_s : QString()) + oracle;
        }
        QCOMPARE(into->string(), oracle);
        verifyTree(*into);
        if (QTest::currentTestFailed()) {
            qWarning() << "copying" << sourceText << "into" << targetText << "with" << options;
            return;
        }
    }
}

void tst_HXStringCopy::snapshotsInSlices() {
    // Edits of every kind between the slices, anywhere in the text: the copy is the whole
    // string as it stood at the last slice, structure included.
    static const QStringList pieces{u"w "_s,  u"*e* "_s, u"\n"_s, u"# "_s, u"- "_s,
                                    u"`c`"_s, u"\n\n"_s, u"**"_s, u"x"_s,  u"\n1. "_s};
    QRandomGenerator random(17);
    auto piece = [&] { return pieces.at(qsizetype(random.bounded(quint32(pieces.size())))); };
    for (int round = 0; round < 200; ++round) {
        const auto string =
            HXAtomicString::stringWithMarkup(random.bounded(2) ? markup() : markdown());
        QString text;
        for (int i = int(random.bounded(400)); i > 0; --i)
            text += piece();
        string->setString(text);
        const auto copy =
            HXStringSnapshot::copyInSlices(*string, 1 + qsizetype(random.bounded(6)), [&] {
                for (int edits = int(random.bounded(3)); edits > 0; --edits) {
                    const quint64 length = string->length();
                    const quint64 at = random.bounded(quint32(length + 1));
                    const quint64 count = std::min<quint64>(random.bounded(8), length - at);
                    if (random.bounded(10) == 0)
                        string->setString(piece() + piece());
                    else
                        string->replaceCharactersInRange(HXRange{at, count},
                                                         HXReplacement(piece()));
                }
            });
        QVERIFY(copy->isEqualToChunkString(*string->copy()));
        copy->checkInvariants();
    }
}

HX_TEST_MAIN(tst_HXStringCopy)
#include "tst_HXStringCopy.moc"
