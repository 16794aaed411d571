#pragma once

#include "Text/Markup/HXDefinition.h"
#include "Text/String/Access/HXReplacement.h"
#include "Text/String/Meta/HXBookmark.h"
#include "Text/String/Nodes/HXParagraph.h"
#include "Text/String/Nodes/HXTextElement.h"

#include <QMap>
#include <QSet>
#include <QVariantMap>

#include <optional>
#include <type_traits>

class HXMarkup;
class HXMutableString;

// Options of copying a string into another: behind its text rather than in its place, and with a
// separator between the two.
enum HXStringCopyOptions : int {
    HXStringCopyAppending = 1,
    HXStringCopyInsertSeparator = 2,
};

// Options of paragraph enumeration: the block may change the string through its editing
// operation.
enum HXStringEnumerationOptions : quint64 {
    HXStringEnumerationWithModificationOption = 1,
};

// The text of a sheet: a chunk string whose chunks are paragraphs, each but the last ending in a
// line feed. The position behind a final line feed has no paragraph; typing there makes one.
// Indexes are UTF-16 code units over the whole text, tags included.
//
// This class is immutable: its editing operations raise an assertion. It may be read from several
// threads while nobody changes it; `copy` of a string that does change gives such a tree, which is
// how text goes to workers. Every operation runs through the string's locking context when it has
// one (see HXAtomicString), which it passes on to the attributes of its elements.
//
// Unlike its nodes, a string is held by std::shared_ptr, and is never a chunk of another string.
class HXString : public HXChunkString, public std::enable_shared_from_this<HXString> {
public:
    // Mutable and locked strings are of this kind too; they are told apart by a cast.
    using KindOwner = HXString;
    static constexpr bool matchesKind(HXStringObjectKind kind) {
        return kind == HXStringObjectKind::String;
    }

    HXString()
        : HXChunkString(HXStringObjectKind::String) {}
    explicit HXString(std::shared_ptr<HXMarkup> markup,
                      HXDefinitionSelector recognizedDefinitions = HXDefaultDefinitionSelector);
    ~HXString() override;

    // The text parsed under the markup, as an immutable string.
    static std::shared_ptr<HXString>
    stringWithString(const QString &text, const std::shared_ptr<HXMarkup> &markup,
                     HXDefinitionSelector recognizedDefinitions = HXDefaultDefinitionSelector);
    // A string of one paragraph that holds the element.
    static std::shared_ptr<HXString> stringWithTextElement(const HXTextElementRef &element);

    std::shared_ptr<HXMarkup> markup() const;
    HXDefinitionSelector recognizedDefinitions() const;

    // --- Reading, under the lock -------------------------------------------------------------
    quint64 length() const override;
    QChar characterAtIndex(quint64 index) const override;
    void getCharacters(QChar *buffer, HXRange range) const override;
    QString string() const override;

    // Always an immutable string of the whole text, independent of this one.
    std::shared_ptr<HXString> copy() const;
    std::shared_ptr<HXMutableString> mutableCopy() const;
    // A structured copy of the range, of the same markup.
    std::shared_ptr<HXString> stringWithRange(HXRange range) const;
    // The pieces of the ranges one after another, each but the last ending in a line feed;
    // bookmarks stay behind.
    std::shared_ptr<HXString> substringWithRanges(const QList<HXRange> &ranges) const;

