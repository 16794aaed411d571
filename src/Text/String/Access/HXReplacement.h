#pragma once

#include "Text/String/Implementation/HXChunk.h"

#include <QString>

#include <memory>
#include <type_traits>

class HXString;

// What the editing door of a string puts in place of characters: plain text, or a string whose
// paragraphs come with their structure (pasted text, the old text that undo puts back). A small
// value that shares what it holds.
class HXReplacement {
public:
    HXReplacement() = default;
    HXReplacement(const QString &text)
        : m_text(text) {}
    HXReplacement(const char16_t *text)
        : m_text(QString::fromUtf16(text)) {}
    // The characters of a plain chunk.
    HXReplacement(const HXChunk &text)
        : m_text(text.string()) {}
    HXReplacement(std::shared_ptr<const HXString> string)
        : m_string(std::move(string)) {}
    template<typename T>
    requires std::is_base_of_v<HXString, T> HXReplacement(std::shared_ptr<T> string)
        : m_string(std::move(string)) {}

    // The string, or nothing for plain text.
    const HXString *string() const { return m_string.get(); }
    const std::shared_ptr<const HXString> &stringPointer() const { return m_string; }
    // The plain text; empty for a string.
    const QString &text() const { return m_text; }
    quint64 length() const;
    // The characters, whichever it holds.
    QString characters() const;

private:
    QString m_text;
    std::shared_ptr<const HXString> m_string;
};
