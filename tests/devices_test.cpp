// Listing and opening bridges, the table of open devices, the providers and
// the frame every exported call runs in.
#include <future>
#include <stdexcept>
#include <thread>

#include "support/fake_bridge.h"
#include "transport/cm2_exchange.h"
#include "transport/nir_exchange.h"

#ifdef KAVREL_TEST_FAKE_D2XX
#include <dlfcn.h>
#endif

namespace kavrel::test {
namespace {

using Devices = DeviceTest;

std::string scan() {
    ::testing::internal::CaptureStdout();
    const uint32_t count = kavrel_direct_scan_devices();
    return std::to_string(count) + "|" + ::testing::internal::GetCapturedStdout();
}

// The protocol, capabilities, open count, active index and whether one is active.
std::string table() {
    uint32_t protocol = 0, capabilities = 0;
    kavrel_direct_get_device_protocol(&protocol);
    kavrel_direct_get_capabilities(&capabilities);
    return str(protocol, capabilities, kavrel_direct_get_open_device_count(), g_active_index,
               kavrel_direct_is_open());
}

// What opening asks of a bridge before anything is sent.
const std::string kSetUp = "timeouts 5000 5000, latency 1, usb 65536 65536, purge 3, reset";

TEST_F(Devices, ListingPrintsEveryBridgeAndFailsQuietly) {
    char serial[8] = "xxxxxxx";
    EXPECT_EQ(scan(), "0|");
    EXPECT_EQ(kavrel_direct_open_device(0), KAVREL_DIRECT_ERR_NO_DEVICE);
    EXPECT_EQ(kavrel_direct_get_chip_serial_by_index(0, serial, 8), KAVREL_DIRECT_ERR_NO_DEVICE);
    bridge.attach("FT1");
    bridge.instrument(bridge.attach("ABCDEFGH")).description = "Other";
    EXPECT_EQ(scan(), "2|[0] Fake Spectrometer (SN: FT1)\n[1] Other (SN: ABCDEFGH)\n");
    EXPECT_EQ(kavrel_direct_get_chip_serial_by_index(1, serial, 5), KAVREL_DIRECT_OK);
    EXPECT_STREQ(serial, "ABCD");
    EXPECT_EQ(kavrel_direct_get_chip_serial_by_index(2, serial, 8), KAVREL_DIRECT_ERR_NO_DEVICE);
    bridge.create_status = 4;
    EXPECT_EQ(scan(), "0|");
    EXPECT_EQ(kavrel_direct_open_device(0), KAVREL_DIRECT_ERR_NO_DEVICE);
    bridge.create_status = 0;
    bridge.get_status = 4;
    EXPECT_EQ(scan(), "0|");
    EXPECT_EQ(kavrel_direct_get_chip_serial_by_index(0, serial, 8), KAVREL_DIRECT_ERR_NO_DEVICE);
    EXPECT_EQ(kavrel_direct_open_device_by_chip_serial("FT1"), KAVREL_DIRECT_ERR_NO_DEVICE);
    EXPECT_EQ(bridge.trace(), "list x4, (entries 2, list) x3, list x2, (entries 2, list) x2, entries 2");
    bridge.calls.clear();
    for (int i = 2; i < 70; ++i) bridge.attach("S" + std::to_string(i));
    bridge.get_status = 0;
    EXPECT_EQ(scan().substr(0, 3), "64|");  // at most 64
    EXPECT_EQ(kavrel_direct_open_device(64), KAVREL_DIRECT_ERR_NO_DEVICE);
    EXPECT_EQ(kavrel_direct_open_device_by_chip_serial("S64"), KAVREL_DIRECT_ERR_NO_DEVICE);
    EXPECT_EQ(bridge.trace(), "(list, entries 64) x3");
}

TEST_F(Devices, OpeningConfiguresTheBridgeThenProbesCm2ThenNir) {
    const int device = bridge.attach("NIRDEV");
    bridge.expect(device, cm2_query_bytes(0xC1, 0x000046, 4), {});
    bridge.expect(device, nir_frame({'V'}), at_once(nir_reply({'1', '.', '0'})));
    EXPECT_EQ(kavrel_direct_open_device_by_chip_serial("NIRDEV"), KAVREL_DIRECT_OK);
    EXPECT_EQ(bridge.trace(), "(list, entries 1) x2, open 0, " + kSetUp +
                                  ", purge 3, write 32, timeouts 200 5000, read 28:0, purge 3, write 3, "
                                  "timeouts 50 5000, read 16384:6, (read 16378:0, sleep 5) x9, read 16378:0, "
                                  "timeouts 5000 5000");
    EXPECT_EQ(table(), "2 511 1 0 1");
    const device_slot &s = active();
    EXPECT_EQ(str(s.integration_time, s.average_number, s.wavelength_count, s.selection_valid, s.chip_serial),
              "10000 1 0 0 NIRDEV");
}

TEST_F(Devices, SelectingClosingTheFifthDeviceAndOpeningAnOpenBridge) {
    for (int i = 0; i < 4; ++i)
        open_with(i == 1 ? KAVREL_DIRECT_PROTOCOL_NIR : KAVREL_DIRECT_PROTOCOL_CM2, "D" + std::to_string(i));
    EXPECT_EQ(table(), "1 32767 4 3 1");
    EXPECT_EQ(kavrel_direct_select_device(-1), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_select_device(4), KAVREL_DIRECT_ERR_INVALID_ARG);
    ASSERT_EQ(kavrel_direct_select_device(1), KAVREL_DIRECT_OK);
    EXPECT_EQ(table(), "2 511 4 1 1");
    active().integration_time = 777;
    ASSERT_EQ(kavrel_direct_select_device(2), KAVREL_DIRECT_OK);
    bridge.attach("D4");
    kavrel_direct_set_protocol_preference(KAVREL_DIRECT_PROTOCOL_CM2);
    EXPECT_EQ(kavrel_direct_open_device(4), KAVREL_DIRECT_ERR_OPEN_FAILED);  // opened, then closed
    EXPECT_EQ(table(), "1 32767 4 2 1");
    kavrel_direct_close_device();  // none active, the others as they were
    EXPECT_EQ(table(), "0 0 3 -1 0");
    EXPECT_EQ(kavrel_direct_select_device(2), KAVREL_DIRECT_ERR_NOT_OPEN);
    kavrel_direct_close_device();                               // nothing active: nothing happens
    EXPECT_EQ(kavrel_direct_open_device(1), KAVREL_DIRECT_OK);  // only made active again
    EXPECT_EQ(table(), "2 511 3 1 1");
    EXPECT_EQ(active().integration_time, 777u);
    EXPECT_EQ(kavrel_direct_open_device(4), KAVREL_DIRECT_OK);  // into the freed slot
    EXPECT_EQ(table(), "1 32767 4 2 1");
    kavrel_direct_close_all_devices();
    EXPECT_EQ(table(), "0 0 0 -1 0");
    EXPECT_EQ(bridge.trace(), "list, entries 5, open 4, " + kSetUp +
                                  ", close 4, close 2, (list, entries 5) x2, open 4, " + kSetUp +
                                  ", close 0, close 1, close 4, close 3");
}

TEST_F(Devices, ABridgeThatWillNotOpenSerialsMatchedExactlyAndThePreference) {
    bridge.attach("abc1");
    bridge.attach("ABC1");
    EXPECT_EQ(kavrel_direct_open_device_by_chip_serial("Abc1"), KAVREL_DIRECT_ERR_NO_DEVICE);
    bridge.open_status = 3;
    EXPECT_EQ(kavrel_direct_open_device_by_chip_serial("ABC1"), KAVREL_DIRECT_ERR_OPEN_FAILED);
    EXPECT_EQ(bridge.trace(), "(list, entries 2) x3, open 1");
    EXPECT_EQ(table(), "0 0 0 -1 0");
    EXPECT_EQ(kavrel_direct_set_protocol_preference(3), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_set_protocol_preference(-1), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_set_protocol_preference(2), KAVREL_DIRECT_OK);
    EXPECT_EQ(g_protocol_preference, 2u);
}

// A bridge of another provider with the serial of an open one is opened
// all the same, in a slot of its own.
TEST_F(Devices, ADeviceKeepsTheProviderThatOpenedIt) {
    open_cm2("FIRST");
    FakeBridge other;  // now the provider in force
    other.attach("FIRST");
    kavrel_direct_set_protocol_preference(KAVREL_DIRECT_PROTOCOL_CM2);
    EXPECT_EQ(kavrel_direct_open_device(0), KAVREL_DIRECT_OK);
    EXPECT_EQ(table(), "1 32767 2 1 1");
    bridge.reply_any(0, at_once(cm2_reply(0xC1, 0x40, {0, 0, 1, 0x90})));
    uint32_t time = 0;
    EXPECT_EQ(kavrel_direct_select_device(0) + kavrel_direct_get_integration_time(&time), KAVREL_DIRECT_OK);
    kavrel_direct_close_all_devices();
    EXPECT_EQ(bridge.trace(),
              "purge 3, write 32, timeouts 200 5000, read 28:28, read 8:8, timeouts 5000 5000, close 0");
    EXPECT_EQ(other.trace(), "list, entries 1, open 0, " + kSetUp + ", close 0");
}

// Drivers that misbehave inside a call. Thrown: no exception crosses the C
// boundary. Called back, as a driver's event callback might: each such call
// is refused at once instead of waiting for the locks its caller holds.
// Overstating a read: believed, it would send the library past the end of
// its buffer.
TEST_F(Devices, ADriverThatThrowsOrCallsBackInChangesNothing) {
    bridge.reply_any(open_cm2(), at_once(cm2_reply(0xC1, 0x40, {0, 0, 1, 0x90})));
    uint32_t time = 0;
    bridge.during = [] { throw std::bad_alloc(); };
    EXPECT_EQ(kavrel_direct_get_integration_time(&time), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_scan_devices(), 0u);
    bridge.during = [] { throw std::runtime_error("driver"); };
    EXPECT_EQ(kavrel_direct_get_integration_time(&time), KAVREL_DIRECT_ERR_GENERIC);
    float degrees = 0;
    std::vector<int64_t> results, refused{KAVREL_DIRECT_ERR_GENERIC, KAVREL_DIRECT_ERR_GENERIC, 0};
    bridge.during = [&] {
        results = {kavrel_direct_get_temperature(&degrees), kavrel_direct_open_device(0),
                   kavrel_direct_scan_devices()};
        kavrel_direct_close_all_devices();
    };
    EXPECT_EQ(kavrel_direct_get_temperature(&degrees), KAVREL_DIRECT_OK);
    EXPECT_EQ(results, refused);
    EXPECT_EQ(kavrel_direct_get_open_device_count(), 1);
}

// The table queries answer at once while another thread waits in an
// exchange; a close waits for that exchange.
TEST_F(Devices, TableQueriesAnswerDuringAnExchangeAndCloseWaitsForIt) {
    bridge.reply_any(open_cm2(), at_once(cm2_reply(0xC6, 0, Bytes(8, 1))));
    active().wavelength_count = 4;
    std::promise<void> reading, go_on;
    std::once_flag first;
    bridge.during = [&] { std::call_once(first, [&] { reading.set_value(), go_on.get_future().wait(); }); };
    std::future<int32_t> result = std::async(std::launch::async, [] {
        uint16_t samples[4];
        return kavrel_direct_get_full_spectrum_data(samples, 4);
    });
    reading.get_future().wait();
    EXPECT_EQ(table(), "1 32767 1 0 1");
    EXPECT_EQ(kavrel_direct_select_device(0), KAVREL_DIRECT_OK);
    EXPECT_EQ(kavrel_direct_set_protocol_preference(KAVREL_DIRECT_PROTOCOL_AUTO), KAVREL_DIRECT_OK);
    std::thread closer([] { kavrel_direct_close_device(); });
    go_on.set_value();
    EXPECT_EQ(result.get(), KAVREL_DIRECT_OK);
    closer.join();
    EXPECT_EQ(bridge.trace(),
              "purge 3, write 32, timeouts 1010 5000, read 28:28, read 12:12, timeouts 5000 5000, close 0");
}

TEST_F(Devices, AReadOverstatedIsNotBelieved) {
    const int device = open_nir();
    bridge.overstate = 7;
    uint8_t reply[5] = {};
    uint32_t length = sizeof reply;
    bridge.reply_any(device, at_once({1, 2, 3, 4, 5, 6}));
    ASSERT_EQ(kavrel_direct_send_recv(reply, 1, reply, &length), KAVREL_DIRECT_OK);
    EXPECT_EQ(Bytes(reply, reply + length), Bytes({1, 2, 3, 4, 5}));
    // A reply that fills the whole receive buffer: read to its end and no
    // further (a sanitizer build sees any byte past it).
    bind_active();
    bridge.reply_any(device, at_once(nir_reply(Bytes(kNirReceiveLimit, 0x11))));
    const uint8_t command = 'V';
    EXPECT_EQ(nir_send_command(&command, 1, nullptr, nullptr, 0, kNirQueryQuietMs), KAVREL_DIRECT_ERR_CRC);
}

TEST(NullProvider, ListsNothingAndFailsEveryCall) {
    const platform::Bridge null(platform::null_provider());
    uint32_t count = 9, listed = 1, done = 9, read = 9;
    platform::BridgeEntry entry;
    platform::Handle h = nullptr;
    EXPECT_EQ((std::vector<platform::Status>{
                  null.create_device_info_list(&count), null.get_device_info_list(&entry, &listed),
                  null.write(h, &count, 1, &done), null.read(h, &count, 1, &read), null.open(0, &h),
                  null.close(h), null.set_timeouts(h, 1, 1), null.set_latency_timer(h, 1),
                  null.set_usb_parameters(h, 1, 1), null.purge(h, 3), null.reset_device(h)}),
              std::vector<platform::Status>(11, platform::kNoDriver));
    EXPECT_EQ(str(count, listed, done, read), "0 0 0 0");
    const double before = null.now_ms();
    null.sleep_ms(2);
    EXPECT_GT(null.now_ms(), before);
}

#ifdef KAVREL_TEST_FAKE_D2XX
// The D2XX provider on the stand-in driver of windows/fake_ftd2xx.c, which
// logs every call but reads, and pads its records' texts with FF.
TEST(D2xxProvider, PassesEveryCallThroughAndTerminatesTheTexts) {
    const char *why = "";
    const platform::Platform *d2xx = platform::d2xx_provider(&why);
    ASSERT_NE(d2xx, nullptr) << why;
    EXPECT_EQ(&platform::hardware_provider(), d2xx);
    EXPECT_STREQ(platform::hardware_provider_report(), "D2XX driver: in force\n");
    const platform::Bridge d(*d2xx);
    uint32_t count = 0, done = 0;
    platform::BridgeEntry entries[2];
    std::memset(entries, 0x7F, sizeof entries);
    EXPECT_EQ(d.create_device_info_list(&count) + count, 2u);
    count = 0;  // the driver fills all its entries whatever the room: none, then one is kept
    EXPECT_EQ(d.get_device_info_list(entries, &count) + count, 0u);
    count = 1;
    EXPECT_EQ(d.get_device_info_list(entries, &count) + count, 1u);
    EXPECT_EQ(std::string(entries[0].serial_number) + "|" + entries[0].description, "FK000001|Fake Bridge A");
    EXPECT_EQ(entries[0].serial_number[15] | entries[0].description[63], 0);
    EXPECT_EQ(entries[1].serial_number[0], 0x7F);
    platform::Handle h = nullptr;
    ASSERT_EQ(d.open(1, &h), 0u);
    const Bytes query = cm2_query_bytes(0xC1, 0x41, 2);
    uint8_t reply[64];
    EXPECT_EQ(d.write(h, query.data(), 32, &done) + done, 32u);
    EXPECT_EQ(d.read(h, reply, 10, &done) + done, 10u);
    EXPECT_EQ(d.read(h, reply, 54, &done) + done, 22u);  // the rest of a 32-byte reply
    d.set_timeouts(h, 1, 2), d.set_latency_timer(h, 3), d.set_usb_parameters(h, 4, 5);
    d.purge(h, 3), d.reset_device(h), d.close(h);
    void *driver = dlopen("libftd2xx.so", RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(driver, nullptr);
    const char *(*log)() = nullptr;
    void *symbol = dlsym(driver, "fake_ftd2xx_log");
    std::memcpy(&log, &symbol, sizeof log);
    EXPECT_STREQ(log(), "open 1;write 1 32;timeouts 1 1 2;latency 1 3;usb 1 4 5;purge 1 3;reset 1;close 1;");
    dlclose(driver);
}
#endif

}  // namespace
}  // namespace kavrel::test
