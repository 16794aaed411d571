#pragma once

#include "Text/Markup/HXDefinition.h"
#include "Text/String/Implementation/HXLockingContext.h"

#include <QMap>
#include <QVariant>
#include <QVariantMap>

#include <functional>
#include <memory>

class HXAtomicString;
class HXFileWrapper;
class HXMarkup;

// The values that an entity carries beside its text, by attribute identifier: a link's URL and
// title, a footnote's text. Strings and URLs are plain texts without the characters a file can't
// hold; the text of a footnote or an annotation is a nested string of its own, made on first
// use, that can't itself hold footnotes and takes the lock of the outer string. One for each
// entity whose definition declares attributes, owned by the element; guarded by the lock of the
// string that owns the element. Every change made here is announced to that string first, inside
// its write, so that its observers and its undo see it as they see a change made through it.
class HXAttributeDictionary {
public:
    HXAttributeDictionary(HXDefinitionRef definition, std::shared_ptr<HXMarkup> markup);
    // A copy: nested strings are copied, other values shared.
    std::shared_ptr<HXAttributeDictionary> copy() const;

    const HXDefinitionRef &definition() const { return m_definition; }
    // The identifiers of the definition's attributes, in its order.
    QStringList sortedKeys() const;
    // The attribute of an identifier; an unknown one is the assertion.
    HXTagAttributeRef attributeForKey(const QString &key) const;
    // The value of a string or URL attribute; nothing for an unknown key or an unset value.
    QVariant objectForKey(const QString &key) const;
    // The nested string of a text attribute, made and kept on first use.
    std::shared_ptr<HXAtomicString> nestedStringForKey(const QString &key);
    // The nested string of a text attribute if it was made, without making one.
    std::shared_ptr<HXAtomicString> existingNestedStringForKey(const QString &key) const {
        return m_nestedStrings.value(key);
    }
    // Announce the change, then store or remove.
    void setObject(const QVariant &value, const QString &key);
    void removeObjectForKey(const QString &key);
    // Takes the values of a plain map, by identifier, and drops those it lacks: strings and URLs
    // as strings, files as HXFileWrapperRef. Text attributes can't be set.
    void setDictionary(const QVariantMap &values);
    // Drops the files without announcing it: the parser does this while the tree is in flux.
    void removeFileWrappersQuietly();
    bool canSetObject(const QVariant &value, const QString &key) const;
    static bool canSetObject(const QVariant &value, const HXTagAttribute &attribute);
    // Store in the first attribute of the definition that takes the kind; false if none does.
    bool setURLString(const QString &urlString);
    bool setString(const QString &string);
    // A file goes to the first file attribute whose types it has.
    bool setFileWrapper(const std::shared_ptr<HXFileWrapper> &file);
    bool canSetFileWrapper(const std::shared_ptr<HXFileWrapper> &file, const QString &key) const;
    void setFileWrapperForKey(const std::shared_ptr<HXFileWrapper> &file, const QString &key);
    std::shared_ptr<HXFileWrapper> fileWrapperForKey(const QString &key) const {
        return m_files.value(key);
    }
    qsizetype count() const { return m_store.size() + m_nestedStrings.size() + m_files.size(); }
    // In the definition's order: identifier, value (a nested string as its characters, a file as
    // its name), attribute.
    void enumerateAttributes(const std::function<void(const QString &, const QVariant &,
                                                      const HXTagAttribute &)> &block) const;

    void setMarkup(const std::shared_ptr<HXMarkup> &markup);
    void setLockingContext(const std::weak_ptr<HXLockingContext> &context);
    bool isEqual(const HXAttributeDictionary &other) const;
    // Whether two values of the attribute are equal: two files when their contents are.
    static bool compareObject(const QVariant &value, const QVariant &other,
                              const HXTagAttribute &attribute);

private:
    // Runs a change under the write of the owning string, announced to it first.
    template<typename F>
    void change(const QString &key, F &&store);

    HXDefinitionRef m_definition;
    std::shared_ptr<HXMarkup> m_markup;
    QVariantMap m_store;
    QMap<QString, std::shared_ptr<HXAtomicString>> m_nestedStrings;
    QMap<QString, std::shared_ptr<HXFileWrapper>> m_files;
    std::weak_ptr<HXLockingContext> m_lockingContext;
};

using HXAttributeDictionaryRef = std::shared_ptr<HXAttributeDictionary>;
