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

bool check(int from_server) {
    std::string path;
    char c;
    while (wait_readable(from_server) && ::read(from_server, &c, 1) == 1 && c != '\n') path += c;
    const int tty = ::open(path.c_str(), O_RDWR | O_NOCTTY);
    if (tty < 0) return std::fprintf(stderr, "sim_pty_query: no terminal at '%s'\n", path.c_str()), false;
    termios raw{};
    ::tcgetattr(tty, &raw);
    ::cfmakeraw(&raw);
    ::tcsetattr(tty, TCSANOW, &raw);
    ::tcflush(tty, TCIOFLUSH);

    uint8_t query[32], buffer[256];
    kavrel_direct_build_query(0xC1, 0x000046, 4, query);
    if (::write(tty, query, 10) != 10 || ::write(tty, query + 10, 22) != 22) return false;
    std::vector<uint8_t> reply;
    for (ssize_t n = 0; reply.size() < 32 + 16 && wait_readable(tty) && (n = ::read(tty, buffer, 256)) > 0;)
        reply.insert(reply.end(), buffer, buffer + n);
    ::close(tty);

    static cm2_packet packet;
    if (reply.size() != 32 + 16 ||
        kavrel_direct_parse_response(reply.data(), static_cast<int32_t>(reply.size()), &packet) != 0 ||
        !packet.crc_ok || packet.ans_reply != 0xAC || packet.pio_addr != 0x46 ||
        std::memcmp(packet.data, "KSIM-CM2-2048\0\0\0", 16) != 0)
        return std::fprintf(stderr, "sim_pty_query: %zu bytes, not the model reply\n", reply.size()), false;
    std::printf("sim_pty_query: %s answered %.16s\n", path.c_str(), reinterpret_cast<char *>(packet.data));
    return true;
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
    const bool passed = server > 0 && check(out[0]);
    if (server > 0) {
        ::kill(server, SIGTERM);
        ::waitpid(server, nullptr, 0);
    }
    return passed ? 0 : 1;
}
