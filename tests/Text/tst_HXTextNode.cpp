// Text nodes built directly: paragraphs with prefixes, elements and entities, their editing rules,
// walks, atom texts and copies.

#include "HXTestSupport.h"
#include "HXTextTestSupport.h"
#include "Text/Markup/HXMarkup.h"
#include "Text/String/Atoms/HXEscapeAtom.h"
#include "Text/String/Nodes/HXParagraph.h"
#include "Text/String/Nodes/HXTextElement.h"
#include "Text/String/Parser/HXTextParser.h"

using namespace Qt::StringLiterals;

namespace {

using HXTestSupport::assertionText;
using HXTextTestSupport::element;
using HXTextTestSupport::markup;
using HXTextTestSupport::paragraph;
using HXTextTestSupport::tag;
const QChar object(0xfffc);

QStringList elementsAt(const HXTextNode &node, HXRange range) {
    QStringList found;
    node.enumerateElementsInRange(
        range, 0, [&](const HXTextElementRef &element, HXRange r, bool &) {
            found.append(element->definition()->identifier() + QStringLiteral("@") +
                         QString::number(r.location));
        });
    return found;
}

} // namespace

class tst_HXTextNode : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void headingParagraph();
    void entitiesHoldTheirAtoms();
    void objectsTakeNoText();
    void lineFeedStaysOutsideElements();
    void cursorRulesOfElementWalk();
    void walkOfStringsAndAtoms();
    void tagTexts();
    void atomConversion();
    void copiesAreIndependent();
    void textWithoutStructure();
};

void tst_HXTextNode::headingParagraph() {
    auto heading = paragraph({}, tag("heading2"));
    QCOMPARE(heading->string(), u"## "_s);
    heading->appendChunk(HXChunk(u"\n"_s));
    QCOMPARE(heading->children().size(), 1);
    QCOMPARE(heading->children().first().string(), u"\n"_s);
    heading->checkInvariants();

    // A list inside a quote: one atom for each level, then the tag.
    auto nested = HXParagraph::paragraphWithTag(
        tag("heading1"), {tag("blockquote"), nullptr, tag("orderedList", "\\d.")}, {1, 1, 4}, {},
        markup());
    QCOMPARE(nested->string(), u"> \t4. # "_s);
    QCOMPARE(nested->groupTagStrings().size(), 3);
    nested->checkInvariants();
    QCOMPARE(assertionText([&] { nested->setGroupings({tag("blockquote")}, nullptr, {}); }),
             u"Mismatching number of strings"_s);
}

void tst_HXTextNode::entitiesHoldTheirAtoms() {
    auto link = HXTextElement::elementWithURLString(u"https://example.org"_s, u"site"_s,
                                                    tag("link"), markup());
    QVERIFY(link->isEntity() && link->isClosed() && link->isIntact());
    QCOMPARE(link->string(), object + u"site"_s + object);
    QCOMPARE(link->attributes()->objectForKey(u"URL"_s).toString(), u"https://example.org"_s);
    QCOMPARE(assertionText([&] { link->headAtom()->characterAtIndex(1); }),
             u"Range or index out of bounds 1"_s);

    // Edits are held to the inner text; the atoms stay whole.
    HXRange edited;
    link->replaceCharactersInRange(HXRange{0, 3}, HXChunk(u"X"_s), &edited);
    QCOMPARE(edited, (HXRange{1, 2}));
    QCOMPARE(link->string(), object + u"Xte"_s + object);
    link->replaceCharactersInRange(HXRange{4, 2}, HXChunk(u"!"_s));
    QCOMPARE(link->string(), object + u"Xte!"_s + object);
    QVERIFY(link->isIntact());

    // Over the head atom of an entity inside an element, only the inner text changes.
    auto strong = element("strong", {HXChunk(u"a"_s), HXChunk(link)});
    auto line = paragraph({HXChunk(strong), HXChunk(u"\n"_s)});
    const quint64 linkStart = 3;
    line->replaceCharactersInRange(HXRange{linkStart, 1}, HXChunk(u"Z"_s));
    QCOMPARE(line->string(), u"**a"_s + object + u"ZXte!"_s + object + u"**\n"_s);
    QVERIFY(link->isIntact() && strong->isIntact());
    line->checkInvariants();

    // An empty entity takes text at its inner place.
    auto empty = HXTextElement::elementWithURLString(QString(), QString(), tag("link"), markup());
    empty->replaceCharactersInRange(HXRange{1, 0}, HXChunk(u"t"_s));
    QCOMPARE(empty->string(), object + u"t"_s + object);
    QVERIFY(empty->isIntact());
}

