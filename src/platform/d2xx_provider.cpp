// The vendor's D2XX driver, loaded at run time on first use through the
// platform's normal library search, so that an application can put another
// D2XX-compatible library first on its search path. When no driver can be
// loaded every call behaves as the null provider: listing finds nothing and
// opening fails, and nothing crashes.
//
// Calls reach this file only under the library's API lock, so the lazy load
// needs no lock of its own.
#include <cstring>
#include <vector>

#include "platform/platform.h"

#ifdef _WIN32
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
#define D2XX_CALL WINAPI
#else
#include <dlfcn.h>
#define D2XX_CALL
#endif

namespace kavrel::platform {
namespace {

// The vendor's published types: FT_STATUS, ULONG and DWORD are 32-bit on
// every platform (on Windows ULONG is a 32-bit unsigned long).
#ifdef _WIN32
using FT_STATUS = ULONG;
using FT_ULONG = ULONG;
using FT_DWORD = DWORD;
#else
using FT_STATUS = uint32_t;
using FT_ULONG = uint32_t;
using FT_DWORD = uint32_t;
#endif
using FT_HANDLE = void *;

struct FT_DEVICE_LIST_INFO_NODE {
    FT_ULONG Flags;
    FT_ULONG Type;
    FT_ULONG ID;
    FT_DWORD LocId;
    char SerialNumber[16];
    char Description[64];
    FT_HANDLE ftHandle;
};

struct D2xx {
    bool tried = false;
    bool loaded = false;
    FT_STATUS(D2XX_CALL *CreateDeviceInfoList)(FT_DWORD *) = nullptr;
    FT_STATUS(D2XX_CALL *GetDeviceInfoList)(FT_DEVICE_LIST_INFO_NODE *, FT_DWORD *) = nullptr;
    FT_STATUS(D2XX_CALL *Open)(int, FT_HANDLE *) = nullptr;
    FT_STATUS(D2XX_CALL *Close)(FT_HANDLE) = nullptr;
    FT_STATUS(D2XX_CALL *SetTimeouts)(FT_HANDLE, FT_ULONG, FT_ULONG) = nullptr;
    FT_STATUS(D2XX_CALL *SetLatencyTimer)(FT_HANDLE, unsigned char) = nullptr;
    FT_STATUS(D2XX_CALL *SetUSBParameters)(FT_HANDLE, FT_ULONG, FT_ULONG) = nullptr;
    FT_STATUS(D2XX_CALL *Purge)(FT_HANDLE, FT_ULONG) = nullptr;
    FT_STATUS(D2XX_CALL *ResetDevice)(FT_HANDLE) = nullptr;
    FT_STATUS(D2XX_CALL *Write)(FT_HANDLE, void *, FT_DWORD, FT_DWORD *) = nullptr;
    FT_STATUS(D2XX_CALL *Read)(FT_HANDLE, void *, FT_DWORD, FT_DWORD *) = nullptr;
    // The count of the last listing: the driver fills that many nodes
    // whatever capacity we hold, so the node array is sized from it.
    FT_DWORD listed = 0;
};

D2xx g_d2xx;

#ifdef _WIN32
using Library = HMODULE;
Library open_library() {
    // A driver that is there but cannot be loaded (a missing dependency, the
    // wrong architecture) must fail quietly, not put a system error box in
    // front of the application's user.
    DWORD previous_mode = 0;
    const BOOL mode_set = SetThreadErrorMode(SEM_FAILCRITICALERRORS, &previous_mode);
    const Library library = LoadLibraryA("FTD2XX.dll");
    if (mode_set) SetThreadErrorMode(previous_mode, nullptr);
    return library;
}
void *symbol(Library library, const char *name) {
    return reinterpret_cast<void *>(GetProcAddress(library, name));
}
void close_library(Library library) {
    FreeLibrary(library);
}
#else
using Library = void *;
Library open_library() {
#ifdef __APPLE__
    return dlopen("libftd2xx.dylib", RTLD_NOW | RTLD_LOCAL);
#else
    return dlopen("libftd2xx.so", RTLD_NOW | RTLD_LOCAL);
#endif
}
void *symbol(Library library, const char *name) {
    return dlsym(library, name);
}
void close_library(Library library) {
    dlclose(library);
}
#endif

template <typename Fn>
bool bind(Library library, const char *name, Fn &slot) {
    void *address = symbol(library, name);
    // Function pointers and object pointers share a size on every platform
    // we build for; memcpy avoids the cast that -Wpedantic rejects.
    std::memcpy(&slot, &address, sizeof slot);
    return address != nullptr;
}

// Loads the driver once; a driver missing any call we need counts as absent.
bool driver() {
    if (g_d2xx.tried) return g_d2xx.loaded;
    g_d2xx.tried = true;
    Library library = open_library();
    if (library == nullptr) return false;
    D2xx &d = g_d2xx;
    const bool complete =
        bind(library, "FT_CreateDeviceInfoList", d.CreateDeviceInfoList) &&
        bind(library, "FT_GetDeviceInfoList", d.GetDeviceInfoList) && bind(library, "FT_Open", d.Open) &&
        bind(library, "FT_Close", d.Close) && bind(library, "FT_SetTimeouts", d.SetTimeouts) &&
        bind(library, "FT_SetLatencyTimer", d.SetLatencyTimer) &&
        bind(library, "FT_SetUSBParameters", d.SetUSBParameters) && bind(library, "FT_Purge", d.Purge) &&
        bind(library, "FT_ResetDevice", d.ResetDevice) && bind(library, "FT_Write", d.Write) &&
        bind(library, "FT_Read", d.Read);
    if (!complete) {
        close_library(library);
        return false;
    }
    // The library stays loaded for the life of the process: handles may be
    // open when we are unloaded, and closing them then is the driver's job.
    g_d2xx.loaded = true;
    return true;
}

Status create_device_info_list(uint32_t *count) {
    if (!driver()) return null_provider().create_device_info_list(count);
    FT_DWORD n = 0;
    const FT_STATUS status = g_d2xx.CreateDeviceInfoList(&n);
    g_d2xx.listed = status == 0 ? n : 0;
    *count = n;
    return status;
}

Status get_device_info_list(BridgeEntry *entries, uint32_t *count) {
    if (!driver()) return null_provider().get_device_info_list(entries, count);
    const uint32_t capacity = *count;
    std::vector<FT_DEVICE_LIST_INFO_NODE> nodes(
        static_cast<size_t>(g_d2xx.listed > capacity ? g_d2xx.listed : capacity) + 1);
    FT_DWORD n = capacity;
    const FT_STATUS status = g_d2xx.GetDeviceInfoList(nodes.data(), &n);
    if (status != 0) return status;
    if (n > capacity) n = capacity;
    for (uint32_t i = 0; i < n; ++i) {
        std::memcpy(entries[i].serial_number, nodes[i].SerialNumber, sizeof entries[i].serial_number);
        std::memcpy(entries[i].description, nodes[i].Description, sizeof entries[i].description);
        entries[i].serial_number[sizeof entries[i].serial_number - 1] = '\0';
        entries[i].description[sizeof entries[i].description - 1] = '\0';
    }
    *count = n;
    return 0;
}

Status open(int index, Handle *handle) {
    if (!driver()) return null_provider().open(index, handle);
    return g_d2xx.Open(index, handle);
}

Status close(Handle handle) {
    if (!driver()) return kNoDriver;
    return g_d2xx.Close(handle);
}

Status set_timeouts(Handle handle, uint32_t read_ms, uint32_t write_ms) {
    if (!driver()) return kNoDriver;
    return g_d2xx.SetTimeouts(handle, read_ms, write_ms);
}

Status set_latency_timer(Handle handle, uint8_t milliseconds) {
    if (!driver()) return kNoDriver;
    return g_d2xx.SetLatencyTimer(handle, milliseconds);
}

Status set_usb_parameters(Handle handle, uint32_t in_size, uint32_t out_size) {
    if (!driver()) return kNoDriver;
    return g_d2xx.SetUSBParameters(handle, in_size, out_size);
}

Status purge(Handle handle, uint32_t mask) {
    if (!driver()) return kNoDriver;
    return g_d2xx.Purge(handle, mask);
}

Status reset_device(Handle handle) {
    if (!driver()) return kNoDriver;
    return g_d2xx.ResetDevice(handle);
}

Status write(Handle handle, const void *bytes, uint32_t count, uint32_t *written) {
    if (!driver()) return null_provider().write(handle, bytes, count, written);
    FT_DWORD n = 0;
    // The driver's prototype takes a non-const buffer but only reads it.
    const FT_STATUS status = g_d2xx.Write(handle, const_cast<void *>(bytes), count, &n);
    *written = n;
    return status;
}

Status read(Handle handle, void *buffer, uint32_t count, uint32_t *returned) {
    if (!driver()) return null_provider().read(handle, buffer, count, returned);
    FT_DWORD n = 0;
    const FT_STATUS status = g_d2xx.Read(handle, buffer, count, &n);
    *returned = n > count ? count : n;
    return status;
}

Platform make_d2xx() {
    Platform p{};
    p.name = "d2xx";
    p.create_device_info_list = create_device_info_list;
    p.get_device_info_list = get_device_info_list;
    p.open = open;
    p.close = close;
    p.set_timeouts = set_timeouts;
    p.set_latency_timer = set_latency_timer;
    p.set_usb_parameters = set_usb_parameters;
    p.purge = purge;
    p.reset_device = reset_device;
    p.write = write;
    p.read = read;
    p.now_ms = host_now_ms;
    p.sleep_ms = host_sleep_ms;
    return p;
}

}  // namespace

const Platform &d2xx_provider() {
    static const Platform provider = make_d2xx();
    return provider;
}

}  // namespace kavrel::platform
