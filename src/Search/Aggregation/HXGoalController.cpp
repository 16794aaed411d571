#include "Search/Aggregation/HXGoalController.h"

#include "Model/Attachments/HXCountingGoal.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Model/Stores/HXPreferenceStore.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXDispatchQueue.h"
#include "Utilities/HXLocalizedString.h"
#include "Utilities/HXStringFormat.h"

#include <QHash>

#include <cfloat>
#include <cmath>

namespace {

// The shared controllers by "item-goal" address, kept while someone holds them. Main thread.
QHash<QString, std::weak_ptr<HXGoalController>> &sharedControllers() {
    static QHash<QString, std::weak_ptr<HXGoalController>> controllers;
    return controllers;
}

const QString charactersPerLineKeyPath = QStringLiteral("textCounter.charactersPerLine");
const QString linesPerPageKeyPath = QStringLiteral("textCounter.linesPerPage");

} // namespace

std::shared_ptr<HXGoalController>
HXGoalController::controllerWithStorageItem(const std::shared_ptr<HXStorageItem> &storageItem,
                                            const std::shared_ptr<HXCountingGoal> &goal) {
    HX_ASSERT(storageItem != nullptr, u"Invalid parameter not satisfying: %s",
              "storageItem != nil");
    HX_ASSERT(goal != nullptr, u"Invalid parameter not satisfying: %s", "goal != nil");
    auto &controllers = sharedControllers();
    for (auto it = controllers.begin(); it != controllers.end();) {
        if (it->expired())
            it = controllers.erase(it);
        else
            ++it;
    }
    const QString key = HXStringWithFormat(u"%p-%p", storageItem.get(), goal.get());
    if (const std::shared_ptr<HXGoalController> existing = controllers.value(key).lock()) {
        HX_ASSERT(existing->m_storageItem == storageItem, u"Mismatching storage item.");
        HX_ASSERT(existing->m_countingGoal == goal, u"Mismatching goal.");
        return existing;
    }
    std::shared_ptr<HXGoalController> controller(new HXGoalController(storageItem, goal));
    // Observations need the shared owner, which the constructor doesn't have yet.
    controller->observeStorageItem(true);
    controller->observeGoal();
    controllers.insert(key, controller);
    return controller;
}

HXGoalController::HXGoalController(const std::shared_ptr<HXStorageItem> &storageItem,
                                   const std::shared_ptr<HXCountingGoal> &goal)
    : m_storageItem(storageItem)
    , m_countingGoal(goal) {
    HX_ASSERT(!storageItem || storageItem->isContainer() ||
                  std::dynamic_pointer_cast<HXSheetHandle>(storageItem),
              u"Invalid storage item passed, HXGoalController accepts HXSheetHandle and "
              u"HXContainer objects only.");
    m_query = HXTextCounterQuery::create(this);
    if (HXPreferenceStore *store = HXPreferenceStore::sharedInstance()) {
        for (const QString &keyPath : {charactersPerLineKeyPath, linesPerPageKeyPath})
            m_preferenceObservations.append(
                store->addObserverForKeyPath(keyPath, this, [this] { updateResultAndProgress(); }));
    }
    updateQueryScope();
    updateResultAndProgress();
}

HXGoalController::~HXGoalController() {
    m_query->setDelegate(nullptr);
    observeStorageItem(false);
    for (const QMetaObject::Connection &connection : std::as_const(m_preferenceObservations))
        QObject::disconnect(connection);
}

void HXGoalController::setStorageItem(const std::shared_ptr<HXStorageItem> &storageItem) {
    if (storageItem == m_storageItem)
        return;
    HX_ASSERT(!storageItem || storageItem->isContainer() ||
                  std::dynamic_pointer_cast<HXSheetHandle>(storageItem),
              u"Invalid storage item passed, HXGoalController accepts HXSheetHandle and "
              u"HXContainer objects only.");
    observeStorageItem(false);
    m_storageItem = storageItem;
    observeStorageItem(true);
    updateQueryScope();
}

void HXGoalController::setCountingGoal(const std::shared_ptr<HXCountingGoal> &goal) {
    m_countingGoal = goal;
    observeGoal();
    updateResultAndProgress();
}

void HXGoalController::observeStorageItem(bool observe) {
    const auto container = std::dynamic_pointer_cast<HXContainer>(m_storageItem);
    if (!container)
        return;
    if (observe && !m_observingContainer) {
        container->addObserver(std::static_pointer_cast<HXContainerObserver>(shared_from_this()),
                               HXContainerKey::AllLogicalSheetHandles);
        m_observingContainer = true;
    } else if (!observe && m_observingContainer) {
        container->removeObserver(this, HXContainerKey::AllLogicalSheetHandles);
        m_observingContainer = false;
    }
}

