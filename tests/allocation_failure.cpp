// Every allocation the library makes, made to fail in turn, in every device
// operation and both protocols: the call returns -5, writes nothing, keeps
// the slot's caches, leaks nothing, and the device answers the same call
// correctly afterwards. A program of its own, since it replaces the global
// allocation functions: they count (and fail) only what the library
// allocates during an operation, not what the test or the fake allocate.
#include <cstdlib>
#include <new>

#include "support/fake_bridge.h"
#include "support/every_operation.h"
#ifdef KAVREL_WITH_LIBFTDI
#include "support/fake_ftdi.h"
#endif

namespace {

thread_local int t_counting = 0;  // > 0 while the library runs for the test
int g_counted = 0;                // allocations counted since the last reset
int g_fail_at = 0;                // the counted allocation that fails; 0: none
void *g_live[64];  // the counted allocations not yet freed
int g_live_count = 0;

// Never inlined: g++ would then see free() meet a pointer from operator new
// at the caller and, optimising, warn of a mismatch that is ours by design.
[[gnu::noinline]] void release(void *memory) {
    for (int i = 0; i < g_live_count; ++i)
        if (g_live[i] == memory) g_live[i] = g_live[--g_live_count];
    std::free(memory);
}

}  // namespace

// Every form is replaced: a sanitizer's runtime provides each one itself,
// and memory from its allocator must not reach free().
void *operator new(size_t bytes) {
    const bool counted = t_counting > 0;
    void *memory = counted && ++g_counted == g_fail_at ? nullptr : std::malloc(bytes > 0 ? bytes : 1);
    if (memory == nullptr) throw std::bad_alloc();
    if (counted && g_live_count < 64) g_live[g_live_count++] = memory;
    return memory;
}
// clang-format off
void *operator new[](size_t bytes) { return operator new(bytes); }
void *operator new(size_t bytes, const std::nothrow_t &) noexcept {
    try { return operator new(bytes); } catch (const std::bad_alloc &) { return nullptr; }
}
void *operator new[](size_t bytes, const std::nothrow_t &tag) noexcept { return operator new(bytes, tag); }
void operator delete(void *memory) noexcept { release(memory); }
void operator delete[](void *memory) noexcept { release(memory); }
void operator delete(void *memory, size_t) noexcept { release(memory); }
void operator delete[](void *memory, size_t) noexcept { release(memory); }
void operator delete(void *memory, const std::nothrow_t &) noexcept { release(memory); }
void operator delete[](void *memory, const std::nothrow_t &) noexcept { release(memory); }
// clang-format on

namespace kavrel::test {
namespace {

// Counts while it lives; Counting(-1) pauses the count.
struct Counting {
    explicit Counting(int step = 1) : step(step) { t_counting += step; }
    ~Counting() { t_counting -= step; }
    const int step;
};

// The fake bridge's table with the count stopped in every call: the fake
// instrument's allocations are not the library's.
const platform::Platform *g_fake = nullptr;
#define UNCOUNTED(call) \
    table.call = [](void *, auto... a) { Counting paused(-1); return g_fake->call(g_fake->context, a...); }
platform::Platform uncounted(const platform::Platform &fake) {
    platform::Platform table = *(g_fake = &fake);
    UNCOUNTED(create_device_info_list), UNCOUNTED(get_device_info_list), UNCOUNTED(open), UNCOUNTED(close);
    UNCOUNTED(set_timeouts), UNCOUNTED(set_latency_timer), UNCOUNTED(set_usb_parameters), UNCOUNTED(purge);
    UNCOUNTED(reset_device), UNCOUNTED(write), UNCOUNTED(read), UNCOUNTED(sleep_ms);
    return table;
}

// Listing and opening again, besides the device operations.
const Operation kTableOperations[] = {
    EVERY_OP(get_chip_serial_by_index(0, o.text, 40)), EVERY_OP(open_device_by_chip_serial("ALLOC001")),
};

class AllocationFailure : public DeviceTest, public ::testing::WithParamInterface<bool> {
protected:
    SpectralModel model;
    platform::Platform table = uncounted(platform::current());

