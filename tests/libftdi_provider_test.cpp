// The libftdi1 provider over stand-ins for libftdi1 and libusb: FTDI chips
// whose bulk IN endpoint delivers scripted USB packets on a virtual clock.
#include <gtest/gtest.h>

#include <cstring>

#include "support/fake_ftdi.h"

namespace kavrel::platform {
namespace {

using namespace libftdi_status;
using namespace fake_ftdi;

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
        uint32_t n = 0, capacity = 100;
        std::vector<BridgeEntry> entries(capacity);
        EXPECT_EQ(bridge.create_device_info_list(&n), kOk);
        EXPECT_EQ(bridge.get_device_info_list(entries.data(), &capacity), kOk);
        EXPECT_EQ(capacity, n);
        return entries.resize(n), entries;
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
    EXPECT_EQ(bridge.last_error().find("unplugged") != std::string::npos, c.expect_status != kOk);
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
    attach(0x6014, "FTH", "Single RS232-HS");
    attach(0x6015, "FTX", "FT230X Basic UART");
    std::vector<std::string> serials, descriptions;
    for (const BridgeEntry &e : list()) serials.push_back(e.serial_number), descriptions.push_back(e.description);
    EXPECT_EQ(bridge.last_error(), "");
    const std::string s15(15, 'S'), t14(14, 'T');
    EXPECT_EQ(serials, (std::vector<std::string>{s15, "FT2A", "FT2B", t14 + "A", t14 + "B", "FT4A", "FT4B",
                                                 "FT4C", "FT4D", "FTH", "FTX"}));
    EXPECT_EQ(descriptions[0], std::string(63, 'D'));
    EXPECT_EQ(descriptions[2], "Dual RS232-HS B");
    EXPECT_EQ(descriptions[3], std::string(61, 'E') + " A");
    // Opening position 6 opens interface B of the quad chip.
    Handle h = open(6, 10);
    read(h, 1);
    EXPECT_EQ(g_chips[2].opened_interface, 1);
    EXPECT_EQ(g_chips[2].endpoints, std::vector<int>{0x83});
    bridge.close(h);
    // At most 64, and nothing is kept of a listing once its bridge is gone.
    for (int i = 0; i < 30; ++i) attach(0x6010, "C" + std::to_string(i));
    const int kept = g_contexts + g_list_nodes;
    {
        LibftdiBridge other{kFake, g_clock};
        uint32_t n = 0;
        other.create_device_info_list(&n);
        EXPECT_EQ(g_contexts + g_list_nodes, kept + 37);  // a context, a node for each of 36 chips
    }
    EXPECT_EQ(g_contexts + g_list_nodes, kept);
    EXPECT_STREQ(list()[63].serial_number, "C29A");
    EXPECT_EQ(bridge.open(64, &h), kDeviceNotFound);
    EXPECT_EQ(h, nullptr);
}

TEST_F(Libftdi, OpenFailuresSayWhy) {
    const struct {
        int strings_code, usb_open_code, open_code;
        const char *words, *listing_words;  // listing: when the strings could not be read
    } cases[] = {
        {-4, LIBUSB_ERROR_ACCESS, -4, "permission denied", "permission denied"},
        {0, 0, -8, "permission denied", nullptr},
        {0, 0, -5, "busy", nullptr},
        {-4, LIBUSB_ERROR_NO_DEVICE, -4, "unplugged", "unplugged"},
        {-1, 0, -4, "could not be opened", "usb bulk write failed"},
        {0, 0, -9, "usb bulk write failed", nullptr},
    };
    for (const auto &c : cases) {
        g_chips.clear();
        Chip &chip = attach(0x6001, "P");
        chip.strings_code = c.strings_code, chip.usb_open_code = c.usb_open_code, chip.open_code = c.open_code;
        ASSERT_EQ(list().size(), 1u) << "a bridge that cannot be opened is still listed";
        if (c.listing_words != nullptr) {
            EXPECT_NE(bridge.last_error().find(c.listing_words), std::string::npos) << bridge.last_error();
        }
        Handle h = &chip;
        EXPECT_EQ(bridge.open(0, &h), kDeviceNotOpened);
        EXPECT_EQ(h, nullptr);
        EXPECT_NE(bridge.last_error().find(c.words), std::string::npos) << bridge.last_error();
        EXPECT_EQ(g_contexts, 1) << "only the lister's context is kept";
    }
}

// A bridge just opened waits 5 s for a write or a read and asks for 4096
// bytes a transfer, as the vendor driver does, until told otherwise.
TEST_F(Libftdi, WritesTheWholeCountOrFailsWithinTheLimitsInForce) {
    Chip &chip = attach(0x6001, "W");
    list();
    Handle h = nullptr;
    ASSERT_EQ(bridge.open(0, &h), kOk);
    uint32_t written = 0;
    const Bytes bytes = pattern(12);
    EXPECT_EQ(bridge.write(h, bytes.data(), 8, &written), kOk);
    EXPECT_EQ(written, 8u);
    EXPECT_EQ(chip.write_timeout, 5000);
    t0 = g_clock.now_ms();
    EXPECT_EQ(read(h, 1), Bytes{});
    EXPECT_EQ(g_clock.now_ms() - t0, 5000);
    EXPECT_EQ(chip.transfer_size, 4096);
    bridge.set_timeouts(h, 10, 1234);
    for (const auto &[asked, transfer] : {std::pair{100, 64}, {1 << 20, 65536}}) {  // whole packets, at most 64 KiB
        EXPECT_EQ(bridge.set_usb_parameters(h, asked, 64), kOk);
        read(h, 1);
        EXPECT_EQ(chip.transfer_size, transfer);
    }
    EXPECT_EQ(bridge.write(h, bytes.data(), 12, &written), kIoError);
    EXPECT_EQ(written, 8u);
    EXPECT_EQ(chip.write_timeout, 1234);
    chip.unplug_at = 0;
    EXPECT_NE(bridge.write(h, bytes.data(), 1, &written), kOk);
    EXPECT_EQ(written, 0u);
    bridge.close(h);
}

TEST_F(Libftdi, WithoutAContextOrABusSearchNothingIsListedOrOpenedAndTheWordsSayWhy) {
    attach(0x6001, "L");
    uint32_t n = 99;
    g_no_context = true;
    EXPECT_EQ(bridge.create_device_info_list(&n), kDeviceNotOpened);
    EXPECT_EQ(n, 0u);
    EXPECT_NE(bridge.last_error().find("could not start libusb"), std::string::npos) << bridge.last_error();
    g_no_context = false;
    g_find_all_code = -3;
    EXPECT_EQ(bridge.create_device_info_list(&n), kIoError);
    EXPECT_NE(bridge.last_error().find("listing"), std::string::npos) << bridge.last_error();
    g_find_all_code = 0;
    EXPECT_EQ(list().size(), 1u);
    g_no_context = true;
    Handle h = nullptr;
    EXPECT_EQ(bridge.open(0, &h), kDeviceNotOpened);
    EXPECT_EQ(h, nullptr);
    g_no_context = false;
}

// Every call refuses a null handle or output with the vendor's statuses,
// and a control request the chip refuses says which one failed.
TEST_F(Libftdi, RefusesNullArgumentsAndNamesTheRequestTheChipRefused) {
    Chip &chip = attach(0x6001, "C");
    Handle h = open(0, 10);
    uint8_t bytes[4] = {};
    uint32_t n = 0;
    // A braced list calls in order.
    using All = std::vector<Status>;
    EXPECT_EQ((All{bridge.create_device_info_list(nullptr), bridge.get_device_info_list(nullptr, nullptr),
                   bridge.open(0, nullptr), bridge.write(h, nullptr, 4, &n),
                   bridge.write(h, bytes, 4, nullptr), bridge.read(h, nullptr, 4, &n),
                   bridge.read(h, bytes, 4, nullptr)}),
              All(7, kInvalidParameter));
    EXPECT_EQ(bridge.write(h, bytes, 0, &n) + bridge.purge(h, 0), kOk);
    EXPECT_EQ((All{bridge.set_timeouts(nullptr, 1, 1), bridge.set_latency_timer(nullptr, 1),
                   bridge.set_usb_parameters(nullptr, 64, 64), bridge.purge(nullptr, kPurgeRx),
                   bridge.reset_device(nullptr), bridge.write(nullptr, bytes, 1, &n),
                   bridge.read(nullptr, bytes, 1, &n), bridge.close(nullptr)}),
              All(8, kInvalidHandle));
    chip.control_code = -1;
    EXPECT_EQ((All{bridge.set_latency_timer(h, 1), bridge.set_usb_parameters(h, 64, 64),
                   bridge.purge(h, kPurgeRx), bridge.reset_device(h), bridge.close(h)}),
              All(5, kIoError));
    EXPECT_NE(bridge.last_error().find("close C"), std::string::npos) << bridge.last_error();
}

// The real libraries are found on this machine; a library that is missing
// or lacks a call is named.
TEST(LibftdiLoader, LoadsEveryCallOrNamesWhatIsMissing) {
    const char *why = "";
    const Platform *provider = libftdi_provider(&why);
    ASSERT_NE(provider, nullptr) << why;
    EXPECT_STREQ(provider->name, "libftdi1");
    const std::pair<std::pair<const char *, const char *>, const char *> cases[] = {
        {{"libftdi1.so.2", "libusb-1.0.so.0"}, ""},
        {{"libnothing.so.0", "libusb-1.0.so.0"}, "libnothing.so.0 not found"},
        {{"libftdi1.so.2", "libnothing.so.0"}, "libnothing.so.0 not found"},
        {{"libusb-1.0.so.0", "libusb-1.0.so.0"}, "lacks ftdi_new"},
        {{"libftdi1.so.2", "libc.so.6"}, "lacks libusb_open"},
    };
    for (const auto &[libraries, words] : cases) {
        FtdiCalls calls{};
        const std::string got = load_libftdi(libraries.first, libraries.second, calls);
        EXPECT_NE(got.find(words), std::string::npos) << got;
        if (*words != '\0') continue;
        EXPECT_EQ(got, "");
        EXPECT_STREQ(calls.libusb_strerror(0), "Success");
        void *slots[sizeof calls / sizeof(void *)];
        std::memcpy(slots, &calls, sizeof calls);
        for (void *slot : slots) EXPECT_NE(slot, nullptr);
    }
}

}  // namespace
}  // namespace kavrel::platform
