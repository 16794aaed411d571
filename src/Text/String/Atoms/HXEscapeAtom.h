#pragma once

#include "Text/String/Implementation/HXStringObject.h"
#include "Text/String/Parser/HXTextParser.h"

#include <QString>

#include <memory>

// An escaped character in a node's text: the backslash and the character behind it, which then
// reads as itself and not as part of a tag. Immutable; shared freely.
class HXEscapeAtom : public HXStringObject {
public:
    using KindOwner = HXEscapeAtom;
    static constexpr bool matchesKind(HXStringObjectKind kind) {
        return kind == HXStringObjectKind::EscapeAtom;
    }

    explicit HXEscapeAtom(const QString &string);

    quint64 length() const override { return quint64(m_string.size()); }
    QChar characterAtIndex(quint64 index) const override;
    void getCharacters(QChar *buffer, HXRange range) const override;
    QString string() const override { return m_string; }
    bool isEqual(const HXChunk &other) const override;
    QString description() const override;

    // The number of leading code units that escape.
    static constexpr quint64 escapeLength = HXTextParser::escapingSequenceLength;
    QString stringWithoutEscape() const { return m_string.mid(escapeLength); }

private:
    QString m_string;
};
