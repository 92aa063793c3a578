// What every subcommand of kavrel shares: the global options, the provider
// in force, the one instrument the command works on, the messages on stderr
// and the exit status of a failure.
//
// Data goes to stdout, everything meant for a person to stderr. A failure
// ends the command with a Failure carrying its exit status and its message;
// main() prints the message and exits with the status.
#ifndef KAVREL_TOOLS_SESSION_H
#define KAVREL_TOOLS_SESSION_H

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kavrel_direct.h"
#include "platform/platform.h"

namespace kavrel::cli {

// Exit statuses. A failure the library reports exits with 10 plus the
// magnitude of its result code (generic 11 up to unsupported 21), so that a
// script can tell every kind of failure apart.
constexpr int kExitOk = 0;
constexpr int kExitNotReady = 1;  // doctor: no instrument can be used
constexpr int kExitUsage = 2;     // the command line asks for something impossible
constexpr int kExitFile = 3;      // a file could not be read or written, or was not understood
constexpr int kExitRefused = 4;   // refused on purpose (a dark spectrum taken with other settings)
constexpr int exit_status_of(int32_t result) { return 10 - result; }

class Failure : public std::runtime_error {
public:
    Failure(int status, const std::string &message) : std::runtime_error(message), status_(status) {}
    int status() const { return status_; }

private:
    int status_;
};

[[noreturn]] void fail(int status, const std::string &message);

// printf into a std::string.
#if defined(__MINGW_PRINTF_FORMAT)
#define KAVREL_PRINTF_LIKE __attribute__((format(__MINGW_PRINTF_FORMAT, 1, 2)))
#elif defined(__GNUC__)
#define KAVREL_PRINTF_LIKE __attribute__((format(printf, 1, 2)))
#else
#define KAVREL_PRINTF_LIKE
#endif
std::string format(const char *fmt, ...) KAVREL_PRINTF_LIKE;

// The short name of a result code: "timeout", "io", ...
const char *result_name(int32_t result);

// What the instrument was asked, so that a failure can be explained:
// a few words for the message and the time limit the library applied.
struct Ask {
    Ask() = default;
    Ask(std::string what_, double limit_ms_ = 0, std::string generic_reason_ = "")
        : what(std::move(what_)), limit_ms(limit_ms_), generic_reason(std::move(generic_reason_)) {}
    std::string what;
    double limit_ms = 0;
    // Said for KAVREL_DIRECT_ERR_GENERIC, whose meaning depends on the call.
    std::string generic_reason;
};

// "timeout: the instrument did not answer within 1010 ms (reading a spectrum)".
std::string explain(int32_t result, const Ask &ask);

struct SimFault {
    uint32_t kind = 0;
    uint32_t count = 0;
    uint32_t parameter = 0;
};

struct Options {
    std::string device;
    std::string protocol = "auto";
    bool sim = false;
    bool sim_seed_given = false;
    uint64_t sim_seed = 0;
    std::vector<std::string> sim_faults;
    bool sim_virtual_time = false;
    bool trace = false;
    bool quiet = false;
    bool verbose = false;
};

// Parses KIND[:COUNT[:PARAMETER]]; the kinds' names are listed in the help.
SimFault parse_sim_fault(const std::string &text);
const char *sim_fault_names();

class Tracer;

// The instrument a command works on, once opened.
struct Instrument {
    std::string chip_serial;
    uint32_t protocol = KAVREL_DIRECT_PROTOCOL_UNKNOWN;
    bool nir() const { return protocol == KAVREL_DIRECT_PROTOCOL_NIR; }
    const char *protocol_name() const { return nir() ? "NIR" : "CM2"; }
};

class Session {
public:
    explicit Session(Options options);
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    const Options &options() const { return options_; }

    // Installs the provider: the hardware chain, or the simulated
    // instruments with --sim, behind the tracer with --trace. Idempotent.
    void start();
    // The provider installed by start().
    const platform::Platform &provider();
    bool simulated() const { return options_.sim; }

    // The instrument chosen with --device (the first bridge by default),
    // opened on first use and closed when the session ends.
    const Instrument &instrument();
    // Closes every open instrument (a probe opens them all); the next
    // instrument() opens the chosen one again.
    void release_instrument();

    // Turns a negative result into a Failure explained with ask.
    void check(int32_t result, const Ask &ask) const;

    // Time limits the library applies, for explaining a time-out: a register
    // read or write, and a spectrum with the settings in force.
    double register_limit_ms(bool is_set) const;
    double spectrum_limit_ms(uint32_t integration_us, uint8_t averages) const;

    // Messages on stderr: note() unless --quiet, detail() with --verbose.
    void note(const std::string &text) const;
    void detail(const std::string &text) const;
    // Ends a pending trace record, so that what follows on stderr does not
    // cut into it.
    void flush_trace() const;

private:
    void setup_simulation();
    void open_instrument();

    Options options_;
    bool started_ = false;
    const platform::Platform *provider_ = nullptr;
    std::unique_ptr<Tracer> tracer_;
    platform::Platform traced_{};
    bool opened_ = false;
    Instrument instrument_;
};

// Number of bridges the library lists, with their chip serials (through
// kavrel_direct_get_chip_serial_by_index).
std::vector<std::string> chip_serials();

}  // namespace kavrel::cli

#endif
