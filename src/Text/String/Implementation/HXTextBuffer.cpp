#include "Text/String/Implementation/HXTextBuffer.h"

#include "Utilities/HXAssert.h"

#include <cstring>
#include <limits>
#include <new>

HXTextBuffer *HXTextBuffer::makeUninitialized(quint32 size) {
    void *memory = ::operator new(sizeof(HXTextBuffer) + size_t(size) * sizeof(char16_t));
    return new (memory) HXTextBuffer(size);
}

HXTextBuffer *HXTextBuffer::make(QStringView text) {
    HX_ASSERT(quint64(text.size()) < 0x80000000u,
              u"A text of %li code units is too long for one buffer.", text.size());
    HXTextBuffer *buffer = makeUninitialized(quint32(text.size()));
    if (!text.isEmpty())
        std::memcpy(buffer->mutableUnits(), text.utf16(), size_t(text.size()) * sizeof(char16_t));
    return buffer;
}

void HXTextBuffer::destroy(const HXTextBuffer *buffer) {
    buffer->~HXTextBuffer();
    ::operator delete(const_cast<HXTextBuffer *>(buffer));
}

HXTextBuffer *HXTextBuffer::empty() {
    static HXTextBuffer *const buffer = [] {
        HXTextBuffer *made = make(QStringView());
        made->retain(); // never released
        return made;
    }();
    return buffer;
}

HXTextBuffer *HXTextBuffer::lineFeed() {
    static HXTextBuffer *const buffer = [] {
        HXTextBuffer *made = make(u"\n");
        made->retain(); // never released
        return made;
    }();
    return buffer;
}
