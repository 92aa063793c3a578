// Heap buffers that carry a table, a spectrum or a flash frame through one
// call.
//
// Every such buffer comes from allocate_transfer(), so an exhausted heap takes
// the same road everywhere (the operation returns -5). A transfer_buffer frees
// its memory when it goes out of scope, so no return path can leak it.
#ifndef KAVREL_SPECTRAL_TRANSFER_BUFFER_H
#define KAVREL_SPECTRAL_TRANSFER_BUFFER_H

#include <cstddef>
#include <cstdint>

namespace kavrel {

// bytes of heap memory (at least 1), or null when the heap refuses.
void *allocate_transfer(size_t bytes) noexcept;
void release_transfer(void *memory) noexcept;

template <typename T>
class transfer_buffer {
public:
    transfer_buffer() = default;
    ~transfer_buffer() { release_transfer(data_); }
    transfer_buffer(const transfer_buffer &) = delete;
    transfer_buffer &operator=(const transfer_buffer &) = delete;

    // Room for count elements; false (and still empty) when the heap refuses.
    bool allocate(size_t count) noexcept {
        release_transfer(data_);
        data_ = static_cast<T *>(allocate_transfer(count * sizeof(T)));
        count_ = data_ != nullptr ? count : 0;
        return data_ != nullptr;
    }

    T *data() const { return data_; }
    // The room in bytes, as the exchanges take it.
    int32_t bytes() const { return static_cast<int32_t>(count_ * sizeof(T)); }

private:
    T *data_ = nullptr;
    size_t count_ = 0;
};

}  // namespace kavrel

#endif
