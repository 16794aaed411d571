#pragma once

#include <QString>
#include <QStringList>

#include <memory>

// Kinds of tag attributes. With the file bit set the value is a file that the text stores.
enum HXTagAttributeKind : quint64 {
    HXTagAttributeKindString = 1,
    // A string of its own, with markup; a footnote's text.
    HXTagAttributeKindNestedString = 2,
    HXTagAttributeKindURL = 3,
    HXTagAttributeKindFileBit = 16,
    HXTagAttributeKindImage = 17,
    HXTagAttributeKindVideo = 18,
};

// One value that an element of a definition carries beside its text: a link's URL, an image's
// file. Abstract: the built-in attributes and those of custom definitions are its kinds. Values,
// immutable once made (a custom attribute only while it is being read); any thread.
class HXTagAttribute {
public:
    virtual ~HXTagAttribute() = default;

    virtual QString identifier() const = 0;
    virtual QString displayName() const = 0;
    virtual bool showDisplayName() const = 0;
    virtual quint64 kind() const = 0;
    // The file types a file attribute accepts, as MIME types; empty for other kinds.
    virtual QStringList allowedTypes() const = 0;

    bool isFile() const { return kind() & HXTagAttributeKindFileBit; }
    bool isEqual(const HXTagAttribute &other) const;
    size_t hash() const;
    QString description() const;

protected:
    HXTagAttribute() = default;
};

using HXTagAttributeRef = std::shared_ptr<const HXTagAttribute>;
