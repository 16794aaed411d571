#include "Model/Attachments/HXCountingGoal.h"

#include "Model/Stores/HXPreferenceStore.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXNotificationCenter.h"

#include <QStringList>

namespace {
const QString counterKey = QStringLiteral("counterIdentifier");
const QString targetKey = QStringLiteral("targetResult");
const QString typeKey = QStringLiteral("type");
} // namespace

void HXCountingGoal::setCounterIdentifier(const QString &identifier) {
    m_counterIdentifier = identifier;
    noteGoalChange();
}

void HXCountingGoal::setTargetResult(std::optional<double> target) {
    m_targetResult = target;
    noteGoalChange();
}

void HXCountingGoal::setType(quint64 type) {
    m_type = type;
    noteGoalChange();
}

void HXCountingGoal::noteGoalChange() {
    noteAttachmentChange();
    HXNotificationCenter::defaultCenter()->post(didChangeNotification, this);
}

std::shared_ptr<HXCountingGoal> HXCountingGoal::newCountingGoalWithDefaultSettings() {
    auto goal = std::make_shared<HXCountingGoal>();
    if (HXPreferenceStore *store = HXPreferenceStore::sharedInstance()) {
        const QVariant counter =
            store->valueForKeyPath(QStringLiteral("countingGoal.defaultCounter"));
        const QVariant type = store->valueForKeyPath(QStringLiteral("countingGoal.defaultType"));
        if (counter.isValid() && !counter.toString().isEmpty())
            goal->m_counterIdentifier = counter.toString();
        if (type.isValid())
            goal->m_type = typeFromText(type.toString());
    }
    return goal;
}

void HXCountingGoal::storeDefaultCounterIdentifier(const QString &identifier) {
    HX_ASSERT(identifier.size() > 0, u"Invalid parameter not satisfying: %s",
              "counterIdentifier.length > 0");
    if (HXPreferenceStore *store = HXPreferenceStore::sharedInstance())
        store->setValue(identifier, QStringLiteral("countingGoal.defaultCounter"));
}

void HXCountingGoal::storeDefaultType(quint64 type) {
    if (HXPreferenceStore *store = HXPreferenceStore::sharedInstance())
        store->setValue(typeText(type), QStringLiteral("countingGoal.defaultType"));
}

QString HXCountingGoal::typeText(quint64 type) {
    switch (type) {
    case AtLeast:
        return QStringLiteral("at_least");
    case AtMost:
        return QStringLiteral("at_most");
    default:
        return QStringLiteral("close_to");
    }
}

quint64 HXCountingGoal::typeFromText(const QString &text) {
    if (text == u"at_least")
        return AtLeast;
    if (text == u"at_most")
        return AtMost;
    return CloseTo;
}

QVariantMap HXCountingGoal::propertyListRepresentation() const {
    QVariantMap map{{counterKey, m_counterIdentifier}, {typeKey, typeText(m_type)}};
    if (m_targetResult)
        map.insert(targetKey, *m_targetResult);
    return map;
}

void HXCountingGoal::setWithPropertyListRepresentation(const QVariant &representation) {
    if (representation.typeId() != QMetaType::QVariantMap)
        return;
    const QVariantMap map = representation.toMap();
    if (const QString counter = map.value(counterKey).toString(); !counter.isEmpty())
        m_counterIdentifier = counter;
    if (map.contains(targetKey))
        m_targetResult = map.value(targetKey).toDouble();
    if (map.contains(typeKey))
        m_type = typeFromText(map.value(typeKey).toString());
    noteGoalChange();
}

QString HXCountingGoal::storedText() const {
    return QStringLiteral("%1;%2;%3")
        .arg(m_counterIdentifier, typeText(m_type),
             m_targetResult ? QString::number(*m_targetResult, 'g', 17) : QStringLiteral("0"));
}

void HXCountingGoal::setWithStoredText(const QString &text) {
    const QStringList parts = text.split(u';');
    if (parts.size() < 3)
        return;
    m_counterIdentifier = parts.at(0);
    m_type = typeFromText(parts.at(1));
    m_targetResult = parts.at(2).toDouble();
    noteGoalChange();
}

bool HXCountingGoal::isEqual(const HXAttachment &other) const {
    const auto *goal = dynamic_cast<const HXCountingGoal *>(&other);
    return goal && goal->m_counterIdentifier == m_counterIdentifier &&
           goal->m_targetResult == m_targetResult && goal->m_type == m_type;
}

HXAttachmentRef HXCountingGoal::copy() const {
    auto copy = std::make_shared<HXCountingGoal>();
    copy->m_counterIdentifier = m_counterIdentifier;
    copy->m_targetResult = m_targetResult;
    copy->m_type = m_type;
    return copy;
}
