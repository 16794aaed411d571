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

using namespace Qt::StringLiterals;

class tst_HXFoundation : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void formatConversions_data();
    void formatConversions();
    void descriptions();
    void assertionCarriesFormattedText();
    void errors();
    void ranges();
    void localizedStrings();
};

void tst_HXFoundation::formatConversions_data() {
    QTest::addColumn<QString>("result");
    QTest::addColumn<QString>("expected");

    QTest::newRow("object") << HXStringWithFormat(u"Given: %@ for %@.", u"x"_s, 5)
                            << u"Given: x for 5."_s;
    QTest::newRow("negative") << HXStringWithFormat(u"%d|%ld|%lld", -1, -2L, -3LL) << u"-1|-2|-3"_s;
    QTest::newRow("unsigned 64-bit") << HXStringWithFormat(u"%lu", quint64(18446744073709551615ULL))
                                     << u"18446744073709551615"_s;
    QTest::newRow("width and flags") << HXStringWithFormat(u"[%5d][%-5d][%05d][%+d]", 42, 42, 42, 7)
                                     << u"[   42][42   ][00042][+7]"_s;
    QTest::newRow("hex") << HXStringWithFormat(u"U+%04X %x", 0xe9, 255u) << u"U+00E9 ff"_s;
    QTest::newRow("reals") << HXStringWithFormat(u"%.2f %g %e", 3.14159, 0.5, 1500.0)
                           << u"3.14 0.5 1.500000e+03"_s;
    QTest::newRow("string precision")
        << HXStringWithFormat(u"%.3s|%6@|%-4@|", "abcdef", u"ab"_s, u"c"_s)
        << u"abc|    ab|c   |"_s;
    QTest::newRow("percent") << HXStringWithFormat(u"100%% of %@", u"it"_s) << u"100% of it"_s;
    QTest::newRow("character") << HXStringWithFormat(u"%C", 0x263A) << u"\u263A"_s;
    QTest::newRow("star width") << HXStringWithFormat(u"[%*d]", 4, 1) << u"[   1]"_s;
    QTest::newRow("bool and null")
        << HXStringWithFormat(u"%@ %@", true, QVariant()) << u"1 (null)"_s;
    // Missing arguments give nothing; an unknown conversion stays as it is written; a lone "%"
    // at the end is kept.
    QTest::newRow("missing argument")
        << HXStringWithFormat(u"%@ and %@", u"one"_s) << u"one and "_s;
    QTest::newRow("unknown conversion") << HXStringWithFormat(u"%y %@", 1) << u"%y 1"_s;
    QTest::newRow("lone percent") << HXStringWithFormat(u"50%") << u"50%"_s;
    // Pointers print as hexadecimal addresses, as the log's thread address does.
    static const int value = 0;
    QTest::newRow("pointer") << HXStringWithFormat(u"%p", &value)
                             << u"0x"_s + QString::number(quintptr(&value), 16);
    QTest::newRow("null pointer") << HXStringWithFormat(u"%p", nullptr) << u"0x0"_s;
}

void tst_HXFoundation::formatConversions() {
    QFETCH(QString, result);
    QFETCH(QString, expected);
    QCOMPARE(result, expected);
}

void tst_HXFoundation::descriptions() {
    const QVariantList list{1, u"two words"_s, QVariantMap{{u"k"_s, 2.5}}};
    QCOMPARE(HXDescription(list),
             u"(\n    1,\n    \"two words\",\n    {\n        k = 2.5;\n    }\n)"_s);
    QCOMPARE(HXDescription(QVariantList()), u"(\n)"_s);
    QCOMPARE(HXDescription(QByteArray("\x01\x02\x03\x04\x05", 5)), u"<01020304 05>"_s);
    QCOMPARE(HXDescription(QDateTime(QDate(2001, 1, 1), QTime(0, 0), Qt::UTC)),
             u"2001-01-01 00:00:00 +0000"_s);
    QCOMPARE(HXDescription(0.1), u"0.1"_s);
    // A plain string at the top is not quoted; inside a collection it is when it needs to be.
    QCOMPARE(HXDescription(u"a b"_s), u"a b"_s);
}

void tst_HXFoundation::assertionCarriesFormattedText() {
    int evaluations = 0;
    auto check = [&](int chunkLength) {
        HX_ASSERT((++evaluations, chunkLength > 0), u"Chunks must be non-zero length! (%d)",
                  chunkLength);
    };
    check(3);
    try {
        check(0);
        QFAIL("the assertion did not fire");
    } catch (const HXAssertionFailure &failure) {
        QCOMPARE(failure.text(), u"Chunks must be non-zero length! (0)"_s);
        QCOMPARE(QString::fromUtf8(failure.what()), failure.text());
    }
    // The condition is evaluated once per check.
    QCOMPARE(evaluations, 2);
    // It is a logic error, so generic handlers of those catch it too.
    QVERIFY_THROWS_EXCEPTION(std::logic_error, HX_ASSERT(false, u"text"));
}

void tst_HXFoundation::errors() {
    QCOMPARE(HXError(u"com.example"_s, 7).localizedDescription(),
             u"The operation couldn’t be completed. (com.example error 7.)"_s);
    const HXError reason(u"com.example"_s, 0, {{HXLocalizedFailureReasonErrorKey, u"Bad tag."_s}});
    QCOMPARE(reason.localizedFailureReason(), u"Bad tag."_s);
    QVERIFY(reason.localizedDescription().endsWith(u"Bad tag."_s));

    const HXError file =
        HXError::fileError(HXFileNoSuchFileError, u"/x/y.plist"_s, u"No y."_s, u"Gone."_s);
    // A description, when there is one, wins over the generic text and the reason.
    QCOMPARE(file.localizedDescription(), u"No y."_s);

    HXSetError(nullptr, file); // an absent out-argument is allowed
    HXError target;
    HXSetError(&target, file);
    QCOMPARE(target, file);
}

void tst_HXFoundation::ranges() {
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
    QCOMPARE(HXLocalizedString(u"plistBadData"_s, u"Utilities"_s),
             u"The data is not valid Base64."_s);
    QCOMPARE(HXLocalizedString(u"noSuchKey"_s, u"Utilities"_s), u"noSuchKey"_s);
    QCOMPARE(HXLocalizedString(u"plistBadData"_s, u"NoSuchTable"_s), u"plistBadData"_s);
}

HX_TEST_MAIN(tst_HXFoundation)
#include "tst_HXFoundation.moc"
