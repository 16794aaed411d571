// Markups: their tag sets, default tags, change notifications, copies, the markup file format and
// the built-in markups.

#include "HXTestSupport.h"
#include "Text/Markup/HXCustomDefinition.h"
#include "Text/Markup/HXIntrinsicDefinition.h"
#include "Text/Markup/HXMarkup.h"
#include "Text/Markup/HXPreferredPatterns.h"
#include "Utilities/HXApplicationLog.h"
#include "Utilities/HXAssert.h"

#include <QFile>

using namespace Qt::StringLiterals;

#include <sys/wait.h>
#include <unistd.h>

namespace {

HXTextTagRef makeTag(const char *definition, QStringList patterns) {
    return std::make_shared<HXTextTag>(
        HXIntrinsicDefinition::intrinsicDefinitionWithIdentifier(QString::fromLatin1(definition)),
        std::move(patterns));
}

QByteArray markupDocument(const QByteArray &body, const QByteArray &version = "1") {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<markup version=\"" + version + "\">" +
           body + "\n</markup>\n";
}

struct CountingObserver : HXMarkupObserver {
    int count = 0;
    void markupChangedStructure(HXMarkup &) override { ++count; }
};

using HXTestSupport::assertionText;

} // namespace

class tst_HXMarkup : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void builtInMarkupsRoundTrip();
    void builtInMarkupsCoverTheDefinitions();
    void readingFailures_data();
    void readingFailures();
    void unknownDefinitionsAndElements();
    void customDefinitions();
    void tagSetsAndNotifications();
    void defaultTags();
    void tagsMatchingStrings();
    void copiesAndDuplicates();
    void pasteboard();
    void missingDefaultMarkupEndsTheRun();
};

void tst_HXMarkup::builtInMarkupsRoundTrip() {
    const auto &markups = HXMarkup::intrinsicMarkups();
    QCOMPARE(markups.keys(),
             (QStringList{QStringLiteral("markdown"), QStringLiteral("markdownqr")}));
    for (const auto &markup : markups) {
        QFile file(QStringLiteral(":/Markups/") + markup->identifier() + QStringLiteral(".xml"));
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray original = file.readAll();
        HXError error;
        const auto read = HXMarkup::markupWithData(original, &error);
        QVERIFY2(read, qPrintable(error.localizedFailureReason()));
        QVERIFY(read->isEqualToMarkup(*markup));
        // The files are kept in the form the markup writes: tags in their fixed order.
        QCOMPARE(read->XMLData(), original);

        const QByteArray first = markup->XMLData();
        const auto again = HXMarkup::markupWithData(first, &error);
        QVERIFY(again);
        QVERIFY(again->isEqual(*markup));
        QCOMPARE(again->displayName(), markup->displayName());
        QCOMPARE(again->XMLData(), first);
    }
    QCOMPARE(HXMarkup::defaultIntrinsicMarkup()->displayName(), QStringLiteral("Markdown QR"));
    QVERIFY(HXMarkup::defaultIntrinsicMarkup()->isIntrinsic());
}

void tst_HXMarkup::builtInMarkupsCoverTheDefinitions() {
    const auto markdownQR = HXMarkup::defaultIntrinsicMarkup();
    for (const HXDefinitionRef &definition :
         HXDefinition::availableDefinitionsForScopes(HXSelectorAllScopes)) {
        QVERIFY2(markdownQR->tagWithIdentifier(definition->identifier()),
                 qPrintable(definition->identifier()));
        for (const HXTextTagRef &tag :
             markdownQR->allTagsWithIdentifier(definition->identifier())) {
            QVERIFY(tag->isIntrinsic());
            for (qsizetype part = 0; part < tag->patterns().size(); ++part)
                QVERIFY2(tag->matchingExpression(part), qPrintable(tag->description()));
        }
    }
    // Entities are written as the object replacement character.
    const QString object(QChar(0xfffc));
    QCOMPARE(markdownQR->tagWithIdentifier(QStringLiteral("link"))->patterns(),
             (QStringList{object, object}));
    QCOMPARE(markdownQR->tagWithIdentifier(QStringLiteral("footnote"))->patterns(),
             QStringList{object});

    const auto markdown = HXMarkup::intrinsicMarkups().value(QStringLiteral("markdown"));
    QCOMPARE(markdown->displayName(), QStringLiteral("Markdown"));
    QVERIFY(!markdown->tagWithIdentifier(QStringLiteral("footnote")));
    QVERIFY(!markdown->isEqualToMarkup(*markdownQR));
    QCOMPARE(markdown->tagWithIdentifier(QStringLiteral("divider"))->patterns(),
             QStringList{QStringLiteral("***")});
}

