#include "Text/String/Implementation/HXChunk.h"

#include "Text/String/Implementation/HXChunkString.h"
#include "Utilities/HXAssert.h"

#include <cstring>
#include <limits>

HXChunk::HXChunk(QStringView text) {
    HXTextBuffer *made = text.size() == 1 && text.front() == u'\n' ? HXTextBuffer::lineFeed()
                         : text.isEmpty()                          ? HXTextBuffer::empty()
                                                                   : HXTextBuffer::make(text);
    made->retain();
    m_pointer = made;
    m_offset = plainBit;
    m_length = made->size();
}

HXChunk::HXChunk(HXTextBuffer *buffer, quint32 offset, quint32 length)
    : m_pointer(buffer)
    , m_offset(offset | plainBit)
    , m_length(length) {
    HX_ASSERT(buffer && quint64(offset) + length <= buffer->size(),
              u"Range {%u, %u} out of bounds of a buffer.", offset, length);
    buffer->retain();
}

HXChunk::HXChunk(HXStringObject *object)
    : m_pointer(object) {
    if (!object)
        return;
    HX_ASSERT(object->objectKind() != HXStringObjectKind::String,
              u"The string of a sheet can't stand as a chunk.");
    object->retain();
    setRecordedLength(object->length());
}

void HXChunk::setRecordedLength(quint64 length) {
    HX_ASSERT(length <= std::numeric_limits<quint32>::max(),
              u"A chunk of %lu code units is too long.", length);
    m_length = quint32(length);
}

QChar HXChunk::characterAtIndex(quint64 index) const {
    if (isPlain()) {
        HX_ASSERT(index < m_length, u"Range or index out of bounds %lu", index);
        return QChar(buffer()->units()[offset() + index]);
    }
    HX_ASSERT(isObject(), u"Range or index out of bounds %lu", index);
    return object()->characterAtIndex(index);
}

void HXChunk::getCharacters(QChar *destination, HXRange range) const {
    if (range.length == 0)
        return;
    if (isPlain()) {
        HX_ASSERT(range.max() <= m_length, u"Range or index out of bounds %@", range.description());
        std::memcpy(static_cast<void *>(destination), buffer()->units() + offset() + range.location,
                    range.length * sizeof(QChar));
        return;
    }
    HX_ASSERT(isObject(), u"Range or index out of bounds %@", range.description());
    object()->getCharacters(destination, range);
}

QString HXChunk::string() const {
    if (isPlain())
        return view().toString();
    if (isObject())
        return object()->string();
    return QString();
}

HXChunkString *HXChunk::chunkString() const {
    return as<HXChunkString>();
}

bool HXChunk::isIdenticalTo(const HXChunk &other) const {
    if (isNull() || m_pointer != other.m_pointer)
        return false;
    return isObject() || (m_offset == other.m_offset && m_length == other.m_length);
}

bool HXChunk::isEqual(const HXChunk &other) const {
    if (isObject())
        return object()->isEqual(other);
    if (isPlain()) {
        if (other.isPlain())
            return view() == other.view();
        return !other.isNull() && view() == other.string();
    }
    return other.isNull();
}

HXChunk HXChunk::substringWithRange(HXRange range) const {
    if (isPlain()) {
        HX_ASSERT(range.max() <= m_length, u"Range or index out of bounds %@", range.description());
        return HXChunk(buffer(), offset() + quint32(range.location), quint32(range.length));
    }
    if (isObject())
        return object()->substringChunkWithRange(range);
    return HXChunk();
}

HXChunk HXChunk::copy() const {
    return isObject() ? object()->copyChunk() : *this;
}

QString HXChunk::description() const {
    if (isPlain())
        return QLatin1Char('"') + view().toString() + QLatin1Char('"');
    if (isObject())
        return object()->description();
    return QStringLiteral("(null)");
}
