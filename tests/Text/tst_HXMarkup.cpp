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
    void builtInMarkups();
    void readingFailures_data();
    void readingFailures();
    void customDefinitionsAndUnknownTags();
    void tagSetsAndNotifications();
    void defaultTags();
    void tagsMatchingStrings();
    void copiesAndDuplicates();
    void pasteboard();
    void missingDefaultMarkupEndsTheRun();
};

void tst_HXMarkup::builtInMarkups() {
    const auto &markups = HXMarkup::intrinsicMarkups();
    QCOMPARE(markups.keys(), (QStringList{u"markdown"_s, u"markdownqr"_s}));
    for (const auto &markup : markups) {
        QFile file(u":/Markups/"_s + markup->identifier() + u".xml"_s);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray original = file.readAll();
        HXError error;
        const auto read = HXMarkup::markupWithData(original, &error);
        QVERIFY2(read, qPrintable(error.localizedFailureReason()));
        QVERIFY(read->isEqualToMarkup(*markup));
        // The files are kept in the form the markup writes: tags in their fixed order.
        QCOMPARE(read->XMLData(), original);
        // Written with identifier and name, and read back the same.
        const QByteArray first = markup->XMLData();
        const auto again = HXMarkup::markupWithData(first, &error);
        QVERIFY(again && again->isEqual(*markup));
        QCOMPARE(again->displayName(), markup->displayName());
        QCOMPARE(again->XMLData(), first);
        for (const HXTextTagRef &tag : markup->allTags()) {
            QVERIFY(tag->isIntrinsic());
            for (qsizetype part = 0; part < tag->patterns().size(); ++part)
                QVERIFY2(tag->matchingExpression(part), qPrintable(tag->description()));
        }
    }
    // The default markup has a tag for every definition.
    const auto markdownQR = HXMarkup::defaultIntrinsicMarkup();
    QCOMPARE(markdownQR->displayName(), u"Markdown QR"_s);
    for (const HXDefinitionRef &definition :
         HXDefinition::availableDefinitionsForScopes(HXSelectorAllScopes))
        QVERIFY2(markdownQR->tagWithIdentifier(definition->identifier()),
                 qPrintable(definition->identifier()));
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

void tst_HXMarkup::customDefinitionsAndUnknownTags() {
    // A tag of a definition nobody knows is left out quietly, and so is an unknown element that
    // holds no tag. Of a list of scopes the last counts; a custom definition with a built-in
    // identifier is the built-in one.
    const QByteArray body =
        "\n\t<tag definition=\"strong\" startPattern=\"**\" endPattern=\"**\"/>"
        "\n\t<tag definition=\"sparkle\" pattern=\"!\"/><note>later</note>"
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
    const HXTextTagRef strong = makeTag("strong", {u"**"_s, u"**"_s});
    markup.setAllTags({strong, makeTag("heading1", {u"#"_s})});
    QCOMPARE(observer->count, 1);
    // The same set again, even of other objects, changes nothing.
    markup.setAllTags({makeTag("heading1", {u"#"_s}), makeTag("strong", {u"**"_s, u"**"_s})});
    QCOMPARE(observer->count, 1);
    QVERIFY(markup.allTags().contains(strong));
    // An equal tag is in the set already.
    markup.addTag(makeTag("strong", {u"**"_s, u"**"_s}));
    QCOMPARE(markup.allTags().size(), 2);
    QCOMPARE(observer->count, 1);
    // Kept in order of scope, whatever the order of adding.
    QCOMPARE(markup.allTags().first()->definition()->identifier(), u"heading1"_s);
    QCOMPARE(markup.tagsForScope(HXTextScope), QList<HXTextTagRef>{strong});

    // A change of a tag's patterns reaches the markup's observers.
    strong->setPatterns({u"__"_s, u"__"_s});
    QCOMPARE(observer->count, 2);

    markup.beginEditing();
    markup.addTag(makeTag("emph", {u"*"_s, u"*"_s}));
    markup.removeTag(makeTag("heading1", {u"#"_s}));
    QCOMPARE(observer->count, 2);
    QCOMPARE(assertionText([&] { markup.beginEditing(); }), u"Markup is editing already!"_s);
    markup.endEditing();
    QCOMPARE(observer->count, 3);
    QCOMPARE(assertionText([&] { markup.endEditing(); }), u"Markup not in edit mode!"_s);
    // A tag that left is no longer observed.
    markup.removeTag(strong);
    QCOMPARE(observer->count, 4);
    strong->setPatterns({u"**"_s, u"**"_s});
    QCOMPARE(observer->count, 4);
    markup.removeMarkupObserver(observer);
    markup.addTag(strong);
    QCOMPARE(observer->count, 4);
}

void tst_HXMarkup::defaultTags() {
    HXMarkup markup;
    const HXTextTagRef dash = makeTag("unorderedList", {u"-"_s});
    const HXTextTagRef plus = makeTag("unorderedList", {u"+"_s});
    const HXTextTagRef star = makeTag("unorderedList", {u"*"_s});
    markup.setAllTags({plus, star});
    // The bundled preferred pattern "-" is not among them: one of the two, stable.
    const HXTextTagRef chosen = markup.defaultTagWithIdentifier(u"unorderedList"_s);
    QVERIFY(chosen == plus || chosen == star);
    QCOMPARE(markup.defaultTagWithIdentifier(u"unorderedList"_s), chosen);
    markup.addTag(dash);
    QCOMPARE(markup.defaultTagWithIdentifier(u"unorderedList"_s), dash);
    QCOMPARE(markup.tagWithIdentifier(u"unorderedList"_s), dash);

    // The user's preference takes over once announced.
    QString preferred = u"+"_s;
    HXSetPreferredPatternProvider([&](const QString &identifier) {
        return identifier == QLatin1String("unorderedList") ? preferred : QString();
    });
    QCOMPARE(markup.defaultTagWithIdentifier(u"unorderedList"_s), dash); // cached
    HXNotificationCenter::defaultCenter()->post(HXDefinitionStorePreferredPatternsChanged);
    QCOMPARE(markup.defaultTagWithIdentifier(u"unorderedList"_s), plus);
    preferred = u"*"_s;
    HXNotificationCenter::defaultCenter()->post(HXDefinitionStorePreferredPatternsChanged);
    QCOMPARE(markup.defaultTags().value(u"unorderedList"_s), star);
    HXSetPreferredPatternProvider(nullptr);
}

void tst_HXMarkup::tagsMatchingStrings() {
    // The tag whose pattern fits the string, a marker's indentation aside; else the default one;
    // a lone tag whatever the string.
    const auto markup = HXMarkup::defaultIntrinsicMarkup();
    const struct {
        const char *identifier, *string, *pattern;
    } cases[] = {
        {"orderedList", "1. ", "\\d."},
        {"orderedList", "12) ", "\\d)"},
        {"orderedList", "12)", "\\d)"},
        {"orderedList", "x) ", "\\d."},
        {"orderedList", "   3) ", "\\d)"},
        {"unorderedList", " + ", "+"},
        {"emph", "_", "_"},
        {"divider", "nothing like it", "---"},
    };
    for (const auto &[identifier, string, pattern] : cases) {
        const HXTextTagRef tag =
            markup->tagWithIdentifier(QString::fromLatin1(identifier), QString::fromLatin1(string));
        QVERIFY2(tag && tag->patterns().first() == QLatin1String(pattern), string);
    }
    QVERIFY(!markup->tagWithIdentifier(u"sparkle"_s));
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
    QVERIFY(!duplicate->isEqual(*original));
    // Default tags only: one tag for each definition.
    QCOMPARE(duplicate->allTagsWithIdentifier(u"unorderedList"_s).size(), 1);
    QCOMPARE(duplicate->allTagsWithIdentifier(u"unorderedList"_s).first()->patterns(),
             QStringList{u"-"_s});
    // Its tags can be changed.
    duplicate->tagWithIdentifier(u"strong"_s)->setPatterns({u"!!"_s, u"!!"_s});

    // Taking over another markup keeps the tags both have, as objects.
    auto observer = std::make_shared<CountingObserver>();
    duplicate->addMarkupObserver(observer);
    const HXTextTagRef kept = duplicate->tagWithIdentifier(u"heading1"_s);
    duplicate->setUsingMarkup(*original);
    QCOMPARE(observer->count, 1);
    QVERIFY(duplicate->isEqualToMarkup(*original));
    QCOMPARE(duplicate->tagWithIdentifier(u"heading1"_s), kept);
    QVERIFY(!duplicate->isIntrinsic());
}

void tst_HXMarkup::pasteboard() {
    const auto markup = HXMarkup::intrinsicMarkups().value(u"markdown"_s);
    const QByteArray data = markup->pasteboardPropertyListForType(HXMarkupPasteboardType);
    HXError error;
    const auto pasted =
        HXMarkup::markupWithPasteboardPropertyList(data, HXMarkupPasteboardType, &error);
    QVERIFY(pasted && pasted->isEqual(*markup));
    QCOMPARE(assertionText([&] { markup->pasteboardPropertyListForType(u"public.text"_s); }),
             u"Invalid pasteboard type passed"_s);
}

void tst_HXMarkup::missingDefaultMarkupEndsTheRun() {
    // A child looks for the default among markups that lack it.
    const QString logPath = HXApplicationLog::sharedInstance()->crashErrorLogURL();
    const pid_t child = fork();
    if (child == 0) {
        HXMarkup::defaultMarkupAmong(
            {{u"markdown"_s, HXMarkup::intrinsicMarkups().value(u"markdown"_s)}});
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
