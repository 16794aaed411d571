#include "Model/Persistence/HXNativeFilter.h"

#include "Model/Attachments/HXCountingGoal.h"
#include "Model/Persistence/HXNativeGroup.h"
#include "Utilities/HXLocalizedString.h"

QString HXNativeFilter::displayName() const {
    std::lock_guard lock(m_propertiesMutex);
    return m_displayName;
}

void HXNativeFilter::setDisplayName(const QString &name) {
    willChange(HXContainerKey::DisplayName);
    {
        std::lock_guard lock(m_propertiesMutex);
        m_displayName = name.isEmpty() ? HXLocalizedString(QStringLiteral("Untitled"),
                                                           QStringLiteral("HXStorage"))
                                       : name;
    }
    didChange(HXContainerKey::DisplayName);
    writeInfoFile();
}

QString HXNativeFilter::userIconName() const {
    std::lock_guard lock(m_propertiesMutex);
    return m_userIconName;
}

std::shared_ptr<HXCountingGoal> HXNativeFilter::countingGoal() const {
    std::lock_guard lock(m_propertiesMutex);
    return m_countingGoal;
}

QVariantMap HXNativeFilter::infoFileContents(bool) const {
    QVariantMap contents;
    std::lock_guard lock(m_propertiesMutex);
    if (!m_displayName.isEmpty())
        contents.insert(QStringLiteral("displayName"), m_displayName);
    if (!m_userIconName.isEmpty())
        contents.insert(QStringLiteral("userIconName"), m_userIconName);
    if (m_countingGoal)
        contents.insert(QStringLiteral("countingGoal"),
                        HXNativeGroup::propertyListRepresentationForCountingGoal(*m_countingGoal));
    contents.insert(QStringLiteral("query"), query());
    return contents;
}

void HXNativeFilter::setInfoFileContents(const QVariantMap &contents) {
    willChange(HXContainerKey::DisplayName);
    {
        std::lock_guard lock(m_propertiesMutex);
        m_displayName = contents.value(QStringLiteral("displayName")).toString();
        if (m_displayName.isEmpty())
            m_displayName =
                HXLocalizedString(QStringLiteral("Untitled"), QStringLiteral("HXStorage"));
        m_userIconName = contents.value(QStringLiteral("userIconName")).toString();
        m_countingGoal = contents.contains(QStringLiteral("countingGoal"))
                             ? HXNativeGroup::countingGoalFromPropertyList(
                                   contents.value(QStringLiteral("countingGoal")))
                             : nullptr;
    }
    didChange(HXContainerKey::DisplayName);
    // Kept as it came, until queries can be run.
    setQuery(contents.value(QStringLiteral("query")).toMap());
}
