#include "HXTestSupport.h"
#include "Text/Markup/HXMarkup.h"
#include "Text/String/Access/HXMutableString.h"
#include "TextSystem/Components/HXParagraphLayout.h"

#include <QFile>
#include <QFontMetricsF>
#include <QGuiApplication>
#include <QRandomGenerator>
#include <QRegularExpression>

#include <cmath>

using namespace Qt::StringLiterals;

namespace {

// Positions go through the layout's fixed-point arithmetic: 1/64 of a pixel, a few times over.
#define COMPARE_POSITION(actual, expected)                                                         \
    QVERIFY2(std::abs((actual) - (expected)) < 0.05,                                               \
             qPrintable(u"%1 is not %2"_s.arg(actual).arg(expected)))

std::shared_ptr<HXMarkup> markup() {
    return HXMarkup::intrinsicMarkups().value(u"markdownqr"_s);
}

HXTypesetter typesetter(bool outdentTags = true, qreal points = 12) {
    QFont font(u"DejaVu Sans"_s);
    font.setPointSizeF(points);
    HXTypesetter result;
    result.setBaseFont(font);
    result.setOutdentTags(outdentTags);
    result.updateMetrics();
    return result;
}

// The text parsed, each "[[title]]" standing for a link entity with that text.
std::shared_ptr<HXString> makeString(const QString &text) {
    auto string = HXMutableString::stringWithMarkup(markup());
    static const QRegularExpression link(u"\\[\\[(.*?)\\]\\]"_s);
    qsizetype from = 0;
    for (const QRegularExpressionMatch &match : link.globalMatch(text)) {
        string->appendString(text.mid(from, match.capturedStart() - from));
        string->replaceCharactersInRange(
            HXRange{string->length(), 0},
            HXString::stringWithTextElement(HXTextElement::elementWithURLString(
                u"https://example.org"_s, match.captured(1), markup()->tagWithIdentifier(u"link"_s),
                markup())));
        from = match.capturedEnd();
    }
    string->appendString(text.mid(from));
    return string->copy();
}

HXParagraphLayout layOut(HXTypesetter &typesetter, const HXString &string, qsizetype paragraph,
                         qreal width, qreal top = 0) {
    const QList<HXParagraphRef> paragraphs = string.paragraphs();
    quint64 location = 0;
    for (qsizetype p = 0; p < paragraph; ++p)
        location += paragraphs.at(p)->length();
    HXParagraphLayout layout;
    layout.layoutParagraph(typesetter, string,
                           HXRange{location, paragraphs.at(paragraph)->length()}, width, top);
    return layout;
}

qreal xOfCharacter(const HXParagraphLayout &layout, int index) {
    return layout.textLayout()->lineForTextPosition(index).cursorToX(index);
}

const QString words = u"words that run on long enough to fill more than one line of the column"_s;

} // namespace

class tst_HXTypesetter : public QObject {
    Q_OBJECT

private slots:
    void metrics_data();
    void metrics();
    void insets_data();
    void insets();
    void tabStops_data();
    void tabStops();
    void breakOpportunities_data();
    void breakOpportunities();
    void linesKeepTagsWithTheirText_data();
    void linesKeepTagsWithTheirText();
    void lineHeights_data();
    void lineHeights();
};

void tst_HXTypesetter::metrics_data() {
    QTest::addColumn<qreal>("points");
    QTest::addColumn<bool>("outdent");
    QTest::addColumn<qint64>("firstLineIndent");
    QTest::newRow("12 pt") << 12.0 << true << qint64(0);
    QTest::newRow("17.5 pt, indented first line") << 17.5 << true << qint64(3);
    QTest::newRow("9 pt, tags not outdented") << 9.0 << false << qint64(2);
}

