// Starts kavrel-sim on a pseudo-terminal, writes a CM2 model query through
// the terminal in two pieces, as a serial line may carry it, and checks the
// reply. Usage: sim_pty_query PATH_TO_KAVREL_SIM
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "kavrel_direct.h"
#include "protocol/cm2_codec.h"

namespace {

// Waits for readable bytes; a generous limit only keeps a broken server from
// hanging the test.
bool wait_readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, 10000) == 1;
}

int check(pid_t server, int from_server) {
    std::string path;
    char c;
    while (wait_readable(from_server) && ::read(from_server, &c, 1) == 1 && c != '\n') path += c;
    const int tty = ::open(path.c_str(), O_RDWR | O_NOCTTY);
    if (tty < 0) {
        std::fprintf(stderr, "sim_pty_query: no terminal at '%s'\n", path.c_str());
        return 1;
    }
    termios raw{};
    ::tcgetattr(tty, &raw);
    ::cfmakeraw(&raw);
    ::tcsetattr(tty, TCSANOW, &raw);
    ::tcflush(tty, TCIOFLUSH);

    uint8_t query[32];
    kavrel_direct_build_query(0xC1, 0x000046, 4, query);
    if (::write(tty, query, 10) != 10 || ::write(tty, query + 10, 22) != 22) return 1;

    const size_t expected = 32 + 16;
    std::vector<uint8_t> reply;
    uint8_t buffer[256];
    while (reply.size() < expected && wait_readable(tty)) {
        const ssize_t n = ::read(tty, buffer, sizeof buffer);
        if (n <= 0) break;
        reply.insert(reply.end(), buffer, buffer + n);
    }
    ::close(tty);
    ::kill(server, SIGTERM);

    static cm2_packet packet;
    if (reply.size() != expected ||
        kavrel_direct_parse_response(reply.data(), static_cast<int32_t>(reply.size()), &packet) != 0 ||
        !packet.crc_ok || packet.ans_reply != 0xAC || packet.pio_addr != 0x46 ||
        std::memcmp(packet.data, "KSIM-CM2-2048\0\0\0", 16) != 0) {
        std::fprintf(stderr, "sim_pty_query: %zu bytes, not the model reply\n", reply.size());
        return 1;
    }
    std::printf("sim_pty_query: %s answered %.16s\n", path.c_str(), reinterpret_cast<char *>(packet.data));
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    int out[2];
    if (argc != 2 || ::pipe(out) != 0) return 2;
    const pid_t server = ::fork();
    if (server == 0) {
        ::dup2(out[1], STDOUT_FILENO);
        ::execl(argv[1], argv[1], "--pty", "--protocol", "cm2", static_cast<char *>(nullptr));
        _exit(127);
    }
    ::close(out[1]);
    const int result = server > 0 ? check(server, out[0]) : 1;
    if (server > 0) {
        ::kill(server, SIGTERM);
        int status = 0;
        ::waitpid(server, &status, 0);
    }
    return result;
}
