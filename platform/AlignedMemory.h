// Memory aligned for unbuffered transfers: frame buffers that are handed to the disk directly.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kestor {

// Satisfies the buffer alignment of direct I/O on every volume (sector sizes go up to 4096).
inline constexpr size_t kDirectIoAlignment = 4096;

// `alignment` must be a power of two (smaller ones are raised to pointer size). Returns null on
// failure or for a bad alignment; 0 bytes gives a valid, unique block. Free with AlignedFree.
void* AlignedAlloc(size_t bytes, size_t alignment = kDirectIoAlignment);
void AlignedFree(void* block);  // null is ignored

// An owned aligned block. Resizing does not keep the contents; the block is reused when it is
// already large enough.
class AlignedBuffer {
public:
    AlignedBuffer() = default;
    explicit AlignedBuffer(size_t bytes, size_t alignment = kDirectIoAlignment);
    ~AlignedBuffer();
    AlignedBuffer(AlignedBuffer&& other) noexcept;
    AlignedBuffer& operator=(AlignedBuffer&& other) noexcept;
    AlignedBuffer(const AlignedBuffer&) = delete;
    AlignedBuffer& operator=(const AlignedBuffer&) = delete;

    // False when the memory cannot be had; the buffer is then empty.
    bool Resize(size_t bytes);
    void Release();

    uint8_t* Data() { return data_; }
    const uint8_t* Data() const { return data_; }
    size_t Size() const { return size_; }
    size_t Alignment() const { return alignment_; }
    bool Empty() const { return data_ == nullptr; }

private:
    uint8_t* data_ = nullptr;
    size_t size_ = 0;
    size_t capacity_ = 0;
    size_t alignment_ = kDirectIoAlignment;
};

}  // namespace kestor