void tst_HXTypesetter::metrics() {
    QFETCH(qreal, points);
    QFETCH(bool, outdent);
    QFETCH(qint64, firstLineIndent);
    HXTypesetter typeset = typesetter(outdent, points);
    typeset.setFirstLineIndent(firstLineIndent);
    typeset.updateMetrics();
    const QFontMetricsF metrics(typeset.baseFont());
    const qreal n = metrics.horizontalAdvance(u'n');
    QCOMPARE(typeset.nWidth(), n);
    QCOMPARE(typeset.sideInset(), outdent ? 7 * n : 0);
    QCOMPARE(typeset.indentWidth(), 5 * n);
    QCOMPARE(typeset.spaceWidth(), metrics.horizontalAdvance(u' '));

    // A plain paragraph: its first line starts at the first-line inset, the others at the column.
    const HXParagraphLayout layout =
        layOut(typeset, *makeString(words), 0, 2 * typeset.sideInset() + 300);
    const QList<HXLineFragment> &lines = layout.lineFragments();
    QVERIFY(lines.size() > 1);
    COMPARE_POSITION(lines.at(0).rect.x(), typeset.sideInset() + firstLineIndent * n);
    COMPARE_POSITION(lines.at(1).rect.x(), typeset.sideInset());
}

void tst_HXTypesetter::insets_data() {
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("outdent");
    // The tag that hangs in the margin, if one does.
    QTest::addColumn<QString>("hanging");
    // Lists and levels of indentation before the text, each one indentation wide, and the other
    // tags before it, as wide as their text.
    QTest::addColumn<int>("levels");
    QTest::addColumn<QString>("otherTags");
    QTest::newRow("heading") << u"# "_s + words << true << u"# "_s << 0 << QString();
    QTest::newRow("heading, not outdented")
        << u"# "_s + words << false << QString() << 0 << QString();
    QTest::newRow("heading wider than an indentation")
        << u"###### "_s + words << true << u"###### "_s << 0 << QString();
    QTest::newRow("code block, no blank behind") << u"```"_s << true << u"```"_s << 0 << QString();
    QTest::newRow("quote") << u"> "_s + words << true << QString() << 0 << u"> "_s;
    QTest::newRow("bullet") << u"* "_s + words << true << QString() << 1 << QString();
    QTest::newRow("numbered") << u"1. "_s + words << true << QString() << 1 << QString();
    QTest::newRow("list in a quote") << u"> * "_s + words << true << QString() << 1 << u"> "_s;
    QTest::newRow("list in a level") << u"\t* "_s + words << true << QString() << 2 << QString();
    QTest::newRow("list in two levels")
        << u"\t\t1. "_s + words << true << QString() << 3 << QString();
    QTest::newRow("level of blanks") << u"    "_s + words << true << QString() << 1 << QString();
}

void tst_HXTypesetter::insets() {
    QFETCH(QString, text);
    QFETCH(bool, outdent);
    QFETCH(QString, hanging);
    QFETCH(int, levels);
    QFETCH(QString, otherTags);
    HXTypesetter typeset = typesetter(outdent);
    const QFontMetricsF metrics(typeset.baseFont());
    const HXParagraphLayout layout =
        layOut(typeset, *makeString(text), 0, 2 * typeset.sideInset() + 300);
    qreal hang = 0;
    if (!hanging.isEmpty()) {
        const qreal w = metrics.horizontalAdvance(hanging) +
                        (hanging.back().isSpace() ? 0 : typeset.spaceWidth());
        QCOMPARE(w > typeset.indentWidth(), hanging.size() > 3);
        hang = std::min({w, typeset.indentWidth(), typeset.sideInset()});
    }
    QCOMPARE(typeset.paragraphInset(), -hang);
    const qreal inset = levels * typeset.indentWidth() + metrics.horizontalAdvance(otherTags);
    COMPARE_POSITION(typeset.lineInset(), inset);
    const QList<HXLineFragment> &lines = layout.lineFragments();
    COMPARE_POSITION(lines.at(0).rect.x(), typeset.sideInset() - hang);
    for (qsizetype l = 1; l < lines.size(); ++l)
        COMPARE_POSITION(lines.at(l).rect.x(), typeset.sideInset() + inset);
    // Wrapped text lines up with the text behind the tags.
    if (inset > 0)
        COMPARE_POSITION(xOfCharacter(layout, int(text.size() - words.size())),
                         typeset.sideInset() + inset);
}

