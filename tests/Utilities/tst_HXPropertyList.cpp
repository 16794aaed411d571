// Property lists: exact round trips of every value type, reading binary lists made by libplist,
// and damaged input that must give an error naming the file rather than a crash.

#include "HXTestSupport.h"
#include "Utilities/HXPropertyList.h"

#include <QDateTime>
#include <QPoint>
#include <QRandomGenerator>

#include <cmath>
#include <limits>
#include <plist/plist.h>

using namespace Qt::StringLiterals;

namespace {

// A text that tells values apart as a round trip must keep them: deep, each number of its kind
// (signed, unsigned or real), negative zero apart from zero, and every NaN alike.
QString shape(const QVariant &value) {
    switch (value.typeId()) {
    case QMetaType::QVariantMap: {
        QString text = u"{"_s;
        const QVariantMap map = value.toMap();
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            text += it.key() + u" = "_s + shape(it.value()) + u"; "_s;
        return text + u'}';
    }
    case QMetaType::QVariantList: {
        QString text = u"("_s;
        for (const QVariant &item : value.toList())
            text += shape(item) + u", "_s;
        return text + u')';
    }
    case QMetaType::Int:
    case QMetaType::LongLong:
        return u"signed "_s + QString::number(value.toLongLong());
    case QMetaType::UInt:
    case QMetaType::ULongLong:
        return u"unsigned "_s + QString::number(value.toULongLong());
    case QMetaType::Double: {
        const double real = value.toDouble();
        return std::isnan(real) ? u"real nan"_s
                                : u"real %1%2"_s.arg(QChar(std::signbit(real) ? u'-' : u'+'))
                                      .arg(std::abs(real), 0, 'g', 17);
    }
    case QMetaType::QDateTime:
        return u"date "_s + QString::number(value.toDateTime().toMSecsSinceEpoch());
    case QMetaType::QByteArray:
        return u"data "_s + QString::fromLatin1(value.toByteArray().toHex());
    default:
        return QString::fromLatin1(value.typeName()) + u' ' + value.toString();
    }
}

// A binary property list made by libplist.
QByteArray binarySample() {
    plist_t root = plist_new_dict();
    plist_dict_set_item(root, "name", plist_new_string("Velmora \xc3\xa9"));
    plist_dict_set_item(root, "count", plist_new_uint(uint64_t(int64_t(-7))));
    plist_dict_set_item(root, "ratio", plist_new_real(2.5));
    plist_dict_set_item(root, "flag", plist_new_bool(1));
    plist_dict_set_item(root, "when", plist_new_date(86400, 500000));
    plist_dict_set_item(root, "bytes", plist_new_data("\0\1\2", 3));
    plist_t array = plist_new_array();
    for (int i = 0; i < 20; ++i)
        plist_array_append_item(array, plist_new_uint(uint64_t(i * 1000)));
    plist_array_append_item(array, plist_new_dict());
    plist_dict_set_item(root, "list", array);
    char *bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(root, &bytes, &length);
    plist_free(root);
    const QByteArray binary(bytes, length);
    plist_to_bin_free(bytes);
    return binary;
}

QVariantMap everyKind() {
    QVariantMap numbers{
        {u"zero"_s, qint64(0)},
        {u"negative"_s, qint64(-5)},
        {u"int64 min"_s, std::numeric_limits<qint64>::min()},
        {u"int64 max"_s, std::numeric_limits<qint64>::max()},
        {u"just above int64"_s, quint64(9223372036854775808ULL)},
        {u"uint64 max"_s, std::numeric_limits<quint64>::max()},
        {u"real"_s, 0.1},
        {u"integral real"_s, 3.0},
        {u"negative zero"_s, -0.0},
        {u"huge"_s, 1.7976931348623157e308},
        {u"tiny"_s, 4.9e-324},
        {u"infinity"_s, std::numeric_limits<double>::infinity()},
        {u"minus infinity"_s, -std::numeric_limits<double>::infinity()},
        {u"nan"_s, std::numeric_limits<double>::quiet_NaN()},
    };
    QVariantMap strings{
        {u"empty"_s, QString()},
        {u"markup"_s, u"<tag> & \"quotes\" 'single' ]]>"_s},
        {u"line ends"_s, u"a\r\nb\rc\n\td  "_s},
        {u"unicode"_s, u"é ß 中文 \U0001F600 \uFFFD"_s},
        {u"key with <&> and \r"_s, u"value"_s},
    };
    return {
        {u"numbers"_s, numbers},
        {u"strings"_s, strings},
        {u"true"_s, true},
        {u"false"_s, false},
        {u"date"_s, QDateTime(QDate(1999, 12, 31), QTime(23, 59, 59), Qt::UTC)},
        {u"before reference"_s, QDateTime(QDate(1970, 1, 1), QTime(0, 0), Qt::UTC)},
        {u"data"_s, QByteArray("\0\1\2\xff binary", 11)},
        {u"long data"_s, QByteArray(300, '\x5a')},
        {u"empty data"_s, QByteArray()},
        {u"array"_s, QVariantList{1, u"two"_s, QVariantList{}, QVariantMap{}}},
        {u"empty dictionary"_s, QVariantMap()},
    };
}

} // namespace

