#include "Model/Sheets/HXContext.h"

#include <QRandomGenerator>
#include <QRegularExpression>

namespace {

const QRegularExpression &identifierExpression() {
    static const QRegularExpression expression(
        QStringLiteral("\\.[0-9a-f]{6,}+\\.[a-z][0-9a-z]*+$"),
        QRegularExpression::CaseInsensitiveOption);
    return expression;
}

// An extension that the identifier rule can find an identifier in front of.
bool isPlainExtension(QStringView extension) {
    static const QRegularExpression expression(QStringLiteral("^[a-z][0-9a-z]*$"),
                                               QRegularExpression::CaseInsensitiveOption);
    return expression.match(extension.toString()).hasMatch();
}

// The longest start of the text that takes at most so many bytes of UTF-8, ending between
// characters.
QString prefixWithinBytes(const QString &text, qsizetype bytes) {
    qsizetype used = 0;
    qsizetype end = 0;
    while (end < text.size()) {
        const char32_t c = text.at(end).isHighSurrogate() && end + 1 < text.size()
                               ? QChar::surrogateToUcs4(text.at(end), text.at(end + 1))
                               : text.at(end).unicode();
        const qsizetype units = c > 0xFFFF ? 2 : 1;
        const qsizetype size = c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
        if (used + size > bytes)
            break;
        used += size;
        end += units;
    }
    return text.left(end);
}

} // namespace

HXRange HXContext::rangeOfIdentifierInFilename(const QString &filename, bool includingSeparator) {
    const QRegularExpressionMatch match = identifierExpression().match(filename);
    if (!match.hasMatch())
        return HXNotFoundRange();
    const qsizetype start = match.capturedStart();
    const qsizetype lastPoint = filename.lastIndexOf(u'.');
    const qsizetype from = includingSeparator ? start : start + 1;
    return HXRange{quint64(from), quint64(lastPoint - from)};
}

QString HXContext::identifierFromFilename(const QString &filename) {
    const HXRange range = rangeOfIdentifierInFilename(filename, false);
    if (range.isNotFound())
        return QString();
    return filename.mid(qsizetype(range.location), qsizetype(range.length));
}

QString HXContext::filenameByRemovingIdentifierFromFilename(const QString &filename) {
    const HXRange range = rangeOfIdentifierInFilename(filename, true);
    if (range.isNotFound())
        return filename;
    return QString(filename).remove(qsizetype(range.location), qsizetype(range.length));
}

QString HXContext::filenameForFileWrapper(const HXFileWrapper &fileWrapper,
                                          const QString &identifier) {
    QString name = fileWrapper.preferredFilename();
    if (name.isEmpty())
        name = QStringLiteral("file");
    QString stem;
    QString extension;
    const HXRange present = rangeOfIdentifierInFilename(name, true);
    if (!present.isNotFound()) {
        stem = name.left(qsizetype(present.location));
        extension = name.mid(qsizetype(present.max()));
    } else {
        const qsizetype point = name.lastIndexOf(u'.');
        if (point > 0 && isPlainExtension(QStringView(name).mid(point + 1))) {
            stem = name.left(point);
            extension = name.mid(point);
        } else {
            // Without an extension the identifier could not be found again: one is added.
            stem = name;
            extension = QStringLiteral(".bin");
        }
    }
    const QString tail = u'.' + identifier + extension;
    QString result = stem + tail;
    const qsizetype bytes = result.toUtf8().size();
    if (bytes > maximumFilenameBytes) {
        const qsizetype room = maximumFilenameBytes - tail.toUtf8().size();
        result = prefixWithinBytes(stem, std::max<qsizetype>(room, 0)) + tail;
    }
    return result;
}

// --- HXSheetContext ---------------------------------------------------------------------------

HXSheetContext::HXSheetContext(const HXFileWrapper &folder) {
    for (auto entry = folder.fileWrappers().cbegin(); entry != folder.fileWrappers().cend();
         ++entry) {
        const QString identifier = identifierFromFilename(entry.key());
        if (!identifier.isEmpty() && entry.value()->isRegularFile())
            m_fileWrappers.insert(identifier, entry.value());
    }
}

QString HXSheetContext::storeFileWrapper(const HXFileWrapperRef &fileWrapper) {
    if (!fileWrapper)
        return QString();
    for (auto entry = m_fileWrappers.cbegin(); entry != m_fileWrappers.cend(); ++entry) {
        if (entry.value() == fileWrapper)
            return entry.key();
    }
    QString identifier = identifierFromFilename(fileWrapper->preferredFilename());
    if (identifier.isEmpty() || m_fileWrappers.contains(identifier)) {
        do {
            identifier = QString::number(QRandomGenerator::global()->generate64(), 16)
                             .rightJustified(16, u'0');
        } while (m_fileWrappers.contains(identifier));
        fileWrapper->setPreferredFilename(filenameForFileWrapper(*fileWrapper, identifier));
    }
    m_fileWrappers.insert(identifier, fileWrapper);
    return identifier;
}

HXFileWrapperRef HXSheetContext::readFileWrapper(const QString &identifier) {
    return m_fileWrappers.value(identifier);
}

HXFileWrapperRef HXSheetContext::fileWrapperRepresentation() const {
    if (m_fileWrappers.isEmpty())
        return nullptr;
    QMap<QString, HXFileWrapperRef> files;
    for (auto entry = m_fileWrappers.cbegin(); entry != m_fileWrappers.cend(); ++entry)
        files.insert(filenameForFileWrapper(*entry.value(), entry.key()), entry.value());
    return HXFileWrapper::directoryWithFileWrappers(files, QStringLiteral("Media"));
}
