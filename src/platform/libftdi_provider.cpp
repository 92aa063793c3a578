#include "platform/libftdi_provider.h"

#include <dlfcn.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <memory>

namespace kavrel::platform {

using namespace libftdi_status;

// One open bridge: the libftdi1 context that opened it, and the bytes that
// have arrived but were not read yet.
struct LibftdiBridge::Port {
    ftdi_context *ftdi;
    std::string name;          // the listed serial, for messages
    unsigned char endpoint;    // bulk IN: chip to host
    size_t packet_size;        // every packet starts with two status bytes
    size_t transfer_size;      // bytes asked of one bulk transfer
    uint32_t read_ms = 5000;
    uint32_t write_ms = 5000;
    std::vector<uint8_t> received;  // status bytes stripped
    std::vector<uint8_t> transfer;  // one transfer's packets as they came
};

namespace {

// The vendor driver's default transfer size, until set_usb_parameters.
constexpr size_t kDefaultTransferSize = 4096;
constexpr size_t kMaxTransferSize = 65536;
// Full-speed bulk packets; high-speed chips report 512.
constexpr size_t kFullSpeedPacket = 64;
constexpr size_t kStatusBytes = 2;

// Copies text into a fixed field, cut so that suffix still fits and the
// field ends in a NUL.
template <size_t N>
void fill(char (&field)[N], const char *text, const char *suffix) {
    const size_t room = N - 1 - std::strlen(suffix);
    const size_t n = std::min(std::strlen(text), room);
    std::memcpy(field, text, n);
    std::strcpy(field + n, suffix);
}

}  // namespace

LibftdiBridge::~LibftdiBridge() {
    free_list();
    if (lister_ != nullptr) calls_.ftdi_free(lister_);
}

std::string LibftdiBridge::last_error() const {
    std::lock_guard<std::mutex> lock(error_mutex_);
    return last_error_;
}

void LibftdiBridge::note(std::string words) {
    std::lock_guard<std::mutex> lock(error_mutex_);
    last_error_ = std::move(words);
}

std::string LibftdiBridge::usb_words(int code) const {
    switch (code) {
    case LIBUSB_ERROR_ACCESS:
        return "permission denied: install the udev rules from packaging/udev, then replug the bridge";
    case LIBUSB_ERROR_NO_DEVICE: return "the bridge is gone (unplugged)";
    case LIBUSB_ERROR_BUSY: return "busy: another program or a kernel driver holds it";
    default: return calls_.libusb_strerror(code);
    }
}

// libftdi1 reports a failed libusb_open without libusb's reason; opening
// the device once more through libusb tells permission from absence.
std::string LibftdiBridge::why_unopenable(libusb_device *device) {
    libusb_device_handle *probe = nullptr;
    const int code = calls_.libusb_open(device, &probe);
    if (code == 0) {
        calls_.libusb_close(probe);
        return "could not be opened";
    }
    return usb_words(code);
}

void LibftdiBridge::free_list() {
    for (ftdi_device_list *found : found_) calls_.ftdi_list_free(&found);
    found_.clear();
    listed_.clear();
}

void LibftdiBridge::add_chip(libusb_device *device, int interfaces) {
    char description[128] = "";
    char serial[128] = "";
    const int code = calls_.ftdi_usb_get_strings2(lister_, device, nullptr, 0, description, sizeof description,
                                                  serial, sizeof serial);
    // A bridge whose strings cannot be read (no permission, held by another
    // program, no serial string) is still listed, as the vendor driver lists
    // a busy one, with what could be read (often nothing); opening it then
    // says why it cannot be used.
    if (code < 0)
        note("listing: a bridge's strings could not be read: " +
             (code == -4 ? why_unopenable(device) : std::string(calls_.ftdi_get_error_string(lister_))));
    for (int i = 0; i < interfaces && listed_.size() < kMaxListed; ++i) {
        Listed chip{device, static_cast<ftdi_interface>(INTERFACE_A + i), {}};
        // Each interface of a multi-interface chip is a bridge of its own,
        // named by the chip's serial and description with its letter.
        const char letter[] = {static_cast<char>('A' + i), '\0'};
        const char spaced[] = {' ', letter[0], '\0'};
        fill(chip.entry.serial_number, serial, interfaces > 1 ? letter : "");
        fill(chip.entry.description, description, interfaces > 1 ? spaced : "");
        listed_.push_back(chip);
    }
}

Status LibftdiBridge::create_device_info_list(uint32_t *count) {
    if (count == nullptr) return kInvalidParameter;
    *count = 0;
    std::lock_guard<std::mutex> lock(list_mutex_);
    free_list();
    // Room for every list before the first is taken: a list found must
    // never be lost to a heap that refuses to keep it.
    found_.reserve(std::size(kFtdiProducts));
    if (lister_ == nullptr) lister_ = calls_.ftdi_new();
    if (lister_ == nullptr) return fail(kDeviceNotOpened, "libftdi1 could not start libusb");
    Status status = kOk;
    for (const FtdiProduct &product : kFtdiProducts) {
        ftdi_device_list *found = nullptr;
        if (calls_.ftdi_usb_find_all(lister_, &found, kFtdiVendorId, product.product_id) < 0) {
            status = fail(kIoError, std::string("listing: ") + calls_.ftdi_get_error_string(lister_));
            continue;
        }
        // The list keeps its devices referenced until the next listing, so
        // that open() can take them by position.
        found_.push_back(found);
        for (ftdi_device_list *d = found; d != nullptr && listed_.size() < kMaxListed; d = d->next)
            add_chip(d->dev, product.interfaces);
    }
    *count = static_cast<uint32_t>(listed_.size());
    return listed_.empty() ? status : kOk;
}

Status LibftdiBridge::get_device_info_list(BridgeEntry *entries, uint32_t *count) {
    if (count == nullptr || (entries == nullptr && *count > 0)) return kInvalidParameter;
    std::lock_guard<std::mutex> lock(list_mutex_);
    const uint32_t n = std::min<uint32_t>(*count, static_cast<uint32_t>(listed_.size()));
    for (uint32_t i = 0; i < n; ++i) entries[i] = listed_[i].entry;
    *count = n;
    return kOk;
}

Status LibftdiBridge::open(int index, Handle *handle) {
    if (handle == nullptr) return kInvalidParameter;
    *handle = nullptr;
    std::lock_guard<std::mutex> lock(list_mutex_);
    if (index < 0 || static_cast<size_t>(index) >= listed_.size())
        return fail(kDeviceNotFound, "open: no bridge at list position " + std::to_string(index));
    const Listed &chip = listed_[static_cast<size_t>(index)];
    // The port comes first: a heap that refuses it must find nothing of the
    // device taken yet.
    auto port = std::make_unique<Port>();
    port->name = chip.entry.serial_number[0] != '\0' ? chip.entry.serial_number : "bridge";
    const std::string &name = port->name;
    ftdi_context *ftdi = calls_.ftdi_new();
    if (ftdi == nullptr) return fail(kDeviceNotOpened, "open " + name + ": libftdi1 could not start libusb");
    calls_.ftdi_set_interface(ftdi, chip.interface);
    // libftdi1 detaches the kernel's serial driver from the interface first.
    const int code = calls_.ftdi_usb_open_dev(ftdi, chip.device);
    if (code < 0) {
        std::string words;
        switch (code) {
        case -4: words = why_unopenable(chip.device); break;
        case -8: words = usb_words(LIBUSB_ERROR_ACCESS); break;
        case -3:
        case -5: words = usb_words(LIBUSB_ERROR_BUSY); break;
        default: words = calls_.ftdi_get_error_string(ftdi);
        }
        calls_.ftdi_free(ftdi);
        return fail(kDeviceNotOpened, "open " + name + ": " + words);
    }
    port->ftdi = ftdi;
    // libftdi1 names the endpoints from the chip's side: its out_ep is the
    // endpoint that brings the chip's data in to the host.
    port->endpoint = static_cast<unsigned char>(ftdi->out_ep);
    // The packet size comes from the endpoint descriptor.
    port->packet_size = ftdi->max_packet_size > kStatusBytes ? ftdi->max_packet_size : kFullSpeedPacket;
    port->transfer_size = std::max(port->packet_size, kDefaultTransferSize / port->packet_size * port->packet_size);
    *handle = port.release();
    return kOk;
}

Status LibftdiBridge::close(Handle handle) {
    auto *port = static_cast<Port *>(handle);
    if (port == nullptr) return kInvalidHandle;
    const int code = calls_.ftdi_usb_close(port->ftdi);
    calls_.ftdi_free(port->ftdi);
    const std::string name = port->name;
    delete port;
    return code < 0 ? fail(kIoError, "close " + name + ": could not release the USB device") : kOk;
}

Status LibftdiBridge::set_timeouts(Handle handle, uint32_t read_ms, uint32_t write_ms) {
    auto *port = static_cast<Port *>(handle);
    if (port == nullptr) return kInvalidHandle;
    port->read_ms = read_ms;
    port->write_ms = write_ms;
    return kOk;
}

Status LibftdiBridge::set_latency_timer(Handle handle, uint8_t milliseconds) {
    auto *port = static_cast<Port *>(handle);
    if (port == nullptr) return kInvalidHandle;
    if (calls_.ftdi_set_latency_timer(port->ftdi, milliseconds) < 0)
        return fail(kIoError, "latency timer of " + port->name + ": " + calls_.ftdi_get_error_string(port->ftdi));
    return kOk;
}

Status LibftdiBridge::set_usb_parameters(Handle handle, uint32_t in_size, uint32_t out_size) {
    auto *port = static_cast<Port *>(handle);
    if (port == nullptr) return kInvalidHandle;
    // Reads ask for whole packets, so that a transfer never ends inside one.
    const size_t in = std::clamp<size_t>(in_size, port->packet_size, kMaxTransferSize);
    port->transfer_size = in / port->packet_size * port->packet_size;
    if (out_size > 0 && calls_.ftdi_write_data_set_chunksize(port->ftdi, out_size) < 0)
        return fail(kIoError, "transfer size of " + port->name + ": " + calls_.ftdi_get_error_string(port->ftdi));
    return kOk;
}

Status LibftdiBridge::purge(Handle handle, uint32_t mask) {
    auto *port = static_cast<Port *>(handle);
    if (port == nullptr) return kInvalidHandle;
    if ((mask & (kPurgeRx | kPurgeTx)) == 0) return kOk;
    if ((mask & kPurgeRx) != 0) port->received.clear();
    // The chip's purge requests are numbered differently by the vendor's
    // mask, by libftdi1 and by some chips' firmware; flushing both
    // directions empties the chip's buffers whichever numbering it follows.
    if (calls_.ftdi_tcioflush(port->ftdi) < 0)
        return fail(kIoError, "purge of " + port->name + ": " + calls_.ftdi_get_error_string(port->ftdi));
    return kOk;
}

Status LibftdiBridge::reset_device(Handle handle) {
    auto *port = static_cast<Port *>(handle);
    if (port == nullptr) return kInvalidHandle;
    port->received.clear();
    if (calls_.ftdi_usb_reset(port->ftdi) < 0)
        return fail(kIoError, "reset of " + port->name + ": " + calls_.ftdi_get_error_string(port->ftdi));
    return kOk;
}

Status LibftdiBridge::write(Handle handle, const void *bytes, uint32_t count, uint32_t *written) {
    auto *port = static_cast<Port *>(handle);
    if (written != nullptr) *written = 0;
    if (port == nullptr) return kInvalidHandle;
    if (written == nullptr || (bytes == nullptr && count > 0) || count > INT_MAX) return kInvalidParameter;
    if (count == 0) return kOk;
    port->ftdi->usb_write_timeout = static_cast<int>(std::min<uint32_t>(port->write_ms, INT_MAX));
    const int sent = calls_.ftdi_write_data(port->ftdi, static_cast<const unsigned char *>(bytes),
                                            static_cast<int>(count));
    if (sent < 0) return fail(kIoError, "write to " + port->name + ": " + calls_.ftdi_get_error_string(port->ftdi));
    *written = static_cast<uint32_t>(sent);
    if (*written != count)
        return fail(kIoError, "write to " + port->name + ": " + std::to_string(sent) + " of " +
                                  std::to_string(count) + " bytes sent");
    return kOk;
}

// Appends one transfer's payload: the transfer is a run of packets of the
// endpoint's size (the last may be short), each opening with two status
// bytes, so a status-only packet adds nothing.
void LibftdiBridge::pull(Port &port, int transferred) {
    const uint8_t *raw = port.transfer.data();
    const size_t total = transferred > 0 ? static_cast<size_t>(transferred) : 0;
    for (size_t at = 0; at < total; at += port.packet_size) {
        const size_t packet = std::min(port.packet_size, total - at);
        if (packet > kStatusBytes) port.received.insert(port.received.end(), raw + at + kStatusBytes, raw + at + packet);
    }
}

Status LibftdiBridge::read(Handle handle, void *buffer, uint32_t count, uint32_t *returned) {
    auto *port = static_cast<Port *>(handle);
    if (returned != nullptr) *returned = 0;
    if (port == nullptr) return kInvalidHandle;
    if (returned == nullptr || (buffer == nullptr && count > 0)) return kInvalidParameter;
    const double deadline = clock_.now_ms() + port->read_ms;
    while (port->received.size() < count) {
        const double left = deadline - clock_.now_ms();
        if (left <= 0) break;
        // A real chip answers an idle read with a status-only packet every
        // latency period; others hold the transfer until its time-out. The
        // time-out is what is left of the read limit, in whole milliseconds
        // and never 0, which libusb takes as no limit at all.
        const auto timeout = static_cast<unsigned int>(std::max(1.0, std::ceil(left)));
        port->transfer.resize(port->transfer_size);
        int transferred = 0;
        const int code = calls_.libusb_bulk_transfer(port->ftdi->usb_dev, port->endpoint, port->transfer.data(),
                                                     static_cast<int>(port->transfer.size()), &transferred, timeout);
        // A transfer that timed out still carries the packets that came.
        pull(*port, transferred);
        if (code != 0 && code != LIBUSB_ERROR_TIMEOUT)
            return fail(code == LIBUSB_ERROR_NO_DEVICE ? kDeviceNotFound : kIoError,
                        "read from " + port->name + ": " + usb_words(code));
    }
    const size_t n = std::min<size_t>(count, port->received.size());
    if (n > 0) std::memcpy(buffer, port->received.data(), n);
    port->received.erase(port->received.begin(), port->received.begin() + static_cast<std::ptrdiff_t>(n));
    *returned = static_cast<uint32_t>(n);
    return kOk;
}

// --- The real libraries, loaded at run time --------------------------------

namespace {

#ifdef __APPLE__
constexpr const char *kFtdiLibrary = "libftdi1.2.dylib";
constexpr const char *kUsbLibrary = "libusb-1.0.0.dylib";
#else
constexpr const char *kFtdiLibrary = "libftdi1.so.2";
constexpr const char *kUsbLibrary = "libusb-1.0.so.0";
#endif

// Every call FtdiCalls holds, with its name and the library that has it.
struct Symbol {
    bool in_usb;
    const char *name;
    size_t offset;
};
#define KAVREL_FTDI_CALL(usb, name) {usb, #name, offsetof(FtdiCalls, name)}
constexpr Symbol kSymbols[] = {
    KAVREL_FTDI_CALL(false, ftdi_new),
    KAVREL_FTDI_CALL(false, ftdi_free),
    KAVREL_FTDI_CALL(false, ftdi_set_interface),
    KAVREL_FTDI_CALL(false, ftdi_usb_find_all),
    KAVREL_FTDI_CALL(false, ftdi_list_free),
    KAVREL_FTDI_CALL(false, ftdi_usb_get_strings2),
    KAVREL_FTDI_CALL(false, ftdi_usb_open_dev),
    KAVREL_FTDI_CALL(false, ftdi_usb_close),
    KAVREL_FTDI_CALL(false, ftdi_usb_reset),
    KAVREL_FTDI_CALL(false, ftdi_tcioflush),
    KAVREL_FTDI_CALL(false, ftdi_set_latency_timer),
    KAVREL_FTDI_CALL(false, ftdi_write_data_set_chunksize),
    KAVREL_FTDI_CALL(false, ftdi_write_data),
    KAVREL_FTDI_CALL(false, ftdi_get_error_string),
    KAVREL_FTDI_CALL(true, libusb_open),
    KAVREL_FTDI_CALL(true, libusb_close),
    KAVREL_FTDI_CALL(true, libusb_bulk_transfer),
    KAVREL_FTDI_CALL(true, libusb_strerror),
};
#undef KAVREL_FTDI_CALL
static_assert(sizeof kSymbols / sizeof kSymbols[0] * sizeof(void (*)()) == sizeof(FtdiCalls),
              "every call in FtdiCalls is loaded");

}  // namespace

std::string load_libftdi(const char *ftdi_library, const char *usb_library, FtdiCalls &calls) {
    // The libraries stay for the life of the process, even when a call is
    // missing: loading is tried once per process.
    void *ftdi = dlopen(ftdi_library, RTLD_NOW | RTLD_LOCAL);
    if (ftdi == nullptr) return std::string(ftdi_library) + " not found";
    void *usb = dlopen(usb_library, RTLD_NOW | RTLD_LOCAL);
    if (usb == nullptr) return std::string(usb_library) + " not found";
    for (const Symbol &symbol : kSymbols) {
        void *address = dlsym(symbol.in_usb ? usb : ftdi, symbol.name);
        // ftdi_usb_get_strings2 and ftdi_tcioflush came with libftdi1 1.5.
        if (address == nullptr)
            return std::string(ftdi_library) + " or " + usb_library + " lacks " + symbol.name +
                   " (libftdi1 1.5 or later)";
        // Function and object pointers share a size wherever this file
        // builds; memcpy avoids the cast -Wpedantic rejects.
        std::memcpy(reinterpret_cast<char *>(&calls) + symbol.offset, &address, sizeof address);
    }
    return "";
}

namespace {

// The provider of the process, made on first use and never destroyed: the
// application may still hold bridges open when the process ends, and
// closing them is not ours to do then.
struct Loaded {
    FtdiCalls calls{};
    std::string why;
    Clock clock;
    std::unique_ptr<LibftdiBridge> bridge;
    Platform table{};

    Loaded() : why(load_libftdi(kFtdiLibrary, kUsbLibrary, calls)) {
        if (!why.empty()) return;
        bridge = std::make_unique<LibftdiBridge>(calls, clock);
        table = provider_table("libftdi1", *bridge);
    }
};

Loaded &loaded() {
    static Loaded &instance = *new Loaded;
    return instance;
}

}  // namespace

const Platform *libftdi_provider(const char **why) {
    Loaded &l = loaded();
    if (l.bridge == nullptr) {
        if (why != nullptr) *why = l.why.c_str();
        return nullptr;
    }
    return &l.table;
}

const char *libftdi_last_error() {
    Loaded &l = loaded();
    thread_local std::string copy;
    copy = l.bridge != nullptr ? l.bridge->last_error() : l.why;
    return copy.c_str();
}

}  // namespace kavrel::platform
