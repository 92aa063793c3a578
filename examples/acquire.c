/*
 * acquire: the library's main job, from finding an instrument to a spectrum
 * on disk. Read it as a tutorial: every call's result is checked, and each
 * step says why it is there.
 *
 *   acquire [-o FILE] [-t MICROSECONDS] [-a AVERAGES] [DEVICE]
 *
 * DEVICE is a position in the bridge list (0, 1, ...) or a bridge's chip
 * serial; the first bridge by default. The spectrum is written as CSV with
 * the columns wavelength_nm,counts to FILE, or to standard output.
 *
 * Linked to kavrel_direct it drives the instruments on the USB bridges;
 * linked to kavrel_direct_sim it finds the simulated ones.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kavrel_direct.h"

/* One wavelength table or spectrum holds at most 2048 points. */
#define MAX_POINTS 2048

static const char *result_name(int32_t result) {
    switch (result) {
        case KAVREL_DIRECT_OK: return "OK";
        case KAVREL_DIRECT_ERR_GENERIC: return "ERR_GENERIC";
        case KAVREL_DIRECT_ERR_NO_DEVICE: return "ERR_NO_DEVICE";
        case KAVREL_DIRECT_ERR_NOT_OPEN: return "ERR_NOT_OPEN";
        case KAVREL_DIRECT_ERR_IO: return "ERR_IO";
        case KAVREL_DIRECT_ERR_INVALID_ARG: return "ERR_INVALID_ARG";
        case KAVREL_DIRECT_ERR_OPEN_FAILED: return "ERR_OPEN_FAILED";
        case KAVREL_DIRECT_ERR_CRC: return "ERR_CRC";
        case KAVREL_DIRECT_ERR_PARSE: return "ERR_PARSE";
        case KAVREL_DIRECT_ERR_TIMEOUT: return "ERR_TIMEOUT";
        case KAVREL_DIRECT_ERR_WRITE_PROTECT: return "ERR_WRITE_PROTECT";
        case KAVREL_DIRECT_ERR_UNSUPPORTED: return "ERR_UNSUPPORTED";
        default: return "unknown result";
    }
}

/* Every function returns KAVREL_DIRECT_OK or a negative result code. */
static int succeeded(int32_t result, const char *what) {
    if (result == KAVREL_DIRECT_OK) return 1;
    fprintf(stderr, "acquire: %s: %s (%d)\n", what, result_name(result), (int)result);
    return 0;
}

struct options {
    const char *output; /* NULL: standard output */
    const char *device; /* list position or chip serial */
    uint32_t integration_us;
    uint8_t averages;
};

static int parse_number(const char *text, unsigned long max, unsigned long *value) {
    char *end;
    if (text == NULL || *text == '\0') return 0;
    *value = strtoul(text, &end, 10);
    return *end == '\0' && *value <= max;
}

static int parse_options(int argc, char **argv, struct options *o) {
    int i;
    unsigned long value;
    o->output = NULL;
    o->device = "0";
    o->integration_us = 10000;
    o->averages = 4;
    for (i = 1; i < argc; ++i) {
        const char *next = i + 1 < argc ? argv[i + 1] : NULL;
        if (strcmp(argv[i], "-o") == 0 && next != NULL) {
            o->output = argv[++i];
        } else if (strcmp(argv[i], "-t") == 0 && parse_number(next, 0xFFFFFFFFul, &value)) {
            o->integration_us = (uint32_t)value;
            ++i;
        } else if (strcmp(argv[i], "-a") == 0 && parse_number(next, 255, &value) && value > 0) {
            o->averages = (uint8_t)value;
            ++i;
        } else if (argv[i][0] != '-') {
            o->device = argv[i];
        } else {
            return 0;
        }
    }
    return 1;
}

/* Opens the bridge the user named: digits are a list position, anything
 * else a chip serial. Opening settles which protocol the instrument speaks
 * and makes it the active device, on which every later call works. */
static int open_named_device(const char *device) {
    unsigned long index;
    if (parse_number(device, 63, &index))
        return succeeded(kavrel_direct_open_device((int32_t)index), "opening the device");
    return succeeded(kavrel_direct_open_device_by_chip_serial(device), "opening the device");
}