void tst_HXTextNode::objectsTakeNoText() {
    auto image = element("image", {});
    QVERIFY(image->isObject() && image->isEntity());
    QCOMPARE(image->string(), QString(object));
    QCOMPARE(assertionText([&] {
                 image->replaceCharactersInRange(HXRange{0, 0}, u"x"_s);
             }),
             u"Object cannot be edited!"_s);
    // Typed at its place, text goes in front of it.
    auto line = paragraph({HXChunk(u"a"_s), HXChunk(image), HXChunk(u"\n"_s)});
    line->replaceCharactersInRange(HXRange{1, 0}, HXChunk(u"x"_s));
    QCOMPARE(line->string(), u"ax"_s + object + u"\n"_s);
    QVERIFY(image->isIntact());
    line->checkInvariants();
}

void tst_HXTextNode::lineFeedStaysOutsideElements() {
    auto open = element("strong", {HXChunk(u"bold"_s)}, false);
    auto line = paragraph({HXChunk(u"a "_s), HXChunk(open)});
    QCOMPARE(line->string(), u"a **bold"_s);
    QVERIFY(!open->isClosed() && open->tailChunk().isNull() && open->tailAtom());

    HXRange edited, affected, replacement;
    line->replaceCharactersInRange(HXRange{6, 2}, HXChunk(u"x\n"_s), &edited, &affected,
                                   &replacement);
    QCOMPARE(line->string(), u"a **box\n"_s);
    QCOMPARE(line->children().last().string(), u"\n"_s);
    QCOMPARE(open->string(), u"**box"_s);
    QCOMPARE(replacement, (HXRange{6, 2}));
    line->checkInvariants();

    QCOMPARE(assertionText([&] {
                 line->replaceCharactersInRange(HXRange{1, 0}, u"\n"_s);
             }),
             u"Inserting newlines must happen at paragraoh end."_s);
}

void tst_HXTextNode::cursorRulesOfElementWalk() {
    // ab**cd** *ef   (the emphasis is not closed and runs to the end)
    auto line = paragraph({HXChunk(u"ab"_s), HXChunk(element("strong", {HXChunk(u"cd"_s)})),
                           HXChunk(u" "_s), HXChunk(element("emph", {HXChunk(u"ef"_s)}, false))});
    QCOMPARE(line->string(), u"ab**cd** *ef"_s);
    QCOMPARE(elementsAt(*line, HXRange{2, 0}), QStringList());              // at the start
    QCOMPARE(elementsAt(*line, HXRange{4, 0}), QStringList{u"strong@2"_s}); // inside
    QCOMPARE(elementsAt(*line, HXRange{8, 0}), QStringList());              // behind a closed one
    QCOMPARE(elementsAt(*line, HXRange{12, 0}), QStringList{u"emph@9"_s});  // behind an open one
    QCOMPARE(elementsAt(*line, HXRange{40, 0}), QStringList{u"emph@9"_s});
    QCOMPARE(elementsAt(*line, HXRange{3, 7}), (QStringList{u"strong@2"_s, u"emph@9"_s}));

    // Nested: outer first, and the walk stops when told.
    auto outer = element("strong", {HXChunk(u"x"_s), HXChunk(element("emph", {HXChunk(u"y"_s)}))});
    auto nested = paragraph({HXChunk(outer)});
    QCOMPARE(elementsAt(*nested, HXRange{5, 0}), (QStringList{u"strong@0"_s, u"emph@3"_s}));
    int calls = 0;
    nested->enumerateElementsInRange(HXRange{0, nested->length()}, 0,
                                     [&](const HXTextElementRef &, HXRange, bool &stop) {
                                         ++calls;
                                         stop = true;
                                     });
    QCOMPARE(calls, 1);
    QCOMPARE(elementsAt(*paragraph({}), HXRange{0, 0}), QStringList());
}

