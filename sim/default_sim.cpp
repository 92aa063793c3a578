// The simulator library's default provider: the simulated world, so that
// an application linked to it finds the simulated instruments at once.
#include "world.h"

namespace kavrel::platform {
const Platform &default_provider() {
    return sim::world_provider();
}
}  // namespace kavrel::platform
