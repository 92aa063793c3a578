#include "platform/platform.h"

namespace kavrel::platform {
namespace {
const Platform *g_installed = nullptr;
}  // namespace

const Platform &current() {
    return g_installed != nullptr ? *g_installed : default_provider();
}

void install(const Platform *provider) {
    g_installed = provider;
}

}  // namespace kavrel::platform
