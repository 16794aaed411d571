// The parser: which tag wins, the line-level prefix, the inline parse with its closing rules and
// escapes, reuse of elements, closed code kept whole, the reports of what changed, and trees that
// follow their edits.

#include "HXTestSupport.h"
#include "HXTextTestSupport.h"
#include "Text/String/Access/HXMutableString.h"
#include "Text/String/Access/HXStringXML.h"
#include "Text/String/Atoms/HXEscapeAtom.h"
#include "Text/String/Parser/HXTextParser.h"

#include <QRandomGenerator>

using namespace Qt::StringLiterals;

namespace {

using HXTextTestSupport::markup;
using HXTextTestSupport::tag;

HXParagraphRef parsed(const QString &text,
                      HXDefinitionSelector definitions = HXDefaultDefinitionSelector) {
    return HXParagraph::paragraphWithString(text, markup(), definitions);
}

// The tree in short: elements as identifier(children), "!" after an open one, escapes as \x.
QString outline(const HXChunkString &node) {
    QString result;
    for (const HXChunk &chunk : node.allChunks()) {
        if (const auto *element = chunk.as<HXTextElement>()) {
            result += element->definition()->identifier() +
                      (element->isClosed() ? u"("_s : u"!("_s) + outline(*element) + u")"_s;
        } else if (chunk.as<HXEscapeAtom>()) {
            result += u"\\"_s + chunk.string().mid(1);
        } else if (chunk.as<HXTextAtom>()) {
            continue;
        } else if (const HXChunkString *nested = chunk.chunkString()) {
            result += outline(*nested);
        } else {
            result += chunk.string();
        }
    }
    return result;
}

QString prefixOf(const HXParagraph &paragraph) {
    QStringList names;
    for (const HXTextTagRef &grouping : paragraph.groupings())
        names.append(grouping ? grouping->definition()->identifier() : u"indent"_s);
    if (paragraph.tag())
        names.append(paragraph.tag()->definition()->identifier());
    return names.join(u' ');
}

} // namespace

class tst_HXTextParser : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void inlineParse_data();
    void inlineParse();
    void linePrefix_data();
    void linePrefix();
    void openElementsRunToTheEnd();
    void entitiesKeepTheirObjects();
    void changesReported();
    void smallMarkupOfOurOwn();
    void patternEditor();
    void escapingMakesTextReadAsItself();
    void tagsValidInside();
    void closedCodeStaysWhole();
    void forbiddenEntitiesMeltToTheirTags();
    void treesFollowTheirEdits();
};

void tst_HXTextParser::inlineParse_data() {
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("tree");
    QTest::newRow("longest match") << u"a **b** c"_s << u"a strong(b) c"_s;
    QTest::newRow("single") << u"*b*"_s << u"emph(b)"_s;
    QTest::newRow("nested") << u"**a *b* c**"_s << u"strong(a emph(b) c)"_s;
    // Closing the outer tag leaves the inner one open; its end tag then opens a new one.
    QTest::newRow("crossed") << u"*a **b* c**"_s << u"emph(a strong!(b)) cstrong!()"_s;
    // After the escape a single asterisk opens first; inside it the longer strong wins.
    QTest::newRow("escape") << u"\\**a**"_s << u"\\*emph!(astrong!())"_s;
    QTest::newRow("escaped opener") << u"a \\*b*"_s << u"a \\*bemph!()"_s;
    QTest::newRow("code keeps backslashes") << u"`a\\*b*`"_s << u"code(a\\*b*)"_s;
    QTest::newRow("unmatched closer") << u"a]b"_s << u"a]b"_s;
    QTest::newRow("line feed outside") << u"**open\n"_s << u"strong!(open)\n"_s;
}

void tst_HXTextParser::inlineParse() {
    QFETCH(QString, text);
    QFETCH(QString, tree);
    const auto paragraph = parsed(text);
    QCOMPARE(paragraph->string(), text);
    QCOMPARE(outline(*paragraph), tree);
    paragraph->checkInvariants();
}

