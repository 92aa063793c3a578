// Stand-ins for libftdi1 and libusb: FTDI chips whose bulk IN endpoint
// delivers scripted USB packets on a virtual clock, for the tests of the
// libftdi1 provider.
#ifndef KAVREL_TESTS_FAKE_FTDI_H
#define KAVREL_TESTS_FAKE_FTDI_H

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "platform/libftdi_provider.h"

namespace kavrel::platform::fake_ftdi {

using Bytes = std::vector<uint8_t>;

struct Packet {
    double at_ms;
    Bytes raw;  // two status bytes, then payload
};

struct Chip {
    uint16_t product = 0x6001;
    std::string serial, description;
    size_t packet_size = 64;
    int strings_code = 0;   // ftdi_usb_get_strings2
    int usb_open_code = 0;  // libusb_open
    int open_code = 0;      // ftdi_usb_open_dev
    int control_code = 0;   // latency, chunk size, flush, reset and close requests
    double unplug_at = INFINITY;
    std::deque<Packet> packets;
    int opened_interface = -1, flushes = 0, write_timeout = 0, transfer_size = 0;
    std::vector<int> endpoints;

    // Payload bytes 0, 1, 2, ... from first, sent at at_ms in full packets.
    void send(double at_ms, size_t count, uint8_t first = 0) {
        for (size_t i = 0; i < count;) {
            Bytes raw = {0x01, 0x60};
            for (; raw.size() < packet_size && i < count; ++i) raw.push_back(static_cast<uint8_t>(first + i));
            packets.push_back({at_ms, raw});
        }
    }
};

inline Clock g_clock(Clock::Mode::virtual_time);
inline std::deque<Chip> g_chips;
// libftdi1 cannot make a context (libusb does not start); the bus cannot be
// searched (find_all's code when below 0).
inline bool g_no_context = false;
inline int g_find_all_code = 0;
inline int g_contexts = 0, g_list_nodes = 0;  // made and not yet freed

inline Chip &chip_of(void *p) {
    return *static_cast<Chip *>(p);
}
inline int control(ftdi_context *f) {  // a control request's result
    return chip_of(f->usb_dev).control_code;
}

inline const FtdiCalls kFake = [] {
    FtdiCalls c{};
    c.ftdi_new = [] { return g_no_context ? nullptr : (++g_contexts, new ftdi_context{}); };
    c.ftdi_free = [](ftdi_context *f) { --g_contexts, delete f; };
    c.ftdi_set_interface = [](ftdi_context *f, ftdi_interface i) {
        f->interface = i - INTERFACE_A;
        f->out_ep = 0x81 + 2 * f->interface;
        return 0;
    };
    c.ftdi_usb_find_all = [](ftdi_context *, ftdi_device_list **list, int vendor, int product) {
        if (g_find_all_code < 0) return g_find_all_code;
        int n = 0;
        for (auto it = g_chips.rbegin(); it != g_chips.rend(); ++it)
            if (vendor == 0x0403 && it->product == product)
                *list = new ftdi_device_list{*list, reinterpret_cast<libusb_device *>(&*it)}, ++n, ++g_list_nodes;
        return n;
    };
    c.ftdi_list_free = [](ftdi_device_list **list) {
        while (*list != nullptr) delete std::exchange(*list, (*list)->next), --g_list_nodes;
    };
    c.ftdi_usb_get_strings2 = [](ftdi_context *, libusb_device *d, char *, int, char *desc, int, char *ser,
                                 int) {
        snprintf(desc, 128, "%s", chip_of(d).description.c_str());
        snprintf(ser, 128, "%s", chip_of(d).serial.c_str());
        return chip_of(d).strings_code;
    };
    c.ftdi_usb_open_dev = [](ftdi_context *f, libusb_device *d) {
        Chip &chip = chip_of(d);
        if (chip.open_code != 0) return chip.open_code;
        chip.opened_interface = f->interface;
        f->usb_dev = reinterpret_cast<libusb_device_handle *>(d);
        f->max_packet_size = static_cast<unsigned>(chip.packet_size);
        return 0;
    };
    c.ftdi_usb_close = c.ftdi_usb_reset = control;
    c.ftdi_tcioflush = [](ftdi_context *f) { return ++chip_of(f->usb_dev).flushes, control(f); };
    c.ftdi_set_latency_timer = [](ftdi_context *f, unsigned char) { return control(f); };
    c.ftdi_write_data_set_chunksize = [](ftdi_context *f, unsigned) { return control(f); };
    // Accepts at most 8 bytes: longer writes come out short.
    c.ftdi_write_data = [](ftdi_context *f, const unsigned char *, int n) {
        chip_of(f->usb_dev).write_timeout = f->usb_write_timeout;
        return chip_of(f->usb_dev).unplug_at <= g_clock.now_ms() ? -1 : std::min(n, 8);
    };
    c.ftdi_get_error_string = [](ftdi_context *) { return "usb bulk write failed"; };
    c.libusb_open = [](libusb_device *d, libusb_device_handle **) { return chip_of(d).usb_open_code; };
    c.libusb_close = [](libusb_device_handle *) {};
    // A bulk IN transfer: takes packets as they arrive until the buffer is
    // full or a short packet ends it, else times out with what it took.
    c.libusb_bulk_transfer = [](libusb_device_handle *h, unsigned char ep, unsigned char *buf, int size,
                                int *done, unsigned timeout) {
        Chip &chip = chip_of(h);
        chip.endpoints.push_back(ep);
        chip.transfer_size = size;
        const double deadline = g_clock.now_ms() + timeout;
        for (*done = 0;;) {
            const double next = chip.packets.empty() ? INFINITY : chip.packets.front().at_ms;
            if (chip.unplug_at <= std::min(next, deadline)) {
                g_clock.advance_to(chip.unplug_at);
                return static_cast<int>(LIBUSB_ERROR_NO_DEVICE);
            }
            if (next > deadline) {
                g_clock.advance_to(deadline);
                return static_cast<int>(LIBUSB_ERROR_TIMEOUT);
            }
            g_clock.advance_to(next);
            const Bytes raw = chip.packets.front().raw;
            chip.packets.pop_front();
            std::copy(raw.begin(), raw.end(), buf + *done);
            *done += static_cast<int>(raw.size());
            if (raw.size() < chip.packet_size || *done == size) return 0;
        }
    };
    c.libusb_strerror = [](int) { return "other"; };
    return c;
}();

}  // namespace kavrel::platform::fake_ftdi

#endif
