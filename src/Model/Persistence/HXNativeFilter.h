#pragma once

#include "Model/StorageTree/HXConditionFilter.h"

class HXCountingGoal;

// A filter of a library: a folder named "<identifier>-hxfilter" that holds only its info file
// "Info.hxfilter" with the name, icon, goal and query. Owned by its parent's set; any thread.
class HXNativeFilter : public HXConditionFilter {
public:
    static inline const QString suffix = QStringLiteral("-hxfilter");
    static inline const QString infoName = QStringLiteral("Info.hxfilter");

    using HXConditionFilter::HXConditionFilter;

    QString displayName() const override;
    bool hasDisplayNameSetter() const override { return true; }
    void setDisplayName(const QString &name) override;
    QString userIconName() const override;
    std::shared_ptr<HXCountingGoal> countingGoal() const override;

    QString infoFilename() const override { return infoName; }
    QVariantMap infoFileContents(bool copy) const override;
    void setInfoFileContents(const QVariantMap &contents) override;

private:
    mutable std::mutex m_propertiesMutex;
    QString m_displayName;
    QString m_userIconName;
    std::shared_ptr<HXCountingGoal> m_countingGoal;
};