void tst_HXTextNode::walkOfStringsAndAtoms() {
    auto line = paragraph({HXChunk(u"Title "_s), HXChunk(element("strong", {HXChunk(u"x"_s)})),
                           HXChunk(HXRef<HXEscapeAtom>::make(u"\\*"_s)), HXChunk(u"\n"_s)},
                          tag("heading2"));
    QStringList walk;
    line->enumerateStringsAndAtomsInRange(
        HXRange{0, line->length()}, {}, 10,
        [&](const HXChunk &piece, bool isAtom, quint64 location, quint64 length,
            const HXOpenTags &tags, bool &) {
            QStringList names;
            for (const HXTextTagRef &open : tags)
                names.append(open ? open->definition()->identifier() : u"-"_s);
            walk.append(QStringLiteral("%1%2@%3+%4[%5]")
                            .arg(piece.string(), isAtom ? u"!"_s : QString())
                            .arg(location)
                            .arg(length)
                            .arg(names.join(u',')));
        });
    QCOMPARE(walk, (QStringList{u"## !@10+3[heading2]"_s, u"Title @13+6[heading2]"_s,
                                u"**!@19+2[heading2,strong]"_s, u"x@21+1[heading2,strong]"_s,
                                u"**!@22+2[heading2,strong]"_s, u"\\*@24+2[heading2]"_s,
                                u"\n@26+1[heading2]"_s}));

    // Pieces are clipped to the range, and a stop ends every level.
    walk.clear();
    line->enumerateStringsAndAtomsInRange(
        HXRange{1, 9}, {}, 0,
        [&](const HXChunk &piece, bool isAtom, quint64, quint64, const HXOpenTags &, bool &stop) {
            walk.append(piece.string() + (isAtom ? u"!"_s : QString()));
            stop = piece.string() == u"*"_s;
        });
    QCOMPARE(walk, (QStringList{u"# !"_s, u"Title "_s, u"*!"_s}));
}

void tst_HXTextNode::tagTexts() {
    const auto ordered = tag("orderedList", "\\d.");
    QCOMPARE(HXTextParser::stringMatchingPart(0, ordered.get(), u"7. "_s, {}), u"7. "_s);
    QCOMPARE(HXTextParser::stringMatchingPart(0, ordered.get(), u"x. "_s, [] { return 3; }),
             u"3. "_s);
    QList<HXRange> ranges;
    QCOMPARE(HXTextParser::stringMatchingPart(
                 0, ordered.get(), u"  x. "_s, [] { return 12; }, &ranges),
             u"  12. "_s);
    QCOMPARE(ranges, QList<HXRange>{(HXRange{2, 2})});
    QCOMPARE(HXTextParser::stringMatchingPart(0, tag("heading1").get(), u"   # "_s, {}),
             u"   # "_s);
    QCOMPARE(HXTextParser::stringMatchingPart(0, tag("heading1").get(), u"#"_s, {}), u"#"_s);
    QCOMPARE(HXTextParser::stringMatchingPart(0, nullptr, QString(), {}), u"\t"_s);

    QStringList romans, letters;
    for (quint64 n : {0, 1, 2, 3, 4, 9, 14, 1990})
        romans.append(HXTextParser::romanNumeral(n));
    QCOMPARE(romans, (QStringList{u"0"_s, u"i"_s, u"ii"_s, u"iii"_s, u"iv"_s, u"ix"_s, u"xiv"_s,
                                  u"mcmxc"_s}));
    for (quint64 n : {0, 1, 25, 26, 27, 52})
        letters.append(HXTextParser::letterNumeral(n));
    QCOMPARE(letters, (QStringList{u"0"_s, u"a"_s, u"y"_s, u"az"_s, u"aa"_s, u"bz"_s}));
    QCOMPARE(HXTextParser::numberForRomanNumeral(u" MCMXC\n"_s), 1990);
    QCOMPARE(HXTextParser::numberForRomanNumeral(u"iiv"_s), 3);
    QCOMPARE(HXTextParser::numberForRomanNumeral(u"ixq"_s), -1);
    QCOMPARE(HXTextParser::numberForLetterNumeral(u"az"_s), 1);
    QCOMPARE(HXTextParser::numberForLetterNumeral(u"B"_s), -1);

    QCOMPARE(HXTextParser::enumerationIndexForString(u"(12) "_s, u"(\\d)"_s), 12);
    QCOMPARE(HXTextParser::enumerationIndexForString(u"xiv. "_s, u"\\r."_s), 14);
    QCOMPARE(HXTextParser::enumerationIndexForString(u"word"_s, u"\\w"_s), 0);
    QCOMPARE(HXTextParser::enumerationIndexForString(u"- "_s, u"-"_s), 0);
    QCOMPARE(HXTextParser::stringMatchingPattern(u"\\w:"_s, 3), QString());
}

