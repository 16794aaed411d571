// Strings: the editing door against a plain text, merging and splitting of paragraphs, structure
// queries, paragraph walks with their rules, and the locked string under several threads.

#include "HXTestSupport.h"
#include "HXTextTestSupport.h"
#include "Text/Markup/HXIntrinsicDefinition.h"
#include "Text/String/Access/HXAtomicString.h"

#include <QRandomGenerator>

#include <atomic>
#include <thread>

using namespace Qt::StringLiterals;

// GCC 12 takes the text of a chunk built in an initializer list for uninitialized.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

namespace {

using HXTestSupport::assertionText;
using HXTextTestSupport::markup;
using HXTextTestSupport::paragraph;
using HXTextTestSupport::tag;

HXTextElementRef element(const char *identifier, const QString &inner, bool closed = true) {
    return HXTextTestSupport::element(identifier, {HXChunk(inner)}, closed);
}

// A text of headings, lists and elements built as a parser would leave it.
void fillWithStructure(HXMutableString &string) {
    string.appendParagraph(paragraph({HXChunk(u"Title\n"_s)}, tag("heading1")));
    string.appendParagraph(
        paragraph({HXChunk(u"Some "_s), HXChunk(element("strong", u"bold"_s)), HXChunk(u" and "_s),
                   HXChunk(element("emph", u"open"_s, false)), HXChunk(u"\n"_s)}));
    string.appendParagraph(HXParagraph::paragraphWithString(u"\n"_s, markup()));
    string.appendParagraph(paragraph({HXChunk(u"item\n"_s)}, tag("unorderedList", "-")));
    string.appendParagraph(paragraph({HXChunk(u"end "_s), HXChunk(element("code", u"x"_s))}));
}

struct RecordingObserver : HXStringObserver {
    HXRange replaced;
    HXReadWriteLock::Mode modeInside = HXReadWriteLock::Mode::None;
    HXAtomicString *atomic = nullptr;
    void stringChangedCharactersInRange(HXString &, HXRange, const HXReplacement &, HXRange,
                                        HXRange, HXRange replacementRange) override {
        replaced = replacementRange;
        if (atomic)
            modeInside = atomic->lock().currentMode();
    }
};

} // namespace

class tst_HXString : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void randomEditsKeepTextAndStructure();
    void mergingAndSplitting();
    void forbiddenCharactersStayOut();
    void pastedTextTakesTheTargetsDefinitions();
    void immutableStrings();
    void paragraphWalks();
    void numbering();
    void structureQueries();
    void markupChanges();
    void lockedStringUnderThreads();
    void lockReentrancyAndSharing();
    void queriesReadOneState();
};

