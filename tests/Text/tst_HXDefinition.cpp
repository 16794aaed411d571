// The built-in definitions, selectors, custom definitions and the pattern language of tags.

#include "HXTestSupport.h"
#include "Text/Markup/HXCustomDefinition.h"
#include "Text/Markup/HXCustomTagAttribute.h"
#include "Text/Markup/HXIntrinsicDefinition.h"
#include "Text/Markup/HXIntrinsicTagAttribute.h"
#include "Text/Markup/HXTextTag.h"
#include "Text/String/Access/HXString.h"
#include "Text/String/Parser/HXTextParser.h"
#include "Utilities/HXAssert.h"

#include <QThread>

namespace {

HXDefinitionRef intrinsic(const char *identifier) {
    return HXIntrinsicDefinition::intrinsicDefinitionWithIdentifier(
        QString::fromLatin1(identifier));
}

QStringList identifiers(const QList<HXDefinitionRef> &definitions) {
    QStringList result;
    for (const HXDefinitionRef &definition : definitions)
        result.append(definition->identifier());
    return result;
}

bool matchesWhole(const std::shared_ptr<const icu::RegexPattern> &expression,
                  const QString &string) {
    const icu::UnicodeString text(false, reinterpret_cast<const UChar *>(string.utf16()),
                                  int32_t(string.size()));
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::RegexMatcher> matcher(expression->matcher(text, status));
    return U_SUCCESS(status) && matcher->matches(status);
}

} // namespace

class tst_HXDefinition : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void intrinsicTable();
    void filenameStandsApart();
    void selectors();
    void namesAndCodeNames();
    void customDefinitionEquality();
    void headingLevels();
    void patternWalk();
    void patternCompiling_data();
    void patternCompiling();
    void compiledExpressionsMatch();
    void tagPatternRules();
    void tagCachesUnderConcurrentReads();
};

void tst_HXDefinition::intrinsicTable() {
    QCOMPARE(HXDefinition::availableDefinitionsForScopes(HXSelectorAllScopes).size(), 26);
    // By scope first, then in table order.
    QCOMPARE(identifiers(HXDefinition::availableDefinitionsForScopes(HXSelectorForScope(5) |
                                                                     HXSelectorForScope(1))),
             (QStringList{QStringLiteral("comment"), QStringLiteral("divider"),
                          QStringLiteral("codeblock"), QStringLiteral("nativeblock"),
                          QStringLiteral("image"), QStringLiteral("video"),
                          QStringLiteral("footnote")}));
    QCOMPARE(intrinsic("video")->ordering(), 1);
    const QList<HXTagAttributeRef> image = intrinsic("image")->attributes();
    QVERIFY(image[0]->isFile() && image[0]->allowedTypes().contains(QStringLiteral("image/*")));
    QVERIFY(!intrinsic("nothing"));
    QVERIFY(intrinsic("strong") ==
            HXDefinition::definitionWithIdentifier(QStringLiteral("strong")));
}

void tst_HXDefinition::filenameStandsApart() {
    const HXDefinitionRef filename = intrinsic("filename");
    QVERIFY(filename);
    QCOMPARE(filename->countingOptions(), 3u);
    QVERIFY(filename->noGroupingAllowed() && filename->noParsingInside());
    QCOMPARE(filename->userCodeName(), QStringLiteral("paragraph-filename"));
    QVERIFY(!identifiers(HXDefinition::availableDefinitionsForScopes(-1))
                 .contains(QStringLiteral("filename")));
    QVERIFY(!filename->matchesSelector(HXDefaultDefinitionSelector));
    QVERIFY(
        filename->matchesSelector(HXSelectorForScope(HXHeadingScope) | HXSelectorAllowsFilename));
    // The option doesn't stand in for the scope bit.
    QVERIFY(!filename->matchesSelector(HXSelectorAllowsFilename | HXSelectorForScope(HXTextScope)));
}

