// The CM2 side of the wire: packets with a preamble, a header naming a
// register and a 24-bit word address, data words and a CRC-32.
//
// Every request is answered with a packet that echoes its register and
// address: 0xAC with the data of a query or as the acknowledge of a write,
// 0xE1 for a request whose CRC is wrong, 0xE2 for a register or address the
// instrument does not have (or a write to one it only reports), 0xE3 for a
// flash page write while the write protection is closed. Bytes before a
// preamble are skipped.
#ifndef KAVREL_SIM_CM2_INSTRUMENT_H
#define KAVREL_SIM_CM2_INSTRUMENT_H

#include <cstdint>
#include <vector>

#include "instrument.h"

namespace kavrel::sim {

class Cm2Instrument : public Instrument {
public:
    Cm2Instrument(const kavrel_sim_config &config, LineSink &line);
    // Whether the configuration fits what CM2 registers carry: a model of at
    // most 16 characters, a serial number of at most 12, a hardware version
    // of up to four hexadecimal bytes ("01.04.00.02"), 1 to 4096 points.
    static bool valid(const kavrel_sim_config &config);

    // The items of the register map, each a run of words at one address.
    enum class Item : uint8_t;

protected:
    void parse(std::vector<uint8_t> &pending, double at_ms) override;
    void reset() override;

private:
    // A command block of the flash pages or the external spectrum: written
    // with 0xDD in byte 1, busy until done_ms, then 0xAA (or 0xEE) there.
    struct CommandBlock {
        uint8_t bytes[8] = {};
        bool running = false;
        double done_ms = 0;
        HandshakeFault fault = HandshakeFault::none;
    };

    void handle(const uint8_t *packet, size_t length, double at_ms);
    uint8_t query(uint8_t reg, uint32_t address, uint32_t words, std::vector<uint8_t> &data, double now,
                  double &ready);
    uint8_t write(uint8_t reg, uint32_t address, const uint8_t *data, uint32_t words, double now);
    uint8_t query_items(uint8_t reg, uint32_t address, uint32_t words, std::vector<uint8_t> &data,
                        double now);
    uint8_t write_items(uint8_t reg, uint32_t address, const uint8_t *data, uint32_t words, double now);
    std::vector<uint8_t> item_bytes(Item item, double now);
    uint8_t store_item(Item item, const uint8_t *bytes, double now);
    void start(CommandBlock &block, double now, double busy_ms);
    // Brings the block up to date at now: finishes a command whose time has
    // come.
    void advance(CommandBlock &block, bool flash, double now);
    bool program_page(uint16_t page, uint32_t crc);

    uint8_t version_[4] = {};
    CommandBlock flash_block_;
    CommandBlock external_block_;
    std::vector<uint8_t> page_buffer_;
    size_t page_buffer_fill_ = 0;
    std::vector<uint16_t> external_capture_;  // taken when an external block starts
    std::vector<uint16_t> held_spectrum_;     // ready since it completed, not read yet
    bool reset_requested_ = false;
};

}  // namespace kavrel::sim

#endif
