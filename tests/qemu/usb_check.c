/* An application that drives every attached instrument through the public
 * header only: open, settle the protocol, read the device information, the
 * wavelength table and a spectrum, change a setting and read it back.
 *
 * It prints one "report:" line per fact, instruments in chip-serial order.
 * The end-to-end test runs it inside a QEMU guest, where the instruments sit
 * behind emulated FTDI chips on a real USB stack, and on the host against the
 * simulated instruments directly; the two reports must be the same. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kavrel_direct.h"

#define MAX_BRIDGES 8

static int compare(const void *a, const void *b) {
    return strcmp((const char *)a, (const char *)b);
}

static void report_instrument(const char *chip) {
    kavrel_direct_device_info info;
    uint32_t protocol = 0, micros = 0, sum = 0, weighted = 0;
    uint16_t count = 0;
    static double wavelengths[4096];
    static uint16_t samples[4096];
    double wavelength_sum = 0;
    int32_t i, n;

    printf("report: %s open %d\n", chip, (int)kavrel_direct_open_device_by_chip_serial(chip));
    kavrel_direct_get_device_protocol(&protocol);
    printf("report: %s protocol %u\n", chip, (unsigned)protocol);
    /* A failure shows as empty texts. */
    if (kavrel_direct_get_device_info(&info) != KAVREL_DIRECT_OK) memset(&info, 0, sizeof info);
    printf("report: %s info %s model=%s serial=%s hardware=%s\n", chip, info.protocol_name, info.model,
           info.serial_number, info.hardware_version);

    if (kavrel_direct_get_wavelength_count(&count) != KAVREL_DIRECT_OK || count > 4096) count = 0;
    n = kavrel_direct_get_full_wavelength_data(wavelengths, 4096);
    for (i = 0; n == KAVREL_DIRECT_OK && i < count; ++i) wavelength_sum += wavelengths[i];
    printf("report: %s wavelengths %d count %u first %.4f last %.4f sum %.4f\n", chip, (int)n,
           (unsigned)count, wavelengths[0], wavelengths[count > 0 ? count - 1 : 0], wavelength_sum);

    n = kavrel_direct_set_integration_time(20000);
    printf("report: %s set integration time %d", chip, (int)n);
    n = kavrel_direct_get_integration_time(&micros);
    printf(" read back %d %u\n", (int)n, (unsigned)micros);

    /* The simulated noise is seeded, so every sample is known: a sum and a
     * position-weighted sum catch a lost, doubled or shifted byte. */
    n = kavrel_direct_get_full_spectrum_data(samples, 4096);
    for (i = 0; n == KAVREL_DIRECT_OK && i < count; ++i) {
        sum += samples[i];
        weighted += (uint32_t)(i + 1) * samples[i];
    }
    printf("report: %s spectrum %d points %u sum %u weighted %u\n", chip, (int)n, (unsigned)count,
           (unsigned)sum, (unsigned)weighted);
}

int main(void) {
    char chips[MAX_BRIDGES][64];
    uint32_t listed = kavrel_direct_scan_devices();
    int32_t i, count = listed < MAX_BRIDGES ? (int32_t)listed : MAX_BRIDGES;

    printf("report: bridges %u\n", (unsigned)listed);
    for (i = 0; i < count; ++i)
        if (kavrel_direct_get_chip_serial_by_index(i, chips[i], sizeof chips[i]) != KAVREL_DIRECT_OK)
            chips[i][0] = 0;
    qsort(chips, (size_t)count, sizeof chips[0], compare);
    for (i = 0; i < count; ++i) report_instrument(chips[i]);
    kavrel_direct_close_all_devices();
    printf("report: open after closing %d\n", (int)kavrel_direct_get_open_device_count());

    /* With KAVREL_UNPLUG naming a bridge, the test unplugs it while the
     * instrument is open and in use: calls must then fail, not hang. */
    if (getenv("KAVREL_UNPLUG") != NULL) {
        const char *chip = getenv("KAVREL_UNPLUG");
        uint32_t micros = 0;
        int32_t result = kavrel_direct_open_device_by_chip_serial(chip), tries = 0;
        printf("guest: unplug %s now\n", chip);
        fflush(stdout);
        while (result == KAVREL_DIRECT_OK && ++tries < 100)
            result = kavrel_direct_get_integration_time(&micros);
        printf("unplugged: %s gives %d\n", chip, (int)result);
        kavrel_direct_close_all_devices();
    }
    return 0;
}
