// The two exchanges fed arbitrary reply bytes in arbitrary chunks and
// delays. The input is a mode byte, three 32-bit arguments, then the reply
// stream of fuzz_bridge.h.
#include "fuzz_bridge.h"
#include "kavrel_direct.h"
#include "transport/cm2_exchange.h"
#include "transport/device_table.h"
#include "transport/nir_exchange.h"

using namespace kavrel;
using namespace kavrel::fuzz;

namespace {

// The result and the outputs of one exchange: on failure the answer is as
// it was (and its length too, unless it may say 0); on success no more than
// the capacity was reported.
void check(int32_t rc, const Output<uint8_t> &answer, int32_t length, int32_t capacity,
           std::initializer_list<int32_t> allowed, int32_t length_on_failure = -1) {
    bool known = false;
    for (int32_t code : allowed) known = known || rc == code;
    require(known);
    if (rc != KAVREL_DIRECT_OK) {
        require(answer.untouched() && (length == -1 || length == length_on_failure));
    } else {
        require(length >= 0 && length <= capacity);
    }
}

void cm2_exchange(uint8_t mode, uint32_t a, uint32_t b, uint32_t c) {
    const bool query = (mode & 2) != 0;
    const uint32_t length = query ? (b & 0xFFFF) : static_cast<uint32_t>(size_arg(b, 2100));
    const int32_t capacity = size_arg(c, 20000);
    const Output<uint8_t> data(query ? 0 : room(static_cast<int32_t>(length < 4096 ? length : 0)));
    const Output<uint8_t> answer(room(capacity));
    int32_t answer_length = -1;
    const int32_t rc =
        send_and_recv(static_cast<uint8_t>(a >> 24), a & 0xFFFFFF, length < 4096 ? data.get() : nullptr,
                      length, answer.get(), &answer_length, query, capacity);
    check(rc, answer, answer_length, capacity < 0 ? 0 : capacity,
          {0, KAVREL_DIRECT_ERR_IO, KAVREL_DIRECT_ERR_INVALID_ARG, KAVREL_DIRECT_ERR_CRC,
           KAVREL_DIRECT_ERR_PARSE, KAVREL_DIRECT_ERR_TIMEOUT, KAVREL_DIRECT_ERR_WRITE_PROTECT});
    // A write within one request buffer and a sane capacity are never refused.
    if (!query && length <= 2016 && capacity >= 0) require(rc != KAVREL_DIRECT_ERR_INVALID_ARG);
}

void nir_exchange(FuzzBridge &bridge, uint8_t mode, uint32_t b, uint32_t c) {
    const int32_t capacity = size_arg(c, 20000);
    const uint32_t quiet = b >> 16;  // up to about a minute
    const Output<uint8_t> answer(room(capacity));
    int32_t length = -1;
    int32_t rc;
    if ((mode & 2) != 0) {
        // Bytes the instrument sends unasked, collected until the line is quiet.
        bridge.send_unasked(0);
        rc = nir_read_available(answer.get(), capacity, &length, quiet);
        check(rc, answer, length, capacity, {0, KAVREL_DIRECT_ERR_IO, KAVREL_DIRECT_ERR_TIMEOUT}, 0);
        require(rc != 0 || length > 0);
        return;
    }
    const int32_t command_length = size_arg(b & 0x8000FFFFu, 20000);
    const Output<uint8_t> command(room(command_length));
    rc = nir_send_command(command.get(), command_length, answer.get(), &length, capacity, quiet);
    check(rc, answer, length, capacity < 0 ? 0 : capacity,
          {0, KAVREL_DIRECT_ERR_IO, KAVREL_DIRECT_ERR_INVALID_ARG, KAVREL_DIRECT_ERR_CRC,
           KAVREL_DIRECT_ERR_TIMEOUT});
    require((rc == KAVREL_DIRECT_ERR_INVALID_ARG) == (command_length < 1 || command_length > 8190));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input in(data, size);
    const uint8_t mode = in.byte();
    const uint32_t a = in.be32(), b = in.be32(), c = in.be32();
    const bool nir = (mode & 1) != 0;
    FuzzBridge bridge(1, in);
    kavrel_direct_set_protocol_preference(nir ? KAVREL_DIRECT_PROTOCOL_NIR : KAVREL_DIRECT_PROTOCOL_CM2);
    require(kavrel_direct_open_device(0) == KAVREL_DIRECT_OK);
    OperationScope operation(g_devices[g_active_index]);
    if (nir)
        nir_exchange(bridge, mode, b, c);
    else
        cm2_exchange(mode, a, b, c);
    return 0;
}
