#pragma once

#include <QString>
#include <QVariantMap>

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

// A notification: its name, the object that posted it (compared by address only) and user
// information.
struct HXNotification {
    QString name;
    const void *sender = nullptr;
    QVariantMap userInfo;
};

// Posted when the application is about to end; stores write what is pending.
inline const QString HXApplicationWillTerminateNotification =
    QStringLiteral("NSApplicationWillTerminateNotification");

// Posted when the application is about to lose the focus; documents save what is pending.
inline const QString HXApplicationWillResignActiveNotification =
    QStringLiteral("NSApplicationWillResignActiveNotification");

class HXNotificationCenter;

// Keeps an observer registered while it lives. Move-only; reset or destroy it to stop observing.
class HXNotificationObservation {
public:
    HXNotificationObservation() = default;
    HXNotificationObservation(HXNotificationObservation &&other) noexcept;
    HXNotificationObservation &operator=(HXNotificationObservation &&other) noexcept;
    ~HXNotificationObservation();

    void reset();
    bool isActive() const { return m_id != 0; }

private:
    friend class HXNotificationCenter;
    HXNotificationObservation(std::weak_ptr<HXNotificationCenter> center, quint64 id);

    std::weak_ptr<HXNotificationCenter> m_center;
    quint64 m_id = 0;
};

// Named notifications. Observers register for a name, optionally for one sender, and are called
// on the posting thread, in order of registration; an observer that wants the main thread hops
// there itself. An observer removed while a post is under way is skipped if the post has not
// reached it yet. Any thread.
class HXNotificationCenter : public std::enable_shared_from_this<HXNotificationCenter> {
public:
    using Observer = std::function<void(const HXNotification &)>;

    static std::shared_ptr<HXNotificationCenter> defaultCenter();
    static std::shared_ptr<HXNotificationCenter> create();

    // `sender` null means notifications of that name from anyone.
    [[nodiscard]] HXNotificationObservation addObserver(const QString &name, Observer observer,
                                                        const void *sender = nullptr);
    void post(const QString &name, const void *sender = nullptr, const QVariantMap &userInfo = {});

private:
    friend class HXNotificationObservation;
    HXNotificationCenter() = default;
    void removeObserver(quint64 id);

    struct Entry {
        quint64 id;
        QString name;
        const void *sender;
        std::shared_ptr<Observer> observer;
    };

    std::mutex m_mutex;
    std::vector<Entry> m_entries;
    quint64 m_nextId = 1;
};
