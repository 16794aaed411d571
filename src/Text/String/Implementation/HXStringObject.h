#pragma once

#include "Utilities/HXRange.h"

#include <QChar>
#include <QString>

#include <memory>

class HXChunk;

// What kind of string object a chunk is, so that the hot paths of parsing tell chunks apart
// without a dynamic cast.
enum class HXStringObjectKind : quint8 {
    Other,
    TextAtom,
    EscapeAtom,
    ChunkString,
    Paragraph,
    TextElement,
    String,
};

// A string that is an object rather than plain text: an atom (the text of one tag), an escaped
// character, or a chunk string with structure. Such strings stand as chunks in chunk strings
// next to plain texts. Shared by reference; what a subclass allows of threads it says itself.
class HXStringObject : public std::enable_shared_from_this<HXStringObject> {
public:
    virtual ~HXStringObject() = default;

    virtual quint64 length() const = 0;
    virtual HXStringObjectKind objectKind() const { return HXStringObjectKind::Other; }
    virtual QChar characterAtIndex(quint64 index) const = 0;
    // Copies the code units of the range into the buffer, which has room for them.
    virtual void getCharacters(QChar *buffer, HXRange range) const = 0;

    // All code units as one plain text.
    virtual QString string() const;
    // Whether the other chunk is equal to this one. Plain strings compare code units only.
    virtual bool isEqual(const HXChunk &other) const;
    // The part of this string in the range, as the chunk that a clipped enumeration delivers: a
    // plain text unless a subclass keeps structure.
    virtual HXChunk substringChunkWithRange(HXRange range) const;
    // What a deep copy of a chunk string takes over of this chunk: immutable strings are shared.
    virtual HXChunk copyChunk() const;
    virtual QString description() const;

protected:
    HXStringObject() = default;
    HXStringObject(const HXStringObject &) = default;
};
