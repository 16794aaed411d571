// The XML element tree, the streaming writer that writes the same bytes, and the reader that
// hands a document to the objects taking its elements.

#include "HXTestSupport.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXXMLElement.h"
#include "Utilities/HXXMLReader.h"
#include "Utilities/HXXMLWriter.h"

#include <QRandomGenerator>

#include <optional>
#include <stdexcept>

using namespace Qt::StringLiterals;

namespace {

// What the reading objects of one parse share: the log of their calls, the children nothing
// takes, and the log entry at which a call fails in each of the ways a call can fail.
struct Script {
    QStringList log;
    QStringList skipped;
    QString assertAt, throwAt, stopAt, errorAt;
    HXXMLReaderContext *context = nullptr;
};

// Logs every call into the script and builds the tree of what it read.
class Recorder : public HXXMLReading {
public:
    explicit Recorder(Script &script)
        : m_script(script) {}

    std::optional<HXXMLElement> element;

    bool readerWillStartElement(const QString &name, const HXXMLAttributes &attributes,
                                HXError *error) override {
        element.emplace(name);
        for (auto it = attributes.cbegin(); it != attributes.cend(); ++it)
            element->setAttribute(it.key(), it.value());
        return note(u"start "_s + name, error);
    }
    std::shared_ptr<HXXMLReading> readerDidFindChildElement(const QString &name,
                                                            HXXMLReaderContext *context,
                                                            HXError *error) override {
        checkContext(context);
        if (!note(u"find "_s + name, error) || m_script.skipped.contains(name))
            return nullptr;
        return std::make_shared<Recorder>(m_script);
    }
    bool readerScannedString(const QString &string, HXError *error) override {
        element->addText(string);
        return note(u"text "_s + string, error);
    }
    bool readerDidEndChildElement(const std::shared_ptr<HXXMLReading> &child,
                                  HXXMLReaderContext *context, HXError *error) override {
        checkContext(context);
        const HXXMLElement &childElement = *static_cast<Recorder &>(*child).element;
        element->addChild(childElement);
        return note(u"child "_s + childElement.name(), error);
    }
    bool readerWillEndElement(HXXMLReaderContext *context, HXError *error) override {
        checkContext(context);
        return note(u"end "_s + element->name(), error);
    }

private:
    void checkContext(HXXMLReaderContext *context) {
        if (context != m_script.context)
            m_script.log.append(u"wrong context"_s);
    }
    bool note(const QString &entry, HXError *error) {
        m_script.log.append(entry);
        HX_ASSERT(entry != m_script.assertAt, u"Broken at %@", entry);
        if (entry == m_script.throwAt)
            throw std::runtime_error("broken");
        if (entry == m_script.errorAt) {
            *error = HXXMLReader::errorWithFailureReason(u"No text tags found for tag"_s);
            return false;
        }
        return entry != m_script.stopAt;
    }

    Script &m_script;
};

std::optional<HXXMLElement> readTree(const QByteArray &data, Script &script) {
    Recorder root(script);
    HXError error;
    if (!HXXMLReader::readFromData(data, root, &error)) {
        qWarning("%s", qPrintable(error.localizedDescription()));
        return std::nullopt;
    }
    return root.element;
}

} // namespace

class tst_HXXML : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void editingTheTree();
    void exactDocumentBytes();
    void streamingWriterWritesWhatTheTreeWrites();
    void writeAndReadBack();
    void forbiddenCharacters();
    void callOrder();
    void quickScannerReadsAsTheGeneralParser();
    void skippedChildren();
    void failures_data();
    void failures();
};

