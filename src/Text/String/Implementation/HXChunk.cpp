#include "Text/String/Implementation/HXChunk.h"

#include "Text/String/Implementation/HXChunkString.h"
#include "Utilities/HXAssert.h"

#include <cstring>

QChar HXChunk::characterAtIndex(quint64 index) const {
    if (isPlain()) {
        const QString &plain = std::get<1>(m_value);
        HX_ASSERT(index < quint64(plain.size()), u"Range or index out of bounds %lu", index);
        return plain.at(qsizetype(index));
    }
    HX_ASSERT(isObject(), u"Range or index out of bounds %lu", index);
    return std::get<2>(m_value)->characterAtIndex(index);
}

void HXChunk::getCharacters(QChar *buffer, HXRange range) const {
    if (range.length == 0)
        return;
    if (isPlain()) {
        const QString &plain = std::get<1>(m_value);
        HX_ASSERT(range.max() <= quint64(plain.size()), u"Range or index out of bounds %@",
                  range.description());
        std::memcpy(static_cast<void *>(buffer), plain.constData() + range.location,
                    range.length * sizeof(QChar));
        return;
    }
    HX_ASSERT(isObject(), u"Range or index out of bounds %@", range.description());
    std::get<2>(m_value)->getCharacters(buffer, range);
}

QString HXChunk::string() const {
    switch (m_value.index()) {
    case 1:
        return std::get<1>(m_value);
    case 2:
        return std::get<2>(m_value)->string();
    default:
        return QString();
    }
}

const QString &HXChunk::text() const {
    static const QString empty;
    return isPlain() ? std::get<1>(m_value) : empty;
}

const std::shared_ptr<HXStringObject> &HXChunk::objectPointer() const {
    static const std::shared_ptr<HXStringObject> none;
    return isObject() ? std::get<2>(m_value) : none;
}

HXChunkString *HXChunk::chunkString() const {
    return as<HXChunkString>();
}

bool HXChunk::isIdenticalTo(const HXChunk &other) const {
    if (isObject())
        return other.isObject() && object() == other.object();
    if (isPlain() && other.isPlain()) {
        const QString &a = std::get<1>(m_value), &b = std::get<1>(other.m_value);
        return a.size() == b.size() && a.constData() == b.constData();
    }
    return false;
}

bool HXChunk::isEqual(const HXChunk &other) const {
    if (isObject())
        return object()->isEqual(other);
    if (isPlain()) {
        if (other.isPlain())
            return std::get<1>(m_value) == std::get<1>(other.m_value);
        return !other.isNull() && std::get<1>(m_value) == other.string();
    }
    return other.isNull();
}

HXChunk HXChunk::substringWithRange(HXRange range) const {
    if (isPlain())
        return HXChunk(
            std::get<1>(m_value).mid(qsizetype(range.location), qsizetype(range.length)));
    if (isObject())
        return object()->substringChunkWithRange(range);
    return HXChunk();
}

HXChunk HXChunk::copy() const {
    return isObject() ? object()->copyChunk() : *this;
}

QString HXChunk::description() const {
    if (isPlain())
        return QLatin1Char('"') + std::get<1>(m_value) + QLatin1Char('"');
    if (isObject())
        return object()->description();
    return QStringLiteral("(null)");
}