void tst_HXString::randomEditsKeepTextAndStructure() {
    auto string = HXMutableString::stringWithMarkup(markup());
    fillWithStructure(*string);
    string->checkInvariants();
    QString oracle = string->string();

    QRandomGenerator random(20261123);
    static const QStringList alphabet{u"a"_s,  u"b"_s,      u" "_s,          u"*"_s,     u"#"_s,
                                      u"_"_s,  u"\\"_s,     u">"_s,          u"-"_s,     u"\n"_s,
                                      u"\n"_s, u"\u00e9"_s, u"\U0001F600"_s, u"\u0001"_s};
    for (int step = 0; step < 4000; ++step) {
        const quint64 total = quint64(oracle.size());
        quint64 location = random.bounded(quint64(total + 1));
        // Often at the very end, where a final line feed leaves no paragraph.
        if (random.bounded(8) == 0)
            location = total;
        const quint64 length = std::min<quint64>(
            random.bounded(8) == 0 ? random.bounded(30) : random.bounded(4), total - location);
        QString text;
        const int count = int(random.bounded(random.bounded(2) ? 3 : 12));
        for (int i = 0; i < count; ++i)
            text += alphabet.at(qsizetype(random.bounded(quint32(alphabet.size()))));
        // Never split a surrogate pair of the oracle.
        auto outsidePair = [&](quint64 index) {
            return index == 0 || index >= total || !oracle.at(qsizetype(index)).isLowSurrogate();
        };
        if (!outsidePair(location) || !outsidePair(location + length))
            continue;

        HXRange replacement;
        string->replaceCharactersInRange(HXRange{location, length}, HXChunk(text), nullptr, nullptr,
                                         &replacement);
        text.remove(QChar(1));
        oracle.replace(qsizetype(location), qsizetype(length), text);
        QCOMPARE(string->string(), oracle);
        QVERIFY(replacement.location <= location);
        string->checkInvariants();
        // Each line feed ends a paragraph; the end behind a final one belongs to none.
        const bool openEnd = oracle.isEmpty() || oracle.endsWith(u'\n');
        QCOMPARE(string->paragraphs().size(), oracle.count(u'\n') + (openEnd ? 0 : 1));
        const quint64 end = string->length(), lastLine = quint64(oracle.lastIndexOf(u'\n') + 1);
        QCOMPARE(string->paragraphRangeForRange(HXRange{end, 0}),
                 (openEnd ? HXRange{end, 0} : HXRange{lastLine, end - lastLine}));
    }
    QVERIFY(string->paragraphs().size() > 20);
}

void tst_HXString::mergingAndSplitting() {
    // The texts and paragraphs that edits leave are the random test's; here go bookmarks,
    // paragraph identity, the ranges reported, and text of another markup.
    auto string = HXMutableString::stringWithMarkup(markup());
    string->setString(u"one\ntwo\nthree"_s);
    const auto first = string->paragraphs().at(0);
    const auto mark = HXBookmark::bookmark();
    string->setBookmark(mark, 4);
    QCOMPARE(assertionText([&] { string->setBookmark(mark, 5); }), u"No paragraph at index 5."_s);

    // Deleting a line feed merges; the second's bookmark goes to the first, which had none.
    HXRange affected, replacement;
    string->replaceCharactersInRange(HXRange{3, 1}, HXChunk(QString()), nullptr, &affected,
                                     &replacement);
    QCOMPARE(string->paragraphs().first(), first);
    QCOMPARE(first->bookmark(), mark);
    QCOMPARE(affected, (HXRange{3, 5}));
    QCOMPARE(replacement, (HXRange{3, 4}));

    // Two lines into the middle of a paragraph: the bookmark stays with the first line.
    string->replaceCharactersInRange(HXRange{2, 0}, HXChunk(u"A\nB"_s));
    QCOMPARE(string->paragraphs().at(0)->bookmark(), mark);
    QVERIFY(!string->paragraphs().at(1)->bookmark());

    // Pasting a string of another markup brings it into this one.
    const auto markdown = HXMarkup::intrinsicMarkups().value(u"markdown"_s);
    string->replaceCharactersInRange(HXRange{0, 0},
                                     HXString::stringWithString(u"## pasted\n"_s, markdown));
    QCOMPARE(string->string().left(10), u"## pasted\n"_s);
    string->checkInvariants();
}

void tst_HXString::forbiddenCharactersStayOut() {
    auto string = HXMutableString::stringWithMarkup(markup());
    HXRange replacement;
    string->replaceCharactersInRange(HXRange{0, 0}, HXChunk(u"a\u0001b\u0008c\uFFFE"_s), nullptr,
                                     nullptr, &replacement);
    QCOMPARE(string->string(), u"abc"_s);
    QCOMPARE(replacement, (HXRange{0, 3}));
    // Line ends of other systems come in as line feeds: no paragraph ends in a carriage return.
    string->setString(u"one\r\ntwo\rthree\r"_s);
    QCOMPARE(string->string(), u"one\ntwo\nthree\n"_s);
    QCOMPARE(string->paragraphs().size(), 3);
}

