#include "platform/platform.h"

namespace kavrel::platform {
const Platform &default_provider() {
    return d2xx_provider();
}
}  // namespace kavrel::platform
