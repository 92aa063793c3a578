// The faults a simulated instrument or its bridge has been told to commit.
//
// Each fault lasts for a number of requests (or, for the bridge's read and
// write failures, of bridge calls; for the handshake faults, of command
// blocks), or from now on. Several may be in force at once; a request then
// suffers all of them. A fault the instrument's protocol has no use for
// passes its requests unchanged but still counts them.
#ifndef KAVREL_SIM_FAULTS_H
#define KAVREL_SIM_FAULTS_H

#include <cstdint>
#include <optional>
#include <vector>

#include "kavrel_sim.h"

namespace kavrel::sim {

// What the faults do to one reply.
struct ReplyFaults {
    bool no_answer = false;
    double delay_ms = 0;
    std::optional<uint32_t> truncate_to;
    bool bad_crc = false;
    bool bad_preamble = false;
    std::optional<uint8_t> reply_code;
    std::optional<double> trickle_ms;
    bool nir_refuse = false;
};

enum class HandshakeFault { none, failed, stuck };

class Faults {
public:
    // False for a kind that does not exist.
    static bool valid(const kavrel_sim_fault &fault);
    void add(const kavrel_sim_fault &fault);
    void clear() { faults_.clear(); }
    bool empty() const { return faults_.empty(); }

    // Each takes one count from every fault of its family.
    ReplyFaults next_request();
    HandshakeFault next_command_block();
    bool next_read_fails();
    bool next_write_fails();

private:
    // Takes one count from each fault that test accepts and returns them.
    template <typename Test>
    std::vector<kavrel_sim_fault> take(Test test);

    std::vector<kavrel_sim_fault> faults_;
};

}  // namespace kavrel::sim

#endif