    void SetUp() override {
        DeviceTest::SetUp();
        use_provider(&table);
        model.table = {400, 410, 420, 430, 440};
        model.serve(bridge, GetParam() ? open_nir("ALLOC001") : open_cm2("ALLOC001"), GetParam());
    }

    // Runs the operation with the nth allocation failing (0: none), from no
    // point count cached, points 1 to 3 selected, the library's first-use
    // statics already made.
    int32_t run(const Operation &op, Outputs &out, int nth) {
        device_slot &s = active();
        s.wavelength_count = 0, s.selection_valid = s.start_index = 1, s.end_index = s.selected_count = 3;
        out.fill();
        g_counted = g_live_count = 0;
        g_fail_at = nth;
        Counting counting;
        return op.call(out);
    }

    void fail_each_allocation_in_turn(const Operation &op) {
        SCOPED_TRACE(op.name);
        const auto expected = std::make_unique<Outputs>(), out = std::make_unique<Outputs>();
        const int32_t result = run(op, *expected, 0);
        ASSERT_TRUE(result >= 0 || result == KAVREL_DIRECT_ERR_UNSUPPORTED) << result;
        const int allocations = g_counted;
        EXPECT_EQ(g_live_count, 0) << "kept after success";

        for (int nth = 1; nth <= allocations; ++nth) {
            SCOPED_TRACE(nth);
            EXPECT_EQ(run(op, *out, nth), KAVREL_DIRECT_ERR_INVALID_ARG);
            EXPECT_EQ(g_counted, nth) << "went on after the failed allocation";
            EXPECT_EQ(g_live_count, 0) << "leaked";
            EXPECT_TRUE(out->untouched()) << "output written on failure";
            EXPECT_EQ(str(active().selection_valid, active().start_index, active().selected_count), "1 1 3");

            EXPECT_EQ(run(op, *out, 0), result) << "the device does not answer afterwards";
            EXPECT_TRUE(*out == *expected) << "the next answer differs";
        }
    }
};

TEST_P(AllocationFailure, EachAllocationFailsInTurnAndTheDeviceAnswersAfterwards) {
    for (const Operation &op : kTableOperations) fail_each_allocation_in_turn(op);
    for (const Operation &op : kEveryOperation) fail_each_allocation_in_turn(op);
}

#ifdef KAVREL_WITH_LIBFTDI
// The libftdi1 provider allocates as it lists, opens and reads; an exhausted
// heap may end any of its calls with an exception, which the library's frame
// turns into -5. Whatever it took of the USB devices (a libftdi1 context, a
// device list) must be given back all the same. The stand-ins' own
// allocations count too: they stand for libftdi1's and libusb's.
TEST(LibftdiAllocationFailure, EachAllocationFailsInTurnAndNothingIsKept) {
    using namespace platform;
    using namespace platform::fake_ftdi;
    Chip &chip = g_chips.emplace_back();
    chip.product = 0x6010;  // two interfaces, two bridges
    uint32_t n = 0, done = 0;
    uint8_t bytes[8] = {};
    for (int nth = 1, completed = 0; !completed; ++nth) {
        SCOPED_TRACE(nth);
        // The stand-in's own records must not grow while the count runs.
        chip.endpoints.reserve(16);
        chip.packets.clear();
        chip.send(g_clock.now_ms() + 1, 100);
        {
            LibftdiBridge bridge(kFake, g_clock);
            Handle h = nullptr;
            g_counted = g_live_count = 0;
            g_fail_at = nth;
            try {
                Counting counting;
                bridge.create_device_info_list(&n);
                if (bridge.open(1, &h) == kOk) {
                    bridge.set_usb_parameters(h, 65536, 65536);
                    bridge.write(h, bytes, 4, &done);
                    bridge.read(h, bytes, sizeof bytes, &done);
                }
            } catch (const std::bad_alloc &) {
            }
            completed = g_counted < nth;
            g_fail_at = 0;
            if (h != nullptr) bridge.close(h);
        }
        EXPECT_EQ(g_live_count, 0) << "kept after a failed allocation";
    }
    g_chips.clear();
}
#endif

INSTANTIATE_TEST_SUITE_P(Every, AllocationFailure, ::testing::Values(false, true),
                         [](const auto &info) { return info.param ? "Nir" : "Cm2"; });

}  // namespace
}  // namespace kavrel::test
