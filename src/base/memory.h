// memory.h - owned heap memory without exceptions: every allocation may fail, and says so by being empty.
#ifndef TARN_BASE_MEMORY_H
#define TARN_BASE_MEMORY_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>
#include <utility>

namespace tarn {

struct FreeDeleter {
    void operator()(void *p) const noexcept { std::free(p); }
};

template <class T> using owned = std::unique_ptr<T[], FreeDeleter>;

inline constexpr size_t kFastAllocation = 1024; // glibc: up to here malloc has a cache for each thread, calloc has none

// count zeroed elements of a plain type, or empty. A count of 0 still allocates.
template <class T> [[nodiscard]] owned<T> allocate_zeroed(size_t count) noexcept
{
    static_assert(std::is_trivially_copyable_v<T>);
    if (count == 0)
        count = 1;
    if (count > kFastAllocation / sizeof(T)) // NOLINT(bugprone-sizeof-expression): T may be a pointer
        return owned<T>(static_cast<T *>(std::calloc(count, sizeof(T)))); // NOLINT(bugprone-sizeof-expression)
    void *bytes = std::malloc(count * sizeof(T));                         // NOLINT(bugprone-sizeof-expression)
    asm volatile("" : "+r"(bytes));                                       // or the compiler makes a calloc of the two
    return owned<T>(static_cast<T *>(bytes ? std::memset(bytes, 0, count * sizeof(T)) : nullptr)); // NOLINT
}

// The same without clearing, for buffers that are overwritten at once.
template <class T> [[nodiscard]] owned<T> allocate(size_t count) noexcept
{
    static_assert(std::is_trivially_copyable_v<T>);
    return owned<T>(static_cast<T *>(std::malloc((count ? count : 1) * sizeof(T))));
}

// An array of plain values that grows by doubling and keeps its memory when emptied; push() fails instead of throwing.
template <class T> class GrowArray {
    static_assert(std::is_trivially_copyable_v<T>);

public:
    GrowArray()                             = default;
    GrowArray(const GrowArray &)            = delete;
    GrowArray &operator=(const GrowArray &) = delete;
    ~GrowArray() { std::free(data_); }

    [[nodiscard]] bool reserve(size_t wanted) noexcept
    {
        if (wanted <= capacity_)
            return true;
        size_t room = capacity_ ? capacity_ : 16;
        while (room < wanted)
            room *= 2;
        void *grown = std::realloc(data_, room * sizeof(T)); // NOLINT(bugprone-sizeof-expression): T may be a pointer
        if (!grown)
            return false;
        data_     = static_cast<T *>(grown);
        capacity_ = room;
        return true;
    }
    [[nodiscard]] bool push(const T &value) noexcept
    {
        if (!reserve(size_ + 1))
            return false;
        data_[size_++] = value;
        return true;
    }
    [[nodiscard]] bool append(const T *values, size_t count) noexcept
    {
        if (!reserve(size_ + count))
            return false;
        if (count > 0)
            std::memcpy(data_ + size_, values, count * sizeof(T));
        size_ += count;
        return true;
    }
    void   clear() noexcept { size_ = 0; }
    void   resize_down(size_t size) noexcept { size_ = size < size_ ? size : size_; }
    size_t size() const noexcept { return size_; }
    bool   empty() const noexcept { return size_ == 0; }
    void   swap(GrowArray &other) noexcept
    {
        std::swap(data_, other.data_);
        std::swap(size_, other.size_);
        std::swap(capacity_, other.capacity_);
    }
    T       *data() noexcept { return data_; }
    const T *data() const noexcept { return data_; }
    T       &operator[](size_t i) noexcept { return data_[i]; }
    const T &operator[](size_t i) const noexcept { return data_[i]; }
    T       *begin() noexcept { return data_; }
    T       *end() noexcept { return data_ + size_; }
    const T *begin() const noexcept { return data_; }
    const T *end() const noexcept { return data_ + size_; }

private:
    T     *data_     = nullptr;
    size_t size_     = 0;
    size_t capacity_ = 0;
};

// A global that no thread finds destroyed, however late in the process it comes.
template <class T> union Undestroyed {
    T value;
    constexpr Undestroyed() noexcept : value() {}
    ~Undestroyed() {}
};

} // namespace tarn

#endif
