// The vendor's D2XX driver, loaded at run time on first use through the
// platform's normal library search, so that an application can put another
// D2XX-compatible library first on its search path. When no driver can be
// loaded the hardware chain passes this provider over and says why.
#include <cstring>
#include <vector>

#include "platform/platform.h"

#ifdef _WIN32
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
#define D2XX_CALL WINAPI
#define KAVREL_D2XX_LIBRARY "FTD2XX.dll"
#else
#include <dlfcn.h>
#define D2XX_CALL
#ifdef __APPLE__
#define KAVREL_D2XX_LIBRARY "libftd2xx.dylib"
#else
#define KAVREL_D2XX_LIBRARY "libftd2xx.so"
#endif
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

// The driver's entry points; the provider's whole state.
struct D2xx {
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
    // whatever capacity we hold, so the node array is sized from it. Listing
    // is serialised by the library.
    FT_DWORD listed = 0;

    Status create_device_info_list(uint32_t *count) {
        FT_DWORD n = 0;
        const FT_STATUS status = CreateDeviceInfoList(&n);
        listed = status == 0 ? n : 0;
        *count = n;
        return status;
    }

    Status get_device_info_list(BridgeEntry *entries, uint32_t *count) {
        const uint32_t capacity = *count;
        std::vector<FT_DEVICE_LIST_INFO_NODE> nodes(static_cast<size_t>(listed > capacity ? listed : capacity) + 1);
        FT_DWORD n = capacity;
        const FT_STATUS status = GetDeviceInfoList(nodes.data(), &n);
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

    Status open(int index, Handle *handle) { return Open(index, handle); }
    Status close(Handle handle) { return Close(handle); }
    Status set_timeouts(Handle h, uint32_t read_ms, uint32_t write_ms) { return SetTimeouts(h, read_ms, write_ms); }
    Status set_latency_timer(Handle h, uint8_t ms) { return SetLatencyTimer(h, ms); }
    Status set_usb_parameters(Handle h, uint32_t in_size, uint32_t out_size) {
        return SetUSBParameters(h, in_size, out_size);
    }
    Status purge(Handle h, uint32_t mask) { return Purge(h, mask); }
    Status reset_device(Handle h) { return ResetDevice(h); }

    Status write(Handle h, const void *bytes, uint32_t count, uint32_t *written) {
        FT_DWORD n = 0;
        // The driver's prototype takes a non-const buffer but only reads it.
        const FT_STATUS status = Write(h, const_cast<void *>(bytes), count, &n);
        *written = n;
        return status;
    }

    Status read(Handle h, void *buffer, uint32_t count, uint32_t *returned) {
        FT_DWORD n = 0;
        const FT_STATUS status = Read(h, buffer, count, &n);
        *returned = n > count ? count : n;
        return status;
    }

    double now_ms() { return host_now_ms(); }
    void sleep_ms(uint32_t ms) { host_sleep_ms(ms); }
};

#ifdef _WIN32
using Library = HMODULE;
Library open_library() {
    // A driver that is there but cannot be loaded (a missing dependency, the
    // wrong architecture) must fail quietly, not put a system error box in
    // front of the application's user.
    DWORD previous_mode = 0;
    const BOOL mode_set = SetThreadErrorMode(SEM_FAILCRITICALERRORS, &previous_mode);
    const Library library = LoadLibraryA(KAVREL_D2XX_LIBRARY);
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
    return dlopen(KAVREL_D2XX_LIBRARY, RTLD_NOW | RTLD_LOCAL);
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

// Loads the driver; a driver missing any call we need counts as absent.
// Null, with the reason in *why, when there is none.
const char *load(D2xx &d) {
    Library library = open_library();
    if (library == nullptr) return "driver library " KAVREL_D2XX_LIBRARY " not found";
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
        return "driver library " KAVREL_D2XX_LIBRARY " lacks a call the library needs";
    }
    // The library stays loaded for the life of the process: handles may be
    // open when we are unloaded, and closing them then is the driver's job.
    return nullptr;
}

struct Loaded {
    D2xx driver;
    Platform table{};
    const char *failure = nullptr;
};

}  // namespace

const Platform *d2xx_provider(const char **why) {
    // Loaded once, on first use; later calls see the same outcome.
    static Loaded *loaded = [] {
        auto *l = new Loaded;
        l->failure = load(l->driver);
        l->table = provider_table("d2xx", l->driver);
        return l;
    }();
    if (loaded->failure != nullptr) {
        if (why != nullptr) *why = loaded->failure;
        return nullptr;
    }
    return &loaded->table;
}

}  // namespace kavrel::platform
