// The XML form of strings: random texts written and read back to the same tree, the details of
// the form, and damaged documents that must give an error, never a crash.

#include "HXTestSupport.h"
#include "HXTextTestSupport.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Text/String/Access/HXStringXML.h"
#include "Utilities/HXFileWrapper.h"
#include "Utilities/HXXMLReaderContext.h"

#include <QRandomGenerator>

using namespace Qt::StringLiterals;

namespace {

using HXTextTestSupport::markup;

QByteArray written(const QString &text, const std::shared_ptr<HXMarkup> &under = markup()) {
    return HXStringXML::XMLData(*HXString::stringWithString(text, under));
}

std::shared_ptr<HXMutableString> read(const QByteArray &data, HXError *error = nullptr,
                                      const std::shared_ptr<HXMarkup> &under = markup()) {
    HXError ignored;
    return HXStringXML::stringWithXMLData(data, under, HXDefaultDefinitionSelector,
                                          error ? error : &ignored);
}

QByteArray document(const QByteArray &body) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<string xml:space=\"preserve\">" + body +
           "</string>\n";
}

// Files beside the XML, in memory, by handle.
class FileShelf : public HXXMLReaderContext {
public:
    QMap<QString, HXFileWrapperRef> files;
    QString storeFileWrapper(const HXFileWrapperRef &file) override {
        const QString handle = u"file-"_s + QString::number(files.size() + 1);
        files.insert(handle, file);
        return handle;
    }
    HXFileWrapperRef readFileWrapper(const QString &handle) override { return files.value(handle); }
};

const QByteArray pngBytes("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16);

} // namespace

class tst_HXStringXML : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void randomTextsComeBackAsTheyWere();
    void detailsOfTheForm();
    void strictReading_data();
    void strictReading();
    void elementsWithoutTags();
    void attributesAndNestedStrings();
    void filesGoThroughTheContext();
    void damagedDocumentsFail();
};

void tst_HXStringXML::randomTextsComeBackAsTheyWere() {
    static const QStringList alphabet{u"*"_s,    u"**"_s,  u"_"_s,   u"`"_s,  u"# "_s, u"> "_s,
                                      u"- "_s,   u"1. "_s, u"\\"_s,  u" "_s,  u"\n"_s, u"\n"_s,
                                      u"word"_s, u"é"_s,   u"<&>"_s, u"\t"_s, u"~~"_s, u"=="_s};
    QRandomGenerator random(8);
    for (const auto &under : HXMarkup::intrinsicMarkups()) {
        // The last rounds make texts of many paragraphs, which a read parses in batches on a
        // second thread.
        for (int round = 0; round < 62; ++round) {
            QString text;
            for (int i = round < 60 ? int(random.bounded(40)) : 9000; i > 0; --i)
                text += alphabet.at(qsizetype(random.bounded(quint32(alphabet.size()))));
            const auto original = HXString::stringWithString(text, under);
            const QByteArray xml = HXStringXML::XMLData(*original);
            HXError error;
            for (const QByteArray &form : {xml, HXTextTestSupport::forTheGeneralParser(xml)}) {
                const auto back = read(form, &error, under);
                QVERIFY2(back, qPrintable(error.localizedFailureReason() + u"\n"_s + text));
                QCOMPARE(back->string(), text);
                QVERIFY2(back->isEqualToChunkString(*original),
                         qPrintable(QString::fromUtf8(xml)));
                back->checkInvariants();
                QCOMPARE(HXStringXML::XMLData(*back), xml);
            }
        }
    }
}