void tst_HXTextParser::linePrefix_data() {
    QTest::addColumn<QString>("text");
    QTest::addColumn<qint64>("definitions");
    QTest::addColumn<QString>("prefix");
    QTest::addColumn<QString>("strings");
    QTest::addColumn<QString>("rest");
    QTest::newRow("heading") << u"## Title"_s << 63ll << u"heading2"_s << u"## "_s << u"Title"_s;
    QTest::newRow("heading with lead")
        << u"   # T"_s << 63ll << u"heading1"_s << u"   # "_s << u"T"_s;
    QTest::newRow("three blanks are text")
        << u"   T"_s << 63ll << QString() << QString() << u"   T"_s;
    QTest::newRow("four blanks indent") << u"    T"_s << 63ll << u"indent"_s << u"    "_s << u"T"_s;
    QTest::newRow("tab indents") << u"\t\tT"_s << 63ll << u"indent indent"_s << u"\t|\t"_s
                                 << u"T"_s;
    QTest::newRow("quoted list") << u"> 1. *a*"_s << 63ll << u"blockquote orderedList"_s
                                 << u"> |1. "_s << u"emph(a)"_s;
    QTest::newRow("list needs a blank")
        << u"*a*"_s << 63ll << QString() << QString() << u"emph(a)"_s;
    QTest::newRow("list then heading")
        << u"- # x"_s << 63ll << u"unorderedList heading1"_s << u"- |# "_s << u"x"_s;
    QTest::newRow("code block") << u"```a *b* \\c"_s << 63ll << u"codeblock"_s << u"```"_s
                                << u"a *b* \\c"_s;
    QTest::newRow("no line tags") << u"## *T*"_s << 1080ll << QString() << QString()
                                  << u"## emph(T)"_s;
}

void tst_HXTextParser::linePrefix() {
    QFETCH(QString, text);
    QFETCH(qint64, definitions);
    QFETCH(QString, prefix);
    QFETCH(QString, strings);
    QFETCH(QString, rest);
    const auto paragraph = parsed(text, definitions);
    QCOMPARE(prefixOf(*paragraph), prefix);
    QStringList atoms;
    for (const HXTextAtomRef &atom : paragraph->groupTagStrings())
        atoms.append(atom->stringRepresentation());
    if (paragraph->tagString())
        atoms.append(paragraph->tagString()->stringRepresentation());
    QCOMPARE(atoms.join(u'|'), strings);
    QString inner;
    for (const HXChunk &chunk : paragraph->children()) {
        auto holder = HXParagraph::paragraphWithString(QString(), markup());
        holder->appendChunk(chunk);
        inner += outline(*holder);
    }
    QCOMPARE(inner, rest);
    QCOMPARE(paragraph->string(), text);
    paragraph->checkInvariants();
}

void tst_HXTextParser::openElementsRunToTheEnd() {
    const auto paragraph = parsed(u"a **b c\n"_s);
    const auto strong = paragraph->children().at(1).pointerAs<HXTextElement>();
    QVERIFY(strong && !strong->isClosed());
    QVERIFY(strong->tailChunk().isNull() && strong->tailAtom());
    QCOMPARE(paragraph->children().last().string(), u"\n"_s);

    // Deleting the closing characters in the middle leaves the element open to the end, with
    // the line feed outside.
    auto string = HXMutableString::stringWithMarkup(markup());
    string->setString(u"x **bold** y\nnext"_s);
    string->deleteCharactersInRange(HXRange{8, 2});
    const auto first = string->paragraphs().first();
    QCOMPARE(outline(*first), u"x strong!(bold y)\n"_s);
    QCOMPARE(first->children().last().string(), u"\n"_s);
    string->checkInvariants();
}

