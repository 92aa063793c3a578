#include "fuzz_bridge.h"

#include <cstdio>

#include "kavrel_direct.h"
#include "transport/device_table.h"

namespace kavrel::fuzz {

FuzzBridge::FuzzBridge(int bridges, Input replies) : replies_(replies) {
    for (int i = 0; i < bridges; ++i) ports_.emplace_back(clock_);
    table_ = platform::provider_table("fuzz", *this);
    use_provider(&table_);
}

FuzzBridge::~FuzzBridge() {
    kavrel_direct_close_all_devices();
    kavrel_direct_set_protocol_preference(KAVREL_DIRECT_PROTOCOL_AUTO);
    use_provider(nullptr);
}

Status FuzzBridge::get_device_info_list(platform::BridgeEntry *entries, uint32_t *count) {
    *count = std::min(*count, static_cast<uint32_t>(ports_.size()));
    for (uint32_t i = 0; i < *count; ++i) {
        std::snprintf(entries[i].serial_number, sizeof entries[i].serial_number, "FZ%04u", i);
        std::snprintf(entries[i].description, sizeof entries[i].description, "Fuzzed Spectrometer");
    }
    return kOk;
}

Status FuzzBridge::open(int index, Handle *handle) {
    if (index < 0 || static_cast<size_t>(index) >= ports_.size()) return 2;
    Port &p = ports_[static_cast<size_t>(index)];
    // A real driver refuses a second open of the same bridge: the library
    // must never ask for one.
    require(!p.open);
    p.open = true;
    p.inbox.clear();
    *handle = &p;
    return kOk;
}

void FuzzBridge::schedule(Port &p, uint32_t *written) {
    double at = clock_.now_ms();
    while (replies_.left > 0) {
        const uint8_t control = replies_.byte();
        size_t length = replies_.be(2);
        at += chunk_delay_ms(control);
        if (length == kFailRead) {
            p.fail_next_read = true;
        } else if (length == kShortWrite) {
            if (written != nullptr && *written > 0) --*written;
        } else {
            const uint8_t *bytes = replies_.take(length);
            p.inbox.deliver(bytes, length, at);
        }
        if (control & kEndOfReply) break;
    }
}

Status FuzzBridge::read(Handle handle, void *buffer, uint32_t count, uint32_t *returned) {
    Port &p = port(handle);
    *returned = 0;
    if (p.fail_next_read) {
        p.fail_next_read = false;
        return 4;  // the driver's I/O error
    }
    *returned = static_cast<uint32_t>(p.inbox.read(static_cast<uint8_t *>(buffer), count, p.read_limit_ms));
    return kOk;
}

}  // namespace kavrel::fuzz

// The targets print through the library's trace functions and the bridge
// listing: their output goes nowhere (where that fails it stays: only noise).
extern "C" int LLVMFuzzerInitialize(int *, char ***) {
#ifdef _WIN32
    const char *nowhere = "NUL";
#else
    const char *nowhere = "/dev/null";
#endif
    std::FILE *const out = std::freopen(nowhere, "w", stdout);
    static_cast<void>(out);
    return 0;
}
