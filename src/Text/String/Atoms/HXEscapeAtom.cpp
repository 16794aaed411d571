#include "Text/String/Atoms/HXEscapeAtom.h"

#include "Text/String/Implementation/HXChunk.h"
#include "Utilities/HXAssert.h"

HXEscapeAtom::HXEscapeAtom(const QString &string)
    : HXStringObject(HXStringObjectKind::EscapeAtom)
    , m_string(string) {
    HX_ASSERT(string.size() >= 2, u"Invalid parameter not satisfying: %s", "aString.length >= 2");
}

QChar HXEscapeAtom::characterAtIndex(quint64 index) const {
    HX_ASSERT(index < length(), u"Range or index out of bounds %@", QString::number(index));
    return m_string.at(qsizetype(index));
}

void HXEscapeAtom::getCharacters(QChar *buffer, HXRange range) const {
    HX_ASSERT(range.max() <= length(), u"Range or index out of bounds %@", range.description());
    std::copy_n(m_string.constData() + range.location, range.length, buffer);
}

bool HXEscapeAtom::isEqual(const HXChunk &other) const {
    const HXEscapeAtom *escape = other.as<HXEscapeAtom>();
    return escape && escape->m_string == m_string;
}

QString HXEscapeAtom::description() const {
    return QStringLiteral("<HXEscapeAtom \"%1\">").arg(m_string);
}