void tst_HXTextParser::entitiesKeepTheirObjects() {
    auto string = HXMutableString::stringWithMarkup(markup());
    string->setString(u"see \n"_s);
    auto link = HXTextElement::elementWithURLString(u"https://example.org"_s, u"site"_s,
                                                    tag("link"), markup());
    auto holder = HXString::stringWithTextElement(link);
    string->replaceCharactersInRange(HXRange{4, 0}, holder);
    const auto placed = string->textElementStartingAtIndex(4);
    QVERIFY(placed && placed->isEntity());
    QCOMPARE(placed->attributes()->objectForKey(u"URL"_s).toString(), u"https://example.org"_s);

    // Editing its text keeps the element, and so its attributes; text inside is parsed.
    string->replaceCharactersInRange(HXRange{6, 0}, HXChunk(u"*x*"_s));
    const auto after = string->textElementStartingAtIndex(4);
    QCOMPARE(after.get(), placed.get());
    QCOMPARE(outline(*string->paragraphs().first()), u"see link(semph(x)ite)\n"_s);
    string->checkInvariants();
}

void tst_HXTextParser::changesReported() {
    // Only moving a tag's end, with the old text a prefix of the new: no changed characters.
    QVERIFY(HXTextParser::compareFlatString(u"**a"_s, u"**a**"_s).isNotFound());
    QCOMPARE(HXTextParser::compareFlatString(u"abcdef"_s, u"abXdef"_s), (HXRange{2, 1}));
    // A difference inside a composed character covers all of it.
    QCOMPARE(HXTextParser::compareFlatString(u"a\U0001F600b"_s, u"a\U0001F601b"_s),
             (HXRange{1, 2}));
    QCOMPARE(HXTextParser::compareFlatString(u"ae\u0301b"_s, u"ae\u0300b"_s), (HXRange{1, 2}));

    auto string = HXMutableString::stringWithMarkup(markup());
    string->setString(u"a *b c\nnext"_s);
    HXRange edited, affected, replacement;
    // Closing the emphasis changes the structure of the paragraph, not the other characters.
    string->replaceCharactersInRange(HXRange{4, 0}, HXChunk(u"*"_s), &edited, &affected,
                                     &replacement);
    QCOMPARE(outline(*string->paragraphs().first()), u"a emph(b) c\n"_s);
    QCOMPARE(edited, (HXRange{4, 0}));
    QVERIFY(affected.location <= 2 && affected.max() >= 4);
    QVERIFY(replacement.location <= 2 && replacement.max() >= 6);
}

void tst_HXTextParser::smallMarkupOfOurOwn() {
    HXError error;
    const auto own = HXMarkup::markupWithData(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<markup version=\"1\">"
        "<tag definition=\"heading1\" pattern=\"=\"/>"
        "<tag definition=\"filename\" pattern=\"@@\"/>"
        "<tag definition=\"orderedList\" pattern=\"(\\a)\"/>"
        "<tag definition=\"emph\" startPattern=\"/\" endPattern=\"/\"/>"
        "<tag definition=\"strong\" startPattern=\"*\" endPattern=\"*\"/>"
        "</markup>\n",
        &error);
    QVERIFY2(own, qPrintable(error.localizedFailureReason()));
    auto parse = [&](const QString &text, HXDefinitionSelector definitions) {
        auto paragraph = HXParagraph::paragraphWithString(text, own, definitions);
        paragraph->checkInvariants();
        return paragraph;
    };
    const auto heading = parse(u"= Title /x/ *y*"_s, 63);
    QCOMPARE(prefixOf(*heading), u"heading1"_s);
    QCOMPARE(outline(*heading), u"Title emph(x) strong(y)"_s);
    QCOMPARE(prefixOf(*parse(u"(b) item"_s, 63)), u"orderedList"_s);
    // The file name tag counts only where it is allowed, and never below a grouping.
    QCOMPARE(prefixOf(*parse(u"@@ name"_s, 63)), QString());
    QCOMPARE(prefixOf(*parse(u"@@ name"_s, 63 | HXSelectorAllowsFilename)), u"filename"_s);
    QCOMPARE(prefixOf(*parse(u"(a) @@ name"_s, 63 | HXSelectorAllowsFilename)), u"orderedList"_s);
}

