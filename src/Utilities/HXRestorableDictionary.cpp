#include "Utilities/HXRestorableDictionary.h"

#include "Utilities/HXAssert.h"

HXRestorableDictionary::HXRestorableDictionary(const QVariantMap &values)
    : m_currentState(values) {}

HXRestorableDictionary::HXRestorableDictionary(const QVariantList &objects,
                                               const QStringList &keys) {
    HX_ASSERT(objects.size() == keys.size(), u"Objects (%ld) and keys (%ld) differ in number.",
              objects.size(), keys.size());
    for (qsizetype i = 0; i < keys.size(); ++i)
        m_currentState.insert(keys.at(i), objects.at(i));
}

void HXRestorableDictionary::saveCurrentState() {
    m_savedStates.append(m_currentState);
}

void HXRestorableDictionary::restoreLastState() {
    HX_ASSERT(!m_savedStates.isEmpty(), u"Restoring more states than saved.");
    m_currentState = m_savedStates.takeLast();
}