class tst_HXPropertyList : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void roundTripOfEveryKind();
    void binaryPropertyLists();
    void malformedXML_data();
    void malformedXML();
    void truncatedDocumentsNeverCrash();
    void damagedBinaryNeverCrashes();
    void fileErrorsNameTheFile();
    void valuesThatCannotBeWritten();
};

void tst_HXPropertyList::roundTripOfEveryKind() {
    const QVariantMap original = everyKind();
    HXError error;
    const QByteArray xml = HXPropertyList::xmlData(original, &error);
    QVERIFY2(!xml.isEmpty(), qPrintable(error.localizedFailureReason()));

    HXPropertyList::Format format = HXPropertyList::Format::Binary;
    const QVariant back = HXPropertyList::fromData(xml, u"memory"_s, &error, &format);
    QVERIFY2(back.isValid(), qPrintable(error.localizedDescription()));
    QCOMPARE(format, HXPropertyList::Format::XML);
    QCOMPARE(shape(back), shape(original));

    // Writing what was read gives the same bytes again.
    QCOMPARE(HXPropertyList::xmlData(back, &error), xml);

    // Through a file as well, and a file that existed is replaced whole.
    const QString path = HXTestSupport::homeFolder().filePath(u"every.plist"_s);
    QVERIFY(HXPropertyList::writeFile(QVariantMap{{u"old"_s, 1}}, path, &error));
    QVERIFY(HXPropertyList::writeFile(original, path, &error));
    QCOMPARE(shape(HXPropertyList::readFile(path, &error)), shape(original));

    // Dates in XML keep whole seconds, as the format does everywhere.
    const QDateTime precise = QDateTime::fromMSecsSinceEpoch(1234567890123, Qt::UTC);
    const QVariant date =
        HXPropertyList::fromData(HXPropertyList::xmlData(precise, &error), u"memory"_s, &error);
    QCOMPARE(date.toDateTime(), QDateTime::fromMSecsSinceEpoch(1234567890000, Qt::UTC));
}

void tst_HXPropertyList::binaryPropertyLists() {
    HXError error;
    HXPropertyList::Format format = HXPropertyList::Format::XML;
    const QVariant read = HXPropertyList::fromData(binarySample(), u"b"_s, &error, &format);
    QCOMPARE(format, HXPropertyList::Format::Binary);

    QVariantList list;
    for (int i = 0; i < 20; ++i)
        list.append(qint64(i * 1000));
    list.append(QVariantMap());
    const QVariantMap expected{
        {u"name"_s, u"Velmora é"_s},
        {u"count"_s, qint64(-7)},
        {u"ratio"_s, 2.5},
        {u"flag"_s, true},
        {u"when"_s, QDateTime(QDate(2001, 1, 2), QTime(0, 0, 0, 500), Qt::UTC)},
        {u"bytes"_s, QByteArray("\0\1\2", 3)},
        {u"list"_s, list}};
    QCOMPARE(shape(read), shape(expected));
}

void tst_HXPropertyList::malformedXML_data() {
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<QString>("reason");

    const QByteArray head = "<?xml version=\"1.0\"?><plist version=\"1.0\">\n";
    QTest::newRow("key without value")
        << head + "<dict><key>a</key><integer>1</integer><key>b</key></dict></plist>"
        << u"The key “b” has no value."_s;
    QTest::newRow("letters as integer")
        << head + "<array><integer>abc</integer></array></plist>" << u"“abc” is not an integer."_s;
    QTest::newRow("integer out of range")
        << head + "<integer>99999999999999999999</integer></plist>" << u"is not an integer"_s;
    QTest::newRow("bad real") << head + "<real>1.2.3</real></plist>" << u"is not a real number"_s;
    QTest::newRow("bad date") << head + "<date>yesterday</date></plist>" << u"is not a date"_s;
    QTest::newRow("bad base64") << head + "<data>*!*</data></plist>" << u"not valid Base64"_s;
    QTest::newRow("unknown element")
        << head + "<dict><key>a</key><thing/></dict></plist>" << u"Unknown element “thing”."_s;
    QTest::newRow("value where a key belongs")
        << head + "<dict><string>a</string></dict></plist>" << u"Expected a key"_s;
    QTest::newRow("two values") << head + "<true/><false/></plist>" << u"more than one value"_s;
    QTest::newRow("text in a dictionary")
        << head + "<dict>stray<key>a</key><true/></dict></plist>" << u"unexpected text “stray”"_s;
    QTest::newRow("wrong nesting")
        << head + "<array><string>a</array></string></plist>" << QString();
    QTest::newRow("element in a string") << head + "<string>a<b/></string></plist>" << QString();
    QTest::newRow("not XML at all") << QByteArray("garbage") << QString();
    QTest::newRow("empty") << QByteArray() << QString();
    QTest::newRow("invalid UTF-8") << head + "<string>\xff\xfe</string></plist>" << QString();
    QTest::newRow("nested too deeply")
        << head + QByteArray("<array>").repeated(100000) << u"more than 512 levels"_s;
}

