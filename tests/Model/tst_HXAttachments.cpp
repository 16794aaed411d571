// Attachments: the goal's stored text and info-file dictionary, keywords and their merge, notes
// whose text changes reach the owner, files compared by bytes, and copies.

#include "HXTestSupport.h"
#include "Model/Attachments/HXCountingGoal.h"
#include "Model/Attachments/HXFileAttachment.h"
#include "Model/Attachments/HXKeywordsAttachment.h"
#include "Model/Attachments/HXNoteAttachment.h"
#include "Text/Markup/HXMarkup.h"

using namespace Qt::StringLiterals;

namespace {

struct CountingOwner : HXAttachmentOwner {
    int changes = 0;
    void attachmentDidChange(HXAttachment &) override { ++changes; }
};

} // namespace

class tst_HXAttachments : public QObject {
    Q_OBJECT

private slots:
    void goalText_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("stored");
        QTest::addColumn<bool>("empty");
        QTest::newRow("whole") << "words;at_least;1500"
                               << "words;at_least;1500" << false;
        QTest::newRow("unknown type") << "pages;sideways;3"
                                      << "pages;close_to;3" << false;
        QTest::newRow("fraction") << "pages;at_most;2.5"
                                  << "pages;at_most;2.5" << false;
        QTest::newRow("no target keeps the defaults") << "words;at_least"
                                                      << "characters;close_to;0" << true;
        QTest::newRow("zero target") << "words;at_most;0"
                                     << "words;at_most;0" << true;
    }
    void goalText() {
        QFETCH(QString, text);
        QFETCH(QString, stored);
        QFETCH(bool, empty);
        HXCountingGoal goal;
        goal.setWithStoredText(text);
        QCOMPARE(goal.storedText(), stored);
        QCOMPARE(goal.isEmpty(), empty);
        const auto copy = goal.copy();
        QVERIFY(copy->isEqual(goal) && goal.isEqual(*copy));
    }

    void goalPropertyList() {
        HXCountingGoal goal;
        goal.setWithStoredText(u"words;at_least;100"_s);
        goal.setWithPropertyListRepresentation(u"no dictionary"_s);
        goal.setWithPropertyListRepresentation(
            QVariantMap{{u"counterIdentifier"_s, QString()}, {u"type"_s, u"at_most"_s}});
        QCOMPARE(goal.storedText(), u"words;at_most;100"_s);
        HXCountingGoal other;
        other.setWithPropertyListRepresentation(goal.propertyListRepresentation());
        QVERIFY(other.isEqual(goal));
    }

    void keywords() {
        auto owner = std::make_shared<CountingOwner>();
        HXKeywordsAttachment target, source;
        target.setOwner(owner);
        target.setKeywords({u"draft"_s, u"moon"_s});
        target.setKeywords({u"draft"_s, u"moon"_s}); // equal: no change
        QCOMPARE(owner->changes, 1);
        source.setKeywords({u"moon"_s, u"sea"_s, u"draft"_s, u"ash"_s});
        HXKeywordsAttachment::mergeKeywordsAttachment(source, target);
        QCOMPARE(target.keywords(), (QStringList{u"draft"_s, u"moon"_s, u"sea"_s, u"ash"_s}));
        QCOMPARE(HXTestSupport::assertionText([&] { target.setKeywords({u"a,b"_s}); }),
                 u"Separator ',' inside keyword: a,b"_s);
        QVERIFY(!target.copy()->owner().lock());
    }

    void notes() {
        const auto markdown = HXMarkup::intrinsicMarkups().value(u"markdown"_s);
        const auto markdownqr = HXMarkup::intrinsicMarkups().value(u"markdownqr"_s);
        auto owner = std::make_shared<CountingOwner>();
        const auto note = HXNoteAttachment::noteWithMarkup(markdownqr);
        note->setOwner(owner);
        QVERIFY(note->isEmpty());
        note->text()->setString(u"a *b*"_s);
        QVERIFY(owner->changes > 0 && !note->isEmpty());
        const auto copy = note->copy();
        QVERIFY(copy->isEqual(*note));
        // A replaced text is no longer observed.
        const auto old = note->text();
        note->setText(HXAtomicString::stringWithMarkup(markdownqr));
        const int changes = owner->changes;
        old->setString(u"elsewhere"_s);
        QCOMPARE(owner->changes, changes);
        note->setMarkup(markdown);
        QCOMPARE(note->text()->markup(), markdown);
    }

    void files() {
        HXFileAttachment a, b;
        QVERIFY(a.isEmpty() && a.isEqual(b));
        a.setFileWrapper(HXFileWrapper::regularFileWithContents("png", u"a.png"_s));
        b.setFileWrapper(HXFileWrapper::regularFileWithContents("png", u"b.png"_s));
        QVERIFY(a.isEqual(b));
        b.setFileWrapper(HXFileWrapper::regularFileWithContents("gif", u"b.gif"_s));
        QVERIFY(!a.isEqual(b) && !a.isEqual(HXKeywordsAttachment()));
    }
};

HX_TEST_MAIN(tst_HXAttachments)
#include "tst_HXAttachments.moc"
