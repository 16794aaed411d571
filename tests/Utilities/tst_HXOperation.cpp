// Operations and operation queues: dependencies across queues, cancellation, suspension and
// priorities, the concurrency limit, and waits inside operations on a pool too small for them.

#include "HXTestSupport.h"
#include "Utilities/HXDispatchQueue.h"
#include "Utilities/HXOperationQueue.h"

#include <QMutex>
#include <QRandomGenerator>
#include <QScopeGuard>
#include <QThread>
#include <QThreadPool>

#include <algorithm>
#include <atomic>
#include <numeric>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

// Waits, spinning the event loop, until the queues are empty or ten seconds pass.
bool drained(std::initializer_list<std::shared_ptr<HXOperationQueue>> queues) {
    return QTest::qWaitFor(
        [&] {
            return std::all_of(queues.begin(), queues.end(),
                               [](const auto &queue) { return queue->operationCount() == 0; });
        },
        10000);
}

// Records the order in which operations finish their work.
struct Recorder {
    QMutex mutex;
    std::vector<int> order;

    std::shared_ptr<HXOperation> operation(int index) {
        return HXOperation::blockOperation([this, index] {
            QMutexLocker locker(&mutex);
            order.push_back(index);
        });
    }
};

} // namespace

class tst_HXOperation : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void randomDependenciesAcrossQueues();
    void cancellation();
    void suspensionAndPriority();
    void concurrencyLimit();
    void waitsInsideOperationsDoNotStarveThePool();
};

void tst_HXOperation::randomDependenciesAcrossQueues() {
    const quint32 seed = QRandomGenerator::global()->generate();
    QRandomGenerator random(seed);
    const QByteArray context = "seed " + QByteArray::number(seed);
    for (int round = 0; round < 5; ++round) {
        const auto queues = {HXOperationQueue::create(u"a"_s), HXOperationQueue::create(u"b"_s)};
        const int count = 50;
        Recorder recorder;
        std::vector<std::shared_ptr<HXOperation>> operations;
        for (int i = 0; i < count; ++i) {
            operations.push_back(recorder.operation(i));
            operations.back()->setQueuePriority(int(random.bounded(3)));
            for (int j = 0; j < i; ++j) {
                if (random.bounded(10) == 0)
                    operations.back()->addDependency(operations[size_t(j)]);
            }
        }
        // Added in random order, so that many wait for operations not yet on any queue.
        std::vector<int> additions(count);
        std::iota(additions.begin(), additions.end(), 0);
        std::shuffle(additions.begin(), additions.end(), random);
        for (const int i : additions)
            queues.begin()[random.bounded(2)]->addOperation(operations[size_t(i)]);
        QVERIFY2(drained(queues), context);

        QCOMPARE(int(recorder.order.size()), count);
        std::vector<int> position(count);
        for (int p = 0; p < count; ++p)
            position[size_t(recorder.order[size_t(p)])] = p;
        for (int i = 0; i < count; ++i) {
            QVERIFY2(operations[size_t(i)]->isFinished(), context);
            for (const auto &dependency : operations[size_t(i)]->dependencies()) {
                const auto j = std::find(operations.begin(), operations.end(), dependency) -
                               operations.begin();
                QVERIFY2(position[size_t(j)] < position[size_t(i)], context);
            }
        }
    }
}