void tst_HXStringXML::detailsOfTheForm() {
    // A final line feed is an empty last paragraph; an empty string has none.
    QVERIFY(written(u"a\n"_s).contains("<p>a</p>\n<p/>"));
    QVERIFY(!written(QString()).contains("<p"));
    // A closed strong element stores its start tag only: its end comes from the pattern.
    QVERIFY(written(u"**b**"_s).contains(R"(<element kind="strong" startTag="**">b</element>)"));
    QVERIFY(written(u"**b"_s).contains(R"(closed="no")"));
    // An object stores neither; a bookmark comes before the tags.
    auto string = HXMutableString::stringWithMarkup(markup());
    string->setString(u"# x\n"_s);
    string->setBookmark(HXBookmark::bookmark(), 0);
    string->appendString(u"y"_s);
    auto image = HXTextElement::elementWithTag(HXTextTestSupport::tag("image"), markup());
    string->replaceCharactersInRange(HXRange{string->length(), 0},
                                     HXString::stringWithTextElement(image));
    const QByteArray xml = HXStringXML::XMLData(*string);
    QVERIFY(xml.contains(R"(<p><bookmark/><tags><tag kind="heading1"># </tag></tags>x</p>)"));
    QVERIFY(xml.contains(R"(y<element kind="image"/></p>)"));
    const auto back = read(xml);
    QVERIFY(back->paragraphs().first()->bookmark());
    QVERIFY(back->isEqualToChunkString(*string));
    // The pasteboard carries the same document, written under the lock of an atomic string.
    auto atomic = HXAtomicString::stringWithMarkup(markup());
    atomic->setToString(*string);
    const QByteArray pasted =
        HXStringXML::pasteboardPropertyListForType(*atomic, HXStringXML::pasteboardType);
    QCOMPARE(pasted, xml);
    QVERIFY(HXStringXML::stringWithPasteboardPropertyList(pasted, HXStringXML::pasteboardType,
                                                          markup(), nullptr));
    QCOMPARE(HXTestSupport::assertionText(
                 [&] { HXStringXML::pasteboardPropertyListForType(*atomic, u"public.text"_s); }),
             u"Invalid pasteboard type passed"_s);
    // Characters a file can't hold are dropped when reading.
    QCOMPARE(read(document("<p>a\001b</p>"))->string(), u"ab"_s);
}

void tst_HXStringXML::strictReading_data() {
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("failure");
    QTest::newRow("unknown kind") << QByteArray(R"(<p><element kind="nothing">x</element></p>)")
                                  << u"Invalid kind for element: nothing"_s;
    QTest::newRow("unknown child") << QByteArray("<p><b/></p>") << u"Unexpected element \"b\""_s;
    QTest::newRow("empty tag") << QByteArray(R"(<p><tags><tag kind="heading1"></tag></tags></p>)")
                               << u"Empty tag for paragraph!"_s;
    QTest::newRow("two tags") << QByteArray(R"(<p><tags><tag kind="heading1">#</tag>)"
                                            R"(<tag kind="heading2">##</tag></tags></p>)")
                              << u"Two tags defined on paragraph!"_s;
    QTest::newRow("unknown attribute")
        << QByteArray(R"(<p><element kind="link"><attribute identifier="nope">u</attribute>)"
                      R"(t</element></p>)")
        << u"Exception while parsing xml: \"Invalid identifier \"nope\"!\""_s;
    QTest::newRow("object with text") << QByteArray(R"(<p><element kind="image">x</element></p>)")
                                      << u"Element of kind \"image\" is an object and can't hold "
                                         u"text or elements"_s;
    QTest::newRow("object with element")
        << QByteArray(R"(<p><element kind="footnote"><element kind="strong" startTag="**">b)"
                      R"(</element></element></p>)")
        << u"Element of kind \"footnote\" is an object and can't hold text or elements"_s;
    QTest::newRow("object with layout")
        << QByteArray("<p><element kind=\"image\">\n  </element></p>") << QString();
    QByteArray deep;
    for (int i = 0; i < 20000; ++i)
        deep += R"(<element kind="strong" startTag="**">x)";
    QTest::newRow("too deep") << "<p>" + deep
                              << u"line 2: element \"element\" is nested more "
                                 u"than 1000 levels deep"_s;
    // Line ends in a paragraph's text are layout, whatever system wrote them.
    QTest::newRow("line ends") << QByteArray("<p>a\r\nb&#13;c\nd</p>") << QString();
}

void tst_HXStringXML::strictReading() {
    QFETCH(QByteArray, body);
    QFETCH(QString, failure);
    HXError error;
    const auto string = read(document(body), &error);
    QCOMPARE(error.localizedFailureReason(), failure);
    QCOMPARE(bool(string), failure.isNull());
    if (string)
        QVERIFY(!string->string().contains(u'\n') && !string->string().contains(u'\r'));
}