void tst_HXTextNode::atomConversion() {
    auto numbered = HXTextAtom::atomWithParagraph(tag("orderedList", "\\d."), u"2. "_s);
    QCOMPARE(numbered->pattern(), u"\\d."_s);
    // Atoms of the same text are one object.
    QCOMPARE(HXTextAtom::atomWithParagraph(tag("orderedList", "\\d."), u"2. "_s).get(),
             numbered.get());
    const auto letters =
        std::make_shared<HXTextTag>(tag("orderedList")->definition(), QStringList{u"\\a."_s});
    QCOMPARE(HXTextAtom::copyOfAtom(*numbered, letters, {})->stringRepresentation(), u"b. "_s);

    // No number in the old text: the provider's, else 1.
    auto bullet = HXTextAtom::atomWithParagraph(tag("unorderedList", "-"), u"- "_s);
    const auto ordered = tag("orderedList", "\\d.");
    QCOMPARE(HXTextAtom::copyOfAtom(*bullet, ordered, [](qsizetype) { return 4; })
                 ->stringRepresentation(),
             u"4. "_s);
    QCOMPARE(HXTextAtom::copyOfAtom(*bullet, ordered, {})->stringRepresentation(), u"1. "_s);

    // A tag that has no pattern for the part leaves the text, without a tag.
    auto strong = element("strong", {HXChunk(u"s"_s)});
    auto converted = HXTextAtom::copyOfAtom(*strong->tailAtom(), tag("footnote"), {});
    QVERIFY(!converted->tag());
    QCOMPARE(converted->stringRepresentation(), u"**"_s);
    QCOMPARE(
        assertionText([&] {
            HXTextAtom::atomWithParagraph(
                std::make_shared<HXTextTag>(tag("heading1")->definition(), QStringList{u"\\w"_s}),
                QString());
        }),
        u"Nil string disallowed for paragraphs"_s);
}

void tst_HXTextNode::copiesAreIndependent() {
    auto strong = element("strong", {HXChunk(u"bold"_s)});
    auto line = paragraph({HXChunk(u"a "_s), HXChunk(strong), HXChunk(u"\n"_s)}, tag("heading1"));
    auto copy = HXStaticCast<HXParagraph>(line->copy());
    QVERIFY(copy->isEqualToChunkString(*line));
    const auto copiedStrong = copy->children().at(1).pointerAs<HXTextElement>();
    QVERIFY(copiedStrong.get() != strong.get() && copiedStrong->isIntact());
    copy->checkInvariants();

    copiedStrong->replaceCharactersInRange(HXRange{2, 1}, HXChunk(u"B"_s));
    copy->recomputeIndexes();
    QVERIFY(!copy->isEqualToChunkString(*line));
    QCOMPARE(strong->string(), u"**bold**"_s);

    // A copy that cuts the prefix loses it; one that cuts an element's end tag breaks it.
    auto part = HXStaticCast<HXParagraph>(line->copyWithRange(HXRange{1, 6}));
    QCOMPARE(part->string(), u" a **b"_s);
    QVERIFY(!part->tag() && part->groupings().isEmpty());
    QVERIFY(!part->children().last().as<HXTextElement>()->isIntact());
    part->checkInvariants();
}

void tst_HXTextNode::textWithoutStructure() {
    auto link = HXTextElement::elementWithURLString(u"u"_s, u"l  k"_s, tag("link"), markup());
    auto line = paragraph({HXChunk(u"  a\\*  "_s), HXChunk(element("strong", {HXChunk(u"b"_s)})),
                           HXChunk(link), HXChunk(element("image", {})), HXChunk(u" \n"_s)},
                          tag("heading1"));
    QCOMPARE(line->stringByRemovingObjects(), u"#   a\\*  **b**l  k \n"_s);
    QCOMPARE(line->stringByRemovingObjectsAndTags(), u"a* bl k\n"_s);
    QVERIFY(line->isCountable());
    QVERIFY(!paragraph({HXChunk(u"x\n"_s)}, tag("comment"))->isCountable());
}

HX_TEST_MAIN(tst_HXTextNode)
#include "tst_HXTextNode.moc"
