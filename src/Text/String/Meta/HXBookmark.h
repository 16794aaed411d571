#pragma once

#include "Utilities/HXError.h"
#include "Utilities/HXXMLElement.h"

#include <QByteArray>
#include <QString>

#include <memory>

// A mark on a paragraph that the writer can jump back to. It has no content: a paragraph either
// has one or doesn't, and its place is the paragraph. Its stored form is an empty `bookmark`
// element. Immutable and shared; any thread.
class HXBookmark : public std::enable_shared_from_this<HXBookmark> {
public:
    static inline const QString pasteboardType = QStringLiteral("com.quaytor.velmora3.bookmark");

    static std::shared_ptr<HXBookmark> bookmark() { return std::make_shared<HXBookmark>(); }
    // A bookmark is a value without state, so a copy is itself.
    std::shared_ptr<HXBookmark> copy() const {
        return std::const_pointer_cast<HXBookmark>(shared_from_this());
    }

    static QString XMLElementName() { return QStringLiteral("bookmark"); }
    static HXXMLElement XMLElement() { return HXXMLElement(XMLElementName()); }
    // The pasteboard form: a document of one `bookmark` element. Another type is the assertion.
    static QByteArray pasteboardPropertyListForType(const QString &type);
    // A bookmark from its pasteboard form; nothing and the reader's error for anything else.
    static std::shared_ptr<HXBookmark>
    bookmarkWithPasteboardPropertyList(const QByteArray &data, const QString &type, HXError *error);
};

using HXBookmarkRef = std::shared_ptr<HXBookmark>;
