#pragma once

#include "Search/Aggregation/HXTextCounterQuery.h"

#include <QTimer>
#include <QWidget>

#include <memory>

class HXGoalController;
class HXSheet;
class HXSheetHandle;

// The line below the editor: the open sheet's word count and, when the sheet has a goal, its
// progress as a small ring with the count as the goal measures it. The counts come from the
// counting source, which is told of a change once typing pauses, so that a keystroke never waits
// for a count.
//
// Owned by the main window; main thread.
class HXStatusLine : public QWidget, public HXTextCounterQueryDelegate {
    Q_OBJECT

public:
    explicit HXStatusLine(QWidget *parent = nullptr);
    ~HXStatusLine() override;

    // The sheet shown; null shows nothing.
    void setSheet(const std::shared_ptr<HXSheetHandle> &handle,
                  const std::shared_ptr<HXSheet> &sheet);
    // The text changed: counted again after a pause.
    void noteTextDidChange();

    QString wordCountText() const { return m_wordCountText; }
    QString goalText() const { return m_goalText; }
    // The goal's progress from 0 to 1, or a negative number without a goal.
    double goalProgress() const { return m_goalProgress; }

    QSize sizeHint() const override;

    void textCounterQueryDidProvideResult(HXTextCounterQuery &query,
                                          const HXCountDictionary &result) override;

signals:
    void countsChanged();

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    void updateGoal();

    std::shared_ptr<HXSheetHandle> m_handle;
    std::shared_ptr<HXTextCounterQuery> m_query;
    std::shared_ptr<HXGoalController> m_goal;
    QTimer m_pause;
    QString m_wordCountText;
    QString m_goalText;
    double m_goalProgress = -1;
    QColor m_goalColor;
};