void tst_HXPropertyList::malformedXML() {
    QFETCH(QByteArray, document);
    QFETCH(QString, reason);
    HXError error;
    const QVariant value = HXPropertyList::fromData(document, u"Broken.plist"_s, &error);
    QVERIFY(!value.isValid());
    QCOMPARE(error.code(), qint64(HXPropertyListReadCorruptError));
    QVERIFY2(error.localizedDescription().contains(u"“Broken.plist”"_s),
             qPrintable(error.localizedDescription()));
    QVERIFY2(error.localizedFailureReason().startsWith(u"line "_s),
             qPrintable(error.localizedFailureReason()));
    if (!reason.isEmpty())
        QVERIFY2(error.localizedFailureReason().contains(reason, Qt::CaseInsensitive),
                 qPrintable(error.localizedFailureReason()));
}

void tst_HXPropertyList::truncatedDocumentsNeverCrash() {
    HXError error;
    const QByteArray xml = HXPropertyList::xmlData(everyKind(), &error);
    // Every prefix of a document up to its closing tag is incomplete, hence an error.
    const qsizetype complete = xml.lastIndexOf("</plist>");
    for (qsizetype length = 0; length < complete; ++length) {
        HXError failure;
        const QVariant value = HXPropertyList::fromData(xml.left(length), u"cut.plist"_s, &failure);
        QVERIFY2(!value.isValid(), qPrintable(u"accepted a prefix of %1 bytes"_s.arg(length)));
        QVERIFY(!failure.isNull());
    }
}

void tst_HXPropertyList::damagedBinaryNeverCrashes() {
    const QByteArray binary = binarySample();
    for (qsizetype cut = 8; cut < binary.size(); ++cut) {
        HXError error;
        const QVariant value = HXPropertyList::fromData(binary.left(cut), u"b"_s, &error);
        QVERIFY(!value.isValid());
    }
    QRandomGenerator random(1234);
    for (int round = 0; round < 300; ++round) {
        QByteArray damaged = binary;
        for (int flips = 0; flips < 4; ++flips)
            damaged[8 + random.bounded(int(damaged.size() - 8))] = char(random.bounded(256));
        HXError error;
        HXPropertyList::fromData(damaged, u"b"_s, &error); // must simply return
    }
}

void tst_HXPropertyList::fileErrorsNameTheFile() {
    const QString missing = HXTestSupport::homeFolder().filePath(u"absent.plist"_s);
    HXError error;
    QVERIFY(!HXPropertyList::readFile(missing, &error).isValid());
    QCOMPARE(error.code(), qint64(HXFileNoSuchFileError));
    QVERIFY(error.localizedDescription().contains(missing));

    const QString inMissingFolder =
        HXTestSupport::homeFolder().filePath(u"no/such/folder/x.plist"_s);
    QVERIFY(!HXPropertyList::writeFile(QVariantMap(), inMissingFolder, &error));
    QCOMPARE(error.code(), qint64(HXFileWriteUnknownError));
    QVERIFY(error.localizedDescription().contains(inMissingFolder));
}

void tst_HXPropertyList::valuesThatCannotBeWritten() {
    const QString path = HXTestSupport::homeFolder().filePath(u"kept.plist"_s);
    HXError error;
    QVERIFY(HXPropertyList::writeFile(QVariantMap{{u"a"_s, 1}}, path, &error));

    // A value of a type a property list has no element for, deep inside: the error names where
    // it is, and the file on disk stays as it was.
    const QVariantMap bad{{u"outer"_s, QVariantMap{{u"list"_s, QVariantList{1, QPoint(1, 2)}}}}};
    QVERIFY(!HXPropertyList::writeFile(bad, path, &error));
    QCOMPARE(error.code(), qint64(HXPropertyListWriteInvalidError));
    QVERIFY2(error.localizedFailureReason().contains(u"outer.list[1]"_s),
             qPrintable(error.localizedFailureReason()));
    QCOMPARE(HXPropertyList::readFile(path, &error).toMap().value(u"a"_s).toInt(), 1);

    // XML can't carry most control characters.
    QVERIFY(HXPropertyList::xmlData(u"bell\x07"_s, &error).isEmpty());
    QVERIFY(error.localizedFailureReason().contains(u"U+0007"_s));
    // Nor a lone surrogate.
    QVERIFY(HXPropertyList::xmlData(QString(QChar(0xD800)), &error).isEmpty());
}

HX_TEST_MAIN(tst_HXPropertyList)
#include "tst_HXPropertyList.moc"
