// The built-in definitions, selectors, custom definitions and the pattern language of tags.

#include "HXTestSupport.h"
#include "Text/Markup/HXCustomDefinition.h"
#include "Text/Markup/HXCustomTagAttribute.h"
#include "Text/Markup/HXIntrinsicDefinition.h"
#include "Text/Markup/HXTextTag.h"
#include "Text/String/Access/HXString.h"
#include "Text/String/Parser/HXTextParser.h"
#include "Utilities/HXAssert.h"

#include <QThread>

using namespace Qt::StringLiterals;

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
    void listsAndSelectors();
    void names();
    void customDefinitionEquality();
    void headingLevels();
    void patternWalk();
    void patternCompiling_data();
    void patternCompiling();
    void compiledExpressionsMatch();
    void tagPatternRules();
    void tagCachesUnderConcurrentReads();
};

void tst_HXDefinition::listsAndSelectors() {
    // By scope first, whatever the order of the bits; the filename is listed in no scope.
    const QStringList listed = identifiers(
        HXDefinition::availableDefinitionsForScopes(HXSelectorForScope(5) | HXSelectorForScope(1)));
    QCOMPARE(listed.first(), u"comment"_s);
    QCOMPARE(listed.last(), u"footnote"_s);
    QVERIFY(!identifiers(HXDefinition::availableDefinitionsForScopes(-1)).contains(u"filename"_s));
    QVERIFY(intrinsic("filename") && !intrinsic("nothing"));
    QCOMPARE(intrinsic("video")->ordering(), 1);

    // HXSelectorInlineOnly sets all bits above the paragraph scopes, the options included: the
    // nested-string exclusion applies, and the filename is let through. An option never stands
    // in for the scope bit.
    const struct {
        const char *identifier;
        HXDefinitionSelector selector;
        bool matches;
    } cases[] = {
        {"footnote", HXNestedStringDefinitionSelector, false},
        {"annotation", HXNestedStringDefinitionSelector, false},
        {"link", HXNestedStringDefinitionSelector, true},
        {"image", HXNestedStringDefinitionSelector, true},
        {"strong", HXNestedStringDefinitionSelector, true},
        {"heading1", HXNestedStringDefinitionSelector, false},
        {"blockquote", HXSelectorInlineOnly, false},
        {"strong", HXSelectorInlineOnly, true},
        {"footnote", HXSelectorInlineOnly, false},
        {"strong", 0, false},
        {"filename", HXDefaultDefinitionSelector, false},
        {"filename", HXSelectorForScope(HXHeadingScope) | HXSelectorAllowsFilename, true},
        {"filename", HXSelectorForScope(HXTextScope) | HXSelectorAllowsFilename, false},
    };
    for (const auto &[identifier, selector, matches] : cases)
        QVERIFY2(intrinsic(identifier)->matchesSelector(selector) == matches,
                 qPrintable(u"%1 %2"_s.arg(QLatin1String(identifier)).arg(selector)));
}

void tst_HXDefinition::names() {
    QCOMPARE(HXDefinition::userCodeNameForIdentifier(u"myFancyThing"_s), u"my-fancy-thing"_s);
    QCOMPARE(HXDefinition::userCodeNameForIdentifier(u"MyThing"_s), u"my-thing"_s);
    QCOMPARE(intrinsic("inlineNative")->userCodeName(), u"inline-raw"_s); // the stored one wins
    const HXCustomDefinition custom(u"sideNote"_s, u"Side Note"_s, HXTextScope, {});
    QCOMPARE(custom.userCodeName(), u"side-note"_s);
    const HXCustomDefinition unnamed(QString(), u"Side Note"_s, HXTextScope, {});
    QCOMPARE(unnamed.identifier(), u"side note"_s);
    QCOMPARE(HXCustomTagAttribute(u"source"_s, QString(), 1, true).displayName(), u"source"_s);

    // Every built-in definition, attribute and scope has its texts.
    for (const HXDefinitionRef &definition :
         HXDefinition::availableDefinitionsForScopes(HXSelectorAllScopes)) {
        QVERIFY2(definition->displayName() != definition->identifier(),
                 qPrintable(definition->identifier()));
        QVERIFY(!definition->shortName().endsWith(u"_short"_s));
        QVERIFY(definition->userDescriptionText() != definition->identifier());
        // The description is text of the markup it is written in, with its structure.
        const auto description = definition->userDescription();
        QCOMPARE(description->markup(), HXDefinition::userDescriptionMarkup());
        QCOMPARE(description->string(), definition->userDescriptionText());
        for (const HXTagAttributeRef &attribute : definition->attributes())
            QVERIFY2(attribute->displayName() != attribute->identifier(),
                     qPrintable(attribute->identifier()));
    }
    for (quint64 scope = 0; scope < HXNumberOfScopes; ++scope)
        QVERIFY(HXDefinition::displayNameForScope(scope) != HXDefinition::nameForScope(scope));
}

