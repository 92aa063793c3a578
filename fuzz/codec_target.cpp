// The packet parser and the trace printers on arbitrary bytes: whatever a
// cable delivers, and whatever an application hands over as a record.
#include <cstring>
#include <memory>

#include "fuzz_bridge.h"
#include "kavrel_direct.h"
#include "protocol/cm2_codec.h"

using namespace kavrel;
using namespace kavrel::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // The bytes in a heap block of their own size, and the length as the
    // caller would give it: lengths past the record's room must be refused.
    const std::unique_ptr<uint8_t[]> bytes(new uint8_t[size]);
    if (size > 0) std::memcpy(bytes.get(), data, size);
    const auto length = static_cast<int32_t>(size);

    const auto parsed = std::make_unique<cm2_packet>();
    const int32_t rc = kavrel_direct_parse_response(bytes.get(), length, parsed.get());
    require(rc == 0 || rc == -1);
    require(rc != 0 || (parsed->preamble_ok == 1 && parsed->raw_len == length));
    require(parsed->data_size >= 0 && parsed->data_size <= KAVREL_DIRECT_CM2_MAX_DATA);
    require(parsed->crc_ok == 0 || parsed->crc_ok == 1);
    kavrel_direct_print_parsed(parsed.get());
    kavrel_direct_dump_hex(bytes.get(), length);
    kavrel_direct_crc32(bytes.get(), length);
    if (size > 0) {
        require(kavrel_direct_srv_name(data[0]) != nullptr);
        require(kavrel_direct_ans_reply_name(data[size - 1]) != nullptr);
        // A request and its reply, split where the first byte says.
        const int32_t sent = data[0] % length;
        kavrel_direct_print_cmd_info("fuzz", bytes.get(), sent, bytes.get() + sent, length - sent);
        // A record the application filled itself: every field after the raw
        // bytes from the input, over and over.
        auto *record = reinterpret_cast<uint8_t *>(parsed.get());
        for (size_t i = KAVREL_DIRECT_CM2_MAX_PACKET; i < sizeof(cm2_packet); ++i) record[i] = data[i % size];
        kavrel_direct_print_parsed(parsed.get());
    }
    return 0;
}
