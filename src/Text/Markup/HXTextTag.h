#pragma once

#include "Text/Markup/HXDefinition.h"
#include "Utilities/HXXMLElement.h"
#include "Utilities/HXXMLReading.h"

#include <QStringList>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <unicode/regex.h>
#include <vector>

// One way to write a definition: `**` around strong text, `#` before a heading. A tag has one
// pattern for line-level tags and objects, a start and an end pattern for inline spans. From the
// patterns it keeps, built on first use, their literal texts and compiled regular expressions.
// Tags are shared between the markup that holds them and the text that uses them; they are
// changed on the main thread and read from any thread, all under the tag's own lock. The tag of
// a built-in markup is intrinsic, and its patterns can't change.
class HXTextTag : public HXXMLReading, public std::enable_shared_from_this<HXTextTag> {
public:
    HXTextTag();
    HXTextTag(HXDefinitionRef definition, QStringList patterns);
    ~HXTextTag() override;

    // The number of patterns the tags of a scope have: 1, 1, 1, 2, 2, 1; none beyond.
    static qsizetype requiredNumberOfPatternsForScope(quint64 scope);

    HXDefinitionRef definition() const;
    QStringList patterns() const;
    // Replaces the patterns; asserts for an intrinsic tag and for a wrong count.
    void setPatterns(const QStringList &patterns);
    // For each pattern its literal text, or a null string where it has expressions.
    QStringList plainStrings() const;
    // For each pattern its compiled expression, or nothing where it doesn't compile.
    std::vector<std::shared_ptr<const icu::RegexPattern>> matchingExpressions() const;
    std::shared_ptr<const icu::RegexPattern> matchingExpression(qsizetype part) const;
    bool patternIsSimple(qsizetype part) const;

    QString userDisplayName() const;
    void setUserDisplayName(const QString &name);
    // The user's name, else the definition's.
    QString displayName() const;
    // How the tag looks in a list: its start pattern with the name, and its end pattern.
    QString displayString() const;

    bool isIntrinsic() const;
    void setIntrinsic(bool intrinsic);

    // Same definition and patterns.
    bool isEqual(const HXTextTag &other) const;
    size_t hash() const;
    QString description() const;
    // A copy that stays intrinsic if this is; the user's name is not copied.
    std::shared_ptr<HXTextTag> copy() const;
    // A copy that the user may change.
    std::shared_ptr<HXTextTag> duplicate() const;

    // Calls the function after each change of the patterns, until removed by the same owner.
    void addPatternsObserver(const void *owner, std::function<void()> function);
    void removePatternsObserver(const void *owner);

    // Reading and writing the `tag` element of markup files.
    bool readerWillStartElement(const QString &name, const HXXMLAttributes &attributes,
                                HXError *error) override;
    std::shared_ptr<HXXMLReading> readerDidFindChildElement(const QString &name,
                                                            HXXMLReaderContext *context,
                                                            HXError *error) override;
    bool readerDidEndChildElement(const std::shared_ptr<HXXMLReading> &child,
                                  HXXMLReaderContext *context, HXError *error) override;
    bool readerWillEndElement(HXXMLReaderContext *context, HXError *error) override;
    static QString XMLElementName() { return QStringLiteral("tag"); }
    // What takes an element of a markup file that nothing knows: it is skipped, but a tag inside
    // it is an error, as the markup would lose that tag without a word.
    static std::shared_ptr<HXXMLReading> readerForUnknownElement();
    HXXMLElement XMLElement() const;

private:
    void buildCachesLocked() const;

    mutable std::mutex m_mutex;
    HXDefinitionRef m_definition;
    QStringList m_patterns;
    mutable std::optional<QStringList> m_plainStrings;
    mutable std::optional<std::vector<std::shared_ptr<const icu::RegexPattern>>>
        m_matchingExpressions;
    QString m_userDisplayName;
    bool m_intrinsic = false;
    std::vector<std::pair<const void *, std::function<void()>>> m_patternsObservers;
};

using HXTextTagRef = std::shared_ptr<HXTextTag>;
