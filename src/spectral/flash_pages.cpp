// Reading and writing one page of the instrument's flash memory.
//
// NIR moves a page in one command. CM2 moves it through the page buffer
// (register 0xC7) and a command block in the flash control word, which the
// instrument marks done once the page has been copied between buffer and
// flash.
#include <cstring>

#include "kavrel_direct.h"
#include "protocol/byte_order.h"
#include "protocol/cm2_codec.h"
#include "spectral/command_block.h"
#include "spectral/transfer_buffer.h"
#include "transport/cm2_exchange.h"
#include "transport/device_call.h"
#include "transport/nir_exchange.h"

namespace kavrel {
namespace {

constexpr uint8_t kNirFlashPage = 0xAF;
constexpr int32_t kNirWriteHeadBytes = 3;  // command byte, page number
constexpr uint8_t kReadPage = 0xC0;        // byte 0 of the command block
constexpr uint8_t kWritePage = 0xCF;
constexpr uint32_t kWriteProtectAddress = 0x000012;
constexpr uint8_t kWriteProtectOpen[] = {0x00, 0x00, 0x00, 0xEA};
constexpr int32_t kMaxPageReadBytes = 1024;  // 256 words of the page buffer

void put_page_block(uint8_t (&block)[kCommandBlockBytes], uint8_t operation, uint16_t page, uint32_t crc) {
    block[0] = operation;
    block[1] = kCommandPending;
    store_be16(block + 2, page);
    store_be32(block + 4, crc);
}

int32_t nir_read_page(uint16_t page, uint8_t *buffer, int32_t length) {
    if (buffer == nullptr || length < 1) return KAVREL_DIRECT_ERR_INVALID_ARG;
    uint8_t command[4] = {kNirQuery, kNirFlashPage};
    store_be16(command + 2, page);
    int32_t stored = 0;
    if (int32_t rc = nir_send_command(command, sizeof command, buffer, &stored, length, kNirFlashQuietMs))
        return rc;
    return stored;
}

// The CM2 form reads the page whatever the buffer: with a null buffer the
// data is dropped and the count still returned, and length 0 asks for 0
// words. Only a negative length, which has no room to round, is refused.
int32_t cm2_read_page(uint16_t page, uint8_t *buffer, int32_t length) {
    if (length < 0) return KAVREL_DIRECT_ERR_INVALID_ARG;
    uint8_t block[kCommandBlockBytes];
    put_page_block(block, kReadPage, page, 0);
    if (int32_t rc = run_command_block(kFlashHandshake, block)) return rc;
    // The page buffer is read in whole words: the caller's room is length
    // rounded up to a word, at most 1024 bytes, and the answer is cut there.
    const int32_t room = length > kMaxPageReadBytes ? kMaxPageReadBytes : (length + 3) / 4 * 4;
    int32_t stored = 0;
    if (int32_t rc = cm2_query(kRegFlashPage, 0, static_cast<uint32_t>(room / 4), buffer, room, &stored))
        return rc;
    return stored;
}

int32_t nir_write_page(uint16_t page, const uint8_t *data, int32_t length) {
    // The command carries the page number before the data and must fit one
    // NIR command; refusing here keeps length + 3 from overflowing.
    if (data == nullptr || length < 1 || length > kNirMaxCommand - kNirWriteHeadBytes)
        return KAVREL_DIRECT_ERR_INVALID_ARG;
    transfer_buffer<uint8_t> command;
    if (!command.allocate(static_cast<size_t>(length) + kNirWriteHeadBytes))
        return KAVREL_DIRECT_ERR_INVALID_ARG;
    command.data()[0] = kNirFlashPage;
    store_be16(command.data() + 1, page);
    std::memcpy(command.data() + kNirWriteHeadBytes, data, static_cast<size_t>(length));
    return nir_send_command(command.data(), command.bytes(), nullptr, nullptr, 0, kNirFlashQuietMs);
}

int32_t cm2_write_page(uint16_t page, const uint8_t *data, int32_t length) {
    // One write packet carries the whole page; nothing is sent for a page it
    // cannot carry.
    if (length < 0 || length > cm2::kMaxWriteData || (data == nullptr && length > 0))
        return KAVREL_DIRECT_ERR_INVALID_ARG;
    // The instrument refuses page writes while its protection is closed, and
    // opening it again does no harm.
    if (int32_t rc =
            cm2_write(kRegControl, kWriteProtectAddress, kWriteProtectOpen, sizeof kWriteProtectOpen))
        return rc;
    if (int32_t rc = cm2_write(kRegFlashPage, 0, data, static_cast<uint32_t>(length))) return rc;
    // The CRC covers the caller's bytes only, not the padding to a whole word.
    uint8_t block[kCommandBlockBytes];
    put_page_block(block, kWritePage, page, kavrel_direct_crc32(data, length));
    return run_command_block(kFlashHandshake, block);
}

}  // namespace
}  // namespace kavrel

using namespace kavrel;

extern "C" {

KAVREL_DIRECT_API int32_t kavrel_direct_flash_read(uint16_t page, uint8_t *buffer, int32_t length) {
    return device_call([&](device_slot &slot) -> int32_t {
        return speaks_nir(slot) ? nir_read_page(page, buffer, length) : cm2_read_page(page, buffer, length);
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_flash_write(uint16_t page, const uint8_t *data, int32_t length) {
    return device_call([&](device_slot &slot) -> int32_t {
        return speaks_nir(slot) ? nir_write_page(page, data, length) : cm2_write_page(page, data, length);
    });
}

}  // extern "C"
