// Batched writes: many changes cost one write, a write now empties the batch, a change during
// a write schedules the next, and a late call after the owner is gone does nothing. Also the
// notification center: observers filtered by sender, and removal, even during a post.

#include "HXTestSupport.h"
#include "Utilities/HXBatchedWrite.h"
#include "Utilities/HXNotificationCenter.h"

#include <QElapsedTimer>

#include <atomic>

using namespace std::chrono_literals;
using namespace Qt::StringLiterals;

namespace {

void spin(int milliseconds) {
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < milliseconds)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
}

} // namespace

class tst_HXBatchedWrite : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void manyChangesOneWrite();
    void writeNowEmptiesTheBatch();
    void changeDuringWriteSchedulesAnother();
    void lateCallAfterOwnerIsGone();
    void notificationObservers();
};

void tst_HXBatchedWrite::manyChangesOneWrite() {
    std::atomic<int> writes{0};
    QElapsedTimer clock;
    qint64 writtenAt = -1;
    HXBatchedWrite batch(300ms, [&] {
        ++writes;
        writtenAt = clock.elapsed();
    });
    clock.start();
    QVERIFY(batch.noteChanged());
    for (int i = 0; i < 19; ++i) {
        QVERIFY(!batch.noteChanged());
        spin(5);
    }
    spin(700);
    QCOMPARE(writes.load(), 1);
    // Written one delay after the first change, not after the last.
    QVERIFY(writtenAt >= 300);
}

void tst_HXBatchedWrite::writeNowEmptiesTheBatch() {
    int writes = 0;
    HXBatchedWrite batch(100ms, [&] { ++writes; });
    QVERIFY(!batch.writeIfNeeded()); // nothing pending: no write
    batch.noteChanged();
    QVERIFY(batch.writeIfNeeded());
    QCOMPARE(writes, 1);
    spin(250); // the scheduled call comes and finds nothing to do
    QCOMPARE(writes, 1);
}

void tst_HXBatchedWrite::changeDuringWriteSchedulesAnother() {
    int writes = 0;
    HXBatchedWrite *self = nullptr;
    HXBatchedWrite batch(50ms, [&] {
        if (++writes == 1)
            self->noteChanged(); // a change that arrives while the data is written
    });
    self = &batch;
    batch.noteChanged();
    spin(300);
    QCOMPARE(writes, 2);
}

void tst_HXBatchedWrite::lateCallAfterOwnerIsGone() {
    std::atomic<int> writes{0};
    {
        HXBatchedWrite batch(50ms, [&] { ++writes; });
        batch.noteChanged();
    }
    spin(200);
    QCOMPARE(writes.load(), 0);
}

void tst_HXBatchedWrite::notificationObservers() {
    const auto center = HXNotificationCenter::create();
    int any = 0, fromOne = 0;
    int sender = 0, other = 0;
    auto all = center->addObserver(
        u"N"_s, [&](const HXNotification &n) { any += n.userInfo.value(u"add"_s).toInt(); });
    auto one = center->addObserver(
        u"N"_s, [&](const HXNotification &) { ++fromOne; }, &sender);
    center->post(u"N"_s, &sender, {{u"add"_s, 2}});
    center->post(u"N"_s, &other, {{u"add"_s, 3}});
    center->post(u"Other"_s, &sender);
    QCOMPARE(any, 5);
    QCOMPARE(fromOne, 1);
    all.reset();
    center->post(u"N"_s, &sender, {{u"add"_s, 100}});
    QCOMPARE(any, 5);
    QCOMPARE(fromOne, 2);

    // An observer that removes a later one during a post: the later one is skipped.
    HXNotificationObservation later;
    auto remover = center->addObserver(u"R"_s, [&](const HXNotification &) { later.reset(); });
    bool laterCalled = false;
    later = center->addObserver(u"R"_s, [&](const HXNotification &) { laterCalled = true; });
    center->post(u"R"_s);
    QVERIFY(!laterCalled);
}

HX_TEST_MAIN(tst_HXBatchedWrite)
#include "tst_HXBatchedWrite.moc"