void tst_HXDefinition::customDefinitionEquality() {
    // The display name doesn't count; scope, properties and attributes do.
    const QVariantMap properties{{u"noParsingInside"_s, 1}};
    const HXCustomDefinition a(u"verse"_s, u"Verse"_s, HXParagraphScope, properties);
    const HXCustomDefinition b(u"verse"_s, u"Another Name"_s, HXParagraphScope, properties);
    QVERIFY(a.isEqual(b));
    QCOMPARE(a.hash(), b.hash());
    QVERIFY(!a.isEqual(HXCustomDefinition(u"verse"_s, u"Verse"_s, HXParagraphScope, {})));
    QVERIFY(!a.isEqual(HXCustomDefinition(u"verse"_s, u"Verse"_s, HXTextScope, properties)));
    const HXCustomDefinition withAttribute(
        u"verse"_s, u"Verse"_s, HXParagraphScope, properties,
        {std::make_shared<HXCustomTagAttribute>(u"source"_s, QString(), 2, false)});
    QVERIFY(!a.isEqual(withAttribute));
}

void tst_HXDefinition::headingLevels() {
    for (quint64 level : {1, 6})
        QCOMPARE(HXIntrinsicDefinition::headingDefinitionWithLevel(level)->identifier(),
                 u"heading%1"_s.arg(level));
    for (quint64 level : {0, 7}) {
        QCOMPARE(HXTestSupport::assertionText(
                     [&] { HXIntrinsicDefinition::headingDefinitionWithLevel(level); }),
                 u"Invalid parameter not satisfying: (level > 0) && (level < 7)"_s);
    }
}

void tst_HXDefinition::patternWalk() {
    // The literal before each expression with it, and a last time the rest with none; no
    // pattern, no calls.
    auto walk = [](const QString &pattern, bool stopAtFirst) {
        QStringList calls;
        HXTextParser::enumeratePattern(
            pattern, [&](const QString &literal, const QString &expression, bool &stop) {
                calls.append(literal + u'|' + (expression.isNull() ? u"-"_s : expression));
                stop = stopAtFirst;
            });
        return calls.join(u' ');
    };
    QCOMPARE(walk(u"x\\d\\ry"_s, false), u"x|\\d |\\r y|-"_s);
    QCOMPARE(walk(u"\\d"_s, false), u"|\\d |-"_s);
    QCOMPARE(walk(QString(), false), QString());
    QCOMPARE(walk(u"a\\db"_s, true), u"a|\\d"_s);
}

