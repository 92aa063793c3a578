#include "session.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "trace.h"
#include "transport/device_table.h"

#ifdef KAVREL_CLI_HAS_SIM
#include "kavrel_sim.h"
#include "sim/world.h"
#endif

namespace kavrel::cli {

void fail(int status, const std::string &message) { throw Failure(status, message); }

std::string format(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, fmt, args);
    va_end(args);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0) std::vsnprintf(&text[0], text.size() + 1, fmt, again);
    va_end(again);
    return text;
}

const char *result_name(int32_t result) {
    switch (result) {
        case KAVREL_DIRECT_OK: return "ok";
        case KAVREL_DIRECT_ERR_GENERIC: return "generic";
        case KAVREL_DIRECT_ERR_NO_DEVICE: return "no_device";
        case KAVREL_DIRECT_ERR_NOT_OPEN: return "not_open";
        case KAVREL_DIRECT_ERR_IO: return "io";
        case KAVREL_DIRECT_ERR_INVALID_ARG: return "invalid_arg";
        case KAVREL_DIRECT_ERR_OPEN_FAILED: return "open_failed";
        case KAVREL_DIRECT_ERR_CRC: return "crc";
        case KAVREL_DIRECT_ERR_PARSE: return "parse";
        case KAVREL_DIRECT_ERR_TIMEOUT: return "timeout";
        case KAVREL_DIRECT_ERR_WRITE_PROTECT: return "write_protect";
        case KAVREL_DIRECT_ERR_UNSUPPORTED: return "unsupported";
        default: return "unknown";
    }
}

std::string explain(int32_t result, const Ask &ask) {
    std::string why;
    switch (result) {
        case KAVREL_DIRECT_ERR_GENERIC:
            why = ask.generic_reason.empty() ? "the library refused the request" : ask.generic_reason;
            break;
        case KAVREL_DIRECT_ERR_NO_DEVICE: why = "no such bridge"; break;
        case KAVREL_DIRECT_ERR_NOT_OPEN: why = "no instrument is open"; break;
        case KAVREL_DIRECT_ERR_IO:
            why = "the instrument's answer was unusable (too short, refused, or not acknowledged), or the "
                  "bridge failed to move the bytes (was it unplugged?)";
            break;
        case KAVREL_DIRECT_ERR_INVALID_ARG: why = "the library refused the values given"; break;
        case KAVREL_DIRECT_ERR_OPEN_FAILED:
            why = "the bridge could not be opened: another program may hold it, or the kernel's serial "
                  "driver is bound to it (kavrel doctor checks)";
            break;
        case KAVREL_DIRECT_ERR_CRC:
            why = "a reply failed its CRC check, or the instrument found the request's CRC wrong "
                  "(a noisy or loose cable?)";
            break;
        case KAVREL_DIRECT_ERR_PARSE:
            why = "the reply did not begin with the CM2 preamble (an NIR instrument? try --protocol nir)";
            break;
        case KAVREL_DIRECT_ERR_TIMEOUT:
            why = ask.limit_ms > 0 ? format("the instrument did not answer within %.0f ms", ask.limit_ms)
                                   : std::string("the instrument did not answer in time");
            break;
        case KAVREL_DIRECT_ERR_WRITE_PROTECT:
            why = "the instrument's flash write protection is not open "
                  "(kavrel set flash_write_protect open)";
            break;
        case KAVREL_DIRECT_ERR_UNSUPPORTED: why = "the instrument's protocol has no form of this operation"; break;
        default: why = format("result code %d", static_cast<int>(result)); break;
    }
    std::string text = std::string(result_name(result)) + ": " + why;
    if (!ask.what.empty()) text += " (" + ask.what + ")";
    return text;
}

namespace {

struct FaultName {
    const char *name;
    uint32_t kind;
};

// The simulator's fault kinds by the names the command line takes.
constexpr FaultName kFaults[] = {
    {"no_answer", 1},     {"delay", 2},           {"truncate", 3},         {"bad_crc", 4},
    {"bad_preamble", 5},  {"reply_code", 6},      {"trickle", 7},          {"handshake_failed", 8},
    {"handshake_stuck", 9}, {"nir_refuse", 10},   {"read_failure", 11},    {"write_failure", 12},
};

bool parse_u32(const std::string &text, uint32_t &value) {
    if (text.empty()) return false;
    char *end = nullptr;
    const unsigned long long parsed = std::strtoull(text.c_str(), &end, 0);
    if (*end != '\0' || parsed > 0xFFFFFFFFull || text[0] == '-') return false;
    value = static_cast<uint32_t>(parsed);
    return true;
}

}  // namespace

