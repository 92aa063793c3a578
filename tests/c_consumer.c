/* A C99 application that includes only the public header and links the
 * shared library. Without a bridge driver on the machine the library must
 * load, list nothing and refuse to open, and its pure functions must work. */
#include <stdio.h>
#include <string.h>

#include "kavrel_direct.h"
#include "support/c_check.h"

int main(void) {
    const uint8_t digits[] = "123456789";
    cm2_packet *packet;
    static cm2_packet storage;
    char serial[16];
    uint32_t protocol = 0;
    kavrel_direct_device_info info;

    CHECK(kavrel_direct_crc32(digits, 9) == 0xCBF43926u);
    CHECK(strcmp(kavrel_direct_srv_name(0x0D), "Read Memory (Query)") == 0);
    CHECK(sizeof info == 168);

    packet = &storage;
    CHECK(kavrel_direct_parse_response(digits, 9, packet) == -1);
    CHECK(packet->raw_len == 0);

    /* No bridge driver here: nothing is listed and nothing opens. */
    CHECK(kavrel_direct_scan_devices() == 0u);
    CHECK(kavrel_direct_open_device(0) == KAVREL_DIRECT_ERR_NO_DEVICE);
    CHECK(kavrel_direct_open_device(-1) == KAVREL_DIRECT_ERR_INVALID_ARG);
    CHECK(kavrel_direct_get_chip_serial_by_index(0, serial, sizeof serial) == KAVREL_DIRECT_ERR_NO_DEVICE);
    CHECK(kavrel_direct_is_open() == 0);
    CHECK(kavrel_direct_get_open_device_count() == 0);
    CHECK(kavrel_direct_get_device_protocol(&protocol) == KAVREL_DIRECT_ERR_NOT_OPEN);
    CHECK(kavrel_direct_select_device(4) == KAVREL_DIRECT_ERR_INVALID_ARG);
    CHECK(kavrel_direct_select_device(0) == KAVREL_DIRECT_ERR_NOT_OPEN);
    kavrel_direct_close_device();
    kavrel_direct_close_all_devices();

    if (g_failures == 0) puts("c consumer: all checks passed");
    return g_failures == 0 ? 0 : 1;
}
