#pragma once

#include "Utilities/HXFileWrapper.h"
#include "Utilities/HXRange.h"
#include "Utilities/HXXMLReaderContext.h"

#include <QMap>
#include <QString>

// Files kept beside a document's XML are named with an identifier in front of their last
// extension, as in "picture.8f3a21cc.png": the XML knows a file by that identifier alone. These
// are the rules of such names; a subclass keeps the files.
class HXContext : public HXXMLReaderContext {
public:
    // The identifier in a name, or a null string.
    static QString identifierFromFilename(const QString &filename);
    static QString filenameByRemovingIdentifierFromFilename(const QString &filename);
    // Where the identifier stands, with the point before it if asked; not-found without one.
    static HXRange rangeOfIdentifierInFilename(const QString &filename, bool includingSeparator);
    // The file's name with the identifier put in: in place of one it has, else before its
    // extension. A name that would pass 255 bytes of UTF-8 has its stem cut, at a character,
    // keeping the identifier and the extension.
    static QString filenameForFileWrapper(const HXFileWrapper &fileWrapper,
                                          const QString &identifier);

    static constexpr qsizetype maximumFilenameBytes = 255;
};

// The files of one sheet, its "Media" folder, by identifier. Reading fills it from the folder;
// writing collects in it the files that the text and the attachments refer to. Used by one
// thread at a time.
class HXSheetContext : public HXContext {
public:
    HXSheetContext() = default;
    // The files of the folder whose names have an identifier; others are left out.
    explicit HXSheetContext(const HXFileWrapper &folder);

    const QMap<QString, HXFileWrapperRef> &fileWrappers() const { return m_fileWrappers; }

    // The identifier of the file: the one it has here already, else the one in its name while
    // that is free, else a new one, which the file's name then takes.
    QString storeFileWrapper(const HXFileWrapperRef &fileWrapper) override;
    HXFileWrapperRef readFileWrapper(const QString &identifier) override;
    // A folder of all files under their names, or nothing when there are none.
    HXFileWrapperRef fileWrapperRepresentation() const;

private:
    QMap<QString, HXFileWrapperRef> m_fileWrappers;
};
