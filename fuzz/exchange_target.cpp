// The two exchanges fed arbitrary reply bytes in arbitrary chunks and
// delays. The input is a mode byte (bit 0: NIR; bit 1: a CM2 query, or
// collecting what an NIR instrument sends unasked), three 32-bit arguments,
// then the reply stream of fuzz_bridge.h.
#include "fuzz_bridge.h"
#include "kavrel_direct.h"
#include "transport/cm2_exchange.h"
#include "transport/device_table.h"
#include "transport/nir_exchange.h"

using namespace kavrel;
using namespace kavrel::fuzz;

namespace {

// The result, one of those allowed, and the outputs of one exchange: on
// failure the answer is as it was (and its length too, unless it may say 0);
// on success no more than the capacity was reported.
void check(int32_t rc, std::initializer_list<int32_t> allowed, const Output<uint8_t> &answer, int32_t length,
           int32_t capacity, int32_t length_on_failure = -1) {
    require(std::find(allowed.begin(), allowed.end(), rc) != allowed.end());
    if (rc != KAVREL_DIRECT_OK)
        require(answer.untouched() && (length == -1 || length == length_on_failure));
    else
        require(length >= 0 && length <= capacity);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input in{data, size};
    const uint8_t mode = in.byte();
    const uint32_t a = in.be(4), b = in.be(4), c = in.be(4);
    const bool nir = (mode & 1) != 0, second_kind = (mode & 2) != 0;
    FuzzBridge bridge(1, in);
    kavrel_direct_set_protocol_preference(nir ? KAVREL_DIRECT_PROTOCOL_NIR : KAVREL_DIRECT_PROTOCOL_CM2);
    require(kavrel_direct_open_device(0) == KAVREL_DIRECT_OK);
    OperationScope operation(g_devices[g_active_index]);
    const int32_t capacity = size_arg(c, 20000);
    const Output<uint8_t> answer(room(capacity));
    int32_t length = -1;
    const uint32_t quiet = b >> 16;  // up to about a minute
    if (nir && second_kind) {
        // Bytes the instrument sends unasked, collected until the line is quiet.
        bridge.send_unasked(0);
        const int32_t rc = nir_read_available(answer.get(), capacity, &length, quiet);
        check(rc, {0, KAVREL_DIRECT_ERR_IO, KAVREL_DIRECT_ERR_TIMEOUT}, answer, length, capacity, 0);
        require(rc != 0 || length > 0);
    } else if (nir) {
        const int32_t command_length = size_arg(b & 0x8000FFFFu, 20000);
        const Output<uint8_t> command(room(command_length));
        const int32_t rc =
            nir_send_command(command.get(), command_length, answer.get(), &length, capacity, quiet);
        check(rc,
              {0, KAVREL_DIRECT_ERR_IO, KAVREL_DIRECT_ERR_INVALID_ARG, KAVREL_DIRECT_ERR_CRC,
               KAVREL_DIRECT_ERR_TIMEOUT},
              answer, length, std::max(capacity, 0));
        require((rc == KAVREL_DIRECT_ERR_INVALID_ARG) == (command_length < 1 || command_length > 8190));
    } else {
        const uint32_t data_length = second_kind ? (b & 0xFFFF) : static_cast<uint32_t>(size_arg(b, 2100));
        const bool fits = data_length < 4096;
        const Output<uint8_t> request_data(second_kind || !fits ? 0 : data_length);
        const int32_t rc =
            send_and_recv(static_cast<uint8_t>(a >> 24), a & 0xFFFFFF, fits ? request_data.get() : nullptr,
                          data_length, answer.get(), &length, second_kind, capacity);
        check(rc,
              {0, KAVREL_DIRECT_ERR_IO, KAVREL_DIRECT_ERR_INVALID_ARG, KAVREL_DIRECT_ERR_CRC,
               KAVREL_DIRECT_ERR_PARSE, KAVREL_DIRECT_ERR_TIMEOUT, KAVREL_DIRECT_ERR_WRITE_PROTECT},
              answer, length, std::max(capacity, 0));
        // A write within one request buffer and a sane capacity are never refused.
        if (!second_kind && data_length <= 2016 && capacity >= 0)
            require(rc != KAVREL_DIRECT_ERR_INVALID_ARG);
    }
    return 0;
}