void tst_HXTypesetter::tabStops_data() {
    QTest::addColumn<QString>("text");
    QTest::newRow("short") << u"a\tb"_s;
    QTest::newRow("well before a stop") << u"nnnn\tb"_s;
    QTest::newRow("at a stop") << u"nnnnn\tb"_s;
    QTest::newRow("two tabs") << u"x\t\ty"_s;
    QTest::newRow("behind a hanging heading") << u"# a\tb"_s;
    QTest::newRow("behind a level of indentation") << u"\tnnn\tb"_s;
    // Less than half a blank before a stop goes on to the next one.
    const HXTypesetter typeset = typesetter();
    const QFontMetricsF metrics(typeset.baseFont());
    for (char16_t letter = u'a'; letter <= u'z'; ++letter) {
        const qreal width = metrics.horizontalAdvance(u"nnnn"_s + QChar(letter));
        if (width < typeset.indentWidth() &&
            width + typeset.spaceWidth() / 2 > typeset.indentWidth()) {
            QTest::newRow("within half a blank of a stop") << u"nnnn"_s + QChar(letter) + u"\tb"_s;
            return;
        }
    }
    QFAIL("no text ends within half a blank of a stop");
}

void tst_HXTypesetter::tabStops() {
    QFETCH(QString, text);
    HXTypesetter typeset = typesetter();
    const QFontMetricsF metrics(typeset.baseFont());
    const HXParagraphLayout layout =
        layOut(typeset, *makeString(text), 0, 2 * typeset.sideInset() + 400);
    // Walks the line from its inset: text by its width, each tab on to the multiple of the
    // indentation above its position and half a blank.
    qreal position = typeset.paragraphInset();
    int index = 0;
    const QStringList pieces = text.split(u'\t');
    for (qsizetype p = 0; p < pieces.size(); ++p) {
        if (p > 0) {
            const qreal indent = typeset.indentWidth();
            position = (std::floor((position + typeset.spaceWidth() / 2) / indent) + 1) * indent;
            ++index;
            COMPARE_POSITION(xOfCharacter(layout, index), typeset.sideInset() + position);
        }
        position += metrics.horizontalAdvance(pieces.at(p));
        index += int(pieces.at(p).size());
    }
}

void tst_HXTypesetter::breakOpportunities_data() {
    QTest::addColumn<QString>("text");
    // The indexes before which no line may break; any other may.
    QTest::addColumn<QList<int>>("kept");
    QTest::newRow("strong") << u"a **bold** b"_s << QList<int>{3, 4, 8, 9};
    QTest::newRow("emphasis") << u"a *em* b"_s << QList<int>{3, 5};
    QTest::newRow("nested") << u"x **b *i* c** y"_s << QList<int>{3, 4, 7, 8, 11, 12};
    QTest::newRow("code") << u"`a b`"_s << QList<int>{1, 4};
    QTest::newRow("open emphasis") << u"a *open"_s << QList<int>{3};
    QTest::newRow("link") << u"see [[site]] now"_s << QList<int>{5, 9};
    QTest::newRow("link ending in a blank") << u"see [[site ]] now"_s << QList<int>{5};
}

void tst_HXTypesetter::breakOpportunities() {
    QFETCH(QString, text);
    QFETCH(QList<int>, kept);
    const auto string = makeString(text);
    for (quint64 index = 0; index < string->length(); ++index)
        QVERIFY2(HXTypesetter::shouldBreakLineByWordBeforeCharacterAtIndex(*string, index) ==
                     !kept.contains(int(index)),
                 qPrintable(u"at %1"_s.arg(index)));
}

void tst_HXTypesetter::linesKeepTagsWithTheirText_data() {
    QTest::addColumn<QString>("text");
    QTest::newRow("strong") << u"some **strong words** and **more of them** "_s;
    QTest::newRow("emphasis") << u"an *emphasised phrase* and *one more* "_s;
    QTest::newRow("links") << u"see [[the site]] or [[this]], word[[another one]] "_s;
    QTest::newRow("mixed") << u"**bold [[link text]]** and *em `code x` em* "_s;
}

