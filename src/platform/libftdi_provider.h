// FTDI bridges through the open-source libftdi1 and libusb, for machines
// without the vendor's D2XX driver (most Linux installations).
//
// The bridge calls keep the D2XX behaviour the exchanges rely on, which
// libftdi1's own read does not give: a read returns as soon as the count
// asked for has arrived, else when the read limit passes with whatever
// arrived. The provider therefore reads the bulk endpoint itself, through
// libusb on the device libftdi1 opened, in transfers it sizes and times,
// keeps what a transfer brought even when it timed out, strips the two
// modem-status bytes the chip puts at the start of every USB packet, and
// holds the surplus in its own receive buffer for the next read.
//
// Both libraries are reached through FtdiCalls, a table filled by name: the
// real functions loaded at run time (libftdi_provider() in platform.h), or a
// test's stand-ins.
#ifndef KAVREL_PLATFORM_LIBFTDI_PROVIDER_H
#define KAVREL_PLATFORM_LIBFTDI_PROVIDER_H

#include <ftdi.h>
#include <libusb.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "platform/timing_engine.h"

namespace kavrel::platform {

// The libftdi1 and libusb functions the provider calls, under their own
// names and with their own signatures.
struct FtdiCalls {
    ftdi_context *(*ftdi_new)();
    void (*ftdi_free)(ftdi_context *ftdi);
    int (*ftdi_set_interface)(ftdi_context *ftdi, ftdi_interface interface);
    int (*ftdi_usb_find_all)(ftdi_context *ftdi, ftdi_device_list **list, int vendor, int product);
    void (*ftdi_list_free)(ftdi_device_list **list);
    int (*ftdi_usb_get_strings2)(ftdi_context *ftdi, libusb_device *device, char *manufacturer, int manufacturer_size,
                                 char *description, int description_size, char *serial, int serial_size);
    int (*ftdi_usb_open_dev)(ftdi_context *ftdi, libusb_device *device);
    int (*ftdi_usb_close)(ftdi_context *ftdi);
    int (*ftdi_usb_reset)(ftdi_context *ftdi);
    int (*ftdi_tcioflush)(ftdi_context *ftdi);
    int (*ftdi_set_latency_timer)(ftdi_context *ftdi, unsigned char milliseconds);
    int (*ftdi_write_data_set_chunksize)(ftdi_context *ftdi, unsigned int size);
    int (*ftdi_write_data)(ftdi_context *ftdi, const unsigned char *bytes, int count);
    const char *(*ftdi_get_error_string)(ftdi_context *ftdi);
    int (*libusb_open)(libusb_device *device, libusb_device_handle **handle);
    void (*libusb_close)(libusb_device_handle *handle);
    int (*libusb_bulk_transfer)(libusb_device_handle *handle, unsigned char endpoint, unsigned char *bytes,
                                int count, int *transferred, unsigned int timeout_ms);
    const char *(*libusb_strerror)(int code);
};

// Loads libftdi1 and libusb by these names and fills calls from them: ""
// when every call was found, else why not, in words.
std::string load_libftdi(const char *ftdi_library, const char *usb_library, FtdiCalls &calls);

// The statuses this provider returns: the vendor driver's numbers for the
// same failures, so that a status reads alike whichever provider gave it.
// The words for the latest failure are in last_error().
namespace libftdi_status {
constexpr Status kInvalidHandle = 1;
constexpr Status kDeviceNotFound = 2;   // no such list position, or unplugged
constexpr Status kDeviceNotOpened = 3;  // permission denied, busy, or no libusb
constexpr Status kIoError = 4;          // a transfer or a request to the chip failed
constexpr Status kInvalidParameter = 6;
}  // namespace libftdi_status

// The FTDI product ids listed, each with the number of interfaces the chip
// has (each interface is a bridge of its own).
struct FtdiProduct {
    uint16_t product_id;
    uint8_t interfaces;
};
constexpr uint16_t kFtdiVendorId = 0x0403;
constexpr FtdiProduct kFtdiProducts[] = {
    {0x6001, 1},  // FT232R and the FT232/FT245 family before it
    {0x6010, 2},  // FT2232C/D, FT2232H
    {0x6011, 4},  // FT4232H
    {0x6014, 1},  // FT232H
    {0x6015, 1},  // FT230X, FT231X, FT234XD
};
// The vendor driver's list holds at most this many entries for us.
constexpr uint32_t kMaxListed = 64;

class LibftdiBridge {
public:
    LibftdiBridge(const FtdiCalls &calls, Clock &clock) : calls_(calls), clock_(clock) {}
    ~LibftdiBridge();
    LibftdiBridge(const LibftdiBridge &) = delete;
    LibftdiBridge &operator=(const LibftdiBridge &) = delete;

    Status create_device_info_list(uint32_t *count);
    Status get_device_info_list(BridgeEntry *entries, uint32_t *count);
    Status open(int index, Handle *handle);
    Status close(Handle handle);
    Status set_timeouts(Handle handle, uint32_t read_ms, uint32_t write_ms);
    Status set_latency_timer(Handle handle, uint8_t milliseconds);
    Status set_usb_parameters(Handle handle, uint32_t in_size, uint32_t out_size);
    Status purge(Handle handle, uint32_t mask);
    Status reset_device(Handle handle);
    Status write(Handle handle, const void *bytes, uint32_t count, uint32_t *written);
    Status read(Handle handle, void *buffer, uint32_t count, uint32_t *returned);
    double now_ms() { return clock_.now_ms(); }
    void sleep_ms(uint32_t milliseconds) { clock_.sleep_ms(milliseconds); }

    // The latest failure in words ("" before any), for diagnostics.
    std::string last_error() const;

private:
    struct Listed {
        libusb_device *device;
        ftdi_interface interface;
        BridgeEntry entry;
    };
    struct Port;

    void note(std::string words);
    Status fail(Status status, std::string words) {
        note(std::move(words));
        return status;
    }
    std::string usb_words(int code) const;
    std::string why_unopenable(libusb_device *device);
    void free_list();
    void add_chip(libusb_device *device, int interfaces);
    void pull(Port &port, int transferred);

    const FtdiCalls &calls_;
    Clock &clock_;
    std::mutex list_mutex_;
    ftdi_context *lister_ = nullptr;
    std::vector<ftdi_device_list *> found_;
    std::vector<Listed> listed_;
    mutable std::mutex error_mutex_;
    std::string last_error_;
};

}  // namespace kavrel::platform

#endif
