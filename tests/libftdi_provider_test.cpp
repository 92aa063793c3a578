// The libftdi1 provider over stand-ins for libftdi1 and libusb: FTDI chips
// whose bulk IN endpoint delivers scripted USB packets on a virtual clock.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "platform/libftdi_provider.h"

namespace kavrel::platform {
namespace {

using Bytes = std::vector<uint8_t>;
using namespace libftdi_status;

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
    double unplug_at = INFINITY;
    std::deque<Packet> packets;
    int opened_interface = -1, flushes = 0, write_timeout = 0;
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

Clock g_clock(Clock::Mode::virtual_time);
std::deque<Chip> g_chips;

Chip &chip_of(void *p) { return *static_cast<Chip *>(p); }

const FtdiCalls kFake = [] {
    FtdiCalls c{};
    c.ftdi_new = [] { return new ftdi_context{}; };
    c.ftdi_free = [](ftdi_context *f) { delete f; };
    c.ftdi_set_interface = [](ftdi_context *f, ftdi_interface i) {
        f->interface = i - INTERFACE_A;
        f->out_ep = 0x81 + 2 * f->interface;
        return 0;
    };
    c.ftdi_usb_find_all = [](ftdi_context *, ftdi_device_list **list, int vendor, int product) {
        int n = 0;
        for (auto it = g_chips.rbegin(); it != g_chips.rend(); ++it)
            if (vendor == 0x0403 && it->product == product)
                *list = new ftdi_device_list{*list, reinterpret_cast<libusb_device *>(&*it)}, ++n;
        return n;
    };
    c.ftdi_list_free = [](ftdi_device_list **list) {
        while (*list != nullptr) delete std::exchange(*list, (*list)->next);
    };
    c.ftdi_usb_get_strings2 = [](ftdi_context *, libusb_device *d, char *, int, char *desc, int, char *ser, int) {
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
    c.ftdi_usb_close = [](ftdi_context *) { return 0; };
    c.ftdi_usb_reset = [](ftdi_context *) { return 0; };
    c.ftdi_tcioflush = [](ftdi_context *f) { return ++chip_of(f->usb_dev).flushes, 0; };
    c.ftdi_set_latency_timer = [](ftdi_context *, unsigned char) { return 0; };
    c.ftdi_write_data_set_chunksize = [](ftdi_context *, unsigned) { return 0; };
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
    c.libusb_bulk_transfer = [](libusb_device_handle *h, unsigned char ep, unsigned char *buf, int size, int *done,
                                unsigned timeout) {
        Chip &chip = chip_of(h);
        chip.endpoints.push_back(ep);
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

class Libftdi : public ::testing::Test {
protected:
    LibftdiBridge bridge{kFake, g_clock};
    double t0 = g_clock.now_ms();
    void TearDown() override { g_chips.clear(); }

    Chip &attach(uint16_t product, std::string serial, std::string description = "FT232R USB UART") {
        Chip &chip = g_chips.emplace_back();
        chip.product = product, chip.serial = std::move(serial), chip.description = std::move(description);
        return chip;
    }
    std::vector<BridgeEntry> list() {
        uint32_t n = 0;
        EXPECT_EQ(bridge.create_device_info_list(&n), kOk);
        std::vector<BridgeEntry> entries(100);
        uint32_t capacity = 100;
        EXPECT_EQ(bridge.get_device_info_list(entries.data(), &capacity), kOk);
        EXPECT_EQ(capacity, n);
        entries.resize(n);
        return entries;
    }
    Handle open(int index, uint32_t read_ms) {
        list();
        Handle h = nullptr;
        EXPECT_EQ(bridge.open(index, &h), kOk);
        bridge.set_timeouts(h, read_ms, 5000);
        t0 = g_clock.now_ms();
        return h;
    }
    Bytes read(Handle h, uint32_t count, Status expect = kOk) {
        Bytes out(count);
        uint32_t got = 99;
        EXPECT_EQ(bridge.read(h, out.data(), count, &got), expect);
        out.resize(got);
        return out;
    }
    static Bytes pattern(size_t n, uint8_t first = 0) {
        Bytes b(n);
        for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(first + i);
        return b;
    }
};

struct ReadCase {
    const char *name;
    size_t packet_size;
    void (*script)(Chip &, double t0);
    uint32_t count, limit_ms;
    size_t expect_bytes;
    double expect_ms;  // virtual time the read took
    Status expect_status = kOk;
};

const ReadCase kReads[] = {
    {"CompletesAsSoonAsTheCountIsThere", 64, [](Chip &c, double t) { c.send(t + 5, 10); }, 10, 200, 10, 5},
    {"PartialAtTheLimit", 64, [](Chip &c, double t) { c.send(t + 5, 4); }, 10, 200, 4, 200},
    {"Silence", 64, [](Chip &, double) {}, 10, 200, 0, 200},
    // An idle chip's status packets end each transfer within a millisecond;
    // the last one, with less than a millisecond of the limit left, still
    // brings the payload that arrives then.
    {"StatusOnlyPacketsUntilTheLastMoment", 64,
     [](Chip &c, double t) {
         for (int ms = 1; ms < 300; ++ms) c.packets.push_back({t + ms, {0x01, 0x60}});
         c.packets.insert(c.packets.begin() + 199, {t + 199.5, {0x01, 0x60, 0, 1, 2, 3, 4, 5}});
     },
     6, 200, 6, 199.5},
    {"TimedOutTransferKeepsItsPackets", 64, [](Chip &c, double t) { c.send(t + 3, 124); }, 130, 100, 124, 100},
    {"HighSpeedPacketsStrippedEvery512Bytes", 512, [](Chip &c, double t) { c.send(t + 1, 1500); }, 1500, 100,
     1500, 1},
    {"UnpluggedInTheMiddle", 64, [](Chip &c, double t) { c.send(t + 5, 4), c.unplug_at = t + 20; }, 10, 200, 0, 20,
     kDeviceNotFound},
};

class LibftdiRead : public Libftdi, public ::testing::WithParamInterface<ReadCase> {};

TEST_P(LibftdiRead, KeepsTheBridgeReadSemantics) {
    const ReadCase &c = GetParam();
    attach(0x6001, "R").packet_size = c.packet_size;
    Handle h = open(0, c.limit_ms);
    c.script(g_chips.back(), t0);
    EXPECT_EQ(read(h, c.count, c.expect_status), pattern(c.expect_bytes));
    EXPECT_DOUBLE_EQ(g_clock.now_ms() - t0, c.expect_ms);
    if (c.expect_status != kOk) {
        EXPECT_NE(bridge.last_error().find("unplugged"), std::string::npos);
    }
    bridge.close(h);
}

INSTANTIATE_TEST_SUITE_P(Cases, LibftdiRead, ::testing::ValuesIn(kReads),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(Libftdi, SurplusWaitsForTheNextReadAndPurgeDropsIt) {
    Chip &chip = attach(0x6001, "R");
    Handle h = open(0, 50);
    chip.send(t0 + 1, 20);
    EXPECT_EQ(read(h, 5), pattern(5));
    EXPECT_EQ(read(h, 5), pattern(5, 5));
    const size_t transfers = chip.endpoints.size();
    EXPECT_EQ(bridge.purge(h, kPurgeTx), kOk);  // the receive side stays
    EXPECT_EQ(read(h, 1), pattern(1, 10));
    EXPECT_EQ(chip.endpoints.size(), transfers);
    EXPECT_EQ(bridge.purge(h, kPurgeRx), kOk);
    EXPECT_EQ(chip.flushes, 2);
    chip.send(g_clock.now_ms() + 2, 6, 100);
    EXPECT_EQ(read(h, 3), pattern(3, 100));
    EXPECT_EQ(bridge.reset_device(h), kOk);  // drops what waits, too
    EXPECT_EQ(read(h, 3), Bytes{});
    EXPECT_EQ(bridge.close(h), kOk);
}

TEST_F(Libftdi, ListsEachInterfaceWithItsLetterAndCutsTexts) {
    attach(0x6010, "FT2", "Dual RS232-HS");
    attach(0x6001, std::string(20, 'S'), std::string(100, 'D'));
    attach(0x6011, "FT4", "Quad RS232-HS");
    attach(0x6010, std::string(20, 'T'), std::string(100, 'E'));
    const auto e = list();
    std::vector<std::string> serials, descriptions;
    for (const BridgeEntry &entry : e) serials.push_back(entry.serial_number), descriptions.push_back(entry.description);
    const std::vector<std::string> expect_serials = {std::string(15, 'S'), "FT2A", "FT2B",
                                                     std::string(14, 'T') + "A", std::string(14, 'T') + "B",
                                                     "FT4A", "FT4B", "FT4C", "FT4D"};
    EXPECT_EQ(serials, expect_serials);
    EXPECT_EQ(descriptions[0], std::string(63, 'D'));
    EXPECT_EQ(descriptions[2], "Dual RS232-HS B");
    EXPECT_EQ(descriptions[3], std::string(61, 'E') + " A");
    // Opening position 6 opens interface B of the quad chip.
    Handle h = open(6, 10);
    read(h, 1);
    EXPECT_EQ(g_chips[2].opened_interface, 1);
    EXPECT_EQ(g_chips[2].endpoints, std::vector<int>{0x83});
    bridge.close(h);
}

TEST_F(Libftdi, ListsAtMost64) {
    for (int i = 0; i < 40; ++i) attach(0x6010, "C" + std::to_string(i));
    const auto e = list();
    ASSERT_EQ(e.size(), 64u);
    EXPECT_STREQ(e[63].serial_number, "C31B");
    Handle h = nullptr;
    EXPECT_EQ(bridge.open(64, &h), kDeviceNotFound);
    EXPECT_EQ(h, nullptr);
}

struct OpenFailure {
    int strings_code, usb_open_code, open_code;
    const char *words;
};

TEST_F(Libftdi, OpenFailuresSayWhy) {
    const OpenFailure cases[] = {
        {-4, LIBUSB_ERROR_ACCESS, -4, "permission denied"},
        {0, 0, -8, "permission denied"},
        {0, 0, -5, "busy"},
        {-4, LIBUSB_ERROR_NO_DEVICE, -4, "unplugged"},
    };
    for (const OpenFailure &c : cases) {
        g_chips.clear();
        Chip &chip = attach(0x6001, "P");
        chip.strings_code = c.strings_code, chip.usb_open_code = c.usb_open_code, chip.open_code = c.open_code;
        ASSERT_EQ(list().size(), 1u) << "a bridge that cannot be opened is still listed";
        Handle h = nullptr;
        EXPECT_EQ(bridge.open(0, &h), kDeviceNotOpened);
        EXPECT_NE(bridge.last_error().find(c.words), std::string::npos) << bridge.last_error();
    }
}

TEST_F(Libftdi, WritesTheWholeCountOrFails) {
    Chip &chip = attach(0x6001, "W");
    Handle h = open(0, 10);
    bridge.set_timeouts(h, 10, 1234);
    uint32_t written = 0;
    const Bytes bytes = pattern(12);
    EXPECT_EQ(bridge.write(h, bytes.data(), 8, &written), kOk);
    EXPECT_EQ(written, 8u);
    EXPECT_EQ(chip.write_timeout, 1234);
    EXPECT_EQ(bridge.write(h, bytes.data(), 12, &written), kIoError);
    EXPECT_EQ(written, 8u);
    chip.unplug_at = 0;
    EXPECT_NE(bridge.write(h, bytes.data(), 4, &written), kOk);
    EXPECT_EQ(written, 0u);
    bridge.close(h);
}

}  // namespace
}  // namespace kavrel::platform