void tst_HXTextParser::patternEditor() {
    QCOMPARE(HXTextParser::stringsAndExpressionsFromPattern(u"(\\d) x"_s),
             (QStringList{u"("_s, u"\\d"_s, u") x"_s}));
    QCOMPARE(HXTextParser::stringsAndExpressionsFromPattern(u"\\d\\r"_s),
             (QStringList{QString(), u"\\d"_s, QString(), u"\\r"_s}));
    // Backslashes of literals are doubled, so that they come back as they were.
    const QStringList parts{u"a\\b"_s, u"\\a"_s, u"."_s};
    const QString pattern = HXTextParser::patternWithStringsAndExpressions(parts);
    QCOMPARE(pattern, u"a\\\\b\\a."_s);
    QCOMPARE(HXTextParser::stringsAndExpressionsFromPattern(pattern), parts);
    QCOMPARE(HXTextParser::shortDisplayStringForPatternExpression(u"\\r"_s), u"i"_s);
    for (const QString &expression : HXTextParser::userPatternExpressions())
        QVERIFY(HXTextParser::displayStringForPatternExpression(expression) != expression);
}

void tst_HXTextParser::escapingMakesTextReadAsItself() {
    HXTextParser::TagList tags = markup()->allTags();
    tags.append(nullptr);
    auto joined = [](const QList<HXChunk> &chunks) {
        QString text;
        for (const HXChunk &chunk : chunks)
            text += chunk.string();
        return text;
    };
    for (const QString &input : {u"# a *b* \\ c"_s, u"  > - **x**"_s, u"plain"_s}) {
        const QString escaped = joined(HXTextParser::escapedStringsForString(input, tags, true));
        const auto paragraph = parsed(escaped);
        QVERIFY2(!paragraph->tag() && paragraph->groupings().isEmpty(), qPrintable(escaped));
        // Only escapes and text: taken back out of their escapes, the characters are the input.
        QString read;
        for (const HXChunk &chunk : paragraph->children()) {
            QVERIFY2(!chunk.as<HXTextElement>(), qPrintable(escaped));
            read += chunk.as<HXEscapeAtom>() ? chunk.as<HXEscapeAtom>()->stringWithoutEscape()
                                             : chunk.string();
        }
        QCOMPARE(read, input);
    }
    QCOMPARE(joined(HXTextParser::escapedStringsForString(u"# x"_s, tags, false)), u"# x"_s);
}

void tst_HXTextParser::tagsValidInside() {
    HXTextParser::TagList all = markup()->allTags();
    all.append(nullptr);
    auto identifiers = [](const HXTextParser::TagList &tags) {
        QSet<QString> names;
        for (const HXTextTagRef &each : tags)
            names.insert(each ? each->definition()->identifier() : u"escape"_s);
        return names;
    };
    QVERIFY(HXTextParser::tagsByFilteringTags(all, tag("code"), {}, 63).isEmpty());
    QVERIFY(HXTextParser::tagsByFilteringTags(all, nullptr, {tag("codeblock")}, 63).isEmpty());
    const auto insideStrong =
        identifiers(HXTextParser::tagsByFilteringTags(all, tag("strong"), {}, 63));
    QVERIFY(insideStrong.contains(u"emph"_s) && insideStrong.contains(u"escape"_s));
    // Inside a tag no grouping may begin; other tags are as the selector says.
    QVERIFY(!insideStrong.contains(u"orderedList"_s) && insideStrong.contains(u"heading1"_s));
    QCOMPARE(
        HXTextParser::tagsByFilteringTags(all, tag("strong"), {}, 63).count(tag("strong", "**")),
        0);
    QVERIFY(identifiers(HXTextParser::tagsByFilteringTags(all, nullptr, {tag("blockquote")}, 63))
                .contains(u"orderedList"_s));
    QVERIFY(!identifiers(HXTextParser::tagsByFilteringTags(all, nullptr, {tag("comment")}, 63))
                 .contains(u"orderedList"_s));
}

void tst_HXTextParser::closedCodeStaysWhole() {
    // Typing an opener before a code span: the span stays as it was, inside the open emphasis,
    // where a fresh parse of the same characters would close the emphasis inside the span.
    auto string = HXMutableString::stringWithMarkup(markup());
    string->setString(u"x `b* c`"_s);
    string->replaceCharactersInRange(HXRange{0, 0}, HXChunk(u"*"_s));
    QCOMPARE(outline(*string->paragraphs().first()), u"emph!(x code(b* c))"_s);
    QCOMPARE(outline(*parsed(string->string())), u"emph(x code!(b)) ccode!()"_s);
    // Cutting into the span's end tag melts it again.
    string->deleteCharactersInRange(HXRange{8, 1});
    QCOMPARE(outline(*string->paragraphs().first()), u"emph(x code!(b)) c"_s);
}

