#pragma once

#include <QtGlobal>

#include <algorithm>
#include <compare>
#include <cstdint>

class QString;

// The location that means "nothing found": the greatest signed 64-bit integer.
inline constexpr quint64 HXNotFound = 0x7fffffffffffffffULL;

// A stretch of text or of a list: a location and a length, both counted in UTF-16 code units when
// the range is into text. A plain value; any thread.
struct HXRange {
    quint64 location = 0;
    quint64 length = 0;

    constexpr quint64 max() const { return location + length; }
    constexpr bool isNotFound() const { return location == HXNotFound; }
    constexpr bool contains(quint64 index) const { return index >= location && index < max(); }
    constexpr bool containsRange(HXRange other) const {
        return other.location >= location && other.max() <= max();
    }

    friend constexpr bool operator==(HXRange, HXRange) = default;

    QString description() const;
};

constexpr HXRange HXMakeRange(quint64 location, quint64 length) {
    return HXRange{location, length};
}
constexpr HXRange HXNotFoundRange() {
    return HXRange{HXNotFound, 0};
}
constexpr quint64 HXMaxRange(HXRange range) {
    return range.max();
}
constexpr bool HXLocationInRange(quint64 location, HXRange range) {
    return range.contains(location);
}

// The common part of two ranges; a zero-length range where they only touch or don't meet (its
// location is then 0 when they are apart, as with the platform's intersection).
constexpr HXRange HXIntersectionRange(HXRange a, HXRange b) {
    const quint64 start = std::max(a.location, b.location);
    const quint64 end = std::min(a.max(), b.max());
    if (end < start)
        return HXRange{0, 0};
    return HXRange{start, end - start};
}

// The smallest range that covers both.
constexpr HXRange HXUnionRange(HXRange a, HXRange b) {
    const quint64 start = std::min(a.location, b.location);
    const quint64 end = std::max(a.max(), b.max());
    return HXRange{start, end - start};
}
