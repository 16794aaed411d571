#pragma once

#include <QString>
#include <QVariant>

#include <type_traits>

// One argument of a printf-style format. Texts, numbers, Booleans and values of every kind go in
// as a QVariant; pointers keep their address for "%p"; C strings stay C strings for "%s".
class HXFormatArgument {
public:
    enum class Kind { Value, Pointer, CString };

    HXFormatArgument(const QVariant &value)
        : m_value(value) {}
    HXFormatArgument(const QString &value)
        : m_value(value) {}
    HXFormatArgument(QStringView value)
        : m_value(value.toString()) {}
    HXFormatArgument(QLatin1StringView value)
        : m_value(QString(value)) {}
    HXFormatArgument(const char *value)
        : m_value(QString::fromUtf8(value ? value : "(null)"))
        , m_kind(Kind::CString) {}
    HXFormatArgument(std::nullptr_t)
        : m_value(quint64(0))
        , m_kind(Kind::Pointer) {}
    template<typename T>
    HXFormatArgument(T *pointer)
        : m_value(quint64(reinterpret_cast<quintptr>(pointer)))
        , m_kind(Kind::Pointer) {}
    template<typename T>
    requires std::is_arithmetic_v<T> || std::is_enum_v<T> HXFormatArgument(T number)
        : m_value(fromNumber(number)) {}

    const QVariant &value() const { return m_value; }
    Kind kind() const { return m_kind; }

private:
    template<typename T>
    static QVariant fromNumber(T number) {
        if constexpr (std::is_same_v<T, bool>)
            return QVariant(number);
        else if constexpr (std::is_enum_v<T>)
            return QVariant(qint64(number));
        else if constexpr (std::is_floating_point_v<T>)
            return QVariant(double(number));
        else if constexpr (std::is_signed_v<T>)
            return QVariant(qint64(number));
        else
            return QVariant(quint64(number));
    }

    QVariant m_value;
    Kind m_kind = Kind::Value;
};

// Formats like the platform's string formats: "%@" takes any value (see HXDescription), "%d",
// "%u", "%x", "%f", "%g", "%e", "%c", "%s", "%p" and "%%" with flags, width, precision and the
// length modifiers (which are accepted and ignored: every number is 64-bit here). An argument
// that is missing gives an empty text.
QString HXStringWithFormatArguments(QStringView format, const QList<HXFormatArgument> &arguments);

template<typename... Args>
QString HXStringWithFormat(QStringView format, const Args &...args) {
    return HXStringWithFormatArguments(format, QList<HXFormatArgument>{HXFormatArgument(args)...});
}
