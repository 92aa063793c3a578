// The one seam between the library and the outside world.
//
// Everything above src/platform/ reaches a USB bridge, the clock or a pause
// only through a Platform table. Its bridge calls have the shape of the
// vendor's D2XX interface, so the transport reads like the protocol it
// speaks, and any provider (the D2XX driver loaded at run time, libftdi1,
// simulated instruments, the tests' fake bridge, the null provider, or a
// wrapper that traces or records in front of any of them) can stand behind it.
//
// A provider carries its own state: every call gets the table's context
// pointer first. Providers are C++ classes with one member function per call,
// and provider_table() fills the table from them by name, so no provider
// needs a global and a wrapper is a class that forwards what it does not
// change (Forwarder below).
//
// The library calls a provider from one thread per open handle at a time;
// listing and opening are serialised by the library too. A provider whose
// handles share state must guard it itself.
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
    // Handed back as the first argument of every call.
    void *context;

    // Bridge listing. Counts the attached bridges into *count (which the
    // caller sets to 0 first). May take a few milliseconds; no I/O to any
    // instrument.
    Status (*create_device_info_list)(void *context, uint32_t *count);
    // Fills at most *count entries (the caller's capacity) and leaves *count
    // at the number filled. Never writes past *count entries.
    Status (*get_device_info_list)(void *context, BridgeEntry *entries, uint32_t *count);

    // Opens the bridge at list position index into *handle.
    Status (*open)(void *context, int index, Handle *handle);
    // Closes handle. Callers do not look at the status.
    Status (*close)(void *context, Handle handle);

    // Afterwards one read returns within read_ms and one write within
    // write_ms. Callers do not look at the status.
    Status (*set_timeouts)(void *context, Handle handle, uint32_t read_ms, uint32_t write_ms);
    Status (*set_latency_timer)(void *context, Handle handle, uint8_t milliseconds);
    Status (*set_usb_parameters)(void *context, Handle handle, uint32_t in_size, uint32_t out_size);
    // Drops the bytes that have arrived in the receive buffer (kPurgeRx) and
    // those not yet sent from the transmit buffer (kPurgeTx). Bytes the
    // instrument has not sent yet still arrive afterwards.
    Status (*purge)(void *context, Handle handle, uint32_t mask);
    Status (*reset_device)(void *context, Handle handle);

    // Writes count bytes; *written receives the number accepted. Callers
    // treat a failure status or a short count alike.
    Status (*write)(void *context, Handle handle, const void *bytes, uint32_t count, uint32_t *written);
    // Places at most count bytes in buffer and the number placed in
    // *returned. Blocks until count bytes have arrived or the read time limit
    // passes; 0 bytes with status 0 means the limit passed in silence.
    Status (*read)(void *context, Handle handle, void *buffer, uint32_t count, uint32_t *returned);

    // Monotonic milliseconds with sub-millisecond resolution; the origin is
    // arbitrary. Never blocks. The exchanges measure their limits on it, so
    // a provider with a virtual clock runs them in virtual time.
    double (*now_ms)(void *context);
    // Pauses the calling thread for about milliseconds (of the same clock).
    void (*sleep_ms)(void *context, uint32_t milliseconds);
};

// The calls of one provider, as the transport makes them: a table and the
// short spelling of each call.
class Bridge {
public:
    explicit Bridge(const Platform &table) : p_(&table) {}
    const Platform &table() const { return *p_; }
    const char *name() const { return p_->name; }

    Status create_device_info_list(uint32_t *count) const { return p_->create_device_info_list(p_->context, count); }
    Status get_device_info_list(BridgeEntry *entries, uint32_t *count) const {
        return p_->get_device_info_list(p_->context, entries, count);
    }
    Status open(int index, Handle *handle) const { return p_->open(p_->context, index, handle); }
    Status close(Handle h) const { return p_->close(p_->context, h); }
    Status set_timeouts(Handle h, uint32_t read_ms, uint32_t write_ms) const {
        return p_->set_timeouts(p_->context, h, read_ms, write_ms);
    }
    Status set_latency_timer(Handle h, uint8_t ms) const { return p_->set_latency_timer(p_->context, h, ms); }
    Status set_usb_parameters(Handle h, uint32_t in_size, uint32_t out_size) const {
        return p_->set_usb_parameters(p_->context, h, in_size, out_size);
    }
    Status purge(Handle h, uint32_t mask) const { return p_->purge(p_->context, h, mask); }
    Status reset_device(Handle h) const { return p_->reset_device(p_->context, h); }
    Status write(Handle h, const void *bytes, uint32_t count, uint32_t *written) const {
        return p_->write(p_->context, h, bytes, count, written);
    }
    Status read(Handle h, void *buffer, uint32_t count, uint32_t *returned) const {
        return p_->read(p_->context, h, buffer, count, returned);
    }
    double now_ms() const { return p_->now_ms(p_->context); }
    void sleep_ms(uint32_t ms) const { p_->sleep_ms(p_->context, ms); }

private:
    const Platform *p_;
};