void tst_HXString::pastedTextTakesTheTargetsDefinitions() {
    // A footnote's text recognizes no line-level tags; pasted headings and lists become text.
    auto note = HXMutableString::stringWithMarkup(markup(), HXNestedStringDefinitionSelector);
    note->setString(u"note "_s);
    const auto source = HXString::stringWithString(u"# Head\n- *item*\n"_s, markup());
    note->replaceCharactersInRange(HXRange{5, 0}, source);
    QCOMPARE(note->string(), u"note # Head\n- *item*\n"_s);
    for (const HXParagraphRef &paragraph : note->paragraphs()) {
        QVERIFY(!paragraph->tag() && paragraph->groupings().isEmpty());
        QCOMPARE(paragraph->recognizedDefinitions(), HXNestedStringDefinitionSelector);
    }
    QVERIFY(note->isEqualToChunkString(
        *HXString::stringWithString(note->string(), markup(), HXNestedStringDefinitionSelector)));
}

void tst_HXString::immutableStrings() {
    const auto text = HXString::stringWithString(u"a\nb"_s, markup());
    QCOMPARE(assertionText([&] { text->insertString(u"x"_s, 0); }),
             u"Attempt to mutate immutable string!"_s);
    QCOMPARE(assertionText([&] { text->setString(u"x"_s); }),
             u"Attempt to mutate immutable string!"_s);
    QCOMPARE(assertionText([&] {
                 text->enumerateParagraphsInRange(
                     HXRange{0, 1}, HXStringEnumerationWithModificationOption,
                     [](const HXParagraphRef &, quint64, quint64, bool &) {});
             }),
             u"HXStringEnumerationWithModificationOption passed to an enumeration of an "
             u"immutable string!"_s);

    // A mutable copy edits without touching the original.
    auto editable = text->mutableCopy();
    editable->appendString(u"c"_s);
    QCOMPARE(text->string(), u"a\nb"_s);

    // Pieces of ranges: each but the last ends in a line feed; bookmarks stay behind.
    editable->setBookmark(HXBookmark::bookmark(), 0);
    const auto pieces = editable->substringWithRanges({HXRange{0, 1}, HXRange{3, 1}});
    QCOMPARE(pieces->string(), u"a\nc"_s);
    QVERIFY(!pieces->paragraphs().first()->bookmark());
    pieces->checkInvariants();
}

void tst_HXString::paragraphWalks() {
    auto string = HXMutableString::stringWithMarkup(markup());
    string->setString(u"aa\nbb\ncc\ndd"_s);
    QStringList seen;
    const HXRange visited = string->enumerateParagraphsInRange(
        HXRange{1, 6}, HXStringEnumerationWithModificationOption,
        [&](const HXParagraphRef &paragraph, quint64 location, quint64 length, bool &) {
            seen.append(paragraph->string());
            if (paragraph->string() == u"bb\n"_s)
                string->deleteCharactersInRange(HXRange{location, length});
        });
    QCOMPARE(seen, (QStringList{u"aa\n"_s, u"bb\n"_s, u"cc\n"_s}));
    QCOMPARE(visited, (HXRange{0, 6}));
    QCOMPARE(string->string(), u"aa\ncc\ndd"_s);

    QCOMPARE(assertionText([&] {
                 string->enumerateParagraphsInRange(
                     HXRange{0, 1}, [&](const HXParagraphRef &, quint64, quint64, bool &) {
                         string->insertString(u"x"_s, 0);
                     });
             }),
             u"Supply HXStringEnumerationWithModificationOption as option to "
             u"-enumerateParagraphsInRange:options:usingBlock: in order to allow modifications."_s);
    QCOMPARE(assertionText([&] {
                 string->enumerateParagraphsInRange(
                     HXRange{0, 1}, HXStringEnumerationWithModificationOption,
                     [&](const HXParagraphRef &paragraph, quint64, quint64, bool &) {
                         paragraph->appendChunk(HXChunk(u"y"_s));
                     });
             }),
             u"Modification to paragraph not performed through string API!"_s);
}