void tst_HXMarkup::readingFailures_data() {
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<QString>("failure");
    const QByteArray strong =
        "\n\t<tag definition=\"strong\" startPattern=\"**\" endPattern=\"**\"/>";
    auto custom = [](const QByteArray &definition) {
        return markupDocument("<tag startPattern=\"{\" endPattern=\"}\">" + definition + "</tag>");
    };
    QTest::newRow("newer version") << markupDocument(strong, "2") << u"saved by a newer version"_s;
    QTest::newRow("version no number")
        << markupDocument(strong, "1.x") << u"Bad version \"1.x\" of markup"_s;
    QTest::newRow("version zero") << markupDocument(strong, "0") << u"Bad version \"0\""_s;
    QTest::newRow("start pattern only")
        << markupDocument("<tag definition=\"strong\" startPattern=\"**\"/>")
        << u"No text tags found for tag"_s;
    QTest::newRow("two patterns for a heading")
        << markupDocument("<tag definition=\"heading1\" startPattern=\"#\" endPattern=\"#\"/>")
        << u"No text tags found for tag"_s;
    QTest::newRow("tag in an unknown element") << markupDocument("<group>" + strong + "</group>")
                                               << u"Tag inside the unknown element \"group\""_s;
    QTest::newRow("tag deep in an unknown element")
        << markupDocument("<tag definition=\"divider\" pattern=\"-\"><x><y>" + strong +
                          "</y></x></tag>")
        << u"Tag inside the unknown element \"y\""_s;
    QTest::newRow("unknown attribute kind")
        << custom("<definition identifier=\"aside\" scope=\"attributedText\">"
                  "<attribute identifier=\"source\" kind=\"7\"/></definition>")
        << u"Unknown kind \"7\" of attribute \"source\""_s;
    QTest::newRow("heading level no number")
        << custom("<definition identifier=\"aside\" scope=\"text\" headingLevel=\"high\"/>")
        << u"Property headingLevel of definition \"aside\" is no number: \"high\""_s;
    QTest::newRow("definition without identifier")
        << custom("<definition scope=\"text\"/>") << u"Definition without identifier or name"_s;
    QTest::newRow("not closed") << QByteArray("<markup version=\"1\"><tag") << u"line 1"_s;
    QTest::newRow("other root") << QByteArray("<theme/>") << u"no markup"_s;
}

void tst_HXMarkup::readingFailures() {
    QFETCH(QByteArray, document);
    QFETCH(QString, failure);
    HXError error;
    HXMarkup markup;
    QVERIFY(!markup.readFromData(document, &error));
    QVERIFY2(error.localizedFailureReason().contains(failure),
             qPrintable(error.localizedFailureReason()));
    QVERIFY(markup.allTags().isEmpty());
}

void tst_HXMarkup::unknownDefinitionsAndElements() {
    // A tag of a definition nobody knows is left out quietly, and so is an unknown element that
    // holds no tag.
    HXError error;
    const auto read = HXMarkup::markupWithData(
        markupDocument("\n\t<tag definition=\"sparkle\" pattern=\"!\"/>\n\t<tag "
                       "definition=\"divider\" pattern=\"---\"/><note>later</note>"),
        &error);
    QVERIFY2(read, qPrintable(error.localizedFailureReason()));
    QCOMPARE(read->allTags().size(), 1);
}

