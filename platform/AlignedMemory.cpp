#include "platform/AlignedMemory.h"

#include <cstdint>
#include <cstdlib>
#include <utility>

namespace kestor {

void* AlignedAlloc(size_t bytes, size_t alignment) {
    if (alignment == 0 || (alignment & (alignment - 1)) != 0) return nullptr;
    // No object may be larger than the pointer difference type can span.
    if (bytes > static_cast<size_t>(PTRDIFF_MAX)) return nullptr;
    if (alignment < sizeof(void*)) alignment = sizeof(void*);
    void* block = nullptr;
    if (posix_memalign(&block, alignment, bytes == 0 ? 1 : bytes) != 0) return nullptr;
    return block;
}

void AlignedFree(void* block) {
    std::free(block);
}

AlignedBuffer::AlignedBuffer(size_t bytes, size_t alignment) : alignment_(alignment) {
    Resize(bytes);
}

AlignedBuffer::~AlignedBuffer() {
    Release();
}

AlignedBuffer::AlignedBuffer(AlignedBuffer&& other) noexcept {
    *this = std::move(other);
}

AlignedBuffer& AlignedBuffer::operator=(AlignedBuffer&& other) noexcept {
    if (this != &other) {
        Release();
        data_ = std::exchange(other.data_, nullptr);
        size_ = std::exchange(other.size_, 0);
        capacity_ = std::exchange(other.capacity_, 0);
        alignment_ = other.alignment_;
    }
    return *this;
}

bool AlignedBuffer::Resize(size_t bytes) {
    if (data_ && bytes <= capacity_) {
        size_ = bytes;
        return true;
    }
    Release();
    data_ = static_cast<uint8_t*>(AlignedAlloc(bytes, alignment_));
    if (!data_) return false;
    size_ = bytes;
    capacity_ = bytes;
    return true;
}

void AlignedBuffer::Release() {
    AlignedFree(data_);
    data_ = nullptr;
    size_ = 0;
    capacity_ = 0;
}

}  // namespace kestor
