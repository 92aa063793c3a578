// The soak: tens of thousands of requests against four simulated
// instruments (two CM2, two NIR), all open, switched at random, with faults
// injected at random, on the virtual clock. After every call:
//  - its result is one the header allows for that operation on that
//    protocol, whatever the fault;
//  - a call that failed left its outputs alone;
//  - once the faults are cleared and what was still on its way has landed,
//    the device answers a clean request correctly;
//  - the library never waited in silence longer than its longest time
//    limit, and no bridge read outlasted the limit in force.
// Leaks are for the sanitizer and valgrind builds that run it.
//
//   kavrel_soak [--seed N] [--requests N]     (the seed is printed)
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <string>

#include "kavrel_sim.h"
#include "sim/world.h"
#include "support/every_operation.h"
#include "transport/device_table.h"
#include "transport/timing.h"

using namespace kavrel;
using namespace kavrel::test;

namespace {

// Watches the library through its provider: how long each read waits
// against the limit in force, and the longest silence within an exchange
// (from a request, or the last byte that came, to the next byte or the end).
struct Watch : platform::Forwarder {
    using Forwarder::Forwarder;
    std::map<platform::Handle, uint32_t> read_limit;
    double last_byte_ms = 0, longest_silence_ms = 0;
    std::string broken;

    platform::Status set_timeouts(platform::Handle h, uint32_t r, uint32_t w) {
        read_limit[h] = r;
        return Forwarder::set_timeouts(h, r, w);
    }
    platform::Status write(platform::Handle h, const void *b, uint32_t n, uint32_t *written) {
        note_byte(now_ms());
        return Forwarder::write(h, b, n, written);
    }
    platform::Status read(platform::Handle h, void *b, uint32_t n, uint32_t *returned) {
        const double started = now_ms();
        const platform::Status status = Forwarder::read(h, b, n, returned);
        if (now_ms() - started > read_limit[h] + 1e-6) broken = "a read outlasted the limit in force";
        if (*returned > 0) note_byte(now_ms());
        return status;
    }
    void note_byte(double now) {
        longest_silence_ms = std::max(longest_silence_ms, now - last_byte_ms);
        last_byte_ms = now;
    }
};

// A fault of a random kind, lasting one to three requests, with a parameter
// around the limits it tests.
kavrel_sim_fault random_fault(std::mt19937_64 &random) {
    const auto kind = static_cast<uint32_t>(random() % KAVREL_SIM_FAULT_WRITE_FAILURE + 1);
    const auto count = static_cast<uint32_t>(random() % 3 + 1);
    const uint64_t parameter = kind == KAVREL_SIM_FAULT_DELAY        ? random() % 1500
                               : kind == KAVREL_SIM_FAULT_TRUNCATE   ? random() % 48
                               : kind == KAVREL_SIM_FAULT_REPLY_CODE ? 0xE0 + random() % 4
                               : kind == KAVREL_SIM_FAULT_TRICKLE    ? random() % 300 + 1
                                                                     : 0;
    return {kind, count, static_cast<uint32_t>(parameter), 0};
}

// The results the header gives for op on a device of that protocol.
bool allowed(const Operation &op, bool nir, int32_t rc) {
    if (op.cm2_only && nir) return rc == KAVREL_DIRECT_ERR_UNSUPPORTED;
    switch (rc) {
        case KAVREL_DIRECT_ERR_IO:
        case KAVREL_DIRECT_ERR_CRC:
        case KAVREL_DIRECT_ERR_TIMEOUT: return true;
        case KAVREL_DIRECT_ERR_PARSE:
        case KAVREL_DIRECT_ERR_WRITE_PROTECT: return !nir;
        case KAVREL_DIRECT_ERR_GENERIC:
        case KAVREL_DIRECT_ERR_INVALID_ARG: return op.spectral;
        default: return rc >= 0;  // success, or a byte count
    }
}

}  // namespace

