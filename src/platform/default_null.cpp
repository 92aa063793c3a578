#include "platform/platform.h"

namespace kavrel::platform {
const Platform &default_provider() {
    return null_provider();
}
}  // namespace kavrel::platform