void tst_HXOperation::cancellation() {
    // Before starting: no work, yet a completion, and the dependents run; a cancelled operation
    // doesn't wait for its own dependencies.
    const auto queue = HXOperationQueue::create(u"cancel"_s);
    queue->setSuspended(true);
    std::atomic<int> ran{0}, completed{0};
    const auto cancelled = HXOperation::blockOperation([&] { ran += 100; });
    cancelled->setCompletionBlock([&] { ++completed; });
    const auto dependent = HXOperation::blockOperation([&] { ++ran; });
    dependent->addDependency(cancelled);
    const auto never = HXOperation::blockOperation([] {});
    const auto blocked = HXOperation::blockOperation([&] { ran += 100; });
    blocked->addDependency(never);
    queue->addOperations({dependent, blocked, cancelled}, false);
    cancelled->cancel();
    blocked->cancel();
    queue->setSuspended(false);
    QVERIFY(drained({queue}));
    QTRY_COMPARE(completed.load(), 1);
    QCOMPARE(ran.load(), 1);
    QVERIFY(cancelled->isFinished() && cancelled->isCancelled() && blocked->isFinished());

    // Misuse is an assertion: starting an operation that isn't ready, adding one twice.
    const auto waiting = HXOperation::blockOperation([] {});
    waiting->addDependency(never);
    QVERIFY(HXTestSupport::assertionText([&] { waiting->start(); }).contains(u"not ready"_s));
    QVERIFY(HXTestSupport::assertionText([&] {
                HXOperationQueue::create(u"other"_s)->addOperation(dependent);
            }).contains(u"on a queue already"_s));

    // While running: the operation sees the cancellation and ends itself.
    std::atomic<bool> started{false}, sawCancellation{false};
    std::shared_ptr<HXOperation> running;
    running = HXOperation::blockOperation([&] {
        started = true;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!running->isCancelled() && std::chrono::steady_clock::now() < deadline)
            QThread::msleep(1);
        sawCancellation = running->isCancelled();
    });
    queue->addOperation(running);
    QTRY_VERIFY(started.load());
    QVERIFY(running->isExecuting() && !running->isFinished());
    running->cancel();
    QTRY_VERIFY(running->isFinished());
    QVERIFY(sawCancellation.load());

    // A failing operation is logged and still finishes, and its dependents run.
    const auto failing =
        HXOperation::blockOperation([] { HX_ASSERT(false, u"deliberate failure"); });
    const auto after = HXOperation::blockOperation([&] { ++ran; });
    after->addDependency(failing);
    queue->addOperations({after, failing}, false);
    QVERIFY(drained({queue}));
    QCOMPARE(ran.load(), 2);
}

void tst_HXOperation::suspensionAndPriority() {
    // Nothing starts while suspended; once resumed, one at a time, the highest priority first and
    // the earliest added among equals.
    const auto queue = HXOperationQueue::create(u"suspended"_s);
    queue->setSuspended(true);
    queue->setMaxConcurrentOperationCount(1);
    Recorder recorder;
    std::vector<std::pair<int, int>> expected;
    for (int i = 0; i < 20; ++i) {
        const int priority = int(QRandomGenerator::global()->bounded(4));
        auto operation = recorder.operation(i);
        operation->setQueuePriority(priority);
        queue->addOperation(operation);
        expected.emplace_back(-priority, i);
    }
    QTest::qWait(50);
    QVERIFY(recorder.order.empty());
    QCOMPARE(queue->operationCount(), 20);
    queue->setSuspended(false);
    QVERIFY(drained({queue}));
    std::sort(expected.begin(), expected.end());
    std::vector<int> order;
    for (const auto &[priority, index] : expected)
        order.push_back(index);
    QCOMPARE(recorder.order, order);
}

void tst_HXOperation::concurrencyLimit() {
    const auto queue = HXOperationQueue::create(u"limited"_s);
    queue->setMaxConcurrentOperationCount(2);
    std::atomic<int> running{0}, peak{0};
    QList<std::shared_ptr<HXOperation>> operations;
    for (int i = 0; i < 20; ++i) {
        operations.append(HXOperation::blockOperation([&] {
            const int now = ++running;
            int seen = peak.load();
            while (now > seen && !peak.compare_exchange_weak(seen, now)) {
            }
            QThread::msleep(5);
            --running;
        }));
    }
    queue->addOperations(operations, false);
    QVERIFY(drained({queue}));
    QCOMPARE(peak.load(), 2);
}

void tst_HXOperation::waitsInsideOperationsDoNotStarveThePool() {
    // Six operations each wait for one added after them, on a pool of two threads: only if a
    // waiting operation gives its thread back can the awaited ones run.
    QThreadPool *pool = HXDispatchQueue::threadPool();
    const int previousMaximum = pool->maxThreadCount();
    pool->setMaxThreadCount(2);
    const auto restore = qScopeGuard([&] { pool->setMaxThreadCount(previousMaximum); });

    const auto queue = HXOperationQueue::create(u"starving"_s);
    std::atomic<int> done{0};
    std::vector<std::shared_ptr<HXOperation>> awaited;
    for (int i = 0; i < 6; ++i)
        awaited.push_back(HXOperation::blockOperation([&] { ++done; }));
    for (int i = 0; i < 6; ++i) {
        queue->addOperationWithBlock([&, i] {
            awaited[size_t(i)]->waitUntilFinished();
            ++done;
        });
    }
    for (const auto &operation : awaited)
        queue->addOperation(operation);
    const bool finished = QTest::qWaitFor([&] { return done.load() == 12; }, 10000);
    if (!finished) {
        // Free the stuck threads, so that the failure doesn't hang the program at its end.
        for (const auto &operation : awaited)
            HXTestSupport::assertionText([&] { operation->start(); });
    }
    QVERIFY(finished);
}

HX_TEST_MAIN(tst_HXOperation)
#include "tst_HXOperation.moc"
