#include "Text/String/Implementation/HXStringObject.h"

#include "Text/String/Implementation/HXChunk.h"

QString HXStringObject::string() const {
    QString result(qsizetype(length()), Qt::Uninitialized);
    getCharacters(result.data(), HXRange{0, length()});
    return result;
}

bool HXStringObject::isEqual(const HXChunk &other) const {
    if (other.isNull() || other.length() != length())
        return false;
    return other.string() == string();
}

HXChunk HXStringObject::substringChunkWithRange(HXRange range) const {
    QString result(qsizetype(range.length), Qt::Uninitialized);
    getCharacters(result.data(), range);
    return HXChunk(result);
}

HXChunk HXStringObject::copyChunk() const {
    return HXChunk(const_cast<HXStringObject *>(this));
}

QString HXStringObject::description() const {
    return QLatin1Char('"') + string() + QLatin1Char('"');
}