void tst_HXDefinition::selectors() {
    QVERIFY(!intrinsic("footnote")->matchesSelector(HXNestedStringDefinitionSelector));
    QVERIFY(!intrinsic("annotation")->matchesSelector(HXNestedStringDefinitionSelector));
    QVERIFY(intrinsic("link")->matchesSelector(HXNestedStringDefinitionSelector));
    QVERIFY(intrinsic("image")->matchesSelector(HXNestedStringDefinitionSelector));
    QVERIFY(intrinsic("strong")->matchesSelector(HXNestedStringDefinitionSelector));
    QVERIFY(!intrinsic("heading1")->matchesSelector(HXNestedStringDefinitionSelector));
    QVERIFY(!intrinsic("blockquote")->matchesSelector(HXSelectorInlineOnly));
    // All bits above the paragraph scopes are set, the options included: the nested-string
    // exclusion applies, and the filename is let through.
    QVERIFY(intrinsic("strong")->matchesSelector(HXSelectorInlineOnly));
    QVERIFY(!intrinsic("footnote")->matchesSelector(HXSelectorInlineOnly));
    QVERIFY(!intrinsic("strong")->matchesSelector(HXSelectorAllScopes & ~HXSelectorAllScopes));
}

void tst_HXDefinition::namesAndCodeNames() {
    QCOMPARE(HXDefinition::userCodeNameForIdentifier(QStringLiteral("myFancyThing")),
             QStringLiteral("my-fancy-thing"));
    QCOMPARE(intrinsic("inlineNative")->userCodeName(), QStringLiteral("inline-raw"));
    QCOMPARE(intrinsic("emph")->userCodeName(), QStringLiteral("inline-emphasis"));
    const HXCustomDefinition custom(QStringLiteral("sideNote"), QStringLiteral("Side Note"),
                                    HXTextScope, {});
    QCOMPARE(custom.userCodeName(), QStringLiteral("side-note"));
    QCOMPARE(custom.displayName(), QStringLiteral("Side Note"));
    const HXCustomDefinition unnamed(QString(), QStringLiteral("Side Note"), HXTextScope, {});
    QCOMPARE(unnamed.identifier(), QStringLiteral("side note"));

    // Every built-in definition and scope has its texts.
    for (const HXDefinitionRef &definition :
         HXDefinition::availableDefinitionsForScopes(HXSelectorAllScopes)) {
        QVERIFY2(definition->displayName() != definition->identifier(),
                 qPrintable(definition->identifier()));
        QVERIFY(!definition->shortName().endsWith(QStringLiteral("_short")));
        QVERIFY(definition->userDescriptionText() != definition->identifier());
        // The description is text of the markup it is written in, with its structure.
        const auto description = definition->userDescription();
        QCOMPARE(description->markup(), HXDefinition::userDescriptionMarkup());
        QCOMPARE(description->string(), definition->userDescriptionText());
    }
    QCOMPARE(intrinsic("strong")->displayName(), QStringLiteral("Strong"));
    QCOMPARE(HXDefinition::displayNameForScope(HXHeadingScope), QStringLiteral("Headings"));
    QCOMPARE(HXIntrinsicTagAttribute::intrinsicTagAttributeWithIdentifier(QStringLiteral("URL"))
                 ->displayName(),
             QStringLiteral("Address"));
    QCOMPARE(HXCustomTagAttribute(QStringLiteral("source"), QString(), 1, true).displayName(),
             QStringLiteral("source"));
    QVERIFY(
        intrinsic("strong")->description().contains(QStringLiteral("identifier:strong scope:3")));
}

void tst_HXDefinition::customDefinitionEquality() {
    const QVariantMap properties{{QStringLiteral("noParsingInside"), 1}};
    const HXCustomDefinition a(QStringLiteral("verse"), QStringLiteral("Verse"), HXParagraphScope,
                               properties);
    const HXCustomDefinition b(QStringLiteral("verse"), QStringLiteral("Another Name"),
                               HXParagraphScope, properties);
    const HXCustomDefinition c(QStringLiteral("verse"), QStringLiteral("Verse"), HXParagraphScope,
                               {});
    const HXCustomDefinition d(QStringLiteral("verse"), QStringLiteral("Verse"), HXTextScope,
                               properties);
    QVERIFY(a.isEqual(b));
    QCOMPARE(a.hash(), b.hash());
    QVERIFY(!a.isEqual(c));
    QVERIFY(!a.isEqual(d));
    QVERIFY(a.noParsingInside());
    // A custom definition with an attribute of its own is told apart by it.
    const HXCustomDefinition withAttribute(
        QStringLiteral("verse"), QStringLiteral("Verse"), HXParagraphScope, properties,
        {std::make_shared<HXCustomTagAttribute>(QStringLiteral("source"), QString(), 2, false)});
    QVERIFY(!a.isEqual(withAttribute));
}