const char *sim_fault_names() {
    return "no_answer, delay (parameter: ms), truncate (bytes), bad_crc, bad_preamble, reply_code (0xE0 to "
           "0xE3), trickle (ms per byte), handshake_failed, handshake_stuck, nir_refuse, read_failure, "
           "write_failure";
}

SimFault parse_sim_fault(const std::string &text) {
    const size_t first = text.find(':');
    const std::string name = text.substr(0, first);
    SimFault fault;
    for (const FaultName &f : kFaults)
        if (name == f.name) fault.kind = f.kind;
    if (fault.kind == 0) fail(kExitUsage, "--sim-fault: unknown kind \"" + name + "\"; kinds: " + sim_fault_names());
    if (first != std::string::npos) {
        const size_t second = text.find(':', first + 1);
        const std::string count = text.substr(first + 1, second == std::string::npos ? std::string::npos
                                                                                     : second - first - 1);
        bool ok = parse_u32(count, fault.count);
        if (ok && second != std::string::npos) ok = parse_u32(text.substr(second + 1), fault.parameter);
        if (!ok) fail(kExitUsage, "--sim-fault: expected KIND[:COUNT[:PARAMETER]], got \"" + text + "\"");
    }
    return fault;
}

std::vector<std::string> chip_serials() {
    std::vector<std::string> serials;
    char serial[64];
    // The library caps its list at 64 bridges.
    for (int32_t i = 0; i < 64; ++i) {
        if (kavrel_direct_get_chip_serial_by_index(i, serial, sizeof serial) != KAVREL_DIRECT_OK) break;
        serials.emplace_back(serial);
    }
    return serials;
}

Session::Session(Options options) : options_(std::move(options)) {}

Session::~Session() {
    if (opened_) kavrel_direct_close_all_devices();
    flush_trace();
    if (started_) kavrel::use_provider(nullptr);
}

void Session::start() {
    if (started_) return;
    const platform::Platform *base = nullptr;
    if (options_.sim) {
        setup_simulation();
#ifdef KAVREL_CLI_HAS_SIM
        base = &kavrel::sim::world_provider();
#endif
    } else {
        base = &platform::hardware_provider();
    }
    if (options_.trace) {
        tracer_ = std::make_unique<Tracer>(*base, stderr, options_.verbose);
        traced_ = platform::provider_table("trace", *tracer_);
        base = &traced_;
    }
    kavrel::use_provider(base);
    provider_ = base;
    started_ = true;
    detail(format("provider: %s", base->name != nullptr ? base->name : "(unnamed)"));

    uint32_t preference = KAVREL_DIRECT_PROTOCOL_AUTO;
    if (options_.protocol == "cm2") preference = KAVREL_DIRECT_PROTOCOL_CM2;
    if (options_.protocol == "nir") preference = KAVREL_DIRECT_PROTOCOL_NIR;
    check(kavrel_direct_set_protocol_preference(static_cast<int32_t>(preference)), {"--protocol"});
}

void Session::setup_simulation() {
#ifdef KAVREL_CLI_HAS_SIM
    if (options_.sim_virtual_time) kavrel_sim_set_virtual_time(1);
    if (!options_.sim_seed_given) return;
    // The default pair again, seeded: the first attach replaces the pair.
    const struct {
        uint32_t kind;
        const char *serial;
    } pair[] = {{KAVREL_SIM_CM2, "KSIM0001"}, {KAVREL_SIM_NIR, "KSIM0002"}};
    uint64_t seed = options_.sim_seed;
    for (const auto &bridge : pair) {
        kavrel_sim_config config;
        check(kavrel_sim_default_config(bridge.kind, &config), {"configuring a simulated instrument"});
        std::snprintf(config.chip_serial, sizeof config.chip_serial, "%s", bridge.serial);
        config.seed = seed++;
        check(kavrel_sim_attach(&config), {"attaching a simulated instrument"});
    }
#else
    fail(kExitUsage, "this kavrel was built without the simulated instruments (--sim)");
#endif
}

