#pragma once

#include "Text/String/Implementation/HXStringObject.h"
#include "Text/String/Implementation/HXTextBuffer.h"
#include "Utilities/HXRange.h"
#include "Utilities/HXRef.h"

#include <QString>
#include <QStringView>

#include <type_traits>

class HXChunkString;

// One chunk of a chunk string: a plain text, which is a range of a shared immutable buffer, or a
// string object (an atom, an escape or a nested chunk string), or nothing. Two words: copying
// one shares the buffer or the object. A plain chunk made from a QString copies its code units
// into a buffer of its own; a part of a plain chunk is a range of the same buffer.
//
// Beside the range of a plain text, an object chunk keeps a number for the map it stands in:
// the length the object had when it was put there (see HXChunkMap).
class HXChunk {
public:
    HXChunk() = default;
    HXChunk(const QString &text)
        : HXChunk(QStringView(text)) {}
    HXChunk(QStringView text);
    HXChunk(const char16_t *text)
        : HXChunk(QStringView(text)) {}
    // A range of a buffer.
    HXChunk(HXTextBuffer *buffer, quint32 offset, quint32 length);
    // An object; nothing for none. The strings of sheets can't be chunks.
    explicit HXChunk(HXStringObject *object);
    template<typename T>
    requires std::is_base_of_v<HXStringObject, T> HXChunk(const HXRef<T> &object)
        : HXChunk(static_cast<HXStringObject *>(object.get())) {}

    HXChunk(const HXChunk &other) noexcept
        : m_pointer(other.m_pointer)
        , m_offset(other.m_offset)
        , m_length(other.m_length) {
        retain();
    }
    HXChunk(HXChunk &&other) noexcept
        : m_pointer(other.m_pointer)
        , m_offset(other.m_offset)
        , m_length(other.m_length) {
        other.m_pointer = nullptr;
        other.m_offset = 0;
    }
    HXChunk &operator=(const HXChunk &other) noexcept {
        HXChunk copy(other);
        swap(copy);
        return *this;
    }
    HXChunk &operator=(HXChunk &&other) noexcept {
        HXChunk moved(std::move(other));
        swap(moved);
        return *this;
    }
    ~HXChunk() { releaseReference(); }
    void swap(HXChunk &other) noexcept {
        std::swap(m_pointer, other.m_pointer);
        std::swap(m_offset, other.m_offset);
        std::swap(m_length, other.m_length);
    }

    bool isNull() const { return !m_pointer; }
    explicit operator bool() const { return !isNull(); }
    bool isPlain() const { return m_offset & plainBit; }
    bool isObject() const { return m_pointer && !isPlain(); }

    quint64 length() const { return isObject() ? object()->length() : m_length; }
    QChar characterAtIndex(quint64 index) const;
    void getCharacters(QChar *buffer, HXRange range) const;
    // All code units as one plain text.
    QString string() const;
    // The code units of a plain text where they stand; empty for anything else.
    QStringView view() const {
        return isPlain() ? buffer()->view(offset(), m_length) : QStringView();
    }
    // The buffer and the place of a plain text in it.
    HXTextBuffer *buffer() const {
        return isPlain() ? static_cast<HXTextBuffer *>(m_pointer) : nullptr;
    }
    quint32 offset() const { return m_offset & ~plainBit; }

    HXStringObject *object() const {
        return isObject() ? static_cast<HXStringObject *>(m_pointer) : nullptr;
    }
    // The object as a T, or nothing. Classes that declare the kinds they stand for
    // (`KindOwner` being the class itself) are told apart by kind, others by a dynamic cast.
    template<typename T>
    T *as() const {
        HXStringObject *present = object();
        if constexpr (hasKinds<T>()) {
            return present && T::matchesKind(present->objectKind()) ? static_cast<T *>(present)
                                                                    : nullptr;
        } else {
            return dynamic_cast<T *>(present);
        }
    }
    template<typename T>
    HXRef<T> pointerAs() const {
        return HXRef<T>(as<T>());
    }
    HXChunkString *chunkString() const;

    // The same object, or the same range of the same buffer; never true for nothing.
    bool isIdenticalTo(const HXChunk &other) const;
    // Equality as the receiver's kind defines it; plain texts compare code units.
    bool isEqual(const HXChunk &other) const;
    // What a clipped enumeration delivers of the range.
    HXChunk substringWithRange(HXRange range) const;
    // What a deep copy takes over: a copy of a chunk string, the same chunk otherwise.
    HXChunk copy() const;
    QString description() const;

    // The length a map recorded for the chunk; a plain text's own.
    quint32 recordedLength() const { return m_length; }
    void setRecordedLength(quint64 length);

private:
    // The top bit of the offset marks a plain text; buffers are shorter than 2^31 units.
    static constexpr quint32 plainBit = 0x80000000u;

    template<typename T>
    static constexpr bool hasKinds() {
        if constexpr (requires { typename T::KindOwner; })
            return std::is_same_v<typename T::KindOwner, T>;
        else
            return false;
    }
    void retain() const {
        if (isPlain())
            buffer()->retain();
        else if (m_pointer)
            object()->retain();
    }
    void releaseReference() {
        if (isPlain())
            buffer()->release();
        else if (m_pointer)
            object()->release();
    }

    void *m_pointer = nullptr;
    quint32 m_offset = 0;
    quint32 m_length = 0;
};