    // --- Structure -----------------------------------------------------------------------------
    QList<HXParagraphRef> paragraphs() const;
    // The paragraph whose range holds the index.
    HXParagraphRef paragraphAtIndex(quint64 index, HXRange *paragraphRange = nullptr) const;
    // The whole paragraphs that the range touches; an empty range looks at the character at its
    // location, at the end at the last one unless the text ends in a line feed.
    HXRange paragraphRangeForRange(HXRange range) const;
    // Calls block(paragraph, location, length, stop) for each paragraph of the range; the result
    // is the range visited. With the modification option a block may edit through the string.
    using ParagraphBlock = std::function<void(const HXParagraphRef &paragraph, quint64 location,
                                              quint64 length, bool &stop)>;
    HXRange enumerateParagraphsInRange(HXRange range, quint64 options, const ParagraphBlock &block);
    HXRange enumerateParagraphsInRange(HXRange range, const ParagraphBlock &block) const;
    // Only paragraphs whose tag's definition has its scope bit in the mask.
    void enumerateParagraphsInScopes(HXDefinitionSelector scopes, HXRange range,
                                     const ParagraphBlock &block) const;
    // The first paragraph whose tag's scope bit is in the mask. Anchored, a paragraph of two or
    // more characters without such a tag ends the search.
    HXRange rangeOfFirstParagraphMatchingMask(HXDefinitionSelector mask, bool anchored) const;
    // The running number of the paragraph at the index, counting paragraphs of two characters or
    // more that aren't excluded from numbering; not-found for one that doesn't count. `state`
    // carries the count from one call to the next.
    quint64 numberForParagraphAtIndex(quint64 index, HXRange *paragraphRange = nullptr,
                                      QVariantMap *state = nullptr) const;
    // The number shown by the nearest grouping at the level above the paragraph at the index, of
    // the given tag or of any tag when none is given, which then comes back; 0 for none.
    quint64 lastEnumerationIndexOfGrouping(HXTextTagRef *tag, qsizetype level,
                                           quint64 paragraphIndex) const;
    // The text of the first paragraph in the range that has more than white space, without tags
    // and entities, trimmed; null when there is none.
    QString stringWithTitleFromRange(HXRange range, HXRange *titleRange = nullptr) const;
    // The lowest heading level of the text, or not-found.
    quint64 highestHeadingLevel() const;
    bool containsFileWrapper() const;
    // Bookmarks of the paragraphs that start in the range, by the paragraph's location.
    QMap<quint64, HXBookmarkRef> bookmarksInRange(HXRange range) const;
    virtual HXDefinitionSelector definitionSelectorForInsertingInRange(HXRange range) const;
    QString stringByRemovingObjects() const;
    QString stringByRemovingObjectsAndTags() const;

    // --- Elements and text -------------------------------------------------------------------
    void enumerateStringsAndAtomsInRange(HXRange range, const HXStringsAndAtomsBlock &block) const;
    // Elements of the range whose definition's scope bit is in the mask, outer ones first.
    void enumerateElementsInRange(HXRange range, HXDefinitionSelector scopes,
                                  const HXElementsBlock &block) const;
    // For each atom of the paragraphs' prefixes that starts in the range: its tag (nothing for an
    // indentation), the location of its first visible character and the length from there.
    void enumerateVisibleTagsInRange(
        HXRange range,
        const std::function<void(const HXTextTagRef &, quint64, quint64, bool &)> &block) const;
    HXRange rangeOfTextElement(const HXTextElement &element) const;
    // Every element of the text whose scope bit is in the mask, under one read.
    void enumerateAllElements(HXDefinitionSelector scopes, const HXElementsBlock &block) const;
    HXTextElementRef textElementStartingAtIndex(quint64 index,
                                                HXRange *effectiveRange = nullptr) const;
    // Splits the range at the given ranges: block(piece, isInOneOfThem, stop).
    void enumerateRange(HXRange range, const QList<HXRange> &splittingRanges,
                        const std::function<void(HXRange, bool, bool &)> &block) const;
    // The text of the range as a reader sees it, for counting: tags and entities left out, and
    // with them the text under definitions that aren't counted (comments) with their line feeds.
    // The nested strings of the counted text attributes of the elements whose tags lie in the
    // range (a footnote's text) are appended to `nestedStrings`, to be counted by themselves.
    // The range is clipped to the text as it stands when the read begins.
    QString countableStringFromRange(HXRange range,
                                     QList<std::shared_ptr<HXString>> *nestedStrings = nullptr) const;
    // A short plain preview of the range.
    QString previewStringFromRange(HXRange range, quint64 maximumLength) const;

