#include "platform/platform.h"

#include <atomic>

namespace kavrel::platform {
namespace {
std::atomic<const Platform *> g_installed{nullptr};
}  // namespace

const Platform &current() {
    const Platform *installed = g_installed.load(std::memory_order_acquire);
    return installed != nullptr ? *installed : default_provider();
}

void install(const Platform *provider) {
    g_installed.store(provider, std::memory_order_release);
}

}  // namespace kavrel::platform