const platform::Platform &Session::provider() {
    start();
    return *provider_;
}

const Instrument &Session::instrument() {
    if (!opened_) open_instrument();
    return instrument_;
}

void Session::release_instrument() {
    if (!opened_) return;
    kavrel_direct_close_all_devices();
    opened_ = false;
}

void Session::open_instrument() {
    start();
    const std::vector<std::string> serials = chip_serials();
    if (serials.empty()) {
        fail(exit_status_of(KAVREL_DIRECT_ERR_NO_DEVICE),
             options_.sim ? "no_device: the simulated world has no bridge"
                          : "no_device: no bridge found. Try `kavrel doctor` to see why, or `kavrel --sim ...` "
                            "to work with simulated instruments");
    }
    std::string found;
    for (const std::string &s : serials) found += (found.empty() ? "" : ", ") + s;

    const std::string &wanted = options_.device;
    bool by_serial = !wanted.empty();
    int32_t index = 0;
    if (!wanted.empty() && wanted.find_first_not_of("0123456789") == std::string::npos && wanted.size() < 6) {
        // A number names a list index, unless a bridge has it as its serial.
        by_serial = false;
        for (const std::string &s : serials) by_serial = by_serial || s == wanted;
        index = static_cast<int32_t>(std::stol(wanted));
        if (!by_serial && index >= static_cast<int32_t>(serials.size()))
            fail(exit_status_of(KAVREL_DIRECT_ERR_NO_DEVICE),
                 format("no_device: no bridge at index %d; found %zu: %s", static_cast<int>(index),
                        serials.size(), found.c_str()));
    }
    int32_t rc;
    if (by_serial) {
        rc = kavrel_direct_open_device_by_chip_serial(wanted.c_str());
        if (rc == KAVREL_DIRECT_ERR_NO_DEVICE)
            fail(exit_status_of(rc), "no_device: no bridge has the chip serial \"" + wanted + "\"; found: " + found);
        instrument_.chip_serial = wanted;
    } else {
        rc = kavrel_direct_open_device(index);
        instrument_.chip_serial = serials[static_cast<size_t>(index)];
    }
    check(rc, {"opening " + instrument_.chip_serial});
    opened_ = true;
    check(kavrel_direct_get_device_protocol(&instrument_.protocol), {"reading the protocol"});
    detail(format("opened %s, protocol %s", instrument_.chip_serial.c_str(), instrument_.protocol_name()));

#ifdef KAVREL_CLI_HAS_SIM
    // Faults start once the instrument is open, so that they hit the
    // command itself rather than the protocol probe of opening.
    for (const std::string &text : options_.sim_faults) {
        const SimFault f = parse_sim_fault(text);
        kavrel_sim_fault fault{f.kind, f.count, f.parameter, 0};
        check(kavrel_sim_inject_fault(instrument_.chip_serial.c_str(), &fault), {"injecting " + text});
        detail("fault injected: " + text);
    }
#endif
}

void Session::check(int32_t result, const Ask &ask) const {
    if (result >= 0) return;
    fail(exit_status_of(result), explain(result, ask));
}

double Session::register_limit_ms(bool is_set) const {
    // CM2 waits 200 ms for each reply; NIR waits for the line to fall quiet,
    // 300 ms after a setting and 500 ms after a query.
    if (!instrument_.nir()) return 200;
    return is_set ? 300 : 500;
}

double Session::spectrum_limit_ms(uint32_t integration_us, uint8_t averages) const {
    const uint64_t ms = (static_cast<uint64_t>(integration_us) + 999) / 1000;
    const uint64_t limit = ms * (averages == 0 ? 1u : averages) + 1000;
    return static_cast<double>(limit < 120000 ? limit : 120000);
}

void Session::note(const std::string &text) const {
    if (options_.quiet) return;
    flush_trace();
    std::fprintf(stderr, "%s\n", text.c_str());
}

void Session::detail(const std::string &text) const {
    if (!options_.verbose || options_.quiet) return;
    flush_trace();
    std::fprintf(stderr, "kavrel: %s\n", text.c_str());
}

void Session::flush_trace() const {
    if (tracer_) tracer_->flush();
}

}  // namespace kavrel::cli
