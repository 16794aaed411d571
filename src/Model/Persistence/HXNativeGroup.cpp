#include "Model/Persistence/HXNativeGroup.h"

#include "Model/Attachments/HXCountingGoal.h"
#include "Model/Persistence/HXStorage.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Utilities/HXLocalizedString.h"

namespace {

const QString displayNameKey = QStringLiteral("displayName");
const QString userIconNameKey = QStringLiteral("userIconName");
const QString countingGoalKey = QStringLiteral("countingGoal");
const QString childOrderKey = QStringLiteral("childOrder");
const QString sheetClustersKey = QStringLiteral("sheetClusters");

} // namespace

HXNativeGroup::HXNativeGroup(const QString &filename, const std::shared_ptr<HXStorage> &storage)
    : HXGroup(filename, storage)
    , m_defaultName(HXLocalizedString(QStringLiteral("Untitled"), QStringLiteral("HXStorage"))) {}

// --- Properties -----------------------------------------------------------------------------

QString HXNativeGroup::displayName() const {
    // The base folder stands for the whole storage.
    if (const auto storage = this->storage();
        storage && static_cast<const HXStorageItem *>(storage->rootGroup().get()) == this)
        return storage->displayName();
    std::lock_guard lock(m_propertiesMutex);
    for (const QString *name : {&m_staticName, &m_displayName, &m_defaultName}) {
        if (!name->isEmpty())
            return *name;
    }
    return QString();
}

void HXNativeGroup::setDisplayName(const QString &name) {
    willChange(HXContainerKey::DisplayName);
    {
        std::lock_guard lock(m_propertiesMutex);
        m_displayName = name;
    }
    didChange(HXContainerKey::DisplayName);
    writeInfoFile();
}

QString HXNativeGroup::staticName() const {
    std::lock_guard lock(m_propertiesMutex);
    return m_staticName;
}

void HXNativeGroup::setStaticName(const QString &name) {
    std::lock_guard lock(m_propertiesMutex);
    m_staticName = name;
}

QString HXNativeGroup::defaultName() const {
    std::lock_guard lock(m_propertiesMutex);
    return m_defaultName;
}

void HXNativeGroup::setDefaultName(const QString &name) {
    std::lock_guard lock(m_propertiesMutex);
    m_defaultName = name;
}

QString HXNativeGroup::userIconName() const {
    std::lock_guard lock(m_propertiesMutex);
    return m_userIconName;
}

void HXNativeGroup::setUserIconName(const QString &name) {
    willChange(HXContainerKey::IconName);
    {
        std::lock_guard lock(m_propertiesMutex);
        m_userIconName = name;
    }
    didChange(HXContainerKey::IconName);
    writeInfoFile();
}

std::shared_ptr<HXCountingGoal> HXNativeGroup::countingGoal() const {
    std::lock_guard lock(m_propertiesMutex);
    return m_countingGoal;
}

void HXNativeGroup::setCountingGoal(const std::shared_ptr<HXCountingGoal> &goal) {
    willChange(HXContainerKey::CountingGoal);
    {
        std::lock_guard lock(m_propertiesMutex);
        if (m_countingGoal)
            m_countingGoal->setOwner({});
        m_countingGoal = goal;
        if (goal)
            goal->setOwner(std::shared_ptr<HXAttachmentOwner>(
                shared_from_this(), static_cast<HXAttachmentOwner *>(this)));
    }
    didChange(HXContainerKey::CountingGoal);
    writeInfoFile();
}

void HXNativeGroup::attachmentDidChange(HXAttachment &) {
    writeInfoFile();
}

// --- Options and masks ----------------------------------------------------------------------

void HXNativeGroup::setOptions(quint64 options) {
    for (const HXContainerRef &child : containers()) {
        if (const auto group = std::dynamic_pointer_cast<HXNativeGroup>(child))
            group->updateRecursiveOptions(options);
    }
    m_options = options;
}

void HXNativeGroup::updateRecursiveOptions(quint64 options) {
    const quint64 inherited = (options & OptionNoSheetsBelow) ? 3 : 0;
    m_options = (m_options & ~quint64(3)) | inherited;
    for (const HXContainerRef &child : containers()) {
        if (const auto group = std::dynamic_pointer_cast<HXNativeGroup>(child))
            group->updateRecursiveOptions(options);
    }
}