void tst_HXDefinition::headingLevels() {
    QCOMPARE(HXIntrinsicDefinition::headingDefinitionWithLevel(3)->identifier(),
             QStringLiteral("heading3"));
    QCOMPARE(HXIntrinsicDefinition::headingDefinitionWithLevel(6)->identifier(),
             QStringLiteral("heading6"));
    for (quint64 level : {0, 7}) {
        QCOMPARE(HXTestSupport::assertionText(
                     [&] { HXIntrinsicDefinition::headingDefinitionWithLevel(level); }),
                 QStringLiteral("Invalid parameter not satisfying: (level > 0) && (level < 7)"));
    }
}

void tst_HXDefinition::patternWalk() {
    QStringList calls;
    HXTextParser::enumeratePattern(
        QStringLiteral("x\\d\\ry"), [&](const QString &literal, const QString &expression, bool &) {
            calls.append(literal + u'|' + (expression.isNull() ? QStringLiteral("-") : expression));
        });
    QCOMPARE(calls,
             (QStringList{QStringLiteral("x|\\d"), QStringLiteral("|\\r"), QStringLiteral("y|-")}));

    calls.clear();
    HXTextParser::enumeratePattern(QStringLiteral("a\\db"),
                                   [&](const QString &literal, const QString &, bool &stop) {
                                       calls.append(literal);
                                       stop = true;
                                   });
    QCOMPARE(calls, QStringList{QStringLiteral("a")});

    // The last call happens with an empty rest too; no pattern, no calls.
    calls.clear();
    HXTextParser::enumeratePattern(
        QStringLiteral("\\d"),
        [&](const QString &literal, const QString &, bool &) { calls.append(literal); });
    QCOMPARE(calls.size(), 2);
    calls.clear();
    HXTextParser::enumeratePattern(
        QString(), [&](const QString &literal, const QString &, bool &) { calls.append(literal); });
    QVERIFY(calls.isEmpty());
}

void tst_HXDefinition::patternCompiling_data() {
    QTest::addColumn<QString>("pattern");
    QTest::addColumn<QString>("definition");
    QTest::addColumn<QString>("expression");
    QTest::addColumn<QString>("plain"); // "<null>" for none

    QTest::newRow("list number") << "\\d."
                                 << "orderedList"
                                 << "(\\d{1,50})\\. "
                                 << "<null>";
    QTest::newRow("roman list") << "\\r)"
                                << "orderedList"
                                << "([ivxlcdmIVXLCDM]{1,50})\\) "
                                << "<null>";
    QTest::newRow("heading") << "##"
                             << "heading2"
                             << "## ?"
                             << "##";
    QTest::newRow("quote") << ">"
                           << "blockquote"
                           << "> ?"
                           << ">";
    QTest::newRow("strong") << "**"
                            << "strong"
                            << "\\*\\*"
                            << "**";
    QTest::newRow("brackets") << "[@"
                              << "cite"
                              << "\\[@"
                              << "[@";
    QTest::newRow("backslash") << "\\\\"
                               << "code"
                               << "\\\\"
                               << "\\";
    QTest::newRow("escaped d") << "\\\\d"
                               << "code"
                               << "\\\\d"
                               << "\\d";
    QTest::newRow("unknown escape") << "\\q"
                                    << "code"
                                    << "q"
                                    << "q";
    QTest::newRow("trailing backslash") << "a\\"
                                        << "code"
                                        << "a"
                                        << "a";
    QTest::newRow("word") << "@\\w"
                          << "cite"
                          << "@(\\w{1,50})"
                          << "<null>";
    QTest::newRow("letter after text") << "(\\a)"
                                       << "orderedList"
                                       << "\\(([a-zA-Z]{1,50})\\) "
                                       << "<null>";
    QTest::newRow("empty") << ""
                           << "code"
                           << ""
                           << "";
}

void tst_HXDefinition::patternCompiling() {
    QFETCH(QString, pattern);
    QFETCH(QString, definition);
    QFETCH(QString, expression);
    QFETCH(QString, plain);
    const HXDefinitionRef meaning =
        HXIntrinsicDefinition::intrinsicDefinitionWithIdentifier(definition);
    QCOMPARE(HXTextParser::regularExpressionStringForPattern(pattern, meaning.get()), expression);
    const QString plainString = HXTextParser::plainStringForPattern(pattern);
    if (plain == QLatin1String("<null>"))
        QVERIFY(plainString.isNull());
    else
        QCOMPARE(plainString, plain);
    QVERIFY(HXTextParser::regularExpressionForPattern(pattern, meaning.get()));
}

