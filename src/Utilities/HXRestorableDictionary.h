#pragma once

#include <QList>
#include <QStringList>
#include <QVariantMap>

// A dictionary with a stack of saved states: a set of values changed for a while and then put
// back. A plain value: a copy carries copies of the current state and of every saved state, so
// restoring in the copy leaves the source untouched. Not for several threads; its user owns it.
class HXRestorableDictionary {
public:
    HXRestorableDictionary() = default;
    explicit HXRestorableDictionary(const QVariantMap &values);
    // Keys and objects pair up by position; lists of different lengths are an assertion failure.
    HXRestorableDictionary(const QVariantList &objects, const QStringList &keys);

    // Pushes the current state and goes on with a copy of it.
    void saveCurrentState();
    // Makes the latest saved state current again; with none saved, an assertion failure.
    void restoreLastState();

    qsizetype count() const { return m_currentState.size(); }
    QVariant objectForKey(const QString &key) const { return m_currentState.value(key); }
    QStringList keys() const { return m_currentState.keys(); }
    void setObject(const QVariant &value, const QString &key) { m_currentState.insert(key, value); }
    void removeObjectForKey(const QString &key) { m_currentState.remove(key); }

    const QVariantMap &currentState() const { return m_currentState; }
    const QList<QVariantMap> &savedStates() const { return m_savedStates; }

private:
    QVariantMap m_currentState;
    QList<QVariantMap> m_savedStates;
};