quint64 HXNativeGroup::operationForCreatingContainerOfKind(HXContainerKind kind) const {
    if (((m_options & OptionNoSubgroups) && kind == HXContainerKind::Group) ||
        ((m_options & OptionNoFilters) && kind == HXContainerKind::Filter))
        return 0;
    return HXGroup::operationForCreatingContainerOfKind(kind) | OperationHonoursIndex;
}

quint64 HXNativeGroup::operationForInsertingContainer(const HXContainerRef &item) const {
    if ((m_options & OptionNoSheetsBelow) && !item->allSheetHandles().isEmpty())
        return 0;
    if (((m_options & OptionNoSubgroups) && item->kind() == HXContainerKind::Group) ||
        ((m_options & OptionNoFilters) && item->kind() == HXContainerKind::Filter))
        return 0;
    return HXGroup::operationForInsertingContainer(item) | OperationHonoursIndex;
}

quint64 HXNativeGroup::operationForCreatingSheet() const {
    if (m_options & OptionNoSheets)
        return 0;
    return HXGroup::operationForCreatingSheet() | OperationHonoursIndex;
}

quint64 HXNativeGroup::operationForInsertingSheetHandle(
    const std::shared_ptr<HXSheetHandle> &handle) const {
    if (m_options & OptionNoSheets)
        return 0;
    return HXGroup::operationForInsertingSheetHandle(handle) | OperationHonoursIndex;
}

bool HXNativeGroup::accommodateInsertionOfContainer(const HXContainerRef &container,
                                                    const HXContainerRef &oldParent,
                                                    quint64 index) {
    // A group that moves here takes on what this group demands of everything below it.
    if (oldParent) {
        if (const auto group = std::dynamic_pointer_cast<HXNativeGroup>(container))
            group->updateRecursiveOptions(m_options);
    }
    return HXGroup::accommodateInsertionOfContainer(container, oldParent, index);
}

// --- The info file --------------------------------------------------------------------------

QVariantMap HXNativeGroup::propertyListRepresentationForCountingGoal(const HXCountingGoal &goal) {
    return {{QStringLiteral("counterIdentifier"), goal.counterIdentifier()},
            {QStringLiteral("targetResult"), goal.targetResult().value_or(0)},
            {QStringLiteral("type"), HXCountingGoal::typeText(goal.type())}};
}

std::shared_ptr<HXCountingGoal> HXNativeGroup::countingGoalFromPropertyList(const QVariant &value) {
    auto goal = std::make_shared<HXCountingGoal>();
    goal->setWithPropertyListRepresentation(value);
    return goal;
}

QVariantMap HXNativeGroup::infoFileContents(bool copy) const {
    QVariantMap contents;
    const auto storage = this->storage();
    const bool root =
        storage && static_cast<const HXStorageItem *>(storage->rootGroup().get()) == this;
    if (const QString name = displayName(); !name.isEmpty() && !root)
        contents.insert(displayNameKey, name);
    if (const QString icon = userIconName(); !icon.isEmpty())
        contents.insert(userIconNameKey, icon);
    if (const auto goal = countingGoal())
        contents.insert(countingGoalKey, propertyListRepresentationForCountingGoal(*goal));
    if (!copy) {
        if (const QStringList order = persistentContainerOrder(); !order.isEmpty())
            contents.insert(childOrderKey, order);
        if (const QVariantList clusters = sheetClustersPropertyList(); !clusters.isEmpty())
            contents.insert(sheetClustersKey, clusters);
    }
    return contents;
}

void HXNativeGroup::setInfoFileContents(const QVariantMap &contents) {
    willChange(HXContainerKey::DisplayName);
    {
        std::lock_guard lock(m_propertiesMutex);
        m_displayName =
            contents.contains(displayNameKey)
                ? contents.value(displayNameKey).toString()
                : HXLocalizedString(QStringLiteral("Untitled"), QStringLiteral("HXStorage"));
        m_userIconName = contents.value(userIconNameKey).toString();
    }
    didChange(HXContainerKey::DisplayName);
    if (contents.contains(countingGoalKey)) {
        auto goal = countingGoal();
        if (goal)
            goal->setWithPropertyListRepresentation(contents.value(countingGoalKey));
        else
            setCountingGoal(countingGoalFromPropertyList(contents.value(countingGoalKey)));
    } else if (countingGoal()) {
        setCountingGoal(nullptr);
    }
    setPersistentContainerOrder(contents.value(childOrderKey).toStringList());
    setSheetClustersFromPropertyList(contents.value(sheetClustersKey));
}
