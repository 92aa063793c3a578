/* An application with a bridge driver on its library search path: the
 * stand-in FTD2XX.dll of the folder fake_driver beside the program, named
 * with SetDllDirectory on Windows; on Linux the stand-in libftd2xx.so of
 * the folder the test names in LD_LIBRARY_PATH. The library must find the
 * driver through the normal
 * search on first use, list its bridges from FT_DEVICE_LIST_INFO_NODE
 * records, configure a bridge in the D2XX order when opening it, settle the
 * CM2 protocol from the instrument's answer and close the handles it
 * opened, passing every argument through the driver's WINAPI calls intact. */
#include <stdio.h>
#include <string.h>

#include "kavrel_direct.h"
#include "support/c_check.h"

#ifdef _WIN32
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

typedef const char *(WINAPI *log_fn)(void);

static int use_fake_driver(void) {
    char path[MAX_PATH];
    const DWORD length = GetModuleFileNameA(NULL, path, sizeof path);
    char *slash = strrchr(path, '\\');
    if (length == 0 || length >= sizeof path || slash == NULL) return 0;
    if ((size_t)(slash + 1 - path) + sizeof "fake_driver" > sizeof path) return 0;
    strcpy(slash + 1, "fake_driver");
    return SetDllDirectoryA(path) != 0;
}

/* The calls the driver has seen so far, or "" while it is not loaded. */
static const char *driver_log(void) {
    const HMODULE driver = GetModuleHandleA("FTD2XX.dll");
    log_fn log = NULL;
    if (driver != NULL) log = (log_fn)(void (*)(void))GetProcAddress(driver, "fake_ftd2xx_log");
    return log != NULL ? log() : "";
}

static int driver_loaded(void) {
    return GetModuleHandleA("FTD2XX.dll") != NULL;
}

#else
#include <dlfcn.h>

typedef const char *(*log_fn)(void);

static int use_fake_driver(void) {
    return 1;
}

/* The driver as the library loaded it; null while it is not loaded. */
static void *loaded_driver(void) {
    return dlopen("libftd2xx.so", RTLD_LAZY | RTLD_NOLOAD);
}

static const char *driver_log(void) {
    void *driver = loaded_driver();
    const char *log = "";
    if (driver != NULL) {
        void *symbol = dlsym(driver, "fake_ftd2xx_log");
        log_fn function = NULL;
        /* An object pointer to a function pointer, as POSIX allows. */
        if (symbol != NULL) memcpy(&function, &symbol, sizeof function);
        if (function != NULL) log = function();
        dlclose(driver);
    }
    return log;
}

static int driver_loaded(void) {
    void *driver = loaded_driver();
    if (driver != NULL) dlclose(driver);
    return driver != NULL;
}
#endif

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
    if (strcmp(actual, expected) != 0) {
        fprintf(stderr, "driver calls differ\n  expected: %s\n  actual:   %s\n", expected, actual);
        ++g_failures;
    }
}

int main(void) {
    char expected[2048] = "";
    char serial[16];
    uint32_t protocol = 0;
    uint32_t capabilities = 0;

    if (!use_fake_driver()) {
        fprintf(stderr, "cannot name the stand-in driver's folder\n");
        return 1;
    }
    CHECK(!driver_loaded());
    /* Prints "[0] Fake Bridge A (SN: FK000001)" and "[1] ...", which the
     * test's pass expression looks for. */
    CHECK(kavrel_direct_scan_devices() == 2u);
    CHECK(kavrel_direct_get_chip_serial_by_index(1, serial, sizeof serial) == KAVREL_DIRECT_OK);
    CHECK(strcmp(serial, "FK000002") == 0);
    check_log("");

    CHECK(kavrel_direct_open_device(0) == KAVREL_DIRECT_OK);
    CHECK(kavrel_direct_get_device_protocol(&protocol) == KAVREL_DIRECT_OK);
    CHECK(protocol == KAVREL_DIRECT_PROTOCOL_CM2);
    CHECK(kavrel_direct_get_capabilities(&capabilities) == KAVREL_DIRECT_OK);
    CHECK(capabilities == KAVREL_DIRECT_CAPABILITIES_CM2);
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
