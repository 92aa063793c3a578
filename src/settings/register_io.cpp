#include "settings/register_io.h"

#include <cstring>

#include "kavrel_direct.h"
#include "protocol/byte_order.h"
#include "transport/device_call.h"
#include "transport/nir_exchange.h"

namespace kavrel::settings {

int32_t read_register(const Register &r, uint8_t *answer) {
    int32_t length = 0;
    if (int32_t rc = cm2_query(r.reg, r.address, r.words, answer, r.bytes(), &length)) return rc;
    return length < r.bytes() ? KAVREL_DIRECT_ERR_IO : KAVREL_DIRECT_OK;
}

int32_t read_cm2_only(const device_slot &slot, const Register &r, uint8_t *answer) {
    if (int32_t rc = require_cm2(slot)) return rc;
    return read_register(r, answer);
}

int32_t read_nir(const NirQuery &q, uint8_t *answer, int32_t &length) {
    int32_t received = 0;
    if (int32_t rc =
            nir_send_command(q.command, q.command_length, answer, &received, q.capacity, kNirQueryQuietMs))
        return rc;
    if (received < q.minimum) return KAVREL_DIRECT_ERR_IO;
    length = received;
    return KAVREL_DIRECT_OK;
}

int32_t read_setting(const device_slot &slot, const Register &r, const NirQuery &q, uint8_t *answer,
                     int32_t &length) {
    if (speaks_nir(slot)) return read_nir(q, answer, length);
    if (int32_t rc = read_register(r, answer)) return rc;
    length = r.bytes();
    return KAVREL_DIRECT_OK;
}

int32_t write_register(const Register &r, const uint8_t *data, uint32_t length) {
    return cm2_write(r.reg, r.address, data, length);
}

int32_t write_word(const Register &r, uint32_t value) {
    uint8_t data[4];
    store_be32(data, value);
    return write_register(r, data, sizeof data);
}

int32_t write_byte(const Register &r, uint8_t value) {
    const uint8_t data[4] = {0, 0, 0, value};
    return write_register(r, data, sizeof data);
}

int32_t send_nir(std::initializer_list<uint8_t> command, uint32_t quiet_ms) {
    return nir_send_command(command.begin(), static_cast<int32_t>(command.size()), nullptr, nullptr, 0,
                            quiet_ms);
}

void copy_text(char *buffer, int32_t size, const uint8_t *text, int32_t n) {
    const int32_t copied = n < size - 1 ? n : size - 1;
    if (copied > 0) std::memcpy(buffer, text, static_cast<size_t>(copied));
    buffer[copied > 0 ? copied : 0] = '\0';
}

}  // namespace kavrel::settings
