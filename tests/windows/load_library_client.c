/* A Windows application that uses the DLL the way programs in other
 * languages do: LoadLibrary, then GetProcAddress for every exported name,
 * with no import library. Every listed name must resolve under its plain C
 * name, and names that the library keeps internal must not.
 *
 * It runs where no vendor driver (FTD2XX.dll) can be found: the DLL must
 * still load, list no bridge, refuse to open and answer as an empty device
 * table. The header is included for the result codes only. */
#include <stdio.h>

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include "kavrel_direct.h"
#include "kavrel_export_names.h"
#include "support/c_check.h"

typedef uint32_t (*count_fn)(void);
typedef int32_t (*query_fn)(void);
typedef int32_t (*index_fn)(int32_t);
typedef int32_t (*protocol_fn)(uint32_t *);
typedef void (*action_fn)(void);

static HMODULE g_dll;
/* GetProcAddress hands back a generic FARPROC; going through void (*)(void)
 * lets the cast to each real prototype pass -Wcast-function-type. */
static action_fn resolve(const char *name) {
    return (action_fn)GetProcAddress(g_dll, name);
}

static void check_every_name_resolves(void) {
    /* External linkage inside the library but not part of its interface. */
    static const char *const internal[] = {"kavrel_direct_send_recv", "kavrel_direct_print_cmd_info",
                                           "kavrel_direct_build_query", "kavrel_direct_build_write"};
    const size_t count = sizeof kavrel_export_names / sizeof kavrel_export_names[0];
    size_t i;
    for (i = 0; i < count; ++i) {
        if (resolve(kavrel_export_names[i]) == NULL) {
            fprintf(stderr, "not exported: %s\n", kavrel_export_names[i]);
            ++g_failures;
        }
    }
    for (i = 0; i < sizeof internal / sizeof internal[0]; ++i) {
        if (resolve(internal[i]) != NULL) {
            fprintf(stderr, "exported but internal: %s\n", internal[i]);
            ++g_failures;
        }
    }
    printf("%u exported names resolved\n", (unsigned)count);
}

/* Without a driver nothing is listed or opened, and the table is empty. */
static void check_without_driver(void) {
    const count_fn scan_devices = (count_fn)resolve("kavrel_direct_scan_devices");
    const index_fn open_device = (index_fn)resolve("kavrel_direct_open_device");
    const query_fn is_open = (query_fn)resolve("kavrel_direct_is_open");
    const query_fn open_device_count = (query_fn)resolve("kavrel_direct_get_open_device_count");
    const index_fn select_device = (index_fn)resolve("kavrel_direct_select_device");
    const protocol_fn get_device_protocol = (protocol_fn)resolve("kavrel_direct_get_device_protocol");
    const action_fn close_device = resolve("kavrel_direct_close_device");
    const action_fn close_all_devices = resolve("kavrel_direct_close_all_devices");
    uint32_t protocol = 77;
    int round;

    if (!scan_devices || !open_device || !is_open || !open_device_count || !select_device ||
        !get_device_protocol || !close_device || !close_all_devices) {
        fprintf(stderr, "device functions missing\n");
        ++g_failures;
        return;
    }
    CHECK(GetModuleHandleA("FTD2XX.dll") == NULL);
    CHECK(scan_devices() == 0);
    CHECK(open_device(0) == KAVREL_DIRECT_ERR_NO_DEVICE);
    /* Closing an empty table changes nothing: the same answers again. */
    for (round = 0; round < 2; ++round) {
        CHECK(is_open() == 0);
        CHECK(open_device_count() == 0);
        CHECK(select_device(0) == KAVREL_DIRECT_ERR_NOT_OPEN);
        CHECK(select_device(4) == KAVREL_DIRECT_ERR_INVALID_ARG);
        CHECK(get_device_protocol(&protocol) == KAVREL_DIRECT_ERR_NOT_OPEN);
        CHECK(protocol == 77);
        close_device();
        close_all_devices();
    }
}

int main(void) {
    g_dll = LoadLibraryA("kavrel_direct.dll");
    if (g_dll == NULL) {
        fprintf(stderr, "LoadLibrary(kavrel_direct.dll) failed: error %lu\n", (unsigned long)GetLastError());
        return 1;
    }
    check_every_name_resolves();
    check_without_driver();
    CHECK(FreeLibrary(g_dll) != 0);

    if (g_failures == 0) printf("load_library_client: all checks passed\n");
    return g_failures == 0 ? 0 : 1;
}