void tst_HXDefinition::compiledExpressionsMatch() {
    const auto list = HXTextParser::regularExpressionForPattern(QStringLiteral("\\d."),
                                                                intrinsic("orderedList").get());
    QVERIFY(matchesWhole(list, QStringLiteral("12. ")));
    QVERIFY(!matchesWhole(list, QStringLiteral("12.")));  // a list marker needs its blank
    QVERIFY(!matchesWhole(list, QStringLiteral("1x. "))); // the point is literal
    QVERIFY(!matchesWhole(list, QString(51, u'1') + QStringLiteral(". ")));
    const auto heading =
        HXTextParser::regularExpressionForPattern(QStringLiteral("#"), intrinsic("heading1").get());
    QVERIFY(matchesWhole(heading, QStringLiteral("#")));
    QVERIFY(matchesWhole(heading, QStringLiteral("# ")));
    const auto mark =
        HXTextParser::regularExpressionForPattern(QStringLiteral("=="), intrinsic("mark").get());
    QVERIFY(!matchesWhole(mark, QStringLiteral("== ")));
}

void tst_HXDefinition::tagPatternRules() {
    auto tag =
        std::make_shared<HXTextTag>(intrinsic("orderedList"), QStringList{QStringLiteral("\\d.")});
    QVERIFY(!tag->patternIsSimple(0));
    QVERIFY(tag->plainStrings().first().isNull());
    tag->setPatterns({QStringLiteral("-")});
    QVERIFY(tag->patternIsSimple(0)); // the caches were dropped
    QCOMPARE(tag->plainStrings(), QStringList{QStringLiteral("-")});
    QCOMPARE(HXTextTag::requiredNumberOfPatternsForScope(HXAttributedTextScope), 2);
    QCOMPARE(HXTextTag::requiredNumberOfPatternsForScope(6), 0);

    auto expectAssertion = [](const std::function<void()> &block, const QString &text) {
        QCOMPARE(HXTestSupport::assertionText(block), text);
    };
    expectAssertion(
        [&] {
            tag->setPatterns({QStringLiteral("-"), QStringLiteral("+")});
        },
        QStringLiteral("Invalid number of tags passed!"));
    tag->setIntrinsic(true);
    expectAssertion([&] { tag->setPatterns({QStringLiteral("+")}); },
                    QStringLiteral("Changed tags of intrinsic tag"));
    QVERIFY(tag->copy()->isIntrinsic());
    QVERIFY(!tag->duplicate()->isIntrinsic());
    tag->duplicate()->setPatterns({QStringLiteral("+")});

    const auto strong = std::make_shared<HXTextTag>(
        intrinsic("strong"), QStringList{QStringLiteral("**"), QStringLiteral("__")});
    strong->setUserDisplayName(QStringLiteral("Bold"));
    QCOMPARE(strong->displayString(), QStringLiteral("**Bold__"));
    QVERIFY(strong->copy()->userDisplayName().isEmpty());
    QCOMPARE(strong->copy()->displayString(), QStringLiteral("**Strong__"));
    QVERIFY(strong->isEqual(*strong->duplicate()));
    QCOMPARE(strong->hash(), strong->duplicate()->hash());
    const HXTextTag image(intrinsic("image"), {QString(QChar(0xfffc))});
    QCOMPARE(image.displayString(), QString(QChar(0xfffc)) + QStringLiteral(" Image"));
}

void tst_HXDefinition::tagCachesUnderConcurrentReads() {
    // The first readers build the caches together; every one must see the same compiled
    // expressions.
    for (int round = 0; round < 20; ++round) {
        const auto tag = std::make_shared<HXTextTag>(
            intrinsic("emph"), QStringList{QStringLiteral("*"), QStringLiteral("*")});
        std::vector<const icu::RegexPattern *> seen(4);
        QList<QThread *> threads;
        for (int i = 0; i < 4; ++i)
            threads.append(
                QThread::create([&, i] { seen[size_t(i)] = tag->matchingExpression(1).get(); }));
        for (QThread *thread : threads)
            thread->start();
        for (QThread *thread : threads) {
            thread->wait();
            delete thread;
        }
        QVERIFY(seen[0] && seen[0] == seen[1] && seen[1] == seen[2] && seen[2] == seen[3]);
    }
}

HX_TEST_MAIN(tst_HXDefinition)
#include "tst_HXDefinition.moc"
