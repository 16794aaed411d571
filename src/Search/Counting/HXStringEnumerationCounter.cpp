#include "Search/Counting/HXStringEnumerationCounter.h"

#include "Utilities/HXLocalizedString.h"

#include <QHash>

#include <cmath>
#include <memory>
#include <mutex>
#include <unicode/brkiter.h>
#include <unicode/utext.h>

namespace {

const QString wordsIdentifier = QStringLiteral("words");
const QString sentencesIdentifier = QStringLiteral("sentences");
const QString wordsPerSentenceIdentifier = QStringLiteral("wordsPerSentence");
const QString paragraphsIdentifier = QStringLiteral("paragraphs");
const QString linesIdentifier = QStringLiteral("lines");
const QString pagesIdentifier = QStringLiteral("pages");

// Paragraphs end at line feeds, carriage returns (a CR LF pair is one end) and the paragraph
// separator; lines also at the line separator and NEL.
bool isParagraphEnd(char16_t c) {
    return c == u'\n' || c == u'\r' || c == 0x2029;
}

bool isLineEndInsideParagraph(char16_t c) {
    return c == 0x2028 || c == 0x85;
}

bool isBlankLine(const char16_t *characters, quint64 from, quint64 to) {
    for (quint64 i = from; i < to; ++i) {
        if (!QChar::isSpace(char32_t(characters[i])))
            return false;
    }
    return true;
}

// The sentence and word segmenters of the process's locale, made once; every count works on
// clones of its own, which are cheap and never share state.
class Segmenters {
public:
    // ICU promises clones of one prototype nothing about concurrent cloning; one at a time.
    static std::unique_ptr<icu::BreakIterator> sentenceInstance() {
        const Segmenters &shared = prototypes();
        std::lock_guard lock(shared.m_mutex);
        return std::unique_ptr<icu::BreakIterator>(shared.m_sentence->clone());
    }
    static std::unique_ptr<icu::BreakIterator> wordInstance() {
        const Segmenters &shared = prototypes();
        std::lock_guard lock(shared.m_mutex);
        return std::unique_ptr<icu::BreakIterator>(shared.m_word->clone());
    }

private:
    Segmenters() {
        UErrorCode status = U_ZERO_ERROR;
        m_sentence.reset(
            icu::BreakIterator::createSentenceInstance(icu::Locale::getDefault(), status));
        status = U_ZERO_ERROR;
        m_word.reset(icu::BreakIterator::createWordInstance(icu::Locale::getDefault(), status));
        if (!m_sentence || !m_word)
            qFatal("The text segmentation of ICU is missing its data.");
    }
    static const Segmenters &prototypes() {
        static const Segmenters instance;
        return instance;
    }

    mutable std::mutex m_mutex;
    std::unique_ptr<icu::BreakIterator> m_sentence;
    std::unique_ptr<icu::BreakIterator> m_word;
};

// One count: paragraphs, then lines in each, sentences in each line, words in each sentence. The
// segmenters look at the caller's characters in place through UText; nothing is copied.
class Enumeration {
public:
    explicit Enumeration(const char16_t *characters)
        : m_characters(characters)
        , m_sentence(Segmenters::sentenceInstance())
        , m_word(Segmenters::wordInstance()) {}

    quint64 paragraphs = 0;
    quint64 sentences = 0;
    quint64 words = 0;
    HXLineLengths lineLengths;

    void run(quint64 from, quint64 to) {
        lineLengths.reserve(qsizetype((to - from) / 1200));
        quint64 position = from;
        while (position < to) {
            quint64 end = position;
            while (end < to && !isParagraphEnd(m_characters[end]))
                ++end;
            if (end > position)
                ++paragraphs;
            lines(position, end);
            position = end;
            if (position < to) {
                const bool crlf = m_characters[position] == u'\r' && position + 1 < to &&
                                  m_characters[position + 1] == u'\n';
                position += crlf ? 2 : 1;
            }
        }
    }

private:
    // The lines of a paragraph's text: an empty paragraph is one empty line.
    void lines(quint64 from, quint64 to) {
        quint64 start = from;
        for (;;) {
            quint64 end = start;
            while (end < to && !isLineEndInsideParagraph(m_characters[end]))
                ++end;
            const quint64 length = end - start;
            // One less than the length, deliberately: a line of one character stores 0.
            lineLengths.append(quint32(length > 0 ? length - 1 : 0));
            if (length > 0 && !isBlankLine(m_characters, start, end))
                sentencesInLine(start, end);
            if (end >= to)
                return;
            start = end + 1;
        }
    }

    // Points the segmenter at the characters from `from` to `to`, in place.
    bool attach(icu::BreakIterator &iterator, UText &text, quint64 from, quint64 to) {
        UErrorCode status = U_ZERO_ERROR;
        utext_openUChars(&text, reinterpret_cast<const UChar *>(m_characters + from),
                         int64_t(to - from), &status);
        iterator.setText(&text, status);
        return U_SUCCESS(status);
    }

    void sentencesInLine(quint64 from, quint64 to) {
        UText text = UTEXT_INITIALIZER;
        if (!attach(*m_sentence, text, from, to))
            return;
        int32_t start = m_sentence->first();
        for (int32_t end = m_sentence->next(); end != icu::BreakIterator::DONE;
             start = end, end = m_sentence->next()) {
            ++sentences;
            wordsInSentence(from + quint64(start), from + quint64(end));
        }
        utext_close(&text);
    }