void tst_HXTypesetter::linesKeepTagsWithTheirText() {
    QFETCH(QString, text);
    HXTypesetter typeset = typesetter();
    const auto string = makeString(text.repeated(8));
    const quint64 length = string->length();
    // Start, inner text and end of each inline element.
    QList<std::array<quint64, 4>> elements;
    string->enumerateElementsInRange(
        HXRange{0, length},
        HXSelectorForScope(HXTextScope) | HXSelectorForScope(HXAttributedTextScope),
        [&](const HXTextElementRef &element, HXRange range, bool &) {
            elements.append(
                {range.location, range.location + element->headAtom()->length(),
                 range.max() - (element->isClosed() ? element->tailAtom()->length() : 0),
                 range.max()});
        });
    QVERIFY(elements.size() >= 16);

    QRandomGenerator random(7);
    for (int round = 0; round < 40; ++round) {
        const qreal width = 2 * typeset.sideInset() + 40 + random.bounded(400.0);
        const HXParagraphLayout layout = layOut(typeset, *string, 0, width);
        QVERIFY(layout.lineFragments().size() > 1);
        quint64 end = 0;
        for (const HXLineFragment &line : layout.lineFragments()) {
            QCOMPARE(line.range.location, end);
            end = line.range.max();
            for (const auto &[start, innerStart, innerEnd, elementEnd] : elements) {
                const bool inStartTag = start < end && end <= innerStart;
                const bool inEndTag = innerEnd < end && end < elementEnd;
                const bool atEndTag =
                    end == innerEnd && !string->characterAtIndex(end - 1).isSpace();
                QVERIFY2(!inStartTag && !inEndTag && !atEndTag,
                         qPrintable(u"width %1, line end %2"_s.arg(width).arg(end)));
            }
        }
        QCOMPARE(end, length);
    }
}

void tst_HXTypesetter::lineHeights_data() {
    QTest::addColumn<qreal>("multiple");
    QTest::addColumn<qreal>("spacing");
    QTest::newRow("single") << 1.0 << 0.0;
    QTest::newRow("below 1 counts as 1") << 0.5 << 0.0;
    QTest::newRow("one and a half, half a line between paragraphs") << 1.5 << 0.5;
    QTest::newRow("double, negative spacing counts as none") << 2.0 << -1.0;
    QTest::newRow("a quarter more, a line between paragraphs") << 1.25 << 1.0;
}

void tst_HXTypesetter::lineHeights() {
    QFETCH(qreal, multiple);
    QFETCH(qreal, spacing);
    HXTypesetter typeset = typesetter();
    typeset.setLineHeightMultiple(multiple);
    typeset.setParagraphSpacing(spacing);
    const QFontMetricsF metrics(typeset.baseFont());
    const qreal m = std::max<qreal>(multiple, 1);
    const qreal h = metrics.ascent() + metrics.descent();
    const qreal lineHeight = std::round(h * m);
    const qreal shift = std::ceil((m - 1) * h * 0.5);

    // Only the last line of a paragraph that ends in a line feed is followed by the spacing.
    const auto string = makeString(words + u'\n' + words);
    const qreal width = 2 * typeset.sideInset() + 300;
    const HXParagraphLayout first = layOut(typeset, *string, 0, width, 10);
    const HXParagraphLayout last = layOut(typeset, *string, 1, width, 10 + first.height());
    qreal y = 10;
    for (const HXParagraphLayout *layout : {&first, &last}) {
        const QList<HXLineFragment> &lines = layout->lineFragments();
        QVERIFY(lines.size() > 1);
        for (qsizetype l = 0; l < lines.size(); ++l) {
            const bool spaced = layout == &first && l + 1 == lines.size();
            QCOMPARE(lines.at(l).rect.y(), y);
            QCOMPARE(lines.at(l).rect.height(),
                     lineHeight + (spaced ? std::max<qreal>(spacing, 0) * lineHeight : 0));
            COMPARE_POSITION(lines.at(l).baselineOffset, shift + metrics.ascent());
            COMPARE_POSITION(layout->textLayout()->lineAt(int(l)).y(), y + shift);
            y += lines.at(l).rect.height();
        }
    }
    QCOMPARE(first.height() + last.height(), y - 10);

    // The empty line behind a final line feed.
    QRectF lineRect(0, 0, 100, h), usedRect(0, 0, 0, h);
    typeset.getLineFragmentRectForParagraphSeparator(&lineRect, &usedRect);
    QCOMPARE(lineRect, QRectF(typeset.sideInset(), 0, 100, h * m));
}

int main(int argc, char *argv[]) {
    HXTestSupport::setUpEnvironment();
    // The platform wants its runtime folder private.
    QFile::setPermissions(QString::fromLocal8Bit(qgetenv("XDG_RUNTIME_DIR")),
                          QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    QGuiApplication application(argc, argv);
    tst_HXTypesetter test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_HXTypesetter.moc"
