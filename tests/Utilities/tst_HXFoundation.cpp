// Formatting, descriptions, assertions, errors, ranges and string tables: the small values every
// other part of the system builds on.

#include "HXTestSupport.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXDescription.h"
#include "Utilities/HXError.h"
#include "Utilities/HXLocalizedString.h"
#include "Utilities/HXRange.h"
#include "Utilities/HXStringFormat.h"

#include <QDateTime>

class tst_HXFoundation : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void formatConversions_data();
    void formatConversions();
    void formatOddities();
    void descriptions();
    void assertionCarriesFormattedText();
    void errors();
    void ranges();
    void localizedStrings();
};

void tst_HXFoundation::formatConversions_data() {
    QTest::addColumn<QString>("result");
    QTest::addColumn<QString>("expected");

    QTest::newRow("object") << HXStringWithFormat(u"Given: %@ for %@.", QStringLiteral("x"), 5)
                            << QStringLiteral("Given: x for 5.");
    QTest::newRow("negative") << HXStringWithFormat(u"%d|%ld|%lld", -1, -2L, -3LL)
                              << QStringLiteral("-1|-2|-3");
    QTest::newRow("unsigned 64-bit") << HXStringWithFormat(u"%lu", quint64(18446744073709551615ULL))
                                     << QStringLiteral("18446744073709551615");
    QTest::newRow("width and flags") << HXStringWithFormat(u"[%5d][%-5d][%05d][%+d]", 42, 42, 42, 7)
                                     << QStringLiteral("[   42][42   ][00042][+7]");
    QTest::newRow("hex") << HXStringWithFormat(u"U+%04X %x", 0xe9, 255u)
                         << QStringLiteral("U+00E9 ff");
    QTest::newRow("reals") << HXStringWithFormat(u"%.2f %g %e", 3.14159, 0.5, 1500.0)
                           << QStringLiteral("3.14 0.5 1.500000e+03");
    QTest::newRow("string precision")
        << HXStringWithFormat(u"%.3s|%6@|%-4@|", "abcdef", QStringLiteral("ab"),
                              QStringLiteral("c"))
        << QStringLiteral("abc|    ab|c   |");
    QTest::newRow("percent") << HXStringWithFormat(u"100%% of %@", QStringLiteral("it"))
                             << QStringLiteral("100% of it");
    QTest::newRow("character") << HXStringWithFormat(u"%C", 0x263A) << QStringLiteral("\u263A");
    QTest::newRow("star width") << HXStringWithFormat(u"[%*d]", 4, 1) << QStringLiteral("[   1]");
    QTest::newRow("bool and null")
        << HXStringWithFormat(u"%@ %@", true, QVariant()) << QStringLiteral("1 (null)");
}

void tst_HXFoundation::formatConversions() {
    QFETCH(QString, result);
    QFETCH(QString, expected);
    QCOMPARE(result, expected);
}

void tst_HXFoundation::formatOddities() {
    // Missing arguments give nothing; an unknown conversion stays as it is written; a lone "%"
    // at the end is kept.
    QCOMPARE(HXStringWithFormat(u"%@ and %@", QStringLiteral("one")), QStringLiteral("one and "));
    QCOMPARE(HXStringWithFormat(u"%y %@", 1), QStringLiteral("%y 1"));
    QCOMPARE(HXStringWithFormat(u"50%"), QStringLiteral("50%"));

    // Pointers print as hexadecimal addresses, as the log's thread address does.
    int value = 0;
    const QString pointer = HXStringWithFormat(u"%p", &value);
    QVERIFY(pointer.startsWith(QStringLiteral("0x")));
    QCOMPARE(pointer.mid(2).toULongLong(nullptr, 16), quint64(quintptr(&value)));
    QCOMPARE(HXStringWithFormat(u"%p", nullptr), QStringLiteral("0x0"));
}

void tst_HXFoundation::descriptions() {
    const QVariantList list{1, QStringLiteral("two words"),
                            QVariantMap{{QStringLiteral("k"), 2.5}}};
    QCOMPARE(HXDescription(list),
             QStringLiteral("(\n    1,\n    \"two words\",\n    {\n        k = 2.5;\n    }\n)"));
    QCOMPARE(HXDescription(QVariantList()), QStringLiteral("(\n)"));
    QCOMPARE(HXDescription(QByteArray("\x01\x02\x03\x04\x05", 5)), QStringLiteral("<01020304 05>"));
    QCOMPARE(HXDescription(QDateTime(QDate(2001, 1, 1), QTime(0, 0), Qt::UTC)),
             QStringLiteral("2001-01-01 00:00:00 +0000"));
    QCOMPARE(HXDescription(0.1), QStringLiteral("0.1"));
    // A plain string at the top is not quoted; inside a collection it is when it needs to be.
    QCOMPARE(HXDescription(QStringLiteral("a b")), QStringLiteral("a b"));
}

