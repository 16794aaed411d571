#pragma once

#include "Model/Sheets/HXSheet.h"
#include "Text/String/Access/HXStringObserver.h"
#include "Utilities/HXXMLReading.h"

#include <QMetaObject>

class HXMutableString;
class HXSheetContext;
class HXString;

// The sheet of the library: a package "NAME.velmora" holding "Content.xml" (the markup, the text
// and the attachments; the only entry ever read), "Text.txt" (the plain text, for other tools;
// written at each save, never read) and, when there are files, "Media". The text is an atomic
// string that the editor changes while saves copy it in the background.
//
// "Content.xml" is a `sheet` element with a `version`: 1 without attachments, 2 with any (a
// keywords attachment counts even without keywords, which writes no element). Versions above 2
// are refused, and the file is left as it is.
class HXNativeSheet : public HXSheet, public HXXMLReading, public HXStringObserver {
public:
    static inline const QString pathExtension = QStringLiteral("velmora");
    static inline const QString fileType = QStringLiteral("com.quaytor.velmora3.sheet");
    static inline const QString contentFilename = QStringLiteral("Content.xml");
    static inline const QString textFilename = QStringLiteral("Text.txt");
    static inline const QString mediaFilename = QStringLiteral("Media");
    static constexpr int currentVersion = 2;

    // A new sheet without a file, in the markup (the default one when none is given).
    static std::shared_ptr<HXNativeSheet> sheetWithMarkup(std::shared_ptr<HXMarkup> markup = {});
    // A sheet for the package, not yet open.
    // Tells the file services that sheet packages are one item each; done before any library is
    // presented.
    static void registerPackagePathExtension();
    static std::shared_ptr<HXNativeSheet> sheetWithURL(const QString &url, bool readOnly = false);
    ~HXNativeSheet() override;

    QString defaultFileType() const override { return fileType; }
    QString defaultPathExtension() const override { return pathExtension; }
    QString changeTokenContentFilename() const override { return contentFilename; }

    std::shared_ptr<HXMarkup> markup() const override;
    std::shared_ptr<HXAtomicString> text() const override { return m_text; }
    // Converts the text to the markup, as one step of undo.
    void setMarkup(const std::shared_ptr<HXMarkup> &markup);
    // The store's markups changed: an equal one of the store takes the place of the sheet's.
    void noteMarkupsChanged();

    bool supportsNoteAttachments() const override { return true; }
    bool supportsFileAttachments() const override { return true; }
    bool supportsKeywordsAttachment() const override { return true; }
    bool supportsCountingGoal() const override { return true; }
    void loadNoteAttachments(const NoteList &notes) override;

    // --- Reading and writing ----------------------------------------------------------------
    bool readFromURL(const QString &url, HXError *error) override;
    HXFileWrapperRef fileWrapperWithError(HXError *error) override;
    // The text's plain file is written while "Content.xml" is made on a helper thread.
    HXFileWrapperRef fileWrapperToWrite(HXError *error) override;
    bool loadTextXMLData(const QByteArray &data, HXSheetContext &context, HXError *error);
    // "Content.xml" of the present state, with the text as copied for it.
    QByteArray contentDataUsingContext(HXSheetContext &context, HXError *error,
                                       std::shared_ptr<HXString> *textCopy = nullptr);
    int contentVersion() const;

    bool readerWillStartElement(const QString &name, const HXXMLAttributes &attributes,
                                HXError *error) override;
    std::shared_ptr<HXXMLReading> readerDidFindChildElement(const QString &name,
                                                            HXXMLReaderContext *context,
                                                            HXError *error) override;
    bool readerDidEndChildElement(const std::shared_ptr<HXXMLReading> &child,
                                  HXXMLReaderContext *context, HXError *error) override;
    bool readerWillEndElement(HXXMLReaderContext *context, HXError *error) override;

    // --- The text's observer ----------------------------------------------------------------
    void stringChangedCharactersInRange(HXString &string, HXRange range,
                                        const HXReplacement &replacement, HXRange editedRange,
                                        HXRange affectedRange, HXRange replacementRange) override;
    void stringWillChangeAttributesOfElementAtIndex(HXString &string, quint64 index) override;
    void stringWillChangeAttributesOfParagraphAtIndex(HXString &string, quint64 index) override;

    void breakUndoCoalescing() override;

private:
    // What "Content.xml" is made from, taken at one moment: the copy of the text and the
    // attachments.
    struct ContentSources {
        std::shared_ptr<HXString> text;
        std::shared_ptr<HXMarkup> markup;
        QList<HXAttachmentRef> attachments;
        bool plain = true;
    };
    ContentSources contentSources();
    static QByteArray contentData(const ContentSources &sources, HXSheetContext &context,
                                  HXError *error);

    HXNativeSheet() = default;
    void setUp(std::shared_ptr<HXMarkup> markup);
    void resetLoadedValues();
    void setMarkupAndText(const std::shared_ptr<HXMarkup> &markup,
                          const std::shared_ptr<HXString> &text);
    void convertToMarkup(const std::shared_ptr<HXMarkup> &markup);
    // Undo puts back the present markup and text.
    void registerUndoOfMarkupAndText();

    std::shared_ptr<HXMarkup> m_markup;
    std::shared_ptr<HXAtomicString> m_text;
    QMetaObject::Connection m_markupsConnection;
    // While reading only.
    std::shared_ptr<HXMutableString> m_readText;
    std::shared_ptr<HXMarkup> m_readMarkup;
    NoteList m_loadedNotes;
    FileList m_loadedFiles;
    std::shared_ptr<HXKeywordsAttachment> m_loadedKeywords;
    std::shared_ptr<HXCountingGoal> m_loadedGoal;
    std::atomic<bool> m_reading = false;
};

using HXNativeSheetRef = std::shared_ptr<HXNativeSheet>;