// Fills a table from a provider object by member name: impl must have a
// member function for every call of Platform, with the same arguments less
// the context. The table refers to impl, which must outlive it.
template <typename Impl>
Platform provider_table(const char *name, Impl &impl) {
    Platform p{};
    p.name = name;
    p.context = &impl;
    p.create_device_info_list = [](void *c, uint32_t *n) { return static_cast<Impl *>(c)->create_device_info_list(n); };
    p.get_device_info_list = [](void *c, BridgeEntry *e, uint32_t *n) {
        return static_cast<Impl *>(c)->get_device_info_list(e, n);
    };
    p.open = [](void *c, int i, Handle *h) { return static_cast<Impl *>(c)->open(i, h); };
    p.close = [](void *c, Handle h) { return static_cast<Impl *>(c)->close(h); };
    p.set_timeouts = [](void *c, Handle h, uint32_t r, uint32_t w) { return static_cast<Impl *>(c)->set_timeouts(h, r, w); };
    p.set_latency_timer = [](void *c, Handle h, uint8_t ms) { return static_cast<Impl *>(c)->set_latency_timer(h, ms); };
    p.set_usb_parameters = [](void *c, Handle h, uint32_t i, uint32_t o) {
        return static_cast<Impl *>(c)->set_usb_parameters(h, i, o);
    };
    p.purge = [](void *c, Handle h, uint32_t m) { return static_cast<Impl *>(c)->purge(h, m); };
    p.reset_device = [](void *c, Handle h) { return static_cast<Impl *>(c)->reset_device(h); };
    p.write = [](void *c, Handle h, const void *b, uint32_t n, uint32_t *w) {
        return static_cast<Impl *>(c)->write(h, b, n, w);
    };
    p.read = [](void *c, Handle h, void *b, uint32_t n, uint32_t *r) { return static_cast<Impl *>(c)->read(h, b, n, r); };
    p.now_ms = [](void *c) { return static_cast<Impl *>(c)->now_ms(); };
    p.sleep_ms = [](void *c, uint32_t ms) { static_cast<Impl *>(c)->sleep_ms(ms); };
    return p;
}

// The base of a wrapper provider: forwards every call to an inner provider.
// A wrapper derives from it, redefines the calls it cares about (a tracer:
// write and read) and fills its table with provider_table(name, *this), which
// picks the derived member where there is one.
class Forwarder {
public:
    explicit Forwarder(const Platform &inner) : inner_(inner) {}
    const Bridge &inner() const { return inner_; }

    Status create_device_info_list(uint32_t *count) { return inner_.create_device_info_list(count); }
    Status get_device_info_list(BridgeEntry *entries, uint32_t *count) {
        return inner_.get_device_info_list(entries, count);
    }
    Status open(int index, Handle *handle) { return inner_.open(index, handle); }
    Status close(Handle h) { return inner_.close(h); }
    Status set_timeouts(Handle h, uint32_t read_ms, uint32_t write_ms) { return inner_.set_timeouts(h, read_ms, write_ms); }
    Status set_latency_timer(Handle h, uint8_t ms) { return inner_.set_latency_timer(h, ms); }
    Status set_usb_parameters(Handle h, uint32_t in_size, uint32_t out_size) {
        return inner_.set_usb_parameters(h, in_size, out_size);
    }
    Status purge(Handle h, uint32_t mask) { return inner_.purge(h, mask); }
    Status reset_device(Handle h) { return inner_.reset_device(h); }
    Status write(Handle h, const void *bytes, uint32_t count, uint32_t *written) {
        return inner_.write(h, bytes, count, written);
    }
    Status read(Handle h, void *buffer, uint32_t count, uint32_t *returned) {
        return inner_.read(h, buffer, count, returned);
    }
    double now_ms() { return inner_.now_ms(); }
    void sleep_ms(uint32_t ms) { inner_.sleep_ms(ms); }

private:
    Bridge inner_;
};

// The provider in force for listing and opening: the one installed, else the
// build's default. A device keeps the provider that opened it; changing the
// provider in force afterwards affects later listing and opening only.
// Callers outside the library's opening path install through
// kavrel::use_provider (transport/device_table.h), which takes the API lock.
const Platform &current();
void install(const Platform *provider);

// The build's default provider. Exactly one definition is linked into each
// library: the hardware chain for the hardware library, the simulated
// instruments for the simulator library, the null provider for the static
// core (whose programs install what they need).
const Platform &default_provider();

// The hardware chain, chosen once per process on first use: the vendor's
// D2XX driver when it loads, else the next provider of a short ordered list
// (libftdi1 where it is built), else the null provider.
const Platform &hardware_provider();
// One line per provider the chain tried, each with why it was taken or
// passed over, ending with the one in force; for diagnostics. Runs the
// choice if it has not run yet.
const char *hardware_provider_report();

// Provider building blocks, defined in this folder. d2xx_provider() is null
// when the driver cannot be loaded; *why then says what failed.
const Platform &null_provider();
const Platform *d2xx_provider(const char **why);
#ifndef _WIN32
// FTDI bridges through libftdi1 and libusb, loaded at run time; null with
// *why saying what failed when they cannot be loaded. libftdi_last_error()
// gives the provider's latest failure in words ("" before any), or why it
// could not be loaded.
const Platform *libftdi_provider(const char **why);
const char *libftdi_last_error();
#endif
double host_now_ms();
void host_sleep_ms(uint32_t milliseconds);

}  // namespace kavrel::platform

#endif