void tst_HXFoundation::assertionCarriesFormattedText() {
    int evaluations = 0;
    auto check = [&](int chunkLength) {
        HX_ASSERT((++evaluations, chunkLength > 0), u"Chunks must be non-zero length! (%d)",
                  chunkLength);
    };
    check(3);
    QCOMPARE(evaluations, 1);
    try {
        check(0);
        QFAIL("the assertion did not fire");
    } catch (const HXAssertionFailure &failure) {
        QCOMPARE(failure.text(), QStringLiteral("Chunks must be non-zero length! (0)"));
        QCOMPARE(QString::fromUtf8(failure.what()), failure.text());
    }
    QCOMPARE(evaluations, 2);
    // It is a logic error, so generic handlers of those catch it too.
    QVERIFY_THROWS_EXCEPTION(std::logic_error, HX_ASSERT(false, u"text"));
}

void tst_HXFoundation::errors() {
    const HXError plain(QStringLiteral("com.example"), 7);
    QVERIFY(!plain.isNull());
    QVERIFY(HXError().isNull());
    QCOMPARE(plain.localizedDescription(),
             QStringLiteral("The operation couldn’t be completed. (com.example error 7.)"));

    const HXError reason(QStringLiteral("com.example"), 0,
                         {{HXLocalizedFailureReasonErrorKey, QStringLiteral("Bad tag.")}});
    QCOMPARE(reason.localizedFailureReason(), QStringLiteral("Bad tag."));
    QVERIFY(reason.localizedDescription().endsWith(QStringLiteral("Bad tag.")));

    const HXError file = HXError::fileError(HXFileNoSuchFileError, QStringLiteral("/x/y.plist"),
                                            QStringLiteral("No y."), QStringLiteral("Gone."));
    QCOMPARE(file.domain(), HXCocoaErrorDomain);
    QCOMPARE(file.localizedDescription(), QStringLiteral("No y."));
    QCOMPARE(file.userInfo().value(HXFilePathErrorKey).toString(), QStringLiteral("/x/y.plist"));

    HXSetError(nullptr, file); // an absent out-argument is allowed
    HXError target;
    HXSetError(&target, file);
    QCOMPARE(target, file);
}

void tst_HXFoundation::ranges() {
    QCOMPARE(HXNotFound, quint64(0x7fffffffffffffffULL));
    QVERIFY(HXNotFoundRange().isNotFound());
    const HXRange a{2, 5}, b{4, 10};
    QCOMPARE(HXIntersectionRange(a, b), (HXRange{4, 3}));
    QCOMPARE(HXUnionRange(a, b), (HXRange{2, 12}));
    // Ranges that only touch have an empty intersection at the touching point; apart, at 0.
    QCOMPARE(HXIntersectionRange(HXRange{0, 2}, HXRange{2, 2}), (HXRange{2, 0}));
    QCOMPARE(HXIntersectionRange(HXRange{0, 2}, HXRange{5, 2}), (HXRange{0, 0}));
    QVERIFY(HXLocationInRange(6, a));
    QVERIFY(!HXLocationInRange(7, a));
    QVERIFY(a.containsRange(HXRange{7, 0}));
    QVERIFY(!a.containsRange(HXRange{6, 2}));
}

void tst_HXFoundation::localizedStrings() {
    QCOMPARE(HXLocalizedString(QStringLiteral("plistBadData"), QStringLiteral("Utilities")),
             QStringLiteral("The data is not valid Base64."));
    QCOMPARE(HXLocalizedString(QStringLiteral("noSuchKey"), QStringLiteral("Utilities")),
             QStringLiteral("noSuchKey"));
    QCOMPARE(HXLocalizedString(QStringLiteral("plistBadData"), QStringLiteral("NoSuchTable")),
             QStringLiteral("plistBadData"));
}

HX_TEST_MAIN(tst_HXFoundation)
#include "tst_HXFoundation.moc"
