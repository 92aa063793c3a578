// A provider with no bridge driver: listing finds nothing and every bridge
// call fails cleanly. It keeps every build linkable and is what the D2XX
// provider falls back to when the driver cannot be loaded.
#include "platform/platform.h"

namespace kavrel::platform {
namespace {

Status no_list(uint32_t *count) {
    if (count != nullptr) *count = 0;
    return kNoDriver;
}
Status no_entries(BridgeEntry *, uint32_t *count) {
    if (count != nullptr) *count = 0;
    return kNoDriver;
}
Status no_open(int, Handle *) {
    return kNoDriver;
}
Status no_handle(Handle) {
    return kNoDriver;
}
Status no_timeouts(Handle, uint32_t, uint32_t) {
    return kNoDriver;
}
Status no_latency(Handle, uint8_t) {
    return kNoDriver;
}
Status no_usb_parameters(Handle, uint32_t, uint32_t) {
    return kNoDriver;
}
Status no_purge(Handle, uint32_t) {
    return kNoDriver;
}
Status no_write(Handle, const void *, uint32_t, uint32_t *written) {
    if (written != nullptr) *written = 0;
    return kNoDriver;
}
Status no_read(Handle, void *, uint32_t, uint32_t *returned) {
    if (returned != nullptr) *returned = 0;
    return kNoDriver;
}

Platform make_null() {
    Platform p{};
    p.name = "null";
    p.create_device_info_list = no_list;
    p.get_device_info_list = no_entries;
    p.open = no_open;
    p.close = no_handle;
    p.set_timeouts = no_timeouts;
    p.set_latency_timer = no_latency;
    p.set_usb_parameters = no_usb_parameters;
    p.purge = no_purge;
    p.reset_device = no_handle;
    p.write = no_write;
    p.read = no_read;
    p.now_ms = host_now_ms;
    p.sleep_ms = host_sleep_ms;
    return p;
}

}  // namespace

const Platform &null_provider() {
    static const Platform provider = make_null();
    return provider;
}

}  // namespace kavrel::platform
