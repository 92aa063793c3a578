// kavrel-sim: one simulated instrument, in real time, on a byte stream.
//
// With it the instrument's side of the wire can sit behind a serial line or
// an emulated USB serial chip, so that the whole real path (bridge chip,
// kernel, USB library, the library's provider) is exercised.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <termios.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "sim/config.h"
#include "stream_line.h"

namespace {

using namespace kavrel::sim;

std::atomic<bool> g_stop{false};

void on_signal(int) {
    g_stop = true;
}

const std::map<std::string, uint32_t> &fault_kinds() {
    static const std::map<std::string, uint32_t> kinds = {
        {"no-answer", KAVREL_SIM_FAULT_NO_ANSWER},
        {"delay", KAVREL_SIM_FAULT_DELAY},
        {"truncate", KAVREL_SIM_FAULT_TRUNCATE},
        {"bad-crc", KAVREL_SIM_FAULT_BAD_CRC},
        {"bad-preamble", KAVREL_SIM_FAULT_BAD_PREAMBLE},
        {"reply-code", KAVREL_SIM_FAULT_REPLY_CODE},
        {"trickle", KAVREL_SIM_FAULT_TRICKLE},
        {"handshake-failed", KAVREL_SIM_FAULT_HANDSHAKE_FAILED},
        {"handshake-stuck", KAVREL_SIM_FAULT_HANDSHAKE_STUCK},
        {"nir-refuse", KAVREL_SIM_FAULT_NIR_REFUSE},
    };
    return kinds;
}

// KIND[:COUNT[:PARAM]]; numbers in decimal or 0x hexadecimal.
bool parse_fault(const std::string &text, kavrel_sim_fault &fault) {
    fault = kavrel_sim_fault{};
    const size_t colon = text.find(':');
    const auto kind = fault_kinds().find(text.substr(0, colon));
    if (kind == fault_kinds().end()) return false;
    fault.kind = kind->second;
    uint32_t *fields[] = {&fault.count, &fault.parameter};
    size_t at = colon;
    for (uint32_t *field : fields) {
        if (at == std::string::npos) break;
        const char *start = text.c_str() + at + 1;
        char *end = nullptr;
        const unsigned long value = std::strtoul(start, &end, 0);
        if (end == start || (*end != '\0' && *end != ':') || value > UINT32_MAX) return false;
        *field = static_cast<uint32_t>(value);
        at = *end == ':' ? static_cast<size_t>(end - text.c_str()) : std::string::npos;
    }
    return at == std::string::npos;
}

int fail(const char *what) {
    std::fprintf(stderr, "kavrel-sim: %s: %s\n", what, std::strerror(errno));
    return 1;
}

int serve_pty(Instrument &instrument, StreamLine &line) {
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0) return fail("pseudo-terminal");
    const char *path = ::ptsname(master);
    // Keeping the terminal's side open ourselves keeps the pseudo-terminal up
    // between clients, and lets us make it raw once for all of them.
    const int keep = path != nullptr ? ::open(path, O_RDWR | O_NOCTTY) : -1;
    termios raw{};
    if (keep < 0 || ::tcgetattr(keep, &raw) != 0) return fail("pseudo-terminal");
    ::cfmakeraw(&raw);
    ::tcsetattr(keep, TCSANOW, &raw);
    std::printf("%s\n", path);
    std::fflush(stdout);
    while (!g_stop)
        if (!line.serve(instrument, master, master, g_stop)) break;
    return 0;
}

int serve_listening(Instrument &instrument, StreamLine &line, int listener) {
    while (!g_stop) {
        const int peer = ::accept(listener, nullptr, nullptr);
        if (peer < 0) {
            if (errno == EINTR) continue;
            return fail("accept");
        }
        line.serve(instrument, peer, peer, g_stop);
        ::close(peer);
    }
    return 0;
}

int serve_unix(Instrument &instrument, StreamLine &line, const std::string &path, bool connect) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        std::fprintf(stderr, "kavrel-sim: socket path too long: %s\n", path.c_str());
        return 1;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int s = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (s < 0) return fail("socket");
    const auto *where = reinterpret_cast<const sockaddr *>(&address);
    if (connect) {
        if (::connect(s, where, sizeof address) != 0) return fail(path.c_str());
        line.serve(instrument, s, s, g_stop);
        return 0;
    }
    // A socket left behind by an earlier run would make bind fail.
    struct stat existing {};
    if (::stat(path.c_str(), &existing) == 0 && S_ISSOCK(existing.st_mode)) ::unlink(path.c_str());
    if (::bind(s, where, sizeof address) != 0 || ::listen(s, 1) != 0) return fail(path.c_str());
    std::fprintf(stderr, "kavrel-sim: listening on %s\n", path.c_str());
    const int result = serve_listening(instrument, line, s);
    ::unlink(path.c_str());
    return result;
}

