#pragma once

#include "Model/Attachments/HXAttachment.h"

#include <QVariant>

#include <optional>

// A writing goal: a counter (by identifier), a target and how the count should stand to it.
// Without a target, or with 0, it is empty. Stored as text ("counter;type;target") in a sheet
// and as a dictionary in a group's or filter's info file.
class HXCountingGoal : public HXAttachment {
public:
    enum Type : quint64 { CloseTo = 0, AtLeast = 1, AtMost = 2 };

    QString counterIdentifier() const { return m_counterIdentifier; }
    void setCounterIdentifier(const QString &identifier);
    std::optional<double> targetResult() const { return m_targetResult; }
    void setTargetResult(std::optional<double> target);
    quint64 type() const { return m_type; }
    void setType(quint64 type);

    // "close_to", "at_least", "at_most"; any other text reads as close_to.
    static QString typeText(quint64 type);
    static quint64 typeFromText(const QString &text);

    // The dictionary of an info file, and back: a value that is no dictionary is ignored, an
    // empty counter and absent keys leave fields as they are.
    QVariantMap propertyListRepresentation() const;
    void setWithPropertyListRepresentation(const QVariant &representation);
    // The text of a sheet's goal element, and back: fewer than three parts keep the defaults.
    QString storedText() const;
    void setWithStoredText(const QString &text);

    QString displayTitle() const override { return localizedTitle(QStringLiteral("Goal")); }
    bool isEmpty() const override { return !m_targetResult || *m_targetResult == 0; }
    bool isEqual(const HXAttachment &other) const override;
    HXAttachmentRef copy() const override;

    static inline const QString defaultCounterIdentifier = QStringLiteral("characters");
    // Posted by a goal, as sender, after each change of one of its fields.
    static inline const QString didChangeNotification =
        QStringLiteral("HXCountingGoalDidChangeNotification");

    // A goal of the counter and type last chosen by the user, where the preferences hold them.
    static std::shared_ptr<HXCountingGoal> newCountingGoalWithDefaultSettings();
    static void storeDefaultCounterIdentifier(const QString &identifier);
    static void storeDefaultType(quint64 type);

private:
    void noteGoalChange();

    QString m_counterIdentifier = defaultCounterIdentifier;
    std::optional<double> m_targetResult;
    quint64 m_type = CloseTo;
};