void tst_HXTextParser::forbiddenEntitiesMeltToTheirTags() {
    HXError error;
    const auto own = HXMarkup::markupWithData(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<markup version=\"1\">"
        "<tag definition=\"codeblock\" pattern=\"```\"/>"
        "<tag definition=\"link\" startPattern=\"[\" endPattern=\"]\"/>"
        "</markup>\n",
        &error);
    QVERIFY2(own, qPrintable(error.localizedFailureReason()));
    auto string = HXMutableString::stringWithMarkup(own);
    string->setString(u"see [x] now"_s);
    const auto link = string->textElementStartingAtIndex(4);
    QVERIFY(link && link->isEntity());
    // In a code block no tag is allowed: the link comes back as the text of its tags.
    string->replaceCharactersInRange(HXRange{0, 0}, HXChunk(u"```"_s));
    QCOMPARE(string->string(), u"```see [x] now"_s);
    string->checkInvariants();
}

// Random edits: the text follows a plain oracle, the tree is the one its XML reads back to, and
// where no code span was kept whole it is the tree of a fresh parse of the same characters.
void tst_HXTextParser::treesFollowTheirEdits() {
    static const QStringList alphabet{u"*"_s, u"*"_s,  u"_"_s, u"["_s,  u"]"_s,  u"\\"_s,
                                      u"#"_s, u" "_s,  u" "_s, u"\n"_s, u"`"_s,  u">"_s,
                                      u"-"_s, u"1."_s, u"a"_s, u"b"_s,  u"~~"_s, u"=="_s};
    QRandomGenerator random(5);
    int withCode = 0, withoutCode = 0;
    const int rounds = qEnvironmentVariableIntValue("VELMORA_STRESS") ? 200 : 12;
    for (int round = 0; round < rounds; ++round) {
        auto string = HXMutableString::stringWithMarkup(markup());
        QString oracle;
        for (int step = 0; step < 250; ++step) {
            const quint64 total = quint64(oracle.size());
            const quint64 location = random.bounded(quint64(total + 1));
            const quint64 length =
                random.bounded(4) ? 0 : std::min<quint64>(random.bounded(5), total - location);
            QString text;
            for (int i = int(random.bounded(4)); i > 0; --i)
                text += alphabet.at(qsizetype(random.bounded(quint32(alphabet.size()))));
            string->replaceCharactersInRange(HXRange{location, length}, HXChunk(text));
            oracle.replace(qsizetype(location), qsizetype(length), text);
            QCOMPARE(string->string(), oracle);
            string->checkInvariants();
            if (step % 25 != 24)
                continue;
            HXError error;
            const QByteArray xml = HXStringXML::XMLData(*string);
            for (const QByteArray &form : {xml, HXTextTestSupport::forTheGeneralParser(xml)}) {
                const auto back = HXStringXML::stringWithXMLData(form, markup(), 63, &error);
                QVERIFY2(back && back->isEqualToChunkString(*string), qPrintable(oracle));
            }
            bool keptCode = false;
            string->enumerateAllElements(HXSelectorForScope(HXTextScope),
                                         [&](const HXTextElementRef &element, HXRange, bool &) {
                                             keptCode = keptCode ||
                                                        (element->isClosed() &&
                                                         element->definition()->noParsingInside());
                                         });
            if (keptCode) {
                ++withCode;
                continue;
            }
            ++withoutCode;
            const auto fresh = HXString::stringWithString(oracle, markup());
            QVERIFY2(fresh->isEqualToChunkString(*string),
                     qPrintable(u"after "_s + oracle + u"\n"_s + fresh->description() + u"\n"_s +
                                string->description()));
        }
    }
    QVERIFY(withCode > 0 && withoutCode > 0);
}

HX_TEST_MAIN(tst_HXTextParser)
#include "tst_HXTextParser.moc"