void tst_HXXML::editingTheTree() {
    HXXMLElement element(u"p"_s);
    element.setAttribute(u"b"_s, u"1"_s);
    element.setAttribute(u"a"_s, u"2"_s);
    element.setAttribute(u"b"_s, u"3"_s);
    QCOMPARE(element.attributes(),
             (QList<HXXMLElement::Attribute>{{u"b"_s, u"3"_s}, {u"a"_s, u"2"_s}}));
    element.removeAttribute(u"b"_s);
    QVERIFY(!element.hasAttribute(u"b"_s) && element.attribute(u"b"_s).isNull());

    HXXMLElement bold(u"b"_s);
    bold.addText(u"bold"_s);
    element.addText(u"end"_s);
    element.insertChild(0, bold);
    element.insertText(0, u"start "_s);
    element.insertChild(element.childCount(), HXXMLElement(u"i"_s));
    QCOMPARE(element.childCount(), 4);
    QVERIFY(element.isTextAt(0) && !element.isTextAt(1) && element.isTextAt(2));
    QCOMPARE(element.textAt(2), u"end"_s);
    QCOMPARE(element.stringValue(), u"start boldend"_s);
    QCOMPARE(element.childElements().size(), 2);
    QCOMPARE(element.childElements(u"b"_s).size(), 1);
    QCOMPARE(element.childElements(u"b"_s).first().stringValue(), u"bold"_s);

    // The child is a copy: changing the original or a copy of the parent leaves it alone.
    bold.addText(u" more"_s);
    HXXMLElement copy = element;
    copy.addText(u"!"_s);
    QCOMPARE(element.elementAt(1).stringValue(), u"bold"_s);
    QCOMPARE(element.childCount(), 4);

    QVERIFY_THROWS_EXCEPTION(HXAssertionFailure, element.insertText(5, u"x"_s));
    QVERIFY_THROWS_EXCEPTION(HXAssertionFailure, element.elementAt(0));
}

void tst_HXXML::exactDocumentBytes() {
    HXXMLElement document(u"doc"_s);
    document.setAttribute(u"lang"_s, u"fr"_s);
    document.addText(u"\n\t"_s);
    HXXMLElement item(u"item"_s);
    item.setAttribute(u"name"_s, u"été"_s);
    document.addChild(item);
    document.addText(u"\n"_s);
    document.addChild(HXXMLElement(u"empty"_s));
    QCOMPARE(document.xmlDocumentData(),
             QByteArray("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<doc lang=\"fr\">\n\t"
                        "<item name=\"\xC3\xA9t\xC3\xA9\"/>\n<empty/></doc>\n"));
}

// The streaming writer against the tree: random names, attributes, texts and nesting, with
// every kind of character, give the same bytes.
void tst_HXXML::streamingWriterWritesWhatTheTreeWrites() {
    QRandomGenerator random(3);
    const QList<char16_t> units{u'a',   u' ',   u'&',   u'<',   u'>',  u'"', u'\'',
                                u'\t',  u'\n',  u'\r',  0x01,   0x1f,  0x7f, 0xe9,
                                0x2028, 0xd83d, 0xde00, 0xfffe, 0xfffc};
    auto text = [&] {
        QString result;
        for (int i = int(random.bounded(8)); i > 0; --i)
            result += QChar(units.at(qsizetype(random.bounded(quint32(units.size())))));
        return result;
    };
    static const char *names[] = {"a", "bb", "p", "element"};
    for (int round = 0; round < 300; ++round) {
        HXXMLWriter writer;
        writer.writeDeclaration();
        std::vector<HXXMLElement> open{HXXMLElement(u"root"_s)};
        writer.startElement(QLatin1StringView("root"));
        for (int step = 0; step < 12; ++step) {
            const quint32 action = random.bounded(4);
            if (action == 0) {
                const char *name = names[random.bounded(4)];
                open.emplace_back(QString::fromLatin1(name));
                writer.startElement(QLatin1StringView(name));
                for (int i = int(random.bounded(3)); i > 0; --i) {
                    const QString value = text();
                    const char *attribute = names[i];
                    open.back().setAttribute(QString::fromLatin1(attribute), value);
                    writer.writeAttribute(QLatin1StringView(attribute), value);
                }
            } else if (action == 1 && open.size() > 1) {
                HXXMLElement done = open.back();
                open.pop_back();
                open.back().addChild(done);
                writer.endElement();
            } else {
                const QString value = text();
                open.back().addText(value);
                writer.writeText(value);
            }
        }
        while (open.size() > 1) {
            HXXMLElement done = open.back();
            open.pop_back();
            open.back().addChild(done);
            writer.endElement();
        }
        writer.endElement();
        writer.writeText(u"\n");
        QCOMPARE(writer.bytes(), open.back().xmlDocumentData());
    }
}

