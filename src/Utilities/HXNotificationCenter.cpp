#include "Utilities/HXNotificationCenter.h"

#include <algorithm>
#include <utility>

HXNotificationObservation::HXNotificationObservation(std::weak_ptr<HXNotificationCenter> center,
                                                     quint64 id)
    : m_center(std::move(center))
    , m_id(id) {}

HXNotificationObservation::HXNotificationObservation(HXNotificationObservation &&other) noexcept
    : m_center(std::move(other.m_center))
    , m_id(std::exchange(other.m_id, 0)) {}

HXNotificationObservation &
HXNotificationObservation::operator=(HXNotificationObservation &&other) noexcept {
    if (this != &other) {
        reset();
        m_center = std::move(other.m_center);
        m_id = std::exchange(other.m_id, 0);
    }
    return *this;
}

HXNotificationObservation::~HXNotificationObservation() {
    reset();
}

void HXNotificationObservation::reset() {
    if (m_id == 0)
        return;
    if (const auto center = m_center.lock())
        center->removeObserver(m_id);
    m_id = 0;
}

std::shared_ptr<HXNotificationCenter> HXNotificationCenter::defaultCenter() {
    static const std::shared_ptr<HXNotificationCenter> center = create();
    return center;
}

std::shared_ptr<HXNotificationCenter> HXNotificationCenter::create() {
    return std::shared_ptr<HXNotificationCenter>(new HXNotificationCenter);
}

HXNotificationObservation HXNotificationCenter::addObserver(const QString &name, Observer observer,
                                                            const void *sender) {
    std::lock_guard lock(m_mutex);
    const quint64 id = m_nextId++;
    m_entries.push_back({id, name, sender, std::make_shared<Observer>(std::move(observer))});
    return HXNotificationObservation(weak_from_this(), id);
}

void HXNotificationCenter::removeObserver(quint64 id) {
    std::lock_guard lock(m_mutex);
    std::erase_if(m_entries, [id](const Entry &entry) { return entry.id == id; });
}

void HXNotificationCenter::post(const QString &name, const void *sender,
                                const QVariantMap &userInfo) {
    std::vector<std::pair<quint64, std::shared_ptr<Observer>>> matching;
    {
        std::lock_guard lock(m_mutex);
        for (const Entry &entry : m_entries) {
            if (entry.name == name && (!entry.sender || entry.sender == sender))
                matching.emplace_back(entry.id, entry.observer);
        }
    }
    const HXNotification notification{name, sender, userInfo};
    for (const auto &[id, observer] : matching) {
        bool stillRegistered = false;
        {
            std::lock_guard lock(m_mutex);
            stillRegistered = std::any_of(m_entries.begin(), m_entries.end(),
                                          [id](const Entry &entry) { return entry.id == id; });
        }
        if (stillRegistered)
            (*observer)(notification);
    }
}
