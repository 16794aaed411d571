#include "App/Library/HXContainerChangeRelay.h"

#include <QMetaObject>

std::shared_ptr<HXContainerChangeRelay> HXContainerChangeRelay::create(QObject *receiver,
                                                                       Handler handler) {
    return std::shared_ptr<HXContainerChangeRelay>(
        new HXContainerChangeRelay(receiver, std::move(handler)));
}

HXContainerChangeRelay::HXContainerChangeRelay(QObject *receiver, Handler handler)
    : m_receiver(receiver)
    , m_handler(std::move(handler)) {}

void HXContainerChangeRelay::observe(const std::shared_ptr<HXContainer> &container,
                                     const QList<HXContainerKey> &keys) {
    for (const HXContainerKey key : keys)
        container->addObserver(weak_from_this(), key);
}

void HXContainerChangeRelay::unobserve(HXContainer *container, const QList<HXContainerKey> &keys) {
    for (const HXContainerKey key : keys)
        container->removeObserver(this, key);
}

void HXContainerChangeRelay::detach() {
    std::lock_guard lock(m_mutex);
    m_receiver = nullptr;
    m_pending.clear();
    m_pendingKeys.clear();
}

void HXContainerChangeRelay::post(std::function<void()> block) {
    std::lock_guard lock(m_mutex);
    if (m_receiver)
        QMetaObject::invokeMethod(m_receiver, std::move(block), Qt::QueuedConnection);
}

void HXContainerChangeRelay::containerDidChange(HXContainer &container, HXContainerKey key) {
    std::lock_guard lock(m_mutex);
    if (!m_receiver)
        return;
    const QPair<const HXContainer *, int> pendingKey(&container, int(key));
    if (!m_pendingKeys.contains(pendingKey)) {
        m_pendingKeys.insert(pendingKey, true);
        m_pending.append({container.weak_from_this(), key});
    }
    if (m_scheduled)
        return;
    m_scheduled = true;
    // Posted while the lock is held: `detach`, which the receiver calls before it dies, waits
    // for this, and Qt drops the posted call with the receiver.
    QMetaObject::invokeMethod(
        m_receiver,
        [weak = weak_from_this()] {
            if (const auto relay = weak.lock())
                relay->deliver();
        },
        Qt::QueuedConnection);
}

void HXContainerChangeRelay::deliver() {
    QList<QPair<std::weak_ptr<HXStorageItem>, HXContainerKey>> pending;
    {
        std::lock_guard lock(m_mutex);
        m_scheduled = false;
        if (!m_receiver)
            return;
        pending.swap(m_pending);
        m_pendingKeys.clear();
    }
    for (const auto &[weak, key] : pending) {
        if (const auto item = weak.lock(); item && item->isContainer())
            m_handler(std::static_pointer_cast<HXContainer>(item), key);
    }
}
