// Colours and themes: colour places and their palettes, the built-in themes (their files, their
// legibility), how an item's look is resolved, batches of changes, old and damaged theme files,
// and the store's current theme.

#include "HXTestSupport.h"
#include "Model/Stores/HXPreferenceStore.h"
#include "TextSystem/Colors/HXColorContrast.h"
#include "TextSystem/Themes/HXThemeContrast.h"
#include "TextSystem/Themes/HXThemeStore.h"
#include "Utilities/HXUserDefaults.h"
#include "Utilities/HXXMLReader.h"

#include <QDir>
#include <QFile>

using namespace Qt::StringLiterals;

namespace {

HXDefinitionRef definition(const QString &identifier) {
    return HXDefinition::definitionWithIdentifier(identifier);
}

QByteArray contents(const QString &path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeFile(const QString &path, const QByteArray &bytes) {
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(bytes);
}

QString indexText(const std::optional<HXColorIndex> &index) {
    return index ? index->stringRepresentation() : u"-"_s;
}

// Background (250,250,250), foreground black, accents (50,150,250) and (10,20,30).
HXColorPaletteRef testPalette() {
    auto palette = HXColorPalette::create();
    palette->setBackgroundColor(QColor(250, 250, 250));
    palette->setAccentColor(QColor(50, 150, 250), 0);
    palette->setAccentColor(QColor(10, 20, 30), 1);
    return palette;
}

} // namespace

class tst_HXTheme : public QObject {
    Q_OBJECT

    QTemporaryDir m_folder;

private slots:
    void colorIndex_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("read");
        QTest::addColumn<QString>("assertion");
        QTest::newRow("accent") << u"3,-5"_s << u"3,-5"_s << QString();
        QTest::newRow("grey ramp") << u"4096,10"_s << u"4096,10"_s << QString();
        QTest::newRow("blend") << u"4097,0"_s << u"4097,0"_s << QString();
        QTest::newRow("accent too far")
            << u"3,6"_s << QString() << u"Invalid offset 6 for index 3"_s;
        QTest::newRow("ramp below")
            << u"4096,-1"_s << QString() << u"Invalid offset -1 for index 4096"_s;
        QTest::newRow("no such index")
            << u"20,0"_s << QString() << u"Invalid offset 0 for index 20"_s;
        QTest::newRow("one number") << u"1"_s << u"-"_s << QString();
        QTest::newRow("three numbers") << u"1,2,3"_s << u"-"_s << QString();
        QTest::newRow("no number") << u"a,1"_s << u"-"_s << QString();
    }
    void colorIndex() {
        QFETCH(QString, text);
        QFETCH(QString, read);
        QFETCH(QString, assertion);
        QString result;
        QCOMPARE(HXTestSupport::assertionText([&] {
                     result = indexText(HXColorIndex::colorIndexFromStringRepresentation(text));
                 }),
                 assertion);
        QCOMPARE(result, read);
    }

    void colorWithIndex_data() {
        QTest::addColumn<QString>("index");
        QTest::addColumn<QColor>("color");
        QTest::newRow("white") << u"4096,0"_s << QColor(255, 255, 255);
        QTest::newRow("black") << u"4096,10"_s << QColor(0, 0, 0);
        QTest::newRow("background") << u"4097,0"_s << QColor(250, 250, 250);
        QTest::newRow("foreground") << u"4097,10"_s << QColor(0, 0, 0);
        QTest::newRow("halfway") << u"4097,5"_s << QColor(125, 125, 125);
        QTest::newRow("accent") << u"0,0"_s << QColor(50, 150, 250);
        QTest::newRow("lightest") << u"0,-5"_s << QColor(230, 240, 250);
        QTest::newRow("lighter") << u"0,-1"_s << QColor(86, 168, 250);
        QTest::newRow("darker") << u"0,2"_s << QColor(36, 108, 180);
        QTest::newRow("darkest") << u"0,5"_s << QColor(15, 45, 75);
    }
    void colorWithIndex() {
        QFETCH(QString, index);
        QFETCH(QColor, color);
        const QColor result =
            testPalette()->colorWithIndex(*HXColorIndex::colorIndexFromStringRepresentation(index));
        QCOMPARE(result.toRgb(), color.toRgb());
    }

