// The hardware library's default: the hardware chain.
#include "platform/platform.h"

namespace kavrel::platform {
const Platform &default_provider() {
    return hardware_provider();
}
}  // namespace kavrel::platform