void tst_HXStringXML::elementsWithoutTags() {
    // Without a tag in the markup, text elements fail and entities load.
    HXError error;
    const auto plain = HXMarkup::intrinsicMarkups().value(u"markdown"_s);
    QVERIFY(!read(document(R"(<p><element kind="delete" startTag="~~">x</element></p>)"), &error,
                  plain));
    QVERIFY(read(document(R"(<p>a<element kind="footnote"/></p>)"), &error, plain));
    // Elements nested as deep as a document may go load, and come out as the parse leaves them.
    QByteArray deep;
    for (int i = 0; i < 990; ++i)
        deep += R"(<element kind="strong" startTag="**">x)";
    const auto string =
        read(document("<p>" + deep + QByteArray("</element>").repeated(990) + "</p>"), &error);
    QVERIFY2(string, qPrintable(error.localizedFailureReason()));
    const QString text = u"**x"_s.repeated(990) + u"**"_s.repeated(990);
    QCOMPARE(string->string(), text);
    QVERIFY(string->isEqualToChunkString(*HXString::stringWithString(text, markup())));
    string->checkInvariants();
}

void tst_HXStringXML::attributesAndNestedStrings() {
    auto link = HXTextElement::elementWithURLString(u"https://example.org/?a=1&b=<2>"_s, u"site"_s,
                                                    HXTextTestSupport::tag("link"), markup());
    auto annotation = HXTextElement::elementWithTag(HXTextTestSupport::tag("annotation"), markup());
    QVERIFY(!annotation->attributes()->setURLString(u"x"_s));
    QCOMPARE(HXTestSupport::assertionText(
                 [&] { annotation->attributes()->setObject(u"x"_s, u"text"_s); }),
             u"Setting text attributes is forbidden"_s);

    // A footnote's text is made on first use, can't hold footnotes, and is copied deeply.
    auto footnote = HXTextElement::elementWithTag(HXTextTestSupport::tag("footnote"), markup());
    const auto text = footnote->attributes()->nestedStringForKey(u"text"_s);
    QCOMPARE(text->recognizedDefinitions(), HXNestedStringDefinitionSelector);
    text->setString(u"a *note*\nwith two lines"_s);
    const auto copied = footnote->attributes()->copy();
    QVERIFY(copied->nestedStringForKey(u"text"_s) != text);
    QVERIFY(copied->isEqual(*footnote->attributes()));

    // Both come back from the stored form, the nested string with its structure.
    auto string = HXMutableString::stringWithMarkup(markup());
    string->setString(u"see  and\n"_s);
    string->replaceCharactersInRange(HXRange{4, 0}, HXString::stringWithTextElement(footnote));
    string->replaceCharactersInRange(HXRange{5, 0}, HXString::stringWithTextElement(link));
    const auto back = read(HXStringXML::XMLData(*string));
    QVERIFY(back && back->isEqualToChunkString(*string));
    const auto readNote = back->textElementStartingAtIndex(4);
    QCOMPARE(readNote->attributes()->nestedStringForKey(u"text"_s)->string(),
             u"a *note*\nwith two lines"_s);
    // The standalone forms of the pasteboard: a set of attributes and a bookmark.
    const QByteArray set = HXStringXML::attributesPasteboardPropertyList(
        *link->attributes(), HXStringXML::attributesPasteboardType);
    HXError error;
    const auto pastedSet = HXStringXML::attributesWithPasteboardPropertyList(
        set, HXStringXML::attributesPasteboardType, markup(), &error);
    QVERIFY(pastedSet && pastedSet->isEqual(*link->attributes()));
    auto standalone = [&](const QByteArray &body) {
        HXStringXML::attributesWithPasteboardPropertyList("<?xml version=\"1.0\"?>" + body,
                                                          HXStringXML::attributesPasteboardType,
                                                          markup(), &error);
        return error.localizedFailureReason();
    };
    QCOMPARE(standalone(R"(<attributes kind="nothing"/>)"), u"No definition found"_s);
    QCOMPARE(standalone(R"(<attributes kind="link"><attribute identifier="URL"><string/>)"
                        R"(</attribute></attributes>)"),
             u"Unexpected string: string"_s);
    QCOMPARE(standalone(R"(<attributes kind="image"><attribute identifier="image">x)"
                        R"(</attribute></attributes>)"),
             u"Invalid attribute value x"_s);
    QVERIFY(HXBookmark::bookmarkWithPasteboardPropertyList(
        HXBookmark::pasteboardPropertyListForType(HXBookmark::pasteboardType),
        HXBookmark::pasteboardType, &error));
    QVERIFY(!HXBookmark::bookmarkWithPasteboardPropertyList("<p/>", HXBookmark::pasteboardType,
                                                            &error));
    QVERIFY(!read(document(R"(<p><element kind="link"><attribute identifier="URL"><string/>)"
                           R"(</attribute></element></p>)")));
}