void tst_HXMarkup::customDefinitions() {
    const QByteArray body =
        "\n\t<tag definition=\"strong\" startPattern=\"**\" endPattern=\"**\"/>"
        "\n\t<tag startPattern=\"{\" endPattern=\"}\" name=\"Aside\">\n\t\t\t<definition "
        "identifier=\"sideNote\" name=\"Side Note\" scope=\"heading,attributedText\" "
        "noParsingInside=\"1\">"
        "\n\t\t\t\t<attribute identifier=\"source\" name=\"Source\" showName=\"yes\" "
        "kind=\"1\"/>\n\t\t\t</definition>\n\t\t</tag>"
        "\n\t<tag pattern=\"!!\">\n\t\t\t<definition identifier=\"divider\" name=\"Mine\" "
        "scope=\"paragraph\"/>\n\t\t</tag>";
    HXError error;
    const auto markup = HXMarkup::markupWithData(markupDocument(body), &error);
    QVERIFY2(markup, qPrintable(error.localizedFailureReason()));
    const HXTextTagRef aside = markup->tagWithIdentifier(QStringLiteral("sideNote"));
    QVERIFY(aside);
    const HXDefinitionRef definition = aside->definition();
    QCOMPARE(definition->scope(), quint64(HXAttributedTextScope)); // the last scope named counts
    QVERIFY(!definition->isIntrinsic());
    QVERIFY(definition->noParsingInside());
    QCOMPARE(definition->attributes().size(), 1);
    QVERIFY(definition->attributes().first()->showDisplayName());
    QCOMPARE(aside->displayName(), QStringLiteral("Aside"));
    // A custom definition with a built-in identifier is the built-in one.
    QVERIFY(markup->tagWithIdentifier(QStringLiteral("divider"))->definition()->isIntrinsic());

    // Written in the fixed order, the custom definition indented inside its tag, and read back.
    const QByteArray written = markup->XMLData();
    QCOMPARE(written,
             markupDocument("\n\t<tag definition=\"divider\" pattern=\"!!\"/>"
                            "\n\t<tag definition=\"strong\" startPattern=\"**\" endPattern=\"**\"/>"
                            "\n\t<tag startPattern=\"{\" endPattern=\"}\" "
                            "name=\"Aside\">\n\t\t\t<definition identifier=\"sideNote\" "
                            "name=\"Side Note\" scope=\"attributedText\" noParsingInside=\"1\">"
                            "\n\t\t\t\t<attribute identifier=\"source\" name=\"Source\" "
                            "showName=\"yes\" kind=\"1\"/>\n\t\t\t</definition>\n\t\t</tag>"));
    const auto again = HXMarkup::markupWithData(written, &error);
    QVERIFY(again && again->isEqualToMarkup(*markup));
    QCOMPARE(again->XMLData(), written);
}

void tst_HXMarkup::tagSetsAndNotifications() {
    HXMarkup markup;
    auto observer = std::make_shared<CountingObserver>();
    markup.addMarkupObserver(observer);
    const HXTextTagRef strong = makeTag("strong", {QStringLiteral("**"), QStringLiteral("**")});
    markup.setAllTags({strong, makeTag("heading1", {QStringLiteral("#")})});
    QCOMPARE(observer->count, 1);
    // The same set again, even of other objects, changes nothing.
    markup.setAllTags({makeTag("heading1", {QStringLiteral("#")}),
                       makeTag("strong", {QStringLiteral("**"), QStringLiteral("**")})});
    QCOMPARE(observer->count, 1);
    QVERIFY(markup.allTags().contains(strong));
    // An equal tag is in the set already.
    markup.addTag(makeTag("strong", {QStringLiteral("**"), QStringLiteral("**")}));
    QCOMPARE(markup.allTags().size(), 2);
    QCOMPARE(observer->count, 1);
    // Kept in order of scope, whatever the order of adding.
    QCOMPARE(markup.allTags().first()->definition()->identifier(), QStringLiteral("heading1"));
    QCOMPARE(markup.tagsForScope(HXTextScope), QList<HXTextTagRef>{strong});

    // A change of a tag's patterns reaches the markup's observers.
    strong->setPatterns({QStringLiteral("__"), QStringLiteral("__")});
    QCOMPARE(observer->count, 2);

    markup.beginEditing();
    markup.addTag(makeTag("emph", {QStringLiteral("*"), QStringLiteral("*")}));
    markup.removeTag(makeTag("heading1", {QStringLiteral("#")}));
    QCOMPARE(observer->count, 2);
    QCOMPARE(assertionText([&] { markup.beginEditing(); }),
             QStringLiteral("Markup is editing already!"));
    markup.endEditing();
    QCOMPARE(observer->count, 3);
    QCOMPARE(assertionText([&] { markup.endEditing(); }),
             QStringLiteral("Markup not in edit mode!"));
    // A tag that left is no longer observed.
    markup.removeTag(strong);
    QCOMPARE(observer->count, 4);
    strong->setPatterns({QStringLiteral("**"), QStringLiteral("**")});
    QCOMPARE(observer->count, 4);
    markup.removeMarkupObserver(observer);
    markup.addTag(strong);
    QCOMPARE(observer->count, 4);
}