void tst_HXXML::writeAndReadBack() {
    // Attributes in name order, since the reader hands them over in a map.
    const QString markup = u"a & b < c > d \"quoted\" 'single'"_s;
    const QString lines = u"one\ntwo\tthree\rfour\r\n"_s;
    HXXMLElement root(u"root"_s);
    root.setAttribute(u"lines"_s, lines);
    root.setAttribute(u"markup"_s, markup);
    root.addText(u"\n  "_s);
    HXXMLElement paragraph(u"p"_s);
    paragraph.addText(u"Smile \U0001F600 & <tags>\r\nnext"_s);
    root.addChild(paragraph);
    root.addChild(HXXMLElement(u"x"_s));
    const QByteArray data = root.xmlDocumentData();
    // Written raw, these would come back as spaces.
    QVERIFY(data.contains("one&#10;two&#9;three&#13;four&#13;&#10;"));

    // Equal markup means equal trees: every attribute, text and element came back as it was.
    Script script;
    const std::optional<HXXMLElement> back = readTree(data, script);
    QVERIFY(back);
    QCOMPARE(back->xmlString(), root.xmlString());
}

void tst_HXXML::forbiddenCharacters() {
    const QChar high(0xD83D), low(0xDE00);
    const QString pair = QString(high) + low;
    const QString dirty = u"a\u0000\u0001\u0008b\u000B\u000C\u000E\u001Fc\t\n\r\uFFFE\uFFFF"_s +
                          high + u'x' + pair + low + low + high + high;
    QCOMPARE(HXXMLStringByRemovingForbiddenCharacters(dirty), u"abc\t\n\rx"_s + pair);

    HXXMLElement element(u"t"_s);
    element.setAttribute(u"v"_s, u"1\u00022"_s + high);
    element.addText(u"x\u0007y"_s + low + pair);
    QCOMPARE(element.xmlString(), u"<t v=\"12\">xy"_s + pair + u"</t>"_s);

    // Stray control characters and non-characters in a file do not stop it loading.
    Script script;
    std::optional<HXXMLElement> read =
        readTree("<t v=\"a\x01\x62\">x\x01y\xEF\xBF\xBF\xF0\x9F\x98\x80</t>", script);
    QVERIFY(read);
    QCOMPARE(read->attribute(u"v"_s), u"ab"_s);
    QCOMPARE(read->stringValue(), u"xy"_s + pair);

    // The data is UTF-8 after cleaning, whatever the declaration says.
    read = readTree("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><t>\xC3\xA9\x02</t>", script);
    QVERIFY(read);
    QCOMPARE(read->stringValue(), u"é"_s);
}

void tst_HXXML::callOrder() {
    Script script;
    HXXMLReaderContext context;
    script.context = &context;
    Recorder root(script);
    HXError error;
    QVERIFY(HXXMLReader::readFromData("<?xml version=\"1.0\"?>\n<!-- note -->\n"
                                      "<a x=\"1\"><b>hi<c/>&amp;<![CDATA[<raw>]]></b> <d/></a>\n",
                                      root, &context, &error));
    QVERIFY(error.isNull());
    QCOMPARE(script.log,
             (QStringList{u"start a"_s, u"find b"_s, u"start b"_s, u"text hi"_s, u"find c"_s,
                          u"start c"_s, u"end c"_s, u"child c"_s, u"text &"_s, u"text <raw>"_s,
                          u"end b"_s, u"child b"_s, u"text  "_s, u"find d"_s, u"start d"_s,
                          u"end d"_s, u"child d"_s, u"end a"_s}));
}

