#include "App/Library/HXSheetPreview.h"

#include "Model/Sheets/HXNativeSheet.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Model/Stores/HXMarkupStore.h"
#include "Text/String/Access/HXAtomicString.h"
#include "Utilities/HXFileCoordinator.h"

#include <QFile>

namespace {

QString cut(const QString &text, qsizetype length) {
    if (text.size() <= length)
        return text;
    // Never half a surrogate pair.
    const qsizetype at = text.at(length - 1).isHighSurrogate() ? length - 1 : length;
    return text.left(at).trimmed();
}

} // namespace

namespace {

// The start of a sheet's text, from an immutable copy taken under its lock: the copy is cheap,
// and only the prefix becomes a flat string, however long the sheet.
QString prefixOfSheet(const HXSheet &sheet) {
    const auto text = sheet.text()->copy();
    return text->flatSubstringWithRange(
        HXRange{0, std::min<quint64>(text->length(), HXSheetPreview::prefixLength)});
}

} // namespace

QString HXSheetPreview::readContentPrefix(const std::shared_ptr<HXSheetHandle> &handle) {
    if (const auto sheet = handle->sheet())
        return prefixOfSheet(*sheet);
    const QString url = handle->URL();
    if (url.isEmpty())
        return QString();
    QString text;
    bool read = false;
    HXFileCoordinator coordinator;
    coordinator.coordinateReadingItemAtURL(url, 0, nullptr, [&](const QString &path) {
        QFile file(path + u'/' + HXNativeSheet::textFilename);
        if (!file.open(QIODevice::ReadOnly))
            return;
        // Four bytes a character at most; a character cut at the end is dropped.
        text = QString::fromUtf8(file.read(prefixLength * 4));
        if (text.endsWith(QChar::ReplacementCharacter))
            text.chop(1);
        read = true;
    });
    if (!read) {
        if (const auto sheet = handle->loadSheetForReading())
            text = prefixOfSheet(*sheet);
    }
    text.replace(QStringLiteral("\r\n"), QStringLiteral("\n"));
    text.replace(u'\r', u'\n');
    // Not null: an empty sheet has been read as well.
    return text.isNull() ? QStringLiteral("") : text.left(prefixLength);
}

std::pair<QString, QString>
HXSheetPreview::titleAndPreviewForText(const QString &text, std::shared_ptr<HXMarkup> markup) {
    if (!markup)
        markup = HXMarkupStore::globalStore()->defaultIntrinsicMarkup();
    // The tags are the markup's to say: read the text as a sheet would, then leave them out.
    const auto string = HXAtomicString::stringWithMarkup(markup);
    string->setString(text);
    const QString plain = string->stringByRemovingObjectsAndTags();
    QString title;
    QStringList rest;
    qsizetype restLength = 0;
    for (const QStringView line : QStringView(plain).split(u'\n')) {
        const QString content = line.toString().simplified();
        if (content.isEmpty())
            continue;
        if (title.isEmpty()) {
            title = cut(content, titleLength);
            continue;
        }
        rest.append(content);
        restLength += content.size() + 1;
        if (restLength > previewLength)
            break;
    }
    return {title, cut(rest.join(u' '), previewLength)};
}