void tst_HXMarkup::defaultTags() {
    HXMarkup markup;
    const HXTextTagRef dash = makeTag("unorderedList", {QStringLiteral("-")});
    const HXTextTagRef plus = makeTag("unorderedList", {QStringLiteral("+")});
    const HXTextTagRef star = makeTag("unorderedList", {QStringLiteral("*")});
    markup.setAllTags({plus, star});
    // The bundled preferred pattern "-" is not among them: one of the two, stable.
    const HXTextTagRef chosen = markup.defaultTagWithIdentifier(QStringLiteral("unorderedList"));
    QVERIFY(chosen == plus || chosen == star);
    QCOMPARE(markup.defaultTagWithIdentifier(QStringLiteral("unorderedList")), chosen);
    markup.addTag(dash);
    QCOMPARE(markup.defaultTagWithIdentifier(QStringLiteral("unorderedList")), dash);
    QCOMPARE(markup.tagWithIdentifier(QStringLiteral("unorderedList")), dash);

    // The user's preference takes over once announced.
    QString preferred = QStringLiteral("+");
    HXSetPreferredPatternProvider([&](const QString &identifier) {
        return identifier == QLatin1String("unorderedList") ? preferred : QString();
    });
    QCOMPARE(markup.defaultTagWithIdentifier(QStringLiteral("unorderedList")), dash); // cached
    HXNotificationCenter::defaultCenter()->post(HXDefinitionStorePreferredPatternsChanged);
    QCOMPARE(markup.defaultTagWithIdentifier(QStringLiteral("unorderedList")), plus);
    preferred = QStringLiteral("*");
    HXNotificationCenter::defaultCenter()->post(HXDefinitionStorePreferredPatternsChanged);
    QCOMPARE(markup.defaultTags().value(QStringLiteral("unorderedList")), star);
    HXSetPreferredPatternProvider(nullptr);
}

void tst_HXMarkup::tagsMatchingStrings() {
    const auto markup = HXMarkup::defaultIntrinsicMarkup();
    const HXTextTagRef point =
        markup->tagWithIdentifier(QStringLiteral("orderedList"), QStringLiteral("1. "));
    const HXTextTagRef parenthesis =
        markup->tagWithIdentifier(QStringLiteral("orderedList"), QStringLiteral("12) "));
    QCOMPARE(point->patterns(), QStringList{QStringLiteral("\\d.")});
    QCOMPARE(parenthesis->patterns(), QStringList{QStringLiteral("\\d)")});
    QCOMPARE(markup->tagWithIdentifier(QStringLiteral("orderedList"), QStringLiteral("12)")),
             parenthesis);
    // No tag matches: the default one.
    QCOMPARE(markup->tagWithIdentifier(QStringLiteral("orderedList"), QStringLiteral("x) ")),
             point);
    QCOMPARE(markup->tagWithIdentifier(QStringLiteral("emph"), QStringLiteral("_")),
             markup->tagWithIdentifier(QStringLiteral("emph"), QStringLiteral("_")));
    QCOMPARE(
        markup->tagWithIdentifier(QStringLiteral("emph"), QStringLiteral("_"))->patterns().first(),
        QStringLiteral("_"));
    // One tag only: that one, whatever the string.
    QCOMPARE(markup->tagWithIdentifier(QStringLiteral("divider"), QStringLiteral("nothing like it"))
                 ->patterns()
                 .first(),
             QStringLiteral("---"));
    QVERIFY(!markup->tagWithIdentifier(QStringLiteral("sparkle")));
}

