#pragma once

#include <QString>

#include <optional>

// A place in a colour palette rather than a colour: an accent of the palette, lightened or
// darkened by an offset, or a step of one of two ramps. Themes store places so that one palette
// change reaches all text that uses the place, and so that a light and a dark palette can serve
// one theme. Its text form is "index,offset".
//
// - 0 to 19: the accent of that position, offset -5 to 5: below 0 blended towards the
//   background, above 0 towards the foreground;
// - 4096: the grey ramp, offset 0 (white) to 10 (black);
// - 4097: from the background (offset 0) to the foreground (offset 10).
//
// An immutable value; any thread.
class HXColorIndex {
public:
    static constexpr quint64 maximumAccentCount = 20;
    static constexpr quint64 greyRampIndex = 4096;
    static constexpr quint64 backgroundBlendIndex = 4097;

    // The place; an offset outside the range of the index (or an index that is none of the
    // above) is the assertion "Invalid offset %ld for index %lu".
    static HXColorIndex colorIndexWithIndex(quint64 index, qint64 offset);
    // Reads "index,offset": exactly two integers. Nothing for any other text; numbers that make
    // no place are the assertion of colorIndexWithIndex.
    static std::optional<HXColorIndex> colorIndexFromStringRepresentation(const QString &string);
    QString stringRepresentation() const;

    quint64 index() const { return m_index; }
    qint64 offset() const { return m_offset; }
    bool isAccent() const { return m_index < maximumAccentCount; }
    // The offsets an index takes: -5 to 5 for accents, 0 to 10 for the ramps.
    static qint64 minimumOffsetForIndex(quint64 index);
    static qint64 maximumOffsetForIndex(quint64 index);

    friend bool operator==(const HXColorIndex &, const HXColorIndex &) = default;

private:
    HXColorIndex(quint64 index, qint64 offset)
        : m_index(index)
        , m_offset(offset) {}

    quint64 m_index;
    qint64 m_offset;
};