void tst_HXString::numbering() {
    auto string = HXMutableString::stringWithMarkup(markup());
    string->setString(u"first\n\n"_s);
    // The file name paragraph of a foreign sheet is left out of the numbering.
    const auto filename = std::make_shared<HXTextTag>(
        HXIntrinsicDefinition::intrinsicDefinitionWithIdentifier(u"filename"_s),
        QStringList{u"@"_s});
    string->appendParagraph(paragraph({HXChunk(u"name\n"_s)}, filename));
    string->appendString(u"second\nx"_s);
    const quint64 secondAt = quint64(string->string().indexOf(u"second"_s));
    QCOMPARE(string->numberForParagraphAtIndex(0), 1u);
    QCOMPARE(string->numberForParagraphAtIndex(6), HXNotFound);
    HXRange range;
    QCOMPARE(string->numberForParagraphAtIndex(secondAt, &range), 2u);
    QCOMPARE(range.length, 7u);
    // The last paragraph counts with one character, unless it is a lone line feed.
    QCOMPARE(string->numberForParagraphAtIndex(string->length() - 1), 3u);
    // The same numbers with the count carried from one call to the next, in any order.
    QVariantMap state;
    QCOMPARE(string->numberForParagraphAtIndex(secondAt, nullptr, &state), 2u);
    QCOMPARE(string->numberForParagraphAtIndex(string->length() - 1, nullptr, &state), 3u);
    QCOMPARE(string->numberForParagraphAtIndex(0, nullptr, &state), 1u);

    // The number of the last grouping of a list at a level.
    auto list = HXMutableString::stringWithMarkup(markup());
    const auto ordered = tag("orderedList", "\\d.");
    list->appendParagraph(HXParagraph::paragraphWithTag(nullptr, {ordered}, {7}, {}, markup()));
    list->appendString(u"a\n"_s);
    list->appendParagraph(
        HXParagraph::paragraphWithTag(nullptr, {ordered, nullptr}, {1, 1}, {}, markup()));
    list->appendString(u"b\n"_s);
    HXTextTagRef found;
    const quint64 second = quint64(list->string().indexOf(u"1. "_s));
    QCOMPARE(list->lastEnumerationIndexOfGrouping(&found, 0, second), 7u);
    QCOMPARE(found, ordered);
    HXTextTagRef other = tag("unorderedList", "-");
    QCOMPARE(list->lastEnumerationIndexOfGrouping(&other, 0, second), 0u);
    // The indentation level of the second paragraph has no number before it.
    QCOMPARE(list->lastEnumerationIndexOfGrouping(&found, 1, list->length()), 0u);
}

