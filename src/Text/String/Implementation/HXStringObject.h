#pragma once

#include "Utilities/HXRange.h"
#include "Utilities/HXRef.h"

#include <QChar>
#include <QString>

#include <atomic>

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
// next to plain texts.
//
// It counts its references itself and is held by HXRef and by the chunks of chunk strings, so
// that the many small objects of a text carry no control block; it deletes itself with the last
// reference. The strings of sheets (HXString and its kinds) are the exception: they are held by
// std::shared_ptr and never stand as chunks. What a subclass allows of threads it says itself.
class HXStringObject {
public:
    virtual ~HXStringObject() = default;
    HXStringObject &operator=(const HXStringObject &) = delete;

    void retain() const noexcept { m_references.fetch_add(1, std::memory_order_relaxed); }
    void release() const noexcept {
        if (m_references.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }

    HXStringObjectKind objectKind() const { return m_kind; }
    virtual quint64 length() const = 0;
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
    explicit HXStringObject(HXStringObjectKind kind = HXStringObjectKind::Other)
        : m_kind(kind) {}
    // A copy is a new object: it starts with no references.
    HXStringObject(const HXStringObject &other)
        : m_kind(other.m_kind) {}

private:
    mutable std::atomic<quint32> m_references{0};
    HXStringObjectKind m_kind;

protected:
    // Room that subclasses use for flags and a small number, which would otherwise cost them
    // a word of their own: with the count and the kind, one word beside the virtual table.
    quint8 m_flags = 0;
    qint16 m_small = 0;
};
