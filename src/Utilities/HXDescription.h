#pragma once

#include <QString>
#include <QVariant>

// The text that a "%@" in a format gives for a value: strings as they are, numbers in decimal,
// lists as "(\n    a,\n    b\n)", dictionaries as "{\n    key = value;\n}", data as "<0a1b2c3d
// 4e>", dates as "2001-01-01 00:00:00 +0000", nothing as "(null)". Nested collections indent by
// four.
QString HXDescription(const QVariant &value);

#include <typeinfo>

// The readable name of a class, for descriptions: "HXChunkString", not its mangled form.
QString HXClassName(const std::type_info &type);
