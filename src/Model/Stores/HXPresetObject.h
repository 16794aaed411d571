#pragma once

#include "Utilities/HXError.h"
#include "Utilities/HXFileWrapper.h"

#include <QObject>

#include <memory>

// A named object of a preset store (a theme, a style): identifier, display name, author, enabled,
// built in or the user's, and a preview image (PNG bytes). Its package is a folder whose contents
// the subclass gives (`rawFileWrapper`), read from a folder or from a ZIP archive of it. A
// built-in object is always enabled and can't be changed. Copyable; main thread. Signals tell the
// store of changes that must be written.
class HXPresetObject : public QObject {
    Q_OBJECT
public:
    ~HXPresetObject() override;

    // Reads the package at the path (a folder, or a ZIP archive of it); false with an error
    // naming the file when it can't.
    bool initWithContentsOfURL(const QString &url, bool isBuiltin, HXError *error);
    bool setUpUsingFileWrapper(const HXFileWrapper &wrapper, bool isBuiltin, HXError *error);

    // A new object of the same class with the same values.
    virtual std::shared_ptr<HXPresetObject> copy() const = 0;
    // Takes over the other's values; nothing for equal objects or a built-in receiver.
    virtual void setUsingObject(const HXPresetObject &other);
    virtual bool isEqualToObject(const HXPresetObject &other) const;

    QString identifier() const { return m_identifier; }
    void setIdentifier(const QString &identifier) { m_identifier = identifier; }
    QString displayName() const { return m_displayName; }
    void setDisplayName(const QString &name);
    QString author() const { return m_author; }
    void setAuthor(const QString &author);
    bool isEnabled() const { return m_enabled; }
    void setEnabled(bool enabled);
    bool isBuiltin() const { return m_builtin; }
    QByteArray imageData() const { return m_imageData; }
    void setImageData(const QByteArray &data);
    // Takes the preview from "Preview.png" of a package.
    void setImageFromFileWrapper(const HXFileWrapper &wrapper);

    // The display name (or the identifier) with the characters no file name may hold replaced,
    // and the extension of the object's type.
    QString preferredFilename() const;
    virtual QString pathExtension() const = 0;
    // The package as an archive with export data.
    HXFileWrapperRef fileWrapperRepresentation(HXError *error) const;
    HXFileWrapperRef fileWrapperRepresentationAsArchive(bool asArchive, bool includeExportData,
                                                        HXError *error) const;
    virtual HXFileWrapperRef rawFileWrapper(HXError *error) const = 0;
    virtual QMap<QString, HXFileWrapperRef> auxiliaryExportFileWrappers() const { return {}; }

    static inline const QString previewFilename = QStringLiteral("Preview.png");
    static inline const QString infoFilename = QStringLiteral("Info.plist");

Q_SIGNALS:
    void displayNameChanged();
    void enabledChanged();
    void imageChanged();

protected:
    HXPresetObject() = default;
    // Reads what is the subclass's own from the package.
    virtual bool readContentsOfFileWrapper(const HXFileWrapper &wrapper, HXError *error) = 0;
    // The package's common part: "Info.plist" with identifier, name and author, and the preview.
    QMap<QString, HXFileWrapperRef> commonFileWrappers() const;
    void assertEditable() const;

private:
    QString m_identifier;
    QString m_displayName;
    QString m_author;
    bool m_enabled = true;
    bool m_builtin = false;
    QByteArray m_imageData;
};

using HXPresetObjectRef = std::shared_ptr<HXPresetObject>;
