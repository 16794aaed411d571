// Dispatch queues: order on serial queues, exclusion of barriers, the main queue on the event
// loop, delayed blocks, and synchronous dispatch from a saturated pool.

#include "HXTestSupport.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXDispatchQueue.h"

#include <QElapsedTimer>
#include <QMutex>
#include <QSemaphore>
#include <QSet>
#include <QThread>
#include <QThreadPool>

#include <atomic>
#include <vector>

using namespace std::chrono_literals;
using namespace Qt::StringLiterals;

namespace {

// Waits, spinning the event loop, until `count` reaches `target` or ten seconds pass.
bool waitFor(const std::atomic<int> &count, int target) {
    QElapsedTimer timer;
    timer.start();
    while (count.load() < target && timer.elapsed() < 10000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    return count.load() >= target;
}

} // namespace

class tst_HXDispatchQueue : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void serialQueuesKeepOrderAndShareOnePool();
    void concurrentQueueRunsSideBySide();
    void barrierRunsAloneUnderLoad();
    void syncWaitsItsTurnOnTheCallingThread();
    void syncFromSaturatedPoolCompletes();
    void mainQueueRunsOnTheEventLoop();
    void afterWaitsForItsDelay();
    void throwingBlockDoesNotStopTheQueue();
};

void tst_HXDispatchQueue::serialQueuesKeepOrderAndShareOnePool() {
    // Each queue runs its own blocks one at a time and in order, whatever the others do.
    const int queues = 64, blocks = 40;
    struct PerQueue {
        std::shared_ptr<HXDispatchQueue> queue;
        std::vector<int> order;
        std::atomic<int> active{0};
        bool overlapped = false;
    };
    std::vector<PerQueue> all(queues);
    QMutex threadsMutex;
    QSet<QThread *> threads;
    std::atomic<int> done{0};
    for (int q = 0; q < queues; ++q)
        all[size_t(q)].queue = HXDispatchQueue::create(u"q%1"_s.arg(q));
    for (int b = 0; b < blocks; ++b) {
        for (int q = 0; q < queues; ++q) {
            PerQueue &p = all[size_t(q)];
            p.queue->async([&, b] {
                if (++p.active > 1)
                    p.overlapped = true;
                p.order.push_back(b);
                {
                    QMutexLocker locker(&threadsMutex);
                    threads.insert(QThread::currentThread());
                }
                --p.active;
                ++done;
            });
        }
    }
    QVERIFY(waitFor(done, queues * blocks));
    for (const PerQueue &p : all) {
        QVERIFY(!p.overlapped);
        for (int b = 0; b < blocks; ++b)
            QCOMPARE(p.order[size_t(b)], b);
    }
    // 64 queues, yet no more threads than the shared pool has.
    QVERIFY2(threads.size() <= HXDispatchQueue::threadPool()->maxThreadCount(),
             qPrintable(QString::number(threads.size())));
}

void tst_HXDispatchQueue::concurrentQueueRunsSideBySide() {
    // Two blocks that each wait for the other can only finish if they run at the same time.
    const auto queue = HXDispatchQueue::create(u"concurrent"_s, HXDispatchQueue::Kind::Concurrent);
    QSemaphore first, second;
    std::atomic<int> done{0};
    queue->async([&] {
        first.release();
        if (second.tryAcquire(1, 5000))
            ++done;
    });
    queue->async([&] {
        second.release();
        if (first.tryAcquire(1, 5000))
            ++done;
    });
    QVERIFY(waitFor(done, 2));
}

void tst_HXDispatchQueue::barrierRunsAloneUnderLoad() {
    const auto queue = HXDispatchQueue::create(u"barriers"_s, HXDispatchQueue::Kind::Concurrent);
    std::atomic<int> readers{0}, done{0}, violations{0};
    std::atomic<bool> inBarrier{false};
    // The generation a reader saw when it was queued must be the one it sees when it runs:
    // barriers queued before it have run, those queued after it have not.
    std::atomic<int> generation{0};
    int expectedGeneration = 0, total = 0;
    for (int round = 0; round < 40; ++round) {
        for (int r = 0; r < 25; ++r, ++total) {
            queue->async([&, expected = expectedGeneration] {
                ++readers;
                if (inBarrier.load() || generation.load() != expected)
                    ++violations;
                QThread::usleep(20);
                --readers;
                ++done;
            });
        }
        ++expectedGeneration;
        ++total;
        queue->asyncBarrier([&] {
            inBarrier = true;
            if (readers.load() != 0)
                ++violations;
            QThread::usleep(50);
            ++generation;
            inBarrier = false;
            ++done;
        });
    }
    QVERIFY(waitFor(done, total));
    QCOMPARE(violations.load(), 0);
    QCOMPARE(generation.load(), 40);
}