int serve_tcp(Instrument &instrument, StreamLine &line, uint16_t port) {
    const int s = ::socket(AF_INET, SOCK_STREAM, 0);
    if (s < 0) return fail("socket");
    const int yes = 1;
    ::setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);  // never reachable from another machine
    socklen_t length = sizeof address;
    auto *where = reinterpret_cast<sockaddr *>(&address);
    if (::bind(s, where, length) != 0 || ::listen(s, 1) != 0 || ::getsockname(s, where, &length) != 0)
        return fail("tcp");
    std::printf("%u\n", static_cast<unsigned>(ntohs(address.sin_port)));
    std::fflush(stdout);
    return serve_listening(instrument, line, s);
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{
        "Plays one simulated spectrometer, in real time, on a byte stream: the instrument's side of the\n"
        "wire, answering CM2 packets or NIR commands byte for byte as the library's provider would see\n"
        "them through a bridge chip. Exactly one of the stream options is required.",
        "kavrel-sim"};

    bool pty = false, use_stdio = false;
    std::string unix_path, unix_connect;
    uint16_t tcp_port = 0;
    std::string protocol = "cm2", speed = "full", serial;
    uint64_t seed = 0;
    bool seed_given = false;
    uint32_t points = 0;
    std::vector<std::string> fault_texts;

    auto *stream = app.add_option_group("stream", "Where the instrument is served");
    stream->add_flag("--pty", pty, "Open a pseudo-terminal, print its path on stdout and serve it");
    stream->add_option("--unix", unix_path, "Listen on a Unix socket at PATH; one client at a time")
        ->type_name("PATH");
    stream
        ->add_option("--unix-connect", unix_connect,
                     "Connect to a Unix socket another program (such as QEMU) listens on")
        ->type_name("PATH");
    stream->add_option("--tcp", tcp_port, "Listen on 127.0.0.1:PORT (0: any free port); prints the port")
        ->type_name("PORT");
    stream->add_flag("--stdio", use_stdio, "Serve on standard input and output");
    stream->require_option(1);

    app.add_option("--protocol", protocol, "The instrument's protocol")
        ->check(CLI::IsMember({"cm2", "nir"}))
        ->capture_default_str();
    app.add_option("--serial", serial, "The instrument's own serial number (CM2: at most 12 characters)");
    app.add_option("--seed", seed, "Seeds the detector noise (default: the protocol's default instrument's)")
        ->each([&](const std::string &) { seed_given = true; });
    app.add_option("--points", points, "Detector points (CM2 1 to 4096, NIR 1 to 1024)");
    app.add_option("--speed", speed, "The line rate: full (3 Mbaud) or high (about 2.6 MB/s)")
        ->check(CLI::IsMember({"full", "high"}))
        ->capture_default_str();
    app.add_option("--fault", fault_texts,
                   "KIND[:COUNT[:PARAM]], repeatable: a fault for the next COUNT requests (0 or none: all).\n"
                   "KIND: no-answer; delay (PARAM ms); truncate (to PARAM bytes); bad-crc;\n"
                   "bad-preamble; reply-code (PARAM, e.g. 0xE2); trickle (a byte every PARAM ms);\n"
                   "handshake-failed, handshake-stuck (count command blocks); nir-refuse")
        ->type_name("FAULT");
    CLI11_PARSE(app, argc, argv);

    kavrel_sim_config config;
    default_config(protocol == "nir" ? KAVREL_SIM_NIR : KAVREL_SIM_CM2, config);
    std::snprintf(config.chip_serial, sizeof config.chip_serial, "KSIM-STREAM");
    config.bridge_speed = speed == "high" ? KAVREL_SIM_HIGH_SPEED : KAVREL_SIM_FULL_SPEED;
    if (!serial.empty())
        std::snprintf(config.serial_number, sizeof config.serial_number, "%s", serial.c_str());
    if (seed_given) config.seed = seed;
    if (points != 0) config.point_count = points;
    if (!valid_config(config) || serial.size() >= sizeof config.serial_number) {
        std::fprintf(stderr, "kavrel-sim: the instrument cannot be made that way (points or serial)\n");
        return 2;
    }

    StreamLine line(speed == "high" ? 1.0 / 2600.0 : 10.0 / 3000.0);
    const std::unique_ptr<Instrument> instrument = make_instrument(config, line);
    for (const std::string &text : fault_texts) {
        kavrel_sim_fault fault;
        if (!parse_fault(text, fault)) {
            std::fprintf(stderr, "kavrel-sim: not a fault: %s (see --help)\n", text.c_str());
            return 2;
        }
        instrument->faults().add(fault);
    }

    std::signal(SIGPIPE, SIG_IGN);
    struct sigaction stop {};
    stop.sa_handler = on_signal;  // no SA_RESTART: a blocked accept or poll returns
    sigaction(SIGINT, &stop, nullptr);
    sigaction(SIGTERM, &stop, nullptr);

    if (pty) return serve_pty(*instrument, line);
    if (!unix_path.empty()) return serve_unix(*instrument, line, unix_path, false);
    if (!unix_connect.empty()) return serve_unix(*instrument, line, unix_connect, true);
    if (use_stdio) {
        line.serve(*instrument, STDIN_FILENO, STDOUT_FILENO, g_stop);
        return 0;
    }
    return serve_tcp(*instrument, line, tcp_port);
}
