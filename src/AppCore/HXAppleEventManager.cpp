#include "AppCore/HXAppleEventManager.h"

#include "Utilities/HXAssert.h"

namespace {

const QString classKey = QStringLiteral("class");
const QString idKey = QStringLiteral("id");
const QString eventKey = QStringLiteral("event");
const QString replyKey = QStringLiteral("replyEvent");

} // namespace

HXAppleEventManager &HXAppleEventManager::sharedAppleEventManager() {
    static HXAppleEventManager manager;
    return manager;
}

QVariantMap HXAppleEventManager::eventWithClass(quint32 eventClass, quint32 eventID,
                                                const QVariantMap &parameters) {
    QVariantMap event = parameters;
    event.insert(classKey, eventClass);
    event.insert(idKey, eventID);
    return event;
}

void HXAppleEventManager::setEventHandler(Handler handler, quint32 eventClass, quint32 eventID) {
    HX_ASSERT(handler != nullptr, u"Handler and selector must not be nil.");
    if (eventClass == coreEventClass)
        m_eventHandlers.insert(eventID, std::move(handler));
    else
        m_otherHandlers.insert(quint64(eventClass) << 32 | eventID, std::move(handler));
}

void HXAppleEventManager::handleAppleEvent(const QVariantMap &event, QVariantMap &reply) {
    const quint32 eventClass = event.value(classKey).toUInt();
    if (eventClass != coreEventClass) {
        const Handler handler =
            m_otherHandlers.value(quint64(eventClass) << 32 | event.value(idKey).toUInt());
        if (handler)
            handler(event, reply);
        return;
    }
    if (m_suspended) {
        m_suspendedEvents.append(QVariantMap{{eventKey, event}, {replyKey, reply}});
        return;
    }
    dispatch(event, reply);
}

void HXAppleEventManager::dispatch(const QVariantMap &event, QVariantMap &reply) {
    const quint32 eventID = event.value(idKey).toUInt();
    HX_ASSERT(m_eventHandlers.contains(eventID), u"No event handler exists for event ID %u.",
              eventID);
    const Handler handler = m_eventHandlers.value(eventID);
    HX_ASSERT(handler != nullptr, u"Handler and selector must not be nil.");
    handler(event, reply);
}

void HXAppleEventManager::suspend() {
    m_suspended = true;
    m_suspendedEvents.clear();
}

void HXAppleEventManager::resume() {
    m_suspended = false;
    const QList<QVariantMap> events = std::exchange(m_suspendedEvents, {});
    for (const QVariantMap &record : events) {
        QVariantMap reply = record.value(replyKey).toMap();
        dispatch(record.value(eventKey).toMap(), reply);
    }
}
