#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>

// A strong reference to an object that counts its references itself (it offers retain() and
// release(), and deletes itself when the last is released): one pointer wide, with no control
// block beside the object. The objects of a text tree are held this way, since there are very
// many of them. Copying retains, destruction releases; the count is atomic, so references to
// one object may be copied and dropped on several threads.
template<typename T>
class HXRef {
public:
    HXRef() noexcept = default;
    HXRef(std::nullptr_t) noexcept {}
    // Takes a new reference to the object.
    explicit HXRef(T *object) noexcept
        : m_object(object) {
        if (m_object)
            m_object->retain();
    }
    HXRef(const HXRef &other) noexcept
        : HXRef(other.m_object) {}
    HXRef(HXRef &&other) noexcept
        : m_object(std::exchange(other.m_object, nullptr)) {}
    template<typename U>
    requires std::is_convertible_v<U *, T *> HXRef(const HXRef<U> &other)
    noexcept
        : HXRef(other.get()) {}
    template<typename U>
    requires std::is_convertible_v<U *, T *> HXRef(HXRef<U> &&other)
    noexcept
        : m_object(other.leak()) {}
    ~HXRef() {
        if (m_object)
            m_object->release();
    }

    HXRef &operator=(HXRef other) noexcept {
        std::swap(m_object, other.m_object);
        return *this;
    }

    // A new object, with this as its first reference.
    template<typename... Args>
    static HXRef make(Args &&...arguments) {
        return HXRef(new T(std::forward<Args>(arguments)...));
    }

    T *get() const noexcept { return m_object; }
    T *operator->() const noexcept { return m_object; }
    T &operator*() const noexcept { return *m_object; }
    explicit operator bool() const noexcept { return m_object != nullptr; }
    void reset() noexcept { HXRef().swap(*this); }
    void swap(HXRef &other) noexcept { std::swap(m_object, other.m_object); }
    // Gives up the reference without releasing it.
    T *leak() noexcept { return std::exchange(m_object, nullptr); }

    template<typename U>
    friend bool operator==(const HXRef &a, const HXRef<U> &b) noexcept {
        return a.get() == b.get();
    }
    friend bool operator==(const HXRef &a, std::nullptr_t) noexcept { return !a.m_object; }

private:
    T *m_object = nullptr;
};

template<typename T, typename U>
HXRef<T> HXStaticCast(const HXRef<U> &reference) {
    return HXRef<T>(static_cast<T *>(reference.get()));
}

template<typename T, typename U>
HXRef<T> HXDynamicCast(const HXRef<U> &reference) {
    return HXRef<T>(dynamic_cast<T *>(reference.get()));
}

template<typename T>
size_t qHash(const HXRef<T> &reference, size_t seed = 0) noexcept {
    return std::hash<const void *>()(reference.get()) ^ seed;
}
