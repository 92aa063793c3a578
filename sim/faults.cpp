#include "faults.h"

namespace kavrel::sim {
namespace {

bool is_handshake(uint32_t kind) {
    return kind == KAVREL_SIM_FAULT_HANDSHAKE_FAILED || kind == KAVREL_SIM_FAULT_HANDSHAKE_STUCK;
}

bool is_bridge(uint32_t kind) {
    return kind == KAVREL_SIM_FAULT_READ_FAILURE || kind == KAVREL_SIM_FAULT_WRITE_FAILURE;
}

}  // namespace

bool Faults::valid(const kavrel_sim_fault &fault) {
    return fault.kind >= KAVREL_SIM_FAULT_NO_ANSWER && fault.kind <= KAVREL_SIM_FAULT_WRITE_FAILURE;
}

void Faults::add(const kavrel_sim_fault &fault) {
    faults_.push_back(fault);
}

template <typename Test>
std::vector<kavrel_sim_fault> Faults::take(Test test) {
    std::vector<kavrel_sim_fault> taken;
    for (auto it = faults_.begin(); it != faults_.end();) {
        if (!test(it->kind)) {
            ++it;
            continue;
        }
        taken.push_back(*it);
        // A count of 0 lasts until the faults are cleared.
        if (it->count == 1)
            it = faults_.erase(it);
        else {
            if (it->count > 1) --it->count;
            ++it;
        }
    }
    return taken;
}

ReplyFaults Faults::next_request() {
    ReplyFaults r;
    for (const kavrel_sim_fault &f : take([](uint32_t k) { return !is_handshake(k) && !is_bridge(k); })) {
        switch (f.kind) {
            case KAVREL_SIM_FAULT_NO_ANSWER: r.no_answer = true; break;
            case KAVREL_SIM_FAULT_DELAY: r.delay_ms += f.parameter; break;
            case KAVREL_SIM_FAULT_TRUNCATE: r.truncate_to = f.parameter; break;
            case KAVREL_SIM_FAULT_BAD_CRC: r.bad_crc = true; break;
            case KAVREL_SIM_FAULT_BAD_PREAMBLE: r.bad_preamble = true; break;
            case KAVREL_SIM_FAULT_REPLY_CODE: r.reply_code = static_cast<uint8_t>(f.parameter); break;
            case KAVREL_SIM_FAULT_TRICKLE: r.trickle_ms = f.parameter; break;
            case KAVREL_SIM_FAULT_NIR_REFUSE: r.nir_refuse = true; break;
            default: break;
        }
    }
    return r;
}

HandshakeFault Faults::next_command_block() {
    HandshakeFault result = HandshakeFault::none;
    for (const kavrel_sim_fault &f : take(is_handshake))
        result = f.kind == KAVREL_SIM_FAULT_HANDSHAKE_STUCK ? HandshakeFault::stuck : HandshakeFault::failed;
    return result;
}

bool Faults::next_read_fails() {
    return !take([](uint32_t k) { return k == KAVREL_SIM_FAULT_READ_FAILURE; }).empty();
}

bool Faults::next_write_fails() {
    return !take([](uint32_t k) { return k == KAVREL_SIM_FAULT_WRITE_FAILURE; }).empty();
}

}  // namespace kavrel::sim