// Documents of plain XML, whole and with random damage, read the same with and without a comment
// in front: the comment makes the document one for the general parser. Every call and every
// text must agree, and a document one way fails the other way too.
void tst_HXXML::quickScannerReadsAsTheGeneralParser() {
    QRandomGenerator random(11);
    auto pick = [&](const QList<QByteArray> &from) {
        return from.at(qsizetype(random.bounded(quint32(from.size()))));
    };
    // Mostly what plain XML allows, now and then what it doesn't.
    auto pickOrBad = [&](const QList<QByteArray> &good, const QList<QByteArray> &bad) {
        return pick(random.bounded(12) == 0 ? bad : good);
    };
    const QList<QByteArray> names{"a", "p", "element", "x-1.b", "_y"};
    const QList<QByteArray> texts{"hi",        " ",  "\n",         "&amp;", "&lt;&gt;",
                                  "&#65;",     "]]", "&#x1F600;",   ">",     "\xC3\xA9",
                                  "&quot;&apos;", "\t", "&#13;"};
    const QList<QByteArray> badTexts{"&#0;", "&foo;", "]]>", "\r", "&#xD800;", "&#x110000;",
                                     "&#65"};
    const QList<QByteArray> values{"v", "", "&amp;b", "&#10;", ">", "&#9;"};
    const QList<QByteArray> badValues{"\n", "\t", "<", "&bad", "\r", "\"", "'"};
    const QList<QByteArray> attributeNames{"k", "kind", "xml:space", "k2"};
    const QList<QByteArray> badAttributeNames{"xmlns", "xmlns:q", "q:r", "\xC3\xA9", "1"};
    const QList<QByteArray> damage{"<", ">", "/", "&", ";", "=", "\"", "'", " ", "<!-- c -->",
                                   "<?pi x?>", "<![CDATA[z]]>", "\r"};
    const int rounds = qEnvironmentVariableIntValue("VELMORA_STRESS") ? 20000 : 1500;
    int plainRead = 0;
    for (int round = 0; round < rounds; ++round) {
        QByteArray body;
        QList<QByteArray> open;
        const int steps = int(random.bounded(12));
        open.append(pick(names));
        body += "<" + open.last() + ">";
        for (int step = 0; step < steps; ++step) {
            switch (random.bounded(4)) {
            case 0: {
                const QByteArray name = pick(names);
                body += "<" + name;
                for (int i = int(random.bounded(3)); i > 0; --i) {
                    const QByteArray quote = random.bounded(2) ? "\"" : "'";
                    body += " " + pickOrBad(attributeNames, badAttributeNames) +
                            (random.bounded(2) ? "=" : " = ") + quote +
                            pickOrBad(values, badValues) + quote;
                }
                if (random.bounded(3) == 0) {
                    body += "/>";
                } else {
                    body += ">";
                    open.append(name);
                }
                break;
            }
            case 1:
                if (open.size() > 1)
                    body += "</" + open.takeLast() + ">";
                break;
            default:
                body += pickOrBad(texts, badTexts);
            }
        }
        while (!open.isEmpty())
            body += "</" + open.takeLast() + (random.bounded(8) == 0 ? " >" : ">");
        if (random.bounded(4) == 0) {
            const auto at = qsizetype(random.bounded(quint32(body.size() + 1)));
            if (random.bounded(2))
                body.insert(at, pick(damage));
            else if (at < body.size())
                body.remove(at, 1);
        }
        const QByteArray declaration =
            random.bounded(2) ? QByteArray("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n") : "";
        Script quick, general;
        Recorder quickRoot(quick), generalRoot(general);
        HXError quickError, generalError;
        const bool quickRead = HXXMLReader::readFromData(declaration + body, quickRoot, &quickError);
        const bool generalRead =
            HXXMLReader::readFromData(declaration + "<!---->" + body, generalRoot, &generalError);
        QVERIFY2(quickRead == generalRead, body.constData());
        QCOMPARE(quick.log, general.log);
        if (quickRead)
            QCOMPARE(quickRoot.element->xmlString(), generalRoot.element->xmlString());
        plainRead += quickRead;
    }
    // Most documents were read, not only refused.
    QVERIFY(plainRead > rounds / 3);
}

