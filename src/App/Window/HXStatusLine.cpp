#include "App/Window/HXStatusLine.h"

#include "Model/Attachments/HXCountingGoal.h"
#include "Model/Sheets/HXSheet.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Search/Aggregation/HXGoalController.h"
#include "Search/Aggregation/HXSheetCountingSource.h"
#include "Utilities/HXLocalizedString.h"

#include <QPainter>

namespace {

// How long typing must pause before the sheet is counted again.
constexpr int countingPause = 600;
constexpr int ringSize = 12;

QString text(const char *key) {
    return HXLocalizedString(QString::fromLatin1(key), QStringLiteral("HXMainWindow"));
}

} // namespace

HXStatusLine::HXStatusLine(QWidget *parent)
    : QWidget(parent) {
    m_pause.setSingleShot(true);
    m_pause.setInterval(countingPause);
    connect(&m_pause, &QTimer::timeout, this, [this] {
        if (m_handle)
            HXSheetCountingSource::sharedSource()->noteSheetDidChange(m_handle);
    });
    setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
}

HXStatusLine::~HXStatusLine() {
    if (m_query)
        m_query->setDelegate(nullptr);
}

void HXStatusLine::setSheet(const std::shared_ptr<HXSheetHandle> &handle,
                            const std::shared_ptr<HXSheet> &sheet) {
    m_pause.stop();
    if (m_query)
        m_query->setDelegate(nullptr);
    m_query.reset();
    if (m_goal)
        disconnect(m_goal.get(), nullptr, this, nullptr);
    m_goal.reset();
    m_handle = handle;
    m_wordCountText.clear();
    m_goalText.clear();
    m_goalProgress = -1;
    if (handle) {
        m_query = HXTextCounterQuery::create(this);
        m_query->setScope({handle});
        const auto goal = sheet ? sheet->countingGoal() : nullptr;
        if (goal && !goal->isEmpty()) {
            m_goal = HXGoalController::controllerWithStorageItem(handle, goal);
            connect(m_goal.get(), &HXGoalController::didUpdate, this, &HXStatusLine::updateGoal);
            updateGoal();
        }
    }
    update();
    emit countsChanged();
}

void HXStatusLine::noteTextDidChange() {
    if (m_handle)
        m_pause.start();
}

void HXStatusLine::textCounterQueryDidProvideResult(HXTextCounterQuery &query,
                                                    const HXCountDictionary &result) {
    if (&query != m_query.get())
        return;
    const qint64 words = result.value(QStringLiteral("words")).toLongLong();
    m_wordCountText =
        (words == 1 ? text("oneWordFormat") : text("wordsFormat")).arg(QLocale().toString(words));
    update();
    emit countsChanged();
}

void HXStatusLine::updateGoal() {
    if (!m_goal)
        return;
    const auto status = m_goal->progressStatus();
    m_goalProgress = status == HXGoalProgressStatus::Empty ? 0 : m_goal->progress();
    m_goalText = m_goal->displayString();
    const auto rgb = HXGoalController::colorForStatus(status);
    m_goalColor = QColor::fromRgbF(float(rgb[0]), float(rgb[1]), float(rgb[2]));
    update();
    emit countsChanged();
}

QSize HXStatusLine::sizeHint() const {
    return {200, fontMetrics().height() + 10};
}

void HXStatusLine::paintEvent(QPaintEvent *) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QColor textColor = palette().color(QPalette::PlaceholderText);
    painter.setPen(textColor);
    QRect area = rect().adjusted(12, 0, -12, 0);
    painter.drawText(area, Qt::AlignVCenter | Qt::AlignLeft, m_wordCountText);
    if (m_goalProgress < 0)
        return;
    const int textWidth = fontMetrics().horizontalAdvance(m_goalText);
    const QRectF ring(area.right() - ringSize, area.center().y() - ringSize / 2.0 + 0.5, ringSize,
                      ringSize);
    painter.setPen(QPen(textColor.lighter(150), 2));
    painter.drawEllipse(ring.adjusted(1, 1, -1, -1));
    painter.setPen(QPen(m_goalColor, 2, Qt::SolidLine, Qt::RoundCap));
    painter.drawArc(ring.adjusted(1, 1, -1, -1), 90 * 16,
                    -int(std::min(1.0, m_goalProgress) * 360 * 16));
    painter.setPen(textColor);
    painter.drawText(QRect(int(ring.left()) - 8 - textWidth, area.top(), textWidth, area.height()),
                     Qt::AlignVCenter | Qt::AlignRight, m_goalText);
}