    // Nearest places, the first of equal ones; colour lists and XML give the palette back; the
    // palette's own faults.
    void palette() {
        auto palette = testPalette();
        palette->setAccentColor(QColor(50, 150, 250), 2);
        QCOMPARE(palette->allIndexes(), (QList<quint64>{0, 1, 2, 4096, 4097}));
        auto match = [&](const QColor &color) {
            return palette->matchingColorIndexForColor(color).stringRepresentation();
        };
        QCOMPARE(match(QColor(10, 20, 30)), u"1,0"_s);
        QCOMPARE(match(QColor(50, 150, 250)), u"0,0"_s); // accent 2 is the same colour
        QCOMPARE(match(QColor(250, 250, 250)), u"4097,0"_s);
        QCOMPARE(match(QColor(255, 255, 255)), u"4096,0"_s);
        QCOMPARE(match(QColor(87, 167, 249)), u"0,-1"_s);

        const auto listed = HXColorPalette::colorPaletteFromColorList(
            palette->colorListRepresentationWithName(u"Test"_s), HXColorModeLight);
        QVERIFY(listed->isEqual(*palette));
        QCOMPARE(palette->colorListRepresentationWithName(u"Test"_s).colors.at(4).first,
                 u"Accent #2"_s);

        palette->setMode(HXColorModeDark);
        palette->setAccentColor(QColor(1, 2, 3, 128), 1);
        auto read = HXColorPalette::create();
        QVERIFY(HXXMLReader::readFromData(palette->XMLElement().xmlDocumentData(), *read, nullptr));
        QVERIFY(read->isEqual(*palette));
        HXError error;
        QVERIFY(!HXXMLReader::readFromData(R"(<palette version="2" mode="dark"/>)", *read, &error));
        QCOMPARE(error.localizedFailureReason(), u"Incompatible theme format version: 2."_s);

        QCOMPARE(HXTestSupport::assertionText([&] {
                     palette->colorWithIndex(
                         *HXColorIndex::colorIndexFromStringRepresentation(u"3,0"_s));
                 }),
                 u"index < self.accentColors.count"_s);
        QCOMPARE(HXTestSupport::assertionText([&] { palette->setAccentColor(Qt::red, 20); }),
                 u"index < 20"_s);
        QCOMPARE(HXTestSupport::assertionText([&] { palette->setAccentColor(QColor(), 0); }),
                 u"color != nil"_s);
    }

    // The measure, and a theme whose paragraphs are too pale found out where they show.
    void contrast() {
        QCOMPARE(HXContrastRatio(Qt::white, Qt::black), 21.0);
        QCOMPARE(qRound(HXContrastRatio(QColor(0x76, 0x76, 0x76), Qt::white) * 100), 454);
        const auto theme = HXTheme::builtinThemes().value(u"clearmist"_s)->duplicate();
        theme->defaultItemForScope(HXParagraphScope)
            ->setColorIndex(HXColorIndex::colorIndexWithIndex(4097, 2), HXThemeTextColorPart,
                            HXColorModeDark);
        QCOMPARE(HXThemeContrastProblems(*theme),
                 (QStringList{
                     u"dark scope:paragraph: text #42484f on #1d232a has a contrast of 1.72:1"_s,
                     u"dark divider: text #42484f on #1d232a has a contrast of 1.72:1"_s}));
    }

    // Each built-in theme reads, writes its file back byte for byte, copies, has a light and a
    // dark palette, and is legible in both modes.
    void builtinThemes_data() {
        QTest::addColumn<QString>("identifier");
        QTest::addColumn<QString>("name");
        QTest::newRow("clearmist") << u"clearmist"_s << u"Clear Mist"_s;
        QTest::newRow("parchment") << u"parchment"_s << u"Parchment"_s;
        QTest::newRow("contrast") << u"contrast"_s << u"High Contrast"_s;
        QTest::newRow("embers") << u"embers"_s << u"Embers"_s;
    }
    void builtinThemes() {
        QFETCH(QString, identifier);
        QFETCH(QString, name);
        QCOMPARE(HXTheme::builtinThemes().size(), 4);
        const auto theme = HXTheme::builtinThemes().value(identifier);
        QVERIFY(theme && theme->isBuiltin());
        QCOMPARE(theme->displayName(), name);
        QCOMPARE(theme->XMLData(),
                 contents(u":/Themes/"_s + identifier + u".velmoratheme/Theme.xml"_s));
        const auto copy = std::static_pointer_cast<HXTheme>(theme->copy());
        QVERIFY(copy->isBuiltin() && copy->isEqualToObject(*theme));
        QCOMPARE(copy->XMLData(), theme->XMLData());

        const auto light = theme->paletteForMode(HXColorModeLight);
        const auto dark = theme->paletteForMode(HXColorModeDark);
        QVERIFY(HXRelativeLuminance(light->backgroundColor()) > 0.8);
        QVERIFY(HXRelativeLuminance(dark->backgroundColor()) < 0.05);
        const QStringList problems = HXThemeContrastProblems(*theme);
        QVERIFY2(problems.isEmpty(), qPrintable(problems.join(u'\n')));
        if (identifier == u"contrast")
            QCOMPARE(HXThemeContrastProblems(*theme, 7.0), QStringList());
    }

