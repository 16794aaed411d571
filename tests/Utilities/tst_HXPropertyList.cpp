// Property lists: exact round trips of every value type, reading binary lists made by libplist,
// and damaged input that must give an error naming the file rather than a crash.

#include "HXTestSupport.h"
#include "Utilities/HXPropertyList.h"

#include <QDateTime>
#include <QFile>
#include <QPoint>
#include <QRandomGenerator>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <plist/plist.h>

namespace {

// Deep equality that also insists on the same kind of number: signed stays signed, unsigned
// stays unsigned, a real stays a real.
bool sameValue(const QVariant &a, const QVariant &b, QString *where, const QString &path = {}) {
    auto differ = [&](const QString &why) {
        *where = path + QStringLiteral(": ") + why;
        return false;
    };
    const int ta = a.typeId(), tb = b.typeId();
    auto kind = [](int type) {
        switch (type) {
        case QMetaType::Int:
        case QMetaType::LongLong:
            return 1;
        case QMetaType::UInt:
        case QMetaType::ULongLong:
            return 2;
        default:
            return type;
        }
    };
    if (kind(ta) != kind(tb))
        return differ(QStringLiteral("types %1 and %2").arg(a.typeName(), b.typeName()));
    switch (ta) {
    case QMetaType::QVariantMap: {
        const QVariantMap ma = a.toMap(), mb = b.toMap();
        if (ma.keys() != mb.keys())
            return differ(QStringLiteral("keys differ"));
        for (auto it = ma.cbegin(); it != ma.cend(); ++it)
            if (!sameValue(it.value(), mb.value(it.key()), where, path + u'.' + it.key()))
                return false;
        return true;
    }
    case QMetaType::QVariantList: {
        const QVariantList la = a.toList(), lb = b.toList();
        if (la.size() != lb.size())
            return differ(QStringLiteral("lengths differ"));
        for (qsizetype i = 0; i < la.size(); ++i)
            if (!sameValue(la[i], lb[i], where, path + QStringLiteral("[%1]").arg(i)))
                return false;
        return true;
    }
    case QMetaType::Double: {
        const double da = a.toDouble(), db = b.toDouble();
        if (std::isnan(da) && std::isnan(db))
            return true;
        if (da != db || std::signbit(da) != std::signbit(db))
            return differ(QStringLiteral("%1 vs %2").arg(da).arg(db));
        return true;
    }
    default:
        return a == b ? true : differ(QStringLiteral("values differ"));
    }
}

QVariantMap everyKind() {
    QVariantMap numbers{
        {QStringLiteral("zero"), qint64(0)},
        {QStringLiteral("negative"), qint64(-5)},
        {QStringLiteral("int64 min"), std::numeric_limits<qint64>::min()},
        {QStringLiteral("int64 max"), std::numeric_limits<qint64>::max()},
        {QStringLiteral("just above int64"), quint64(9223372036854775808ULL)},
        {QStringLiteral("uint64 max"), std::numeric_limits<quint64>::max()},
        {QStringLiteral("real"), 0.1},
        {QStringLiteral("integral real"), 3.0},
        {QStringLiteral("negative zero"), -0.0},
        {QStringLiteral("huge"), 1.7976931348623157e308},
        {QStringLiteral("tiny"), 4.9e-324},
        {QStringLiteral("infinity"), std::numeric_limits<double>::infinity()},
        {QStringLiteral("minus infinity"), -std::numeric_limits<double>::infinity()},
        {QStringLiteral("nan"), std::numeric_limits<double>::quiet_NaN()},
    };
    QVariantMap strings{
        {QStringLiteral("empty"), QString()},
        {QStringLiteral("markup"), QStringLiteral("<tag> & \"quotes\" 'single' ]]>")},
        {QStringLiteral("line ends"), QStringLiteral("a\r\nb\rc\n\td  ")},
        {QStringLiteral("unicode"), QStringLiteral("é ß 中文 \U0001F600 \uFFFD")},
        {QStringLiteral("key with <&> and \r"), QStringLiteral("value")},
    };
    return {
        {QStringLiteral("numbers"), numbers},
        {QStringLiteral("strings"), strings},
        {QStringLiteral("true"), true},
        {QStringLiteral("false"), false},
        {QStringLiteral("date"), QDateTime(QDate(1999, 12, 31), QTime(23, 59, 59), Qt::UTC)},
        {QStringLiteral("before reference"), QDateTime(QDate(1970, 1, 1), QTime(0, 0), Qt::UTC)},
        {QStringLiteral("data"), QByteArray("\0\1\2\xff binary", 11)},
        {QStringLiteral("long data"), QByteArray(300, '\x5a')},
        {QStringLiteral("empty data"), QByteArray()},
        {QStringLiteral("array"),
         QVariantList{1, QStringLiteral("two"), QVariantList{}, QVariantMap{}}},
        {QStringLiteral("empty dictionary"), QVariantMap()},
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
    const QVariant back = HXPropertyList::fromData(xml, QStringLiteral("memory"), &error, &format);
    QVERIFY2(back.isValid(), qPrintable(error.localizedDescription()));
    QCOMPARE(format, HXPropertyList::Format::XML);
    QString where;
    QVERIFY2(sameValue(original, back, &where), qPrintable(where));

    // Writing what was read gives the same bytes again.
    QCOMPARE(HXPropertyList::xmlData(back, &error), xml);

    // Through a file as well, and a file that existed is replaced whole.
    const QString path = HXTestSupport::homeFolder().filePath(QStringLiteral("every.plist"));
    QVERIFY(HXPropertyList::writeFile(QVariantMap{{QStringLiteral("old"), 1}}, path, &error));
    QVERIFY(HXPropertyList::writeFile(original, path, &error));
    const QVariant fromFile = HXPropertyList::readFile(path, &error);
    QVERIFY(sameValue(original, fromFile, &where));

    // Dates in XML keep whole seconds, as the format does everywhere.
    const QDateTime precise = QDateTime::fromMSecsSinceEpoch(1234567890123, Qt::UTC);
    const QVariant date = HXPropertyList::fromData(HXPropertyList::xmlData(precise, &error),
                                                   QStringLiteral("memory"), &error);
    QCOMPARE(date.toDateTime(), QDateTime::fromMSecsSinceEpoch(1234567890000, Qt::UTC));
}

void tst_HXPropertyList::binaryPropertyLists() {
    plist_t root = plist_new_dict();
    plist_dict_set_item(root, "name", plist_new_string("Velmora \xc3\xa9"));
    plist_dict_set_item(root, "count", plist_new_uint(uint64_t(int64_t(-7))));
    plist_dict_set_item(root, "ratio", plist_new_real(2.5));
    plist_dict_set_item(root, "flag", plist_new_bool(1));
    plist_dict_set_item(root, "when", plist_new_date(86400, 500000));
    plist_dict_set_item(root, "bytes", plist_new_data("\0\1\2", 3));
    plist_t array = plist_new_array();
    plist_array_append_item(array, plist_new_uint(1));
    plist_array_append_item(array, plist_new_dict());
    plist_dict_set_item(root, "list", array);
    char *bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(root, &bytes, &length);
    plist_free(root);
    const QByteArray binary(bytes, length);
    plist_to_bin_free(bytes);

    const QString path = HXTestSupport::homeFolder().filePath(QStringLiteral("binary.plist"));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(binary);
    file.close();

    HXError error;
    HXPropertyList::Format format = HXPropertyList::Format::XML;
    const QVariantMap read = HXPropertyList::readFile(path, &error, &format).toMap();
    QCOMPARE(format, HXPropertyList::Format::Binary);
    QCOMPARE(read.value(QStringLiteral("name")).toString(), QStringLiteral("Velmora é"));
    QCOMPARE(read.value(QStringLiteral("count")).toLongLong(), -7);
    QCOMPARE(read.value(QStringLiteral("ratio")).toDouble(), 2.5);
    QCOMPARE(read.value(QStringLiteral("flag")).toBool(), true);
    QCOMPARE(read.value(QStringLiteral("when")).toDateTime(),
             QDateTime(QDate(2001, 1, 2), QTime(0, 0, 0, 500), Qt::UTC));
    QCOMPARE(read.value(QStringLiteral("bytes")).toByteArray(), QByteArray("\0\1\2", 3));
    QCOMPARE(read.value(QStringLiteral("list")).toList().size(), 2);
}

void tst_HXPropertyList::malformedXML_data() {
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<QString>("reason");

    const QByteArray head = "<?xml version=\"1.0\"?><plist version=\"1.0\">\n";
    QTest::newRow("key without value")
        << head + "<dict><key>a</key><integer>1</integer><key>b</key></dict></plist>"
        << QStringLiteral("The key “b” has no value.");
    QTest::newRow("letters as integer") << head + "<array><integer>abc</integer></array></plist>"
                                        << QStringLiteral("“abc” is not an integer.");
    QTest::newRow("integer out of range")
        << head + "<integer>99999999999999999999</integer></plist>"
        << QStringLiteral("is not an integer");
    QTest::newRow("bad real") << head + "<real>1.2.3</real></plist>"
                              << QStringLiteral("is not a real number");
    QTest::newRow("bad date") << head + "<date>yesterday</date></plist>"
                              << QStringLiteral("is not a date");
    QTest::newRow("bad base64") << head + "<data>*!*</data></plist>"
                                << QStringLiteral("not valid Base64");
    QTest::newRow("unknown element") << head + "<dict><key>a</key><thing/></dict></plist>"
                                     << QStringLiteral("Unknown element “thing”.");
    QTest::newRow("value where a key belongs")
        << head + "<dict><string>a</string></dict></plist>" << QStringLiteral("Expected a key");
    QTest::newRow("two values") << head + "<true/><false/></plist>"
                                << QStringLiteral("more than one value");
    QTest::newRow("text in a dictionary") << head + "<dict>stray<key>a</key><true/></dict></plist>"
                                          << QStringLiteral("unexpected text “stray”");
    QTest::newRow("wrong nesting")
        << head + "<array><string>a</array></string></plist>" << QString();
    QTest::newRow("element in a string") << head + "<string>a<b/></string></plist>" << QString();
    QTest::newRow("not XML at all") << QByteArray("garbage") << QString();
    QTest::newRow("empty") << QByteArray() << QString();
    QTest::newRow("invalid UTF-8") << head + "<string>\xff\xfe</string></plist>" << QString();
    QTest::newRow("nested too deeply")
        << head + QByteArray("<array>").repeated(100000) << QStringLiteral("more than 512 levels");
}

void tst_HXPropertyList::malformedXML() {
    QFETCH(QByteArray, document);
    QFETCH(QString, reason);
    HXError error;
    const QVariant value =
        HXPropertyList::fromData(document, QStringLiteral("Broken.plist"), &error);
    QVERIFY(!value.isValid());
    QCOMPARE(error.code(), qint64(HXPropertyListReadCorruptError));
    QVERIFY2(error.localizedDescription().contains(QStringLiteral("“Broken.plist”")),
             qPrintable(error.localizedDescription()));
    QVERIFY2(error.localizedFailureReason().startsWith(QStringLiteral("line ")),
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
        const QVariant value =
            HXPropertyList::fromData(xml.left(length), QStringLiteral("cut.plist"), &failure);
        QVERIFY2(!value.isValid(),
                 qPrintable(QStringLiteral("accepted a prefix of %1 bytes").arg(length)));
        QVERIFY(!failure.isNull());
    }
}

void tst_HXPropertyList::damagedBinaryNeverCrashes() {
    plist_t root = plist_new_dict();
    plist_dict_set_item(root, "text", plist_new_string("some text to damage"));
    plist_t array = plist_new_array();
    for (int i = 0; i < 20; ++i)
        plist_array_append_item(array, plist_new_uint(uint64_t(i * 1000)));
    plist_dict_set_item(root, "numbers", array);
    char *bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(root, &bytes, &length);
    plist_free(root);
    const QByteArray binary(bytes, length);
    plist_to_bin_free(bytes);

    for (qsizetype cut = 8; cut < binary.size(); ++cut) {
        HXError error;
        const QVariant value =
            HXPropertyList::fromData(binary.left(cut), QStringLiteral("b"), &error);
        QVERIFY(!value.isValid());
    }
    QRandomGenerator random(1234);
    for (int round = 0; round < 300; ++round) {
        QByteArray damaged = binary;
        for (int flips = 0; flips < 4; ++flips)
            damaged[8 + random.bounded(int(damaged.size() - 8))] = char(random.bounded(256));
        HXError error;
        HXPropertyList::fromData(damaged, QStringLiteral("b"), &error); // must simply return
    }
}

void tst_HXPropertyList::fileErrorsNameTheFile() {
    const QString missing = HXTestSupport::homeFolder().filePath(QStringLiteral("absent.plist"));
    HXError error;
    QVERIFY(!HXPropertyList::readFile(missing, &error).isValid());
    QCOMPARE(error.code(), qint64(HXFileNoSuchFileError));
    QVERIFY(error.localizedDescription().contains(missing));

    const QString inMissingFolder =
        HXTestSupport::homeFolder().filePath(QStringLiteral("no/such/folder/x.plist"));
    QVERIFY(!HXPropertyList::writeFile(QVariantMap(), inMissingFolder, &error));
    QCOMPARE(error.code(), qint64(HXFileWriteUnknownError));
    QVERIFY(error.localizedDescription().contains(inMissingFolder));
}

void tst_HXPropertyList::valuesThatCannotBeWritten() {
    const QString path = HXTestSupport::homeFolder().filePath(QStringLiteral("kept.plist"));
    HXError error;
    QVERIFY(HXPropertyList::writeFile(QVariantMap{{QStringLiteral("a"), 1}}, path, &error));

    // A value of a type a property list has no element for, deep inside: the error names where
    // it is, and the file on disk stays as it was.
    const QVariantMap bad{{QStringLiteral("outer"),
                           QVariantMap{{QStringLiteral("list"), QVariantList{1, QPoint(1, 2)}}}}};
    QVERIFY(!HXPropertyList::writeFile(bad, path, &error));
    QCOMPARE(error.code(), qint64(HXPropertyListWriteInvalidError));
    QVERIFY2(error.localizedFailureReason().contains(QStringLiteral("outer.list[1]")),
             qPrintable(error.localizedFailureReason()));
    QCOMPARE(HXPropertyList::readFile(path, &error).toMap().value(QStringLiteral("a")).toInt(), 1);

    // XML can't carry most control characters.
    QVERIFY(HXPropertyList::xmlData(QStringLiteral("bell\x07"), &error).isEmpty());
    QVERIFY(error.localizedFailureReason().contains(QStringLiteral("U+0007")));
    // Nor a lone surrogate.
    QVERIFY(HXPropertyList::xmlData(QString(QChar(0xD800)), &error).isEmpty());
}

HX_TEST_MAIN(tst_HXPropertyList)
#include "tst_HXPropertyList.moc"