void tst_HXDispatchQueue::syncWaitsItsTurnOnTheCallingThread() {
    const auto queue = HXDispatchQueue::create(u"sync"_s);
    std::atomic<int> ran{0};
    for (int i = 0; i < 100; ++i)
        queue->async([&] {
            QThread::usleep(10);
            ++ran;
        });
    int seen = -1;
    QThread *thread = nullptr;
    queue->sync([&] {
        seen = ran.load();
        thread = QThread::currentThread();
    });
    QCOMPARE(seen, 100);
    QCOMPARE(thread, QThread::currentThread());

    // From a block of the same serial queue it is a certain deadlock, hence an assertion.
    const QString text =
        HXTestSupport::assertionText([&] { queue->sync([&] { queue->sync([] {}); }); });
    QVERIFY2(text.contains(u"would deadlock"_s), qPrintable(text));

    // A synchronous barrier on a concurrent queue waits for blocks before it; a plain
    // synchronous block from inside one of the queue's own blocks runs at once.
    const auto concurrent = HXDispatchQueue::create(u"c"_s, HXDispatchQueue::Kind::Concurrent);
    std::atomic<int> slow{0};
    for (int i = 0; i < 8; ++i)
        concurrent->async([&] {
            QThread::msleep(5);
            ++slow;
        });
    concurrent->syncBarrier([&] { seen = slow.load(); });
    QCOMPARE(seen, 8);
    bool inner = false;
    concurrent->sync([&] { concurrent->sync([&] { inner = true; }); });
    QVERIFY(inner);
}

void tst_HXDispatchQueue::syncFromSaturatedPoolCompletes() {
    // Every pool thread blocks in a synchronous dispatch onto a serial queue whose own blocks
    // need a pool thread to run. Without the pool growing while they wait, this would hang.
    const auto target = HXDispatchQueue::create(u"target"_s);
    const auto outer = HXDispatchQueue::create(u"outer"_s, HXDispatchQueue::Kind::Concurrent);
    const int blockers = HXDispatchQueue::threadPool()->maxThreadCount() * 2;
    std::atomic<int> done{0};
    QSemaphore gate;
    target->async([&] { gate.acquire(); });
    for (int i = 0; i < blockers; ++i)
        outer->async([&] {
            target->sync([] {});
            ++done;
        });
    QThread::msleep(50);
    target->async([] {});
    gate.release();
    QVERIFY(waitFor(done, blockers));
}

void tst_HXDispatchQueue::mainQueueRunsOnTheEventLoop() {
    const auto main = HXDispatchQueue::mainQueue();
    QCOMPARE(HXDispatchQueue::current(), main.get());
    QVERIFY(HXDispatchQueue::isMainThread());

    std::vector<int> order;
    std::atomic<int> done{0};
    std::atomic<bool> allOnMain{true};
    const auto worker = HXDispatchQueue::create(u"worker"_s);
    worker->async([&] {
        if (HXDispatchQueue::isMainThread())
            allOnMain = false;
        for (int i = 0; i < 50; ++i)
            main->async([&, i] {
                if (!HXDispatchQueue::isMainThread())
                    allOnMain = false;
                order.push_back(i);
                ++done;
            });
        // A synchronous dispatch from a worker runs on the main thread and returns after it.
        bool ranOnMain = false;
        main->sync([&] { ranOnMain = HXDispatchQueue::isMainThread(); });
        if (ranOnMain)
            ++done;
    });
    QVERIFY(waitFor(done, 51));
    QVERIFY(allOnMain);
    for (int i = 0; i < 50; ++i)
        QCOMPARE(order[size_t(i)], i);
}

void tst_HXDispatchQueue::afterWaitsForItsDelay() {
    // Scheduled late-first: each waits for its own delay, and the earlier deadline runs first.
    const auto queue = HXDispatchQueue::create(u"later"_s);
    QElapsedTimer timer;
    timer.start();
    std::atomic<qint64> firstAt{-1}, secondAt{-1};
    std::atomic<int> done{0};
    queue->after(120ms, [&] {
        secondAt = timer.elapsed();
        ++done;
    });
    queue->after(40ms, [&] {
        firstAt = timer.elapsed();
        ++done;
    });
    HXDispatchQueue::mainQueue()->after(60ms, [&] { ++done; });
    QVERIFY(waitFor(done, 3));
    QVERIFY(firstAt.load() >= 40);
    QVERIFY(secondAt.load() >= 120);
    QVERIFY(firstAt.load() < secondAt.load());
}

void tst_HXDispatchQueue::throwingBlockDoesNotStopTheQueue() {
    const auto queue = HXDispatchQueue::create(u"throws"_s);
    std::atomic<int> done{0};
    queue->async([] { HX_ASSERT(false, u"deliberate failure in a block"); });
    queue->async([&] { ++done; });
    QVERIFY(waitFor(done, 1));

    // A synchronous block's exception reaches its caller, and the queue goes on.
    QVERIFY_THROWS_EXCEPTION(HXAssertionFailure, queue->sync([] { HX_ASSERT(false, u"x"); }));
    queue->async([&] { ++done; });
    QVERIFY(waitFor(done, 2));
}

HX_TEST_MAIN(tst_HXDispatchQueue)
#include "tst_HXDispatchQueue.moc"
