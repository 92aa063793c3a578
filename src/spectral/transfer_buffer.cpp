#include "spectral/transfer_buffer.h"

#include <cstdlib>

namespace kavrel {
namespace {

// Plain integers: every allocation happens under the API lock.
int g_fail_countdown = 0;  // 0: off; n: the nth allocation from now fails
int g_attempted = 0;
int g_live = 0;

}  // namespace

void *allocate_transfer(size_t bytes) noexcept {
    ++g_attempted;
    if (g_fail_countdown > 0 && --g_fail_countdown == 0) return nullptr;
    // malloc(0) may answer null or a unique pointer; ask for a byte at least.
    void *memory = std::malloc(bytes > 0 ? bytes : 1);
    if (memory != nullptr) ++g_live;
    return memory;
}

void release_transfer(void *memory) noexcept {
    if (memory == nullptr) return;
    --g_live;
    std::free(memory);
}

namespace transfer_hooks {

void fail_nth_allocation(int nth) {
    g_fail_countdown = nth > 0 ? nth : 0;
}

int allocations_attempted() {
    return g_attempted;
}

int buffers_live() {
    return g_live;
}

}  // namespace transfer_hooks
}  // namespace kavrel
