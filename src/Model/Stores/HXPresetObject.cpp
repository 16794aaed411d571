#include "Model/Stores/HXPresetObject.h"

#include "Utilities/HXAssert.h"
#include "Utilities/HXPropertyList.h"
#include "Utilities/HXUniqueIdentifier.h"
#include "Utilities/HXZipArchive.h"

#include <QFileInfo>
#include <QRegularExpression>

HXPresetObject::~HXPresetObject() = default;

bool HXPresetObject::initWithContentsOfURL(const QString &url, bool isBuiltin, HXError *error) {
    HXFileWrapperRef wrapper = HXFileWrapper::fileWrapperWithPath(url, error);
    if (!wrapper)
        return false;
    if (!wrapper->isDirectory()) {
        wrapper = HXZipArchive::fileWrapperFromZipData(wrapper->regularFileContents(), url, error);
        if (!wrapper)
            return false;
    }
    if (!setUpUsingFileWrapper(*wrapper, isBuiltin, error)) {
        // Name the file in whatever the package's reader reported.
        if (error && !error->localizedDescription().contains(url))
            *error = HXError::fileError(
                HXFileReadCorruptFileError, url,
                QStringLiteral("The preset “%1” couldn’t be read.").arg(url),
                error->localizedFailureReason().isEmpty() ? error->localizedDescription()
                                                          : error->localizedFailureReason());
        return false;
    }
    if (m_identifier.isEmpty()) {
        const QString name = wrapper->preferredFilename().isEmpty() ? QFileInfo(url).fileName()
                                                                    : wrapper->preferredFilename();
        m_identifier = QFileInfo(name).completeBaseName();
    }
    if (m_identifier.isEmpty())
        m_identifier = HXNewUniqueIdentifier();
    return true;
}

bool HXPresetObject::setUpUsingFileWrapper(const HXFileWrapper &wrapper, bool isBuiltin,
                                           HXError *error) {
    if (!wrapper.isDirectory()) {
        HXSetError(error, HXError::withDescription(HXCocoaErrorDomain, HXFileReadCorruptFileError,
                                                   QStringLiteral("A preset must be a folder.")));
        return false;
    }
    if (const auto info = wrapper.fileWrappers().value(infoFilename)) {
        const QVariantMap values =
            HXPropertyList::fromData(info->regularFileContents(), infoFilename, error).toMap();
        if (values.isEmpty() && !info->regularFileContents().isEmpty())
            return false;
        m_identifier = values.value(QStringLiteral("identifier")).toString();
        m_displayName = values.value(QStringLiteral("displayName")).toString();
        m_author = values.value(QStringLiteral("author")).toString();
        m_enabled = values.value(QStringLiteral("enabled"), true).toBool();
    }
    setImageFromFileWrapper(wrapper);
    if (!readContentsOfFileWrapper(wrapper, error))
        return false;
    m_builtin = isBuiltin;
    if (isBuiltin)
        m_enabled = true;
    return true;
}

QMap<QString, HXFileWrapperRef> HXPresetObject::commonFileWrappers() const {
    QVariantMap values{{QStringLiteral("identifier"), m_identifier},
                       {QStringLiteral("enabled"), m_enabled}};
    if (!m_displayName.isEmpty())
        values.insert(QStringLiteral("displayName"), m_displayName);
    if (!m_author.isEmpty())
        values.insert(QStringLiteral("author"), m_author);
    QMap<QString, HXFileWrapperRef> files{
        {infoFilename, HXFileWrapper::regularFileWithContents(
                           HXPropertyList::xmlData(values, nullptr), infoFilename)}};
    if (!m_imageData.isEmpty())
        files.insert(previewFilename,
                     HXFileWrapper::regularFileWithContents(m_imageData, previewFilename));
    return files;
}

void HXPresetObject::setImageFromFileWrapper(const HXFileWrapper &wrapper) {
    const auto preview = wrapper.fileWrappers().value(previewFilename);
    m_imageData = preview ? preview->regularFileContents() : QByteArray();
}

void HXPresetObject::assertEditable() const {
    HX_ASSERT(!m_builtin, u"Built-in objects cannot be modified.");
}

void HXPresetObject::setDisplayName(const QString &name) {
    assertEditable();
    if (name == m_displayName)
        return;
    m_displayName = name;
    emit displayNameChanged();
}

void HXPresetObject::setAuthor(const QString &author) {
    assertEditable();
    m_author = author;
}

void HXPresetObject::setEnabled(bool enabled) {
    assertEditable();
    if (enabled == m_enabled)
        return;
    m_enabled = enabled;
    emit enabledChanged();
}

void HXPresetObject::setImageData(const QByteArray &data) {
    assertEditable();
    if (data == m_imageData)
        return;
    m_imageData = data;
    emit imageChanged();
}

void HXPresetObject::setUsingObject(const HXPresetObject &other) {
    HX_ASSERT(other.metaObject() == metaObject(), u"Attempted to update wrong object.");
    if (m_builtin || isEqualToObject(other))
        return;
    setDisplayName(other.m_displayName);
    setAuthor(other.m_author);
    setEnabled(other.m_enabled);
    setImageData(other.m_imageData);
}

bool HXPresetObject::isEqualToObject(const HXPresetObject &other) const {
    return other.metaObject() == metaObject() && m_identifier == other.m_identifier &&
           m_displayName == other.m_displayName && m_author == other.m_author &&
           m_enabled == other.m_enabled && m_imageData == other.m_imageData;
}

QString HXPresetObject::preferredFilename() const {
    QString name = m_displayName.isEmpty() ? m_identifier : m_displayName;
    // Path separators, characters other systems refuse, control characters, a leading dot.
    static const QRegularExpression unallowed(QStringLiteral("[/\\\\:*?\"<>|\\x00-\\x1f]"));
    name.replace(unallowed, QStringLiteral("-"));
    if (name.startsWith(u'.'))
        name[0] = u'_';
    return name + u'.' + pathExtension();
}

HXFileWrapperRef HXPresetObject::fileWrapperRepresentation(HXError *error) const {
    return fileWrapperRepresentationAsArchive(true, true, error);
}

HXFileWrapperRef HXPresetObject::fileWrapperRepresentationAsArchive(bool asArchive,
                                                                    bool includeExportData,
                                                                    HXError *error) const {
    HXFileWrapperRef raw = rawFileWrapper(error);
    if (!raw)
        return nullptr;
    if (includeExportData) {
        HX_ASSERT(raw->isDirectory(), u"File wrapper must contain directory");
        QMap<QString, HXFileWrapperRef> children = raw->fileWrappers();
        const auto extra = auxiliaryExportFileWrappers();
        for (auto it = extra.cbegin(); it != extra.cend(); ++it)
            children.insert(it.key(), it.value());
        raw = HXFileWrapper::directoryWithFileWrappers(children, preferredFilename());
    }
    if (!asArchive)
        return raw;
    const QByteArray archive = HXZipArchive::zipDataFromFileWrapper(*raw, false, error);
    if (archive.isEmpty())
        return nullptr;
    return HXFileWrapper::regularFileWithContents(archive, preferredFilename());
}