    // An item states only what differs: the rest comes from its scope's default item, and
    // follows it; parts an item doesn't have stay without colour.
    void resolution() {
        const auto builtin = HXTheme::builtinThemes().value(u"clearmist"_s);
        const auto theme = builtin->duplicate();
        QVERIFY(!theme->isBuiltin() && !theme->isEqualToObject(*builtin));
        QCOMPARE(theme->XMLData(),
                 builtin->XMLData().replace("<theme version=\"2\"",
                                            "<theme version=\"2\" displayName=\"Clear Mist\""));
        QCOMPARE(theme->usedItemForDefinition(definition(u"heading3"_s)),
                 theme->defaultItemForScope(HXHeadingScope));
        QCOMPARE(theme->usedItemForDefinition(nullptr),
                 theme->defaultItemForScope(HXParagraphScope));

        const auto paragraph = theme->defaultItemForScope(HXParagraphScope);
        const auto codeblock = theme->usedItemForDefinition(definition(u"codeblock"_s));
        QVERIFY(codeblock != paragraph);
        QVERIFY(!codeblock->colorIndexForPart(HXThemeAtomColorPart, HXColorModeDark));
        const auto holder = codeblock->mutableColorForPart(HXThemeAtomColorPart, HXColorModeDark);
        QCOMPARE(holder->currentColor(),
                 paragraph->colorForPart(HXThemeAtomColorPart, HXColorModeDark));
        paragraph->setColorIndex(HXColorIndex::colorIndexWithIndex(3, 0), HXThemeAtomColorPart,
                                 HXColorModeDark);
        QCOMPARE(holder->currentColor(), QColor(0xe0, 0x8d, 0x98));
        theme->paletteForMode(HXColorModeDark)->setAccentColor(QColor(1, 2, 3), 3);
        QCOMPARE(holder->currentColor(), QColor(1, 2, 3));
        paragraph->setColorIndex(std::nullopt, HXThemeAtomColorPart, HXColorModeDark);
        QVERIFY(!holder->currentColor().isValid());

        // Objects and lists have only tags; links no highlight.
        const auto image = theme->itemForDefinition(definition(u"image"_s), true);
        const auto list = theme->itemForDefinition(definition(u"orderedList"_s), true);
        const auto link = theme->itemForDefinition(definition(u"link"_s), true);
        QCOMPARE((QList<quint64>{image->allowedColors(), list->allowedColors(),
                                 link->allowedColors(), codeblock->allowedColors()}),
                 (QList<quint64>{2, 2, 3, 7}));
        QCOMPARE(link->hiddenTraits(), 12u);
        for (const auto &item : {image, list, link})
            item->setColorIndex(HXColorIndex::colorIndexWithIndex(0, 0), HXThemeHighlightColorPart,
                                HXColorModeLight);
        QVERIFY(!link->colorForPart(HXThemeHighlightColorPart, HXColorModeLight).isValid());
        QVERIFY(!image->colorForPart(HXThemeTextColorPart, HXColorModeLight).isValid());
        QVERIFY(!list->colorForPart(HXThemeTextColorPart, HXColorModeLight).isValid());

        const auto heading = theme->defaultItemForScope(HXHeadingScope);
        heading->setTraits(HXThemeTraitItalic | HXThemeTraitUnderline);
        QCOMPARE(heading->atomTraits(), quint64(HXThemeTraitItalic));
        QCOMPARE(theme->usedItemForDefinition(definition(u"strong"_s))->atomTraits(), 0u);
        QCOMPARE(HXTestSupport::assertionText([&] { heading->colorForPart(3, 0); }),
                 u"Invalid part"_s);
        QCOMPARE(HXTestSupport::assertionText([&] { heading->setColorIndex(std::nullopt, 0, 2); }),
                 u"Invalid mode"_s);
    }

