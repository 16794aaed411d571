#pragma once

#include "Text/String/Implementation/HXStringObject.h"
#include "Utilities/HXRange.h"

#include <QString>

#include <memory>
#include <variant>

class HXChunkString;

// One chunk of a chunk string: a plain text (an immutable, implicitly shared QString) or a string
// object (an atom, an escape or a nested chunk string), or nothing. A small value; copying it
// shares the text or the object.
class HXChunk {
public:
    HXChunk() = default;
    HXChunk(const QString &text)
        : m_value(text) {}
    HXChunk(QString &&text)
        : m_value(std::move(text)) {}
    HXChunk(std::shared_ptr<HXStringObject> object) {
        if (object)
            m_value = std::move(object);
    }
    template<typename T>
    requires std::is_base_of_v<HXStringObject, T> HXChunk(std::shared_ptr<T> object)
        : HXChunk(std::shared_ptr<HXStringObject>(std::move(object))) {}

    bool isNull() const { return m_value.index() == 0; }
    explicit operator bool() const { return !isNull(); }
    bool isPlain() const { return m_value.index() == 1; }
    bool isObject() const { return m_value.index() == 2; }

    quint64 length() const {
        switch (m_value.index()) {
        case 1:
            return quint64(std::get<1>(m_value).size());
        case 2:
            return std::get<2>(m_value)->length();
        default:
            return 0;
        }
    }
    QChar characterAtIndex(quint64 index) const;
    void getCharacters(QChar *buffer, HXRange range) const;
    // All code units as one plain text.
    QString string() const;

    // The plain text; empty for an object.
    const QString &text() const;
    HXStringObject *object() const { return isObject() ? std::get<2>(m_value).get() : nullptr; }
    const std::shared_ptr<HXStringObject> &objectPointer() const;
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
    std::shared_ptr<T> pointerAs() const {
        if constexpr (hasKinds<T>())
            return as<T>() ? std::static_pointer_cast<T>(objectPointer()) : nullptr;
        else
            return std::dynamic_pointer_cast<T>(objectPointer());
    }
    HXChunkString *chunkString() const;

    // The same object, or the same shared text; never true for nothing.
    bool isIdenticalTo(const HXChunk &other) const;
    // Equality as the receiver's kind defines it; plain texts compare code units.
    bool isEqual(const HXChunk &other) const;
    // What a clipped enumeration delivers of the range.
    HXChunk substringWithRange(HXRange range) const;
    // What a deep copy takes over: a copy of a chunk string, the same chunk otherwise.
    HXChunk copy() const;
    QString description() const;

private:
    template<typename T>
    static constexpr bool hasKinds() {
        if constexpr (requires { typename T::KindOwner; })
            return std::is_same_v<typename T::KindOwner, T>;
        else
            return false;
    }

    std::variant<std::monostate, QString, std::shared_ptr<HXStringObject>> m_value;
};