    // --- Copying into another string ---------------------------------------------------------
    // Puts the text of the source range into the target with its structure, brought into the
    // target's markup and recognized definitions: in place of the target's text, or, appending,
    // behind it, after a separator if one is asked for. An empty target is always replaced.
    void copyToString(HXMutableString &target, int options = 0) const;
    // Copying with the appending option, and the separator if asked for.
    void appendToString(HXMutableString &target, bool insertSeparator) const;
    // What of this string a copy takes: all of it here.
    virtual HXRange sourceRangeForCopyingToString(const HXString &target, bool isAppending) const;
    // A line feed, or nothing where the target ends in one or the copied text starts with one.
    QString separatorForAppendingToString(const HXString &target) const;
    // The identifiers of the definitions of the source range that don't survive a copy into the
    // target: those it has no tag for under its selector, files where it takes no media, and
    // what the nested strings of the elements it keeps would lose.
    QSet<QString> lossDescriptionsForCopyingToString(const HXString &target) const;

    // --- Editing: only mutable strings -------------------------------------------------------
    virtual bool isMutable() const { return false; }
    virtual void replaceCharactersInRange(HXRange range, const HXReplacement &string,
                                          HXRange *editedRange = nullptr,
                                          HXRange *affectedRange = nullptr,
                                          HXRange *replacementRange = nullptr);
    void replaceCharactersInRange(HXRange range, const QString &string) override {
        replaceCharactersInRange(range, HXReplacement(string));
    }
    void insertString(const QString &string, quint64 index);
    void deleteCharactersInRange(HXRange range);
    void appendString(const QString &string) { appendString(HXReplacement(string)); }
    void appendString(const HXReplacement &string);
    void setString(const QString &string);

    bool isEqualToChunkString(const HXChunkString &other) const override;
    bool isOfClassOf(const HXChunkString &other) const override;
    QString description() const override;
    void checkInvariants(bool deep = true) const override;

    const std::weak_ptr<HXLockingContext> &lockingContext() const { return m_lockingContext; }
    // Keeps the context and passes it on to the elements' attributes.
    void setLockingContext(const std::weak_ptr<HXLockingContext> &context) override;

protected:
    void initWithChunkString(const HXChunkString &other, HXRange range) override;
    // A paragraph that enters the string: its elements' attributes get the locking context.
    void adopt(const HXChunk &chunk) const override;
    // Strings are copied as strings, never as chunks.
    HXRef<HXChunkString> copyWithRange(HXRange range) const override;

    // Runs the block under the read or the write lock of the locking context, if there is one.
    template<typename F>
    auto reading(F &&block) const -> decltype(block());
    template<typename F>
    auto writing(F &&block) const -> decltype(block());

    // The number of the last grouping of the tag at the level before the paragraph, walking back
    // over the paragraphs by their place in the list.
    quint64 lastEnumerationIndexOfGrouping(const QList<HXChunk> &paragraphs, qsizetype ordinal,
                                           HXTextTagRef *tag, qsizetype level) const;

    std::shared_ptr<HXMarkup> m_markup;
    HXDefinitionSelector m_recognizedDefinitions = HXDefaultDefinitionSelector;

private:
    std::weak_ptr<HXLockingContext> m_lockingContext;
};

template<typename F>
auto HXString::reading(F &&block) const -> decltype(block()) {
    const std::shared_ptr<HXLockingContext> context = lockingContext().lock();
    if (!context)
        return block();
    using Result = decltype(block());
    if constexpr (std::is_void_v<Result>) {
        context->read([&] { block(); });
    } else {
        std::optional<Result> result;
        context->read([&] { result.emplace(block()); });
        return std::move(*result);
    }
}

template<typename F>
auto HXString::writing(F &&block) const -> decltype(block()) {
    const std::shared_ptr<HXLockingContext> context = lockingContext().lock();
    if (!context)
        return block();
    using Result = decltype(block());
    if constexpr (std::is_void_v<Result>) {
        context->write([&] { block(); });
    } else {
        std::optional<Result> result;
        context->write([&] { result.emplace(block()); });
        return std::move(*result);
    }
}

using HXStringRef = std::shared_ptr<HXString>;
