#include "spectral/command_block.h"

#include "kavrel_direct.h"
#include "platform/platform.h"
#include "transport/cm2_exchange.h"
#include "transport/device_table.h"

namespace kavrel {
namespace {

constexpr uint8_t kCommandDone = 0xAA;
constexpr uint8_t kCommandFailed = 0xEE;

}  // namespace

int32_t run_command_block(const command_handshake &handshake, const uint8_t (&block)[kCommandBlockBytes]) {
    if (int32_t rc = cm2_write(kRegControl, handshake.address, block, kCommandBlockBytes)) return rc;
    for (int attempt = 0; attempt < handshake.attempts; ++attempt) {
        uint8_t status[kCommandBlockBytes];
        int32_t length = 0;
        if (int32_t rc = cm2_query(kRegControl, handshake.address, kCommandBlockBytes / 4, status,
                                   kCommandBlockBytes, &length))
            return rc;
        if (length < kCommandBlockBytes) return KAVREL_DIRECT_ERR_IO;
        if (status[1] == kCommandDone) return KAVREL_DIRECT_OK;
        if (status[1] == kCommandFailed) return KAVREL_DIRECT_ERR_IO;
        device_slot *slot;
        if (int32_t rc = guard(slot)) return rc;
        bridge_of(*slot).sleep_ms(handshake.pause_ms);
    }
    return KAVREL_DIRECT_ERR_TIMEOUT;
}

}  // namespace kavrel
