#pragma once
// A growable byte block, optionally aligned, shared between copies.

#include <cstdint>
#include <memory>

namespace VQSDK {

template <class T>
class VQAlignMemory {
public:
    VQAlignMemory() = default;
    VQAlignMemory(const VQAlignMemory&) = default;
    VQAlignMemory& operator=(const VQAlignMemory&) = default;

    VQAlignMemory(VQAlignMemory&& other) noexcept { *this = std::move(other); }

    VQAlignMemory& operator=(VQAlignMemory&& other) noexcept {
        if (this != &other) {
            m_p = std::move(other.m_p);
            m_pAlign = other.m_pAlign;
            m_size = other.m_size;
            m_fullSize = other.m_fullSize;
            m_align = other.m_align;
            other.m_pAlign = nullptr;
            other.m_size = other.m_fullSize = other.m_align = 0;
        }
        return *this;
    }

    // Keeps the block (and its contents) when it is large enough and has the
    // same alignment; otherwise allocates a new one without copying.
    T* alloc(unsigned long size, unsigned long align) {
        if (m_p && m_fullSize >= size && m_align == align) {
            m_size = size;
            return m_pAlign;
        }
        const unsigned long total = align ? size + align - 1 : size;
        m_p = std::shared_ptr<T[]>(new T[total ? total : 1]);
        m_align = align;
        m_pAlign = alignedStart();
        m_fullSize = size;
        m_size = size;
        return m_pAlign;
    }

    // Shares another block.
    void attach(const VQAlignMemory& other) { *this = other; }

    // Borrows a caller's buffer; it is never freed by this object.
    void attach(T* data, unsigned long size) {
        m_p = std::shared_ptr<T[]>(data, [](T*) {});
        m_pAlign = data;
        m_size = m_fullSize = size;
        m_align = 0;
    }

    void dealloc() { *this = VQAlignMemory(); }

    T* get() const { return m_pAlign; }
    uint64_t size() const { return m_size; }
    bool isValid() const { return m_p != nullptr; }
    operator T*() const { return m_pAlign; }

    // Moving the usable window keeps it inside the block: the size shrinks or
    // grows with it.
    VQAlignMemory& operator+=(unsigned long n) {
        if (n > m_size)
            n = m_size;
        m_pAlign += n;
        m_size -= n;
        return *this;
    }
    VQAlignMemory& operator-=(unsigned long n) {
        const unsigned long before = static_cast<unsigned long>(m_pAlign - alignedStart());
        if (n > before)
            n = before;
        m_pAlign -= n;
        m_size += n;
        return *this;
    }
    VQAlignMemory& operator++() { return *this += 1; }
    VQAlignMemory& operator--() { return *this -= 1; }
    T* operator+(unsigned long n) const { return m_pAlign + n; }
    T* operator-(unsigned long n) const { return m_pAlign - n; }

    std::shared_ptr<T[]> m_p;
    T* m_pAlign = nullptr;
    uint64_t m_size = 0;
    uint64_t m_fullSize = 0;
    uint64_t m_align = 0;

private:
    T* alignedStart() const {
        uintptr_t start = reinterpret_cast<uintptr_t>(m_p.get());
        if (m_align)
            start = (start + m_align - 1) & ~static_cast<uintptr_t>(m_align - 1);
        return reinterpret_cast<T*>(start);
    }
};

}  // namespace VQSDK
