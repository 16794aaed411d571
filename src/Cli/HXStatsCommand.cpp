#include "Cli/HXCommandLineTool.h"
#include "Model/Attachments/HXCountingGoal.h"
#include "Model/Operations/HXImportOperation.h"
#include "Model/Sheets/HXNativeSheet.h"
#include "Search/Aggregation/HXGoalController.h"
#include "Search/Counting/HXTextCounter.h"
#include "Text/Markup/HXMarkup.h"
#include "Text/String/Access/HXAtomicString.h"

#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>

namespace {

// What `stats` and `goal` share: the markup for text files, the norm page and the files.
struct CountingArguments {
    bool json = false;
    std::shared_ptr<HXMarkup> markup;
    HXCountParameters parameters;
    QStringList files;
};

bool takePositiveNumber(QStringList &arguments, const QString &name, HXCountParameters &parameters,
                        const QString &key, int *status) {
    QString value;
    if (!HXCommandLineTool::takeOption(arguments, name, &value, status))
        return false;
    if (value.isNull())
        return true;
    bool ok = false;
    const qint64 number = value.toLongLong(&ok);
    if (!ok || number <= 0) {
        *status = HXCommandLineTool::fail(
            QStringLiteral("%1: expected a whole number above 0, not '%2'").arg(name, value));
        return false;
    }
    parameters.insert(key, number);
    return true;
}

bool takeCountingArguments(QStringList arguments, const QString &usage, CountingArguments *result,
                           int *status) {
    result->json = arguments.removeAll(QStringLiteral("--json")) > 0;
    result->parameters = HXTextCounter::displayParametersWithPreferences();
    QString markupName = QStringLiteral("markdownqr");
    if (!HXCommandLineTool::takeOption(arguments, QStringLiteral("--markup"), &markupName,
                                       status) ||
        !takePositiveNumber(arguments, QStringLiteral("--chars-per-line"), result->parameters,
                            HXTextCounter::charactersPerLineKey, status) ||
        !takePositiveNumber(arguments, QStringLiteral("--lines-per-page"), result->parameters,
                            HXTextCounter::linesPerPageKey, status))
        return false;
    for (const QString &argument : std::as_const(arguments)) {
        if (argument.startsWith(QStringLiteral("--"))) {
            *status = HXCommandLineTool::fail(
                QStringLiteral("unknown option '%1'; expected %2").arg(argument, usage));
            return false;
        }
    }
    if (arguments.isEmpty()) {
        *status = HXCommandLineTool::fail(QStringLiteral("expected %1").arg(usage));
        return false;
    }
    QString failure;
    result->markup = HXCommandLineTool::markupNamed(markupName, &failure);
    if (!result->markup) {
        *status = HXCommandLineTool::fail(failure);
        return false;
    }
    result->files = arguments;
    return true;
}

// The counts of a sheet package or a text file; nothing after a line on standard error.
std::optional<HXCountDictionary> countsOfFile(const QString &path, const CountingArguments &input,
                                              int *status) {
    const QFileInfo info(path);
    if (!info.exists()) {
        *status = HXCommandLineTool::fail(QStringLiteral("%1: no such file").arg(path));
        return std::nullopt;
    }
    if (info.isDir()) {
        const auto sheet = HXCommandLineOpenSheet(path, true, status);
        if (!sheet)
            return std::nullopt;
        return HXTextCounter::allCountsForString(*sheet->text());
    }
    HXError error;
    const QString text = HXImportOperation::textOfFileAtURL(info.absoluteFilePath(), &error);
    if (text.isNull()) {
        const QString reason = error.localizedFailureReason().isEmpty()
                                   ? error.localizedDescription()
                                   : error.localizedFailureReason();
        *status = HXCommandLineTool::fail(QStringLiteral("%1: %2").arg(path, reason));
        return std::nullopt;
    }
    return HXTextCounter::allCountsForString(*HXString::stringWithString(text, input.markup));
}

// The counts of every file, and their total last; nothing after a line on standard error.
std::optional<QList<HXCountDictionary>> countsOfFiles(const CountingArguments &input, int *status) {
    QList<HXCountDictionary> counts;
    for (const QString &file : input.files) {
        std::optional<HXCountDictionary> fileCounts = countsOfFile(file, input, status);
        if (!fileCounts)
            return std::nullopt;
        counts.append(std::move(*fileCounts));
    }
    counts.append(HXTextCounter::countsByCombiningCounts(counts));
    return counts;
}

QStringList counterIdentifiers() {
    QStringList identifiers = HXTextCounter::orderedIdentifiersForDisplay();
    identifiers.removeAll(HXTextCounter::displayNameSeparator);
    return identifiers;
}

// A count as JSON: whole numbers as integers, lines and pages under the norm page.
QJsonValue jsonNumber(const QVariant &value, const QString &identifier,
                      const HXCountParameters &parameters) {
    // Totals carry the single-precision reading of each count: 7.2 rather than 7.19999980926.
    const double number =
        std::round(
            HXTextCounter::numberForCountingResult(value, identifier, parameters).value_or(0) *
            1000) /
        1000;
    if (number == std::floor(number) && std::abs(number) < 9e15)
        return qint64(number);
    return number;
}

QString statusName(HXGoalProgressStatus status) {
    static const char *const names[] = {"empty", "in_progress", "almost_reached", "reached",
                                        "exceeded"};
    return QString::fromLatin1(names[std::min<quint64>(quint64(status), 4)]);
}

} // namespace

