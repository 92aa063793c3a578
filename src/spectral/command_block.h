// The command-block handshake of the flash pages and the external spectrum.
//
// The host writes an 8-byte block whose byte 1 is 0xDD to a control address
// of register 0xC1, then reads the block back until the instrument has put
// 0xAA (done) or 0xEE (failed) in byte 1, pausing between reads. The
// instrument gives no other sign of completion, so the host gives up after a
// fixed number of reads.
#ifndef KAVREL_SPECTRAL_COMMAND_BLOCK_H
#define KAVREL_SPECTRAL_COMMAND_BLOCK_H

#include <cstdint>

namespace kavrel {

constexpr int kCommandBlockBytes = 8;
constexpr uint8_t kCommandPending = 0xDD;  // byte 1 as the host writes it

struct command_handshake {
    uint32_t address;   // of the block in register 0xC1
    int attempts;       // reads before giving up
    uint32_t pause_ms;  // after every read that shows the command under way
};

// Flash page transfers take their time: 50 reads 50 ms apart.
constexpr command_handshake kFlashHandshake{0x00004A, 50, 50};
// An external spectrum is ready sooner: 200 reads 10 ms apart.
constexpr command_handshake kExternalSpectrumHandshake{0x00004C, 200, 10};

// Writes block and waits for its verdict. Results: 0 done; -4 the instrument
// reported failure (0xEE) or answered with fewer than 8 bytes; -9 still under
// way after the last read (and its pause); exchange failures unchanged.
int32_t run_command_block(const command_handshake &handshake, const uint8_t (&block)[kCommandBlockBytes]);

}  // namespace kavrel

#endif
