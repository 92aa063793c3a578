#include "spectral/transfer_buffer.h"

#include <new>

namespace kavrel {

void *allocate_transfer(size_t bytes) noexcept {
    // Through the global allocation functions, so that a program that
    // replaces them sees (and can fail) these buffers too. A request for 0
    // bytes still gets a block of its own.
    return ::operator new(bytes > 0 ? bytes : 1, std::nothrow);
}

void release_transfer(void *memory) noexcept {
    ::operator delete(memory);
}

}  // namespace kavrel
