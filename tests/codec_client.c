/* A C99 application that includes only the public header and links the
 * shared library, as users do: without a bridge driver on the machine the
 * library loads, lists nothing and refuses to open. It prints what the codec
 * makes of a few CM2 packets; the Windows build's output must equal the
 * Linux build's byte for byte, so that the diagnostics read the same on
 * every platform. On Windows stdout is switched to binary mode: text mode
 * would turn every "\n" into "\r\n", and the comparison is of the bytes the
 * library prints, not of the platform's line endings. */
#include <stdio.h>
#include <string.h>

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#endif

#include "kavrel_direct.h"
#include "support/c_check.h"

#define DATA_BYTES 40
#define PACKET_BYTES (28 + DATA_BYTES + 4)

/* A data reply from the spectrum register as an instrument sends it: the
 * preamble, the 20-byte header, the data words and the CRC-32 over all but
 * the preamble. */
static void build_reply(uint8_t *packet) {
    static const uint8_t head[28] = {0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAB, 0x10, 0x00,
                                     0x02, 0x00, 0x01, 0xE0, 0x07, 0x00, DATA_BYTES / 4, 0x00,
                                     DATA_BYTES / 4, 1, 1, 0xC6, 0x01, 0x23, 0x45, 0x00, 0x00, 0xAC};
    uint32_t crc;
    int i;
    memcpy(packet, head, sizeof head);
    for (i = 0; i < DATA_BYTES; ++i) packet[28 + i] = (uint8_t)(i * 7 + 3);
    crc = kavrel_direct_crc32(packet + 8, PACKET_BYTES - 12);
    for (i = 0; i < 4; ++i) packet[PACKET_BYTES - 4 + i] = (uint8_t)(crc >> (24 - 8 * i));
}

static cm2_packet parsed;

static int show(const char *title, const uint8_t *packet, int32_t length) {
    int32_t result = kavrel_direct_parse_response(packet, length, &parsed);
    printf("== %s: parse %d, preamble_ok %d, crc_ok %d\n", title, (int)result, (int)parsed.preamble_ok,
           (int)parsed.crc_ok);
    printf("raw:   ");
    kavrel_direct_dump_hex(packet, length);
    kavrel_direct_print_parsed(&parsed);
    return (int)result;
}

int main(void) {
    const uint8_t digits[] = "123456789";
    uint8_t packet[PACKET_BYTES];

#ifdef _WIN32
    _setmode(_fileno(stdout), _O_BINARY);
#endif
    /* No bridge driver here: nothing is listed and nothing opens. */
    CHECK(kavrel_direct_scan_devices() == 0u);
    CHECK(kavrel_direct_open_device(0) == KAVREL_DIRECT_ERR_NO_DEVICE);
    CHECK(kavrel_direct_is_open() == 0);

    /* The standard check value of the reflected CRC-32. */
    CHECK(kavrel_direct_crc32(digits, 9) == 0xCBF43926u);
    printf("service 0x0D: %s\n", kavrel_direct_srv_name(0x0D));
    printf("reply 0xE3: %s\n", kavrel_direct_ans_reply_name(0xE3));
    build_reply(packet);
    CHECK(show("spectrum reply", packet, PACKET_BYTES) == 0);
    packet[30] ^= 0x01;
    CHECK(show("one data bit flipped", packet, PACKET_BYTES) == 0 && parsed.crc_ok == 0);
    packet[3] = 0x55;
    CHECK(show("wrong preamble", packet, PACKET_BYTES) == -1);

    fflush(stdout);
    if (g_failures != 0) fprintf(stderr, "codec client: %d checks failed\n", g_failures);
    return g_failures == 0 ? 0 : 1;
}
