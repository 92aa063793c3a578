// The NIR side of the wire: a command byte, its arguments and a CRC-16
// (most significant byte first); the answer is 0x06, data and a CRC-16, and
// nothing says how long it is: the host reads until the line falls quiet.
//
// A frame whose CRC is wrong, and a command the instrument refuses (a flash
// page write while the protection is closed, or longer than a page), is
// answered with 0x15 and its CRC. An unknown command byte is skipped, so the
// instrument finds the next frame after garbage. Only the flash page write
// has no fixed length: it ends where its CRC matches the bytes before it.
#ifndef KAVREL_SIM_NIR_INSTRUMENT_H
#define KAVREL_SIM_NIR_INSTRUMENT_H

#include <cstdint>
#include <vector>

#include "instrument.h"

namespace kavrel::sim {

class NirInstrument : public Instrument {
public:
    NirInstrument(const kavrel_sim_config &config, LineSink &line);
    // Whether the configuration fits what NIR commands carry: 1 to 1024
    // points, a version text of at most 20 characters and a model of the form
    // "NIR-T<0 to 15>-<up to 4 hexadecimal digits>", the only one the model
    // command can describe.
    static bool valid(const kavrel_sim_config &config);

protected:
    void parse(std::vector<uint8_t> &pending, double at_ms) override;

private:
    void handle(const uint8_t *command, size_t length, bool crc_ok, double at_ms);
    // The answer's data, or false for a refusal.
    bool execute(const uint8_t *command, size_t length, std::vector<uint8_t> &data, double now, double &ready,
                 bool &reset_after);

    unsigned model_type_ = 0;
    unsigned model_number_ = 0;
};

}  // namespace kavrel::sim

#endif
