// A provider with no bridge driver: listing finds nothing and every bridge
// call fails cleanly. It keeps every build linkable and ends the hardware
// chain when no driver can be loaded.
#include "platform/platform.h"

namespace kavrel::platform {
namespace {

struct NullBridge {
    Status create_device_info_list(uint32_t *count) {
        if (count != nullptr) *count = 0;
        return kNoDriver;
    }
    Status get_device_info_list(BridgeEntry *, uint32_t *count) { return create_device_info_list(count); }
    Status open(int, Handle *) { return kNoDriver; }
    Status close(Handle) { return kNoDriver; }
    Status set_timeouts(Handle, uint32_t, uint32_t) { return kNoDriver; }
    Status set_latency_timer(Handle, uint8_t) { return kNoDriver; }
    Status set_usb_parameters(Handle, uint32_t, uint32_t) { return kNoDriver; }
    Status purge(Handle, uint32_t) { return kNoDriver; }
    Status reset_device(Handle) { return kNoDriver; }
    Status write(Handle, const void *, uint32_t, uint32_t *written) {
        if (written != nullptr) *written = 0;
        return kNoDriver;
    }
    Status read(Handle, void *, uint32_t, uint32_t *returned) {
        if (returned != nullptr) *returned = 0;
        return kNoDriver;
    }
    double now_ms() { return host_now_ms(); }
    void sleep_ms(uint32_t ms) { host_sleep_ms(ms); }
};

}  // namespace

const Platform &null_provider() {
    static NullBridge bridge;
    static const Platform provider = provider_table("null", bridge);
    return provider;
}

}  // namespace kavrel::platform
