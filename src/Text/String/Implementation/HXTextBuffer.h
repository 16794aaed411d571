#pragma once

#include <QStringView>

#include <atomic>

// Immutable UTF-16 text that plain chunks are ranges of: one allocation holding its count, its
// size and its code units. The text of a paragraph is one buffer, and a text loaded at once may
// be a single buffer for all its paragraphs, so that plain chunks cost no allocation of their
// own. Counts its references; any thread.
class HXTextBuffer {
public:
    // A new buffer with a copy of the text, and no references yet.
    static HXTextBuffer *make(QStringView text);
    // A buffer with room for the size, to be filled by the caller before anyone reads it.
    static HXTextBuffer *makeUninitialized(quint32 size);
    // Shared buffers that live as long as the process: no text, and one line feed.
    static HXTextBuffer *empty();
    static HXTextBuffer *lineFeed();

    void retain() const noexcept { m_references.fetch_add(1, std::memory_order_relaxed); }
    void release() const noexcept {
        if (m_references.fetch_sub(1, std::memory_order_acq_rel) == 1)
            destroy(this);
    }

    quint32 size() const { return m_size; }
    const char16_t *units() const { return reinterpret_cast<const char16_t *>(this + 1); }
    char16_t *mutableUnits() { return reinterpret_cast<char16_t *>(this + 1); }
    QStringView view(quint32 offset, quint32 length) const {
        return QStringView(units() + offset, qsizetype(length));
    }

    HXTextBuffer(const HXTextBuffer &) = delete;
    HXTextBuffer &operator=(const HXTextBuffer &) = delete;

private:
    explicit HXTextBuffer(quint32 size)
        : m_size(size) {}
    static void destroy(const HXTextBuffer *buffer);

    mutable std::atomic<quint32> m_references{0};
    quint32 m_size;
};