int main(int argc, char **argv) {
    uint64_t seed = static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    long requests = 20000;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--seed") == 0) seed = std::stoull(argv[i + 1]);
        if (std::strcmp(argv[i], "--requests") == 0) requests = std::stol(argv[i + 1]);
    }
    std::printf("soak: seed %llu, %ld requests\n", static_cast<unsigned long long>(seed), requests);
    std::mt19937_64 random(seed);

    Watch watch(sim::world_provider());
    const platform::Platform watched = platform::provider_table("watch", watch);
    use_provider(&watched);
    kavrel_sim_reset();
    kavrel_sim_set_virtual_time(1);
    kavrel_sim_config configs[4];  // in slots 0 to 3
    for (int i = 0; i < 4; ++i) {
        kavrel_sim_default_config(i % 2 ? KAVREL_SIM_NIR : KAVREL_SIM_CM2, &configs[i]);
        std::snprintf(configs[i].chip_serial, sizeof configs[i].chip_serial, "SOAK%d", i);
        configs[i].seed = seed + static_cast<uint64_t>(i);
        if (kavrel_sim_attach(&configs[i]) != KAVREL_DIRECT_OK ||
            kavrel_direct_open_device_by_chip_serial(configs[i].chip_serial) != KAVREL_DIRECT_OK ||
            g_active_index != i) {
            std::printf("soak: cannot attach and open %s\n", configs[i].chip_serial);
            return 1;
        }
    }

    const double started_ms = kavrel_sim_now_ms();
    const auto out = std::make_unique<Outputs>();
    long failures = 0, faults = 0;
    std::string problem;
    for (long n = 0; n < requests && problem.empty(); ++n) {
        const int device = static_cast<int>(random() % 4);
        const kavrel_sim_config &config = configs[device];
        const Operation &op = kEveryOperation[random() % std::size(kEveryOperation)];
        kavrel_direct_select_device(device);
        const bool nir = config.instrument == KAVREL_SIM_NIR;
        // Inside either instrument's range.
        g_select_from = nir ? 1200 : 500;
        g_select_to = nir ? 1250 : 540;
        const kavrel_sim_fault fault = random() % 3 == 0 ? random_fault(random) : kavrel_sim_fault{};
        if (fault.kind != 0)
            faults += kavrel_sim_inject_fault(config.chip_serial, &fault) == KAVREL_DIRECT_OK;

        out->fill();
        watch.last_byte_ms = kavrel_sim_now_ms();
        watch.longest_silence_ms = 0;
        const int32_t rc = op.call(*out);
        watch.note_byte(kavrel_sim_now_ms());
        const device_slot &slot = g_devices[device];
        // The longest wait the library allows itself: a spectrum, or the
        // quiet time of a flash transfer, and one poll of the NIR reader.
        const double longest =
            std::max<double>(spectrum_time_limit_ms(slot.integration_time, slot.average_number), 1000) + 60;

        problem = watch.broken;
        if (!allowed(op, nir, rc)) problem = "a result the header does not give";
        if (rc < 0 && !out->untouched()) problem = "outputs written by a call that failed";
        if (watch.longest_silence_ms > longest)
            problem = "waited " + std::to_string(watch.longest_silence_ms) + " ms in silence";
        if (rc < 0 || fault.kind != 0) {
            failures += rc < 0;
            // Whatever is still on its way lands (a trickle takes its time
            // over a reply of up to 16 KiB), and the next request drops it.
            kavrel_sim_clear_faults(config.chip_serial);
            kavrel_sim_sleep_ms(10000 +
                                (fault.kind == KAVREL_SIM_FAULT_TRICKLE ? fault.parameter * 16400 : 0));
            char model[40] = {};
            if (kavrel_direct_get_device_model(model, sizeof model) != KAVREL_DIRECT_OK ||
                std::strcmp(model, config.model) != 0)
                problem = std::string("the next clean request answered \"") + model + "\"";
        }
        if (!problem.empty())
            std::printf("soak: request %ld, %s on %s, fault %u (count %u, parameter %u): result %d: %s\n", n,
                        op.name, config.chip_serial, fault.kind, fault.count, fault.parameter,
                        static_cast<int>(rc), problem.c_str());
    }
    const bool all_open = kavrel_direct_get_open_device_count() == 4;
    const double virtual_s = (kavrel_sim_now_ms() - started_ms) / 1000;
    kavrel_direct_close_all_devices();
    kavrel_sim_reset();
    use_provider(nullptr);
    std::printf("soak: %ld faults injected, %ld calls failed as allowed, %.0f s of virtual time%s\n", faults,
                failures, virtual_s, all_open ? "" : ", and a device closed itself");
    return problem.empty() && all_open ? 0 : 1;
}
