#pragma once

#include "Text/Markup/HXTextTag.h"
#include "Utilities/HXNotificationCenter.h"
#include "Utilities/HXXMLElement.h"
#include "Utilities/HXXMLReading.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMap>

#include <memory>
#include <mutex>
#include <vector>

class HXMarkup;
class HXParseTables;

// Told when a markup's tags change in a way that strings must reparse for.
class HXMarkupObserver {
public:
    virtual ~HXMarkupObserver() = default;
    virtual void markupChangedStructure(HXMarkup &markup) = 0;
};

// The pasteboard type of markups.
inline const QString HXMarkupPasteboardType = QStringLiteral("com.quaytor.velmora3.markup");

// A set of text tags: how each definition is written. Several tags may write one definition, of
// which one is the default. Kept in `markup.xml` form: built-in markups among the resources,
// user markups in a store. The set holds no two equal tags and is kept in a fixed order (by
// scope, definition and patterns), so that lists and files come out the same every time.
// Changed on the main thread; the tags and default tags may be read from any thread.
class HXMarkup : public HXXMLReading, public std::enable_shared_from_this<HXMarkup> {
public:
    HXMarkup();
    ~HXMarkup() override;
    HXMarkup(const HXMarkup &) = delete;
    HXMarkup &operator=(const HXMarkup &) = delete;

    // A markup read from `markup.xml` data; nothing and the error when it can't be read.
    static std::shared_ptr<HXMarkup> markupWithData(const QByteArray &data, HXError *error);
    // Reads the data into this markup; its tags change only on success.
    bool readFromData(const QByteArray &data, HXError *error);
    QByteArray XMLData() const;
    static QString XMLElementName() { return QStringLiteral("markup"); }
    HXXMLElement XMLElement() const;
    static constexpr qint64 currentVersion = 1;

    QString identifier() const { return m_identifier; }
    void setIdentifier(const QString &identifier) { m_identifier = identifier; }
    QString displayName() const { return m_displayName; }
    void setDisplayName(const QString &name) { m_displayName = name; }
    // Whether any tag is intrinsic; setting it marks all tags.
    bool isIntrinsic() const;
    void setIntrinsic(bool intrinsic);

    QList<HXTextTagRef> allTags() const;
    // Takes over the tags unless they are the same set already.
    void setAllTags(const QList<HXTextTagRef> &tags);
    void addTag(const HXTextTagRef &tag);
    void removeTag(const HXTextTagRef &tag);

    QList<HXTextTagRef> tagsForScope(quint64 scope) const;
    QList<HXTextTagRef> tagsForSelector(HXDefinitionSelector selector) const;
    QList<HXTextTagRef> allTagsWithIdentifier(const QString &identifier) const;
    // What the parser derives from the tags for a selector, kept until the tags change.
    std::shared_ptr<const HXParseTables> parserTables(HXDefinitionSelector selector) const;
    // The tag of a definition: the only one, or among several the one whose first expression
    // matches the whole string (for a line-level tag, the marker without the blanks before it),
    // or the default tag.
    HXTextTagRef tagWithIdentifier(const QString &identifier,
                                   const QString &matchingString = QString()) const;
    // One tag for each definition that has tags.
    QHash<QString, HXTextTagRef> defaultTags() const;
    HXTextTagRef defaultTagWithIdentifier(const QString &identifier) const;

    // A batch of changes posts one structure notification at its end.
    void beginEditing();
    void endEditing();
    void addMarkupObserver(const std::shared_ptr<HXMarkupObserver> &observer);
    void removeMarkupObserver(const std::shared_ptr<HXMarkupObserver> &observer);

    // The same identifier and name, every tag copied.
    std::shared_ptr<HXMarkup> copy() const;
    // A markup the user may change: no identifier, the default tags only, each duplicated.
    std::shared_ptr<HXMarkup> duplicate() const;
    // Takes over the other's tags in one batch: keeps those both have, drops the rest and adds
    // duplicates of the ones missing.
    void setUsingMarkup(const HXMarkup &other);
    // Same identifier and the same tags.
    bool isEqual(const HXMarkup &other) const;
    // The same tags, whatever the identifiers.
    bool isEqualToMarkup(const HXMarkup &other) const;

    // The pasteboard form: the XML document's data. Another type is an assertion.
    QByteArray pasteboardPropertyListForType(const QString &type) const;
    static std::shared_ptr<HXMarkup>
    markupWithPasteboardPropertyList(const QByteArray &data, const QString &type, HXError *error);

    // The built-in markups by identifier, read from the resources once.
    static const QMap<QString, std::shared_ptr<HXMarkup>> &intrinsicMarkups();
    // The built-in markup `markdownqr`; the run ends when it is missing.
    static std::shared_ptr<HXMarkup> defaultIntrinsicMarkup();
    // The default markup among the given ones; the run ends when it isn't there.
    static std::shared_ptr<HXMarkup>
    defaultMarkupAmong(const QMap<QString, std::shared_ptr<HXMarkup>> &markups);
    static inline const QString defaultIntrinsicMarkupIdentifier = QStringLiteral("markdownqr");

    // Reading the `markup` element.
    bool readerWillStartElement(const QString &name, const HXXMLAttributes &attributes,
                                HXError *error) override;
    std::shared_ptr<HXXMLReading> readerDidFindChildElement(const QString &name,
                                                            HXXMLReaderContext *context,
                                                            HXError *error) override;
    bool readerDidEndChildElement(const std::shared_ptr<HXXMLReading> &child,
                                  HXXMLReaderContext *context, HXError *error) override;
    bool readerWillEndElement(HXXMLReaderContext *context, HXError *error) override;

    // Reads a built-in markup file: its identifier is its file name, its tags are intrinsic.
    static std::shared_ptr<HXMarkup> readIntrinsicMarkup(const QString &path, HXError *error);

private:
    void postStructureNotification();
    void invalidateDefaultTags();
    void observeTag(const HXTextTagRef &tag);
    void sortTags();
    qsizetype indexOfEqualTag(const QList<HXTextTagRef> &tags, const HXTextTag &tag) const;
    static bool tagSetsEqual(const QList<HXTextTagRef> &a, const QList<HXTextTagRef> &b);

    QString m_identifier;
    QString m_displayName;
    QList<HXTextTagRef> m_allTags;
    mutable std::mutex
        m_tagsMutex; // guards m_allTags and m_defaultTags for readers on other threads
    mutable std::optional<QHash<QString, HXTextTagRef>> m_defaultTags;
    // The tags of each selector asked for, in order; cleared when the tags change.
    mutable QHash<HXDefinitionSelector, QList<HXTextTagRef>> m_selectedTags;
    void clearParserTables();
    std::shared_ptr<const HXParseTables> lockedParserTables(HXDefinitionSelector selector) const;
    mutable QHash<HXDefinitionSelector, std::shared_ptr<const HXParseTables>> m_parserTables;
    // Counts the times the tables were dropped, for the threads' memory of the last ones.
    std::atomic<quint64> m_parserTablesGeneration{0};
    const quint64 m_serial;
    QList<HXTextTagRef> m_readTags;
    // Sheets on any thread come and go as observers.
    mutable std::mutex m_observerMutex;
    std::vector<std::weak_ptr<HXMarkupObserver>> m_observers;
    bool m_isEditing = false;
    bool m_didChange = false;
    HXNotificationObservation m_preferredPatternsObservation;
};

using HXMarkupRef = std::shared_ptr<HXMarkup>;
