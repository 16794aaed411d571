#pragma once

#include "Text/String/Access/HXMutableString.h"
#include "Text/String/Access/HXStringObserver.h"
#include "TextSystem/Components/HXTextAttachment.h"

#include <QColor>
#include <QFont>
#include <QHash>
#include <QObject>
#include <QTextCharFormat>
#include <QTextLayout>

#include <atomic>
#include <memory>
#include <unordered_map>

class HXTheme;

// A colour that has a light and a dark side, and may be faded towards the background: what the
// base colours of the editor and the escape backslashes are painted with.
struct HXTextColor {
    QColor light;
    QColor dark;
    // 0 for the colour itself; towards 1 it melts into `fadingBackground`.
    double fading = 0;
    QColor lightBackground;
    QColor darkBackground;

    QColor colorForMode(quint64 mode) const;
};

// One run of a paragraph's text with one look. The formats of runs are shared: every run of the
// same look holds the same implicitly shared format. An entity's object character has its own run
// with its attachment.
struct HXStyleRun {
    quint32 location = 0; // from the paragraph's start
    quint32 length = 0;
    QTextCharFormat format;
    std::shared_ptr<HXTextAttachment> attachment;
};

// The bridge between a sheet's string, which any thread may change under its lock, and the
// editor, which lays out and paints on the main thread. It observes the string and keeps two
// caches in step with it, both touched on the main thread only:
//
//  - the content cache, an immutable twin of the string, paragraph for paragraph: every read of
//    the view goes here, never to the live string, so the main thread never waits for a writer;
//  - the style cache: for each paragraph of the twin the runs of its look under the theme, built
//    when first asked for and dropped with the paragraph, so an edit restyles its own paragraphs
//    and nothing else.
//
// An edit on another thread copies the changed paragraphs inside the writer's lock and hands them
// to the main thread synchronously, so the caches show the edit before the edit call returns.
// Nothing may style the text from outside: the look comes from the theme only. Owned by the view
// (or whoever edits through it) by shared pointer, as the string holds it weakly as observer.
class HXTextStorage : public QObject,
                      public HXStringObserver,
                      public std::enable_shared_from_this<HXTextStorage> {
    Q_OBJECT
public:
    HXTextStorage();
    ~HXTextStorage() override;

    // Leaves the old string's observers, joins the new and rebuilds from a copy of it.
    void setContent(const std::shared_ptr<HXMutableString> &content);
    const std::shared_ptr<HXMutableString> &content() const { return m_content; }
    // The twin of the content, as of the last change the storage took in.
    const std::shared_ptr<HXString> &cachedContent() const { return m_contentCache; }
    quint64 length() const { return m_contentCache ? m_contentCache->length() : 0; }
    QString string() const { return m_contentCache ? m_contentCache->string() : QString(); }
    // Changes taken in from the content, and changes the content made; equal when in step. A
    // cheap check that the caches show the content.
    quint64 changeCount() const { return m_changeCount; }
    quint64 contentChangeCount() const { return m_contentChangeCount.load(); }

    // Passes straight on to the content; the change comes back through the observer.
    void replaceCharactersInRange(HXRange range, const QString &string);
    void replaceCharactersInRange(HXRange range, const HXReplacement &string);

    // Outside styling is ignored, unless attributes are being fixed, when it goes to the cache.
    void setAttributes(const QTextCharFormat &format, HXRange range);
    void fixAttributesInRange(HXRange range);
    bool isFixingAttributes() const { return m_isFixingAttributes; }

    // A batch of edits: the outermost begin clears the user's range.
    void beginEditing();
    void endEditing();
    int editingLevel() const { return m_editingLevel; }
    // The union of what the edits of the batch replaced, in present coordinates, not-found for
    // none; and the change in length they made.
    HXRange userEditedRange() const { return m_userEditedRange; }
    qint64 userChangeInLength() const { return m_userChangeInLength; }

    // --- Look ----------------------------------------------------------------------------
    QFont font() const { return m_font; }
    void setFont(const QFont &font);
    std::shared_ptr<HXTheme> theme() const { return m_theme; }
    void setTheme(const std::shared_ptr<HXTheme> &theme);
    // 0 light, 1 dark.
    quint64 colorMode() const { return m_colorMode; }
    void setColorMode(quint64 mode);
    double fading() const { return m_fading; }
    // Changes colours only.
    void setFading(double fading);
    const HXTextColor &textColor() const { return m_textColor; }
    const HXTextColor &backgroundColor() const { return m_backgroundColor; }

    // The runs of the paragraph at the index of the cached content, built if needed; the range
    // of the paragraph goes to `paragraphRange`.
    const QList<HXStyleRun> &styleRunsForParagraphAtIndex(quint64 index,
                                                          HXRange *paragraphRange = nullptr);
    // The same as ranges of formats for a layout of the paragraph's text.
    QList<QTextLayout::FormatRange>
    formatRangesForParagraphAtIndex(quint64 index, HXRange *paragraphRange = nullptr);
    // The format at the index and the range of its run.
    QTextCharFormat attributesAtIndex(quint64 index, HXRange *effectiveRange = nullptr);
    // The attachment of the entity's object character at the index, or nothing.
    std::shared_ptr<HXTextAttachment> attachmentAtIndex(quint64 index);
    // Whether the paragraph at the index has its runs built; for tests.
    bool hasStyleForParagraphAtIndex(quint64 index) const;
    qsizetype numberOfStyledParagraphs() const { return qsizetype(m_styleCache.size()); }

    // The look of text under the open tags, outermost first, as the theme says.
    QTextCharFormat attributesForActiveTags(const HXOpenTags &openTags, bool isAtom);

    // The twin and the style runs against the content: the assertion on a difference.
    void checkInvariants() const;

    // --- Observing the content ------------------------------------------------------------
    void stringChangedCharactersInRange(HXString &string, HXRange range,
                                        const HXReplacement &replacement, HXRange editedRange,
                                        HXRange affectedRange, HXRange replacementRange) override;

    // Main thread: puts the copied paragraphs in place of the old range's whole paragraphs of
    // the twin, the range of the copy being `newRange` in present coordinates.
    // `edit` is the replaced range in old coordinates, whose entities don't survive.
    void updateCacheInRange(HXRange oldRange, HXRange newRange, const QList<HXChunk> &paragraphs,
                            HXRange edit = HXNotFoundRange());
    void rebuildCacheFromString(const std::shared_ptr<HXString> &string);

Q_SIGNALS:
    // Characters of `range` (present coordinates) changed, by `changeInLength`; for the layout.
    void edited(HXRange range, qint64 changeInLength);
    // Every style changed: fonts, theme, colours.
    void stylesChanged();
    void textColorChanged();
    void backgroundColorChanged();

private:
    struct ParagraphStyle {
        QList<HXStyleRun> runs;
    };
    void addEditedRange(HXRange replacement, qint64 changeInLength);
    void updateBaseColors();
    // Drops every paragraph's runs and the colour map; they are built again when asked for.
    void invalidateStyles();
    ParagraphStyle buildStyle(const HXParagraph &paragraph, quint64 location,
                              const QHash<quint64, std::shared_ptr<HXTextAttachment>> &kept);
    QColor colorForPart(quint64 part, const HXTextTagRef &tag);
    // One format for each look, so that runs share it.
    QTextCharFormat sharedFormat(const QTextCharFormat &format);
    QTextCharFormat escapeFormat(const QTextCharFormat &base);

    std::shared_ptr<HXMutableString> m_content;
    std::shared_ptr<HXString> m_contentCache;
    // Keyed by the twin's paragraph objects, which live as long as they stand in the twin.
    std::unordered_map<const HXStringObject *, ParagraphStyle> m_styleCache;
    QHash<QPair<const void *, quint64>, QColor> m_colorMap;
    QList<QTextCharFormat> m_sharedFormats;
    QHash<QByteArray, qsizetype> m_sharedFormatIndex;
    QFont m_font;
    std::shared_ptr<HXTheme> m_theme;
    double m_fading = 0.5;
    quint64 m_colorMode = 0;
    HXTextColor m_backgroundColor;
    HXTextColor m_textColor;
    int m_editingLevel = 0;
    bool m_isFixingAttributes = false;
    HXRange m_userEditedRange = HXNotFoundRange();
    qint64 m_userChangeInLength = 0;
    quint64 m_changeCount = 0;
    std::atomic<quint64> m_contentChangeCount{0};
};