/* kavrel_direct_scan_devices prints the list on standard output. When the
 * CSV goes there, the list is read entry by entry instead. */
static int list_bridges(FILE *messages, int csv_on_stdout) {
    char serial[64];
    int32_t i;
    if (!csv_on_stdout) {
        uint32_t count = kavrel_direct_scan_devices();
        if (count == 0) {
            fprintf(stderr, "acquire: no bridge found\n");
            return 0;
        }
        return 1;
    }
    for (i = 0; kavrel_direct_get_chip_serial_by_index(i, serial, (int32_t)sizeof serial) == KAVREL_DIRECT_OK;
         ++i)
        fprintf(messages, "[%d] (SN: %s)\n", (int)i, serial);
    if (i == 0) fprintf(stderr, "acquire: no bridge found\n");
    return i > 0;
}

static int print_device_info(FILE *messages) {
    kavrel_direct_device_info info;
    if (!succeeded(kavrel_direct_get_device_info(&info), "reading the device information")) return 0;
    /* A field the instrument could not give is an empty text, not a failure. */
    fprintf(messages, "protocol:         %s\n", info.protocol_name);
    fprintf(messages, "model:            %s\n", info.model);
    fprintf(messages, "serial number:    %s\n", info.serial_number);
    fprintf(messages, "hardware version: %s\n", info.hardware_version);
    return 1;
}

static int write_csv(FILE *out, const double *wavelengths, const uint16_t *counts, uint16_t points) {
    uint16_t i;
    if (fprintf(out, "wavelength_nm,counts\n") < 0) return 0;
    for (i = 0; i < points; ++i)
        if (fprintf(out, "%.4f,%u\n", wavelengths[i], (unsigned)counts[i]) < 0) return 0;
    return 1;
}

static int acquire(const struct options *o, FILE *messages) {
    static double wavelengths[MAX_POINTS];
    static uint16_t counts[MAX_POINTS];
    uint16_t points = 0;
    FILE *out;
    int ok;

    if (!print_device_info(messages)) return 0;

    /* The integration time is in microseconds; the instrument averages that
     * many scans into one spectrum. The library sizes its wait for the
     * spectrum from both, so set them before acquiring. */
    if (!succeeded(kavrel_direct_set_integration_time(o->integration_us), "setting the integration time") ||
        !succeeded(kavrel_direct_set_average_number(o->averages), "setting the average number"))
        return 0;

    /* One wavelength per detector point; the spectrum has as many samples. */
    if (!succeeded(kavrel_direct_get_wavelength_count(&points), "reading the point count")) return 0;
    if (points == 0 || points > MAX_POINTS) {
        fprintf(stderr, "acquire: the instrument reports %u points\n", (unsigned)points);
        return 0;
    }
    if (!succeeded(kavrel_direct_get_full_wavelength_data(wavelengths, points), "reading the wavelengths") ||
        !succeeded(kavrel_direct_get_full_spectrum_data(counts, points), "acquiring the spectrum"))
        return 0;

    out = o->output != NULL ? fopen(o->output, "w") : stdout;
    if (out == NULL) {
        fprintf(stderr, "acquire: cannot write %s\n", o->output);
        return 0;
    }
    ok = write_csv(out, wavelengths, counts, points);
    if (out != stdout) ok = fclose(out) == 0 && ok;
    if (!ok) {
        fprintf(stderr, "acquire: writing the CSV failed\n");
        return 0;
    }
    if (o->output != NULL) fprintf(messages, "wrote %u points to %s\n", (unsigned)points, o->output);
    return 1;
}

int main(int argc, char **argv) {
    struct options o;
    FILE *messages;
    int ok;

    if (!parse_options(argc, argv, &o)) {
        fprintf(stderr, "usage: acquire [-o FILE] [-t MICROSECONDS] [-a AVERAGES] [DEVICE]\n");
        return 2;
    }
    /* Messages go where the CSV does not. */
    messages = o.output != NULL ? stdout : stderr;

    if (!list_bridges(messages, o.output == NULL) || !open_named_device(o.device)) return 1;
    ok = acquire(&o, messages);
    /* Closing frees the slot; an instrument left open is not closed when the
     * program ends. */
    kavrel_direct_close_device();
    return ok ? 0 : 1;
}
