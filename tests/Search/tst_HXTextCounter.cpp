#include "HXTestSupport.h"
#include "Search/Counting/HXStringEnumerationCounter.h"
#include "Search/Counting/HXTextCounter.h"
#include "Text/Markup/HXMarkup.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Text/String/Meta/HXAttributeDictionary.h"

#include <QFile>
#include <QRandomGenerator>
#include <QRegularExpression>

#include <unicode/brkiter.h>

using namespace Qt::StringLiterals;

namespace {

std::shared_ptr<HXMarkup> markdownqr() {
    return HXMarkup::intrinsicMarkups().value(u"markdownqr"_s);
}

HXCountDictionary countsOf(const QString &text) {
    return HXTextCounter::allCountsForString(*HXString::stringWithString(text, markdownqr()));
}

QList<quint32> linesOf(const HXCountDictionary &counts) {
    return HXTextCounter::lineLengths(counts.value(u"lines"_s));
}

quint64 number(const HXCountDictionary &counts, const QString &identifier) {
    return counts.value(identifier).toULongLong();
}

QString display(const QVariant &value, const QString &identifier,
                const HXCountParameters &parameters = HXTextCounter::defaultDisplayParameters()) {
    static const QLocale english(u"en_US"_s);
    return HXTextCounter::displayStringForCountingResult(value, identifier, parameters, &english);
}

// A mutable string of the text with a footnote (or another entity) inserted at `at`, its nested
// text set.
std::shared_ptr<HXAtomicString> withEntity(const QString &text, quint64 at, const char *definition,
                                           const QString &nested) {
    auto string = HXAtomicString::stringWithMarkup(markdownqr());
    string->setString(text);
    auto element = HXTextElement::elementWithTag(
        markdownqr()->tagWithIdentifier(QString::fromLatin1(definition), QString()), markdownqr());
    element->attributes()->nestedStringForKey(u"text"_s)->setString(nested);
    string->replaceCharactersInRange(HXRange{at, 0}, HXString::stringWithTextElement(element));
    return string;
}

// The independent count: line by line of the plain text, sentences by ICU's sentence
// segmentation of the line, words by one run of the word segmentation over the whole line.
struct OracleCounts {
    quint64 words = 0, sentences = 0, paragraphs = 0, lines = 0, characters = 0;
};

OracleCounts oracleCount(const QString &text) {
    OracleCounts counts;
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::BreakIterator> words(
        icu::BreakIterator::createWordInstance(icu::Locale::getDefault(), status));
    std::unique_ptr<icu::BreakIterator> sentences(
        icu::BreakIterator::createSentenceInstance(icu::Locale::getDefault(), status));
    counts.characters = quint64(text.size());
    QStringList lines = text.split(u'\n');
    if (text.endsWith(u'\n'))
        lines.removeLast();
    for (const QString &line : std::as_const(lines)) {
        ++counts.lines;
        if (line.isEmpty())
            continue;
        ++counts.paragraphs;
        if (line.trimmed().isEmpty())
            continue;
        const icu::UnicodeString unicode(false, reinterpret_cast<const UChar *>(line.utf16()),
                                         int32_t(line.size()));
        sentences->setText(unicode);
        for (sentences->first(); sentences->next() != icu::BreakIterator::DONE;)
            ++counts.sentences;
        words->setText(unicode);
        for (words->first(); words->next() != icu::BreakIterator::DONE;)
            counts.words += words->getRuleStatus() >= UBRK_WORD_NONE_LIMIT;
    }
    return counts;
}

} // namespace

