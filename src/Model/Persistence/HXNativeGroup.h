#pragma once

#include "Model/Attachments/HXAttachment.h"
#include "Model/StorageTree/HXGroup.h"

// A group of a library: a folder named "<identifier>-hxgroup" with its info file "Info.hxgroup",
// which keeps the group's name, icon, goal and the order of its children. Options restrict what
// it takes: 1 no sheets directly in it, 2 no sheets anywhere below (inherited), 0x400 no
// subgroups, 0x800 no filters. Owned by its parent's set; any thread.
class HXNativeGroup : public HXGroup, public HXAttachmentOwner {
public:
    static constexpr quint64 OptionNoSheets = 1;
    static constexpr quint64 OptionNoSheetsBelow = 2;
    static constexpr quint64 OptionNoSubgroups = 0x400;
    static constexpr quint64 OptionNoFilters = 0x800;
    static inline const QString suffix = QStringLiteral("-hxgroup");
    static inline const QString infoName = QStringLiteral("Info.hxgroup");

    HXNativeGroup(const QString &filename, const std::shared_ptr<HXStorage> &storage);

    QString displayName() const override;
    bool hasDisplayNameSetter() const override { return true; }
    void setDisplayName(const QString &name) override;
    QString staticName() const;
    void setStaticName(const QString &name);
    QString defaultName() const;
    void setDefaultName(const QString &name);
    QString userIconName() const override;
    void setUserIconName(const QString &name);
    std::shared_ptr<HXCountingGoal> countingGoal() const override;
    void setCountingGoal(const std::shared_ptr<HXCountingGoal> &goal);
    void attachmentDidChange(HXAttachment &attachment) override;

    quint64 options() const { return m_options; }
    void setOptions(quint64 options);
    void updateRecursiveOptions(quint64 options);

    quint64 operationForCreatingContainerOfKind(HXContainerKind kind) const override;
    quint64 operationForInsertingContainer(const HXContainerRef &item) const override;
    quint64 operationForCreatingSheet() const override;
    quint64 operationForInsertingSheetHandle(const std::shared_ptr<HXSheetHandle> &) const override;
    bool accommodateInsertionOfContainer(const HXContainerRef &container,
                                         const HXContainerRef &oldParent, quint64 index) override;

    QString infoFilename() const override { return infoName; }
    QVariantMap infoFileContents(bool copy) const override;
    void setInfoFileContents(const QVariantMap &contents) override;

    // The form of a goal in info files.
    static QVariantMap propertyListRepresentationForCountingGoal(const HXCountingGoal &goal);
    static std::shared_ptr<HXCountingGoal> countingGoalFromPropertyList(const QVariant &value);

private:
    mutable std::mutex m_propertiesMutex;
    QString m_displayName;
    QString m_staticName;
    QString m_defaultName;
    QString m_userIconName;
    std::shared_ptr<HXCountingGoal> m_countingGoal;
    std::atomic<quint64> m_options = 0;
};