void tst_HXMarkup::copiesAndDuplicates() {
    const auto original = HXMarkup::defaultIntrinsicMarkup();
    const auto copy = original->copy();
    QVERIFY(copy->isEqual(*original));
    QVERIFY(copy->isIntrinsic());
    QVERIFY(copy->allTags().first() != original->allTags().first());

    const auto duplicate = original->duplicate();
    QVERIFY(duplicate->identifier().isEmpty());
    QVERIFY(!duplicate->isIntrinsic());
    QVERIFY(duplicate->isEqualToMarkup(*duplicate->copy()));
    QVERIFY(!duplicate->isEqual(*original));
    // Default tags only: one tag for each definition.
    QCOMPARE(duplicate->allTagsWithIdentifier(QStringLiteral("unorderedList")).size(), 1);
    QCOMPARE(duplicate->allTagsWithIdentifier(QStringLiteral("unorderedList")).first()->patterns(),
             QStringList{QStringLiteral("-")});
    // Its tags can be changed.
    duplicate->tagWithIdentifier(QStringLiteral("strong"))
        ->setPatterns({QStringLiteral("!!"), QStringLiteral("!!")});

    // Taking over another markup keeps the tags both have, as objects.
    auto observer = std::make_shared<CountingObserver>();
    duplicate->addMarkupObserver(observer);
    const HXTextTagRef kept = duplicate->tagWithIdentifier(QStringLiteral("heading1"));
    duplicate->setUsingMarkup(*original);
    QCOMPARE(observer->count, 1);
    QVERIFY(duplicate->isEqualToMarkup(*original));
    QCOMPARE(duplicate->tagWithIdentifier(QStringLiteral("heading1")), kept);
    QVERIFY(!duplicate->isIntrinsic());
}

void tst_HXMarkup::pasteboard() {
    const auto markup = HXMarkup::intrinsicMarkups().value(QStringLiteral("markdown"));
    const QByteArray data = markup->pasteboardPropertyListForType(HXMarkupPasteboardType);
    HXError error;
    const auto pasted =
        HXMarkup::markupWithPasteboardPropertyList(data, HXMarkupPasteboardType, &error);
    QVERIFY(pasted && pasted->isEqual(*markup));
    QCOMPARE(assertionText(
                 [&] { markup->pasteboardPropertyListForType(QStringLiteral("public.text")); }),
             QStringLiteral("Invalid pasteboard type passed"));
}

void tst_HXMarkup::missingDefaultMarkupEndsTheRun() {
    // A child looks for the default among markups that lack it.
    const QString logPath = HXApplicationLog::sharedInstance()->crashErrorLogURL();
    const pid_t child = fork();
    if (child == 0) {
        HXMarkup::defaultMarkupAmong(
            {{QStringLiteral("markdown"),
              HXMarkup::intrinsicMarkups().value(QStringLiteral("markdown"))}});
        _exit(0);
    }
    int status = 0;
    QCOMPARE(waitpid(child, &status, 0), child);
    QVERIFY(WIFSIGNALED(status));
    QCOMPARE(WTERMSIG(status), SIGABRT);
    QFile log(logPath);
    QVERIFY(log.open(QIODevice::ReadOnly));
    QVERIFY(log.readAll().contains("FATAL: Default intrinsic markup is missing!"));
}

HX_TEST_MAIN(tst_HXMarkup)
#include "tst_HXMarkup.moc"
