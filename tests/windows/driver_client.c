/* An application with a bridge driver on its library search path: the
 * stand-in FTD2XX.dll in its current folder on Windows (the test runs it in
 * the folder fake_driver), the stand-in libftd2xx.so of the folder the test
 * names in LD_LIBRARY_PATH on Linux. The library must find the driver
 * through the normal search on first use, list its bridges from
 * FT_DEVICE_LIST_INFO_NODE records, configure a bridge in the D2XX order
 * when opening it, settle the CM2 protocol from the instrument's answer and
 * close the handles it opened, passing every argument through the driver's
 * WINAPI calls intact. */
#include <stdio.h>
#include <string.h>

#include "kavrel_direct.h"
#include "support/c_check.h"

#ifdef _WIN32
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

static void *driver_symbol(const char *name) {
    const HMODULE driver = GetModuleHandleA("FTD2XX.dll");
    const FARPROC function = driver != NULL ? GetProcAddress(driver, name) : NULL;
    void *symbol;
    memcpy(&symbol, &function, sizeof symbol);
    return symbol;
}
#else
#include <dlfcn.h>

static void *driver_symbol(const char *name) {
    void *driver = dlopen("libftd2xx.so", RTLD_LAZY | RTLD_NOLOAD);
    void *symbol = driver != NULL ? dlsym(driver, name) : NULL;
    if (driver != NULL) dlclose(driver); /* the library keeps it loaded */
    return symbol;
}
#endif

/* The calls the driver has seen so far, or NULL while it is not loaded. */
static const char *driver_log(void) {
    void *symbol = driver_symbol("fake_ftd2xx_log");
    const char *(*log)(void) = NULL;
    /* An object pointer to a function pointer, as POSIX allows. */
    memcpy(&log, &symbol, sizeof log);
    return log != NULL ? log() : NULL;
}

/* Opening bridge i: open, the 5000 ms limits, latency 1 ms, 64 KiB USB
 * transfers, both buffers purged, a reset; then the CM2 probe: purge, the
 * 32-byte query, the 200 ms read limit, the default limits again. */
static void append_opening(char *log, size_t size, int i) {
    const size_t used = strlen(log);
    snprintf(log + used, size - used,
             "open %d;timeouts %d 5000 5000;latency %d 1;usb %d 65536 65536;purge %d 3;reset %d;"
             "purge %d 3;write %d 32;timeouts %d 200 5000;timeouts %d 5000 5000;",
             i, i, i, i, i, i, i, i, i, i);
}

static void check_log(const char *expected) {
    const char *actual = driver_log();
    if (actual == NULL || strcmp(actual, expected) != 0) {
        fprintf(stderr, "driver calls differ\n  expected: %s\n  actual:   %s\n", expected,
                actual != NULL ? actual : "(not loaded)");
        ++g_failures;
    }
}

int main(void) {
    char expected[2048] = "";
    char serial[16];
    uint32_t protocol = 0;

    CHECK(driver_log() == NULL);
    /* Prints "[0] Fake Bridge A (SN: FK000001)" and "[1] ...", which the
     * test's pass expression looks for. */
    CHECK(kavrel_direct_scan_devices() == 2u);
    CHECK(kavrel_direct_get_chip_serial_by_index(1, serial, sizeof serial) == KAVREL_DIRECT_OK);
    CHECK(strcmp(serial, "FK000002") == 0);
    check_log("");

    CHECK(kavrel_direct_open_device(0) == KAVREL_DIRECT_OK);
    CHECK(kavrel_direct_get_device_protocol(&protocol) == KAVREL_DIRECT_OK);
    CHECK(protocol == KAVREL_DIRECT_PROTOCOL_CM2);
    append_opening(expected, sizeof expected, 0);
    check_log(expected);

    CHECK(kavrel_direct_open_device_by_chip_serial("FK000002") == KAVREL_DIRECT_OK);
    CHECK(kavrel_direct_get_open_device_count() == 2);
    append_opening(expected, sizeof expected, 1);
    check_log(expected);

    CHECK(kavrel_direct_select_device(0) == KAVREL_DIRECT_OK);
    kavrel_direct_close_device();
    kavrel_direct_close_all_devices();
    CHECK(kavrel_direct_get_open_device_count() == 0);
    strcat(expected, "close 0;close 1;");
    check_log(expected);

    fflush(stdout);
    if (g_failures == 0) printf("driver_client: all checks passed\n");
    return g_failures == 0 ? 0 : 1;
}