    void wordsInSentence(quint64 from, quint64 to) {
        UText text = UTEXT_INITIALIZER;
        if (!attach(*m_word, text, from, to))
            return;
        m_word->first();
        while (m_word->next() != icu::BreakIterator::DONE) {
            // Spaces and punctuation are segments too; letters, numbers, kana and ideographs
            // are words.
            if (m_word->getRuleStatus() >= UBRK_WORD_NONE_LIMIT)
                ++words;
        }
        utext_close(&text);
    }

    const char16_t *m_characters;
    std::unique_ptr<icu::BreakIterator> m_sentence;
    std::unique_ptr<icu::BreakIterator> m_word;
};

} // namespace

const HXStringEnumerationCounter &HXStringEnumerationCounter::counter() {
    static const HXStringEnumerationCounter instance;
    return instance;
}

QStringList HXStringEnumerationCounter::supportedIdentifiers() const {
    return {wordsIdentifier,      sentencesIdentifier, wordsPerSentenceIdentifier,
            paragraphsIdentifier, linesIdentifier,     pagesIdentifier};
}

QStringList HXStringEnumerationCounter::defaultDisplayIdentifiers() const {
    return {wordsIdentifier, sentencesIdentifier, paragraphsIdentifier, pagesIdentifier};
}

QStringList HXStringEnumerationCounter::simpleCounterIdentifiers() const {
    return {wordsIdentifier, sentencesIdentifier, paragraphsIdentifier, linesIdentifier,
            pagesIdentifier};
}

double HXStringEnumerationCounter::wordsPerSentence(quint64 words, quint64 sentences) {
    return std::round(double(words) / double(std::max<quint64>(sentences, 1)) * 10) / 10;
}

HXCountDictionary HXStringEnumerationCounter::countsForString(const QString &string, HXRange range,
                                                              const HXCountDictionary &) const {
    Enumeration enumeration(reinterpret_cast<const char16_t *>(string.constData()));
    enumeration.run(range.location, range.max());
    const QVariant lines = QVariant::fromValue(enumeration.lineLengths);
    return {
        {wordsIdentifier, enumeration.words},
        {sentencesIdentifier, enumeration.sentences},
        {wordsPerSentenceIdentifier, wordsPerSentence(enumeration.words, enumeration.sentences)},
        {paragraphsIdentifier, enumeration.paragraphs},
        {linesIdentifier, lines},
        {pagesIdentifier, lines}};
}

QString
HXStringEnumerationCounter::displayNameForSupportedIdentifier(const QString &identifier) const {
    static const QHash<QString, QString> keys = {
        {wordsIdentifier, QStringLiteral("Words")},
        {sentencesIdentifier, QStringLiteral("Sentences")},
        {wordsPerSentenceIdentifier, QStringLiteral("WordsPerSentence")},
        {paragraphsIdentifier, QStringLiteral("Paragraphs")},
        {linesIdentifier, QStringLiteral("Lines")},
        {pagesIdentifier, QStringLiteral("Pages")},
    };
    const QString key = keys.value(identifier);
    return key.isEmpty() ? QString() : HXLocalizedString(key, stringTable);
}

QVariant
HXStringEnumerationCounter::countByCombiningCountValues(const QList<HXCountDictionary> &counts,
                                                        const QString &identifier) const {
    if (identifier == linesIdentifier || identifier == pagesIdentifier) {
        QList<const HXLineLengths *> parts;
        QList<HXLineLengths> converted;
        converted.reserve(counts.size());
        qsizetype total = 0;
        for (const HXCountDictionary &dictionary : counts) {
            const auto found = dictionary.constFind(identifier);
            if (found == dictionary.constEnd())
                continue;
            if (found->metaType() == QMetaType::fromType<HXLineLengths>()) {
                parts.append(reinterpret_cast<const HXLineLengths *>(found->constData()));
            } else {
                converted.append(lineLengths(*found));
                parts.append(&converted.last());
            }
            total += parts.last()->size();
        }
        HXLineLengths lengths;
        lengths.reserve(total);
        for (const HXLineLengths *part : std::as_const(parts))
            lengths.append(*part);
        return QVariant::fromValue(lengths);
    }
    if (identifier == wordsPerSentenceIdentifier) {
        quint64 words = 0, sentences = 0;
        for (const HXCountDictionary &dictionary : counts) {
            words += dictionary.value(wordsIdentifier).toULongLong();
            sentences += dictionary.value(sentencesIdentifier).toULongLong();
        }
        return wordsPerSentence(words, sentences);
    }
    return HXTextCounter::countByCombiningCountValues(counts, identifier);
}

std::optional<double>
HXStringEnumerationCounter::number(const QVariant &result, const QString &identifier,
                                   const HXCountParameters &parameters) const {
    if (identifier == linesIdentifier || identifier == pagesIdentifier) {
        const quint64 lines =
            lineCount(lineLengths(result), parameter(parameters, charactersPerLineKey));
        if (identifier == linesIdentifier)
            return double(lines);
        return pageCount(lines, parameter(parameters, linesPerPageKey));
    }
    return HXTextCounter::number(result, identifier, parameters);
}

QString HXStringEnumerationCounter::displayString(const QVariant &result, const QString &identifier,
                                                  const HXCountParameters &parameters,
                                                  const QLocale *locale) const {
    if (identifier == linesIdentifier || identifier == pagesIdentifier)
        return formattedNumber(*number(result, identifier, parameters), locale);
    return HXTextCounter::displayString(result, identifier, parameters, locale);
}