// velmora-cli stats [--json] [--markup M] [--chars-per-line N] [--lines-per-page N] FILE…
int HXStatsCommand(const QStringList &arguments) {
    const QString usage = QStringLiteral("stats [--json] [--markup M] [--chars-per-line N] "
                                         "[--lines-per-page N] FILE…");
    CountingArguments input;
    int status = 0;
    if (!takeCountingArguments(arguments, usage, &input, &status))
        return status;
    const std::optional<QList<HXCountDictionary>> counts = countsOfFiles(input, &status);
    if (!counts)
        return status;
    const QStringList identifiers = counterIdentifiers();
    QStringList names = input.files;
    names.append(QStringLiteral("total"));
    if (input.json) {
        QJsonObject root;
        for (qsizetype i = 0; i < names.size(); ++i) {
            QJsonObject object;
            for (const QString &identifier : identifiers)
                object.insert(identifier, jsonNumber(counts->at(i).value(identifier), identifier,
                                                     input.parameters));
            root.insert(names.at(i), object);
        }
        HXCommandLineTool::writeOutput(QJsonDocument(root).toJson(QJsonDocument::Indented));
        return 0;
    }
    QString text;
    for (qsizetype i = 0; i < names.size(); ++i) {
        if (i > 0)
            text += u'\n';
        text += names.at(i) + u'\n';
        for (const QString &identifier : identifiers)
            text += QStringLiteral("%1\t%2\n")
                        .arg(identifier,
                             HXTextCounter::displayStringForCountingResult(
                                 counts->at(i).value(identifier), identifier, input.parameters));
    }
    HXCommandLineTool::writeOutput(text.toUtf8());
    return 0;
}

// velmora-cli goal --counter ID --target N --type close_to|at_least|at_most [--json] FILE…
int HXGoalCommand(const QStringList &arguments) {
    const QString usage = QStringLiteral(
        "goal --counter ID --target N --type close_to|at_least|at_most [--json] FILE…");
    QStringList rest = arguments;
    QString counter, target, type;
    int status = 0;
    if (!HXCommandLineTool::takeOption(rest, QStringLiteral("--counter"), &counter, &status) ||
        !HXCommandLineTool::takeOption(rest, QStringLiteral("--target"), &target, &status) ||
        !HXCommandLineTool::takeOption(rest, QStringLiteral("--type"), &type, &status))
        return status;
    if (counter.isNull() || target.isNull() || type.isNull())
        return HXCommandLineTool::fail(QStringLiteral("expected %1").arg(usage));
    const QStringList counters = HXTextCounter::allSimpleCounterIdentifiers();
    if (!counters.contains(counter))
        return HXCommandLineTool::fail(
            QStringLiteral("--counter: '%1' is no counter a goal can be set on (%2)")
                .arg(counter, counters.join(QStringLiteral(", "))));
    bool ok = false;
    const double targetValue = target.toDouble(&ok);
    if (!ok || !std::isfinite(targetValue) || targetValue < 0)
        return HXCommandLineTool::fail(
            QStringLiteral("--target: expected a number of 0 or more, not '%1'").arg(target));
    const QStringList types = {QStringLiteral("close_to"), QStringLiteral("at_least"),
                               QStringLiteral("at_most")};
    if (!types.contains(type))
        return HXCommandLineTool::fail(
            QStringLiteral("--type: expected close_to, at_least or at_most, not '%1'").arg(type));

    CountingArguments input;
    if (!takeCountingArguments(rest, usage, &input, &status))
        return status;
    const std::optional<QList<HXCountDictionary>> counts = countsOfFiles(input, &status);
    if (!counts)
        return status;
    HXCountingGoal goal;
    goal.setCounterIdentifier(counter);
    goal.setTargetResult(targetValue);
    goal.setType(HXCountingGoal::typeFromText(type));
    const HXCountDictionary &total = counts->last();
    const HXGoalMeasurement measurement = HXGoalController::measure(total, goal, input.parameters);
    const QString progress = QString::number(measurement.progress, 'g', 6);
    if (input.json) {
        const QJsonObject object{
            {QStringLiteral("counter"), counter},
            {QStringLiteral("target"), targetValue},
            {QStringLiteral("type"), type},
            {QStringLiteral("count"), jsonNumber(total.value(counter), counter, input.parameters)},
            {QStringLiteral("progress"), progress.toDouble()},
            {QStringLiteral("status"), statusName(measurement.progressStatus)}};
        HXCommandLineTool::writeOutput(QJsonDocument(object).toJson(QJsonDocument::Indented));
        return 0;
    }
    HXCommandLineTool::writeOutput(
        QStringLiteral("count\t%1\nprogress\t%2\nstatus\t%3\n")
            .arg(measurement.displayString, progress, statusName(measurement.progressStatus))
            .toUtf8());
    return 0;
}