void tst_HXString::structureQueries() {
    auto string = HXMutableString::stringWithMarkup(markup());
    fillWithStructure(*string);
    string->appendParagraph(paragraph({HXChunk(u"\n"_s)}, tag("heading3")));
    const QString text = string->string();
    QCOMPARE(text, u"# Title\nSome **bold** and *open\n\n- item\nend `x`\n### \n"_s);
    // At 13 "**bold", at 31 the line feed behind "open", at 33 "- item", at 48 "### ".

    QCOMPARE(string->highestHeadingLevel(), 1u);
    HXRange titleRange;
    QCOMPARE(string->stringWithTitleFromRange(HXRange{0, string->length()}, &titleRange),
             u"Title"_s);
    QCOMPARE(titleRange, (HXRange{0, 8}));
    QVERIFY(string->stringWithTitleFromRange(HXRange{32, 1}).isNull());
    QCOMPARE(string->rangeOfFirstParagraphMatchingMask(HXSelectorForScope(HXGroupingScope), false),
             (HXRange{33, 7}));
    QVERIFY(string->rangeOfFirstParagraphMatchingMask(HXSelectorForScope(HXGroupingScope), true)
                .isNotFound());

    HXRange effective;
    const auto strong = string->textElementStartingAtIndex(13, &effective);
    QVERIFY(strong);
    QCOMPARE(effective, (HXRange{13, 8}));
    QVERIFY(!string->textElementStartingAtIndex(14));
    QCOMPARE(string->rangeOfTextElement(*strong), effective);

    auto elementsIn = [&](HXRange range, HXDefinitionSelector scopes) {
        QStringList found;
        string->enumerateElementsInRange(range, scopes,
                                         [&](const HXTextElementRef &element, HXRange, bool &) {
                                             found.append(element->definition()->identifier());
                                         });
        return found;
    };
    QCOMPARE(elementsIn(HXRange{0, string->length()}, HXSelectorForScope(HXTextScope)),
             (QStringList{u"strong"_s, u"emph"_s, u"code"_s}));
    // The cursor behind the open emphasis, before the line feed, is inside it.
    QCOMPARE(elementsIn(HXRange{31, 0}, HXSelectorAllScopes), QStringList{u"emph"_s});

    QStringList visible;
    string->enumerateVisibleTagsInRange(
        HXRange{0, string->length()},
        [&](const HXTextTagRef &tag, quint64 location, quint64 length, bool &) {
            visible.append(tag->definition()->identifier() + u'@' + QString::number(location) +
                           u'+' + QString::number(length));
        });
    QCOMPARE(visible,
             (QStringList{u"heading1@0+2"_s, u"unorderedList@33+2"_s, u"heading3@48+4"_s}));

    QString walked;
    string->enumerateStringsAndAtomsInRange(HXRange{0, string->length()},
                                            [&](const HXChunk &piece, bool, quint64, quint64,
                                                const HXOpenTags &,
                                                bool &) { walked += piece.string(); });
    QCOMPARE(walked, text);
    QCOMPARE(string->stringByRemovingObjectsAndTags(),
             u"Title\nSome bold and open\n\nitem\nend x\n\n"_s);
    string->setBookmark(HXBookmark::bookmark(), 8);
    QCOMPARE(string->bookmarksInRange(HXRange{0, 9}).keys(), QList<quint64>{8});
    QVERIFY(string->bookmarksInRange(HXRange{9, 20}).isEmpty());
}

void tst_HXString::markupChanges() {
    const auto own = markup()->duplicate();
    const auto ordered = own->tagWithIdentifier(u"orderedList"_s, u"1. "_s);
    auto string = HXMutableString::stringWithMarkup(own);
    string->setString(u"1. item\n2. item\n3. item\n"_s);
    auto observer = std::make_shared<RecordingObserver>();
    string->addStringObserver(observer);

    // The string follows a change of its markup's tags: numbers are read from the old text and
    // written the new way.
    ordered->setPatterns({u"\\r."_s});
    QCOMPARE(string->string(), u"i. item\nii. item\niii. item\n"_s);
    QCOMPARE(observer->replaced, (HXRange{0, string->length()}));
    string->checkInvariants();

    // Into another markup: tags of the same definition, matched by their text.
    string->setMarkup(HXMarkup::intrinsicMarkups().value(u"markdown"_s));
    QCOMPARE(string->string(), u"1. item\n2. item\n3. item\n"_s);
    QCOMPARE(string->paragraphs().first()->groupings().first()->patterns(), QStringList{u"\\d."_s});
    observer.reset();
    string->appendString(u"x"_s); // a dead observer is dropped quietly
    string->checkInvariants();
}

