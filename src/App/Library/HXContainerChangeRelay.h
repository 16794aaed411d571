#pragma once

#include "Model/StorageTree/HXContainer.h"

#include <QHash>
#include <QObject>

#include <functional>
#include <memory>
#include <mutex>

// Carries the changes of containers, heard on whatever thread makes them (often a queue of the
// storage or of an operation), to the main thread of a receiver, and coalesces them there: a
// burst of changes of one container and key arrives as one call, after the burst, with the
// container still alive. The receiver reads the container's state anew when called, so nothing
// of the change itself needs to travel.
//
// Owned (shared) by its receiver, which calls `detach` before it goes; containers hold it weakly
// as an observer. `containerDidChange` may be called on any thread; everything else is for the
// main thread but `post`. Invariant: at most one delivery is posted at a time.
class HXContainerChangeRelay : public HXContainerObserver,
                               public std::enable_shared_from_this<HXContainerChangeRelay> {
public:
    using Handler = std::function<void(const std::shared_ptr<HXContainer> &, HXContainerKey)>;

    static std::shared_ptr<HXContainerChangeRelay> create(QObject *receiver, Handler handler);

    void observe(const std::shared_ptr<HXContainer> &container, const QList<HXContainerKey> &keys);
    void unobserve(HXContainer *container, const QList<HXContainerKey> &keys);
    // Nothing is delivered after this.
    void detach();
    // Runs the block on the receiver's thread, from any thread, unless the receiver has gone.
    void post(std::function<void()> block);

    void containerDidChange(HXContainer &container, HXContainerKey key) override;

private:
    HXContainerChangeRelay(QObject *receiver, Handler handler);
    void deliver();

    std::mutex m_mutex;
    QObject *m_receiver;
    Handler m_handler;
    // The changes heard since the last delivery, in the order first heard.
    QList<QPair<std::weak_ptr<HXStorageItem>, HXContainerKey>> m_pending;
    QHash<QPair<const HXContainer *, int>, bool> m_pendingKeys;
    bool m_scheduled = false;
};