class TestTextCounter : public QObject {
    Q_OBJECT

private slots:
    // What each counter finds in a text as a reader sees it: markup, comments and deleted text
    // left out, every script segmented by its own rules.
    void counting_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("characters");
        QTest::addColumn<int>("withoutWhitespaces");
        QTest::addColumn<int>("words");
        QTest::addColumn<int>("sentences");
        QTest::addColumn<int>("paragraphs");
        QTest::addColumn<QList<quint32>>("lines");
        using L = QList<quint32>;
        QTest::newRow("empty") << u""_s << 0 << 0 << 0 << 0 << 0 << L{};
        QTest::newRow("words without a full stop")
            << u"one two three"_s << 13 << 11 << 3 << 1 << 1 << L{12};
        QTest::newRow("two lines around a blank one")
            << u"One\n\nTwo"_s << 8 << 6 << 2 << 2 << 2 << L{2, 0, 2};
        QTest::newRow("ending in a line feed adds no line")
            << u"One\n\nTwo\n"_s << 9 << 6 << 2 << 2 << 2 << L{2, 0, 2};
        QTest::newRow("a line of one character stores 0")
            << u"a\nbc"_s << 4 << 3 << 2 << 2 << 2 << L{0, 1};
        QTest::newRow("tags are no characters")
            << u"# Title\n**Bold** and _it_."_s << 18 << 15 << 4 << 2 << 2 << L{4, 11};
        // Leading blanks are indentation, a tag; these spaces are text.
        QTest::newRow("lines of white space are no sentence but a paragraph")
            << u"Hello.\n\u00a0\u3000\nBye."_s << 14 << 10 << 2 << 2 << 3 << L{5, 1, 3};
        QTest::newRow("sentences inside a line")
            << u"It rains. Does it? Yes!"_s << 23 << 19 << 5 << 3 << 1 << L{22};
        QTest::newRow("a comment line goes with its line feed")
            << u"Text here.\n// hidden words\nMore."_s << 16 << 14 << 3 << 2 << 2 << L{9, 4};
        QTest::newRow("a block comment of two lines")
            << u"A b.\n// one\n// two\nC d."_s << 9 << 6 << 4 << 2 << 2 << L{3, 3};
        QTest::newRow("inline comment and deletion")
            << u"Keep {>>not this<<} and ~~gone~~ this."_s << 16 << 12 << 3 << 1 << 1 << L{15};
        QTest::newRow("Chinese without blanks")
            << u"这是一个测试。我们写作。"_s << 12 << 12 << 6 << 2 << 1 << L{11};
        QTest::newRow("Japanese") << u"日本語の文章です。"_s << 9 << 9 << 4 << 1 << 1 << L{8};
        QTest::newRow("Thai by dictionary") << u"ลองภาษาไทย"_s << 10 << 10 << 3 << 1 << 1 << L{9};
        // Emoji count two units each and are no words.
        QTest::newRow("emoji") << u"I 🎉 cats 👍🏽"_s << 14 << 11 << 2 << 1 << 1 << L{13};
        QTest::newRow("combining marks")
            << u"e\u0301te\u0301 cafe\u0301"_s << 11 << 10 << 2 << 1 << 1 << L{10};
        QTest::newRow("tab, no-break space and NEL")
            << u"a\tb\u00a0c\u0085d"_s << 7 << 4 << 4 << 2 << 1 << L{4, 0};
        QTest::newRow("numbers and contractions")
            << u"3.14 isn't e-mail."_s << 18 << 16 << 4 << 1 << 1 << L{17};
    }

    void counting() {
        QFETCH(QString, text);
        const HXCountDictionary counts = countsOf(text);
        QTEST(int(number(counts, u"characters"_s)), "characters");
        QTEST(int(number(counts, u"charactersWithoutWhitespaces"_s)), "withoutWhitespaces");
        QTEST(int(number(counts, u"words"_s)), "words");
        QTEST(int(number(counts, u"sentences"_s)), "sentences");
        QTEST(int(number(counts, u"paragraphs"_s)), "paragraphs");
        QTEST(linesOf(counts), "lines");
        QCOMPARE(counts.value(u"pages"_s), counts.value(u"lines"_s));
        const double words = double(number(counts, u"words"_s));
        QCOMPARE(counts.value(u"slowReadingTime"_s).toDouble(), words / 3);
        QCOMPARE(counts.value(u"averageReadingTime"_s).toDouble(), words / 4);
        QCOMPARE(counts.value(u"fastReadingTime"_s).toDouble(), words / 5);
        QCOMPARE(counts.size(), 11);
    }

    // A footnote's text counts, also with an empty anchor, and its lines stand before the main
    // text's; an annotation's text doesn't. A range counts only the footnotes whose tag it holds.
    void nestedStrings() {
        auto string = withEntity(u"Main text."_s, 4, "footnote", u"Three more words.\nAnd two."_s);
        HXCountDictionary counts = HXTextCounter::allCountsForString(*string);
        QCOMPARE(number(counts, u"words"_s), 7ull);
        QCOMPARE(number(counts, u"sentences"_s), 3ull);
        QCOMPARE(counts.value(u"wordsPerSentence"_s).toDouble(), 2.3);
        QCOMPARE(linesOf(counts), (QList<quint32>{16, 7, 9}));

        const HXCountDictionary before = HXTextCounter::allCountsForString(*string, HXRange{0, 4});
        QCOMPARE(number(before, u"words"_s), 1ull);
        const HXCountDictionary tag = HXTextCounter::allCountsForString(*string, HXRange{4, 1});
        QCOMPARE(number(tag, u"words"_s), 5ull);
        QCOMPARE(number(tag, u"characters"_s), 26ull);

        auto anchorless = withEntity(QString(), 0, "footnote", u"Only the note."_s);
        QCOMPARE(number(HXTextCounter::allCountsForString(*anchorless), u"words"_s), 3ull);

        auto annotated = withEntity(u"Seen."_s, 5, "annotation", u"unseen words"_s);
        QCOMPARE(number(HXTextCounter::allCountsForString(*annotated), u"words"_s), 1ull);
    }

    // Lines and pages follow the norm page from the stored lengths; no recount is needed.
    void linesAndPages_data() {
        QTest::addColumn<QList<quint32>>("lengths");
        QTest::addColumn<int>("charactersPerLine");
        QTest::addColumn<int>("linesPerPage");
        QTest::addColumn<int>("lines");
        QTest::addColumn<double>("pages");
        QTest::newRow("61 characters store 60: one line")
            << QList<quint32>{60} << 60 << 30 << 1 << 0.1;
        QTest::newRow("62 store 61: two") << QList<quint32>{61} << 60 << 30 << 2 << 0.1;
        QTest::newRow("an empty line is a line") << QList<quint32>{0, 0} << 60 << 30 << 2 << 0.1;
        QTest::newRow("130 lines: 4.4 pages") << QList<quint32>(130, 5) << 60 << 30 << 130 << 4.4;
        QTest::newRow("60 lines: 2 pages exactly")
            << QList<quint32>(60, 5) << 60 << 30 << 60 << 2.0;
        QTest::newRow("another norm page") << QList<quint32>{60, 0} << 30 << 1 << 3 << 3.0;
        QTest::newRow("no parameters set") << QList<quint32>{60} << 0 << 0 << 1 << 0.1;
        QTest::newRow("nothing") << QList<quint32>{} << 60 << 30 << 0 << 0.0;
    }

    void linesAndPages() {
        QFETCH(QList<quint32>, lengths);
        QFETCH(int, charactersPerLine);
        QFETCH(int, linesPerPage);
        QFETCH(int, lines);
        QFETCH(double, pages);
        const QVariant value = QVariant::fromValue(lengths);
        const HXCountParameters parameters{{HXTextCounter::charactersPerLineKey, charactersPerLine},
                                           {HXTextCounter::linesPerPageKey, linesPerPage}};
        QCOMPARE(HXTextCounter::numberForCountingResult(value, u"lines"_s, parameters),
                 double(lines));
        QCOMPARE(HXTextCounter::numberForCountingResult(value, u"pages"_s, parameters), pages);
        QCOMPARE(display(value, u"pages"_s, parameters), QLocale(u"en_US"_s).toString(pages));
    }

    // Reading times: the fraction cut, minutes and seconds below an hour, hours and minutes with
    // the seconds rounded in above it, never carried into the hours.
    void readingTimes_data() {
        QTest::addColumn<double>("seconds");
        QTest::addColumn<QString>("shown");
        QTest::newRow("3 words read slowly") << 1.0 << u"1 s"_s;
        QTest::newRow("under a second") << 0.8 << u"0 s"_s;
        QTest::newRow("a minute") << 60.9 << u"1 min 0 s"_s;
        QTest::newRow("just under an hour") << 3599.99 << u"59 min 59 s"_s;
        QTest::newRow("an hour") << 3600.0 << u"1 h 0 min"_s;
        QTest::newRow("29 seconds round down") << 3629.0 << u"1 h 0 min"_s;
        QTest::newRow("30 seconds round up") << 3630.0 << u"1 h 1 min"_s;
        QTest::newRow("1:59:59.6 shows 60 minutes") << 7199.6 << u"1 h 60 min"_s;
    }

    void readingTimes() {
        QFETCH(double, seconds);
        QFETCH(QString, shown);
        for (const QString &identifier :
             {u"slowReadingTime"_s, u"averageReadingTime"_s, u"fastReadingTime"_s})
            QCOMPARE(display(seconds, identifier), shown);
        QCOMPARE(
            display(countsOf(u"one two three"_s).value(u"slowReadingTime"_s), u"slowReadingTime"_s),
            u"1 s"_s);
    }

    // Totals: one dictionary stands as it is; others sum in double precision after reading each
    // value in single precision; lines are concatenated in order; words per sentence come from
    // the sums, never as an average of averages; missing values count 0.
    void combining() {
        const HXCountDictionary a =
            countsOf(u"One two three four five six seven eight nine ten."_s);
        const HXCountDictionary b = countsOf(u"Hi.\nYo."_s);
        QCOMPARE(HXTextCounter::countsByCombiningCounts({a}), a);
        const HXCountDictionary sum = HXTextCounter::countsByCombiningCounts({a, b, {}});
        QCOMPARE(sum.value(u"words"_s).toDouble(), 12.0);
        QCOMPARE(sum.value(u"wordsPerSentence"_s).toDouble(), 4.0);
        QCOMPARE(linesOf(sum), linesOf(a) + linesOf(b));
        QCOMPARE(sum.value(u"fastReadingTime"_s).toDouble(),
                 double(float(2.0)) + double(float(0.4)));

        const HXCountDictionary empty = HXTextCounter::countsByCombiningCounts({});
        QCOMPARE(empty.size(), 11);
        QCOMPARE(empty.value(u"characters"_s).toDouble(), 0.0);
        QCOMPARE(empty.value(u"wordsPerSentence"_s).toDouble(), 0.0);
        QVERIFY(linesOf(empty).isEmpty());

        // 2^24 + 1 is no single-precision number: each value is read as 2^24.
        const HXCountDictionary large{{u"characters"_s, 16777217}};
        QCOMPARE(HXTextCounter::countsByCombiningCounts({large, large})
                     .value(u"characters"_s)
                     .toDouble(),
                 33554432.0);
        // Stored lists come back from a property list as lists of numbers.
        const HXCountDictionary stored{{u"lines"_s, QVariantList{3, 0}}};
        QCOMPARE(linesOf(HXTextCounter::countsByCombiningCounts({stored, b})),
                 (QList<quint32>{3, 0, 2, 2}));
    }

    // The order of the rows, the versions, and the identifiers a goal may target.
    void tables() {
        const QString separator = HXTextCounter::displayNameSeparator;
        QCOMPARE(HXTextCounter::orderedIdentifiersForDisplay(),
                 (QStringList{u"characters"_s, u"charactersWithoutWhitespaces"_s, separator,
                              u"words"_s, u"sentences"_s, u"wordsPerSentence"_s, u"paragraphs"_s,
                              u"lines"_s, u"pages"_s, separator, u"slowReadingTime"_s,
                              u"averageReadingTime"_s, u"fastReadingTime"_s}));
        QCOMPARE(HXTextCounter::allSimpleCounterIdentifiers(),
                 (QStringList{u"characters"_s, u"charactersWithoutWhitespaces"_s, u"words"_s,
                              u"sentences"_s, u"paragraphs"_s, u"lines"_s, u"pages"_s}));
        QVERIFY(!HXTextCounter::allDefaultDisplayIdentifiers().contains(u"lines"_s));
        QVERIFY(!HXTextCounter::allDefaultDisplayIdentifiers().contains(u"wordsPerSentence"_s));
        QCOMPARE(HXTextCounter::allFormatVersions(),
                 (QStringList{u"characterCounter_1"_s, u"stringCounter_2"_s,
                              u"readingTimeCounter_2"_s}));
        QCOMPARE(HXTextCounter::displayNameForIdentifier(u"charactersWithoutWhitespaces"_s),
                 u"Characters (no spaces)"_s);
        QCOMPARE(HXTestSupport::assertionText(
                     [] { HXTextCounter::displayNameForIdentifier(u"numberOfSheets"_s); }),
                 u"Invalid display name for counter: numberOfSheets"_s);
        QVERIFY(HXTextCounter::goalUnitNameForIdentifier(u"slowReadingTime"_s).isEmpty());
    }

    // Numbers in the locale's decimal style; an identifier no counter claims takes the base rule.
    void numberFormatting() {
        const QLocale german(u"de_DE"_s);
        QCOMPARE(HXTextCounter::displayStringForCountingResult(1234567, u"words"_s, {}, &german),
                 u"1.234.567"_s);
        QCOMPARE(display(1234567, u"words"_s), u"1,234,567"_s);
        QCOMPARE(display(QVariant::fromValue(QList<quint32>(130, 1)), u"pages"_s), u"4.4"_s);
        QCOMPARE(HXTextCounter::displayStringForCountingResult(
                     QVariant::fromValue(QList<quint32>(130, 1)), u"pages"_s,
                     HXTextCounter::defaultDisplayParameters(), &german),
                 u"4,4"_s);
        QCOMPARE(display(3, u"numberOfSheets"_s), u"3"_s);
        QCOMPARE(display(u"n/a"_s, u"numberOfSheets"_s), u"n/a"_s);
        QCOMPARE(HXTestSupport::assertionText([] { display(QVariant(), u"numberOfSheets"_s); }),
                 u"Unable to generate display string for counter: numberOfSheets"_s);
        QVERIFY(!HXTextCounter::numberForCountingResult(u"text"_s, u"numberOfSheets"_s, {}));
    }

    // A real text, with markup of known extent woven in, counts as an independent ICU loop
    // counts the same text without it.
    void realCorpusAgainstIndependentCount() {
        QFile license(u"/usr/share/common-licenses/GPL-3"_s);
        if (!license.open(QIODevice::ReadOnly))
            QSKIP("the GPL-3 text of base-files is missing");
        // Lines left of what could read as markup: leading blanks, list numbers, tag characters.
        static const QRegularExpression tagCharacters(u"[*_~=`{}\\[\\]#>%+\\\\|/-]"_s);
        static const QRegularExpression listNumber(u"^(\\d+)[.)]"_s);
        QStringList plain;
        for (QString line : QString::fromUtf8(license.readAll()).split(u'\n')) {
            line = line.trimmed().replace(tagCharacters, u" "_s).replace(listNumber, u"\\1"_s);
            plain.append(line);
        }
        plain += {u"長い文章を書くのは楽しいです。毎日少しずつ書きます。"_s,
                  u"我们每天写作。这本书很长。"_s, u"Ein Satz, noch einer: fertig."_s};

        QRandomGenerator random(17);
        QStringList marked;
        for (const QString &line : std::as_const(plain)) {
            switch (random.bounded(8)) {
            case 0:
                marked.append(u"// a comment of seven words to leave out"_s);
                break;
            case 1:
                if (!line.isEmpty()) {
                    marked.append(u"## "_s + line);
                    continue;
                }
                break;
            case 2:
                if (const qsizetype blank = line.indexOf(u' '); blank > 0) {
                    marked.append(u"**"_s + line.left(blank) + u"**"_s + line.mid(blank) +
                                  u"{>>hidden words<<}"_s);
                    continue;
                }
                break;
            case 3:
                if (!line.isEmpty()) {
                    marked.append(u"- "_s + line);
                    continue;
                }
                break;
            }
            marked.append(line);
        }
        const QString text = plain.join(u'\n');
        const OracleCounts expected = oracleCount(text);
        const HXCountDictionary counts = countsOf(marked.join(u'\n'));
        QVERIFY(expected.words > 5000);
        QCOMPARE(number(counts, u"words"_s), expected.words);
        QCOMPARE(number(counts, u"sentences"_s), expected.sentences);
        QCOMPARE(number(counts, u"paragraphs"_s), expected.paragraphs);
        QCOMPARE(quint64(linesOf(counts).size()), expected.lines);
        QCOMPARE(number(counts, u"characters"_s), expected.characters);
    }

    // A string that another thread edits is counted from a snapshot: the counts are always those
    // of one whole state of the text.
    void liveStringCountsASnapshot() {
        auto string = HXAtomicString::stringWithMarkup(markdownqr());
        string->setString(u"word "_s.repeated(2000));
        std::atomic<bool> done = false;
        std::thread writer([&] {
            for (int i = 0; i < 200; ++i)
                string->replaceCharactersInRange(HXRange{0, 0}, HXReplacement(u"more "_s));
            done = true;
        });
        while (!done) {
            const HXCountDictionary counts = HXTextCounter::allCountsForString(*string);
            QCOMPARE(number(counts, u"characters"_s), number(counts, u"words"_s) * 5);
        }
        writer.join();
        QCOMPARE(number(HXTextCounter::allCountsForString(*string), u"words"_s), 2200ull);
    }
};

HX_TEST_MAIN(TestTextCounter)
#include "tst_HXTextCounter.moc"