void tst_HXStringXML::filesGoThroughTheContext() {
    auto image = HXTextElement::elementWithFile(
        HXFileWrapper::regularFileWithContents(pngBytes, u"harbour.png"_s),
        HXTextTestSupport::tag("image"), markup());
    QVERIFY(!image->attributes()->setFileWrapper(
        HXFileWrapper::regularFileWithContents("plain words", u"notes.txt"_s)));
    // The same bytes under another name are the same image.
    auto other = HXTextElement::elementWithTag(HXTextTestSupport::tag("image"), markup());
    other->attributes()->setFileWrapper(
        HXFileWrapper::regularFileWithContents(pngBytes, u"copy.png"_s));
    QVERIFY(image->attributes()->isEqual(*other->attributes()));

    auto string = HXMutableString::stringWithMarkup(markup());
    string->setString(u"a"_s);
    string->replaceCharactersInRange(HXRange{1, 0}, HXString::stringWithTextElement(image));
    QVERIFY(string->containsFileWrapper());
    FileShelf shelf;
    const QByteArray xml = HXStringXML::XMLData(*string, &shelf);
    QVERIFY(xml.contains(R"(<element kind="image"><attribute identifier="image">file-1)"));
    // Without a place for its file the image can't be written: an error, never a lost file.
    HXError error;
    QVERIFY(HXStringXML::XMLData(*string, nullptr, &error).isEmpty());
    QCOMPARE(error.localizedFailureReason(),
             u"The file of attribute image can't be stored without a place for files."_s);
    const auto back =
        HXStringXML::stringWithXMLData(xml, markup(), HXDefaultDefinitionSelector, &error, &shelf);
    QVERIFY(back && back->isEqualToChunkString(*string));
    // A file that can't be read is left out; the text loads.
    FileShelf empty;
    const auto without =
        HXStringXML::stringWithXMLData(xml, markup(), HXDefaultDefinitionSelector, &error, &empty);
    QVERIFY(without && !without->containsFileWrapper());

    // A folder is written whole and read back the same.
    const auto folder = HXFileWrapper::directoryWithFileWrappers(
        {{u"Content.xml"_s, HXFileWrapper::regularFileWithContents(xml, u"Content.xml"_s)},
         {u"Files"_s, HXFileWrapper::directoryWithFileWrappers(shelf.files)}});
    const QString path = HXTestSupport::homeFolder().filePath(u"Sheet.package"_s);
    QVERIFY(folder->writeToPath(path, &error));
    QVERIFY(folder->writeToPath(path, &error)); // over the old one
    const auto readFolder = HXFileWrapper::fileWrapperWithPath(path, &error);
    QVERIFY(readFolder && readFolder->hasSameContentsAs(*folder));
    QVERIFY(!HXFileWrapper::fileWrapperWithPath(path + u"/missing"_s, &error));
    QVERIFY(error.localizedDescription().contains(u"missing"_s));
}

void tst_HXStringXML::damagedDocumentsFail() {
    const QByteArray xml = written(u"# T\n*a* **b** \\* `c`\n> - x\n"_s);
    const qsizetype complete = xml.lastIndexOf("</string>");
    for (qsizetype length = 0; length < complete; ++length) {
        HXError error;
        QVERIFY2(!read(xml.left(length), &error), qPrintable(QString::number(length)));
        QVERIFY(!error.localizedFailureReason().isEmpty());
    }
    HXError error;
    QVERIFY(!read(document("<p>\xff\xfe</p><p><element></element></p>"), &error));
    QVERIFY(!read(document(R"(<p><element kind="strong" startTag="**">a</p></element>)"), &error));
    QVERIFY(error.localizedFailureReason().contains(u"line 2"_s));
}

HX_TEST_MAIN(tst_HXStringXML)
#include "tst_HXStringXML.moc"