void tst_HXXML::skippedChildren() {
    Script script;
    script.skipped = QStringList{u"unknown"_s};
    const std::optional<HXXMLElement> read = readTree(
        "<root><known>k</known><unknown a=\"1\">hidden<known>deep<known/></known></unknown>"
        "<known/>tail</root>",
        script);
    QVERIFY(read);
    // Nothing below the skipped element reaches any object, not even its own known children.
    QCOMPARE(script.log,
             (QStringList{u"start root"_s, u"find known"_s, u"start known"_s, u"text k"_s,
                          u"end known"_s, u"child known"_s, u"find unknown"_s, u"find known"_s,
                          u"start known"_s, u"end known"_s, u"child known"_s, u"text tail"_s,
                          u"end root"_s}));
    QCOMPARE(read->xmlString(), u"<root><known>k</known><known/>tail</root>"_s);
}

void tst_HXXML::failures_data() {
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("at");
    QTest::addColumn<QString>("reason");

    const QByteArray nested = "<a>x<b>y</b><c/></a>";
    const QString stoppedAtB = u"Reading stopped at element \"b\"."_s;
    QTest::newRow("assertion at a start")
        << nested << u"assert"_s << u"start b"_s
        << u"Exception while parsing xml: \"Broken at start b\""_s;
    QTest::newRow("exception in text")
        << nested << u"throw"_s << u"text y"_s << u"Exception while parsing xml: \"broken\""_s;
    QTest::newRow("exception at the end of the root")
        << nested << u"throw"_s << u"end a"_s << u"Exception while parsing xml: \"broken\""_s;
    QTest::newRow("stop at a start") << nested << u"stop"_s << u"start b"_s << stoppedAtB;
    QTest::newRow("stop in text") << nested << u"stop"_s << u"text y"_s << stoppedAtB;
    QTest::newRow("stop at an end") << nested << u"stop"_s << u"end b"_s << stoppedAtB;
    QTest::newRow("stop in the parent at an end")
        << nested << u"stop"_s << u"child b"_s << stoppedAtB;
    QTest::newRow("error finding a child")
        << nested << u"error"_s << u"find b"_s << u"No text tags found for tag"_s;
    QTest::newRow("tag mismatch") << QByteArray("<a>\n<b></a>") << QString() << QString()
                                  << u"line 2, column 7: Opening and ending tag mismatch."_s;
    QTest::newRow("premature end") << QByteArray("<a><b/>") << QString() << QString()
                                   << u"line 1, column 7: Premature end of document."_s;
    QTest::newRow("empty document") << QByteArray() << QString() << QString()
                                    << u"line 1, column 0: Premature end of document."_s;
    QTest::newRow("two roots") << QByteArray("<a/><b/>") << QString() << QString()
                               << u"line 1, column 8: Extra content at end of document."_s;
}

void tst_HXXML::failures() {
    QFETCH(QByteArray, data);
    QFETCH(QString, fault);
    QFETCH(QString, at);
    QFETCH(QString, reason);

    Script script;
    (fault == u"assert"_s  ? script.assertAt
     : fault == u"throw"_s ? script.throwAt
     : fault == u"stop"_s  ? script.stopAt
                           : script.errorAt) = at;
    Recorder root(script);
    HXError error;
    QVERIFY(!HXXMLReader::readFromData(data, root, &error));
    QCOMPARE(error.domain(), HXCocoaErrorDomain);
    QCOMPARE(error.code(), qint64(0));
    QCOMPARE(error.localizedFailureReason(), reason);
    QCOMPARE(error.localizedDescription(), reason);
    // The failing call is the last one made.
    if (!at.isEmpty())
        QCOMPARE(script.log.last(), at);
}

HX_TEST_MAIN(tst_HXXML)
#include "tst_HXXML.moc"