void tst_HXString::lockedStringUnderThreads() {
    auto string = HXAtomicString::stringWithMarkup(markup());
    fillWithStructure(*string);
    auto observer = std::make_shared<RecordingObserver>();
    observer->atomic = string.get();
    string->addStringObserver(observer);

    std::atomic<bool> done = false;
    std::atomic<int> reads = 0, faults = 0;
    auto reader = [&] {
        while (!done) {
            string->read([&] {
                // One consistent state: the paragraphs make up the text, and the tree is sound.
                QString joined;
                for (const HXParagraphRef &paragraph : string->paragraphs())
                    joined += paragraph->string();
                if (joined != string->string())
                    ++faults;
                try {
                    string->checkInvariants(false);
                } catch (const HXAssertionFailure &) {
                    ++faults;
                }
            });
            const auto copy = string->copy();
            if (copy->lockingContext().lock() || copy->string().size() != qsizetype(copy->length()))
                ++faults;
            ++reads;
        }
    };
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i)
        readers.emplace_back(reader);
    QRandomGenerator random(7);
    // The writer goes on until the readers have seen a good number of states.
    for (int step = 0; step < 1500 || reads < 30; ++step) {
        if (step % 16 == 0)
            std::this_thread::yield();
        const quint64 total = string->length();
        const quint64 location = random.bounded(quint64(total + 1));
        const quint64 length = std::min<quint64>(random.bounded(3), total - location);
        string->replaceCharactersInRange(HXRange{location, length},
                                         HXChunk(random.bounded(4) ? u"ab"_s : u"c\n"_s));
    }
    done = true;
    for (std::thread &thread : readers)
        thread.join();
    QCOMPARE(faults.load(), 0);
    QVERIFY(reads.load() > 0);
    QCOMPARE(observer->modeInside, HXReadWriteLock::Mode::Write);
    string->checkInvariants();
}

void tst_HXString::lockReentrancyAndSharing() {
    auto string = HXAtomicString::stringWithMarkup(markup());
    string->setString(u"one\ntwo"_s);
    // A write inside a write runs at once; inside a read it is refused before it changes
    // anything.
    string->write([&] { string->appendString(u"!"_s); });
    QCOMPARE(string->string(), u"one\ntwo!"_s);
    QCOMPARE(assertionText([&] { string->read([&] { string->appendString(u"?"_s); }); }),
             u"Recursive call to write operation within a read operation"_s);
    QCOMPARE(string->string(), u"one\ntwo!"_s);

    // A string whose locking context is another takes that one's lock.
    auto nested = HXMutableString::stringWithMarkup(markup());
    nested->setLockingContext(std::weak_ptr<HXLockingContext>(string));
    nested->setString(u"inner"_s);
    HXReadWriteLock::Mode mode = HXReadWriteLock::Mode::None;
    nested->enumerateParagraphsInRange(HXRange{0, 1},
                                       [&](const HXParagraphRef &, quint64, quint64, bool &) {
                                           mode = string->lock().currentMode();
                                       });
    QCOMPARE(mode, HXReadWriteLock::Mode::Read);
}

void tst_HXString::queriesReadOneState() {
    // Whole-text queries and whole-text edits must each see one state of a string that another
    // thread keeps growing and shrinking.
    auto string = HXAtomicString::stringWithMarkup(markup());
    const QString longText = u"intro\n\n# Head\nsome *text* here\n## Next\n"_s.repeated(20);
    std::atomic<bool> done = false;
    std::atomic<int> faults = 0, rounds = 0;
    auto guarded = [&](auto &&block) {
        try {
            block();
        } catch (const HXAssertionFailure &) {
            ++faults;
        }
    };
    std::thread writer([&] {
        for (int i = 0; !done; ++i)
            guarded([&] { string->setString(i % 2 ? longText : u"x"_s); });
    });
    std::thread reader([&] {
        while (!done) {
            guarded([&] { string->highestHeadingLevel(); });
            guarded([&] { string->rangeOfFirstParagraphMatchingMask(1, false); });
            guarded([&] { string->containsFileWrapper(); });
            guarded([&] { string->appendString(u"!"_s); });
            ++rounds;
        }
    });
    while (rounds < 4000)
        std::this_thread::yield();
    done = true;
    writer.join();
    reader.join();
    QCOMPARE(faults.load(), 0);
}

HX_TEST_MAIN(tst_HXString)
#include "tst_HXString.moc"