void tst_HXDefinition::patternCompiling_data() {
    QTest::addColumn<QString>("pattern");
    QTest::addColumn<QString>("definition");
    QTest::addColumn<QString>("expression");
    QTest::addColumn<QString>("plain"); // null for none

    // Lists need their blank, the other paragraph prefixes take an optional one.
    const struct {
        const char *name, *pattern, *definition, *expression, *plain;
    } rows[] = {
        {"list number", "\\d.", "orderedList", "(\\d{1,50})\\. ", nullptr},
        {"roman list", "\\r)", "orderedList", "([ivxlcdmIVXLCDM]{1,50})\\) ", nullptr},
        {"letter after text", "(\\a)", "orderedList", "\\(([a-zA-Z]{1,50})\\) ", nullptr},
        {"heading", "##", "heading2", "## ?", "##"},
        {"quote", ">", "blockquote", "> ?", ">"},
        {"strong", "**", "strong", "\\*\\*", "**"},
        {"brackets", "[@", "cite", "\\[@", "[@"},
        {"backslash", "\\\\", "code", "\\\\", "\\"},
        {"escaped d", "\\\\d", "code", "\\\\d", "\\d"},
        {"unknown escape", "\\q", "code", "q", "q"},
        {"trailing backslash", "a\\", "code", "a", "a"},
        {"word", "@\\w", "cite", "@(\\w{1,50})", nullptr},
        {"empty", "", "code", "", ""},
    };
    for (const auto &row : rows)
        QTest::newRow(row.name) << QString::fromLatin1(row.pattern)
                                << QString::fromLatin1(row.definition)
                                << QString::fromLatin1(row.expression)
                                << (row.plain ? QString::fromLatin1(row.plain) : QString());
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
    if (plain.isNull())
        QVERIFY(plainString.isNull());
    else
        QCOMPARE(plainString, plain);
    QVERIFY(HXTextParser::regularExpressionForPattern(pattern, meaning.get()));
}

void tst_HXDefinition::compiledExpressionsMatch() {
    const auto list =
        HXTextParser::regularExpressionForPattern(u"\\d."_s, intrinsic("orderedList").get());
    QVERIFY(matchesWhole(list, u"12. "_s));
    QVERIFY(!matchesWhole(list, u"12."_s));  // a list marker needs its blank
    QVERIFY(!matchesWhole(list, u"1x. "_s)); // the point is literal
    QVERIFY(!matchesWhole(list, QString(51, u'1') + u". "_s));
    const auto heading =
        HXTextParser::regularExpressionForPattern(u"#"_s, intrinsic("heading1").get());
    QVERIFY(matchesWhole(heading, u"#"_s));
    QVERIFY(matchesWhole(heading, u"# "_s));
    const auto mark = HXTextParser::regularExpressionForPattern(u"=="_s, intrinsic("mark").get());
    QVERIFY(!matchesWhole(mark, u"== "_s));
}

void tst_HXDefinition::tagPatternRules() {
    auto tag = std::make_shared<HXTextTag>(intrinsic("orderedList"), QStringList{u"\\d."_s});
    QVERIFY(!tag->patternIsSimple(0));
    QVERIFY(tag->plainStrings().first().isNull());
    tag->setPatterns({u"-"_s});
    QVERIFY(tag->patternIsSimple(0)); // the caches were dropped
    QCOMPARE(tag->plainStrings(), QStringList{u"-"_s});
    QCOMPARE(HXTextTag::requiredNumberOfPatternsForScope(HXNumberOfScopes), 0);

    using HXTestSupport::assertionText;
    QCOMPARE(assertionText([&] {
                 tag->setPatterns({u"-"_s, u"+"_s});
             }),
             u"Invalid number of tags passed!"_s);
    tag->setIntrinsic(true);
    QCOMPARE(assertionText([&] { tag->setPatterns({u"+"_s}); }),
             u"Changed tags of intrinsic tag"_s);
    QVERIFY(tag->copy()->isIntrinsic());
    QVERIFY(!tag->duplicate()->isIntrinsic());
    tag->duplicate()->setPatterns({u"+"_s});

    const auto strong =
        std::make_shared<HXTextTag>(intrinsic("strong"), QStringList{u"**"_s, u"__"_s});
    strong->setUserDisplayName(u"Bold"_s);
    QCOMPARE(strong->displayString(), u"**Bold__"_s);
    QCOMPARE(strong->copy()->displayString(), u"**Strong__"_s); // the user's name isn't copied
    QVERIFY(strong->isEqual(*strong->duplicate()));
    QCOMPARE(strong->hash(), strong->duplicate()->hash());
    const HXTextTag image(intrinsic("image"), {QString(QChar(0xfffc))});
    QCOMPARE(image.displayString(), QString(QChar(0xfffc)) + u" Image"_s);
}

void tst_HXDefinition::tagCachesUnderConcurrentReads() {
    // The first readers build the caches together; every one must see the same compiled
    // expressions.
    for (int round = 0; round < 20; ++round) {
        const auto tag =
            std::make_shared<HXTextTag>(intrinsic("emph"), QStringList{u"*"_s, u"*"_s});
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
