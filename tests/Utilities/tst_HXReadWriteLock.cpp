// The reader-writer lock: its reentrancy table, readers together, writers alone, and no deadlock
// when a reader nests while a writer waits.

#include "HXTestSupport.h"
#include "Utilities/HXDispatchQueue.h"
#include "Utilities/HXReadWriteLock.h"

#include <QSemaphore>
#include <QThread>

#include <atomic>
#include <thread>
#include <vector>

using Mode = HXReadWriteLock::Mode;
using namespace Qt::StringLiterals;

class tst_HXReadWriteLock : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void reentrancyTable();
    void writeWithinReadIsRefused();
    void markerIsClearedWhenABlockThrows();
    void readersRunTogether();
    void writerExcludesReadersUnderLoad();
    void nestedReadWhileWriterWaits();
};

void tst_HXReadWriteLock::reentrancyTable() {
    // Read in read, write in write and read in write run at once, under the outer mode, and hand
    // their values back through both levels. Holding one lock says nothing about another: a
    // write to it inside a read of the first is no write within a read.
    HXReadWriteLock lock, other;
    auto mode = [](HXReadWriteLock &l) { return [&l] { return l.currentMode(); }; };
    const Mode readInRead =
        lock.synchronizedRead([&] { return lock.synchronizedRead(mode(lock)); });
    QCOMPARE(readInRead, Mode::Read);
    const Mode writeInWrite =
        lock.synchronizedWrite([&] { return lock.synchronizedWrite(mode(lock)); });
    QCOMPARE(writeInWrite, Mode::Write);
    const Mode readInWrite =
        lock.synchronizedWrite([&] { return lock.synchronizedRead(mode(lock)); });
    QCOMPARE(readInWrite, Mode::Write);
    const Mode writeInOther =
        lock.synchronizedRead([&] { return other.synchronizedWrite(mode(other)); });
    QCOMPARE(writeInOther, Mode::Write);
    QCOMPARE(lock.currentMode(), Mode::None);
    QCOMPARE(other.currentMode(), Mode::None);
}

void tst_HXReadWriteLock::writeWithinReadIsRefused() {
    HXReadWriteLock lock;
    bool ran = false;
    QString text;
    lock.synchronizedRead([&] {
        try {
            lock.synchronizedWrite([&] { ran = true; });
        } catch (const HXAssertionFailure &failure) {
            text = failure.text();
        }
        // Still inside the read afterwards.
        QCOMPARE(lock.currentMode(), Mode::Read);
    });
    QVERIFY(!ran);
    QCOMPARE(text, u"Recursive call to write operation within a read operation"_s);
}

void tst_HXReadWriteLock::markerIsClearedWhenABlockThrows() {
    HXReadWriteLock lock;
    QVERIFY_THROWS_EXCEPTION(std::runtime_error,
                             lock.synchronizedWrite([] { throw std::runtime_error("x"); }));
    QCOMPARE(lock.currentMode(), Mode::None);
    // The lock is free again: a write from another thread gets through.
    std::atomic<bool> wrote{false};
    std::thread other([&] { lock.synchronizedWrite([&] { wrote = true; }); });
    other.join();
    QVERIFY(wrote.load());
}

void tst_HXReadWriteLock::readersRunTogether() {
    HXReadWriteLock lock;
    QSemaphore inside;
    std::atomic<int> met{0};
    auto reader = [&] {
        lock.synchronizedRead([&] {
            inside.release();
            // Both readers must be inside at once for this to succeed.
            if (inside.tryAcquire(2, 5000)) {
                inside.release(2);
                ++met;
            }
        });
    };
    std::thread a(reader), b(reader);
    a.join();
    b.join();
    QCOMPARE(met.load(), 2);
}

void tst_HXReadWriteLock::writerExcludesReadersUnderLoad() {
    HXReadWriteLock lock;
    // The writer changes two numbers one after the other; a reader that sees them differ saw a
    // write half done.
    long long first = 0, second = 0;
    std::atomic<int> torn{0}, concurrentWriters{0}, activeWriters{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> readers;
    for (int r = 0; r < 4; ++r) {
        readers.emplace_back([&] {
            while (!stop.load()) {
                lock.synchronizedRead([&] {
                    if (first != second)
                        ++torn;
                });
            }
        });
    }
    std::vector<std::thread> writers;
    for (int w = 0; w < 2; ++w) {
        writers.emplace_back([&] {
            for (int i = 0; i < 3000; ++i) {
                lock.synchronizedWrite([&] {
                    if (++activeWriters > 1)
                        ++concurrentWriters;
                    ++first;
                    std::this_thread::yield();
                    ++second;
                    --activeWriters;
                });
            }
        });
    }
    for (auto &w : writers)
        w.join();
    stop = true;
    for (auto &r : readers)
        r.join();
    QCOMPARE(torn.load(), 0);
    QCOMPARE(concurrentWriters.load(), 0);
    QCOMPARE(first, 6000LL);
}

void tst_HXReadWriteLock::nestedReadWhileWriterWaits() {
    // A reader holds the lock; a writer queues behind it; the reader then reads again. The
    // nested read must run at once instead of queueing behind the writer.
    HXReadWriteLock lock;
    QSemaphore readerInside, writerQueued;
    std::atomic<bool> nestedRan{false}, writerRan{false};
    std::thread reader([&] {
        lock.synchronizedRead([&] {
            readerInside.release();
            writerQueued.acquire();
            QThread::msleep(20);
            lock.synchronizedRead([&] { nestedRan = true; });
        });
    });
    readerInside.acquire();
    std::thread writer([&] {
        writerQueued.release();
        lock.synchronizedWrite([&] { writerRan = true; });
    });
    reader.join();
    writer.join();
    QVERIFY(nestedRan.load());
    QVERIFY(writerRan.load());
}

HX_TEST_MAIN(tst_HXReadWriteLock)
#include "tst_HXReadWriteLock.moc"