void HXGoalController::observeGoal() {
    m_goalObservation.reset();
    if (!m_countingGoal)
        return;
    const std::weak_ptr<HXGoalController> weakSelf = weak_from_this();
    m_goalObservation = HXNotificationCenter::defaultCenter()->addObserver(
        HXCountingGoal::didChangeNotification,
        [weakSelf](const HXNotification &) {
            HXDispatchQueue::mainQueue()->async([weakSelf] {
                if (const auto self = weakSelf.lock())
                    self->updateResultAndProgress();
            });
        },
        m_countingGoal.get());
}

void HXGoalController::containerDidChange(HXContainer &, HXContainerKey key) {
    if (key != HXContainerKey::AllLogicalSheetHandles)
        return;
    const std::weak_ptr<HXGoalController> weakSelf = weak_from_this();
    HXDispatchQueue::mainQueue()->async([weakSelf] {
        if (const auto self = weakSelf.lock())
            self->updateQueryScope();
    });
}

HXCountParameters HXGoalController::textCountingParameters() {
    return HXTextCounter::displayParametersWithPreferences();
}

void HXGoalController::updateQueryScope() {
    QSet<std::shared_ptr<HXSheetHandle>> scope;
    if (const auto container = std::dynamic_pointer_cast<HXContainer>(m_storageItem))
        scope = container->allLogicalSheetHandles();
    else if (const auto handle = std::dynamic_pointer_cast<HXSheetHandle>(m_storageItem))
        scope.insert(handle);
    m_query->setScope(scope);
}

void HXGoalController::textCounterQueryDidProvideResult(HXTextCounterQuery &,
                                                        const HXCountDictionary &result) {
    m_result = result;
    updateResultAndProgress();
}

void HXGoalController::updateResultAndProgress() {
    m_measurement = m_countingGoal ? measure(m_result, *m_countingGoal, textCountingParameters())
                                   : HXGoalMeasurement();
    emit didUpdate();
}

HXGoalMeasurement HXGoalController::measure(const HXCountDictionary &result,
                                            const HXCountingGoal &goal,
                                            const HXCountParameters &parameters) {
    HXGoalMeasurement measurement;
    const QString identifier = goal.counterIdentifier();
    const auto found = result.constFind(identifier);
    if (found != result.constEnd() && !identifier.isEmpty() &&
        HXTextCounter::orderedIdentifiersForDisplay().contains(identifier))
        measurement.displayString =
            HXTextCounter::displayStringForCountingResult(*found, identifier, parameters);
    const std::optional<double> number =
        found != result.constEnd()
            ? HXTextCounter::numberForCountingResult(*found, identifier, parameters)
            : std::nullopt;
    if (found == result.constEnd() || !number || measurement.displayString.isNull() ||
        goal.isEmpty()) {
        measurement.progress = 0.01;
        measurement.progressStatus = HXGoalProgressStatus::Empty;
        return measurement;
    }
    const double ratio = *number / *goal.targetResult();
    const double progress = std::max(std::round(ratio / 0.002) * 0.002, 0.01);
    measurement.progress = progress;

    double lower = 0, upper = 0;
    switch (goal.type()) {
    case HXCountingGoal::CloseTo:
        lower = 0.97;
        upper = 1.03;
        break;
    case HXCountingGoal::AtLeast:
        lower = 1.0;
        upper = DBL_MAX;
        break;
    case HXCountingGoal::AtMost:
        lower = DBL_MAX;
        upper = 1.0;
        break;
    default:
        HX_ASSERT(false, u"Unknown counting goal type: %lu", goal.type());
    }
    if (progress > upper)
        measurement.progressStatus = HXGoalProgressStatus::Exceeded;
    else if (progress >= lower)
        measurement.progressStatus = HXGoalProgressStatus::Reached;
    else if (progress > 0.9)
        measurement.progressStatus = goal.type() == HXCountingGoal::AtMost
                                         ? HXGoalProgressStatus::Reached
                                         : HXGoalProgressStatus::AlmostReached;
    else
        measurement.progressStatus = HXGoalProgressStatus::InProgress;
    return measurement;
}

QString HXGoalController::headingForStatus(HXGoalProgressStatus status) {
    static const char *const keys[] = {"TopFormatEmpty", "TopFormatInProgress",
                                       "TopFormatAlmostReached", "TopFormatReached",
                                       "TopFormatExceeded"};
    const auto index = std::min<quint64>(quint64(status), 4);
    return HXLocalizedString(QString::fromLatin1(keys[index]), QStringLiteral("HXGoalController"));
}

std::array<double, 3> HXGoalController::colorForStatus(HXGoalProgressStatus status) {
    switch (status) {
    case HXGoalProgressStatus::InProgress:
    case HXGoalProgressStatus::AlmostReached:
        return {0.3, 0.734, 0.978};
    case HXGoalProgressStatus::Reached:
        return {0.161, 0.678, 0.2};
    case HXGoalProgressStatus::Exceeded:
        return {0.782, 0.105, 0.134};
    default:
        return {0.5, 0.5, 0.5};
    }
}