    // Changes in a batch post one notification of each kind at its end; `change` grows at once.
    void editing() {
        const auto theme = HXTheme::builtinThemes().value(u"parchment"_s)->duplicate();
        int colors = 0, attributes = 0, itemColors = 0, contents = 0;
        const auto center = HXNotificationCenter::defaultCenter();
        const auto a = center->addObserver(
            HXThemeChangedColor, [&](auto &) { ++colors; }, theme.get());
        const auto b = center->addObserver(
            HXThemeChangedAttribute, [&](auto &) { ++attributes; }, theme.get());
        const auto item = theme->itemForDefinition(definition(u"strong"_s));
        const auto c = center->addObserver(
            HXThemeItemChangedColor, [&](auto &) { ++itemColors; }, item.get());
        connect(theme.get(), &HXTheme::contentsChanged, this, [&] { ++contents; });

        const quint64 before = theme->change();
        theme->beginEditing();
        item->setColorIndex(HXColorIndex::colorIndexWithIndex(1, 2), 0, 0);
        item->setColorIndex(HXColorIndex::colorIndexWithIndex(1, 3), 0, 1);
        theme->paletteForMode(0)->setForegroundColor(Qt::black);
        theme->defaultItemForScope(HXTextScope)->setTraits(HXThemeTraitBold);
        QCOMPARE(colors + attributes + itemColors + contents, 0);
        QCOMPARE(theme->change(), before + 4);
        theme->endEditing();
        QCOMPARE((QList<int>{colors, attributes, itemColors, contents}), (QList<int>{1, 1, 1, 1}));

        item->setTraits(0);
        theme->removeItemForDefinition(definition(u"strong"_s));
        QCOMPARE((QList<int>{colors, attributes}), (QList<int>{2, 3}));
        QCOMPARE(HXTestSupport::assertionText([&] { theme->endEditing(); }),
                 u"endEditing without beginEditing"_s);
    }

    // An old single-file theme names its palettes and holds literal colours: they become the
    // nearest places; written in the present format it reads back the same.
    void v1Theme() {
        const QString path = m_folder.filePath(u"old.xml"_s);
        writeFile(
            path,
            "<theme version=\"1\" displayName=\"Old\" "
            "palettes=\"clearmist.light;clearmist.dark\">\n"
            "<item scope=\"2\" colors=\"#27313b;#5a6d80;\" traits=\"0\"/>\n"
            "<item definition=\"strong\" colors=\"#a3404d;;;#e08d98;;#1d232a\" traits=\"1\"/>\n"
            "<item definition=\"emph\" colors=\"reddish;;\"/>\n"
            "<item definition=\"nosuch\" colors=\"#000000;;\"/>\n"
            "</theme>");
        HXError error;
        const auto theme = HXTheme::themeWithContentsOfURL(path, false, &error);
        QVERIFY2(theme, qPrintable(error.localizedDescription()));
        QCOMPARE(theme->identifier(), u"old"_s);
        QCOMPARE(theme->displayName(), u"Old"_s);
        const auto clearmist = HXTheme::builtinThemes().value(u"clearmist"_s);
        QVERIFY(theme->paletteForMode(1)->isEqual(*clearmist->paletteForMode(1)));
        auto parts = [](const HXThemeItemRef &item, quint64 mode) {
            QStringList list;
            for (quint64 part = 0; part < 3; ++part)
                list.append(indexText(item->colorIndexForPart(part, mode)));
            return list.join(u';');
        };
        QCOMPARE(parts(theme->defaultItemForScope(HXParagraphScope), 0), u"4097,10;7,0;-"_s);
        const auto strong = theme->itemForDefinition(definition(u"strong"_s));
        QCOMPARE(parts(strong, 0) + u'|' + parts(strong, 1), u"3,0;-;-|3,0;-;4097,0"_s);
        QCOMPARE(parts(theme->itemForDefinition(definition(u"emph"_s)), 0), u"-;-;-"_s);
        QCOMPARE(theme->definitionItems().size(), 2);

        auto again = std::make_shared<HXTheme>();
        QVERIFY(again->readFromData(theme->XMLData(), u"again"_s, nullptr));
        QCOMPARE(again->XMLData(), theme->XMLData());
        QVERIFY(again->XMLData().contains(
            R"(<item definition="emph" colorsLight=";;" colorsDark=";;" traits="0"/>)"));
    }

