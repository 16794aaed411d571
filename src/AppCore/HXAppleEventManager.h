#pragma once

#include <QList>
#include <QVariantMap>

#include <functional>

// Four characters packed into 32 bits, the first in the highest byte.
constexpr quint32 HXFourCharCode(const char (&code)[5]) {
    return quint32(quint8(code[0])) << 24 | quint32(quint8(code[1])) << 16 |
           quint32(quint8(code[2])) << 8 | quint32(quint8(code[3]));
}

// Requests from outside the process (open these files, reopen) arrive as events of a class and
// an ID, each four characters packed into 32 bits. Events of the core class are held back while
// the manager is suspended, from the start of the launch until the library is loaded, and then
// delivered in the order they came; other classes go to their handlers at once. Main thread.
class HXAppleEventManager {
public:
    static constexpr quint32 coreEventClass = HXFourCharCode("aevt");
    static constexpr quint32 openDocumentsEventID = HXFourCharCode("odoc");
    static constexpr quint32 reopenApplicationEventID = HXFourCharCode("rapp");
    // The key of an open-documents event that holds the list of paths.
    static inline const QString directObjectKey = QStringLiteral("----");

    // The event and its reply, as property lists: "class", "id" and the parameters.
    using Handler = std::function<void(const QVariantMap &event, QVariantMap &reply)>;

    static HXAppleEventManager &sharedAppleEventManager();

    void setEventHandler(Handler handler, quint32 eventClass, quint32 eventID);
    // An event from outside: held while suspended, else handled at once.
    void handleAppleEvent(const QVariantMap &event, QVariantMap &reply);
    static QVariantMap eventWithClass(quint32 eventClass, quint32 eventID,
                                      const QVariantMap &parameters = {});

    bool isSuspended() const { return m_suspended; }
    void suspend();
    // Delivers the held events in the order they came.
    void resume();

private:
    void dispatch(const QVariantMap &event, QVariantMap &reply);

    QHash<quint32, Handler> m_eventHandlers;
    QHash<quint64, Handler> m_otherHandlers;
    QList<QVariantMap> m_suspendedEvents;
    bool m_suspended = false;
};
