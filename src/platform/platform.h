// The one seam between the library and the outside world.
//
// Everything above src/platform/ reaches a USB bridge, the clock or a pause
// only through the Platform table below. Its bridge calls have the shape of
// the vendor's D2XX interface, so the transport reads like the protocol it
// speaks, and any provider (the D2XX driver loaded at run time, simulated
// instruments, the tests' fake bridge, the null provider) can stand behind it.
//
// Providers fill the table by member name. Every member must be set.
#ifndef KAVREL_PLATFORM_PLATFORM_H
#define KAVREL_PLATFORM_PLATFORM_H

#include <cstdint>

namespace kavrel::platform {

// 0 is success; any other value is a failure whose meaning is the provider's.
using Status = uint32_t;
constexpr Status kOk = 0;
// A provider's own failure when it has no bridge driver at all.
constexpr Status kNoDriver = 0xFFFF'0001u;

// An open bridge, opaque to the library. Never null while a device is open.
using Handle = void *;

// What the library uses of one entry of the bridge list. Both texts are
// NUL-terminated by the provider, whatever the driver handed over.
struct BridgeEntry {
    char serial_number[16];
    char description[64];
};

// Purge masks, as the bridge defines them.
constexpr uint32_t kPurgeRx = 1;
constexpr uint32_t kPurgeTx = 2;

struct Platform {
    const char *name;

    // Bridge listing. Counts the attached bridges into *count (which the
    // caller sets to 0 first). May take a few milliseconds; no I/O to any
    // instrument.
    Status (*create_device_info_list)(uint32_t *count);
    // Fills at most *count entries (the caller's capacity) and leaves *count
    // at the number filled. Never writes past *count entries.
    Status (*get_device_info_list)(BridgeEntry *entries, uint32_t *count);

    // Opens the bridge at list position index into *handle.
    Status (*open)(int index, Handle *handle);
    // Closes handle. Callers do not look at the status.
    Status (*close)(Handle handle);

    // Afterwards one read returns within read_ms and one write within
    // write_ms. Callers do not look at the status.
    Status (*set_timeouts)(Handle handle, uint32_t read_ms, uint32_t write_ms);
    Status (*set_latency_timer)(Handle handle, uint8_t milliseconds);
    Status (*set_usb_parameters)(Handle handle, uint32_t in_size, uint32_t out_size);
    // Drops bytes left in the receive (kPurgeRx) and transmit (kPurgeTx)
    // buffers from earlier traffic.
    Status (*purge)(Handle handle, uint32_t mask);
    Status (*reset_device)(Handle handle);

    // Writes count bytes; *written receives the number accepted. Callers
    // treat a failure status or a short count alike.
    Status (*write)(Handle handle, const void *bytes, uint32_t count, uint32_t *written);
    // Places at most count bytes in buffer and the number placed in
    // *returned. Blocks until count bytes have arrived or the read time limit
    // passes; 0 bytes with status 0 means the limit passed in silence.
    Status (*read)(Handle handle, void *buffer, uint32_t count, uint32_t *returned);

    // Monotonic milliseconds with sub-millisecond resolution; the origin is
    // arbitrary. Never blocks.
    double (*now_ms)();
    // Pauses the calling thread for about milliseconds.
    void (*sleep_ms)(uint32_t milliseconds);
};

// The provider in force: the one installed, else the build's default.
const Platform &current();

// Puts provider in force for every later call (tests, simulators); null
// restores the build's default. Not thread-safe against calls in flight.
void install(const Platform *provider);

// The build's default provider. Exactly one definition is linked into each
// shared library: the D2XX driver for the hardware build, the simulated
// instruments for the simulator build, the null provider elsewhere.
const Platform &default_provider();

// Provider building blocks, defined in this folder.
const Platform &null_provider();
const Platform &d2xx_provider();
double host_now_ms();
void host_sleep_ms(uint32_t milliseconds);

}  // namespace kavrel::platform

#endif