    void damaged_data() {
        QTest::addColumn<QByteArray>("xml");
        QTest::addColumn<qint64>("code");
        QTest::addColumn<QString>("text");
        QTest::newRow("no Theme.xml")
            << QByteArray() << qint64(1)
            << u"can’t be opened because it is damaged: it holds no Theme.xml file."_s;
        QTest::newRow("newer") << QByteArray(R"(<theme version="3"/>)") << qint64(2)
                               << u"was made by a newer version of Velmora"_s;
        QTest::newRow("malformed")
            << QByteArray(R"(<theme version="2"><item)") << qint64(3)
            << u"can’t be opened because its Theme.xml file is damaged: line"_s;
        QTest::newRow("newer palette") << QByteArray(R"(<theme><palette version="2"/></theme>)")
                                       << qint64(3) << u"Incompatible theme format version: 2."_s;
        QTest::newRow("bad place")
            << QByteArray(R"(<theme><item scope="1" colorsLight="3,9"/></theme>)") << qint64(3)
            << u"\"Invalid offset 9 for index 3\""_s;
        QTest::newRow("no theme") << QByteArray(R"(<markup/>)") << qint64(3)
                                  << u"its root element is \"markup\"."_s;
    }
    void damaged() {
        QFETCH(QByteArray, xml);
        QFETCH(qint64, code);
        QFETCH(QString, text);
        const QString package =
            m_folder.filePath(QString::fromLatin1(QTest::currentDataTag()) + u".velmoratheme"_s);
        QDir().mkpath(package);
        if (!xml.isEmpty())
            writeFile(package + u"/Theme.xml"_s, xml);
        HXError error;
        QVERIFY(!HXTheme::themeWithContentsOfURL(package, false, &error));
        QCOMPARE(error.domain(), HXThemeErrorDomain);
        QCOMPARE(error.code(), code);
        QVERIFY2(error.localizedDescription().contains(text),
                 qPrintable(error.localizedDescription()));
        QVERIFY(error.localizedDescription().contains(package));
    }

    // The current theme: the user defaults, else the preferences (then kept in the user
    // defaults), else "clearmist"; the user's themes are written as packages and read back, an
    // old single file among them in its new form.
    void store() {
        const QString support = m_folder.filePath(u"support"_s);
        HXStoreOptions options{support, QString(), std::chrono::milliseconds(10000)};
        HXUserDefaults defaults(m_folder.filePath(u"defaults.ini"_s));
        HXPreferenceStore preferences(m_folder.filePath(u"Preferences.plist"_s));
        preferences.setValue(u"embers"_s, HXThemeStore::currentThemeKeyPath);
        writeFile(support + u"/Themes/legacy.xml"_s,
                  "<theme version=\"1\" displayName=\"Legacy\"><item definition=\"strong\" "
                  "colors=\"#ff0000;;\"/></theme>");

        auto store = HXThemeStore::create(options, &defaults, &preferences);
        QCOMPARE(store->currentTheme()->identifier(), u"embers"_s);
        QCOMPARE(defaults.objectForKeyPath(HXThemeStore::currentThemeKeyPath).toString(),
                 u"embers"_s);
        defaults.setObjectForKeyPath(u"nosuch"_s, HXThemeStore::currentThemeKeyPath);
        QCOMPARE(store->currentTheme(), store->themeWithIdentifier(u"clearmist"_s));
        QCOMPARE(store->defaultBuiltinTheme()->identifier(), u"clearmist"_s);

        const auto mine = store->themeWithIdentifier(u"parchment"_s)->duplicate();
        QCOMPARE(HXTestSupport::assertionText([&] { store->setCurrentTheme(mine); }),
                 u"Theme was not registered"_s);
        store->addObject(mine);
        store->setCurrentTheme(mine);
        QCOMPARE(defaults.objectForKeyPath(HXThemeStore::currentThemeKeyPath).toString(),
                 mine->identifier());
        store->writeIfNeeded(false);
        QVERIFY(!store->needsWrite());
        mine->itemForDefinition(definition(u"mark"_s))->setTraits(HXThemeTraitItalic);
        QVERIFY(store->needsWrite());
        store->writeIfNeeded(false);
        QStringList files{u"legacy.velmoratheme"_s, mine->identifier() + u".velmoratheme"_s};
        files.sort();
        QCOMPARE(QDir(support + u"/Themes"_s).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
                 files);

        const auto again = HXThemeStore::create(options, &defaults, &preferences);
        QCOMPARE(again->currentTheme()->identifier(), mine->identifier());
        QVERIFY(again->currentTheme()->isEqualToObject(*mine));
        const auto legacy = again->themeWithIdentifier(u"legacy"_s);
        QVERIFY(legacy && legacy->isEqualToObject(*store->themeWithIdentifier(u"legacy"_s)));
        QCOMPARE(again->allObjects().size(), 6);
    }
};

HX_TEST_MAIN(tst_HXTheme)
#include "tst_HXTheme.moc"
