#pragma once

#include "Model/StorageTree/HXContainer.h"
#include "Search/Aggregation/HXTextCounterQuery.h"
#include "Utilities/HXNotificationCenter.h"

#include <QMetaObject>
#include <QObject>

#include <array>
#include <memory>

class HXCountingGoal;
class HXStorageItem;

// How a count stands to its goal.
enum class HXGoalProgressStatus : quint64 {
    Empty = 0, // no goal, or no count yet
    InProgress = 1,
    AlmostReached = 2,
    Reached = 3,
    Exceeded = 4,
};

// What a count means for a goal: the count as shown, the ratio to the target in steps of 0.002
// (never below 0.01), and the status.
struct HXGoalMeasurement {
    QString displayString;
    double progress = 0.01;
    HXGoalProgressStatus progressStatus = HXGoalProgressStatus::Empty;
};

// Follows one goal of one sheet or container: totals the counts of the sheets in its scope
// through a counter query and measures them against the goal. Controllers are shared, one per
// item and goal, so a goal shown in several places is counted once; ask
// `controllerWithStorageItem` for one and hold it while it is shown. It follows the container's
// sheets, the goal's fields and the norm page of the preferences.
//
// Main thread: results arrive there, and a change of the container's sheets from another thread
// is forwarded there. `didUpdate` is emitted after each measurement.
class HXGoalController : public QObject,
                         public HXTextCounterQueryDelegate,
                         public HXContainerObserver,
                         public std::enable_shared_from_this<HXGoalController> {
    Q_OBJECT
public:
    static std::shared_ptr<HXGoalController>
    controllerWithStorageItem(const std::shared_ptr<HXStorageItem> &storageItem,
                              const std::shared_ptr<HXCountingGoal> &goal);
    ~HXGoalController() override;

    std::shared_ptr<HXStorageItem> storageItem() const { return m_storageItem; }
    void setStorageItem(const std::shared_ptr<HXStorageItem> &storageItem);
    std::shared_ptr<HXCountingGoal> countingGoal() const { return m_countingGoal; }
    void setCountingGoal(const std::shared_ptr<HXCountingGoal> &goal);

    QString displayString() const { return m_measurement.displayString; }
    double progress() const { return m_measurement.progress; }
    HXGoalProgressStatus progressStatus() const { return m_measurement.progressStatus; }
    // The last combined counts of the scope.
    HXCountDictionary result() const { return m_result; }

    // The default norm page with the user's overrides.
    static HXCountParameters textCountingParameters();
    void updateQueryScope();
    void updateResultAndProgress();

    // The measurement itself: the entry of the goal's counter in `result` against the goal.
    static HXGoalMeasurement measure(const HXCountDictionary &result, const HXCountingGoal &goal,
                                     const HXCountParameters &parameters);
    // The heading of a status, and its colour (red, green, blue from 0 to 1).
    static QString headingForStatus(HXGoalProgressStatus status);
    static std::array<double, 3> colorForStatus(HXGoalProgressStatus status);

    void textCounterQueryDidProvideResult(HXTextCounterQuery &query,
                                          const HXCountDictionary &result) override;
    void containerDidChange(HXContainer &container, HXContainerKey key) override;

signals:
    void didUpdate();

private:
    HXGoalController(const std::shared_ptr<HXStorageItem> &storageItem,
                     const std::shared_ptr<HXCountingGoal> &goal);
    void observeStorageItem(bool observe);
    void observeGoal();

    std::shared_ptr<HXStorageItem> m_storageItem;
    std::shared_ptr<HXCountingGoal> m_countingGoal;
    std::shared_ptr<HXTextCounterQuery> m_query;
    HXCountDictionary m_result;
    HXGoalMeasurement m_measurement;
    HXNotificationObservation m_goalObservation;
    QList<QMetaObject::Connection> m_preferenceObservations;
    bool m_observingContainer = false;
};
