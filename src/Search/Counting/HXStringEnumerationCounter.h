#pragma once

#include "Search/Counting/HXTextCounter.h"

// Paragraphs, lines, sentences and words, found by nesting the text's segmentation: paragraphs
// and lines at line terminators, sentences inside a line, words inside a sentence, by the Unicode
// rules in the process's locale. So a heading without a full stop is a sentence, and words are
// what the segmenter finds, not what blanks separate (Chinese and Japanese have none). Lines are
// kept as their lengths; lines and pages under a norm page follow from them at display time.
class HXStringEnumerationCounter : public HXTextCounter {
public:
    static const HXStringEnumerationCounter &counter();

    QStringList supportedIdentifiers() const override;
    QString formatVersion() const override { return QStringLiteral("stringCounter_2"); }
    HXCountDictionary countsForString(const QString &string, HXRange range,
                                      const HXCountDictionary &counts) const override;
    QString displayNameForSupportedIdentifier(const QString &identifier) const override;
    QStringList defaultDisplayIdentifiers() const override;
    QStringList simpleCounterIdentifiers() const override;
    QVariant countByCombiningCountValues(const QList<HXCountDictionary> &counts,
                                         const QString &identifier) const override;
    QString displayString(const QVariant &result, const QString &identifier,
                          const HXCountParameters &parameters,
                          const QLocale *locale) const override;
    std::optional<double> number(const QVariant &result, const QString &identifier,
                                 const HXCountParameters &parameters) const override;

    // Words over sentences to one decimal; no sentence counts as one.
    static double wordsPerSentence(quint64 words, quint64 sentences);

private:
    HXStringEnumerationCounter() = default;
};
